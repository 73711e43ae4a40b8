// What the world does to the commands: outputs that take no more, files that vanish, pipes that stall, signals, names
// of every kind, and numbers in other countries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "process.h"
#include "siggen.h"

namespace {

constexpr double PATIENCE_S = 60;  // much longer than anything takes, also under a sanitizer
const std::string OPERA = "--protocols=opera";
const std::string MIDNIGHT = "--start=2026-01-01T00:00:00Z";
constexpr int32_t RATE = 8000;

// One OPERA frame of K2QRX within 40 s, as 16-bit samples.
const std::string& samples() {
    static const std::string bytes = [] {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = 40;
        scene.seed = 3;
        Station station;
        station.chips = opera_chips("K2QRX");
        station.t_start = 3;
        station.freq_hz = 1480;
        station.snr_db = -10;
        scene.stations = {station};
        std::string made;
        for (const double x : render_real(scene)) append(made, static_cast<int16_t>(std::lround(32768 * x)));
        return made;
    }();
    return bytes;
}

class Faults : public TestWithFiles {
  protected:
    std::string recording(const std::string& name = "recording.wav") const {
        return write(name, wave_file(1, 1, RATE, 16, samples()));
    }

    // The frame, and silence up to this many minutes: decoded block by block, which takes a while.
    std::string long_recording(int minutes) const {
        const auto data = static_cast<std::size_t>(2 * 60 * RATE) * static_cast<std::size_t>(minutes);
        const std::string header = wave_file(1, 1, RATE, 16, "");
        std::string bytes = header.substr(0, 4);
        append(bytes, static_cast<uint32_t>(36 + data));
        bytes += header.substr(8, 32);
        append(bytes, static_cast<uint32_t>(data));
        const std::string file = write("long.wav", bytes + samples());
        std::filesystem::resize_file(file, header.size() + data);
        return file;
    }

    // Commands that write a file, whose name comes last.
    std::vector<Arguments> writers() const {
        const std::string sound = recording();
        return {{"render", "opera=K2QRX", "-o", "beacon.wav"},
                {"simulate", "opera=K2QRX", "-o", "simulated.wav"},
                {"simulate", "opera=K2QRX", "--format=float", "-o", "floating.wav"},
                {"simulate", "opera=K2QRX", "-o", "simulated.flac"},
                {"simulate", "opera=K2QRX", "-o", path("its.wav"), "--truth", "truth.jsonl"},
                {"plot", sound, "--no-decode", "-o", "picture.png"},
                {"plot", sound, "--no-decode", "-o", "picture.svg"},
                {"plot", sound, "--no-decode", "-o", "picture.pdf"}};
    }

    // A command line run by a shell that sets something up: "ulimit -f 8; exec \"$@\"".
    static Arguments in_shell(const std::string& script, const Arguments& arguments) {
        Arguments all = {"/bin/sh", "-c", script, "sh"};
        const Arguments command = orvel_arguments(arguments);
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }

