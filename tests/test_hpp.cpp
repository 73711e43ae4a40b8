// The C++ face of the library: that each function reaches its C counterpart, what it throws, and that owners own.
#include "liborvel.hpp"
#include "pattern.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <new>
#include <numeric>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "siggen.h"

namespace {

// Whatever the machine has, this process finds one sound device, which does nothing.
class NullSoundDevice {
  public:
    NullSoundDevice() {
        std::ofstream(path_) << "pcm.default { type null hint { show on description \"Nothing\" } }\n";
        setenv("ALSA_CONFIG_PATH", path_.c_str(), 1);
        setenv("JACK_NO_START_SERVER", "1", 1);
        setenv("JACK_DEFAULT_SERVER", "none_for_tests", 1);
    }
    ~NullSoundDevice() { std::remove(path_.c_str()); }

  private:
    std::string path_ = testing::TempDir() + "orvel-null-device-" + std::to_string(getpid());
};
const NullSoundDevice NULL_SOUND_DEVICE;

constexpr int32_t RATE = 12000;

// What a call throws, "" for nothing.
template <class Call>
std::string error_of(const Call& call) {
    try {
        call();
    } catch (const ovl::Error& error) {
        return error.what();
    }
    return "";
}

// Two OPERA frames in noise, at 5 and 42 s.
const std::vector<float>& two_frames() {
    static const std::vector<float> samples = [] {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = 75;
        for (const auto& [call, start] : {std::pair("K1ABC", 5.0), std::pair("G4XYZ", 42.0)}) {
            scene.stations.push_back({.chips = opera_chips(call), .t_start = start, .snr_db = -10});
        }
        return to_float(render_real(scene));
    }();
    return samples;
}

std::vector<std::string> calls_of(const std::vector<ovl_result>& results) {
    std::vector<std::string> calls;
    std::transform(results.begin(), results.end(), std::back_inserter(calls),
                   [](const ovl_result& result) { return result.call; });
    return calls;
}

using Calls = std::vector<std::string>;

// A span of more elements than the C interface can count; it must never be read.
std::span<float> endless() {
    static float sample = 0;
    return {&sample, std::size_t{1} << 31};
}

TEST(CppHeader, HasAFaceForEveryFunctionOfTheCHeader) {
    const auto names_in = [](const char* path) {
        std::ifstream file(path);
        const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::set<std::string> names;
        for (const Match& match : all_matches(text, R"(\bovl_\w+\b)")) names.insert(match[0]);
        return names;
    };
    const std::set<std::string> used = names_in(ORVEL_CPP_HEADER);
    int32_t functions = 0;
    std::ifstream file(ORVEL_HEADER);
    for (std::string line; std::getline(file, line);) {
        const auto declaration = first_match(line, R"(^OVL_API .*?\b(ovl_\w+)\()");
        if (!declaration) continue;
        EXPECT_TRUE(used.contains(declaration->at(1))) << line;
        functions++;
    }
    EXPECT_GT(functions, 30);
}

TEST(CppLibrary, ReportsVersionsAndProtocols) {
    EXPECT_EQ(ovl::api_version(), ovl_api_version());
    EXPECT_EQ(ovl::version(), ovl_version());
    EXPECT_EQ(ovl::frame_chips(OVL_ORVEL_L), 321);
    EXPECT_EQ(ovl::frame_chips(3), 0);
    EXPECT_EQ(ovl::proto_name(OVL_ORVEL_S), "ORVEL S");
    EXPECT_EQ(ovl::proto_name(0), "");
    EXPECT_EQ(ovl::chip_seconds(), 0.128);
    EXPECT_EQ(ovl::audio_available(), ovl_audio_available() != 0);
}

TEST(CppEncode, GivesTheChipsOfTheCFunction) {
    std::vector<uint8_t> chips(321);
    ASSERT_EQ(ovl_encode(OVL_ORVEL_L, "K1ABC", "FN42", chips.data(), 321), 321);
    EXPECT_EQ(ovl::encode(OVL_ORVEL_L, "K1ABC", "FN42"), chips);
    EXPECT_EQ(ovl::encode(OVL_OPERA, "K1ABC"), opera_chips("K1ABC"));
}

TEST(CppEncode, ThrowsForWhatNoFrameCarries) {
    EXPECT_EQ(error_of([] { ovl::encode(OVL_OPERA, "K/1ABC"); }), "cannot encode K/1ABC");
    EXPECT_EQ(error_of([] { ovl::encode(OVL_ORVEL_L, "K1ABC", "AS00"); }), "cannot encode K1ABC AS00");
    EXPECT_EQ(error_of([] { ovl::encode(3, "K1ABC"); }), "cannot encode K1ABC");
    EXPECT_EQ(error_of([] { ovl::encode(OVL_OPERA, std::string("K1ABC\0X", 7)); }), "text with a NUL in it");
    EXPECT_EQ(error_of([] { ovl::encode(OVL_ORVEL_L, "K1ABC", std::string("FN42\0X", 6)); }), "text with a NUL in it");
}

TEST(CppDecoder, ReturnsWhatTheCFunctionReturns) {
    ovl::Decoder decoder;
    const std::vector<ovl_result> results = decoder.decode(two_frames(), RATE);
    EXPECT_EQ(calls_of(results), (Calls{"K1ABC", "G4XYZ"}));
    EXPECT_NEAR(results.at(1).t_start, 42, 0.01);
    EXPECT_EQ(decoder.last_error(), "");

    const ovl_settings settings = ovl::default_settings();
    std::vector<ovl_result> plain(64);
    const auto n = static_cast<int32_t>(two_frames().size());
    ASSERT_EQ(ovl_decode(decoder.get(), two_frames().data(), n, RATE, &settings, plain.data(), 64), 2);
    EXPECT_EQ(plain[0].freq_hz, results[0].freq_hz);
    EXPECT_EQ(plain[1].snr_db, results[1].snr_db);
}

TEST(CppDecoder, PassesTheSettingsOn) {
    ovl::Decoder decoder;
    ovl_settings settings = ovl::default_settings();
    settings.end_max = 50;
    EXPECT_EQ(calls_of(decoder.decode(two_frames(), RATE, settings)), Calls{"K1ABC"});
    settings = ovl::default_settings();
    settings.protocols = OVL_ORVEL_S;
    EXPECT_TRUE(decoder.decode(two_frames(), RATE, settings).empty());
    EXPECT_TRUE(decoder.decode_recent(two_frames(), RATE, 10, settings).empty());
}

TEST(CppDecoder, DecodesRecentFramesOnly) {
    ovl::Decoder decoder;
    EXPECT_EQ(calls_of(decoder.decode_recent(two_frames(), RATE, 10)), Calls{"G4XYZ"});
    EXPECT_EQ(calls_of(decoder.decode_recent(two_frames(), RATE, 70)), (Calls{"K1ABC", "G4XYZ"}));
}

TEST(CppDecoder, KnowsCallsigns) {
    ovl::Decoder decoder;
    EXPECT_EQ(decoder.set_known("K1ABC, G4XYZ;DL1QXA"), 3);
    EXPECT_EQ(decoder.set_known(""), 0);
    ovl_settings settings = ovl::default_settings();
    settings.known_only = 1;
    const std::string message = "known_only needs a list of known callsigns (ovl_set_known)";
    EXPECT_EQ(error_of([&] { decoder.decode(two_frames(), RATE, settings); }), message);
    EXPECT_EQ(decoder.last_error(), message);
    EXPECT_EQ(decoder.set_known("G4XYZ"), 1);
    EXPECT_EQ(calls_of(decoder.decode(two_frames(), RATE, settings)), Calls{"G4XYZ"});

    std::string many;
    for (int k = 0; k < 257; k++) many += "K1ABC ";
    EXPECT_EQ(error_of([&] { decoder.set_known(many); }), "too many known callsigns (max 256)");
    EXPECT_EQ(error_of([&] { decoder.set_known(std::string("K1ABC\0G4XYZ", 11)); }), "text with a NUL in it");
}

TEST(CppDecoder, SearchesCoherentlyWhenAskedTo) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = 40;
    std::vector<uint8_t> chips = ovl::encode(OVL_ORVEL_S, "K1ABC");
    scene.stations.push_back({.chips = std::move(chips), .t_start = 5, .snr_db = -27.5});
    const std::vector<float> weak = to_float(render_real(scene));
    ovl::Decoder decoder;
    ovl_settings settings = ovl::default_settings();
    settings.protocols = OVL_ORVEL_S;
    EXPECT_TRUE(decoder.decode(weak, RATE, settings).empty());
    EXPECT_TRUE(decoder.findings().empty());

