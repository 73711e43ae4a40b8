// The commands of orvel that touch the air, as their user meets them: the built program, without sound devices.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "pattern.h"
#include "process.h"
#include "siggen.h"

namespace {

// Where protocols do not matter: the search for OPERA alone takes a fraction of the time.
const std::string OPERA = "--protocols=opera";
const std::string MIDNIGHT = "--start=2026-01-01T00:00:00Z";
constexpr double PATIENCE_S = 60;  // much longer than anything takes, also under a sanitizer

using AirCommands = TestWithFiles;

// ---- orvel render --------------------------------------------------------------------------------------------------

struct Sound {
    SF_INFO info{};
    std::vector<float> samples;  // full scale 1
};

Sound read_sound(const std::string& path) {
    Sound sound;
    const std::unique_ptr<SNDFILE, decltype(&sf_close)> file(sf_open(path.c_str(), SFM_READ, &sound.info), sf_close);
    if (!file) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    sound.samples.resize(static_cast<std::size_t>(sound.info.frames * sound.info.channels));
    EXPECT_EQ(sf_readf_float(file.get(), sound.samples.data(), sound.info.frames), sound.info.frames);
    return sound;
}

ovl_tx_step frame(int32_t protocol, const char* call, const char* locator = "") {
    ovl_tx_step step{};
    step.kind = OVL_TX_FRAME;
    step.protocol = protocol;
    std::strcpy(step.call, call);
    std::strcpy(step.locator, locator);
    return step;
}

ovl_tx_step lasting(int32_t kind, double seconds) {
    ovl_tx_step step{};
    step.kind = kind;
    step.seconds = seconds;
    return step;
}

// What the library renders for the steps.
std::vector<float> rendered(const ovl_tx_settings& settings, const std::vector<ovl_tx_step>& steps) {
    const std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)> tx(ovl_tx_create(), ovl_tx_destroy);
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), static_cast<int32_t>(steps.size())), 0);
    std::vector<float> samples;
    std::vector<float> block(10007);
    for (auto n = static_cast<int32_t>(block.size()); n == static_cast<int32_t>(block.size());) {
        n = ovl_tx_render(tx.get(), block.data(), n);
        samples.insert(samples.end(), block.begin(), block.begin() + n);
    }
    return samples;
}

