// Recordings as our programs read and decode them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/utc.h"
#include "command.h"
#include "json_value.h"
#include "process.h"
#include "recordings/decode_recording.h"
#include "recordings/open_recording.h"
#include "recordings/raw_recording.h"
#include "recordings/sigmf.h"
#include "recordings/sigmf_writer.h"
#include "recordings/tar.h"
#include "siggen.h"
#include "tcp_server.h"

namespace {

class Recordings : public TestWithFiles {
  protected:
    // Why a file cannot be opened.
    static std::string refusal(const std::string& file, const RecordingOptions& options = {}) {
        try {
            open_recording(file, options);
            return "it was opened";
        } catch (const IoError& error) {
            return error.what();
        }
    }

    // 16-bit audio at 8000 Hz with these stations in noise.
    std::string audio(const std::string& name, const std::vector<Station>& stations, double seconds) const {
        Scene scene;
        scene.rate = 8000;
        scene.seconds = seconds;
        scene.stations = stations;
        std::string samples;
        for (const double sample : render_real(scene))
            append(samples, static_cast<int16_t>(std::lround(20000 * sample)));
        return write(name, wave_file(1, 1, 8000, 16, samples));
    }
};

std::string content_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

Station opera(const std::string& call, double t_start, double freq_hz) {
    Station station;
    station.chips = opera_chips(call);
    station.t_start = t_start;
    station.freq_hz = freq_hz;
    station.snr_db = -5;
    return station;
}

TEST_F(Recordings, ThatCannotBeReadAreRefusedWithTheirNameAndTheReason) {
    const std::string second(8000, '\0');
    EXPECT_EQ(refusal(path("none.wav")), "cannot read '" + path("none.wav") + "': No such file or directory");
    EXPECT_EQ(refusal(path("")), "cannot read '" + path("") + "': it is a directory");
    const std::string odd = write("odd.wav", wave_file(30583, 1, 8000, 16, second));
    EXPECT_EQ(refusal(odd), "cannot read '" + odd + "': unsupported audio format 30583 (integer PCM required)");
    const std::string mono = write("mono.wav", wave_file(1, 1, 8000, 16, second));
    EXPECT_NE(refusal(mono, {true, 0}).find("'" + mono + "'"), std::string::npos);
    EXPECT_EQ(refusal(mono, {false, 2}), "cannot read '" + mono + "': it has 1 channel");
    EXPECT_EQ(refusal(mono), "it was opened");
}

// A reader that took hold of the process's standard error would keep what other threads print meanwhile.
TEST_F(Recordings, LeaveStandardErrorToOtherThreads) {
    const std::string odd = write("odd.wav", wave_file(30583, 1, 8000, 16, std::string(8000, '\0')));
    ::testing::internal::CaptureStderr();
    std::atomic<bool> end = false;
    int printed = 0;
    std::thread other([&] {
        for (; !end || printed < 100; printed++) std::fputs("mine\n", stderr);
    });
    for (int round = 0; round < 100; round++) EXPECT_NE(refusal(odd), "it was opened");
    end = true;
    other.join();
    std::string expected;
    for (int k = 0; k < printed; k++) expected += "mine\n";
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
}

TEST_F(Recordings, AreReadByTheStretch) {
    std::string samples;
    for (int16_t k = 0; k < 8000; k++) append(samples, k);
    const auto recording = open_recording(write("ramp.wav", wave_file(1, 1, 8000, 16, samples)), {});
    EXPECT_EQ(recording->rate(), 8000);
    EXPECT_EQ(recording->seconds(), 1);
    const Stretch stretch = recording->read(0.25, 0.5);
    EXPECT_EQ(stretch.begin_s, 0.25);
    ASSERT_EQ(stretch.x.size(), 4000u);
    EXPECT_EQ(stretch.x.front(), 2000 / 32768.0);
    EXPECT_EQ(stretch.x.back(), 5999 / 32768.0);
    EXPECT_TRUE(stretch.q.empty());
    EXPECT_EQ(recording->read(0.75, 9).x.size(), 2000u);
    EXPECT_TRUE(recording->read(2, 1).x.empty());
}

TEST_F(Recordings, AreReadIntoTheMemoryOfAnEarlierStretch) {
    std::string samples;
    for (int16_t k = 0; k < 8000; k++) append(samples, k);
    const auto audio = open_recording(write("ramp.wav", wave_file(1, 1, 8000, 16, samples)), {});
    const auto iq = open_recording(path("ramp.wav"), {.iq = true, .raw = SampleFormat{}, .raw_rate = 8000});
    const Stretch fresh = audio->read(0.5, 0.1);
    Stretch used = audio->read(0.5, 0.1, iq->read(0, 0.2));
    EXPECT_EQ(used.x, fresh.x);
    EXPECT_TRUE(used.q.empty());
    EXPECT_EQ(used.begin_s, 0.5);
    const double* const memory = used.x.data();
    EXPECT_EQ(audio->read(0.6, 0.05, std::move(used)).x.data(), memory);
}

// libsndfile refuses a chunk of samples before their format; the library's reader takes the next.
TEST_F(Recordings, OfTheLibrarysReadersAreFiniteToo) {
    std::string samples;
    for (int k = 0; k < 4000; k++) append(samples, k == 100 ? std::nanf("") : 0.25f);
    std::string file = wave_file(3, 2, 8000, 32, samples);
    file.insert(12, std::string("data\0\0\0\0", 8));
    const auto recording = open_recording(write("held.wav", file), {.iq = true});
    ::testing::internal::CaptureStderr();
    const Stretch stretch = recording->read(0, 1);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("count as silence"), std::string::npos);
    ASSERT_EQ(stretch.x.size(), 2000u);
    EXPECT_EQ(stretch.x[50], 0);
    EXPECT_EQ(stretch.q[50], 0.25);
}

