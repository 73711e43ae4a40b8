// orvel devices, send and listen over a real sound server, which also stalls, dies and comes back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/utc.h"
#include "command.h"
#include "json_value.h"

namespace {

void sleep_s(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

bool holds_within(double seconds, const std::function<bool()>& condition) {
    const double end = utc_now() + seconds;
    while (!condition()) {
        if (utc_now() > end) return false;
        sleep_s(0.05);
    }
    return true;
}

class OnAir : public TestWithFiles {
  protected:
    void SetUp() override {
        if (!SoundServer::installed()) GTEST_SKIP() << "pulseaudio is not installed";
        alarm(170);  // a hanging command must not hang the suite
        server_ = std::make_unique<SoundServer>();
    }
    void TearDown() override { alarm(0); }

    // The command, running during the test; its standard error goes into a file.
    std::unique_ptr<RunningProcess> begin(const Arguments& arguments) const {
        Arguments shell = {"/bin/sh", "-c", "exec \"$@\" 2>" + path("messages"), "sh"};
        const Arguments command = orvel_arguments(arguments);
        shell.insert(shell.end(), command.begin(), command.end());
        return std::make_unique<RunningProcess>(shell, surroundings());
    }
    ProcessInput surroundings() const {
        ProcessInput input;
        input.environment = server_->environment();
        return input;
    }
    ProcessInput with_deep_buffers() const {
        ProcessInput input = surroundings();
        for (const auto& variable : deep_buffers()) input.environment.push_back(variable);
        return input;
    }
    std::string messages() const {
        std::ostringstream text;
        text << std::ifstream(path("messages")).rdbuf();
        return text.str();
    }
    // What `pactl` prints.
    std::string server_does(const Arguments& arguments) const {
        Arguments all = {"/usr/bin/pactl"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ProcessResult result = run_process(all, surroundings());
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }
    bool something_plays() const {
        return holds_within(10, [&] { return !server_does({"list", "short", "sink-inputs"}).empty(); });
    }
    bool says(const std::string& text, double seconds) const {
        return holds_within(seconds, [&] { return messages().find(text) != std::string::npos; });
    }

    std::unique_ptr<SoundServer> server_;
};

// Exit status, -2 when the command does not end.
int end_of(RunningProcess& process, double seconds) {
    const auto result = process.wait(seconds);
    return result ? result->status : -2;
}

TEST_F(OnAir, DevicesAreListed) {
    const ProcessResult table = orvel({"devices"}, surroundings());
    EXPECT_EQ(table.status, 0);
    EXPECT_NE(table.out.find("default input"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("default output"), std::string::npos) << table.out;
    EXPECT_EQ(table.err, "") << "what the sound systems say is kept back";

    int inputs = 0;
    int outputs = 0;
    for (const std::string& line : lines_of(orvel({"devices", "--json"}, surroundings()).out)) {
        const auto device = JsonValue::parse(line);
        EXPECT_FALSE(device.at("name").text().empty());
        EXPECT_EQ(device.at("system"), "ALSA");
        EXPECT_GT(device.at("default_rate").number(), 0);
        EXPECT_GE(device.at("input_channels").number() + device.at("output_channels").number(), 1);
        inputs += device.at("default_input").truth() ? 1 : 0;
        outputs += device.at("default_output").truth() ? 1 : 0;
    }
    EXPECT_EQ(inputs, 1);
    EXPECT_EQ(outputs, 1);
}

TEST_F(OnAir, OutputThatCannotBeWrittenIsAFailure) {
    ProcessInput closed = surroundings();
    closed.stdout_closed_pipe = true;
    ProcessInput full = surroundings();
    full.stdout_file = "/dev/full";
    for (const auto& [input, reason] : {std::pair{closed, "Broken pipe"}, {full, "No space left on device"}}) {
        for (const Arguments& command : {Arguments{"devices"}, {"devices", "--json"}, {"send", "carrier=0.2"}}) {
            const ProcessResult result = orvel(command, input);
            EXPECT_EQ(result.status, 1) << command[0];
            EXPECT_TRUE(one_line_with(result, {"cannot write the output: ", reason})) << command[0];
        }
    }
}

// The sound server stalls for longer than a buffer could explain, then a frame is sent; then the server dies, before
// the frame's hold-off has passed, and comes back. Listening goes on through all of it.
TEST_F(OnAir, WhatIsSentIsReceivedAndAStalledInputIsReopened) {
    const auto listener = begin({"listen", "--json", "--every", "2"});
    sleep_s(4);
    server_->pause();
    ASSERT_TRUE(says("orvel: no audio for 5 s, reopening the device\n", 12)) << messages();
    server_->resume();
    ASSERT_TRUE(says("orvel: audio is back\n", 12)) << messages();

    const double start = std::ceil(utc_now()) + 4;
    const ProcessResult sent =
        orvel({"send", "--at", utc_text(start, 0), "--tone", "1455", "orvel-s=K2QRX"}, with_deep_buffers());
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.out, utc_text(start, 3) + "  sent\n");

    std::ofstream(path("messages"), std::ios::trunc).close();
    sleep_s(1);  // the end of it is still on its way
    EXPECT_FALSE(listener->read_line(0));
    server_->crash();
    ASSERT_TRUE(says("no audio for 5 s", 12)) << messages();
    const auto line = listener->read_line(5);
    ASSERT_TRUE(line.has_value()) << messages();
    const auto spot = JsonValue::parse(*line);
    EXPECT_EQ(spot.at("call"), "K2QRX");
    EXPECT_EQ(spot.at("protocol"), "ORVEL S");
    EXPECT_NEAR(spot.at("freq_hz").number(), 1455, 0.3);
    const auto heard = parse_utc(spot.at("utc_start").text(), 0);
    ASSERT_TRUE(heard.has_value());
    EXPECT_NEAR(*heard, start - DEEP_BUFFER_S, 0.2);

    server_->restart();
    ASSERT_TRUE(says("audio is back", 20)) << messages();

    listener->send_signal(SIGINT);
    EXPECT_EQ(end_of(*listener, 6), 0);
    EXPECT_EQ(listener->read_rest(1), "") << "the frame was printed once";
}

class OnAirBehindALoss : public OnAir {
  protected:
    // Sends a frame that begins `behind_s` after the input was disturbed, and expects that listening tells when.
    void expect_the_right_time(const std::function<void()>& disturb, double behind_s) {
        const auto listener = begin({"listen", "--json", "--every", "2", "--hold-off", "0", "--protocols", "orvel-s"});
        sleep_s(7);
        double start = 0;
        std::optional<std::string> line;
        std::string sender_says;
        // A frame with gaps, as on a machine that is too busy, may be lost.
        for (int tries = 0; tries < 2 && !line; tries++) {
            disturb();
            start = std::ceil(utc_now() + behind_s);
            const ProcessResult sent =
                orvel({"send", "--at", utc_text(start, 0), "orvel-s=K2QRX"}, with_deep_buffers());
            EXPECT_TRUE(sent.out.ends_with("  sent\n")) << sent.err;
            sender_says = sent.err;
            line = listener->read_line(15);
            if (sender_says.find("gap") == std::string::npos) break;
        }
        ASSERT_TRUE(line.has_value()) << messages() << sender_says;
        const auto heard = parse_utc(JsonValue::parse(*line).at("utc_start").text(), 0);
        ASSERT_TRUE(heard.has_value()) << *line;
        EXPECT_NEAR(*heard, start - DEEP_BUFFER_S, 0.2);
        listener->send_signal(SIGINT);
        EXPECT_EQ(end_of(*listener, 6), 0);
    }
};

TEST_F(OnAirBehindALoss, AnotherSourceKeepsTheTime) {
    server_does({"load-module", "module-null-sink", "sink_name=another"});
    server_does({"set-default-sink", "orvel_test"});
    const auto move = [&] {
        const std::string output = server_does({"list", "short", "source-outputs"});
        const std::string number = output.substr(0, output.find('\t'));
        for (int k = 0; k < 3; k++) {
            for (const char* const source : {"another.monitor", "orvel_test.monitor"}) {
                server_does({"move-source-output", number, source});
                sleep_s(0.3);
            }
        }
    };
    expect_the_right_time(move, 4);
}

TEST_F(OnAirBehindALoss, AServerThatStoodStillKeepsTheTime) {
    const auto stall = [&] {
        server_->pause();
        sleep_s(3);
        server_->resume();
    };
    expect_the_right_time(stall, 4);
}

// Samples through a pipe as they are captured, of which some seconds never come.
TEST_F(OnAirBehindALoss, APipeKeepsTheTime) {
    constexpr double LOST_AT_S = 8;
    constexpr double LOST_S = 3;
    constexpr double BEGIN_S = 8.7;  // of the frame, in what comes
    constexpr double STEP_S = 0.1;
    constexpr std::size_t BYTES_A_SECOND = 2 * 8000;
    constexpr std::size_t WAVE_HEADER = 44;
    ASSERT_EQ(
        orvel({"render", "pause=8.7", "orvel-s=K2QRX", "pause=6", "--rate", "8000", "-o", path("frame.wav")}).status,
        0);
    std::ostringstream bytes;
    bytes << std::ifstream(path("frame.wav"), std::ios::binary).rdbuf();
    const std::string samples = bytes.str().substr(WAVE_HEADER);

    RunningProcess listener(orvel_arguments({"listen", "--stdin", "--rate", "8000", "--json", "--every", "2",
                                             "--hold-off", "0", "--protocols", "orvel-s"}));
    const double begin = utc_now();
    constexpr auto STEP = static_cast<std::size_t>(STEP_S * BYTES_A_SECOND);
    for (std::size_t at = 0; at < samples.size(); at += STEP) {
        const double captured_s = static_cast<double>(at + STEP) / BYTES_A_SECOND;
        sleep_s(begin + captured_s + (captured_s > LOST_AT_S ? LOST_S : 0) - utc_now());
        ASSERT_TRUE(listener.write(samples.substr(at, STEP)));
    }
    listener.close_stdin();
    const auto line = listener.read_line(15);
    ASSERT_TRUE(line.has_value());
    const auto heard = parse_utc(JsonValue::parse(*line).at("utc_start").text(), 0);
    ASSERT_TRUE(heard.has_value()) << *line;
    EXPECT_NEAR(*heard, begin + LOST_S + BEGIN_S, 0.1);
}

// A direct-conversion receiver: I on one channel, Q on the other, stations on both sides of its centre.
TEST_F(OnAir, IqOfASoundDeviceIsHeardNarrowAndWideAndWithItsSigns) {
    ASSERT_EQ(orvel({"simulate", "--iq", "--rate=48000", "orvel-s=K2QRX,freq=-8000,start=1",
                     "orvel-s=G4QZB,freq=11000,start=1.5", "-o", path("iq.wav")})
                  .status,
              0);
    const Arguments narrow = {"listen",     "--json",        "--receiver", "sdr=default", "--receiver", "audio=pulse",
                              "--iq",       "--rate=48000",  "--center",   "-8000",       "--dial",     "7000000",
                              "--every=15", "--status=1000", "--record",   path("kept")};
    const auto listener = begin(narrow);
    RunningProcess wide(orvel_arguments({"listen", "--json", "--iq", "--wide", "--rate=48000"}), surroundings());
    sleep_s(3);
    EXPECT_EQ(run_process({"/usr/bin/paplay", "--latency-msec=2000", path("iq.wav")}, surroundings()).status, 0);
    sleep_s(0.5);
    listener->send_signal(SIGINT);
    wide.send_signal(SIGINT);

    std::vector<std::string> heard;
    for (const std::string& line : lines_of(listener->read_rest(20))) {
        const auto spot = JsonValue::parse(line);
        if (spot.at("type") == "status") {
            EXPECT_EQ(spot.at("rate"), 48000.0);
            EXPECT_GT(spot.at("captured_s").number(), 5);
            continue;
        }
        heard.push_back(spot.at("receiver").text() + " " + spot.at("call").text());
        EXPECT_NEAR(spot.at("freq_hz").number(), -8000, 0.5);
        EXPECT_NEAR(spot.at("rf_hz").number(), 6992000, 0.5);
    }
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, (Arguments{"audio K2QRX", "sdr K2QRX"})) << messages();
    EXPECT_EQ(end_of(*listener, 6), 0);
    std::vector<std::pair<std::string, double>> in_the_band;
    for (const std::string& line : lines_of(wide.read_rest(20))) {
        const auto spot = JsonValue::parse(line);
        in_the_band.emplace_back(spot.at("call").text(), std::round(spot.at("freq_hz").number()));
    }
    std::sort(in_the_band.begin(), in_the_band.end());
    EXPECT_EQ(in_the_band, (std::vector<std::pair<std::string, double>>{{"G4QZB", 11000}, {"K2QRX", -8000}}));
}

TEST_F(OnAir, AStalledIqInputIsReopened) {
    const auto listener = begin({"listen", "--json", "--iq", "--rate=96000", "--status=1"});
    ASSERT_TRUE(listener->read_line(10));
    server_->crash();
    ASSERT_TRUE(says("orvel: no audio for 5 s, reopening the device\n", 12)) << messages();
    server_->restart();
    ASSERT_TRUE(says("orvel: audio is back\n", 20)) << messages();
    listener->send_signal(SIGINT);
    EXPECT_EQ(end_of(*listener, 6), 0) << messages();
}

TEST_F(OnAir, CtrlCPrintsWhatWasReceivedSinceTheLastDecode) {
    const auto listener = begin({"listen", "--json", "--every", "15", "--protocols", "opera"});
    sleep_s(3);
    EXPECT_EQ(orvel({"send", "opera=DL1QXA"}, with_deep_buffers()).status, 0);
    sleep_s(0.5);
    listener->send_signal(SIGINT);
    const auto line = listener->read_line(5);
    ASSERT_TRUE(line.has_value()) << messages();
    EXPECT_EQ(JsonValue::parse(*line).at("call"), "DL1QXA");
    EXPECT_EQ(end_of(*listener, 5), 0);
}

TEST_F(OnAir, CtrlCEndsListeningToADeviceThatStalls) {
    const auto listener = begin({"listen"});
    sleep_s(4);
    server_->pause();
    listener->send_signal(SIGINT);
    EXPECT_EQ(end_of(*listener, 8), 1);
    EXPECT_NE(messages().find("the input device does not close"), std::string::npos) << messages();
    server_->resume();
}

TEST_F(OnAir, CtrlCEndsATransmission) {
    const auto sender = begin({"send", "carrier=20"});
    sleep_s(2);
    const double interrupt = utc_now();
    sender->send_signal(SIGINT);
    const auto line = sender->read_line(5);
    ASSERT_TRUE(line.has_value()) << messages();
    EXPECT_NE(line->find("  stopped"), std::string::npos) << *line;
    EXPECT_EQ(end_of(*sender, 3), 1);
    EXPECT_LT(utc_now() - interrupt, 3);
}

TEST_F(OnAir, SignalsEndTheWaitForAStart) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const auto sender = begin({"send", "--at", utc_text(utc_now() + 3600, 0), "opera=K2QRX"});
        sleep_s(1);
        sender->send_signal(signal);
        EXPECT_EQ(end_of(*sender, 3), 1);
        EXPECT_EQ(sender->read_rest(1), "");
        EXPECT_EQ(messages(), "");
    }
}