TEST_F(AirCommands, ARenderedFloatFileIsWhatTheTransmitterRenders) {
    const std::string file = path("float.wav");
    const ProcessResult result =
        orvel({"render", "carrier=0.5", "opera=K2QRX", "pause=0.25", "orvel-l=DL1QXA,JO31", "-o", file, "--format",
               "float", "--rate", "11025", "--tone", "1234.5", "--level", "0.75", "--ramp", "0.01"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    const Sound sound = read_sound(file);
    EXPECT_EQ(sound.info.samplerate, 11025);
    EXPECT_EQ(sound.info.channels, 1);
    EXPECT_EQ(sound.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(sound.samples, rendered({11025, 1234.5, 0.75, 0.01},
                                      {lasting(OVL_TX_CARRIER, 0.5), frame(OVL_OPERA, "K2QRX"),
                                       lasting(OVL_TX_PAUSE, 0.25), frame(OVL_ORVEL_L, "DL1QXA", "JO31")}));
}

TEST_F(AirCommands, ARenderedFileHasSixteenBitsRoundedToTheNearest) {
    const std::string file = path("s16.wav");
    const ProcessResult result = orvel({"render", "--output", file, "carrier=0.5", "orvel-s=K2QRX"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    const Sound sound = read_sound(file);
    EXPECT_EQ(sound.info.samplerate, 48000);
    EXPECT_EQ(sound.info.channels, 1);
    EXPECT_EQ(sound.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
    const std::vector<float> expected =
        rendered({48000, 1500, 0.5, 0.005}, {lasting(OVL_TX_CARRIER, 0.5), frame(OVL_ORVEL_S, "K2QRX")});
    ASSERT_EQ(sound.samples.size(), expected.size());
    double worst = 0;
    for (std::size_t k = 0; k < expected.size(); k++) {
        worst = std::max(worst, 32768.0 * std::fabs(sound.samples[k] - expected[k]));
    }
    EXPECT_LE(worst, 0.5) << "least significant bits";
}

TEST_F(AirCommands, FullLevelDoesNotWrapAround) {
    const std::string file = path("loud.wav");
    ASSERT_EQ(orvel({"render", "carrier=1", "--level", "1", "--rate", "12000", "-o", file}).status, 0);
    const Sound sound = read_sound(file);
    const std::vector<float> expected = rendered({12000, 1500, 1, 0.005}, {lasting(OVL_TX_CARRIER, 1)});
    ASSERT_EQ(sound.samples.size(), expected.size());
    double worst = 0;
    for (std::size_t k = 0; k < expected.size(); k++) {
        worst = std::max(worst, 32768.0 * std::fabs(sound.samples[k] - expected[k]));
    }
    EXPECT_LE(worst, 1) << "least significant bits";
    EXPECT_GT(*std::max_element(expected.begin(), expected.end()), 0.999F);
}

std::vector<float> raw_floats(const std::string& path) {
    std::vector<float> samples(std::filesystem::file_size(path) / sizeof(float));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(sizeof(float) * samples.size()));
    return samples;
}

TEST_F(AirCommands, OtherProgramsReadARenderedFile) {
    for (const char* const format : {"s16", "float"}) {
        const std::string file = path(std::string(format) + ".wav");
        ASSERT_EQ(orvel({"render", "carrier=0.5", "--rate", "12000", "-o", file, "--format", format}).status, 0);
        const std::vector<float> expected = read_sound(file).samples;

        const std::string by_ffmpeg = path(std::string("ffmpeg-") + format);
        const ProcessResult converted =
            run_process({"/usr/bin/ffmpeg", "-v", "error", "-i", file, "-f", "f32le", by_ffmpeg});
        EXPECT_EQ(converted.status, 0) << converted.err;
        EXPECT_EQ(converted.err, "");
        EXPECT_EQ(raw_floats(by_ffmpeg), expected) << format;

        const std::string by_sox = path(std::string("sox-") + format);
        const ProcessResult copied = run_process(
            {"/usr/bin/sox", "-D", file, "-t", "raw", "-e", "floating-point", "-b", "32", "-L", "-c", "1", by_sox});
        EXPECT_EQ(copied.status, 0) << copied.err;
        const std::vector<float> samples = raw_floats(by_sox);  // that went through fixed point
        ASSERT_EQ(samples.size(), expected.size());
        for (std::size_t k = 0; k < samples.size(); k++) ASSERT_NEAR(samples[k], expected[k], 1e-6) << format;
    }
}

TEST_F(AirCommands, ARenderedSequenceIsDecoded) {
    const std::string file = path("all.wav");
    ASSERT_EQ(orvel({"render", "pause=5", "opera=K2QRX", "pause=10", "orvel-s=G4QZB", "pause=10", "orvel-l=DL1QXA,JO31",
                     "pause=5", "--rate", "8000", "-o", file})
                  .status,
              0);
    const ProcessResult result = orvel({"decode", "--json", "--search=50", file});
    EXPECT_EQ(result.status, 0);
    const auto lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 3U) << result.out;
    const double chip = ovl_chip_seconds();
    const double second = 5 + chip * ovl_frame_chips(OVL_OPERA) + 10;
    const double third = second + chip * ovl_frame_chips(OVL_ORVEL_S) + 10;
    const std::vector<std::tuple<const char*, const char*, const char*, double>> expected = {
        {"OPERA 05", "K2QRX", "", 5}, {"ORVEL S", "G4QZB", "", second}, {"ORVEL L", "DL1QXA", "JO31", third}};
    for (std::size_t k = 0; k < lines.size(); k++) {
        const auto object = JsonValue::parse(lines[k]);
        const auto& [protocol, call, locator, start] = expected[k];
        EXPECT_EQ(object.at("protocol"), protocol);
        EXPECT_EQ(object.at("call"), call);
        EXPECT_EQ(object.at("locator"), locator);
        EXPECT_NEAR(object.at("t_start"), start, 0.02);
        EXPECT_NEAR(object.at("freq_hz"), 1500, 0.1);
    }
}

TEST_F(AirCommands, TheNameOfTheFileSaysItsFormat) {
    ASSERT_EQ(orvel({"render", "carrier=0.5", "-o", path("x.flac")}).status, 0);
    SF_INFO info{};
    const std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(sf_open(path("x.flac").c_str(), SFM_READ, &info), sf_close);
    ASSERT_TRUE(file);
    EXPECT_EQ(info.format & SF_FORMAT_TYPEMASK, SF_FORMAT_FLAC);
    for (const char* name : {"x.mp3", "x.ogg"}) {
        const ProcessResult result = orvel({"render", "carrier=0.5", "-o", path(name)});
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.err.find("does not end in .wav or .flac"), std::string::npos);
        EXPECT_FALSE(std::filesystem::exists(path(name)));
    }
}

TEST_F(AirCommands, SoundFilesOnStandardInputAreNotTakenForSamples) {
    ASSERT_EQ(orvel({"render", "carrier=0.5", "-o", path("y.wav")}).status, 0);
    ASSERT_EQ(orvel({"render", "carrier=0.5", "-o", path("y.flac")}).status, 0);
    for (const char* name : {"y.wav", "y.flac"}) {
        ProcessInput input;
        input.stdin_file = path(name);
        const ProcessResult result = run_process({ORVEL_COMMAND, "listen", "--stdin"}, input);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find("--stdin takes raw samples"), std::string::npos) << result.err;
    }
}

TEST_F(AirCommands, WhatCannotBeRenderedIsWrongUsage) {
    const std::string file = path("refused.wav");
    const std::vector<std::pair<Arguments, std::string>> refusals = {
        {{}, "STEP"},
        {{"morse=K2QRX"}, "'morse=K2QRX': a step is one of opera, orvel-s, orvel-l, carrier, pause"},
        {{"carrier=1", "K2QRX"}, "'K2QRX': a step is NAME=VALUE"},
        {{"opera=G4/QZB"}, "'opera=G4/QZB': a callsign holds letters and digits only"},
        {{"opera=K2 QRX"}, "'opera=K2 QRX': a callsign holds no blank"},
        {{"orvel-s=3DA0RU"}, "a prefix of that form does not fit"},
        {{"orvel-l=G4QZB"}, "an ORVEL L frame needs a locator"},
        {{"opera=G4QZB,IO91"}, "OPERA 05 frames carry no locator"},
        {{"orvel-l=G4QZB,ZZ99"}, "cannot encode G4QZB ZZ99"},
        {{"carrier=x"}, "'carrier=x': expected seconds after the '='"},
        {{"carrier=0.01"}, "carrier or pause duration out of range (0.05-3600 s)"},
        {{"pause=-1"}, "carrier or pause duration out of range (0.05-3600 s)"},
        {{"carrier=1", "--rate", "7999"}, "sample rate out of range (8000-384000 Hz)"},
        {{"carrier=1", "--rate", "384001"}, "sample rate out of range (8000-384000 Hz)"},
        {{"carrier=1", "--rate", "12k"}, "--rate"},
        {{"carrier=1", "--rate", "99999999999"}, "--rate"},
        {{"carrier=1", "--tone", "0"}, "tone frequency out of range"},
        {{"carrier=1", "--tone", "21600"}, "tone frequency out of range"},
        {{"carrier=1", "--tone", "nan"}, "--tone: 'nan' is not a finite number"},
        {{"carrier=1", "--level", "0"}, "level out of range (0 < level <= 1)"},
        {{"carrier=1", "--level", "1.01"}, "level out of range (0 < level <= 1)"},
        {{"carrier=1", "--level", "inf"}, "--level: 'inf' is not a finite number"},
        {{"carrier=1", "--ramp", "0.051"}, "ramp out of range (0-50 ms)"},
        {{"carrier=1", "--ramp", "-0.001"}, "ramp out of range (0-50 ms)"},
        {{"carrier=1", "--ramp", ""}, "--ramp: '' is not a finite number"},
        {{"carrier=1", "--format", "mp3"}, "--format: 'mp3' is not one of s16, float"},
    };
    for (const auto& [arguments, text] : refusals) {
        Arguments all = {"render", "-o", file};
        all.insert(all.end(), arguments.begin(), arguments.end());
        EXPECT_TRUE(usage_error_with(all, {text})) << text;
        EXPECT_FALSE(std::filesystem::exists(file)) << text;
    }
    EXPECT_TRUE(usage_error_with({"render", "carrier=1"}, {"--output"}));
    Arguments many(65, "pause=1");
    many.insert(many.begin(), {"render", "-o", file});
    EXPECT_TRUE(usage_error_with(many, {"too many steps (max 64)"}));
    many.pop_back();
    EXPECT_EQ(orvel(many).status, 0);
}

TEST_F(AirCommands, AFileThatCannotBeWrittenIsAFailureWithTheReason) {
    const std::string missing = path("no/such/file.wav");
    const std::vector<std::pair<std::string, std::string>> failures = {
        {"/dev/full", "No space left on device"}, {missing, "No such file or directory"}, {path(""), "directory"}};
    for (const auto& [file, reason] : failures) {
        for (const char* const format : {"s16", "float"}) {
            const ProcessResult result = orvel({"render", "carrier=1", "-o", file, "--format", format});
            EXPECT_EQ(result.status, 1) << file;
            EXPECT_EQ(result.out, "");
            EXPECT_TRUE(one_line_with(result, {"cannot write '" + file + "'", reason}));
        }
    }
}

// ---- orvel listen: audio -------------------------------------------------------------------------------------------

Station station(uint32_t protocol, const char* call, const char* locator, double t, double freq, double snr,
                double drift = 0) {
    Station result;
    result.chips.resize(static_cast<std::size_t>(ovl_frame_chips(protocol)));
    EXPECT_GT(ovl_encode(protocol, call, locator, result.chips.data(), ovl_frame_chips(protocol)), 0) << call;
    result.t_start = t;
    result.freq_hz = freq;
    result.drift_hz_s = drift;
    result.snr_db = snr;
    return result;
}

std::vector<int16_t> quantised(const Scene& scene) {
    std::vector<int16_t> samples;
    for (const double x : render_real(scene)) samples.push_back(static_cast<int16_t>(std::lround(32768 * x)));
    return samples;
}

std::string s16_bytes(const std::vector<int16_t>& samples) {
    return {reinterpret_cast<const char*>(samples.data()), 2 * samples.size()};
}

std::string float_bytes(const std::vector<float>& samples) {
    return {reinterpret_cast<const char*>(samples.data()), 4 * samples.size()};
}

std::vector<float> as_float(const std::vector<int16_t>& samples) {
    std::vector<float> result;
    for (const int16_t sample : samples) result.push_back(static_cast<float>(sample) / 32768);
    return result;
}

// One OPERA frame within 40 s.
Scene short_scene(int32_t rate = 12000) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = 40;
    scene.seed = 3;
    scene.stations = {station(OVL_OPERA, "K2QRX", "", 3, 1480, -12)};
    return scene;
}
const std::vector<int16_t>& short_audio() {
    static const std::vector<int16_t> samples = quantised(short_scene());
    return samples;
}

// `orvel listen` on these bytes, with as few decodes as it allows.
ProcessResult listen(const std::string& file, const Arguments& options, const std::string& every = "15",
                     ProcessInput input = {}) {
    input.stdin_file = file;
    Arguments all = {"listen", "--stdin", "--every", every};
    all.insert(all.end(), options.begin(), options.end());
    return orvel(all, input);
}

struct Heard {
    std::string call, protocol, locator;
    double start = 0;  // s after midnight
    double end = 0;
    double freq = 0;
};

// Seconds after midnight of a time near 2026-01-01; such a time has two decimals.
double seconds_of(const std::string& text) {
    const auto match = match_of(text, R"((2025-12-31|2026-01-01)T(\d\d):(\d\d):(\d\d\.\d\d)Z)");
    if (!match) {
        ADD_FAILURE() << "no such time: " << text;
        return 0;
    }
    const auto number = [&](std::size_t group) { return std::stod(match->at(group)); };
    return (match->at(1) == "2025-12-31" ? -86400 : 0) + 3600 * number(2) + 60 * number(3) + number(4);
}

Heard heard_in(const std::string& line) {
    const auto object = JsonValue::parse(line);
    EXPECT_EQ(object.names(), (Arguments{"utc_start", "utc_end", "freq_hz", "drift_hz_s", "snr_db", "protocol", "call",
                                         "locator", "deep"}));
    EXPECT_TRUE(object.at("freq_hz").is_number());
    EXPECT_TRUE(object.at("drift_hz_s").is_number());
    EXPECT_TRUE(object.at("snr_db").is_number() || object.at("snr_db").is_null());
    EXPECT_TRUE(object.at("deep").is_boolean());
    return {object.at("call"),
            object.at("protocol"),
            object.at("locator"),
            seconds_of(object.at("utc_start")),
            seconds_of(object.at("utc_end")),
            object.at("freq_hz")};
}

std::vector<Heard> all_heard(const std::string& output) {
    std::vector<Heard> heard;
    for (const std::string& line : lines_of(output)) heard.push_back(heard_in(line));
    return heard;
}

testing::AssertionResult is_the_short_scene(const ProcessResult& result) {
    if (result.status != 0) return testing::AssertionFailure() << "exit status " << result.status << result.err;
    if (!result.err.empty()) return testing::AssertionFailure() << result.err;
    const auto heard = all_heard(result.out);
    if (heard.size() != 1 || heard[0].call != "K2QRX" || std::fabs(heard[0].start - 3) > 0.1 ||
        std::fabs(heard[0].freq - 1480) > 0.5) {
        return testing::AssertionFailure() << result.out;
    }
    return testing::AssertionSuccess();
}

// ---- orvel listen: spots -------------------------------------------------------------------------------------------

TEST_F(AirCommands, ListeningFindsWhatTheDecoderFindsEachFrameOnceInOrderOfItsEnd) {
    Scene scene;
    scene.rate = 12000;
    scene.seconds = 240;
    scene.seed = 20260101;
    scene.stations = {
        station(OVL_OPERA, "K2QRX", "", 5, 1450, -17),
        station(OVL_OPERA, "G4QZB", "", 12, 1525, -16, 0.05),
        station(OVL_ORVEL_L, "DL1QXA", "JO31", 31, 1560, -17),
        station(OVL_OPERA, "OK2QJB", "", 72, 1425, -15),
        station(OVL_ORVEL_S, "SM5QAB", "", 72.1, 1540, -16),  // ends with the one before
        station(OVL_OPERA, "K2QRX", "", 110, 1450, -17),      // the first one again
        station(OVL_ORVEL_S, "K2QRX", "", 145, 1510, -16),    // and in another protocol
        station(OVL_ORVEL_L, "G4QZB", "IO91", 160, 1440, -17),
        station(OVL_OPERA, "OH2QQ", "", 212, 1500, -14),  // extends past the end
    };
    const std::vector<std::tuple<std::string, std::string, double>> truth = {
        {"K2QRX", "OPERA 05", 5},   {"G4QZB", "OPERA 05", 12},   {"DL1QXA", "ORVEL L", 31},
        {"OK2QJB", "OPERA 05", 72}, {"SM5QAB", "ORVEL S", 72.1}, {"K2QRX", "OPERA 05", 110},
        {"K2QRX", "ORVEL S", 145},  {"G4QZB", "ORVEL L", 160},   {"OH2QQ", "OPERA 05", 212}};
    const std::string samples = s16_bytes(quantised(scene));

    const ProcessResult result =
        listen(write("audio.raw", samples), {"--rate=12000", MIDNIGHT, "--json", "--search=80"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const auto heard = all_heard(result.out);
    EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end(), [](const Heard& a, const Heard& b) {
        return a.end < b.end;
    })) << result.out;
    const auto times_heard = [&](const std::string& call, const std::string& protocol, double start) {
        return std::count_if(heard.begin(), heard.end(), [&](const Heard& spot) {
            return spot.call == call && spot.protocol == protocol && std::fabs(spot.start - start) <= 0.1;
        });
    };
    for (const auto& [call, protocol, start] : truth) EXPECT_EQ(times_heard(call, protocol, start), 1) << call;

    const ProcessResult decoded =
        orvel({"decode", "--json", "--search=80", write("audio.wav", wave_file(1, 1, 12000, 16, samples))});
    EXPECT_GE(lines_of(decoded.out).size(), truth.size() - 2) << decoded.out;
    for (const std::string& line : lines_of(decoded.out)) {
        const auto object = JsonValue::parse(line);
        EXPECT_EQ(times_heard(object.at("call"), object.at("protocol"), object.at("t_start")), 1) << line;
    }
    EXPECT_EQ(heard.size(), truth.size()) << result.out;
    for (const Heard& spot : heard) {
        EXPECT_EQ(spot.locator.empty(), spot.protocol != "ORVEL L") << spot.call;
        const double length = spot.protocol == "ORVEL L" ? ovl_chip_seconds() * ovl_frame_chips(OVL_ORVEL_L)
                                                         : ovl_chip_seconds() * ovl_frame_chips(OVL_OPERA);
        EXPECT_NEAR(spot.end - spot.start, length, 0.011) << spot.call;
    }
}

// A line of JSON then says how each frame was found; a frame that both searches find is given as the ordinary one's.
TEST_F(AirCommands, ListeningFindsTheWeakestFramesCoherently) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 80;
    scene.seed = 3;
    scene.stations = {station(OVL_ORVEL_S, "K2QRX", "", 4, 1520, -28),
                      station(OVL_ORVEL_S, "G4QZB", "", 10, 1470, -15)};
    const std::string file = write("audio.raw", s16_bytes(quantised(scene)));
    const Arguments options = {"--rate=8000", MIDNIGHT, "--json", "--search=60", "--protocols=orvel-s"};
    const auto heard = all_heard(listen(file, options).out);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].call, "G4QZB");

    Arguments coherent = options;
    coherent.emplace_back("--coherent");
    const ProcessResult result = listen(file, coherent);
    EXPECT_EQ(result.status, 0) << result.err;
    const auto lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 2u) << result.out;
    const auto weak = JsonValue::parse(lines[0]);
    EXPECT_EQ(weak.at("call"), "K2QRX");
    EXPECT_EQ(weak.at("method"), "coherent");
    EXPECT_GT(weak.at("odds").number(), 0);
    EXPECT_NEAR(seconds_of(weak.at("utc_start")), 4, 0.1);
    const auto strong = JsonValue::parse(lines[1]);
    EXPECT_EQ(strong.at("call"), "G4QZB");
    EXPECT_EQ(strong.at("method"), "standard");
    EXPECT_TRUE(strong.at("odds").is_null());
}