    decoder.set_coherent();
    const std::vector<ovl_result> results = decoder.decode(weak, RATE, settings);
    ASSERT_EQ(calls_of(results), Calls{"K1ABC"});
    EXPECT_EQ(results[0].deep, OVL_COHERENT);
    const std::vector<ovl_finding> findings = decoder.findings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].method, OVL_COHERENT);
    EXPECT_GT(findings[0].odds, 0);

    decoder.clear_coherent();
    EXPECT_TRUE(decoder.decode(weak, RATE, settings).empty());
    ovl_coherent wrong = ovl::default_coherent();
    wrong.threads = 3;
    EXPECT_EQ(error_of([&] { decoder.set_coherent(wrong); }), "invalid argument");
}

TEST(CppDecoder, SaysHowItFoundWhatItFound) {
    ovl::Decoder decoder;
    decoder.decode(two_frames(), RATE);
    const std::vector<ovl_finding> findings = decoder.findings();
    ASSERT_EQ(findings.size(), 2u);
    for (const ovl_finding& finding : findings) {
        EXPECT_EQ(finding.method, OVL_STANDARD);
        EXPECT_TRUE(std::isnan(finding.odds));
    }
}

TEST(CppDecoder, ThrowsTheLibrarysMessages) {
    ovl::Decoder decoder;
    EXPECT_EQ(error_of([&] { decoder.decode({}, RATE); }), "invalid argument");
    EXPECT_EQ(error_of([&] { decoder.decode(two_frames(), 0); }), "invalid argument");
    EXPECT_EQ(error_of([&] { decoder.decode_recent(two_frames(), RATE, 0); }), "invalid argument");
    EXPECT_EQ(error_of([&] { decoder.decode(std::span(two_frames()).first(100), RATE); }),
              "block too short or invalid for decoding");
    EXPECT_EQ(error_of([&] { decoder.decode(endless(), RATE); }), "too many elements");
    EXPECT_EQ(error_of([&] { decoder.decode_recent(endless(), RATE, 1); }), "too many elements");
    EXPECT_EQ(calls_of(decoder.decode(two_frames(), RATE)), (Calls{"K1ABC", "G4XYZ"}));  // still of use
}