    static Arguments listening(const Arguments& options) {
        Arguments all = {"listen", "--stdin", "--rate=8000", OPERA, MIDNIGHT};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }
};

using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

AssertionResult failed_with(const ProcessResult& result, const Arguments& texts) {
    if (result.status != 1) return AssertionFailure() << "exit status " << result.status << "\n" << result.err;
    return one_line_with(result, texts);
}

// JSON of a file's frames, all of it sound.
AssertionResult holds_the_frame(const std::string& out, const std::string& file = {}) {
    const auto lines = lines_of(out);
    if (lines.size() != 1 || !out.ends_with('\n')) return AssertionFailure() << "not one line:\n" << out;
    if (!JsonValue::accept(lines[0])) return AssertionFailure() << "no JSON: " << lines[0];
    const auto object = JsonValue::parse(lines[0]);
    if (object.at("call") != "K2QRX") return AssertionFailure() << out;
    if (!file.empty() && object.at("file") != file) return AssertionFailure() << object.at("file") << ", not " << file;
    return AssertionSuccess();
}

// ---- Outputs that take no more -------------------------------------------------------------------------------------

TEST_F(Faults, EveryCommandFailsOnAClosedPipeAndAFullDisk) {
    const std::string file = recording();
    ProcessInput closed;
    closed.stdout_closed_pipe = true;
    ProcessInput full;
    full.stdout_file = "/dev/full";
    for (const auto& [input, reason] : {std::pair{closed, "Broken pipe"}, {full, "No space left on device"}}) {
        for (const Arguments& arguments : {Arguments{"scan", file},
                                           {"scan", "--json", file, file},
                                           {"encode", "K2QRX"},
                                           {"encode", "K2QRX", "--json"},
                                           {"encode", "K2QRX", "--draw"},
                                           {"render", "--help"}}) {
            EXPECT_TRUE(failed_with(orvel(arguments, input), {"cannot write the output: ", reason}))
                << testing::PrintToString(arguments);
        }
    }
}

TEST_F(Faults, AFullDiskIsAFailureOfEveryCommandThatWritesAFile) {
    for (Arguments command : writers()) {
        const std::string output = path(command.back());
        std::filesystem::create_symlink("/dev/full", output);
        command.back() = output;
        EXPECT_TRUE(failed_with(orvel(command), {"cannot write '" + output + "': No space left on device"}));
    }
}

#ifndef ORVEL_SANITIZED  // whose shadow memory alone is beyond any limit

// Each thread would reserve 64 MB for a heap of its own, and where the limit forbids that ask the system for every few
// bytes, which takes most of the time.
ProcessInput with_one_heap() {
    ProcessInput input;
    input.environment = {{"MALLOC_ARENA_MAX", "1"}};
    return input;
}

// What is asked for by the libraries inside counts here too; FFTW ends the process when it gets nothing.
TEST_F(Faults, HoweverLittleMemoryThereIsTheCommandEndsByItself) {
    int32_t decoded = 0;
    int32_t refused = 0;
    for (int32_t kilobytes = 20000; kilobytes < 80000; kilobytes += 3000) {
        const std::string limited = "ulimit -v " + std::to_string(kilobytes) + "; \"$@\"; status=$?; ";
        const ProcessResult result = run_process(
            in_shell(limited + "test $status = 127 && exit 77; exit $status", {"decode", "--jobs=1", recording()}),
            with_one_heap());
        if (result.status == 77) continue;  // not even loaded
        if (result.status == 0) {
            decoded++;
        } else {
            refused++;
            EXPECT_TRUE(failed_with(result, {"orvel: "})) << kilobytes;
        }
    }
    EXPECT_GT(decoded, 0);
    EXPECT_GT(refused, 0);
}

// A decode that gets none is reported, and what others found is printed.
TEST_F(Faults, ListeningGoesOnWithHoweverLittleMemory) {
    ProcessInput input = with_one_heap();
    input.stdin_file = write("audio.raw", samples());
    int32_t complained = 0;
    int32_t heard = 0;
    for (int32_t kilobytes = 20000; kilobytes < 80000; kilobytes += 3000) {
        const std::string limited = "ulimit -v " + std::to_string(kilobytes) + "; \"$@\"; status=$?; ";
        const ProcessResult result = run_process(
            in_shell(limited + "test $status = 127 && exit 77; exit $status", listening({"--json", "--every=10"})),
            input);
        if (result.status == 77) continue;  // not even loaded
        EXPECT_TRUE(result.status == 0 || result.status == 1) << result.status << " with " << kilobytes;
        for (const std::string& line : lines_of(result.err)) {
            EXPECT_TRUE(line.starts_with("orvel: ") && line.find("memory") != std::string::npos) << line;
        }
        EXPECT_FALSE((result.status == 0 ? result.out : result.err).empty()) << kilobytes;
        complained += result.err.find("orvel: cannot decode: ") != std::string::npos ? 1 : 0;
        if (result.out.empty()) continue;
        heard++;
        EXPECT_TRUE(holds_the_frame(result.out)) << kilobytes;
    }
    EXPECT_GT(complained, 3);
    EXPECT_GT(heard, 3);
}

#endif

// What a file may grow to is limited: a quota, or the end of a small file system.
TEST_F(Faults, AFileThatMayNotGrowIsAFailureAndHoldsWhatWentIntoIt) {
    for (Arguments command : writers()) {
        if (command.back() == "truth.jsonl") continue;  // so little that it always fits
        const std::string output = path(command.back());
        command.back() = output;
        EXPECT_TRUE(failed_with(run_process(in_shell("ulimit -f 8; exec \"$@\"", command)),
                                {"cannot write '" + output + "': File too large"}));
        EXPECT_GT(std::filesystem::file_size(output), 0U);
    }

    // The first lines fill a block of 512 bytes, and the rest has no room.
    const std::string file = recording();
    Arguments names(40, file);
    names.insert(names.begin(), {"decode", "--json", OPERA});
    for (const char* const command : {"decode", "scan"}) {
        names[0] = command;
        if (command == std::string("scan")) names[2] = "--min-z=5";
        const std::string spots = path(std::string(command) + ".json");
        EXPECT_TRUE(failed_with(run_process(in_shell("ulimit -f 1; exec \"$@\" >'" + spots + "'", names)),
                                {"cannot write the output", "File too large"}));
        std::ifstream written(spots);
        std::string line;
        ASSERT_TRUE(std::getline(written, line)) << command;
        EXPECT_TRUE(JsonValue::accept(line)) << line;
    }
    const std::string audio = write("audio.raw", samples());
    for (const Arguments& command : {Arguments{"encode", "K2QRX"}, listening({"--json", "--every=15"})}) {
        const std::string full = write("full", std::string(512, 'x'));
        EXPECT_TRUE(
            failed_with(run_process(in_shell("ulimit -f 1; exec \"$@\" <'" + audio + "' >>'" + full + "'", command)),
                        {"cannot write the output", "File too large"}));
    }
}

// A reader that has seen enough, like head.
TEST_F(Faults, AReaderThatLeavesEndsADecode) {
    const std::string file = recording();
    Arguments arguments(2000, file);
    arguments.insert(arguments.begin(), {"decode", "--json", OPERA});
    const ProcessResult result = run_process(in_shell("{ \"$@\"; echo status $? >&2; } | head -n 1", arguments));
    EXPECT_TRUE(holds_the_frame(result.out, file));
    EXPECT_EQ(result.err, "orvel: cannot write the output: Broken pipe\nstatus 1\n");
}

TEST_F(Faults, ClosedStandardFilesAreNotTakenForOthers) {
    const std::string file = recording();
    EXPECT_TRUE(failed_with(run_process(in_shell("exec \"$@\" >&-", {"decode", "--json", OPERA, file})),
                            {"cannot write the output"}));
    EXPECT_TRUE(failed_with(run_process(in_shell("exec \"$@\" >&-", {"encode", "K2QRX"})), {"cannot write"}));
    EXPECT_TRUE(holds_the_frame(
        run_process(in_shell("exec \"$@\" <&- 2>&-", {"decode", "--json", OPERA, path("no-such"), file})).out, file));

    // The file that is written may come to be where one of them was.
    const std::string whole = path("whole.wav");
    ASSERT_EQ(orvel({"render", "carrier=1", "-o", whole}).status, 0);
    for (const char* const closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        const std::string output = path("rendered.wav");
        EXPECT_EQ(
            run_process(in_shell(std::string("exec \"$@\" ") + closed, {"render", "carrier=1", "-o", output})).status,
            0)
            << closed;
        EXPECT_EQ(run_process({"/usr/bin/cmp", whole, output}).status, 0) << closed;
    }
    EXPECT_TRUE(
        failed_with(run_process(in_shell("exec \"$@\" <&-", listening({"--json"}))), {"cannot read standard input"}));
}

// ---- Inputs that change or stall -----------------------------------------------------------------------------------

TEST_F(Faults, AFileThatShrinksIsDecodedAsFarAsItWent) {
    const std::string file = long_recording(90);  // too large to be read at once
    ASSERT_GT(std::filesystem::file_size(file), uintmax_t{32} << 20);
    for (const char* const command : {"decode", "scan"}) {
        std::filesystem::resize_file(file, 44 + 2 * 60 * RATE * 90);
        Arguments arguments = {command, "--json", "--block=60", file};
        if (command == std::string("decode")) arguments.insert(arguments.end(), {"--jobs=1", OPERA});
        RunningProcess process(orvel_arguments(arguments));
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line) << command;
        if (command == std::string("decode")) {
            EXPECT_TRUE(holds_the_frame(*line + "\n", file));
        }
        std::filesystem::resize_file(file, 44 + samples().size());
        for (const std::string& more : lines_of(process.read_rest(PATIENCE_S))) {
            EXPECT_TRUE(JsonValue::accept(more)) << more;
        }
        const auto result = process.wait(PATIENCE_S);
        ASSERT_TRUE(result) << command;
        EXPECT_EQ(result->status, 0) << command;
        EXPECT_TRUE(one_line_with(*result, {"'" + file + "' ends before its header says"}));
        // Restored, for what follows.
        std::ofstream(file, std::ios::binary | std::ios::in).seekp(44) << samples();
    }
}

