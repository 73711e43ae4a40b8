// The station as a whole, with receivers that a script plays.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/parse.h"
#include "process.h"
#include "receivers/receiver_process.h"
#include "service/doctor.h"
#include "service/notify.h"
#include "service/station.h"
#include "sound_server.h"
#include "store/store.h"

namespace {

namespace fs = std::filesystem;
using Access = Database::Access;

bool eventually(const std::function<bool()>& holds) {
    for (int patience = 0; patience < 3000; patience++) {
        if (holds()) return true;
        usleep(5000);
    }
    return false;
}

class StationTest : public testing::Test {
  protected:
    ~StationTest() override {
        if (station_ > 0) {
            ::kill(station_, SIGKILL);
            ::waitpid(station_, nullptr, 0);
        }
    }
    std::string path(const std::string& name) const { return (folder_ / name).string(); }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(folder_ / name, std::ios::binary) << text;
    }

    // The child of all receivers: $RX is the receiver's name, spot N prints its N-th minute's spot.
    void play(const std::string& script) const {
        write("orvel", R"(#!/bin/bash
for word; do case $word in *=x) RX=${word%=x};; esac; done
spot() { printf '{"type":"spot","utc_start":"2026-03-01T12:%02d:00.00Z","utc_end":"2026-03-01T12:%02d:30.59Z","freq_hz":1500.0,"drift_hz_s":0.0,"snr_db":-20.0,"protocol":"OPERA 05","call":"K2QRX","locator":"","deep":false%s}\n' $1 $1 "$2"; }
status() { printf '{"type":"status","utc":"2026-03-01T12:%02d:00.00Z","rate":12000,"level_db":-30.0,"peak_db":-10.0,"noise_db":-70.0,"clipped":0,"captured_s":%d,"lost_s":1.5,"clock_error_ppm":null,"decode_s":0.5,"spots":1}\n' $1 $((60 * $1)); }
)" + script);
        ::chmod(path("orvel").c_str(), 0755);
    }

    void configure(const std::vector<std::string>& receivers, const std::string& more = "") const {
        std::string text =
            "[station]\ncallsign = \"DL1QXA\"\nlocator = \"JO62\"\n[store]\npath = \"" + path("spots.db") + "\"\n";
        for (const std::string& name : receivers) text += "[[receiver]]\nname = \"" + name + "\"\nsource = \"x\"\n";
        write("station.toml", text + more);
    }

    void start() {
        station_ = ::fork();
        ASSERT_GE(station_, 0);
        if (station_ == 0) {
            const int errors = ::creat(path("errors").c_str(), 0644);
            ::dup2(errors, STDERR_FILENO);
            struct stat end {};
            ::fstat(errors, &end);
            const std::string stream = std::to_string(end.st_dev) + ":" + std::to_string(end.st_ino);
            ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
            int status = 3;
            try {
                status = run_station(path("station.toml"), path("orvel"));
            } catch (const std::exception& error) {
                ::dprintf(STDERR_FILENO, "%s\n", error.what());
            }
            ::_exit(status);
        }
    }
    // Its exit status.
    int end(int signal = SIGTERM) {
        ::kill(station_, signal);
        int status = 0;
        ::waitpid(station_, &status, 0);
        station_ = 0;
        return status;
    }

    std::vector<StoredSpot> spots() const {
        std::vector<StoredSpot> all;
        try {
            Store store(path("spots.db"), Access::READ);
            store.query({}, [&](const StoredSpot& stored) {
                all.push_back(stored);
                return true;
            });
        } catch (const std::exception&) {  // not yet there
        }
        return all;
    }
    std::vector<std::string> mistakes_of(const std::string& text) const {
        write("some.toml", text);
        std::vector<Mistake> mistakes;
        const std::vector<OutputKind> kinds = output_kinds();
        read_config(path("some.toml"), kinds, mistakes);
        std::vector<std::string> texts;
        for (const Mistake& mistake : mistakes) texts.push_back(mistake.text);
        return texts;
    }
    std::string errors() const {
        std::ifstream file(folder_ / "errors");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TemporaryDirectory directory_;
    fs::path folder_ = directory_.path();
    pid_t station_ = 0;
};

