// Programs and drivers of others at the other end: rtl_433 of the tests' own server, SoapySDR's audio module of ours.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
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

}  // namespace