// A device whose reads fail.
TEST_F(Faults, AReadErrorIsAFailureThatNamesTheFile) {
    const std::string good = recording();
    for (const char* const command : {"decode", "scan"}) {
        const ProcessResult result = orvel({command, "--json", "/proc/self/mem", good});
        EXPECT_TRUE(failed_with(result, {"cannot read '/proc/self/mem': Input/output error"}));
        EXPECT_FALSE(result.out.empty());
    }
}

// Of what is read more than once all is kept first.
TEST_F(Faults, APipeIsWaitedForAndScannedAsTheFileIs) {
    const std::string pipe = path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string good = recording();
    RunningProcess process(orvel_arguments({"scan", "--json", pipe, good}));
    EXPECT_FALSE(process.read_line(0.3)) << "it does not wait for the pipe";
    std::ofstream(pipe, std::ios::binary) << std::ifstream(good, std::ios::binary).rdbuf();
    const auto lines = lines_of(process.read_rest(PATIENCE_S));
    ASSERT_FALSE(lines.empty());
    ASSERT_EQ(lines.size() % 2, 0u);
    for (std::size_t k = 0; k < lines.size() / 2; k++) {
        const auto of_pipe = JsonValue::parse(lines[k]);
        const auto of_file = JsonValue::parse(lines[k + lines.size() / 2]);
        EXPECT_EQ(of_pipe.at("file"), pipe);
        EXPECT_EQ(of_file.at("file"), good);
        EXPECT_EQ(of_pipe.at("freq_hz"), of_file.at("freq_hz").number());
    }
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
}