TEST_F(StationTest, KeepsWhatItsReceiversHear) {
    play("echo \"$@\" > '" + path("") +
         "'args.$RX; status 0; spot 1; spot 2 ',\"standing\":\"provisional\"'; spot 1; status 1; "
         "echo nonsense; echo 'orvel: a word' >&2; exec sleep 1000");
    configure({"east", "west"}, "iq = true\ndial = 137500\n");
    start();
    EXPECT_TRUE(eventually([&] { return spots().size() == 2; })) << errors();
    EXPECT_TRUE(eventually([&] { return errors().find("receiver 'west': a word") != std::string::npos; })) << errors();
    EXPECT_NE(errors().find("receiver 'east': printed what is no spot: nonsense"), std::string::npos);
    EXPECT_EQ(end(), 0);
    const auto all = spots();
    ASSERT_EQ(all.size(), 2u) << "each of both once, and nothing provisional";
    EXPECT_NE(all[0].spot.receiver, all[1].spot.receiver);
    EXPECT_EQ(all[0].transmission, all[1].transmission);
    Store store(path("spots.db"), Access::READ);
    const auto minutes = store.minutes("east", 0, 1e12);
    ASSERT_EQ(minutes.size(), 2u);
    EXPECT_EQ(minutes[1].captured_s, 60);
    EXPECT_EQ(minutes[1].lost_s, 0) << "none since the status before";
    EXPECT_EQ(minutes[1].noise_db, -70);
    std::ifstream words(path("args.west"));
    std::string line;
    std::getline(words, line);
    EXPECT_EQ(line, "listen --json --status=60 --receiver west=x --iq --dial=137500");
}

// One ends again and again, one does not start a line: the third is as it was.
TEST_F(StationTest, AReceiverThatDiesCostsNoOther) {
    play(
        "case $RX in dies) exit 7;; mute) head -c 3000000 /dev/zero; exec sleep 1000;; esac; n=0; while :; do spot "
        "$((n++ % 60)); sleep 0.05; done");
    configure({"dies", "mute", "works"});
    start();
    EXPECT_TRUE(eventually([&] { return spots().size() >= 20; })) << errors();
    EXPECT_NE(errors().find("receiver 'dies': exit status 7, starting it again"), std::string::npos) << errors();
    EXPECT_TRUE(eventually([&] {
        const std::string text = errors();
        const auto first = text.find("exit status 7");
        return first != std::string::npos && text.find("exit status 7", first + 1) != std::string::npos;
    }));
    EXPECT_EQ(end(), 0);
}

// What a receiver prints when it is asked to end is kept, too.
TEST_F(StationTest, TakesTheLastSpotsOfReceiversThatEnd) {
    play("trap 'spot 9; exit 0' TERM; spot 1; while :; do sleep 0.02; done");
    configure({"lf"});
    start();
    EXPECT_TRUE(eventually([&] { return spots().size() == 1; })) << errors();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(spots().size(), 2u);
}

TEST_F(StationTest, ReadsItsConfigurationAgain) {
    play("echo $$ >> '" + path("") + "'pids.$RX; spot 1; exec sleep 1000");
    configure({"stays", "goes"});
    start();
    ASSERT_TRUE(eventually([&] { return spots().size() == 2; })) << errors();
    configure({"stays", "comes"}, "[[output]]\ntype = \"file\"\npath = \"" + path("log") + "\"\n");
    ::kill(station_, SIGHUP);
    EXPECT_TRUE(eventually([&] { return spots().size() == 3; })) << errors();
    configure({"stays"}, "[[output]]\ntype = \"fax\"\n");
    ::kill(station_, SIGHUP);
    EXPECT_TRUE(eventually([&] { return errors().find("has mistakes; all goes on as before") != std::string::npos; }));
    EXPECT_NE(errors().find("'fax' is not one of"), std::string::npos) << errors();
    EXPECT_EQ(end(), 0);
    std::ifstream pids(path("pids.stays"));
    std::string first;
    std::string second;
    std::getline(pids, first);
    EXPECT_FALSE(std::getline(pids, second)) << "it was started once";
}

// What is live on its page stands in test_web.cpp.
TEST_F(StationTest, ShowsItsPageAndItsReceiversSpectra) {
    play("echo \"$@\" > '" + path("") +
         "'args; printf '{\"type\":\"spectrum\",\"receiver\":\"x\",\"utc\":\"2026-03-01T12:00:00Z\",\"low_hz\":1,"
         "\"high_hz\":2,\"zero_db\":-140,\"step_db\":0.6,\"levels\":\"AAEA\"}\\n'; spot 1; exec sleep 1000");
    configure({"lf"}, "[web]\nport = 0\n");
    start();
    EXPECT_TRUE(eventually([&] { return spots().size() == 1; })) << errors();
    EXPECT_NE(errors().find("the page is at http://127.0.0.1:"), std::string::npos) << errors();
    EXPECT_EQ(errors().find("no spot"), std::string::npos) << errors();
    std::ifstream words(path("args"));
    std::string line;
    std::getline(words, line);
    EXPECT_EQ(line, "listen --json --status=60 --spectrum=1 --receiver lf=x");
    EXPECT_EQ(end(), 0);
}