// Blocks of 60 s that overlap by 50: every frame lies in several of them.
TEST_F(Recordings, GiveEachFrameOnceInOrderWhateverTheBlocks) {
    const std::string file =
        audio("three.wav", {opera("K2QRX", 2, 1400), opera("G4QZB", 40, 1500), opera("DL1QXA", 41, 1600)}, 76);
    for (const unsigned jobs : {1U, 2U}) {
        const auto recording = open_recording(file, {});
        std::vector<std::string> calls;
        std::vector<double> done_s;
        bool begun = false;
        SpotTaker taker;
        taker.begin = [&] { begun = calls.empty(); };
        taker.take = [&](const ov_spot& spot) { calls.emplace_back(spot.call); };
        taker.progress = [&](double s, std::size_t spots) {
            done_s.push_back(s);
            EXPECT_EQ(spots, calls.size());
        };
        taker.go_on = [] { return true; };
        decode_recording(*recording, {Search{}, 60.0, jobs}, 0, recording->seconds(), taker);
        EXPECT_EQ(calls, (std::vector<std::string>{"K2QRX", "G4QZB", "DL1QXA"}));
        EXPECT_TRUE(begun);
        ASSERT_GE(done_s.size(), 2u);
        EXPECT_EQ(done_s.back(), 76);
    }
}

// I/Q of which nothing can be read from 40 s on.
class Breaking : public Recording {
  public:
    Breaking() : Recording("breaking", iq(), RATE, 60 * RATE), samples_(render_iq(scene())) {}

  private:
    static constexpr int32_t RATE = 32000;
    static RecordingOptions iq() {
        RecordingOptions options;
        options.iq = true;
        return options;
    }
    static Scene scene() {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = 40;
        scene.stations = {opera("K2QRX", 2, 9000)};
        return scene;
    }
    void read_frames(int64_t first, int64_t count, Stretch& out) override {
        if (first + count > std::ssize(samples_.i)) throw IoError("the disk is gone");
        out.x.assign(samples_.i.begin() + first, samples_.i.begin() + first + count);
        out.q.assign(samples_.q.begin() + first, samples_.q.begin() + first + count);
    }
    IqSamples samples_;
};

TEST_F(Recordings, WhatAWideOneHeldBeforeItBrokeIsDecoded) {
    Breaking recording;
    std::vector<std::string> calls;
    SpotTaker taker;
    taker.begin = [] {};
    taker.take = [&](const ov_spot& spot) { calls.emplace_back(spot.call); };
    taker.progress = [](double, std::size_t) {};
    taker.go_on = [] { return true; };
    Search search;
    search.iq = search.wide = true;
    try {
        decode_recording(recording, {search, 0, 1}, 0, recording.seconds(), taker);
        FAIL() << "nothing was thrown";
    } catch (const IoError& error) {
        EXPECT_STREQ(error.what(), "the disk is gone");
    }
    EXPECT_EQ(calls, std::vector<std::string>{"K2QRX"});
}

TEST_F(Recordings, EndEarlyWhenTheTakerHasEnough) {
    const auto recording = open_recording(audio("one.wav", {opera("K2QRX", 2, 1400)}, 76), {});
    int blocks = 0;
    SpotTaker taker;
    taker.begin = [] {};
    taker.take = [](const ov_spot&) {};
    taker.progress = [&](double, std::size_t) { blocks++; };
    taker.go_on = [] { return false; };
    decode_recording(*recording, {Search{}, 60.0, 1}, 0, recording->seconds(), taker);
    EXPECT_EQ(blocks, 0);
}

TEST_F(Recordings, ThatAreTooShortAreAnError) {
    const auto recording = open_recording(write("short.wav", wave_file(1, 1, 8000, 8, std::string(800, '\x80'))), {});
    SpotTaker taker;
    taker.begin = [] { ADD_FAILURE() << "nothing was decoded"; };
    taker.take = [](const ov_spot&) {};
    taker.progress = [](double, std::size_t) {};
    taker.go_on = [] { return true; };
    try {
        decode_recording(*recording, {}, 0, recording->seconds(), taker);
        FAIL() << "nothing was thrown";
    } catch (const IoError& error) {
        EXPECT_EQ(error.what(),
                  "cannot decode '" + path("short.wav") + "': it is too short (0.100 s, a chip is 0.128 s)");
    }
}