TEST_F(Faults, StandardInputMayStallAndGoOn) {
    RunningProcess process(orvel_arguments(listening({"--json"})));
    const std::size_t half = samples().size() / 2 + 1;  // and in the middle of a sample
    ASSERT_TRUE(process.write(samples().substr(0, half)));
    EXPECT_FALSE(process.wait(1.0)) << "it did not wait";
    ASSERT_TRUE(process.write(samples().substr(half)));
    process.close_stdin();
    EXPECT_TRUE(holds_the_frame(process.read_rest(PATIENCE_S)));
    const auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0);
    EXPECT_EQ(result->err, "");
}

// ---- Signals -------------------------------------------------------------------------------------------------------

const std::vector<int> ENDING = {SIGINT, SIGTERM, SIGHUP};

// All that a command printed before it was ended is whole lines of JSON.
void expect_whole_lines(const std::string& out) {
    EXPECT_TRUE(out.empty() || out.ends_with('\n')) << out;
    for (const std::string& line : lines_of(out)) EXPECT_TRUE(JsonValue::accept(line)) << line;
}

TEST_F(Faults, SignalsEndEveryCommandFromItsStartOn) {
    const std::string file = long_recording(60);
    const std::string output = path("beacon.wav");
    const std::vector<Arguments> commands = {{"decode", "--json", OPERA, "--block=60", file},
                                             {"scan", "--json", file},
                                             {"render", "-o", output, "carrier=3600", "carrier=3600", "carrier=3600"},
                                             {"simulate", "-o", output, "--seconds=3600", "opera=K2QRX"},
                                             {"plot", "--no-decode", "-o", path("picture.png"), file},
                                             listening({"--json"})};
    for (const Arguments& command : commands) {
        for (const int signal : ENDING) {
            for (const int wait_ms : {0, 1, 3, 10, 30}) {
                RunningProcess process(orvel_arguments(command));
                std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
                process.send_signal(signal);
                expect_whole_lines(process.read_rest(PATIENCE_S));
                const auto result = process.wait(PATIENCE_S);
                ASSERT_TRUE(result) << command[0] << " goes on after signal " << signal << " at " << wait_ms << " ms";
                EXPECT_TRUE(result->status == 0 || result->status == -signal) << command[0] << ' ' << result->status;
                EXPECT_EQ(result->err, "");
            }
        }
    }
}