// A sound server that got no processor in time starts late; then the command says so.
TEST_F(OnAir, AScheduleIsKept) {
    constexpr double PERIOD_S = 8;
    constexpr double OFFSET_S = 1;
    const ProcessResult sent =
        orvel({"send", "--every", "8", "--offset", "1", "--times", "3", "carrier=0.5"}, surroundings());
    EXPECT_EQ(sent.status, 0) << sent.err;
    const auto lines = lines_of(sent.out);
    ASSERT_EQ(lines.size(), 3u) << sent.out;

    int punctual = 0;
    std::vector<double> slots;
    for (const std::string& line : lines) {
        EXPECT_TRUE(line.ends_with("  sent")) << line;
        const auto start = parse_utc(line.substr(0, line.find(' ')), 0);
        ASSERT_TRUE(start.has_value()) << line;
        const double slot = OFFSET_S + PERIOD_S * std::floor((*start + 0.002 - OFFSET_S) / PERIOD_S);
        if (*start - slot < 0.05) {
            EXPECT_NEAR(*start, slot, 0.002) << line;
            punctual++;
        } else {
            char told[40];
            std::snprintf(told, sizeof told, "started %.2f s late", *start - slot);
            EXPECT_NE(sent.err.find(told), std::string::npos) << line << "\n" << sent.err;
        }
        slots.push_back(slot);
    }
    EXPECT_GE(punctual, 1) << sent.out << sent.err;
    EXPECT_EQ(slots[1] - slots[0], PERIOD_S);
    EXPECT_EQ(slots[2] - slots[1], PERIOD_S);
}

