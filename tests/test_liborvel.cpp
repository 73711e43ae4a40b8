// The public interface: what every function promises, seen through its header.
#include "liborvel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ovpipe.h"
#include "siggen.h"

namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr int32_t RATE = 4000;  // enough for the default search band, and quick

const std::string TOO_SHORT = "block too short or invalid for decoding";
const std::string NEEDS_LIST = "known_only needs a list of known callsigns (ovl_set_known)";
const std::string TOO_MANY = "too many known callsigns (max 256)";

struct Destroy {
    void operator()(ovl_decoder* decoder) const { ovl_destroy(decoder); }
};
using Decoder = std::unique_ptr<ovl_decoder, Destroy>;

Decoder new_decoder() {
    return Decoder(ovl_create());
}

ovl_settings defaults() {
    ovl_settings settings;
    ovl_settings_default(&settings);
    return settings;
}

// OPERA alone in a narrow band, without the search for known callsigns: the quickest decode.
ovl_settings opera_only() {
    ovl_settings settings = defaults();
    settings.protocols = OVL_OPERA;
    settings.search_hz = 18;
    settings.deep_search = 0;
    return settings;
}

std::string error(const Decoder& decoder) {
    return ovl_last_error(decoder.get());
}

// Result records that no decode has written.
std::vector<ovl_result> marked_results(std::size_t count) {
    std::vector<ovl_result> results(count);
    for (ovl_result& result : results) std::memset(&result, 0x5a, sizeof result);
    return results;
}

bool is_marked(const ovl_result& result) {
    const ovl_result marked = marked_results(1)[0];
    return std::memcmp(&result, &marked, sizeof result) == 0;
}

int32_t size_of(const std::vector<float>& samples) {
    return static_cast<int32_t>(samples.size());
}

struct Decoded {
    int32_t count;
    std::vector<ovl_result> results;
    std::string message;
};

// What a call with room for max_results records gave; records past the count and after a failure stay untouched.
Decoded collect(const Decoder& decoder, int32_t count, std::vector<ovl_result> results) {
    EXPECT_GE(count, -1);
    EXPECT_LE(count, static_cast<int32_t>(results.size()));
    const auto written = static_cast<std::size_t>(std::max(count, 0));
    for (std::size_t k = written; k < results.size(); ++k) EXPECT_TRUE(is_marked(results[k])) << "record " << k;
    results.resize(written);
    EXPECT_EQ(count < 0, !error(decoder).empty()) << error(decoder);
    return {count, results, error(decoder)};
}

Decoded decode(const Decoder& decoder, const std::vector<float>& samples, const ovl_settings& settings,
               int32_t rate = RATE, int32_t max_results = 64) {
    std::vector<ovl_result> results = marked_results(static_cast<std::size_t>(max_results));
    const int32_t count =
        ovl_decode(decoder.get(), samples.data(), size_of(samples), rate, &settings, results.data(), max_results);
    return collect(decoder, count, results);
}

Decoded decode_recent(const Decoder& decoder, const std::vector<float>& samples, const ovl_settings& settings,
                      double recent_s) {
    std::vector<ovl_result> results = marked_results(64);
    const int32_t count = ovl_decode_recent(decoder.get(), samples.data(), size_of(samples), RATE, &settings, recent_s,
                                            results.data(), 64);
    return collect(decoder, count, results);
}

std::vector<std::string> calls(const Decoded& decoded) {
    std::vector<std::string> texts;
    for (const ovl_result& result : decoded.results) texts.emplace_back(result.call);
    return texts;
}

using Calls = std::vector<std::string>;

Station station(const std::string& call, double t_start, double freq_hz, double snr_db = -15) {
    Station made;
    made.chips = opera_chips(call);
    made.t_start = t_start;
    made.freq_hz = freq_hz;
    made.snr_db = snr_db;
    return made;
}

std::vector<float> block(double seconds, const std::vector<Station>& stations, uint64_t seed = 1) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = seconds;
    scene.seed = seed;
    scene.stations = stations;
    return to_float(render_real(scene));
}

// Two stations, 6 s apart, that end within 40 s.
const std::vector<float>& two_stations() {
    static const std::vector<float> samples = block(40, {station("K1AB", 8, 1485), station("AA2BCD", 2, 1515)});
    return samples;
}

const std::vector<float>& noise_of_20_s() {
    static const std::vector<float> samples = block(20, {});
    return samples;
}

// ---- Library and protocol table ------------------------------------------------------------------------------------

TEST(Library, ReportsItsVersions) {
    EXPECT_EQ(ovl_api_version(), 5);
    EXPECT_STREQ(ovl_version(), "1.6.1");
}