TEST_F(Faults, SignalsEndADecodeWithWhatItFoundSoFar) {
    const std::string file = long_recording(90);
    for (const int signal : ENDING) {
        RunningProcess process(orvel_arguments({"decode", "--json", "--block=60", "--jobs=1", file}));
        const auto line = process.read_line(PATIENCE_S);  // there before the rest is decoded
        ASSERT_TRUE(line);
        EXPECT_TRUE(holds_the_frame(*line + "\n", file));
        process.send_signal(signal);
        expect_whole_lines(process.read_rest(PATIENCE_S));
        const auto result = process.wait(PATIENCE_S / 6);
        ASSERT_TRUE(result) << "it goes on";
        EXPECT_EQ(result->status, -signal) << "its caller cannot tell that it was interrupted";
        EXPECT_EQ(result->err, "");
    }
}

TEST_F(Faults, SignalsEndListeningWhileItDecodes) {
    for (const int signal : ENDING) {
        RunningProcess process(orvel_arguments(listening({"--json", "--every=1"})));
        ASSERT_TRUE(process.write(samples()));  // and is on its way to the last decodes
        process.send_signal(signal);
        expect_whole_lines(process.read_rest(PATIENCE_S));
        const auto result = process.wait(PATIENCE_S / 6);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 0);
        EXPECT_EQ(result->err, "");
    }
}

// Whether, in due time, a program has read `bytes` of the file that is its standard input, and then waits for
// something.
bool waits_behind(pid_t pid, std::size_t bytes) {
    const std::string proc = "/proc/" + std::to_string(pid);
    constexpr auto TICK = std::chrono::milliseconds(50);
    int asleep = 0;
    for (auto left = std::chrono::duration<double>(PATIENCE_S); left.count() > 0 && asleep < 10; left -= TICK) {
        std::this_thread::sleep_for(TICK);
        std::string name;
        std::size_t position = 0;
        std::ifstream(proc + "/fdinfo/0") >> name >> position;
        std::string stat;
        std::getline(std::ifstream(proc + "/stat"), stat);
        asleep = position >= bytes && stat.find(") S ") != std::string::npos ? asleep + 1 : 0;
    }
    return asleep == 10;
}

// Its output waits for a reader that does not read.
TEST_F(Faults, SignalsEndListeningThatCannotWriteOn) {
    const std::string audio = write("audio.raw", samples());
    for (const int signal : ENDING) {
        RunningProcess process(
            in_shell("head -c 65536 /dev/zero; exec \"$@\" <'" + audio + "'", listening({"--json", "--every=15"})));
        ASSERT_TRUE(waits_behind(process.pid(), samples().size())) << "the output had room";
        process.send_signal(signal);
        const auto result = process.wait(PATIENCE_S / 6);
        ASSERT_TRUE(result) << "it waits for its reader";
        EXPECT_TRUE(failed_with(*result, {"cannot write the output"}));
    }
}

TEST_F(Faults, AnotherSignalForPipesOrSizesIsNoEnd) {
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
        RunningProcess process(orvel_arguments(listening({"--json"})));
        ASSERT_TRUE(process.write(samples()));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        process.send_signal(signal);
        process.close_stdin();
        EXPECT_TRUE(holds_the_frame(process.read_rest(PATIENCE_S)));
        const auto result = process.wait(PATIENCE_S);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 0) << "signal " << signal;
    }
}

// ---- Paths ---------------------------------------------------------------------------------------------------------

TEST_F(Faults, APathThatLeadsNowhereIsOneLineWithTheReason) {
    const std::string good = recording();
    std::filesystem::create_symlink(path("loop"), path("loop"));
    std::filesystem::create_symlink(path("gone"), path("dangling"));
    std::filesystem::create_directory(path("directory.wav"));
    const std::vector<std::pair<std::string, std::string>> nowhere = {
        {good + "/below", "Not a directory"},
        {path("loop"), "Too many levels of symbolic links"},
        {path("dangling"), "No such file or directory"},
        {path("directory.wav"), "directory"},
        {path(std::string(300, 'n')), "File name too long"},
        {"", "No such file or directory"}};
    for (const auto& [file, reason] : nowhere) {
        for (const char* const command : {"decode", "scan"}) {
            const ProcessResult result = orvel({command, "--json", file, good});
            EXPECT_TRUE(failed_with(result, {"cannot read '" + file + "'", reason}));
            EXPECT_FALSE(result.out.empty()) << "the other one was not taken";
        }
        if (file == path("dangling")) continue;  // that can be written
        EXPECT_TRUE(failed_with(orvel({"render", "carrier=1", "-o", file}), {"cannot write '" + file + "'", reason}));
    }
}