TEST_F(StationTest, MarksItsLinesForTheJournal) {
    play("echo 'orvel: a word' >&2; exec sleep 1000");
    configure({"lf"});
    start();
    EXPECT_TRUE(eventually([&] { return errors().find("<4>orvel: receiver 'lf': a word\n") != std::string::npos; }));
    ::kill(station_, SIGHUP);
    EXPECT_TRUE(eventually([&] { return errors().find("is in force\n") != std::string::npos; }));
    EXPECT_NE(errors().find("<5>orvel: '" + path("station.toml")), std::string::npos) << errors();
    write("station.toml", "");
    ::kill(station_, SIGHUP);
    EXPECT_TRUE(eventually([&] { return errors().find("<3>orvel: ") != std::string::npos; })) << errors();
    EXPECT_EQ(end(), 0);
}

TEST_F(StationTest, DoctorSaysHowAllIs) {
    play(R"(case $RX in fine) for ((n = 1; n < 60; n++)); do status $n; sleep 0.1; done;; esac
        echo 'orvel: no such device' >&2; exit 1)");
    const std::string outputs = "[[output]]\ntype = \"file\"\npath = \"" + path("log") +
                                "\"\n[[output]]\ntype = \"file\"\nname = \"nowhere\"\npath = \"" + path("none/log") +
                                "\"\n";
    configure({"fine", "dead"}, outputs);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(examine_station(path("station.toml"), path("orvel")));
    const std::string said = testing::internal::GetCapturedStdout();
    for (const std::string& line :
         {std::string("note  receiver 'fine': 12000 Hz, level -30.0 dB, but 1.5 s were lost\n"),
          std::string("bad   receiver 'dead': no such device\n"), std::string("  clock: "),
          "  store '" + path("spots.db") + "': ", std::string("ok    output 'file': file\n"),
          "bad   output 'nowhere': cannot write '" + path("none/log")}) {
        EXPECT_NE(said.find(line), std::string::npos) << line << said;
    }
    EXPECT_FALSE(fs::exists(path("spots.db"))) << "it only looks";
    write("station.toml", "");
    EXPECT_THROW(examine_station(path("station.toml"), path("orvel")), UsageError);
}

// ---- One receiver ---------------------------------------------------------------------------------------------------

class ReceiverTest : public StationTest {
  protected:
    static constexpr ReceiverProcess::Limits SHORT = {
        .silence_s = 0.3, .ending_s = 0.2, .first_pause_s = 0.02, .longest_pause_s = 0.05, .steady_s = 120};

    ReceiverProcess receiver(std::vector<Hours> hours = {}, ReceiverProcess::Limits limits = SHORT) const {
        return {ReceiverConfig{"lf", "x", {"--receiver", "lf=x"}, std::move(hours)}, path("orvel"), limits};
    }
    // Looks after a receiver until something holds.
    bool until(ReceiverProcess& one, double utc, const std::function<bool()>& holds, bool source_is_free = true) {
        return eventually([&] {
            one.step(monotonic_now(), utc, source_is_free);
            one.read({[&](const Spot& spot) { heard_.push_back(spot); }, [](const ReceiverMinute&) {},
                      [](const SpectrumRow&) {}},
                     monotonic_now());
            return holds();
        });
    }
    int lines_in(const std::string& name) const {
        std::ifstream file(folder_ / name);
        return static_cast<int>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
    }
    std::vector<Spot> heard_;
};

using State = ReceiverProcess::State;

// It says nothing new and does not want to end.
TEST_F(ReceiverTest, ThatHangsIsEndedAndStartedAgain) {
    play("trap '' TERM; echo $$ >> '" + path("starts") + "'; status 1; while :; do status 1; sleep 0.02; done");
    testing::internal::CaptureStderr();
    {
        ReceiverProcess one = receiver();
        EXPECT_TRUE(until(one, 0, [&] { return lines_in("starts") == 3; }));
    }
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("receiver 'lf': no sample for 0.3 s, starting it again"), std::string::npos) << said;
}