TEST_F(OnAir, AnOutputThatDiesIsReported) {
    const auto sender = begin({"send", "carrier=30"});
    sleep_s(2);
    server_->crash();
    EXPECT_EQ(end_of(*sender, 15), 1);
    EXPECT_NE(messages().find("orvel: the output device"), std::string::npos) << messages();
}

TEST_F(OnAir, AnOutputThatStallsIsReported) {
    const auto sender = begin({"send", "carrier=30"});
    sleep_s(2);
    server_->pause();
    EXPECT_EQ(end_of(*sender, 20), 1);
    EXPECT_NE(messages().find("orvel: the output device has stalled"), std::string::npos) << messages();
    server_->resume();
}

// A machine that is too slow, or is put to sleep, for longer than devices hold in advance.
TEST_F(OnAir, GapsAreReportedAndCountWhenStrict) {
    for (const bool strict : {false, true}) {
        Arguments arguments = {"send", "carrier=6"};
        if (strict) arguments.emplace_back("--strict");
        const auto sender = begin(arguments);
        ASSERT_TRUE(something_plays());
        sleep_s(1);
        sender->send_signal(SIGSTOP);
        sleep_s(3);
        sender->send_signal(SIGCONT);
        EXPECT_EQ(end_of(*sender, 15), strict ? 1 : 0);
        const std::string told = messages();  // a busy machine may add gaps of its own
        EXPECT_NE(told.find("orvel: the transmission has "), std::string::npos) << told;
        EXPECT_NE(told.find(": the output ran out of samples\n"), std::string::npos) << told;
        EXPECT_EQ(told.find("ALSA"), std::string::npos) << "the sound system's own lines: " << told;
        EXPECT_TRUE(sender->read_rest(1).ends_with("  sent\n"));
    }
}