TEST(Library, KnowsThreeProtocols) {
    EXPECT_EQ(OVL_OPERA, 1);
    EXPECT_EQ(OVL_ORVEL_S, 2);
    EXPECT_EQ(OVL_ORVEL_L, 4);
    EXPECT_STREQ(ovl_proto_name(OVL_OPERA), "OPERA 05");
    EXPECT_STREQ(ovl_proto_name(OVL_ORVEL_S), "ORVEL S");
    EXPECT_STREQ(ovl_proto_name(OVL_ORVEL_L), "ORVEL L");
    EXPECT_EQ(ovl_frame_chips(OVL_OPERA), 239);
    EXPECT_EQ(ovl_frame_chips(OVL_ORVEL_S), 239);
    EXPECT_EQ(ovl_frame_chips(OVL_ORVEL_L), 321);
    EXPECT_EQ(ovl_chip_seconds(), 0.128);
}

TEST(Library, AnythingElseIsNoProtocol) {
    for (const uint32_t id : {0U, 3U, 5U, 6U, 7U, 8U, 9U, 16U, 256U, 0x80000001U, 0xffffffffU}) {
        EXPECT_STREQ(ovl_proto_name(id), "") << id;
        EXPECT_EQ(ovl_frame_chips(id), 0) << id;
    }
}

// ---- Settings ------------------------------------------------------------------------------------------------------

TEST(Settings, Defaults) {
    ovl_settings settings;
    std::memset(&settings, 0x5a, sizeof settings);
    ovl_settings_default(&settings);
    EXPECT_EQ(settings.protocols, 7);
    EXPECT_EQ(settings.center_hz, 1500.0);
    EXPECT_EQ(settings.search_hz, 200.0);
    EXPECT_EQ(settings.spread_hz, 0.0);
    EXPECT_EQ(settings.deep_search, 1);
    EXPECT_EQ(settings.known_only, 0);
    EXPECT_EQ(settings.end_min, -1e9);
    EXPECT_EQ(settings.end_max, -1.0);
    ovl_settings_default(nullptr);
}

TEST(Settings, DefaultsAreThoseOfThePipeline) {
    ov_params params;
    ov_params_default(params);
    const ovl_settings settings = defaults();
    EXPECT_EQ(settings.center_hz, params.center_hz);
    EXPECT_EQ(settings.search_hz, params.search_hz);
    EXPECT_EQ(settings.end_min, params.end_min);
    EXPECT_EQ(settings.end_max, params.end_max);
}

// ---- Decoder and its error text ------------------------------------------------------------------------------------

TEST(DecoderHandle, IsNewWithoutAnError) {
    const Decoder decoder = new_decoder();
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(error(decoder), "");
    ovl_destroy(nullptr);
}

TEST(DecoderHandle, EveryCallNeedsOne) {
    EXPECT_STREQ(ovl_last_error(nullptr), "no decoder");
    EXPECT_EQ(ovl_set_known(nullptr, "K1AB"), -1);
    EXPECT_EQ(ovl_set_known(nullptr, nullptr), -1);
    const ovl_settings settings = defaults();
    std::vector<ovl_result> results = marked_results(2);
    const float sample = 0;
    EXPECT_EQ(ovl_decode(nullptr, &sample, 1, RATE, &settings, results.data(), 2), -1);
    EXPECT_EQ(ovl_decode(nullptr, nullptr, 0, 0, nullptr, nullptr, -1), -1);
    EXPECT_EQ(ovl_decode_recent(nullptr, &sample, 1, RATE, &settings, 10, results.data(), 2), -1);
    EXPECT_EQ(ovl_decode_recent(nullptr, nullptr, 0, 0, nullptr, NOT_A_NUMBER, nullptr, -1), -1);
    EXPECT_TRUE(is_marked(results[0]));
    EXPECT_STREQ(ovl_last_error(nullptr), "no decoder");
}

TEST(DecoderHandle, ErrorsLastUntilTheNextCall) {
    const Decoder decoder = new_decoder();
    const auto fail = [&] {
        EXPECT_EQ(ovl_decode(decoder.get(), nullptr, 1, RATE, nullptr, nullptr, 0), -1);
        EXPECT_EQ(error(decoder), "invalid argument");
    };
    fail();
    EXPECT_EQ(error(decoder), "invalid argument");  // asking does not clear it
    EXPECT_EQ(ovl_set_known(decoder.get(), ""), 0);
    EXPECT_EQ(error(decoder), "");
    fail();
    EXPECT_EQ(ovl_set_known(decoder.get(), nullptr), 0);
    EXPECT_EQ(error(decoder), "");
    fail();
    EXPECT_EQ(decode(decoder, noise_of_20_s(), opera_only()).count, 0);
    EXPECT_EQ(error(decoder), "");
    fail();
    EXPECT_EQ(decode_recent(decoder, noise_of_20_s(), opera_only(), 10).count, 0);
    EXPECT_EQ(error(decoder), "");
}