TEST_F(Recordings, BlocksOfVeryFastSamplesMoveOn) {
    RecordingOptions options;
    options.raw = parse_sample_format("u8");
    options.raw_rate = 40'000'000;  // of which 37.5 s are a block
    std::filesystem::resize_file(write("fast.raw", ""), 2'000'000'000);
    EXPECT_EQ(count_blocks(*open_recording(path("fast.raw"), options), {}), 3u);
}

// ---- Bare samples ---------------------------------------------------------------------------------------------------

RecordingOptions at_rate(uint32_t rate) {
    RecordingOptions options;
    options.raw_rate = rate;
    return options;
}

TEST(RawFiles, AreKnownByTheirNames) {
    for (const auto& [name, format, iq] : {std::tuple{"x.cu8", "u8", true},
                                           {"x.cs8", "s8", true},
                                           {"a/b.CS16", "s16", true},
                                           {"x.cs32", "s32", true},
                                           {"x.cf32", "f32", true},
                                           {"x.cfile", "f32", true},
                                           {"x.cf64", "f64", true},
                                           {"x.cs16be", "s16be", true},
                                           {"x.u8", "u8", false},
                                           {"x.s16", "s16", false},
                                           {"x.f32", "f32", false}}) {
        const auto kind = raw_kind_of(name);
        ASSERT_TRUE(kind) << name;
        EXPECT_EQ(name_of(kind->format), format) << name;
        EXPECT_EQ(kind->iq, iq) << name;
    }
    for (const char* name : {"x.wav", "x", "cu8", "x.cu8.bak", "x.c", "x.raw", "x.cs16le2", ".", ""}) {
        EXPECT_FALSE(raw_kind_of(name)) << name;
    }
}

TEST_F(Recordings, OfBareSamplesAreReadByTheStretch) {
    std::string pairs;
    for (int16_t k = 0; k < 8000; k++) {
        append(pairs, k);
        append(pairs, static_cast<int16_t>(-k));
    }
    const auto recording = open_recording(write("x.cs16", pairs), at_rate(8000));
    EXPECT_TRUE(recording->iq());
    EXPECT_EQ(recording->seconds(), 1);
    const Stretch stretch = recording->read(0.25, 0.5);
    ASSERT_EQ(stretch.x.size(), 4000u);
    ASSERT_EQ(stretch.q.size(), 4000u);
    EXPECT_EQ(stretch.x.front(), 2000 / 32768.0);
    EXPECT_EQ(stretch.q.back(), -5999 / 32768.0);
    EXPECT_EQ(recording->read(0.75, 9).x.size(), 2000u);

    RecordingOptions real = at_rate(16000);
    real.raw = parse_sample_format("s16be");  // goes before the name
    const auto other = open_recording(write("y.f32", std::string("\x40\x00\xC0\x00", 4)), real);
    EXPECT_FALSE(other->iq());
    EXPECT_EQ(other->read(0, 1).x, (std::vector<double>{0.5, -0.5}));
}

TEST_F(Recordings, OfBareSamplesThatMakeNoSenseAreRefusedOrTold) {
    const std::string odd = write("odd.cs16", std::string(4003, '\1'));
    EXPECT_EQ(refusal(odd), "cannot read '" + odd + "': it holds bare samples, whose rate only --rate tells");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(open_recording(odd, at_rate(1000))->seconds(), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "orvel: '" + odd + "': 3 bytes at the end less than a sample of 4 are passed over\n");
    const std::string empty = write("empty.cu8", "");
    EXPECT_EQ(refusal(empty, at_rate(1000)), "cannot read '" + empty + "': it is empty");
    const std::string tiny = write("tiny.cf64", "1234");
    EXPECT_NE(refusal(tiny, at_rate(1000)).find("it holds no samples"), std::string::npos);
    const std::string unknown = write("x.iq", std::string(4000, '\1'));
    EXPECT_NE(refusal(unknown).find("bare samples are read with --raw FORMAT and --rate HZ, and I/Q with --iq"),
              std::string::npos)
        << refusal(unknown);
}

// ---- SigMF ----------------------------------------------------------------------------------------------------------

using Json = nlohmann::json;

// Metadata of I/Q of 16 bits at 1000 Hz.
Json metadata() {
    return Json::parse(R"({"global": {"core:datatype": "ci16_le", "core:sample_rate": 1000, "core:version": "1.2.5"},
        "captures": [{"core:sample_start": 0, "core:frequency": 137000,
                      "core:datetime": "2001-09-09T01:46:40.25Z"}],
        "annotations": []})");
}

// Pairs (k, -k) from k = first on.
std::string pairs(int first, int count) {
    std::string bytes;
    for (int k = first; k < first + count; k++) {
        append(bytes, static_cast<int16_t>(k));
        append(bytes, static_cast<int16_t>(-k));
    }
    return bytes;
}

class Sigmf : public Recordings {
  protected:
    std::string pair(const Json& meta, const std::string& data, const std::string& name = "x") const {
        write(name + ".sigmf-data", data);
        return write(name + ".sigmf-meta", meta.dump());
    }