// Each strong frame brings candidates at its sides, which must not keep the decoder from examining others.
TEST_F(AirCommands, TenStrongStationsAtOnceAreAllFound) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 90;
    scene.seed = 1;
    scene.stations = {
        station(OVL_OPERA, "K2QRX", "", 5, 1350, -10),        station(OVL_OPERA, "DL1QXA", "", 20, 1385, -12),
        station(OVL_OPERA, "G4QZB", "", 40, 1420, -15),       station(OVL_ORVEL_S, "OH3QKJ", "", 10, 1455, -12),
        station(OVL_ORVEL_S, "F5QVB", "", 30, 1490, -14),     station(OVL_ORVEL_S, "SM5QAB", "", 50, 1525, -16),
        station(OVL_ORVEL_L, "OK2QJB", "JO70", 3, 1560, -13), station(OVL_ORVEL_L, "JA1QX", "PM95", 25, 1590, -12),
        station(OVL_ORVEL_L, "VK2QQ", "QF56", 45, 1620, -15), station(OVL_OPERA, "ZL2QX", "", 55, 1650, -14),
    };
    const std::string samples = s16_bytes(quantised(scene));
    const ProcessResult decoded = orvel({"decode", "--json", write("audio.wav", wave_file(1, 1, 8000, 16, samples))});
    const ProcessResult result = listen(write("audio.raw", samples), {"--rate=8000", MIDNIGHT, "--json"});
    const std::vector<std::string> all = {"DL1QXA", "F5QVB",  "G4QZB",  "JA1QX", "K2QRX",
                                          "OH3QKJ", "OK2QJB", "SM5QAB", "VK2QQ", "ZL2QX"};
    for (const std::string& out : {decoded.out, result.out}) {
        std::vector<std::string> calls;
        for (const std::string& line : lines_of(out)) calls.push_back(JsonValue::parse(line).at("call"));
        std::sort(calls.begin(), calls.end());
        EXPECT_EQ(calls, all) << out;
    }
}