TEST(DecoderHandle, BelongsToNoOther) {
    const Decoder one = new_decoder();
    const Decoder other = new_decoder();
    EXPECT_EQ(ovl_set_known(one.get(), "K1AB"), 1);
    EXPECT_EQ(ovl_decode(one.get(), nullptr, 1, RATE, nullptr, nullptr, 0), -1);
    EXPECT_EQ(error(other), "");
    ovl_settings settings = opera_only();
    settings.known_only = 1;
    EXPECT_EQ(decode(other, noise_of_20_s(), settings).message, NEEDS_LIST);
    EXPECT_EQ(decode(one, noise_of_20_s(), settings).count, 0);
}

// ---- Known callsigns -----------------------------------------------------------------------------------------------

// So many different good callsigns with this text between them: K0AAA, K0AAB, …
std::string good_callsigns(int count, const std::string& between = " ") {
    std::string list;
    for (int k = 0; k < count; ++k) {
        if (k > 0) list += between;
        list += "K0";
        list += static_cast<char>('A' + k / 676 % 26);
        list += static_cast<char>('A' + k / 26 % 26);
        list += static_cast<char>('A' + k % 26);
    }
    return list;
}

struct ListExample {
    std::string list;
    int32_t count;
};

TEST(KnownList, CountsTheCallsignsThatPack) {
    const Decoder decoder = new_decoder();
    const std::vector<ListExample> examples = {
        {"", 0},
        {"   ", 0},
        {" , ;; ,\t\n ,", 0},
        {"K1AB", 1},
        {"K1AB,QQ0XYZ;A1 G4ABC", 4},
        {"K1AB,/,QQ0XYZ;NOCALL A1 G4ABC", 4},
        {";,K1AB,;", 1},
        {"k1ab", 1},
        {"K1AB K1AB K1AB", 3},  // duplicates are not checked
        {"K1AB/P", 0},
        {"QQ0XYZW", 0},
        {"K1 AB", 1},  // K1 is a callsign, AB is none
        {"K1AB\tK2AB\nK3AB\vK4AB\fK5AB\rK6AB", 6},
        {"K1AB\x1fK2AB", 0},
        {"K1AB|K2AB", 0},
        {"K1AB:K2AB", 0},
        {"K1AB.K2AB", 0},
    };
    for (const ListExample& example : examples) {
        EXPECT_EQ(ovl_set_known(decoder.get(), example.list.c_str()), example.count) << '"' << example.list << '"';
        EXPECT_EQ(error(decoder), "");
    }
    EXPECT_EQ(ovl_set_known(decoder.get(), nullptr), 0);
}

TEST(KnownList, OnlyBlanksCommasAndSemicolonsSeparate) {
    const Decoder decoder = new_decoder();
    const std::string separators = " \t\n\v\f\r,;";
    for (int byte = 1; byte < 256; ++byte) {
        const auto c = static_cast<char>(byte);
        // A character that does not separate makes one token of nine characters, which is no callsign.
        const std::string list = std::string("K1AB") + c + "K2AB";
        const bool separates = separators.find(c) != std::string::npos;
        EXPECT_EQ(ovl_set_known(decoder.get(), list.c_str()), separates ? 2 : 0) << "byte " << byte;
    }
}

TEST(KnownList, LongTokensAreNoErrorAndDoNoHarm) {
    const Decoder decoder = new_decoder();
    for (const std::size_t length : {7U, 14U, 15U, 16U, 17U, 31U, 32U, 33U, 163U, 164U, 165U, 100000U}) {
        const std::string list = "K1AB " + std::string(length, 'K') + ",K2AB";
        EXPECT_EQ(ovl_set_known(decoder.get(), list.c_str()), 2) << length;
        EXPECT_EQ(error(decoder), "");
    }
    // The rest of a long token is skipped, not read as the next.
    EXPECT_EQ(ovl_set_known(decoder.get(), "XXXXXXXXXXXXXXXK1AB"), 0);
}

