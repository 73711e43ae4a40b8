// One connection for each command: a rigctld that was restarted in between is as good as before. The lines are those of
// its plain protocol: "T 1" and "T 0", each answered by "RPRT 0", or the number of an error.
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/background.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "transmission/ptt.h"

namespace {

constexpr std::size_t LONGEST_ANSWER = 200;
constexpr int32_t TRIES = 3;  // rigctld drops connections now and then when several come at once

struct Broken : IoError {
    using IoError::IoError;
};

struct FreeAddresses {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

[[noreturn]] void fail(const std::string& reason) {
    throw IoError(reason);
}

// A name server may keep us waiting.
Addresses resolve(const std::string& host, const std::string& port, double end) {
    struct Answer {
        int error = 0;
        Addresses list;
    };
    const auto answer = std::make_shared<Answer>();
    const Background asking([answer, host, port] {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        answer->error = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
        if (answer->error == 0) answer->list.reset(list);
    });
    if (!asking.wait(end - monotonic_now())) fail("no address in time");
    if (answer->error != 0) fail(gai_strerror(answer->error));
    return std::move(answer->list);
}

// A connection that waits until a time of the monotonic clock, and no longer.
class Connection {
  public:
    Connection(const addrinfo& address, double end)
        : end_(end),
          socket_(socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol)) {
        if (socket_ < 0) {
            error_ = errno;
        } else if (connect(socket_, address.ai_addr, address.ai_addrlen) != 0) {
            error_ = errno == EINPROGRESS ? connect_error() : errno;
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        if (socket_ >= 0) close(socket_);
    }

    int error() const { return error_; }

    void send_line(std::string_view line) const {
        const ssize_t sent = ::send(socket_, line.data(), line.size(), MSG_NOSIGNAL);
        if (sent < 0) throw Broken(std::strerror(errno));
        if (sent != static_cast<ssize_t>(line.size())) fail("it takes no command");
    }

    std::string read_line() const {
        std::string text;
        while (text.find('\n') == std::string::npos) {
            if (!ready(POLLIN)) fail("no answer in time");
            std::array<char, 64> block{};
            const ssize_t got = recv(socket_, block.data(), block.size(), 0);
            if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (got < 0) throw Broken(std::strerror(errno));
            if (got == 0) throw Broken("it closed the connection");
            text.append(block.data(), static_cast<std::size_t>(got));
            if (text.size() > LONGEST_ANSWER) fail("its answer has no end");
        }
        return text.substr(0, text.find('\n'));
    }

  private:
    // Whatever signals come.
    bool ready(short event) const {
        while (true) {
            const double left_s = end_ - monotonic_now();
            if (left_s <= 0) return false;
            pollfd descriptor{socket_, event, 0};
            const int count = poll(&descriptor, 1, static_cast<int>(1000 * left_s) + 1);
            if (count > 0) return true;
            if (count < 0 && errno != EINTR) return false;
        }
    }

    int connect_error() const {
        if (!ready(POLLOUT)) return ETIMEDOUT;
        int error = 0;
        socklen_t size = sizeof error;
        return getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
    }

    double end_;
    int socket_;
    int error_ = 0;
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
        const Addresses addresses = resolve(host_, port_, end);
        int error = 0;
        for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
            auto connection = std::make_unique<Connection>(*address, end);
            if (connection->error() == 0) return connection;
            error = connection->error();
        }
        fail(std::strerror(error));
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