// ---- Keying a transmitter -------------------------------------------------------------------------------------------

class OnAirKeyed : public OnAir {
  protected:
    // A program that notes when it is told what.
    std::string keying_program() const {
        const std::string file = write("key", "#!/bin/sh\necho \"$1 $(date +%s.%N)\" >> " + path("keyed") + "\n");
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        return file;
    }
    struct Keyed {
        std::string word;
        double at;
    };
    std::vector<Keyed> keyed() const {
        std::vector<Keyed> all;
        std::ifstream file(path("keyed"));
        for (Keyed one; file >> one.word >> one.at;) all.push_back(one);
        return all;
    }
    std::string words() const {
        std::string text;
        for (const Keyed& one : keyed()) text += one.word + " ";
        return text;
    }
};

TEST_F(OnAirKeyed, BeforeTheSoundAndReleasedBehindIt) {
    const double at = std::ceil(utc_now()) + 5;
    for (const Arguments& when : {Arguments{}, {"--at", utc_text(at, 0)}}) {
        std::filesystem::remove(path("keyed"));
        Arguments arguments = {"send", "carrier=1", "--ptt-command", keying_program()};
        arguments.insert(arguments.end(), when.begin(), when.end());
        const ProcessResult sent = orvel(arguments, surroundings());
        EXPECT_EQ(sent.status, 0) << sent.err;
        const auto start = parse_utc(sent.out.substr(0, sent.out.find(' ')), 0);
        ASSERT_TRUE(start.has_value()) << sent.out;
        ASSERT_EQ(words(), "on off ");
        EXPECT_LT(keyed()[0].at, *start);
        EXPECT_GT(keyed()[0].at, *start - (when.empty() ? 5 : 1.05));
        EXPECT_GT(keyed()[1].at, *start + 1);
        EXPECT_LT(keyed()[1].at, *start + 5);
    }
}