    static std::string contents(const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    // What a pair is refused for.
    std::string refusal_of(const Json& meta, const std::string& data = std::string(4000, '\0')) const {
        const std::string text = refusal(pair(meta, data));
        const std::string head = "cannot read '" + path("x.sigmf-meta") + "': ";
        EXPECT_EQ(text.rfind(head, 0), 0u) << text;
        return text.substr(head.size());
    }
};

std::vector<double> ramp(int first, int count) {
    std::vector<double> values;
    for (int k = first; k < first + count; k++) values.push_back(k / 32768.0);
    return values;
}

TEST_F(Sigmf, KnowsItsNames) {
    for (const char* name : {"x.sigmf-meta", "a/x.SIGMF-DATA", "x.sigmf"}) {
        EXPECT_TRUE(is_sigmf(name)) << name;
        EXPECT_TRUE(sigmf_base(name).ends_with("x"));
    }
    for (const char* name : {".sigmf", "x.wav", "sigmf", "x.sigmf.gz"}) EXPECT_FALSE(is_sigmf(name)) << name;
}

TEST_F(Sigmf, GivesRateTimeAndTuningByEitherName) {
    pair(metadata(), pairs(0, 3000));
    for (const char* name : {"x.sigmf-meta", "x.sigmf-data"}) {
        const auto recording = open_recording(path(name), {});
        EXPECT_TRUE(recording->iq());
        EXPECT_EQ(recording->file_rate(), 1000u);
        EXPECT_EQ(recording->seconds(), 3);
        EXPECT_EQ(recording->utc_zero(0), 1e9 + 0.25);
        ASSERT_TRUE(recording->tuning(1));
        EXPECT_EQ(recording->tuning(1)->rf_hz(-12), 136988);
        EXPECT_EQ(recording->read(1, 1).x, ramp(1000, 1000));
    }
}

TEST_F(Sigmf, WhatTheUserSaysGoesBefore) {
    RecordingOptions options;
    options.start_utc = 5000;
    options.tuning.dial_hz = 7e6;
    options.tuning.sideband = Sideband::LOWER;
    Json meta = metadata();
    meta["captures"].push_back({{"core:sample_start", 1000}, {"core:datetime", "2001-09-09T01:47:00.25Z"}});
    const auto recording = open_recording(pair(meta, pairs(0, 3000)), options);
    EXPECT_EQ(recording->utc_zero(0.5), 5000);
    EXPECT_EQ(recording->utc_zero(1.5), 5019) << "the gap stays";
    EXPECT_EQ(recording->tuning(0)->rf_hz(100), 7e6 - 100);
}

TEST_F(Sigmf, TimesFollowTheCaptureAndWhatItDoesNotSayGoesOn) {
    Json meta = metadata();
    meta["captures"] = Json::parse(R"([
        {"core:sample_start": 500, "core:datetime": "2001-09-09T01:46:40Z", "core:frequency": 137000},
        {"core:sample_start": 1000, "core:frequency": 474200},
        {"core:sample_start": 2000, "core:datetime": "2001-09-09T01:47:40Z"}])");
    const auto recording = open_recording(pair(meta, pairs(0, 3000)), {});
    EXPECT_FALSE(recording->utc_zero(0.2));
    EXPECT_FALSE(recording->tuning(0.2));
    EXPECT_NEAR(*recording->utc_zero(0.6), 1e9 - 0.5, 1e-6);
    EXPECT_NEAR(*recording->utc_zero(1.5), 1e9 - 0.5, 1e-6);
    EXPECT_NEAR(*recording->utc_zero(2.5), 1e9 + 60 - 2, 1e-6);
    EXPECT_EQ(recording->tuning(0.7)->dial_hz, 137000);
    EXPECT_EQ(recording->tuning(2.9)->dial_hz, 474200);
    EXPECT_EQ(recording->read(0, 3).x, ramp(0, 3000));
}

TEST_F(Sigmf, PassesOverHeadersAndTrailersOfOtherFormats) {
    Json meta = metadata();
    meta["global"]["core:dataset"] = "x.bin";
    meta["global"]["core:trailing_bytes"] = 5;
    meta["global"]["core:offset"] = 100;
    meta["captures"] = Json::parse(R"([{"core:sample_start": 100, "core:header_bytes": 44},
                                       {"core:sample_start": 1100, "core:header_bytes": 3}])");
    const std::string file = pair(meta, "");
    write("x.bin", std::string(44, 'h') + pairs(0, 1000) + "xxx" + pairs(1000, 500) + "tail.");
    const auto recording = open_recording(file, {});
    EXPECT_EQ(recording->seconds(), 1.5);
    EXPECT_EQ(recording->read(0.9, 0.2).x, ramp(900, 200));
    EXPECT_EQ(recording->read(0, 9).x, ramp(0, 1500));
}

TEST_F(Sigmf, EveryDataTypeAndChannelIsRead) {
    const std::vector<std::pair<std::string, std::string>> samples = {
        {"u8", "\xC0"},
        {"i8", "\x40"},
        {"i16_be", std::string("\x40\0", 2)},
        {"i32_le", std::string("\0\0\0\x40", 4)},
        {"f32_be", std::string("\x3F\0\0\0", 4)},
        {"f64_le", std::string("\0\0\0\0\0\0\xE0\x3F", 8)},
        {"u16_le", std::string("\0\xC0", 2)},
        {"u32_be", std::string("\xC0\0\0\0", 4)}};
    for (const auto& [type, half] : samples) {
        const std::string zero(half.size(), '\0');
        Json meta = metadata();
        meta["global"]["core:datatype"] = "r" + type;
        meta["global"]["core:num_channels"] = 2;
        RecordingOptions second;
        second.channel = 2;
        const auto recording = open_recording(pair(meta, zero + half), second);
        EXPECT_FALSE(recording->iq());
        const std::vector<double> x = recording->read(0, 1).x;
        ASSERT_EQ(x.size(), 1u) << type;
        EXPECT_NEAR(x[0], 0.5, 0.01) << type;
        meta["global"]["core:datatype"] = "c" + type;
        meta["global"]["core:num_channels"] = 1;
        EXPECT_NEAR(open_recording(pair(meta, zero + half), {})->read(0, 1).q.at(0), 0.5, 0.01) << type;
    }
}

TEST_F(Sigmf, OfATarArchiveIsReadInPlace) {
    const std::string meta = metadata().dump();
    const auto padded = [](std::string text) { return text.append((512 - text.size() % 512) % 512, '\0'); };
    const std::string data = pairs(0, 3000);
    const std::string whole = tar_header("x/x.sigmf-meta", meta.size()) + padded(meta) +
                              tar_header("x/x.sigmf-data", data.size()) + padded(data) + std::string(1024, '\0');
    const auto recording = open_recording(write("y.sigmf", whole), {});
    EXPECT_EQ(recording->read(1, 1).x, ramp(1000, 1000));
    EXPECT_EQ(recording->tuning(0)->dial_hz, 137000);

    // As tar itself writes them, with a folder and names that need headers of their own.
    const std::string folder = std::string(60, 'n');
    const std::string name = folder + "/" + std::string(60, 'm');
    std::filesystem::create_directories(path("d/" + name));
    write("d/" + name + "/x.sigmf-meta", meta);
    write("d/" + name + "/x.sigmf-data", data);
    for (const char* kind : {"gnu", "pax", "ustar"}) {
        const std::string file = path(std::string(kind) + ".sigmf");
        const auto made = run_process({"/bin/tar", "-C", path("d"), "-H", kind, "-cf", file, folder});
        ASSERT_EQ(made.status, 0) << made.err;
        EXPECT_EQ(open_recording(file, {})->read(1, 1).x, ramp(1000, 1000)) << kind;
    }

    ::testing::internal::CaptureStderr();
    const auto cut = open_recording(write("cut.sigmf", whole.substr(0, 512 * 3 + 4002)), {});
    EXPECT_EQ(cut->seconds(), 1);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("ends before its header says"), std::string::npos);
    EXPECT_NE(refusal(write("no.sigmf", "nothing")).find("it is not a tar archive"), std::string::npos);
    EXPECT_NE(refusal(write("half.sigmf", whole.substr(0, 1024))).find("it holds no .sigmf-data"), std::string::npos);
    for (const std::size_t byte : {3U, 124U, 148U}) {  // the name, and numbers that are suddenly binary
        std::string wrong = whole;
        wrong[byte] = '\x80';
        EXPECT_NE(refusal(write("wrong.sigmf", wrong)).find("it is not a tar archive"), std::string::npos);
    }
}