TEST(CppDecoder, MovesAndIsEmptyAfterwards) {
    ovl::Decoder first;
    EXPECT_EQ(first.set_known("K1ABC"), 1);
    const ovl_decoder* const object = first.get();
    ovl::Decoder second(std::move(first));
    EXPECT_EQ(second.get(), object);
    EXPECT_EQ(first.get(), nullptr);  // NOLINT(bugprone-use-after-move): the header promises it
    EXPECT_EQ(first.last_error(), "no decoder");
    EXPECT_EQ(error_of([&] { first.decode(two_frames(), RATE); }), "no decoder");
    EXPECT_EQ(error_of([&] { first.decode_recent(two_frames(), RATE, 1); }), "no decoder");
    EXPECT_EQ(error_of([&] { first.set_known("K1ABC"); }), "no decoder");
    EXPECT_EQ(error_of([&] { first.set_coherent(); }), "no decoder");
    EXPECT_EQ(error_of([&] { first.clear_coherent(); }), "no decoder");
    EXPECT_EQ(error_of([&] { first.findings(); }), "no decoder");

    first = ovl::Decoder();
    EXPECT_EQ(first.set_known("K1ABC"), 1);
    first = std::move(second);  // frees what it had
    EXPECT_EQ(first.get(), object);
}

TEST(CppKeyed, FindsWhatIsKeyed) {
    ovl_settings settings = ovl::default_settings();
    const std::vector<ov_hit> hits = ovl::keyed(two_frames(), RATE, settings, 30, 6);
    ASSERT_FALSE(hits.empty());
    EXPECT_NEAR(hits[0].freq_hz, 1500, 5);
    EXPECT_EQ(ovl::keyed(two_frames(), RATE, settings, 30, -1e9, 2).size(), 2);
    EXPECT_TRUE(ovl::keyed(two_frames(), RATE, settings, 30, 1e9).empty());

    const std::string refused = "invalid argument, or out of memory";
    EXPECT_EQ(error_of([&] { ovl::keyed({}, RATE, settings, 30, 6); }), refused);
    EXPECT_EQ(error_of([&] { ovl::keyed(two_frames(), RATE, settings, 2, 6); }), refused);
    EXPECT_EQ(error_of([&] { ovl::keyed(two_frames(), RATE, settings, 30, 6, 0); }), "room for no hits");
    EXPECT_EQ(error_of([&] { ovl::keyed(two_frames(), RATE, settings, 30, 6, -1); }), "room for no hits");
    EXPECT_EQ(error_of([&] { ovl::keyed(endless(), RATE, settings, 30, 6); }), "too many elements");
}

