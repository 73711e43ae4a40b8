// One connection for each command: a rigctld that was restarted in between is as good as before. The lines are those of
// its plain protocol: "T 1" and "T 0", each answered by "RPRT 0", or the number of an error.
#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <string_view>

#include "base/background.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "system/sockets.h"
#include "transmission/ptt.h"

namespace {

constexpr std::size_t LONGEST_ANSWER = 200;
constexpr int32_t TRIES = 3;  // rigctld drops connections now and then when several come at once

struct Broken : IoError {
    using IoError::IoError;
};

[[noreturn]] void fail(const std::string& reason) {
    throw IoError(reason);
}

// A name server may keep us waiting.
std::vector<SocketAddress> resolve_in_time(const std::string& host, const std::string& port, double end) {
    struct Answer {
        std::vector<SocketAddress> addresses;
        std::string problem;
    };
    const auto answer = std::make_shared<Answer>();
    const Background asking([answer, host, port] {
        try {
            answer->addresses = resolve(host, port);
        } catch (const IoError& error) {
            answer->problem = error.what();
        }
    });
    if (!asking.wait(end - monotonic_now())) fail("no address in time");
    if (!answer->problem.empty()) fail(answer->problem);
    return std::move(answer->addresses);
}

// A connection that waits until a time of the monotonic clock, and no longer. Throws IoError when it does not come.
class Connection {
  public:
    Connection(const SocketAddress& address, double end) : end_(end), socket_(address) {
        if (!in_time(&Socket::wait_to_send)) fail("no connection in time");
        socket_.require_connected();
    }

    void send_line(std::string_view line) const {
        std::size_t sent = 0;
        try {
            sent = socket_.send(bytes_of(line));
        } catch (const IoError& error) {
            throw Broken(error.what());
        }
        if (sent != line.size()) fail("it takes no command");
    }

    std::string read_line() const {
        std::string text;
        while (text.find('\n') == std::string::npos) {
            if (!in_time(&Socket::wait_to_receive)) fail("no answer in time");
            std::array<uint8_t, 64> block{};
            std::optional<std::size_t> got;
            try {
                got = socket_.receive(block);
            } catch (const IoError& error) {
                throw Broken(error.what());
            }
            if (!got) continue;
            if (*got == 0) throw Broken("it closed the connection");
            text.append(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(*got));
            if (text.size() > LONGEST_ANSWER) fail("its answer has no end");
        }
        return text.substr(0, text.find('\n'));
    }

  private:
    static std::span<const uint8_t> bytes_of(std::string_view text) {
        return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
    }

    // Whatever signals come.
    bool in_time(bool (Socket::*wait)(double) const) const {
        while (true) {
            const double left_s = end_ - monotonic_now();
            if (left_s <= 0) return false;
            if ((socket_.*wait)(left_s)) return true;
        }
    }

    double end_;
    Socket socket_;
};

class RigctldPtt : public Ptt {
  public:
    RigctldPtt(const std::string& host, const std::string& port, double patience_s)
        : host_(host), port_(port), patience_s_(patience_s) {}

    void check() override {
        try {
            connect(monotonic_now() + patience_s_);
        } catch (const IoError& error) {
            refuse(error);
        }
    }

    void set(bool on) override {
        const double end = monotonic_now() + patience_s_;
        for (int32_t tries = 1;; tries++) {
            try {
                return command(on ? "T 1\n" : "T 0\n", end);
            } catch (const Broken& error) {
                if (tries == TRIES) refuse(error);
            } catch (const IoError& error) {
                refuse(error);
            }
        }
    }

  private:
    [[noreturn]] void refuse(const IoError& error) {
        throw IoError("cannot use rigctld at " + host_ + " port " + port_ + ": " + error.what());
    }

    void command(std::string_view line, double end) {
        const auto connection = connect(end);
        connection->send_line(line);
        const std::string answer = connection->read_line();
        if (answer != "RPRT 0") fail("it answers '" + answer + "'");
    }

    std::unique_ptr<Connection> connect(double end) {
        std::string problem = "it has no address";
        for (const SocketAddress& address : resolve_in_time(host_, port_, end)) {
            try {
                return std::make_unique<Connection>(address, end);
            } catch (const IoError& error) {
                problem = error.what();
            }
        }
        fail(problem);
    }

    std::string host_;
    std::string port_;
    double patience_s_;
};

bool is_port(const std::string& text) {
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 1 && number <= 65535;
}

}  // namespace

std::unique_ptr<Ptt> make_rigctld_ptt(const std::string& host, const std::string& port, double patience_s) {
    if (!is_port(port)) throw UsageError("--ptt: '" + port + "' is no port from 1 to 65535");
    return std::make_unique<RigctldPtt>(host, port, patience_s);
}