TEST_F(Sigmf, MetadataThatLiesIsRefusedWithAReason) {
    const auto with = [](const char* where, const char* name, const Json& value) {
        Json meta = metadata();
        (std::string(where) == "global" ? meta["global"] : meta["captures"][0])[name] = value;
        return meta;
    };
    EXPECT_EQ(refusal_of(Json::array()), "its metadata is not a JSON object");
    EXPECT_EQ(refusal_of({{"global", 7}}), "its metadata has no global object");
    EXPECT_EQ(refusal_of(with("global", "core:datatype", "ci17_le")), "its core:datatype is 'ci17_le', which is none");
    EXPECT_EQ(refusal_of(with("global", "core:datatype", 16)), "its core:datatype is '', which is none");
    EXPECT_EQ(refusal_of(with("global", "core:sample_rate", "1000")), "its core:sample_rate is not a number above 0");
    EXPECT_EQ(refusal_of(with("global", "core:sample_rate", 0)), "its core:sample_rate is not a number above 0");
    EXPECT_EQ(refusal_of(with("global", "core:sample_rate", 1e300)), "its core:sample_rate of 1e+300 Hz is not served");
    EXPECT_EQ(refusal_of(with("global", "core:num_channels", 1e9)), "its core:num_channels is not from 1 to 1024");
    EXPECT_EQ(refusal_of(with("global", "core:offset", -1)),
              "in its metadata core:offset is not a whole number from 0 to 2^53");
    EXPECT_EQ(refusal_of(with("global", "core:trailing_bytes", 1e15)), "its metadata is for more data than there is");
    EXPECT_EQ(refusal_of(with("global", "core:dataset", "../x.bin")),
              "its core:dataset is not the name of a file beside it");
    EXPECT_EQ(refusal_of(with("global", "core:metadata_only", true)), "it is metadata only, without samples");
    EXPECT_EQ(refusal_of(with("captures", "core:sample_start", 1e40)),
              "in its metadata core:sample_start is not a whole number from 0 to 2^53");
    EXPECT_EQ(refusal_of(with("captures", "core:header_bytes", "x")),
              "in its metadata core:header_bytes is not a whole number from 0 to 2^53");
    Json meta = metadata();
    meta["captures"] = {1, 2};
    EXPECT_EQ(refusal_of(meta), "in its metadata captures is not an array of objects");
    meta["captures"] = Json::parse(R"([{"core:sample_start": 500}, {"core:sample_start": 400}])");
    EXPECT_EQ(refusal_of(meta), "its captures are not in order");
    meta["captures"] = Json::parse(R"([{}])");
    EXPECT_EQ(refusal_of(meta), "a capture has no core:sample_start");
    EXPECT_EQ(refusal_of(metadata(), ""), "it holds no samples");

    pair(metadata(), "");
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_NE(refusal(write("x.sigmf-meta", "{\"global\":" + deep + "}")).find("nested too deeply"), std::string::npos);
    EXPECT_NE(refusal(write("x.sigmf-meta", "{\"global\":")).find("is not a JSON object"), std::string::npos);
    std::filesystem::remove(path("x.sigmf-data"));
    write("x.sigmf-meta", metadata().dump());
    EXPECT_EQ(refusal(path("x.sigmf-meta")), "cannot read '" + path("x.sigmf-data") + "': No such file or directory");
}

TEST_F(Sigmf, WhatCanBePassedOverIsALine) {
    Json meta = metadata();
    meta["captures"][0]["core:datetime"] = "yesterday";
    meta["captures"][0]["core:frequency"] = "137 kHz";
    meta["captures"].push_back({{"core:sample_start", 100000}});
    const std::string file = pair(meta, pairs(0, 1000) + "x");
    ::testing::internal::CaptureStderr();
    const auto recording = open_recording(file, {});
    EXPECT_FALSE(recording->utc_zero(0));
    EXPECT_FALSE(recording->tuning(0));
    EXPECT_EQ(recording->seconds(), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "orvel: '" + file + "': a core:datetime is not a UTC time; it is passed over\n" + "orvel: '" + file +
                  "': a core:frequency is not one; it is passed over\n" + "orvel: '" + file +
                  "' ends before its metadata says\n");
}