TEST_F(OnAirKeyed, AnewForEachTransmission) {
    EXPECT_EQ(orvel({"send", "carrier=0.3", "--every", "4", "--times", "2", "--ptt-command", keying_program()},
                    surroundings())
                  .status,
              0);
    EXPECT_EQ(words(), "on off on off ");
}

TEST_F(OnAirKeyed, IsReleasedWhateverEndsTheTransmission) {
    const std::string program = keying_program();
    const Arguments arguments = {"send", "carrier=30", "--ptt-command", program};
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGKILL, SIGSEGV}) {
        std::filesystem::remove(path("keyed"));
        const auto sender = begin(arguments);
        ASSERT_TRUE(holds_within(10, [&] { return words() == "on "; }));
        sleep_s(0.5);
        sender->send_signal(signal);
        sender->wait(5);
        EXPECT_TRUE(holds_within(3, [&] { return words() == "on off "; })) << signal << ": " << words();
    }
    {
        std::filesystem::remove(path("keyed"));
        const auto sender = begin(arguments);
        ASSERT_TRUE(holds_within(10, [&] { return words() == "on "; }));
        server_->pause();  // so that no ramp ends
        sender->send_signal(SIGTERM);
        sleep_s(0.2);
        sender->send_signal(SIGTERM);
        sender->wait(5);
        EXPECT_TRUE(holds_within(3, [&] { return words() == "on off "; })) << words();
        server_->resume();
    }
    std::filesystem::remove(path("keyed"));
    const auto sender = begin(arguments);
    ASSERT_TRUE(holds_within(10, [&] { return words() == "on "; }));
    sleep_s(0.5);
    server_->crash();
    EXPECT_EQ(end_of(*sender, 15), 1);
    EXPECT_EQ(words(), "on off ");
}

