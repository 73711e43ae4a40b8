// Programs and drivers of others at the other end: rtl_433 of the tests' own server, SoapySDR's audio module of ours,
// inspectrum of the SigMF that we write.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "process.h"
#include "sound_server.h"
#include "tcp_server.h"

namespace {

constexpr double PATIENCE_S = 60;

// The server that stands for rtl_tcp in these tests is one that another client takes for rtl_tcp.
TEST(Peers, TheServerOfTheTestsIsTakenForRtlTcpByRtl433) {
    ASSERT_TRUE(std::filesystem::exists("/usr/bin/rtl_433")) << "./test all installs it";
    const std::string header("RTL0\0\0\0\x05\0\0\0\x1d", 12);
    std::string commands;
    TcpServer server([&](TcpServer::Connection& connection, int32_t) {
        connection.send(std::vector<uint8_t>(header.begin(), header.end()));
        commands = connection.receive(15);
        const std::vector<uint8_t> silence(50000, 128);
        while (connection.send(silence) && connection.pause(0.1)) {
        }
    });
    const ProcessResult result = run_process(
        {"/usr/bin/rtl_433", "-d", "rtl_tcp:" + server.address(), "-s", "250000", "-f", "137500", "-T", "1"});
    EXPECT_NE(result.err.find("R820T"), std::string::npos) << result.err;
    const auto sent = [&](const std::string& command) { return commands.find(command) != std::string::npos; };
    EXPECT_TRUE(sent(std::string("\x02\0\x03\xd0\x90", 5))) << "the rate";
    EXPECT_TRUE(sent(std::string("\x01\0\x02\x19\x1c", 5))) << "the frequency";
}

TEST(Peers, SoapysAudioModuleIsHeardAtTheRateItHas) {
    const auto module = "/usr/lib/x86_64-linux-gnu/SoapySDR/modules0.8/libaudioSupport.so";
    ASSERT_TRUE(SoundServer::installed() && std::filesystem::exists(module)) << "./test all installs both";
    const SoundServer server;
    ProcessInput input;
    input.environment = server.environment();
    RunningProcess process(
        {ORVEL_COMMAND, "listen", "--json", "--status=1", "--device", "soapy:driver=audio,device_id=0?rate=48000"},
        input);
    for (int k = 0; k < 20; k++) {
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line);
        const JsonValue status = JsonValue::parse(*line);
        EXPECT_EQ(status.at("rate"), 48000.0);
        if (status.at("captured_s").number() > 2) break;
    }
    process.send_signal(SIGINT);
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
}

TEST(Peers, AReceiverThatSoapyDoesNotKnowIsWaitedFor) {
    ASSERT_TRUE(std::filesystem::exists("/usr/lib/x86_64-linux-gnu/libSoapySDR.so.0.8")) << "./test all installs it";
    RunningProcess process({ORVEL_COMMAND, "listen", "--json", "--status=1", "--device", "soapy:driver=none"});
    for (int k = 0; k < 3; k++) {
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line);
        EXPECT_EQ(JsonValue::parse(*line).at("captured_s"), 0.0);
    }
    process.send_signal(SIGINT);
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0);
    EXPECT_TRUE(one_line_with(*result, {"driver=none: ", "; trying again"}));
}

// It stands still, lets nobody else in, and then goes on with whoever is still there.
TEST(Peers, AServerThatStopsForAMinuteIsHeardAgain) {
    const TcpServer server([](TcpServer::Connection& connection, int32_t which) {
        const std::vector<uint8_t> second(2 * 8000, 100);
        for (int k = 0; k < 5; k++) connection.send(second);
        if (which == 0) connection.pause(60);
        while (connection.send(second) && connection.pause(1)) {
        }
    });
    RunningProcess process(
        {ORVEL_COMMAND, "listen", "--json", "--status=1", "--device", "rtl_tcp://" + server.address() + "?rate=8000"});
    double lost_s = 0;
    for (int k = 0; k < 150 && lost_s == 0; k++) {
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line);
        lost_s = JsonValue::parse(*line).at("lost_s");
    }
    EXPECT_GT(lost_s, 55);
    process.send_signal(SIGINT);
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
    EXPECT_NE(result->err.find("no samples come; trying again"), std::string::npos) << result->err;
    EXPECT_NE(result->err.find(" is back"), std::string::npos) << result->err;
}

// A window that nobody sees; a recording that is understood is mapped into memory, one that is not is not.
class Inspectrum : public TestWithFiles {
  protected:
    bool maps_samples_of(const std::string& meta) const {
        ProcessInput input;
        input.environment = {{"QT_QPA_PLATFORM", "offscreen"}, {"XDG_RUNTIME_DIR", path("")}, {"HOME", path("")}};
        RunningProcess window({"/usr/bin/inspectrum", meta}, input);
        const std::string data = meta.substr(0, meta.find(".sigmf-meta")) + ".sigmf-data";
        for (int k = 0; k < 50; k++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            std::ifstream maps("/proc/" + std::to_string(window.pid()) + "/maps");
            const std::string text{std::istreambuf_iterator<char>(maps), {}};
            if (text.find(data) != std::string::npos) return true;
        }
        return false;
    }
};

TEST_F(Inspectrum, OpensTheSigmfThatIsWritten) {
    ASSERT_TRUE(std::filesystem::exists("/usr/bin/inspectrum")) << "./test all installs it";
    const auto run = [](Arguments arguments) {
        arguments.insert(arguments.begin(), ORVEL_COMMAND);
        EXPECT_EQ(run_process(arguments).status, 0) << ::testing::PrintToString(arguments);
    };
    run({"simulate", "--iq", "--rate=8000", "opera=K2QRX,freq=100,snr=20", "-o", path("x.sigmf-data"), "--dial=137000",
         "--start=2026-03-01T12:00Z"});
    run({"decode", path("x.sigmf-meta"), "--sigmf-annotate", path("marked.sigmf-meta")});
    std::filesystem::copy(path("x.sigmf-data"), path("marked.sigmf-data"));
    EXPECT_TRUE(maps_samples_of(path("x.sigmf-meta")));
    EXPECT_TRUE(maps_samples_of(path("marked.sigmf-meta")));

    std::ifstream file(path("x.sigmf-meta"));
    std::string wrong{std::istreambuf_iterator<char>(file), {}};
    wrong.replace(wrong.find("ci16_le"), 4, "ci17");
    write("wrong.sigmf-meta", wrong);
    std::filesystem::copy(path("x.sigmf-data"), path("wrong.sigmf-data"));
    EXPECT_FALSE(maps_samples_of(path("wrong.sigmf-meta"))) << "otherwise the others show nothing";
}

}  // namespace