// When the frames began that listening near 1360 Hz finds, with all that it does as a default, or with more options.
class AirCommandsNearby : public AirCommands {
  protected:
    std::vector<double> starts_heard(double seconds, uint64_t seed, const std::vector<Station>& stations,
                                     const Arguments& more = {}, const std::string& every = "4") {
        Scene scene;
        scene.rate = 8000;
        scene.seconds = seconds;
        scene.seed = seed;
        scene.stations = stations;
        Arguments options = {"--rate=8000", MIDNIGHT, "--json", "--center=1360", "--search=30"};
        options.insert(options.end(), more.begin(), more.end());
        const ProcessResult result = listen(write("audio.raw", s16_bytes(quantised(scene))), options, every);
        EXPECT_EQ(result.status, 0);
        std::vector<double> starts;
        for (const Heard& heard : all_heard(result.out)) starts.push_back(heard.start);
        return starts;
    }
};

// Where a block does not hold the whole of a strong frame, the part it holds hides a weaker one that follows.
TEST_F(AirCommandsNearby, AWeakFrameThatFollowsAStrongOneIsFound) {
    const auto starts = starts_heard(125, 2,
                                     {station(OVL_ORVEL_S, "K2QRX", "", 8.5, 1359, -8.5, 0.03),
                                      station(OVL_ORVEL_S, "K2QRX", "", 40.5, 1359, -18.7, 0.03)});
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_NEAR(starts[0], 8.5, 0.1);
    EXPECT_NEAR(starts[1], 40.5, 0.1);
}

// In the first decode after the end of the weak frame, at 44 s, the other has begun.
TEST_F(AirCommandsNearby, AWeakFrameThatAStrongOneFollowsIsFound) {
    const auto starts = starts_heard(
        100, 3, {station(OVL_OPERA, "K2QRX", "", 9.7, 1359, -22.5), station(OVL_OPERA, "K2QRX", "", 41.9, 1359, -8.5)});
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_NEAR(starts[0], 9.7, 0.1);
    EXPECT_NEAR(starts[1], 41.9, 0.1);
}