TEST(CppTransmitter, RendersWhatTheCFunctionRenders) {
    ovl_tx_settings settings = ovl::default_tx_settings();
    EXPECT_EQ(settings.sample_rate, 48000);
    settings.sample_rate = 8000;
    const std::vector<ovl_tx_step> steps = {ovl::tx_carrier(0.1), ovl::tx_pause(0.1, true),
                                            ovl::tx_frame(OVL_ORVEL_L, "K1ABC", "FN42")};
    ovl::Transmitter tx;
    tx.start(steps, settings);
    EXPECT_EQ(tx.last_error(), "");
    std::vector<float> samples(400000);
    const std::size_t length = tx.render(samples);
    EXPECT_EQ(length, static_cast<std::size_t>(std::llround(8000 * (0.2 + 321 * 0.128 + settings.ramp_s))));

    ovl_transmitter* plain = ovl_tx_create();
    ASSERT_EQ(ovl_tx_start(plain, &settings, steps.data(), 3), 0);
    std::vector<float> expected(samples.size());
    ovl_tx_render(plain, expected.data(), static_cast<int32_t>(expected.size()));
    ovl_tx_destroy(plain);
    EXPECT_EQ(samples, expected);
}

TEST(CppTransmitter, ReportsItsProgressAndStops) {
    ovl::Transmitter tx;
    EXPECT_EQ(tx.status().done, 1);
    tx.start(std::vector{ovl::tx_pause(1), ovl::tx_pause(1, true), ovl::tx_carrier(1)});
    EXPECT_EQ(tx.status().keyed, 0);
    std::vector<float> second(48000);
    EXPECT_EQ(tx.render(second), second.size());
    EXPECT_EQ(tx.status().step, 1);
    EXPECT_EQ(tx.status().keyed, 1);
    tx.stop();
    EXPECT_LT(tx.render(second), second.size());
    EXPECT_EQ(tx.status().done, 1);
    EXPECT_EQ(tx.render({}), 0);
}

TEST(CppTransmitter, SetsItsLevel) {
    ovl::Transmitter tx;
    tx.start(std::vector{ovl::tx_carrier(2)});
    std::vector<float> second(48000);
    tx.set_level(0.1);
    tx.render(second);
    EXPECT_NEAR(*std::max_element(second.begin() + 24000, second.end()), 0.1, 0.001);
    for (const double level : {0.0, 1.1, std::nan("")}) {
        EXPECT_EQ(error_of([&] { tx.set_level(level); }), "level out of range (0 < level <= 1)");
    }
}