TEST(KnownList, Holds256) {
    const Decoder decoder = new_decoder();
    EXPECT_EQ(ovl_set_known(decoder.get(), good_callsigns(255).c_str()), 255);
    EXPECT_EQ(ovl_set_known(decoder.get(), good_callsigns(256).c_str()), 256);
    EXPECT_EQ(ovl_set_known(decoder.get(), (good_callsigns(256, ",") + " ;, ").c_str()), 256);
    EXPECT_EQ(error(decoder), "");
    // Tokens that are dropped take no room …
    std::string mixed;
    for (int k = 0; k < 1000; ++k) mixed += "/ ";
    EXPECT_EQ(ovl_set_known(decoder.get(), mixed.c_str()), 0);
    EXPECT_EQ(ovl_set_known(decoder.get(), (mixed + good_callsigns(256)).c_str()), 256);
    EXPECT_EQ(error(decoder), "");
    // … but after 256 good ones any token is one too many.
    for (const std::string more : {"K1AB", "/", "K1AB K2AB K3AB"}) {
        EXPECT_EQ(ovl_set_known(decoder.get(), (good_callsigns(256) + " " + more).c_str()), -1) << more;
        EXPECT_EQ(error(decoder), TOO_MANY);
    }
    EXPECT_EQ(ovl_set_known(decoder.get(), good_callsigns(257).c_str()), -1);
    EXPECT_EQ(ovl_set_known(decoder.get(), "K1AB"), 1);
    EXPECT_EQ(error(decoder), "");
}

TEST(KnownList, FiltersWhatIsDecoded) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    settings.known_only = 1;
    EXPECT_EQ(ovl_set_known(decoder.get(), "AA2BCD"), 1);
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"AA2BCD"});
    EXPECT_EQ(ovl_set_known(decoder.get(), "QQ0XYZ k1ab"), 2);  // replaces the list
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"K1AB"});
    EXPECT_EQ(ovl_set_known(decoder.get(), "QQ0XYZ"), 1);
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{});
    EXPECT_EQ(ovl_set_known(decoder.get(), nullptr), 0);
    EXPECT_EQ(decode(decoder, two_stations(), settings).message, NEEDS_LIST);
    settings.known_only = 0;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), (Calls{"AA2BCD", "K1AB"}));
}

TEST(KnownList, TheFirst256StayWhenThereAreMore) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    settings.known_only = -1;  // any value but 0
    const std::string list = good_callsigns(255) + ",K1AB;AA2BCD";
    EXPECT_EQ(ovl_set_known(decoder.get(), list.c_str()), -1);
    EXPECT_EQ(error(decoder), TOO_MANY);
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"K1AB"});
}

// ---- Arguments -----------------------------------------------------------------------------------------------------

TEST(Decode, RefusesBadArguments) {
    const Decoder decoder = new_decoder();
    const ovl_settings settings = defaults();
    const std::vector<float> samples(100);
    std::vector<ovl_result> results = marked_results(4);
    const auto attempt = [&](const float* x, int32_t n, int32_t rate, const ovl_settings* how, ovl_result* out,
                             int32_t max_results) {
        EXPECT_EQ(ovl_set_known(decoder.get(), nullptr), 0);
        EXPECT_EQ(ovl_decode(decoder.get(), x, n, rate, how, out, max_results), -1);
        EXPECT_EQ(error(decoder), "invalid argument");
        EXPECT_EQ(ovl_set_known(decoder.get(), nullptr), 0);
        EXPECT_EQ(ovl_decode_recent(decoder.get(), x, n, rate, how, 10, out, max_results), -1);
        EXPECT_EQ(error(decoder), "invalid argument");
    };
    constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
    attempt(nullptr, 100, RATE, &settings, results.data(), 4);
    attempt(samples.data(), 0, RATE, &settings, results.data(), 4);
    attempt(samples.data(), -1, RATE, &settings, results.data(), 4);
    attempt(samples.data(), LOWEST, RATE, &settings, results.data(), 4);
    attempt(samples.data(), 100, 0, &settings, results.data(), 4);
    attempt(samples.data(), 100, -1, &settings, results.data(), 4);
    attempt(samples.data(), 100, LOWEST, &settings, results.data(), 4);
    attempt(samples.data(), 100, RATE, nullptr, results.data(), 4);
    attempt(samples.data(), 100, RATE, &settings, nullptr, 4);
    attempt(samples.data(), 100, RATE, &settings, nullptr, 1);
    attempt(samples.data(), 100, RATE, &settings, nullptr, -1);
    attempt(samples.data(), 100, RATE, &settings, results.data(), -1);
    attempt(samples.data(), 100, RATE, &settings, results.data(), LOWEST);
    for (const ovl_result& result : results) EXPECT_TRUE(is_marked(result));
}

TEST(Decode, ChecksInAFixedOrder) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = defaults();
    settings.protocols = 0;
    settings.known_only = 1;
    const std::vector<float> one(1);
    ovl_result result;
    EXPECT_EQ(ovl_decode(decoder.get(), one.data(), 0, RATE, &settings, &result, 1), -1);
    EXPECT_EQ(error(decoder), "invalid argument");
    EXPECT_EQ(decode(decoder, one, settings).message, "no protocol selected");
    settings.protocols = OVL_OPERA;
    EXPECT_EQ(decode(decoder, one, settings).message, NEEDS_LIST);
    EXPECT_EQ(ovl_set_known(decoder.get(), "K1AB"), 1);
    EXPECT_EQ(decode(decoder, one, settings).message, TOO_SHORT);
    settings.protocols = 0;
    EXPECT_EQ(decode(decoder, one, settings).message, "no protocol selected");
}