TEST_F(Sigmf, IsReadAsItWasWritten) {
    for (const bool iq : {false, true}) {
        for (const bool s16 : {false, true}) {
            SigmfWriter writer(path("w.sigmf-data"), {1000, iq, s16}, {0, 1e9, Tuning{136000, Sideband::LOWER}});
            const std::vector<float> samples = {0.5F, -0.25F, 0.125F, 0};
            ASSERT_TRUE(writer.write(samples));
            ASSERT_TRUE(writer.begin_take(1e9 + 60, Tuning{474200, Sideband::UPPER}));
            ASSERT_TRUE(writer.write(samples));
            ASSERT_TRUE(writer.flush());
            const auto before = open_recording(path("w.sigmf-meta"), {});  // as after a crash
            writer.annotate({4, 2, 1, 2, "K2QRX", "x"});
            writer.close();
            const auto after = open_recording(path("w.sigmf-data"), {});
            for (const auto& recording : {&before, &after}) {
                const double half_s = (*recording)->seconds() / 2;
                EXPECT_EQ((*recording)->iq(), iq);
                EXPECT_EQ((*recording)->seconds(), iq ? 0.004 : 0.008);
                EXPECT_NEAR(*(*recording)->utc_zero(half_s + 0.0001), 1e9 + 60 - half_s, 1e-6);
                EXPECT_EQ((*recording)->tuning(0)->rf_hz(1500), 134500);
                EXPECT_EQ((*recording)->tuning(0.007)->rf_hz(1500), 475700);
                const Stretch all = (*recording)->read(0, 1);
                EXPECT_EQ(all.x.at(0), 0.5);
                EXPECT_EQ(iq ? all.q.at(1) : all.x.at(5), iq ? 0 : -0.25);
            }
            EXPECT_EQ(Json::parse(contents(path("w.sigmf-meta")))["annotations"][0]["core:label"], "K2QRX");
        }
    }
}

TEST_F(Sigmf, ThatCannotBeWrittenIsOneErrorWhenItIsClosed) {
    for (const std::string& file : {path("no/x.sigmf-data"), path("no/x.sigmf")}) {
        std::unique_ptr<SampleWriter> writer;
        const SigmfWriter::Format format = {1000, true, true};
        if (file.ends_with(".sigmf")) {
            writer = std::make_unique<SigmfArchiveWriter>(file, format, Take{}, 1);
        } else {
            writer = std::make_unique<SigmfWriter>(file, format, Take{});
        }
        EXPECT_FALSE(writer->write(std::array{0.0F, 0.0F}));
        try {
            writer->close();
            FAIL() << "nothing was thrown";
        } catch (const IoError& error) {
            EXPECT_EQ(error.what(), "cannot write '" + file + "': No such file or directory");
        }
    }
}

// An archive that tar itself takes apart.
TEST_F(Sigmf, ArchivesAreTar) {
    SigmfArchiveWriter writer(path("a.sigmf"), {1000, true, true}, {0, 1e9, Tuning{137000}}, 700);
    for (int k = 0; k < 7; k++) ASSERT_TRUE(writer.write(std::vector<float>(200, 0.5F)));
    writer.close();
    const auto listed = run_process({"/bin/tar", "-tf", path("a.sigmf")});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "a/a.sigmf-meta\na/a.sigmf-data\n");
    EXPECT_EQ(run_process({"/bin/tar", "-C", path(""), "-xf", path("a.sigmf")}).status, 0);
    for (const std::string& file : {path("a.sigmf"), path("a/a.sigmf-meta")}) {
        const auto recording = open_recording(file, {});
        EXPECT_EQ(recording->seconds(), 0.7);
        EXPECT_EQ(recording->read(0, 1).q, std::vector<double>(700, 0.5));
    }
}

TEST_F(Sigmf, AnnotationsAreAddedInOrderAndTheRestStays) {
    Json meta = metadata();
    meta["global"]["core:offset"] = 1000;
    meta["global"]["other:field"] = {1, 2.5, "x"};
    meta["captures"][0]["core:sample_start"] = 1000;
    meta["annotations"] = Json::parse(R"([{"core:sample_start": 1500, "core:label": "old"}])");
    Spot spot{};
    spot.start = -2;
    spot.end = 28.592;
    spot.freq_hz = 20;
    spot.rf_hz = 137020;
    spot.snr_db = -18.25;
    spot.protocol = OVL_OPERA;
    spot.call = "K2QRX";
    Spot later = spot;
    later.start = 5;
    later.end = 6;
    const auto annotated =
        Json::parse(sigmf_annotated(meta.dump(), {annotation_of(later, 1000, 1000), annotation_of(spot, 1000, 1000)}));
    EXPECT_EQ(annotated["global"], meta["global"]);
    EXPECT_EQ(annotated["captures"], meta["captures"]);
    ASSERT_EQ(annotated["annotations"].size(), 3u);
    const Json& frame = annotated["annotations"][0];
    EXPECT_EQ(frame["core:sample_start"], 1000);
    EXPECT_EQ(frame["core:sample_count"], 28592);
    EXPECT_EQ(frame["core:freq_lower_edge"], 137010);
    EXPECT_EQ(frame["core:freq_upper_edge"], 137030);
    EXPECT_EQ(frame["core:label"], "K2QRX");
    EXPECT_EQ(frame["core:comment"], "OPERA 05, -18.2 dB in 2500 Hz, 137020.000 Hz, +0.0000 Hz/s");
    EXPECT_EQ(annotated["annotations"][1], meta["annotations"][0]);
    EXPECT_EQ(annotated["annotations"][2]["core:sample_start"], 6000);
}

// ---- Pipes ----------------------------------------------------------------------------------------------------------

class Pipes : public Recordings {
  protected:
    // The command with a file's bytes from `skip` on coming through a pipe.
    static ProcessResult piped(const std::string& file, const std::string& words, int skip = 0) {
        return run_process({"/bin/sh", "-c",
                            "tail -c +" + std::to_string(skip + 1) + " '" + file + "' | '" ORVEL_COMMAND "' " + words});
    }
};

