// Transmissions as a user types them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/error.h"
#include "process.h"
#include "sound_server.h"
#include "transmission/keyer.h"
#include "transmission/ptt.h"
#include "transmission/steps.h"

namespace {

// ---- Steps ----------------------------------------------------------------------------------------------------------

TEST(Steps, EveryKindIsRead) {
    const ovl_tx_step opera = parse_step("opera=K2QRX");
    EXPECT_EQ(opera.kind, OVL_TX_FRAME);
    EXPECT_EQ(opera.protocol, OVL_OPERA);
    EXPECT_STREQ(opera.call, "K2QRX");
    EXPECT_STREQ(opera.locator, "");
    const ovl_tx_step small = parse_step("orvel-s=g4qzb");
    EXPECT_EQ(small.kind, OVL_TX_FRAME);
    EXPECT_EQ(small.protocol, OVL_ORVEL_S);
    EXPECT_STREQ(small.call, "g4qzb");
    const ovl_tx_step large = parse_step("orvel-l=DL1QXA,JO31AB");
    EXPECT_EQ(large.kind, OVL_TX_FRAME);
    EXPECT_EQ(large.protocol, OVL_ORVEL_L);
    EXPECT_STREQ(large.call, "DL1QXA");
    EXPECT_STREQ(large.locator, "JO31AB");
    const ovl_tx_step carrier = parse_step("carrier=2.5");
    EXPECT_EQ(carrier.kind, OVL_TX_CARRIER);
    EXPECT_EQ(carrier.seconds, 2.5);
    const ovl_tx_step pause = parse_step("pause=1e1");
    EXPECT_EQ(pause.kind, OVL_TX_PAUSE);
    EXPECT_EQ(pause.seconds, 10);
    EXPECT_EQ(pause.keep_keyed, 0);
    EXPECT_EQ(parse_step("ORVEL S=K2QRX").protocol, OVL_ORVEL_S);  // as results name it
    EXPECT_EQ(parse_step("Opera=K2QRX").protocol, OVL_OPERA);
    EXPECT_STREQ(parse_step("orvel-l=DL1QXA,ABCDEFG").locator, "ABCDEFG");
}

// What the function threw as wrong usage.
std::string usage_error(const std::function<void()>& function) {
    try {
        function();
    } catch (const UsageError& error) {
        return error.what();
    }
    return "nothing thrown";
}

std::string step_error(const std::string& text) {
    return usage_error([&] { parse_step(text); });
}

TEST(Steps, WhatIsNoStepIsRefusedWithTheReason) {
    for (const char* text : {"", "opera", "K2QRX", "carrier 2"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a step is NAME=VALUE");
    }
    for (const char* text : {"morse=K2QRX", "=K2QRX", " opera=K2QRX", "opera =K2QRX", "orvel=K2QRX"}) {
        EXPECT_EQ(step_error(text),
                  "'" + std::string(text) + "': a step is one of opera, orvel-s, orvel-l, carrier, pause");
    }
    for (const char* text : {"opera=", "orvel-s=", "orvel-l=", "orvel-l=,JO31", "opera=,"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a callsign is missing");
    }
    EXPECT_EQ(step_error("opera=K2 QRX"), "'opera=K2 QRX': a callsign holds no blank");
    EXPECT_EQ(step_error("orvel-l=DL1QXA"), "'orvel-l=DL1QXA': an ORVEL L frame needs a locator: orvel-l=CALL,LOCATOR");
    for (const char* text : {"orvel-l=DL1QXA,", "orvel-l=DL1QXA,ABCDEFGH"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': expected a locator of 4 or 6 characters");
    }
    EXPECT_EQ(step_error("opera=K2QRX,JO31"), "'opera=K2QRX,JO31': OPERA 05 frames carry no locator");
    EXPECT_EQ(step_error("orvel-s=K2QRX,JO31"), "'orvel-s=K2QRX,JO31': ORVEL S frames carry no locator");
    EXPECT_EQ(step_error("orvel-s=K2QRX,"), "'orvel-s=K2QRX,': ORVEL S frames carry no locator");
}

TEST(Steps, SecondsAreAFiniteNumberAndNothingElse) {
    for (const char* value :
         {"", " ", "x", "2s", " 2", "2 ", "1,5", "0x10", "inf", "-inf", "nan", "infinity", "1e999", "+2", "2=2"}) {
        for (const char* name : {"carrier=", "pause="}) {
            const std::string text = std::string(name) + value;
            EXPECT_EQ(step_error(text), "'" + text + "': expected seconds after the '='");
        }
    }
}

std::string start_error(const Transmission& options) {
    const TransmitterPtr tx = make_transmitter();
    return usage_error([&] { start_transmitter(tx.get(), options); });
}

TEST(Steps, ATransmitterTakesUpToSixtyFourOfThem) {
    Transmission options;
    options.steps.assign(64, "pause=0.5");
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options);
    EXPECT_NEAR(total_seconds(tx.get()), 32, 0.1);
    options.steps.emplace_back("pause=0.5");
    EXPECT_EQ(start_error(options), "too many steps (max 64)");
}

TEST(Steps, ATransmitterIsStartedWithAllOfTheOptions) {
    const Transmission options = {{"carrier=1", "pause=0.5", "opera=K2QRX"}, 12000, 1000, 0.25, 0.01};
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options);
    std::vector<float> samples(12000 * 40);
    const int32_t n = ovl_tx_render(tx.get(), samples.data(), static_cast<int32_t>(samples.size()));

    const TransmitterPtr model = make_transmitter();
    const ovl_tx_settings settings = {12000, 1000, 0.25, 0.01};
    std::vector<ovl_tx_step> steps(3);
    steps[0].kind = OVL_TX_CARRIER;
    steps[0].seconds = 1;
    steps[1].kind = OVL_TX_PAUSE;
    steps[1].seconds = 0.5;
    steps[2].kind = OVL_TX_FRAME;
    steps[2].protocol = OVL_OPERA;
    std::strcpy(steps[2].call, "K2QRX");
    ASSERT_EQ(ovl_tx_start(model.get(), &settings, steps.data(), 3), 0);
    std::vector<float> expected(samples.size());
    EXPECT_EQ(n, ovl_tx_render(model.get(), expected.data(), static_cast<int32_t>(expected.size())));
    EXPECT_EQ(samples, expected);
    EXPECT_NEAR(total_seconds(tx.get()), n / 12000.0, 1e-3);
}

TEST(Steps, WhatTheLibraryRefusesIsRefusedInItsWords) {
    const Transmission good = {{"carrier=1"}, 48000, 1500, 0.5, 0.005};
    EXPECT_EQ(start_error(good), "nothing thrown");
    const auto with = [&](const std::function<void(Transmission&)>& change) {
        Transmission options = good;
        change(options);
        return start_error(options);
    };
    EXPECT_EQ(with([](Transmission& o) { o.steps.clear(); }), "empty sequence");
    for (const int32_t rate : {7999, 384001, 0, -48000}) {
        EXPECT_EQ(with([=](Transmission& o) { o.rate = rate; }), "sample rate out of range (8000-384000 Hz)");
    }
    for (const double tone : {0.0, -1500.0, 21600.0, 1e300}) {
        EXPECT_EQ(with([=](Transmission& o) { o.tone_hz = tone; }), "tone frequency out of range");
    }
    for (const double level : {0.0, -0.5, 1.001}) {
        EXPECT_EQ(with([=](Transmission& o) { o.level = level; }), "level out of range (0 < level <= 1)");
    }
    for (const double ramp : {-0.001, 0.0501}) {
        EXPECT_EQ(with([=](Transmission& o) { o.ramp_s = ramp; }), "ramp out of range (0-50 ms)");
    }
    for (const char* step : {"carrier=0.049", "pause=3600.1", "carrier=0", "pause=-1"}) {
        EXPECT_EQ(with([=](Transmission& o) { o.steps = {step}; }),
                  "carrier or pause duration out of range (0.05-3600 s)");
    }
    EXPECT_EQ(with([](Transmission& o) { o.steps = {"opera=G4/QZB"}; }),
              "'opera=G4/QZB': a callsign holds letters and digits only");
    EXPECT_EQ(with([](Transmission& o) { o.steps = {"orvel-l=G4QZB,ZZ99"}; }), "cannot encode G4QZB ZZ99");
}

// ---- Push to talk ---------------------------------------------------------------------------------------------------

// What a call throws; "" when it throws nothing.
template <class Error = IoError, class Call>
std::string thrown_by(Call call) {
    try {
        call();
        return "";
    } catch (const Error& error) {
        return error.what();
    }
}

double seconds_of(const std::function<void()>& call) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(Ptt, WhatIsNoWayToKeyIsWrongUsage) {
    for (const char* const text :
         {"", "serial", "serial:", "serial:/dev/null", "serial:/dev/null:cts", "serial::rts", "serial:/dev/null:RTS",
          "rigctld", "rigctld:", "rigctld:localhost", "rigctld::4532", "rigctld:localhost:", "vox", "serial:/:rts"}) {
        EXPECT_NE(thrown_by<UsageError>([&] { make_ptt(text)->check(); }), "") << text;
    }
    for (const char* const port : {"0", "65536", "-1", "4532x", "99999999999", "http"}) {
        EXPECT_NE(thrown_by<UsageError>([&] { make_ptt(std::string("rigctld:localhost:") + port); }), "") << port;
    }
    EXPECT_NE(thrown_by<UsageError>([] { make_command_ptt("/nonexistent/program")->check(); }), "");
    EXPECT_NE(thrown_by<UsageError>([] { make_command_ptt("no-such-program-in-path")->check(); }), "");
    EXPECT_NE(thrown_by<UsageError>([] { make_command_ptt("")->check(); }), "");
}

// A program of the user's that writes its arguments and ORVEL_PTT to a file, then does more.
class PttCommand : public ::testing::Test {
  protected:
    std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
    std::string program(const std::string& then) const {
        const std::string file = path("key me;true");  // a shell would take it apart
        std::ofstream(file) << "#!/bin/sh\necho \"$#:$*:$ORVEL_PTT\" >> " << path("log") << "\n" << then << "\n";
        chmod(file.c_str(), 0700);
        return file;
    }
    std::string log() const {
        std::ostringstream text;
        text << std::ifstream(path("log")).rdbuf();
        return text.str();
    }
    TemporaryDirectory directory_;
};

TEST_F(PttCommand, IsToldByArgumentAndEnvironmentWithoutAShell) {
    const auto ptt = make_command_ptt(program("cat"));  // its standard input is empty
    ptt->set(true);
    ptt->set(false);
    EXPECT_EQ(log(), "1:on:on\n1:off:off\n");
    const auto in_path = make_command_ptt("true");
    in_path->check();
    in_path->set(true);
}

TEST_F(PttCommand, ThatFailsSaysWhy) {
    EXPECT_NE(thrown_by([&] {
                  make_command_ptt(program("echo one; echo two >&2; exit 3"))->set(true);
              }).find("on': exit status 3: two"),
              std::string::npos);
    EXPECT_NE(thrown_by([&] { make_command_ptt(program("kill -9 $$"))->set(false); }).find("off': ended by signal 9"),
              std::string::npos);
    EXPECT_EQ(thrown_by([&] { make_command_ptt(program("yes | head -c 1000000; exit 0"))->set(true); }), "");
    const std::string file = path("text");
    std::ofstream(file) << "no program";
    chmod(file.c_str(), 0700);
    EXPECT_NE(thrown_by([&] { make_command_ptt(file)->set(true); }).find("Exec format error"), std::string::npos);
}

TEST_F(PttCommand, ThatDoesNotEndIsEndedWithAllThatItStarted) {
    const auto ptt = make_command_ptt(program("sleep 60 & echo $! > " + path("child") + "; sleep 60"), 0.3);
    std::string reason;
    EXPECT_LT(seconds_of([&] { reason = thrown_by([&] { ptt->set(true); }); }), 2);
    EXPECT_NE(reason.find("takes longer than"), std::string::npos) << reason;
    pid_t child = 0;
    std::ifstream(path("child")) >> child;
    ASSERT_GT(child, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
    std::string number;
    std::string name;
    std::string state = "gone";
    stat >> number >> name >> state;
    EXPECT_TRUE(state == "gone" || state == "Z" || state == "X") << state;
}

TEST_F(PttCommand, LeavesThatItStartsAndThatPrintNothingMoreDoNotHoldUsUp) {
    const auto ptt = make_command_ptt(program("sleep 3 &"), 2);
    EXPECT_LT(seconds_of([&] { ptt->set(true); }), 1.5) << "the program has ended";
}

// ---- Serial ports ---------------------------------------------------------------------------------------------------

// Pseudo terminals have no lines: these calls are noted, and succeed, while `lines` says so.
struct Line {
    bool raised;
    int lines;
    bool operator==(const Line&) const = default;
};
bool with_lines = false;
std::vector<Line> moved;

class PttSerial : public ::testing::Test {
  protected:
    PttSerial() : master_(posix_openpt(O_RDWR | O_NOCTTY)) {
        grantpt(master_);
        unlockpt(master_);
        port_ = ptsname(master_);
        moved.clear();
    }
    ~PttSerial() override {
        with_lines = false;
        close(master_);
    }
    bool open_here() const {
        for (int fd = 0; fd < 64; fd++) {
            char name[64]{};
            const std::string link = "/proc/self/fd/" + std::to_string(fd);
            if (readlink(link.c_str(), name, sizeof name - 1) > 0 && port_ == name) return true;
        }
        return false;
    }
    int master_;
    std::string port_;
};

TEST_F(PttSerial, MovesTheLineItIsToldAndIsOpenWhileItSendsOnly) {
    with_lines = true;
    const std::vector<std::pair<std::string, int>> lines = {{"rts", TIOCM_RTS}, {"dtr", TIOCM_DTR}};
    for (const auto& [name, line] : lines) {
        moved.clear();
        const auto ptt = make_ptt("serial:" + port_ + ":" + name);
        EXPECT_FALSE(ptt->outlives_us());
        EXPECT_FALSE(open_here());
        ptt->set(true);
        EXPECT_TRUE(open_here());
        EXPECT_EQ(moved, (std::vector<Line>{{false, TIOCM_RTS | TIOCM_DTR}, {true, line}})) << name;
        ptt->set(false);
        EXPECT_FALSE(open_here());
        EXPECT_EQ(moved.back(), (Line{false, TIOCM_RTS | TIOCM_DTR}));
        EXPECT_EQ(moved.size(), 3u);
        ptt->set(false);
        EXPECT_EQ(moved.size(), 3u) << "it is released";
    }
}

TEST_F(PttSerial, WithoutLinesOrPortsSaysSo) {
    const auto ptt = make_serial_ptt(port_, SerialLine::RTS);
    EXPECT_NE(thrown_by([&] { ptt->set(true); }).find("cannot use '" + port_ + "': cannot lower the lines: "),
              std::string::npos);
    EXPECT_FALSE(open_here());
    EXPECT_EQ(thrown_by([&] { make_ptt("serial:/dev/pts/999999:rts")->check(); }),
              "cannot use '/dev/pts/999999': No such file or directory");
    const auto no_terminal = make_ptt("serial:/dev/null:dtr");
    EXPECT_NE(thrown_by([&] { no_terminal->set(true); }).find("Inappropriate ioctl"), std::string::npos);
}

// ---- rigctld --------------------------------------------------------------------------------------------------------

// Breaks some connections, then answers each one's first line with a text, or closes it without one.
class FalseRigctld {
  public:
    explicit FalseRigctld(std::string answer, int breaks = 0) : answer_(std::move(answer)), breaks_(breaks) {
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(socket_, reinterpret_cast<const sockaddr*>(&address), size);
        listen(socket_, 8);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~FalseRigctld() {
        shutdown(socket_, SHUT_RDWR);
        thread_.join();
        close(socket_);
    }
    const std::string& port() const { return port_; }
    std::string commands;  // read it after the calls that it answered

  private:
    void serve() {
        for (int client = 0; (client = accept(socket_, nullptr, nullptr)) >= 0;) {
            char block[64];
            const ssize_t got = recv(client, block, sizeof block, 0);
            if (breaks_-- > 0) {
                const linger at_once{1, 0};
                setsockopt(client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
                close(client);
                continue;
            }
            if (got > 0) commands.append(block, static_cast<std::size_t>(got));
            if (got > 0) send(client, answer_.data(), answer_.size(), MSG_NOSIGNAL);
            if (got > 0 && answer_.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(600));
            close(client);
        }
    }
    std::string answer_;
    int breaks_;
    std::string port_;
    int socket_;
    std::thread thread_;
};

TEST(PttRigctld, SendsTheCommandsOfItsProtocol) {
    FalseRigctld rig("RPRT 0\n");
    const auto ptt = make_ptt("rigctld:127.0.0.1:" + rig.port());
    ptt->set(true);
    ptt->set(false);
    EXPECT_EQ(rig.commands, "T 1\nT 0\n");
    EXPECT_TRUE(ptt->outlives_us());
    const auto by_name = make_ptt("rigctld:localhost:" + rig.port());
    by_name->check();
    by_name->set(true);
}

TEST(PttRigctld, ABrokenConnectionIsTriedAgainTwice) {
    FalseRigctld rig("RPRT 0\n", 2);
    make_ptt("rigctld:127.0.0.1:" + rig.port())->set(true);
    EXPECT_EQ(rig.commands, "T 1\n");
    FalseRigctld worse("RPRT 0\n", 3);
    EXPECT_EQ(thrown_by([&] { make_ptt("rigctld:127.0.0.1:" + worse.port())->set(true); }),
              "cannot use rigctld at 127.0.0.1 port " + worse.port() + ": Connection reset by peer");
}

TEST(PttRigctld, WhateverItAnswersIsAnErrorWithinItsTime) {
    const std::vector<std::pair<std::string, std::string>> answers = {
        {"RPRT -1\n", "it answers 'RPRT -1'"},
        {"RPRT 00\n", "it answers"},
        {"\n", "it answers ''"},
        {std::string(100000, 'x'), "its answer has no end"},
        {"RPRT 0", "it closed the connection"},
        {"", "no answer in time"},
        {std::string("RPRT 0\0\n", 8), "it answers"},
        {"\x1b]0;x\a\n", "it answers"},
    };
    for (const auto& [answer, reason] : answers) {
        FalseRigctld rig(answer);
        const auto ptt = make_rigctld_ptt("127.0.0.1", rig.port(), 0.4);
        std::string error;
        EXPECT_LT(seconds_of([&] { error = thrown_by([&] { ptt->set(true); }); }), 1.5);
        EXPECT_NE(error.find("cannot use rigctld at 127.0.0.1 port " + rig.port() + ": " + reason), std::string::npos)
            << error;
    }
}

TEST(PttRigctld, ThatIsNotThereIsAnErrorAtOnce) {
    std::string port;
    { port = FalseRigctld("").port(); }
    EXPECT_EQ(thrown_by([&] { make_ptt("rigctld:127.0.0.1:" + port)->check(); }),
              "cannot use rigctld at 127.0.0.1 port " + port + ": Connection refused");
    EXPECT_NE(thrown_by([] { make_ptt("rigctld:no-such-host.invalid:4532")->check(); }), "");
}

// ---- Keyer ----------------------------------------------------------------------------------------------------------

TEST_F(PttCommand, OfAKeyerIsReleasedOnce) {
    {
        Keyer keyer(make_command_ptt(program("")));
        EXPECT_TRUE(keyer.release());
        keyer.key();
        keyer.key();
        EXPECT_TRUE(keyer.keyed());
        EXPECT_TRUE(keyer.release());
        EXPECT_TRUE(keyer.release());
        EXPECT_EQ(log(), "1:on:on\n1:off:off\n");
        keyer.key();
    }
    EXPECT_EQ(log(), "1:on:on\n1:off:off\n1:on:on\n1:off:off\n") << "the end of the keyer releases";
    Keyer none(nullptr);
    none.key();
    EXPECT_FALSE(none.keyed());
    EXPECT_TRUE(none.release());
}

TEST_F(PttCommand, OfAKeyerThatFailsToKeyIsReleasedAllTheSame) {
    Keyer keyer(make_command_ptt(program("test $1 = off")));
    EXPECT_NE(thrown_by([&] { keyer.key(); }), "");
    EXPECT_TRUE(keyer.release());
    EXPECT_EQ(log(), "1:on:on\n1:off:off\n");
}

TEST_F(PttCommand, OfAKeyerThatFailsToReleaseIsTriedAgain) {
    Keyer keyer(make_command_ptt(program("test $1 = on")));
    keyer.key();
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(keyer.release());
    const std::string text = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("orvel: the transmitter may still be keyed: "), std::string::npos) << text;
    EXPECT_EQ(log(), "1:on:on\n1:off:off\n1:off:off\n");
}

// By the guard: nothing of ours runs any more.
TEST_F(PttCommand, OfAKilledProcessIsReleased) {
    for (const bool keyed : {true, false}) {
        const std::string file = program("");
        unlink(path("log").c_str());
        const pid_t child = fork();
        if (child == 0) {
            Keyer keyer(make_command_ptt(file));
            keyer.key();
            if (!keyed) keyer.release();
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        for (int k = 0; k < 200 && log() != "1:on:on\n1:off:off\n"; k++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(log(), "1:on:on\n1:off:off\n") << keyed;
    }
}

}  // namespace

extern "C" {

int __real_ioctl(int fd, unsigned long request, void* argument);

int __wrap_ioctl(int fd, unsigned long request, void* argument) {
    if (!with_lines || (request != TIOCMBIS && request != TIOCMBIC)) return __real_ioctl(fd, request, argument);
    moved.push_back({request == TIOCMBIS, *static_cast<const int*>(argument)});
    return 0;
}
}