TEST(CppTransmitter, ThrowsTheLibrarysMessages) {
    ovl::Transmitter tx;
    EXPECT_EQ(error_of([&] { tx.start({}); }), "empty sequence");
    EXPECT_EQ(tx.last_error(), "empty sequence");
    EXPECT_EQ(error_of([&] { tx.start(std::vector(65, ovl::tx_carrier(1))); }), "too many steps (max 64)");
    EXPECT_EQ(error_of([&] { tx.start(std::vector{ovl::tx_frame(3, "K1ABC")}); }), "unknown protocol in a frame step");
    EXPECT_EQ(error_of([&] { tx.start(std::vector{ovl::tx_carrier(0)}); }),
              "carrier or pause duration out of range (0.05-3600 s)");
    EXPECT_EQ(error_of([&] { tx.render(endless()); }), "too many elements");
}

TEST(CppTransmitter, StepsRefuseTextsThatWouldBeCut) {
    EXPECT_STREQ(ovl::tx_frame(OVL_OPERA, "ABCDEFGHIJKLMNO").call, "ABCDEFGHIJKLMNO");
    EXPECT_STREQ(ovl::tx_frame(OVL_OPERA, "", "ABCDEFG").locator, "ABCDEFG");
    const std::string refused = "text does not fit a step";
    EXPECT_EQ(error_of([] { ovl::tx_frame(OVL_OPERA, "ABCDEFGHIJKLMNOP"); }), refused);
    EXPECT_EQ(error_of([] { ovl::tx_frame(OVL_ORVEL_L, "K1ABC", "ABCDEFGH"); }), refused);
    EXPECT_EQ(error_of([] { ovl::tx_frame(OVL_OPERA, std::string_view("K1\0ABC", 6)); }), refused);
}

TEST(CppTransmitter, MovesWithWhatItHasPrepared) {
    ovl::Transmitter first;
    first.start(std::vector{ovl::tx_carrier(1)});
    ovl::Transmitter second(std::move(first));
    std::vector<float> samples(100, 7.0f);
    EXPECT_EQ(second.render(samples), 100);
    EXPECT_EQ(first.get(), nullptr);  // NOLINT(bugprone-use-after-move): the header promises it
    samples.assign(100, 7.0f);
    EXPECT_EQ(first.render(samples), 0);
    EXPECT_EQ(samples, std::vector<float>(100, 7.0f));
    EXPECT_EQ(first.status().done, 1);
    first.stop();
    EXPECT_EQ(error_of([&] { first.start(std::vector{ovl::tx_carrier(1)}); }), "no transmitter");
    EXPECT_EQ(first.last_error(), "no transmitter");
    first = std::move(second);
    EXPECT_EQ(first.render(samples), 100);
}

TEST(CppAudio, CapturesWhatTheHostPushes) {
    ovl::Audio audio;
    EXPECT_EQ(audio.input_stats().rate, 0);
    audio.start_input(OVL_AUDIO_NONE, 12000, 2);
    std::vector<float> pushed(2000);
    std::iota(pushed.begin(), pushed.end(), 0.0f);
    audio.push(pushed);
    EXPECT_EQ(audio.input_stats().rate, 12000);
    EXPECT_NEAR(audio.input_stats().captured_s, 2000.0 / 12000, 1e-9);
    std::vector<float> newest(500);
    EXPECT_EQ(audio.last(newest), 500);
    EXPECT_EQ(newest, std::vector<float>(pushed.end() - 500, pushed.end()));

    audio.push(std::vector<float>{1, 3, 5, 7}, 2);  // frames of two channels: their means
    EXPECT_EQ(audio.last(std::span(newest).first(2)), 2);
    EXPECT_EQ(newest[0], 2);
    EXPECT_EQ(newest[1], 6);
    audio.stop_input();
    EXPECT_EQ(audio.last(newest), 0);
}