TEST_F(ReceiverTest, ThatHearsIsLeftAlone) {
    play("echo $$ >> '" + path("starts") +
         "'; for ((n = 1; n < 60; n++)); do status $n; sleep 0.02; done; exec sleep 9");
    ReceiverProcess one = receiver();
    const double start = monotonic_now();
    EXPECT_TRUE(until(one, 0, [&] { return monotonic_now() > start + 1; }));
    EXPECT_EQ(lines_in("starts"), 1);
    EXPECT_EQ(one.state(), State::RUNNING);
    EXPECT_TRUE(one.is_looked_after(monotonic_now()));
    EXPECT_FALSE(one.is_looked_after(monotonic_now() + 1000)) << "nobody stepped for so long";
}

// A frame that began within its hours is heard to its end, and so is what it decodes when it is asked to end.
TEST_F(ReceiverTest, LosesNoFrameWhenItsHoursEnd) {
    play("trap 'spot 2; exit 0' TERM; spot 1; while :; do sleep 0.02; done");
    const double noon = 86400.0 * 20000 + 12 * 3600;
    ReceiverProcess one = receiver({{11 * 60, 12 * 60}}, {});
    EXPECT_TRUE(until(one, noon - 3601, [&] { return one.state() == State::OFF; }));
    EXPECT_TRUE(until(one, noon - 3600, [&] { return heard_.size() == 1; }));
    EXPECT_TRUE(until(one, noon + 42, [&] { return one.state() == State::RUNNING; }))
        << "the longest frame takes 41.1 s";
    EXPECT_TRUE(until(one, noon + 106, [&] { return one.stopped(); }));
    EXPECT_EQ(heard_.size(), 2u);
    EXPECT_TRUE(until(one, noon + 107, [&] { return one.state() == State::OFF; }));
}