TEST(Decode, OnlyTheLowThreeBitsOfTheMaskCount) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    for (const int32_t mask : {0, 8, 16, -8, 0x7ffffff8, std::numeric_limits<int32_t>::min()}) {
        settings.protocols = mask;
        EXPECT_EQ(decode(decoder, two_stations(), settings).message, "no protocol selected") << mask;
    }
    for (const int32_t mask : {9, -7}) {
        settings.protocols = mask;
        EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), (Calls{"AA2BCD", "K1AB"})) << mask;
    }
    settings.protocols = 8 | OVL_ORVEL_S;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{});
}

TEST(Decode, RefusesBlocksTooShortForAChip) {
    // One chip is the least that makes a row of the score map.
    const Decoder decoder = new_decoder();
    for (const std::size_t n : {1U, 2U, 3U, 100U, 511U}) {
        EXPECT_EQ(decode(decoder, std::vector<float>(n, 0.1F), defaults()).message, TOO_SHORT) << n;
    }
    EXPECT_EQ(decode(decoder, std::vector<float>(512, 0.1F), defaults()).count, 0);
}

TEST(Decode, KnownOnlyNeedsAListBeforeAnyDecoding) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = defaults();
    settings.known_only = 1;
    EXPECT_EQ(decode(decoder, two_stations(), settings).message, NEEDS_LIST);
    EXPECT_EQ(ovl_set_known(decoder.get(), " ,NOCALL"), 0);
    EXPECT_EQ(decode(decoder, two_stations(), settings).message, NEEDS_LIST);
}

// ---- Results -------------------------------------------------------------------------------------------------------

template <std::size_t Size>
bool zero_after_text(const char (&field)[Size]) {
    return std::all_of(field + std::strlen(field), field + Size, [](char c) { return c == 0; });
}

TEST(Decode, TellsWhoWasOnTheAirWhenAndWhere) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = defaults();
    settings.protocols = OVL_OPERA;
    const Decoded got = decode(decoder, two_stations(), settings);
    ASSERT_EQ(calls(got), (Calls{"AA2BCD", "K1AB"}));  // by start time
    const std::array<double, 2> starts = {2, 8};
    const std::array<double, 2> freqs = {1515, 1485};
    for (std::size_t k = 0; k < 2; ++k) {
        const ovl_result& result = got.results[k];
        EXPECT_EQ(result.protocol, OVL_OPERA);
        EXPECT_EQ(result.deep, 0);
        EXPECT_STREQ(result.locator, "");
        EXPECT_TRUE(zero_after_text(result.call));
        EXPECT_TRUE(zero_after_text(result.locator));
        EXPECT_NEAR(result.t_start, starts[k], 0.02);
        EXPECT_NEAR(result.t_end - result.t_start, 30.592, 1e-9);
        EXPECT_NEAR(result.freq_hz, freqs[k], 0.3);
        EXPECT_NEAR(result.snr_db, -15, 1.5);
        EXPECT_NEAR(result.drift_hz_s, 0, 0.02);
    }
}

TEST(Decode, CountsAsManyAsThereIsRoomFor) {
    const Decoder decoder = new_decoder();
    const ovl_settings settings = opera_only();
    const std::vector<float>& samples = two_stations();
    EXPECT_EQ(ovl_decode(decoder.get(), samples.data(), size_of(samples), RATE, &settings, nullptr, 0), 0);
    EXPECT_EQ(error(decoder), "");
    EXPECT_EQ(ovl_decode_recent(decoder.get(), samples.data(), size_of(samples), RATE, &settings, 20, nullptr, 0), 0);
    EXPECT_EQ(error(decoder), "");
    std::vector<ovl_result> untouched = marked_results(1);
    EXPECT_EQ(ovl_decode(decoder.get(), samples.data(), size_of(samples), RATE, &settings, untouched.data(), 0), 0);
    EXPECT_TRUE(is_marked(untouched[0]));
    EXPECT_EQ(calls(decode(decoder, samples, settings, RATE, 1)), Calls{"AA2BCD"});
    EXPECT_EQ(calls(decode(decoder, samples, settings, RATE, 2)), (Calls{"AA2BCD", "K1AB"}));
    EXPECT_EQ(calls(decode(decoder, samples, settings, RATE, 1000)), (Calls{"AA2BCD", "K1AB"}));
}