// Of a block that begins at the first sample, or any number of samples of the baseband later, none of these is found:
// one of the overlapping decodes begins at the right place between two of them.
TEST_F(AirCommandsNearby, AWeakFrameThatOnlyOnePhaseOfTheGridShowsIsFound) {
    for (const uint64_t seed : {19U, 77U, 141U}) {
        const auto starts =
            starts_heard(62, seed, {station(OVL_OPERA, "K2QRX", "", 8, 1359, -24)}, {OPERA, "--hold-off=16"}, "2");
        ASSERT_EQ(starts.size(), 1u) << seed;
        EXPECT_NEAR(starts[0], 8, 0.1) << seed;
    }
}

TEST_F(AirCommands, EveryFormOfTheSameSamplesGivesTheSameSpots) {
    const std::vector<int16_t>& mono = short_audio();
    const std::vector<float> floats = as_float(mono);
    std::vector<int16_t> stereo;
    std::vector<float> stereo_floats;
    std::vector<int16_t> sixteen;
    for (std::size_t k = 0; k < mono.size(); k++) {  // the mean over the channels is always the same
        stereo.insert(stereo.end(), {0, static_cast<int16_t>(2 * mono[k])});
        stereo_floats.insert(stereo_floats.end(), {3 * floats[k], -floats[k]});
        sixteen.insert(sixteen.end(), 16, mono[k]);
    }
    const ProcessResult expected =
        listen(write("mono.raw", s16_bytes(mono)), {"--rate=12000", MIDNIGHT, "--json", OPERA});
    EXPECT_TRUE(is_the_short_scene(expected));
    const std::vector<std::pair<std::string, Arguments>> forms = {
        {float_bytes(floats), {"--format", "float"}},
        {s16_bytes(stereo), {"--format=s16", "--channels", "2"}},
        {float_bytes(stereo_floats), {"--format=float", "--channels=2"}},
        {s16_bytes(sixteen), {"--channels=16"}},
        {s16_bytes(mono) + "x", {}},  // half a sample, half a frame past the end
        {float_bytes(stereo_floats) + "seven b", {"--format=float", "--channels=2"}},
    };
    for (const auto& [bytes, options] : forms) {
        Arguments all = {"--rate=12000", MIDNIGHT, "--json", OPERA};
        all.insert(all.end(), options.begin(), options.end());
        const ProcessResult result = listen(write("form.raw", bytes), all);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out, expected.out) << ::testing::PrintToString(options);
    }
}

TEST_F(AirCommands, ANoisyAndAFreeChannelAreBothHeard) {
    Scene clean = short_scene();
    clean.noise = false;
    const std::vector<int16_t> right = quantised(clean);
    std::vector<int16_t> both;
    for (std::size_t k = 0; k < right.size(); k++) both.insert(both.end(), {short_audio()[k], right[k]});
    EXPECT_TRUE(is_the_short_scene(
        listen(write("both.raw", s16_bytes(both)), {"--rate=12000", "--channels=2", MIDNIGHT, "--json", OPERA})));
}

TEST_F(AirCommands, TheRatesOfSoundCardsAreServed) {
    for (const int32_t rate : {8000, 44100, 48000}) {
        Arguments options = {MIDNIGHT, "--json", OPERA};
        if (rate != 48000) options.push_back("--rate=" + std::to_string(rate));  // that is the default
        const std::string file = write("rate.raw", s16_bytes(quantised(short_scene(rate))));
        EXPECT_TRUE(is_the_short_scene(listen(file, options))) << rate;
    }
}

TEST_F(AirCommands, SamplesThatAreNoNumbersOrBeyondAnyScaleAreSilence) {
    std::vector<float> broken = as_float(short_audio());
    std::vector<float> silent = broken;
    const std::vector<float> none = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                                     -std::numeric_limits<float>::infinity(), 3e38f, -1e10f};
    for (std::size_t k = 0; k < broken.size(); k += k % 5000 < 20 ? 1 : 997) {
        broken[k] = none[k % none.size()];
        silent[k] = 0;
    }
    const Arguments options = {"--rate=12000", "--format=float", MIDNIGHT, "--json", OPERA};
    const ProcessResult result = listen(write("broken.raw", float_bytes(broken)), options);
    EXPECT_TRUE(is_the_short_scene(result));
    EXPECT_EQ(result.out, listen(write("silent.raw", float_bytes(silent)), options).out);
}

TEST_F(AirCommands, TheTableShowsWhatJsonShows) {
    const std::string file = write("audio.raw", s16_bytes(short_audio()));
    const auto lines = lines_of(listen(file, {"--rate=12000", MIDNIGHT, OPERA}).out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "                   UTC  frequency Hz  drift Hz/s  SNR dB  protocol  callsign  locator");
    EXPECT_TRUE(match_of(
        lines[1],
        R"(2026-01-01T00:00:0[23]\.\dZ  +14(79|80)\.\d\d  +[+-]0\.\d{3}  +-1[123]\.\d  OPERA 05  K2QRX     -)"))
        << lines[1];
}

TEST_F(AirCommands, LittleOrNoAudioHasNoSpots) {
    const std::vector<int16_t>& audio = short_audio();
    std::vector<std::string> inputs = {"", "x", s16_bytes({1}), s16_bytes(std::vector<int16_t>(12000 * 40, 0))};
    for (const std::size_t seconds : {1U, 10U, 19U, 20U, 22U})
        inputs.push_back(s16_bytes(audio).substr(0, 24000U * seconds));
    for (const std::string& bytes : inputs) {
        for (const Arguments& start : {Arguments{MIDNIGHT}, {}}) {
            Arguments options = {"--rate=12000", OPERA};
            options.insert(options.end(), start.begin(), start.end());
            const std::string file = write("little.raw", bytes);
            const ProcessResult table = listen(file, options);
            EXPECT_EQ(table.status, 0);
            EXPECT_EQ(table.err, "") << bytes.size();
            EXPECT_EQ(lines_of(table.out).size(), 1U) << table.out;
        }
        const ProcessResult json = listen(write("little.raw", bytes), {"--rate=12000", OPERA, "--json"});
        EXPECT_EQ(json.status, 0);
        EXPECT_EQ(json.out + json.err, "") << bytes.size();
    }
}

TEST_F(AirCommands, WithoutAStartTheNewestSampleHasJustCome) {
    const std::string file = write("audio.raw", s16_bytes(short_audio()));
    const auto now = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    };
    const double before = now();
    const ProcessResult result = listen(file, {"--rate=12000", OPERA, "--json"});
    const double after = now();
    ASSERT_EQ(lines_of(result.out).size(), 1U) << result.out;
    std::tm time{};
    const std::string text = JsonValue::parse(result.out).at("utc_start");
    ASSERT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time), nullptr) << text;
    const auto start = static_cast<double>(timegm(&time));
    EXPECT_GE(start, before - 37 - 1.5);  // the frame begins 37 s before the newest sample
    EXPECT_LE(start, after - 37 + 1.5);
}