// Root may open what it likes, unless it has given that up.
TEST_F(Faults, WithoutPermissionThereIsOneLineWithTheReason) {
    const std::string good = recording();
    std::filesystem::create_directory(path("locked"));
    const std::string locked = recording("locked/recording.wav");
    const std::string secret = recording("secret.wav");
    Arguments restricted;
    if (geteuid() == 0) {
        restricted = {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search", "--inh-caps=-all"};
    } else {
        restricted = {"/usr/bin/env"};
    }
    const auto run = [&](const Arguments& arguments) {
        Arguments all = restricted;
        const Arguments command = orvel_arguments(arguments);
        all.insert(all.end(), command.begin(), command.end());
        return run_process(all);
    };
    using std::filesystem::perms;
    std::filesystem::permissions(path("locked"), perms::none);
    std::filesystem::permissions(secret, perms::none);
    for (const std::string& file : {locked, secret}) {
        for (const char* const command : {"decode", "scan"}) {
            const ProcessResult result = run({command, "--json", file, good});
            EXPECT_TRUE(failed_with(result, {"cannot read '" + file + "'", "Permission denied"}));
            EXPECT_FALSE(result.out.empty());
        }
        EXPECT_TRUE(failed_with(run({"render", "carrier=1", "-o", file}), {"cannot write '", "Permission denied"}));
        for (const auto& [option, command] : std::vector<std::pair<std::string, Arguments>>{
                 {"--known-file", {"decode", good}}, {"--stations", {"simulate", "-o", path("x.wav")}}}) {
            Arguments all = command;
            all.insert(all.end(), {option, file});
            const ProcessResult result = run(all);
            EXPECT_EQ(result.status, 2);
            EXPECT_TRUE(one_line_with(result, {option, file}));
        }
        EXPECT_TRUE(
            failed_with(run({"plot", "-o", path("x.png"), file}), {"cannot read '" + file + "'", "Permission denied"}));
    }
    for (Arguments command : writers()) {
        const std::string output = path("locked/" + command.back());
        command.back() = output;
        EXPECT_TRUE(failed_with(run(command), {"cannot write '" + output + "': Permission denied"}));
    }
    std::filesystem::permissions(path("locked"), perms::owner_all);
}

// Its header is written last, at its beginning.
TEST_F(Faults, ASoundFileIsNotWrittenIntoAPipe) {
    const std::string pipe = path("pipe.wav");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const Arguments& command :
         {Arguments{"render", "carrier=1", "-o", pipe}, {"simulate", "--seconds=1", "-o", pipe}}) {
        EXPECT_TRUE(failed_with(run_process(in_shell("cat '" + pipe + "' >/dev/null & exec \"$@\"", command)),
                                {"cannot write '" + pipe + "'", "pipe write"}));
    }
}

// As a shell's <(…) gives them: their writer may take its time, and a signal ends the wait.
TEST_F(Faults, ListsMayComeFromPipes) {
    const std::string pipe = path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string good = recording();
    const std::vector<std::pair<Arguments, std::string>> commands = {
        {{"decode", "--json", "--known-only", "--known-file", pipe, OPERA, good}, "# all of them\nK2QRX\n"},
        {{"simulate", "-o", path("x.wav"), "--truth", "/dev/stdout", "--stations", pipe}, "{\"call\": \"K2QRX\"}\n"}};
    for (const auto& [command, list] : commands) {
        RunningProcess reader(orvel_arguments(command));
        EXPECT_FALSE(reader.wait(0.3)) << "it did not wait";
        std::ofstream(pipe) << list;
        EXPECT_TRUE(holds_the_frame(reader.read_rest(PATIENCE_S)));
        const auto result = reader.wait(PATIENCE_S);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 0) << result->err;

        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            RunningProcess waiting(orvel_arguments(command));
            EXPECT_FALSE(waiting.wait(0.3));
            waiting.send_signal(signal);
            const auto ended = waiting.wait(PATIENCE_S);
            ASSERT_TRUE(ended) << command[0] << " waits for the pipe";
            EXPECT_EQ(ended->status, -signal);
        }
        Arguments directory = command;
        std::replace(directory.begin(), directory.end(), pipe, path(""));
        EXPECT_TRUE(usage_error_with(directory, {"cannot read '" + path("") + "'"}));
    }
}