TEST(Decode, GivesTheSameAgainWhateverCameBefore) {
    const Decoder decoder = new_decoder();
    const Decoded first = decode(decoder, two_stations(), opera_only());
    ASSERT_EQ(first.count, 2);
    const auto expect_same = [&](const Decoded& again) {
        ASSERT_EQ(again.count, 2);
        EXPECT_EQ(std::memcmp(again.results.data(), first.results.data(), 2 * sizeof(ovl_result)), 0);
    };
    EXPECT_EQ(decode(decoder, std::vector<float>(5, 1.0F), opera_only()).count, -1);
    expect_same(decode(decoder, two_stations(), opera_only()));
    EXPECT_EQ(decode(decoder, block(50, {}, 7), opera_only()).count, 0);  // a longer block, then the shorter one
    expect_same(decode(decoder, two_stations(), opera_only()));
    expect_same(decode(new_decoder(), two_stations(), opera_only()));
}

TEST(Decode, LeavesSamplesAndSettingsAlone) {
    const Decoder decoder = new_decoder();
    const std::vector<float> samples = two_stations();
    ovl_settings settings;
    std::memset(&settings, 0, sizeof settings);
    ovl_settings_default(&settings);
    settings.protocols = 0x70 | OVL_OPERA;
    settings.known_only = 5;
    settings.deep_search = 6;
    settings.spread_hz = -3;
    settings.end_min = 4;
    settings.end_max = 5;
    EXPECT_EQ(ovl_set_known(decoder.get(), "K1AB"), 1);
    ovl_settings before;
    std::memcpy(&before, &settings, sizeof settings);
    EXPECT_EQ(decode(decoder, samples, settings).count, 0);
    EXPECT_EQ(std::memcmp(&before, &settings, sizeof settings), 0);
    EXPECT_GE(decode_recent(decoder, samples, settings, 1).count, 0);
    EXPECT_EQ(std::memcmp(&before, &settings, sizeof settings), 0);
    EXPECT_EQ(samples, two_stations());
}

TEST(Decode, ScaleDoesNotMatter) {
    const Decoder decoder = new_decoder();
    for (const float scale : {1e-12F, 1e-3F, 32768.0F, 1e12F}) {
        std::vector<float> samples = two_stations();
        for (float& sample : samples) sample *= scale;
        EXPECT_EQ(calls(decode(decoder, samples, opera_only())), (Calls{"AA2BCD", "K1AB"})) << scale;
    }
}

TEST(Decode, SearchesOnlyTheBandItIsGiven) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    settings.search_hz = 8;
    settings.center_hz = 1515;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"AA2BCD"});
    settings.center_hz = 1485;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"K1AB"});
    settings.center_hz = 1000;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{});
}

TEST(Decode, ANegativeSpreadCountsAsNone) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    const Decoded plain = decode(decoder, two_stations(), settings);
    ASSERT_EQ(plain.count, 2);
    for (const double spread : {-1.0, -1e300, -INFINITE}) {
        settings.spread_hz = spread;
        const Decoded got = decode(decoder, two_stations(), settings);
        ASSERT_EQ(got.count, 2) << spread;
        EXPECT_EQ(std::memcmp(got.results.data(), plain.results.data(), 2 * sizeof(ovl_result)), 0) << spread;
    }
}

TEST(Decode, AcceptsFramesByTheirEnd) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();  // frames end at 32.6 and 38.6 s
    settings.end_min = 35.6;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"K1AB"});
    settings.end_max = 36;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{});
    settings.end_min = -1e9;
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), Calls{"AA2BCD"});
    settings.end_max = -0.5;  // negative: no limit
    EXPECT_EQ(calls(decode(decoder, two_stations(), settings)), (Calls{"AA2BCD", "K1AB"}));
}

// ---- The last seconds of a block -----------------------------------------------------------------------------------

TEST(DecodeRecent, RefusesBadArguments) {
    const Decoder decoder = new_decoder();
    const ovl_settings settings = defaults();
    const std::vector<float>& samples = noise_of_20_s();
    for (const double recent_s : {0.0, -0.0, -1.0, -1e300, -INFINITE}) {
        EXPECT_EQ(decode_recent(decoder, samples, settings, recent_s).message, "invalid argument") << recent_s;
    }
    // Its own checks come first: a mask without a protocol is noticed later.
    ovl_settings none = settings;
    none.protocols = 0;
    EXPECT_EQ(decode_recent(decoder, samples, none, 0).message, "invalid argument");
    EXPECT_EQ(decode_recent(decoder, samples, none, 10).message, "no protocol selected");
}