// Blocks of 60 s that overlap by 50: every frame lies in several of them.
TEST_F(Pipes, GiveTheSpotsOfTheFile) {
    const std::vector<Station> stations = {opera("K2QRX", 2, 1400), opera("G4QZB", 40, 1500),
                                           opera("DL1QXA", 60, 1600)};
    for (const double seconds : {74.0, 76.0, 92.5}) {
        const std::string file = audio("x.wav", stations, seconds);
        std::string expected = orvel({"decode", "--json", "--block", "60", "--protocols=opera", file}).out;
        for (std::size_t at = 0; (at = expected.find(file)) != std::string::npos;)
            expected.replace(at, file.size(), "-");
        EXPECT_NE(expected, "");
        const std::string decode = "decode --json --block 60 --protocols=opera - ";
        EXPECT_EQ(piped(file, decode).out, expected) << seconds;
        EXPECT_EQ(piped(file, decode + "--raw s16 --rate 8000", 44).out, expected) << seconds;
    }
}

// What is wide is worked through second by second.
TEST_F(Pipes, GiveTheSpotsOfAWideBand) {
    const std::string file = path("y.sigmf-data");
    const auto made = orvel({"simulate", "-o", file, "--iq", "--rate", "32000", "--seconds", "44.3",
                             "opera=K2QRX,freq=-14000,snr=-10,start=2", "opera=G4QZB,freq=9000,snr=-12,start=11"});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::string words = "--json --iq --wide --protocols=opera --raw s16 --rate 32000 ";
    const std::string expected = piped(file, "decode " + words + "-").out;
    EXPECT_NE(expected.find("K2QRX"), std::string::npos) << expected;
    EXPECT_NE(expected.find("G4QZB"), std::string::npos) << expected;
    std::string of_file = run_process({"/bin/sh", "-c", "'" ORVEL_COMMAND "' decode " + words + "'" + file + "'"}).out;
    for (std::size_t at = 0; (at = of_file.find(file)) != std::string::npos;) of_file.replace(at, file.size(), "-");
    EXPECT_EQ(expected, of_file);
    EXPECT_EQ(piped(write("none", ""), "decode " + words + "-").err,
              "orvel: cannot decode '-': it is too short (0.000 s, a chip is 0.128 s)\n");
}

TEST_F(Pipes, OfANameAreWaitedFor) {
    const std::string pipe = path("x.cs16");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(
        orvel({"simulate", "-o", path("y.sigmf-data"), "--iq", "--rate", "1000", "opera=K2QRX,freq=100,snr=0"}).status,
        0);
    const auto result =
        run_process({"/bin/sh", "-c",
                     "cat '" + path("y.sigmf-data") + "' >'" + pipe + "' & '" ORVEL_COMMAND "' decode --json '" + pipe +
                         "' --rate 1000 --dial 137000"});
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("\"rf_hz\":137099.9"), std::string::npos) << result.out;
}

TEST_F(Pipes, AreScannedAndDrawnAsTheFileIs) {
    const std::string file = audio("x.wav", {opera("K2QRX", 2, 1400)}, 76);
    const auto renamed = [&](std::string text) {
        for (std::size_t at = 0; (at = text.find(file)) != std::string::npos;) text.replace(at, file.size(), "-");
        return text;
    };
    const std::string hits = orvel({"scan", "--json", "--block=30", file}).out;
    EXPECT_NE(hits, "");
    EXPECT_EQ(piped(file, "scan --json --block=30 -").out, renamed(hits));
    const Arguments drawing = {"--protocols=opera", "--width=400", "--height=300", "--title=x"};
    Arguments plot = {"plot", file, "-o", path("file.svg")};
    plot.insert(plot.end(), drawing.begin(), drawing.end());
    EXPECT_EQ(orvel(plot).status, 0);
    const auto piped_plot =
        piped(file, "plot - --protocols=opera --width=400 --height=300 --title=x -o " + path("pipe.svg"));
    EXPECT_EQ(piped_plot.err, "");
    EXPECT_EQ(content_of(path("pipe.svg")), content_of(path("file.svg")));
}

TEST_F(Pipes, AreTakenForAsLongAsIsSaid) {
    const std::string file = audio("x.wav", {opera("K2QRX", 2, 1400), opera("G4QZB", 40, 1500)}, 76);
    const std::string spots = piped(file, "decode --json --protocols=opera --for 38s -").out;
    EXPECT_NE(spots.find("K2QRX"), std::string::npos);
    EXPECT_EQ(spots.find("G4QZB"), std::string::npos);
    const std::string hits = piped(file, "scan --json --for 38 --block=60 -").out;
    EXPECT_NE(hits.find("\"t_to\":38.0"), std::string::npos) << hits;
    EXPECT_EQ(orvel({"decode", "--for=38s", file}).err,
              "orvel: --for: is for what comes live or through a pipe, '" + file + "' does not\n");
}

// ---- Live sources ---------------------------------------------------------------------------------------------------

class LiveSources : public Recordings {
  protected:
    // A receiver at 8 kHz that sends these bytes to the first who calls, and then stands still.
    static TcpServer server_of(const std::string& bytes) {
        return TcpServer([=](TcpServer::Connection& connection, int32_t) {
            connection.send(std::vector<uint8_t>(bytes.begin(), bytes.end()));
            connection.pause(60);
        });
    }
    static std::string address_of(const TcpServer& server) {
        return "rtl_tcp://" + server.address() + "?freq=137k&rate=8000";
    }
    // 8-bit I/Q of one frame at 100 Hz, from 2 s on.
    std::string iq_of(double seconds) const {
        EXPECT_EQ(orvel({"simulate", "-o", path("live.sigmf-data"), "--iq", "--rate=8000", "--format=float",
                         "opera=K2QRX,freq=100,snr=0,start=2", "--seconds", std::to_string(seconds)})
                      .status,
                  0);
        const std::string floats = content_of(path("live.sigmf-data"));
        std::string bytes;
        for (std::size_t at = 0; at < floats.size(); at += sizeof(float)) {
            float x = 0;
            std::memcpy(&x, floats.data() + at, sizeof x);
            bytes.push_back(static_cast<char>(std::lround(127.5F + 127.5F * x)));
        }
        return bytes;
    }
};