TEST_F(AirCommands, AFileWithoutAStartGivesEachFrameOnce) {
    Scene scene = short_scene();
    scene.seconds = 100;
    scene.stations.push_back(station(OVL_OPERA, "K2QRX", "", 55, 1480, -12));
    const std::string file = write("audio.raw", s16_bytes(quantised(scene)));
    for (const char* every : {"4", "15"}) {
        const ProcessResult result = listen(file, {"--rate=12000", OPERA, "--json"}, every);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(lines_of(result.out).size(), 2U) << "every " << every << "\n" << result.out;
    }
}

TEST_F(AirCommands, ListeningToKnownCallsignsOnly) {
    const std::string file = write("audio.raw", s16_bytes(short_audio()));
    const Arguments common = {"--rate=12000", MIDNIGHT, OPERA, "--json", "--known-only", "--known"};
    Arguments other = common;
    other.emplace_back("G4QZB");
    EXPECT_EQ(listen(file, other).out, "");
    Arguments both = common;
    both.emplace_back("G4QZB,K2QRX");
    EXPECT_TRUE(is_the_short_scene(listen(file, both)));
}

TEST_F(AirCommands, ADecimalCommaInTheEnvironmentChangesNothing) {
    const ProcessInput comma = decimal_comma();
    const std::string file = write("audio.raw", s16_bytes(short_audio()));
    for (const char* const json : {"--json", "--known-file=/dev/null"}) {
        const Arguments options = {"--rate=12000", MIDNIGHT, OPERA, "--center", "1490.5", json};
        const ProcessResult result = listen(file, options, "15", comma);
        EXPECT_EQ(result.out, listen(file, options).out);
        EXPECT_NE(result.out.find("K2QRX"), std::string::npos);
    }
    const Arguments render = {"render", "carrier=0.5", "--tone=1400.5", "--ramp=0.01", "--format=float", "-o"};
    Arguments with_comma = render;
    with_comma.push_back(path("comma.wav"));
    Arguments with_point = render;
    with_point.push_back(path("point.wav"));
    EXPECT_EQ(orvel(with_comma, comma).status, 0);
    EXPECT_EQ(orvel(with_point).status, 0);
    EXPECT_EQ(read_sound(path("comma.wav")).samples, read_sound(path("point.wav")).samples);
}

// ---- orvel listen: while it runs -----------------------------------------------------------------------------------

Arguments listening(const Arguments& options) {
    Arguments all = {"listen", "--stdin", "--rate=12000", OPERA};
    all.insert(all.end(), options.begin(), options.end());
    return orvel_arguments(all);
}

TEST_F(AirCommands, SpotsComeWhileTheInputIsOpen) {
    // The frame has ended at 33.6 s. It is printed at the second decode after its hold-off, when nothing older can
    // come. There is a decode every fourth second, or a little later.
    struct Case {
        Arguments options;
        std::size_t printed_s;
    };
    const std::array<Case, 3> cases = {{{{}, 88}, {{"--hold-off=0"}, 40}, {{"--settle=10"}, 48}}};
    Scene scene = short_scene();
    scene.seconds = 92;
    const std::string bytes = s16_bytes(quantised(scene));
    for (const auto& [options, printed_s] : cases) {
        SCOPED_TRACE(::testing::PrintToString(options));
        Arguments all = {MIDNIGHT, "--json"};
        all.insert(all.end(), options.begin(), options.end());
        RunningProcess process(listening(all));
        ASSERT_TRUE(process.write(bytes.substr(0, 24000 * (printed_s - 1))));
        EXPECT_FALSE(process.read_line(0.5)) << "before its time";
        ASSERT_TRUE(process.write(bytes.substr(24000 * (printed_s - 1), 24000 * 5)));
        const auto line = process.read_line(PATIENCE_S);
        ASSERT_TRUE(line);
        const Heard heard = heard_in(*line);
        EXPECT_EQ(heard.call, "K2QRX");
        EXPECT_NEAR(heard.start, 3, 0.1);
        EXPECT_FALSE(process.wait(0.2)) << "it ended before its input";
        process.close_stdin();
        EXPECT_EQ(process.read_rest(PATIENCE_S), "");
        const auto result = process.wait(PATIENCE_S);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 0);
        EXPECT_EQ(result->err, "");
    }
}

TEST_F(AirCommands, SamplesMayComeInPiecesOfAnySize) {
    RunningProcess process(listening({MIDNIGHT, "--json", "--every=15"}));
    const std::string bytes = s16_bytes(short_audio());
    std::size_t at = 0;
    for (const std::size_t size : {1U, 1U, 3U, 997U, 1U, 4095U}) {
        ASSERT_TRUE(process.write(bytes.substr(at, size)));
        at += size;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (; at < bytes.size(); at += 12345) ASSERT_TRUE(process.write(bytes.substr(at, 12345)));
    process.close_stdin();
    const std::string out = process.read_rest(PATIENCE_S);
    auto result = process.wait(PATIENCE_S);
    ASSERT_TRUE(result);
    result->out = out;
    EXPECT_TRUE(is_the_short_scene(*result));
}

TEST_F(AirCommands, CtrlCEndsListeningWithWhatWasDecoded) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        RunningProcess process(listening({MIDNIGHT}));
        ASSERT_TRUE(process.write(s16_bytes(short_audio()).substr(0, 24000 * 37)));
        ASSERT_TRUE(process.read_line(PATIENCE_S)) << "no header";
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // until it has read all
        process.send_signal(signal);
        const auto line = process.read_line(PATIENCE_S / 6);
        ASSERT_TRUE(line) << "nothing after the signal";
        EXPECT_NE(line->find("K2QRX"), std::string::npos) << *line;
        EXPECT_EQ(process.read_rest(PATIENCE_S), "");
        const auto result = process.wait(PATIENCE_S);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 0);
        EXPECT_EQ(result->err, "");
    }
}

TEST_F(AirCommands, AnIgnoredHangUpStaysIgnored) {
    Arguments all = {"/bin/sh", "-c", "trap '' HUP; exec \"$@\"", "sh"};
    const Arguments command = listening({"--json"});
    all.insert(all.end(), command.begin(), command.end());
    RunningProcess process(all);
    ASSERT_TRUE(process.write(std::string(1000, '\0')));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    process.send_signal(SIGHUP);
    EXPECT_FALSE(process.wait(1)) << "the end of a terminal ended it";
    process.send_signal(SIGINT);
    EXPECT_TRUE(process.wait(PATIENCE_S / 6));
}