TEST(DecodeRecent, TakesFramesThatEndWithinTheLastSeconds) {
    // The window holds for where a frame is first seen; measured more finely it may lie a few chips further out.
    const Decoder decoder = new_decoder();
    const std::vector<float> samples = block(120, {station("K1AA", 2, 1485),     // ends at 32.6 s
                                                   station("K1BB", 40, 1485),    // 70.6 s
                                                   station("K1CC", 85, 1485),    // 115.6 s
                                                   station("K1DD", 92, 1515)});  // 122.6 s, past the block
    const ovl_settings settings = opera_only();
    EXPECT_EQ(calls(decode(decoder, samples, settings)), (Calls{"K1AA", "K1BB", "K1CC", "K1DD"}));
    EXPECT_EQ(calls(decode_recent(decoder, samples, settings, 46)), Calls{"K1CC"});
    EXPECT_EQ(calls(decode_recent(decoder, samples, settings, 2)), Calls{});
    EXPECT_EQ(calls(decode_recent(decoder, samples, settings, INFINITE)), (Calls{"K1AA", "K1BB", "K1CC"}));
    // It replaces the window of the settings, and does not write to them.
    ovl_settings windowed = settings;
    windowed.end_min = 0;
    windowed.end_max = 50;
    EXPECT_EQ(calls(decode_recent(decoder, samples, windowed, 60)), (Calls{"K1BB", "K1CC"}));
    EXPECT_EQ(windowed.end_min, 0);
    EXPECT_EQ(windowed.end_max, 50);
}

TEST(DecodeRecent, NotANumberIsNoArgumentError) {
    const Decoder decoder = new_decoder();
    EXPECT_GE(decode_recent(decoder, two_stations(), opera_only(), NOT_A_NUMBER).count, 0);
}

// ---- Hostile input -------------------------------------------------------------------------------------------------

TEST(HostileSamples, BlocksThatAreNotFiniteAreRefused) {
    const Decoder decoder = new_decoder();
    const std::vector<float> clean = noise_of_20_s();
    for (const double bad : {NOT_A_NUMBER, INFINITE, -INFINITE}) {
        for (const std::size_t place : {std::size_t{0}, clean.size() / 2, clean.size() - 1}) {
            std::vector<float> samples = clean;
            samples[place] = static_cast<float>(bad);
            EXPECT_EQ(decode(decoder, samples, defaults()).message, TOO_SHORT) << bad << " at " << place;
        }
        EXPECT_EQ(decode(decoder, std::vector<float>(clean.size(), static_cast<float>(bad)), defaults()).message,
                  TOO_SHORT);
    }
}

TEST(HostileSamples, SilenceHoldsNothing) {
    const Decoder decoder = new_decoder();
    EXPECT_EQ(ovl_set_known(decoder.get(), "K1AB"), 1);
    ovl_settings settings = opera_only();
    settings.deep_search = 1;
    for (const float level : {0.0F, -0.0F, 1.0F, 1e-45F, FLT_MAX, -FLT_MAX}) {
        const Decoded got = decode(decoder, std::vector<float>(20 * RATE, level), settings);
        EXPECT_EQ(got.count, 0) << level << ' ' << got.message;
    }
    EXPECT_EQ(decode(decoder, std::vector<float>(20 * RATE), defaults()).count, 0);
}

TEST(HostileSamples, LoneSpikesHoldNothing) {
    const Decoder decoder = new_decoder();
    for (const float level : {1.0F, FLT_MAX, 1e-45F}) {
        std::vector<float> samples(20 * RATE);
        samples[samples.size() / 2] = level;
        samples[samples.size() / 3] = -level;
        samples[samples.size() / 3 + 200] = level;
        EXPECT_EQ(decode(decoder, samples, opera_only()).count, 0) << level;
    }
}

TEST(HostileSamples, AFrameInSilenceIsTheOnlyOneFound) {
    const Decoder decoder = new_decoder();
    Scene scene;
    scene.rate = RATE;
    scene.seconds = 60;
    scene.noise = false;
    scene.stations = {station("K1AB", 5, 1500)};
    for (const ovl_result& result : decode(decoder, to_float(render_real(scene)), opera_only()).results) {
        EXPECT_STREQ(result.call, "K1AB");
    }
}

TEST(HostileSamples, TheGreaterPartSilentDoesNotMakeFrames) {
    const Decoder decoder = new_decoder();
    std::vector<float> samples = block(80, {station("K1AB", 4, 1500)});
    std::fill(samples.begin() + 30 * RATE, samples.end(), 0.0F);  // the frame's end among it
    for (const ovl_result& result : decode(decoder, samples, opera_only()).results) EXPECT_STREQ(result.call, "K1AB");
}