TEST(CppAudio, RefusesPushesThatMakeNoSense) {
    ovl::Audio audio;
    const std::vector<float> samples(6);
    const std::string refused = "not capturing, or samples or channels out of range";
    EXPECT_EQ(error_of([&] { audio.push(samples); }), refused);
    audio.start_input(OVL_AUDIO_NONE, 12000, 1);
    for (const int32_t channels : {0, -1, 4}) {
        EXPECT_EQ(error_of([&] { audio.push(samples, channels); }), "samples are no whole number of frames");
    }
    EXPECT_EQ(error_of([&] { audio.push(std::vector<float>(17), 17); }), refused);
    EXPECT_EQ(error_of([&] { audio.push(endless()); }), "too many elements");
    EXPECT_EQ(error_of([&] { audio.last(endless()); }), "too many elements");
    EXPECT_EQ(audio.input_stats().captured_s, 0);
}

TEST(CppAudio, ThrowsTheLibrarysMessages) {
    ovl::Audio audio;
    EXPECT_EQ(error_of([&] { audio.start_input(OVL_AUDIO_NONE, 7999); }), "rate out of range (8000-384000 Hz)");
    EXPECT_EQ(audio.last_error(), "rate out of range (8000-384000 Hz)");
    EXPECT_THROW(audio.start_input(OVL_AUDIO_NONE, 12000, 1e9), std::bad_alloc);
    EXPECT_EQ(audio.last_error(), "out of memory");

    ovl::Transmitter tx;
    EXPECT_EQ(error_of([&] { audio.start_output(ovl::DEFAULT_DEVICE, tx); }), "no transmit sequence prepared");
    EXPECT_EQ(error_of([&] { audio.start_output_at(ovl::DEFAULT_DEVICE, tx, 1e9); }), "no transmit sequence prepared");
    EXPECT_FALSE(audio.output_active());
    EXPECT_EQ(audio.output_started(), 0);
    EXPECT_EQ(audio.output_latency(), 0);
    audio.stop_output();
}

TEST(CppAudio, ListsTheDevicesOfTheCFunctions) {
    const int32_t count = ovl::audio_device_count();
    EXPECT_EQ(count, 1);
    EXPECT_EQ(count, ovl_audio_device_count());
    for (int32_t k = 0; k < count; k++) {
        ovl_audio_device expected{};
        ASSERT_EQ(ovl_audio_device_info(k, &expected), 0);
        const ovl_audio_device device = ovl::audio_device_info(k);
        EXPECT_STREQ(device.name, expected.name);
        EXPECT_EQ(device.default_rate, expected.default_rate);
    }
    EXPECT_EQ(error_of([&] { ovl::audio_device_info(count); }), "no such device");
    EXPECT_EQ(error_of([&] { ovl::audio_device_info(-1); }), "no such device");
}

TEST(CppAudio, MovesWithWhatItCaptures) {
    ovl::Audio first;
    first.start_input(OVL_AUDIO_NONE, 12000, 1);
    first.push(std::vector<float>(1200, 0.25f));
    ovl::Audio second(std::move(first));
    std::vector<float> newest(1200);
    EXPECT_EQ(second.last(newest), 1200);
    EXPECT_EQ(first.get(), nullptr);  // NOLINT(bugprone-use-after-move): the header promises it
    EXPECT_EQ(first.last(newest), 0);
    EXPECT_EQ(first.input_stats().rate, 0);
    EXPECT_EQ(first.last_error(), "no audio");
    EXPECT_EQ(error_of([&] { first.start_input(OVL_AUDIO_NONE, 12000); }), "no audio");
    EXPECT_EQ(error_of([&] { first.push(newest); }), "no audio");
    first = std::move(second);
    EXPECT_EQ(first.input_stats().rate, 12000);
}

}  // namespace