TEST_F(AirCommands, ATimeOfDayIsTheLastSuchTime) {
    const auto clock = std::chrono::system_clock::now() - std::chrono::minutes(10);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(clock);
    std::array<char, 32> start{};
    std::strftime(start.data(), start.size(), "%Y-%m-%dT%H:%M:%S", std::gmtime(&seconds));
    const std::string date_and_time = start.data();
    const std::string file = write("short.raw", s16_bytes(short_audio()));
    const ProcessResult by_time =
        listen(file, {"--json", "--rate", "12000", "--start", date_and_time.substr(date_and_time.find('T') + 1)});
    const ProcessResult by_date = listen(file, {"--json", "--rate", "12000", "--start", date_and_time});
    EXPECT_EQ(lines_of(by_date.out).size(), 1u) << by_date.err;
    EXPECT_EQ(by_time.out, by_date.out);
}

TEST_F(AirCommands, CtrlCEndsListeningToSilence) {
    for (const bool with_samples : {true, false}) {
        RunningProcess process(listening({"--json"}));
        ASSERT_TRUE(process.write(std::string(with_samples ? 1000 : 0, '\0')));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        process.send_signal(SIGINT);
        const auto result = process.wait(PATIENCE_S / 6);
        ASSERT_TRUE(result) << "it waits for more input";
        EXPECT_EQ(result->status, 0);
        EXPECT_EQ(result->err, "");
    }
}

TEST_F(AirCommands, OutputThatCannotBeWrittenEndsListening) {
    ProcessInput closed;
    closed.stdout_closed_pipe = true;
    ProcessInput full;
    full.stdout_file = "/dev/full";
    const std::string audio = s16_bytes(short_audio()) + std::string(24000, '\0');
    for (const ProcessInput& input : {closed, full}) {
        for (const Arguments& options : {Arguments{MIDNIGHT}, {MIDNIGHT, "--json", "--hold-off=0"}}) {
            RunningProcess process(listening(options), input);
            process.write(audio);                          // the table's header fails long before its end
            const auto result = process.wait(PATIENCE_S);  // the input stays open
            ASSERT_TRUE(result) << ::testing::PrintToString(options);
            EXPECT_EQ(result->status, 1);
            EXPECT_TRUE(one_line_with(*result, {"cannot write"}));
        }
        const ProcessResult result = listen(write("audio.raw", audio), {"--rate=12000", OPERA, "--json"}, "15", input);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(one_line_with(result, {"cannot write"}));
    }
}

TEST_F(AirCommands, InputThatCannotBeReadIsAFailure) {
    const ProcessResult result = listen(path(""), {"--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(one_line_with(result, {"cannot read standard input", "directory"}));
}

TEST_F(AirCommands, WrongOptionsOfListenAreWrongUsage) {
    const std::vector<std::pair<Arguments, Arguments>> wrong = {
        {{"--stdin", "--rate", "0"}, {"--rate", "8000 to 384000"}},
        {{"--stdin", "--rate", "7999"}, {"--rate", "8000 to 384000"}},
        {{"--stdin", "--rate", "384001"}, {"--rate", "8000 to 384000"}},
        {{"--stdin", "--rate", "-1"}, {"--rate"}},
        {{"--rate", "7999"}, {"--rate"}},
        {{"--stdin", "--rate", "x"}, {"--rate"}},
        {{"--stdin", "--channels", "0"}, {"--channels"}},
        {{"--stdin", "--channels", "17"}, {"--channels"}},
        {{"--channels", "2"}, {"--channels", "--stdin"}},
        {{"--stdin", "--format", "x"}, {"--format", "'x'"}},
        {{"--stdin", "--format", "S16"}, {"--format", "'S16'"}},
        {{"--format", "float"}, {"--format", "--stdin"}},
        {{"--stdin", "--start", "garbage"}, {"--start", "'garbage'"}},
        {{"--stdin", "--start", "2026-02-30T12:00"}, {"--start", "'2026-02-30T12:00'"}},
        {{"--start", "12:00"}, {"--start", "--stdin"}},
        {{"--stdin", "--device", "1"}, {"--device", "--stdin"}},
        {{"--stdin", "--every", "0"}, {"--every"}},
        {{"--stdin", "--every", "-4"}, {"--every"}},
        {{"--stdin", "--every", "nan"}, {"--every"}},
        {{"--stdin", "--every", "inf"}, {"--every"}},
        {{"--stdin", "--every", "100"}, {"--every"}},
        {{"--stdin", "--hold-off", "-1"}, {"--hold-off"}},
        {{"--stdin", "--settle", "61"}, {"--hold-off"}},
        {{"--stdin", "--hold-off", "nan"}, {"--hold-off"}},
        {{"--stdin", "--protocols", "morse"}, {"--protocols", "'morse'"}},
        {{"--stdin", "--known-only"}, {"--known-only"}},
        {{"--stdin", "--known", "G4/QZB"}, {"--known", "'G4/QZB'"}},
        {{"--stdin", "--center", "nan"}, {"--center"}},
        {{"--stdin", "--search", "-1"}, {"--search"}},
        {{"--stdin", "extra"}, {"extra"}},
    };
    for (const auto& [options, texts] : wrong) {
        Arguments all = {"listen"};
        all.insert(all.end(), options.begin(), options.end());
        EXPECT_TRUE(usage_error_with(all, texts)) << ::testing::PrintToString(options);
    }
}

// ---- Without sound devices -----------------------------------------------------------------------------------------

ProcessInput on(const SoundlessMachine& machine) {
    ProcessInput input;
    input.environment = machine.environment();
    return input;
}

// ALSA's configuration may be missing, empty, or garbage; or have one name, all of which PortAudio can open.
std::vector<ProcessInput> without_sound(const SoundlessMachine& machine, const std::string& empty,
                                        const std::string& garbage) {
    std::vector<ProcessInput> machines = {on(machine)};
    for (const std::string& configuration : {std::string("/nonexistent"), empty, garbage}) {
        machines.push_back(on(machine));
        machines.back().environment.emplace_back("ALSA_CONFIG_PATH", configuration);
    }
    return machines;
}

TEST_F(AirCommands, AMachineWithoutSoundHasNoDevices) {
    const SoundlessMachine machine;
    for (const ProcessInput& input : without_sound(machine, write("empty", ""), write("garbage", "x\n"))) {
        for (const Arguments& command : {Arguments{"devices"}, {"devices", "--json"}}) {
            const ProcessResult result = orvel(command, input);
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, "orvel: no sound devices\n") << input.environment.back().second;
        }
        for (const Arguments& command : {Arguments{"send", "carrier=0.1"}, {"listen"}}) {
            const ProcessResult result = orvel(command, input);
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_TRUE(one_line_with(result, {"no such", "device"})) << input.environment.back().second;
        }
    }
}

TEST_F(AirCommands, ADeviceThatIsTheOnlyNameOfAlsaIsListed) {
    const SoundlessMachine machine;
    ProcessInput input = on(machine);
    const std::string file = write("one", "pcm.sink { type file file /dev/null slave.pcm { type null } }\n");
    input.environment.emplace_back("ALSA_CONFIG_PATH", file);
    const ProcessResult result = orvel({"devices", "--json"}, input);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    ASSERT_EQ(lines_of(result.out).size(), 1u) << result.out;
    EXPECT_EQ(JsonValue::parse(result.out).at("name"), "sink");
}

TEST_F(AirCommands, WhatShallKeyIsLookedForBeforeTheWait) {
    const SoundlessMachine machine;
    ProcessInput input = on(machine);
    const std::string file = write("one", "pcm.sink { type file file /dev/null slave.pcm { type null } }\n");
    input.environment.emplace_back("ALSA_CONFIG_PATH", file);
    const std::vector<std::tuple<Arguments, int, std::string>> cases = {
        {{"--ptt", "serial:/:rts"}, 2, "--ptt: '/' is no serial port"},
        {{"--ptt", "serial:/nonexistent:dtr"}, 1, "cannot use '/nonexistent': No such file or directory"},
        {{"--ptt", "rigctld:127.0.0.1:1"}, 1, "cannot use rigctld at 127.0.0.1 port 1: Connection refused"},
        {{"--ptt-command", "/nonexistent"}, 2, "--ptt-command: there is no program '/nonexistent'"},
        {{"--ptt-command", ""}, 2, "--ptt-command: there is no program ''"},
    };
    for (const auto& [options, status, reason] : cases) {
        Arguments all = {"send", "carrier=0.1", "--at", "2099-01-01T00:00:00Z"};
        all.insert(all.end(), options.begin(), options.end());
        const ProcessResult result = orvel(all, input);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.err, "orvel: " + reason + "\n");
    }
}