TEST(HostileSamples, OddRatesEndInBoundedTime) {
    const Decoder decoder = new_decoder();
    for (const int32_t rate : {1, 2, 7, 11, 499, 11000, 44100, 2147483647}) {
        for (const std::size_t n : {1U, 20U}) {
            const Decoded got = decode(decoder, std::vector<float>(n, 0.5F), opera_only(), rate);
            EXPECT_TRUE(got.count == 0 || got.message == TOO_SHORT) << rate << ' ' << n << ' ' << got.message;
        }
    }
    EXPECT_EQ(decode(decoder, noise_of_20_s(), defaults(), 2147483647).message, TOO_SHORT);
    EXPECT_EQ(decode(decoder, noise_of_20_s(), defaults(), 11000).message, TOO_SHORT);  // its quotient holds an 11
}

const std::array<double, 10> ODD_NUMBERS = {NOT_A_NUMBER, INFINITE, -INFINITE, 1e300, -1e300,
                                            1e9,          -1e9,     -1.0,      0.0,   2147483648.0};

// Noise alone: whatever is asked, nothing is found, and a refusal says so.
void expect_nothing(const ovl_settings& settings, const std::string& what) {
    const Decoder decoder = new_decoder();
    EXPECT_EQ(ovl_set_known(decoder.get(), "K1AB,AA2BCD"), 2);
    const Decoded got = decode(decoder, noise_of_20_s(), settings);
    EXPECT_TRUE(got.count == 0 || got.message == TOO_SHORT) << what << ": " << got.count << ' ' << got.message;
}

TEST(HostileSettings, EveryNumberEndsInBoundedTime) {
    for (const double odd : ODD_NUMBERS) {
        for (double ovl_settings::*field : {&ovl_settings::center_hz, &ovl_settings::search_hz,
                                            &ovl_settings::spread_hz, &ovl_settings::end_min, &ovl_settings::end_max}) {
            ovl_settings settings = opera_only();
            settings.deep_search = 1;
            settings.*field = odd;
            expect_nothing(settings, std::to_string(odd));
        }
    }
}

TEST(HostileSettings, AllNumbersAtOnceEndInBoundedTime) {
    for (const double odd : ODD_NUMBERS) {
        ovl_settings settings = defaults();
        settings.center_hz = settings.search_hz = settings.spread_hz = settings.end_min = settings.end_max = odd;
        expect_nothing(settings, std::to_string(odd));
    }
}

TEST(HostileSettings, ABandWithoutColumnsFindsNothing) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    for (const double search : {-50.0, -1e300}) {
        settings.search_hz = search;
        const Decoded got = decode(decoder, two_stations(), settings);
        EXPECT_TRUE(got.count == 0 || got.message == TOO_SHORT) << search;
    }
}

TEST(HostileSettings, BandsOutsideTheInputHoldNothing) {
    const Decoder decoder = new_decoder();
    ovl_settings settings = opera_only();
    for (const double center : {-1500.0, 0.0, 1e6}) {
        settings.center_hz = center;
        const Decoded got = decode(decoder, two_stations(), settings);
        for (const ovl_result& result : got.results) {
            ADD_FAILURE() << result.call << " at " << result.freq_hz << " Hz, searched around " << center;
        }
    }
}

TEST(HostileSettings, AWindowThatIsNoNumberDecidesNothingElse) {
    // The other stations of the block, and the order of results, do not depend on it.
    const Decoder decoder = new_decoder();
    for (double ovl_settings::*field : {&ovl_settings::end_min, &ovl_settings::end_max}) {
        ovl_settings settings = opera_only();
        settings.*field = NOT_A_NUMBER;
        const Decoded got = decode(decoder, two_stations(), settings);
        EXPECT_TRUE(calls(got) == Calls{} || calls(got) == (Calls{"AA2BCD", "K1AB"}));
    }
}

// ---- Threads -------------------------------------------------------------------------------------------------------

TEST(Threads, TwoDecodersWorkAtOnce) {
    const Decoded expected = decode(new_decoder(), two_stations(), opera_only());
    ASSERT_EQ(expected.count, 2);
    std::array<Decoded, 2> got;
    std::array<int32_t, 2> known = {};
    std::array<std::thread, 2> threads;
    for (std::size_t k = 0; k < 2; ++k) {
        threads[k] = std::thread([&, k] {
            const Decoder decoder = new_decoder();
            known[k] = ovl_set_known(decoder.get(), k == 0 ? "AA2BCD" : "K1AB,QQ0XYZ");
            ovl_settings settings = opera_only();
            settings.known_only = 1;
            got[k] = decode(decoder, two_stations(), settings);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(known, (std::array<int32_t, 2>{1, 2}));
    for (std::size_t k = 0; k < 2; ++k) {
        ASSERT_EQ(got[k].count, 1);
        EXPECT_EQ(std::memcmp(got[k].results.data(), &expected.results[k], sizeof(ovl_result)), 0);
    }
}

}  // namespace