TEST_F(OnAirKeyed, WithoutSuccessNothingIsSent) {
    const std::string file = write("key", "#!/bin/sh\necho no rig here >&2; test $1 = off\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    for (const Arguments& when : {Arguments{}, {"--at", utc_text(std::ceil(utc_now()) + 4, 0)}}) {
        Arguments arguments = {"send", "carrier=1", "--ptt-command", file};
        arguments.insert(arguments.end(), when.begin(), when.end());
        const ProcessResult sent = orvel(arguments, surroundings());
        EXPECT_EQ(sent.status, 1);
        EXPECT_EQ(sent.out, "");
        EXPECT_EQ(sent.err, "orvel: cannot run '" + file + " on': exit status 1: no rig here\n");
    }
}

// A pseudo terminal in place of a serial port, with lines or as it is.
TEST_F(OnAirKeyed, ByALineOfASerialPort) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(master);
    unlockpt(master);
    const std::string port = ptsname(master);
    const ProcessResult without = orvel({"send", "carrier=1", "--ptt", "serial:" + port + ":rts"}, surroundings());
    EXPECT_EQ(without.status, 1);
    EXPECT_EQ(without.out, "");
    EXPECT_TRUE(one_line_with(without, {"cannot use '" + port + "'", "cannot lower the lines"}));

    const std::string up = "-" + std::to_string(TIOCM_RTS | TIOCM_DTR) + " +";
    const std::string down = " -" + std::to_string(TIOCM_RTS | TIOCM_DTR) + " ";
    ProcessInput with_lines = surroundings();
    with_lines.environment.emplace_back("LD_PRELOAD", ORVEL_FALSE_LINES);
    with_lines.environment.emplace_back("ORVEL_FALSE_LINES", path("keyed"));
    const ProcessResult sent = orvel({"send", "carrier=1", "--ptt", "serial:" + port + ":dtr"}, with_lines);
    EXPECT_EQ(sent.status, 0) << sent.err;
    const auto start = parse_utc(sent.out.substr(0, sent.out.find(' ')), 0);
    ASSERT_TRUE(start.has_value()) << sent.out;
    ASSERT_EQ(words(), up + std::to_string(TIOCM_DTR) + down);
    EXPECT_LT(keyed()[1].at, *start);
    EXPECT_GT(keyed()[2].at, *start + 1);

    std::filesystem::remove(path("keyed"));
    RunningProcess sender(orvel_arguments({"send", "carrier=30", "--ptt", "serial:" + port + ":rts"}), with_lines);
    const std::string raised = up + std::to_string(TIOCM_RTS);
    ASSERT_TRUE(holds_within(10, [&] { return words() == raised + " "; })) << words();
    sender.send_signal(SIGTERM);
    sender.wait(5);
    EXPECT_EQ(words(), raised + down);
    close(master);
}