TEST_F(ReceiverTest, TellsWhatItMissesWhileAnotherHasItsSource) {
    play("exec sleep 1000");
    testing::internal::CaptureStderr();
    ReceiverProcess one = receiver();
    EXPECT_TRUE(until(
        one, 0, [&] { return one.state() == State::WAITING; }, false));
    EXPECT_TRUE(until(
        one, 0, [&] { return one.state() == State::WAITING; }, false));
    EXPECT_TRUE(until(one, 0, [&] { return one.state() == State::RUNNING; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "orvel: receiver 'lf': waits until its source is free; frames that have begun by then are lost\n");
}

// The example as it is, and with all that it only mentions: each key of each table is in it.
TEST_F(StationTest, ExampleShowsAllThatAConfigurationMayHold) {
    std::ifstream file(ORVEL_EXAMPLE);
    const std::string example{std::istreambuf_iterator<char>(file), {}};
    ASSERT_FALSE(example.empty());
    EXPECT_EQ(mistakes_of(example), std::vector<std::string>{});
    std::string whole;
    std::set<std::string> names;
    for (const std::string& line : ::lines_of(example)) {
        const bool is_setting = line.starts_with("#") && !line.starts_with("# ") && line != "#";
        whole += (is_setting ? line.substr(1) : line) + "\n";
        const std::string text = is_setting ? line.substr(1) : line;
        if (text.find(" = ") != std::string::npos) names.insert(text.substr(0, text.find(' ')));
    }
    EXPECT_EQ(mistakes_of(whole), std::vector<std::string>{});

    // Each table says which keys it knows when it gets one that it does not.
    std::vector<std::string> tables = {
        "[station]\nnone = 1\n[store]\nnone = 1\n[web]\nnone = 1\n[[receiver]]\nnone = 1\n"};
    for (const OutputType& type : output_types()) {
        tables.push_back("[[output]]\nnone = 1\ntype = \"" + std::string(type.kind.type) + "\"\n");
        EXPECT_NE(whole.find("type = \"" + std::string(type.kind.type) + "\""), std::string::npos) << type.kind.type;
    }
    int keys = 0;
    for (const std::string& table : tables) {
        for (const std::string& mistake : mistakes_of(table)) {
            const std::size_t list = mistake.find("'none' is not one of ");
            if (list == std::string::npos) continue;
            for (const std::string& key : split_list(mistake.substr(list + 21))) {
                EXPECT_TRUE(names.contains(key)) << mistake;
                keys++;
            }
        }
    }
    EXPECT_GT(keys, 50);
}

TEST_F(StationTest, ChildrenEndWhenItIsKilled) {
    play("echo $$ > '" + path("pid") + "'; spot 1; exec sleep 1000");
    configure({"lf"});
    start();
    ASSERT_TRUE(eventually([&] { return spots().size() == 1; })) << errors();
    int pid = 0;
    std::ifstream(path("pid")) >> pid;
    ASSERT_GT(pid, 0);
    end(SIGKILL);
    EXPECT_TRUE(eventually([&] {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string number;
        std::string name;
        std::string state;
        return !(stat >> number >> name >> state) || state == "Z";
    }));
}

TEST_F(StationTest, CommandsCheckAndList) {
    configure({"lf"}, "[web]\nport = 99999\n[[output]]\ntype = \"fax\"\n");
    auto done = run_process({ORVEL_STATION, "check", path("station.toml")});
    EXPECT_EQ(done.status, 2);
    EXPECT_NE(done.err.find("station.toml:10:8: web: port is out of range"), std::string::npos) << done.err;
    EXPECT_NE(done.err.find("station.toml:11:1: output: 'fax'"), std::string::npos) << done.err;
    configure({"lf"});
    EXPECT_EQ(run_process({ORVEL_STATION, "check", path("station.toml")}).status, 0);

    Store store(path("spots.db"), Access::WRITE);
    Spot spot{};
    spot.receiver = "lf";
    spot.call = "K2QRX";
    spot.protocol = OVL_ORVEL_L;
    spot.locator = "JO62";
    spot.start = 1.7724e9;
    spot.end = spot.start + 41.088;
    spot.freq_hz = 1500;
    spot.rf_hz = 137501.25;
    spot.snr_db = -21.44;
    store.add(std::span(&spot, 1));
    const auto list = [&](std::vector<std::string> words) {
        words.insert(words.begin(), {ORVEL_STATION, "spots", "--store", path("spots.db")});
        return run_process(words);
    };
    EXPECT_NE(list({}).out.find("K2QRX"), std::string::npos);
    EXPECT_EQ(list({"--call", "DL*", "--json"}).out, "");
    const auto json = list({"--json"}).out;
    EXPECT_NE(json.find("\"rf_hz\":137501.25"), std::string::npos) << json;
    EXPECT_EQ(list({"--adif"}).out.substr(list({"--adif"}).out.find("<EOH>") + 6),
              "<CALL:5>K2QRX<QSO_DATE:8>20260301<TIME_ON:6>212000<TIME_OFF:6>212041<MODE:5>OPERA"
              "<APP_ORVEL_PROTOCOL:7>ORVEL L<FREQ:8>0.137501<BAND:5>2190m<GRIDSQUARE:4>JO62<APP_ORVEL_SNR:5>-21.4"
              "<APP_ORVEL_DRIFT:6>0.0000<APP_ORVEL_RX:2>lf<SWL:1>Y<EOR>\n");
    EXPECT_EQ(list({"--from", "yesterday"}).status, 2);
    EXPECT_EQ(list({"--call", "K2QRX", "--plot", path("x.svg")}).status, 0);
    std::ifstream picture(path("x.svg"));
    const std::string drawn{std::istreambuf_iterator<char>(picture), {}};
    EXPECT_NE(drawn.find("Hz above 137501"), std::string::npos);
    EXPECT_NE(drawn.find("K2QRX"), std::string::npos);
    EXPECT_EQ(list({"--plot", path("x.txt")}).status, 2);
    EXPECT_EQ(list({"--plot", path("none/x.png")}).status, 1);
    EXPECT_EQ(list({"--call", "NONE", "--plot", path("x.png")}).status, 1);
    EXPECT_EQ(run_process({ORVEL_STATION, "spots", "--store", path("none")}).status, 1);
}

TEST(Service, IsToldOfItsStates) {
    const std::string name = (fs::temp_directory_path() / ("orvel-notify-" + std::to_string(::getpid()))).string();
    const int end = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    ASSERT_EQ(::bind(end, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    notify_service("READY=1");
    std::array<char, 64> text{};
    EXPECT_EQ(::recv(end, text.data(), text.size(), MSG_DONTWAIT), 7);
    EXPECT_STREQ(text.data(), "READY=1");
    ::unsetenv("NOTIFY_SOCKET");
    notify_service("READY=1");
    EXPECT_LT(::recv(end, text.data(), text.size(), MSG_DONTWAIT), 0);
    ::close(end);
    fs::remove(name);
    ::setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(watchdog_seconds(), 30);
    ::setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(watchdog_seconds(), 0);
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
}

}  // namespace