// Nobody waits for hours to hear that there is nothing to send on.
TEST_F(AirCommands, SendingLooksForItsDeviceBeforeItWaits) {
    const SoundlessMachine machine;
    for (const Arguments& device : {Arguments{}, {"--device", "radio"}}) {
        Arguments all = {"send", "carrier=0.1", "--at", "2099-01-01T00:00:00Z"};
        all.insert(all.end(), device.begin(), device.end());
        const ProcessResult result = orvel(all, on(machine));
        EXPECT_EQ(result.status, device.empty() ? 1 : 2);
        EXPECT_TRUE(one_line_with(result, {"output device"}));
    }
}

TEST_F(AirCommands, AMachineWithoutSoundNeitherSendsNorListens) {
    const SoundlessMachine machine;
    for (const Arguments& when : {Arguments{}, {"--every", "6s", "--times", "1"}}) {
        Arguments all = {"send", "carrier=0.1"};
        all.insert(all.end(), when.begin(), when.end());
        const ProcessResult sent = orvel(all, on(machine));
        EXPECT_EQ(sent.status, 1);
        EXPECT_EQ(sent.out, "");
        EXPECT_TRUE(one_line_with(sent, {"no such output device"}));
    }
    const ProcessResult heard = orvel({"listen", "--json"}, on(machine));
    EXPECT_EQ(heard.status, 1);
    EXPECT_EQ(heard.out, "");
    EXPECT_TRUE(one_line_with(heard, {"no such input device"}));
    const ProcessResult table = orvel({"listen"}, on(machine));
    EXPECT_EQ(table.status, 1);
    EXPECT_TRUE(one_line_with(table, {"no such input device"}));
}

TEST_F(AirCommands, ADeviceThatIsNotThereIsWrongUsage) {
    const SoundlessMachine machine;
    for (const char* const device : {"0", "99", "-1", "radio"}) {
        EXPECT_TRUE(usage_error_with({"send", "carrier=0.1", std::string("--device=") + device},
                                     {"--device", "no output device", device}, on(machine)));
        EXPECT_TRUE(usage_error_with({"listen", "--json", std::string("--device=") + device},
                                     {"--device", "no input device", device}, on(machine)));
    }
}

TEST_F(AirCommands, WhatCannotBeSentIsWrongUsage) {
    const SoundlessMachine machine;
    const std::vector<std::pair<Arguments, Arguments>> wrong = {
        {{}, {"STEP"}},
        {{"opera"}, {"'opera': a step is NAME=VALUE"}},
        {{"carrier=0.01"}, {"carrier or pause duration out of range"}},
        {{"carrier=1", "--level", "2"}, {"level out of range"}},
        {{"carrier=1", "--at", "garbage"}, {"--at", "'garbage'"}},
        {{"carrier=1", "--at", "24:00"}, {"--at", "'24:00'"}},
        {{"carrier=1", "--at", "2026-02-30T12:00"}, {"--at", "'2026-02-30T12:00'"}},
        {{"carrier=1", "--at", "2020-01-01T00:00:00Z"}, {"--at", "2020-01-01T00:00:00Z has passed"}},
        {{"carrier=1", "--every", "garbage"}, {"--every", "'garbage'"}},
        {{"carrier=1", "--every", "0"}, {"--every", "'0'"}},
        {{"carrier=1", "--every", "-10m"}, {"--every", "'-10m'"}},
        {{"carrier=1", "--every", "nan"}, {"--every", "'nan'"}},
        {{"carrier=1", "--every", "1s"}, {"--every", "takes 1.0 s"}},
        {{"opera=K2QRX", "--every", "30s"}, {"--every", "takes 30.6 s"}},
        {{"carrier=1", "--offset", "10"}, {"--offset", "--every"}},
        {{"carrier=1", "--times", "2"}, {"--times", "--every"}},
        {{"carrier=1", "--at", "12:00", "--every", "10m"}, {"--at", "--every"}},
        {{"carrier=1", "--every", "10m", "--offset", "x"}, {"--offset", "'x'"}},
        {{"carrier=1", "--every", "10m", "--offset", "-1"}, {"--offset", "'-1'"}},
        {{"carrier=1", "--every", "10m", "--times", "0"}, {"--times"}},
        {{"carrier=1", "--every", "10m", "--times", "-1"}, {"--times"}},
        {{"carrier=1", "--every", "10m", "--times", "x"}, {"--times"}},
        {{"carrier=1", "--ptt", "vox"}, {"--ptt", "'vox' is not serial:PORT:rts"}},
        {{"carrier=1", "--ptt", ""}, {"--ptt"}},
        {{"carrier=1", "--ptt", "serial:/dev/null:cts"}, {"--ptt", "cts"}},
        {{"carrier=1", "--ptt", "rigctld:localhost:0"}, {"--ptt", "'0' is no port"}},
        {{"carrier=1", "--ptt-command", "true", "--ptt", "vox"}, {"--ptt", "--ptt-command"}},
    };
    for (const auto& [options, texts] : wrong) {
        Arguments all = {"send"};
        all.insert(all.end(), options.begin(), options.end());
        EXPECT_TRUE(usage_error_with(all, texts, on(machine))) << ::testing::PrintToString(options);
    }
}

}  // namespace