TEST_F(LiveSources, AreDecodedScannedAndDrawnWithTheirTimeAndFrequency) {
    const std::string bytes = iq_of(40);
    const TcpServer server = server_of(bytes);
    const double before = utc_now();
    const auto decoded = orvel({"decode", "--json", "--protocols=opera", "--for=40s", address_of(server)});
    EXPECT_EQ(decoded.err, "");
    const auto lines = lines_of(decoded.out);
    ASSERT_EQ(lines.size(), 1u) << decoded.out;
    const JsonValue spot = JsonValue::parse(lines[0]);
    EXPECT_EQ(spot.at("call"), "K2QRX");
    EXPECT_NEAR(spot.at("rf_hz").number(), 137100, 0.5);
    // All comes at once, and the last of it just now.
    EXPECT_NEAR(*parse_utc(spot.at("utc_start").text(), 0), before - 38, 2);

    const TcpServer second = server_of(bytes);
    const auto scanned = orvel({"scan", "--json", "--for=40", address_of(second)});
    ASSERT_FALSE(lines_of(scanned.out).empty()) << scanned.err;
    EXPECT_NEAR(JsonValue::parse(lines_of(scanned.out)[0]).at("rf_hz").number(), 137100, 5);
    const TcpServer third = server_of(bytes);
    EXPECT_EQ(orvel({"plot", "--for=40s", address_of(third), "-o", path("live.svg")}).err, "");
    const std::string picture = content_of(path("live.svg"));
    EXPECT_NE(picture.find("UTC"), std::string::npos);
}

// It hangs up in the middle of the frame and comes back with what it would have sent by then.
TEST_F(LiveSources, AreSilentWhereSomethingWasLost) {
    const std::string bytes = iq_of(40);
    constexpr std::size_t BYTES_A_SECOND = 2 * 8000;
    double left_at = 0;
    const TcpServer server([&](TcpServer::Connection& connection, int32_t which) {
        const auto send = [&](std::size_t begin, std::size_t end) {
            connection.send(std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                                                 bytes.begin() + static_cast<std::ptrdiff_t>(end)));
        };
        if (which == 0) {
            send(0, 16 * BYTES_A_SECOND);
            connection.pause(0.5);  // in which all of that is received
            send(16 * BYTES_A_SECOND, 17 * BYTES_A_SECOND);
            left_at = monotonic_now();
        } else {
            const auto missed = static_cast<std::size_t>(std::llround((monotonic_now() - left_at) * 8000));
            send(std::min(17 * BYTES_A_SECOND + 2 * missed, bytes.size()), bytes.size());
            connection.pause(60);
        }
    });
    const auto decoded = orvel({"decode", "--json", "--protocols=opera", "--for=39s", address_of(server)});
    ASSERT_EQ(lines_of(decoded.out).size(), 1u) << decoded.err;
    EXPECT_EQ(JsonValue::parse(decoded.out).at("call"), "K2QRX");
}

// The source owes a second, and stays silent.
TEST_F(LiveSources, AreWaitedForNoLongerThanAsked) {
    const std::string bytes = iq_of(2);
    const TcpServer server([&](TcpServer::Connection& connection, int32_t) {
        connection.send(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        connection.pause(60);
    });
    RunningProcess process(orvel_arguments({"scan", "--for=3s", address_of(server)}));
    const auto result = process.wait(20);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
}

TEST_F(LiveSources, EndWithCtrlC) {
    const TcpServer server = server_of(iq_of(40));
    RunningProcess process(orvel_arguments({"decode", "--json", "--protocols=opera", address_of(server)}));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    process.send_signal(SIGINT);
    const auto line = process.read_line(20);
    ASSERT_TRUE(line);
    EXPECT_EQ(JsonValue::parse(*line).at("call"), "K2QRX");
    const auto result = process.wait(10);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0) << result->err;
}

TEST_F(LiveSources, ThatBringNothingAreRefused) {
    const TcpServer server = server_of("");
    RunningProcess process(orvel_arguments({"scan", address_of(server)}));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    process.send_signal(SIGINT);
    const auto result = process.wait(10);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 1);
    EXPECT_EQ(result->err, "orvel: cannot read '" + address_of(server) + "': no samples came\n");
    EXPECT_EQ(orvel({"decode", "rtl_tcp://"}).status, 2);
}

// ---- And what makes no sense ----------------------------------------------------------------------------------------

TEST_F(Pipes, ThatMakeNoSenseAreRefused) {
    const std::string junk = write("junk", std::string(1000, 'x'));
    EXPECT_EQ(piped(junk, "decode -").err,
              "orvel: cannot read '-': it is not a recording that can be read from a pipe; bare samples need --raw "
              "FORMAT and --rate HZ\n");
    EXPECT_EQ(piped(junk, "decode - --raw s16").err,
              "orvel: cannot read '-': it holds bare samples, whose rate only --rate tells\n");
    EXPECT_EQ(piped(junk, "decode - --raw s16 --rate 8000", 999).err,
              "orvel: '-': 1 byte at the end, less than a sample, passed over\n"
              "orvel: cannot decode '-': it is too short (0.000 s, a chip is 0.128 s)\n");
}

}  // namespace