TEST_F(Faults, TenThousandFilesAreNoTrouble) {
    const std::string tiny = write("t.wav", wave_file(1, 1, 4000, 16, std::string(1200, '\0')));
    const std::string good = recording();
    for (const char* const command : {"decode", "scan"}) {
        Arguments arguments = {command, "--json"};
        arguments.insert(arguments.end(), 5000, tiny);
        arguments.insert(arguments.end(), 4999, path("none"));
        arguments.push_back(good);
        // With few open files at a time.
        const ProcessResult result = run_process(in_shell("ulimit -n 32; exec \"$@\"", arguments));
        EXPECT_EQ(result.status, 1);
        const auto missing = lines_of(result.err);
        EXPECT_EQ(std::count_if(missing.begin(), missing.end(),
                                [](const std::string& line) { return line.find("none'") != std::string::npos; }),
                  4999);
        ASSERT_FALSE(result.out.empty());
        EXPECT_EQ(JsonValue::parse(lines_of(result.out).back()).at("file"), good);
    }
}

// ---- Names ---------------------------------------------------------------------------------------------------------

TEST_F(Faults, NamesOfEveryKindAreTakenAndMakeValidJson) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"two blanks  and\ttab.wav", "two blanks  and\ttab.wav"},
        {"new\nline\r.wav", "new\nline\r.wav"},
        {"quote\"back\\slash'.wav", "quote\"back\\slash'.wav"},
        {"\x1b[31mred\x7f.wav", "\x1b[31mred\x7f.wav"},
        {"caf\xc3\xa9.wav", "caf\xc3\xa9.wav"},
        {"latin\xe9.wav", "latin\xef\xbf\xbd.wav"},  // what is no UTF-8 is replaced
        {"cut\xe2\x82.wav", "cut\xef\xbf\xbd.wav"},  // a character that does not end
        {"%s%n{}.wav", "%s%n{}.wav"},
    };
    for (const auto& [name, shown] : names) {
        const std::string file = recording(name);
        EXPECT_TRUE(holds_the_frame(orvel({"decode", "--json", OPERA, file}).out, path(shown)));
        const ProcessResult scanned = orvel({"scan", "--json", file});
        ASSERT_FALSE(scanned.out.empty());
        for (const std::string& line : lines_of(scanned.out)) {
            ASSERT_TRUE(JsonValue::accept(line)) << line;
            EXPECT_EQ(JsonValue::parse(line).at("file"), path(shown));
        }
        EXPECT_EQ(orvel({"plot", "--no-decode", "-o", file + ".svg", file}).status, 0) << name;
        EXPECT_EQ(orvel({"simulate", "--seconds=1", "-o", file, "--truth", file + ".jsonl"}).status, 0) << name;
        EXPECT_EQ(orvel({"render", "carrier=1", "-o", file}).status, 0) << name;
    }
}

// A message is one line whatever the file is called, and does nothing to the terminal.
TEST_F(Faults, NamesOfEveryKindAreOneLineInMessages) {
    const std::vector<std::pair<std::string, std::string>> names = {{"new\nline\r.wav", "new\\nline\\r.wav"},
                                                                    {"\x1b[31mred\x7f.wav", "\\x1b[31mred\\x7f.wav"},
                                                                    {"caf\xc3\xa9\t.wav", "caf\xc3\xa9\\t.wav"},
                                                                    {"two blanks .wav", "two blanks .wav"},
                                                                    {"\x9b[31mred.wav", "\\x9b[31mred.wav"}};
    for (const auto& [name, shown] : names) {
        const std::string good = write(name, wave_file(1, 1, RATE, 16, samples().substr(0, 2 * 20 * RATE)));
        write("bad-" + name, "no recording");
        std::filesystem::create_directory(path("directory-" + name));
        for (const char* const command : {"decode", "scan"}) {
            EXPECT_TRUE(failed_with(orvel({command, path("missing-" + name)}),
                                    {"cannot read '" + path("missing-" + shown) + "': No such file"}));
            EXPECT_TRUE(failed_with(orvel({command, path("bad-" + name)}),
                                    {"'" + path("bad-" + shown) + "'", "not a valid RIFF"}));
            const ProcessResult both = orvel({command, good, good});
            EXPECT_EQ(both.status, 0);
            EXPECT_TRUE(both.out.starts_with(path(shown) + ":\n")) << both.out.substr(0, 100);
        }
        EXPECT_TRUE(failed_with(orvel({"render", "carrier=1", "-o", path("directory-" + name)}),
                                {"cannot write '" + path("directory-" + shown) + "'"}));
        EXPECT_TRUE(failed_with(orvel({"plot", "-o", path("x.png"), path("missing-" + name)}),
                                {"cannot read '" + path("missing-" + shown) + "'"}));
        EXPECT_TRUE(failed_with(orvel({"simulate", "--seconds=1", "-o", path("directory-" + name)}),
                                {"cannot write '" + path("directory-" + shown) + "'"}));
        EXPECT_TRUE(usage_error_with({"decode", "--known-file", path("missing-" + name), good},
                                     {"--known-file", path("missing-" + shown)}));
        EXPECT_TRUE(usage_error_with({"simulate", "-o", path("x.wav"), "--stations", path("missing-" + name)},
                                     {"--stations", path("missing-" + shown)}));
    }
    EXPECT_TRUE(usage_error_with({"encode", "K2\nQRX"}, {"K2\\nQRX"}));
    EXPECT_TRUE(usage_error_with({"decode", "--no\n-such", "x"}, {"--no\\n-such"}));
}

