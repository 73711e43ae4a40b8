// `orvel station --demo` as its user runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "process.h"
#include "sound_server.h"

namespace {

using Json = nlohmann::json;
using tcp = boost::asio::ip::tcp;
using namespace std::chrono_literals;

constexpr double START_S = 30;
constexpr double END_S = 20;

bool within(double seconds, const std::function<bool()>& holds) {
    for (int patience = 0; patience < static_cast<int>(20 * seconds); patience++) {
        if (holds()) return true;
        std::this_thread::sleep_for(50ms);
    }
    return holds();
}

bool is_there(const std::string& process) {
    std::ifstream file("/proc/" + process + "/cmdline");
    return file.get() != std::ifstream::traits_type::eof();  // one that has ended has none
}

bool are_gone(const std::vector<std::string>& processes) {
    return std::ranges::none_of(processes, is_there);
}

class Demo {
  public:
    // Waits until the page has been told of; port() is 0 when it is not.
    Demo() {
        for (auto line = process_.read_line(START_S); line; line = process_.read_line(START_S)) {
            const std::string address = "http://127.0.0.1:";
            const std::size_t at = line->find(address);
            if (at == std::string::npos) continue;
            port_ = static_cast<uint16_t>(std::stoi(line->substr(at + address.size())));
            break;
        }
    }

    RunningProcess& process() { return process_; }
    uint16_t port() const { return port_; }
    bool left_a_file() const { return !std::filesystem::is_empty(directory_.path()); }

    // The body of an answer; "" when there is none in time.
    std::string get(const std::string& target) const {
        tcp::iostream connection;
        connection.expires_after(5s);
        connection.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), port_));
        connection << "GET " << target << " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n" << std::flush;
        const std::string answer(std::istreambuf_iterator<char>(connection), {});
        const std::size_t body = answer.find("\r\n\r\n");
        return answer.starts_with("HTTP/1.1 200") && body != std::string::npos ? answer.substr(body + 4) : "";
    }

    // The names of the receivers that have sent a row of their waterfalls.
    std::vector<std::string> receivers_that_receive() const {
        std::vector<std::string> names;
        const Json status = Json::parse(get("/api/status"), nullptr, false);
        if (status.is_discarded()) return names;
        for (const Json& receiver : status["receivers"]) {
            const Json spectrum =
                Json::parse(get("/api/spectrum?receiver=" + receiver["name"].get<std::string>()), nullptr, false);
            if (spectrum.is_discarded() || spectrum["rows"].empty()) continue;
            names.push_back(receiver["name"].get<std::string>());
        }
        return names;
    }

    std::vector<std::string> children() const {
        const std::string number = std::to_string(process_.pid());
        std::ifstream file("/proc/" + number + "/task/" + number + "/children");
        return {std::istream_iterator<std::string>(file), {}};
    }

  private:
    TemporaryDirectory directory_;
    RunningProcess process_{
        {"/bin/sh", "-c", "TMPDIR=" + directory_.path() + " exec " ORVEL_COMMAND " station --demo 2>&1"}};
    uint16_t port_ = 0;
};

TEST(DemoLive, ShowsReceiversThatReceiveAndLeavesNothingAfterCtrlC) {
    Demo demo;
    ASSERT_NE(demo.port(), 0);
    EXPECT_NE(demo.get("/").find("<title>"), std::string::npos);
    EXPECT_TRUE(within(START_S, [&] { return demo.receivers_that_receive().size() == 3; }));
    EXPECT_EQ(Json::parse(demo.get("/api/status"))["outputs"].size(), 0u) << "nothing leaves this machine";
    const auto receivers = demo.children();
    EXPECT_EQ(receivers.size(), 3u);
    demo.process().send_signal(SIGINT);
    const auto end = demo.process().wait(END_S);
    ASSERT_TRUE(end) << "it ends within seconds";
    EXPECT_EQ(end->status, 0);
    EXPECT_TRUE(are_gone(receivers));
    EXPECT_FALSE(demo.left_a_file());
}

TEST(DemoLive, TakesAnotherPortWhereItsOwnIsTaken) {
    const Demo one;
    const Demo other;
    EXPECT_NE(one.port(), other.port());
    EXPECT_NE(one.get("/"), "");
    EXPECT_NE(other.get("/"), "");
}

TEST(DemoLive, LeavesNoReceiverWhenItIsKilled) {
    Demo demo;
    ASSERT_NE(demo.port(), 0);
    EXPECT_TRUE(within(START_S, [&] { return demo.receivers_that_receive().size() == 3; }));
    const auto receivers = demo.children();
    EXPECT_EQ(receivers.size(), 3u);
    demo.process().send_signal(SIGKILL);
    EXPECT_TRUE(within(END_S, [&] { return are_gone(receivers); }));
}

}  // namespace