// Hamlib's own program with its rig for tests.
TEST_F(OnAirKeyed, ByRigctld) {
    constexpr const char* RIGCTLD = "/usr/bin/rigctld";
    constexpr const char* RIGCTL = "/usr/bin/rigctl";
    ASSERT_TRUE(std::filesystem::exists(RIGCTLD)) << "of the package libhamlib-utils";
    const std::string port = std::to_string(20000 + getpid() % 20000);
    RunningProcess rig({RIGCTLD, "-m", "1", "-P", "RIG", "-T", "127.0.0.1", "-t", port});
    const auto is_keyed = [&] { return run_process({RIGCTL, "-m", "2", "-r", "127.0.0.1:" + port, "get_ptt"}).out; };
    ASSERT_TRUE(holds_within(10, [&] { return is_keyed() == "0\n"; }));
    for (const int signal : {0, SIGTERM, SIGKILL}) {
        const auto sender = begin({"send", "carrier=4", "--ptt", "rigctld:127.0.0.1:" + port});
        EXPECT_TRUE(holds_within(10, [&] { return is_keyed() == "1\n"; })) << messages();
        if (signal != 0) sender->send_signal(signal);
        EXPECT_TRUE(holds_within(10, [&] { return is_keyed() == "0\n"; })) << signal;
        EXPECT_EQ(end_of(*sender, 10), signal == 0 ? 0 : signal == SIGTERM ? 1 : -SIGKILL) << messages();
        EXPECT_EQ(messages(), "");
    }
    rig.send_signal(SIGTERM);
    rig.wait(5);
    const ProcessResult without =
        orvel({"send", "carrier=1", "--at", utc_text(utc_now() + 3600, 0), "--ptt", "rigctld:127.0.0.1:" + port},
              surroundings());
    EXPECT_EQ(without.status, 1);
    EXPECT_TRUE(one_line_with(without, {"cannot use rigctld at 127.0.0.1 port " + port, "Connection refused"}));
}

}  // namespace