// ---- Other countries -----------------------------------------------------------------------------------------------

TEST_F(Faults, NumbersHaveADecimalPointInGermanyToo) {
    ASSERT_EQ(run_process({"/usr/bin/localedef", "-i", "de_DE", "-f", "UTF-8", path("de_DE.UTF-8")}).status, 0);
    ProcessInput german;
    german.environment = {{"LOCPATH", path("")}, {"LC_ALL", "de_DE.UTF-8"}, {"LANG", "de_DE.UTF-8"}};
    ASSERT_EQ(run_process({"/usr/bin/printf", "%.1f", "0"}, german).out, "0,0") << "the locale is not in force";
    ProcessInput plain;
    plain.environment = {{"LC_ALL", "C.UTF-8"}};

    const std::string file = recording();
    const std::string audio = write("audio.raw", samples());
    const std::vector<Arguments> commands = {{"decode", OPERA, "--center=1490.5", "--search=50.5", file},
                                             {"decode", OPERA, "--json", "--verbose", file},
                                             {"scan", "--min-z=5.5", "--block=20.5", file},
                                             {"scan", "--json", "--band=1300.5:1700.5", file},
                                             {"encode", "K2QRX", "--draw"},
                                             {"encode", "K2QRX", "--json"},
                                             listening({"--json", "--every=12.5"}),
                                             listening({"--every=12.5"})};
    for (const Arguments& command : commands) {
        ProcessInput here = plain;
        ProcessInput there = german;
        here.stdin_file = there.stdin_file = audio;
        const ProcessResult expected = orvel(command, here);
        const ProcessResult result = orvel(command, there);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, expected.out);
        EXPECT_EQ(result.err, expected.err);
        EXPECT_FALSE(result.out.empty());
    }
    for (const auto& [name, input] : {std::pair{"here.wav", plain}, {"there.wav", german}}) {
        EXPECT_EQ(orvel({"render", "carrier=0.5", "opera=K2QRX", "--tone=1234.5", "--level=0.75", "--ramp=0.01", "-o",
                         path(name)},
                        input)
                      .status,
                  0);
    }
    for (const auto& [name, input] : {std::pair{"here", plain}, {"there", german}}) {
        EXPECT_EQ(orvel({"simulate", "opera=K2QRX,freq=1450.5,snr=-9.5,fading=good", "--noise=-20.5", "-o",
                         path(name + std::string(".flac"))},
                        input)
                      .status,
                  0);
        EXPECT_EQ(
            orvel({"plot", "--title=K2QRX", "--range=-3.5:30.5", "-o", path(name + std::string(".svg")), file}, input)
                .status,
            0);
    }
    for (const char* const extension : {".wav", ".flac", ".jsonl", ".svg"}) {
        EXPECT_EQ(run_process({"/usr/bin/cmp", path("here") + extension, path("there") + extension}).status, 0)
            << extension;
    }
    EXPECT_TRUE(usage_error_with({"decode", "--center=1490,5", file}, {"--center"}, german));
    EXPECT_TRUE(failed_with(orvel({"decode", "--center=1e12", file}, german), {"nothing at 1e+12 Hz"}));
}

}  // namespace
