// The wide decode: against a plain model made of one scan, one cut and one narrow decode for every tile, and against
// what is on the air in bands of many stations.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <numbers>
#include <numeric>
#include <string>
#include <vector>

#include "liborvel.h"
#include "orvel.h"
#include "ovbb.h"
#include "ovcdeep.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "ovscan.h"
#include "owners.h"
#include "siggen.h"

namespace {

constexpr double NAN_D = std::numeric_limits<double>::quiet_NaN();
constexpr double INF_D = std::numeric_limits<double>::infinity();
constexpr double HALF_FRAME_S = 0.5 * 61.184 * 0.5;

// ---- Scenes --------------------------------------------------------------------------------------------------------

struct Sent {
    int32_t protocol;
    std::string call, locator;
    double t, freq, snr;
};

std::vector<uint8_t> chips_of(const Sent& sent) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(static_cast<uint32_t>(sent.protocol))));
    EXPECT_GT(ovl_encode(static_cast<uint32_t>(sent.protocol), sent.call.c_str(), sent.locator.c_str(), chips.data(),
                         static_cast<int32_t>(chips.size())),
              0)
        << sent.call;
    return chips;
}

Sent opera(const char* call, double t, double freq, double snr) {
    return {OVL_OPERA, call, "", t, freq, snr};
}

std::vector<Station> stations_of(const std::vector<Sent>& sent) {
    std::vector<Station> stations;
    for (const Sent& s : sent) stations.push_back({chips_of(s), s.t, s.freq, 0, s.snr, 0.9});
    return stations;
}

IqSamples render(double seconds, int32_t rate, uint64_t seed, const std::vector<Station>& stations) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = seed;
    scene.stations = stations;
    return render_iq(scene);
}

IqSamples render(double seconds, int32_t rate, uint64_t seed, const std::vector<Sent>& sent) {
    return render(seconds, rate, seed, stations_of(sent));
}

// Adds a station to a fast recording, with hard edges and by turning a phasor: a tenth of the generator's time.
void key_fast(IqSamples& iq, int32_t rate, double noise_rms, const Sent& sent) {
    const std::vector<uint8_t> chips = chips_of(sent);
    const double share = std::accumulate(chips.begin(), chips.end(), 0.0) / static_cast<double>(chips.size());
    const double amplitude = std::sqrt(std::pow(10, sent.snr / 10) * noise_rms * noise_rms * 2500 / rate / share);
    const std::complex<double> turn = std::polar(1.0, 2 * std::numbers::pi * sent.freq / rate);
    for (std::size_t chip = 0; chip < chips.size(); ++chip) {
        if (chips[chip] == 0) continue;
        const auto at = [&](std::size_t c) {
            return std::lround((sent.t + static_cast<double>(c) * CHIP_SECONDS) * rate);
        };
        const double turns = sent.freq * static_cast<double>(at(chip)) / rate;
        std::complex<double> phasor = std::polar(amplitude, 2 * std::numbers::pi * (turns - std::floor(turns)));
        for (auto k = static_cast<std::size_t>(at(chip)); k < static_cast<std::size_t>(at(chip + 1)); ++k) {
            iq.i[k] += phasor.real();
            iq.q[k] += phasor.imag();
            phasor *= turn;
        }
    }
}

ov_params band(double center_hz, double half_hz) {
    ov_params params;
    ov_params_default(params);
    params.center_hz = center_hz;
    params.search_hz = half_hz;
    return params;
}

// The same for OPERA alone, where the other protocols would only cost time.
ov_params opera_band(double center_hz, double half_hz) {
    ov_params params = band(center_hz, half_hz);
    params.protocols = OVL_OPERA;
    return params;
}

// ---- Decodes -------------------------------------------------------------------------------------------------------

struct Outcome {
    int32_t count = 0;
    std::vector<ov_spot> spots;
    std::string text;
};

Outcome decode(const IqSamples& iq, int32_t rate, const ov_params& params, double z_scan, int32_t max_tiles = 50,
               int32_t max_spots = 64) {
    Outcome result;
    ov_spot untouched{};
    std::strcpy(untouched.call, "NOBODY");
    result.spots.assign(static_cast<std::size_t>(std::max(0, max_spots)) + 1, untouched);
    testing::internal::CaptureStderr();
    result.count = ov_decode_wide(iq.i.data(), iq.q.empty() ? nullptr : iq.q.data(), static_cast<int32_t>(iq.i.size()),
                                  rate, params, z_scan, max_tiles, result.spots.data(), max_spots);
    result.text = testing::internal::GetCapturedStderr();
    EXPECT_LE(result.count, std::max(0, max_spots));
    EXPECT_STREQ(result.spots.back().call, "NOBODY") << "past the room for spots";
    result.spots.resize(static_cast<std::size_t>(std::clamp(result.count, 0, std::max(0, max_spots))));
    EXPECT_TRUE(std::is_sorted(result.spots.begin(), result.spots.end(),
                               [](const ov_spot& a, const ov_spot& b) { return a.t < b.t; }));
    return result;
}

// How spots of one callsign and time from several tiles were merged.
struct Merges {
    int32_t stronger_replaced = 0, weaker_dropped = 0;
    int32_t deep_replaced = 0, deep_dropped = 0, deep_after_deep = 0;
};

__attribute__((format(printf, 1, 2))) void say(const char* pattern, ...) {
    va_list values;
    va_start(values, pattern);
    std::vfprintf(stderr, pattern, values);
    va_end(values);
}

Outcome model(const IqSamples& iq, int32_t rate, const ov_params& params, double z_scan, int32_t max_tiles = 50,
              int32_t max_spots = 64, Merges* merges = nullptr) {
    Outcome result;
    Merges ignored;
    if (merges == nullptr) merges = &ignored;
    const auto n = static_cast<int32_t>(iq.i.size());
    const double* const q = iq.q.empty() ? nullptr : iq.q.data();
    const double chip = 0.256 * params.op;
    std::vector<ov_hit> tiles(static_cast<std::size_t>(std::max(1, max_tiles)));

    testing::internal::CaptureStderr();
    const int32_t count =
        ov_scan(iq.i.data(), q, n, rate, chip, params.center_hz - params.search_hz, params.center_hz + params.search_hz,
                z_scan, 30, max_tiles, tiles.data(), nullptr, params.verbose);
    result.count = std::min(count, 0);
    if (count >= 0 && params.verbose != 0) {
        say("Scan: %d %s above %.1f sigma\n", count, count == 1 ? "frequency" : "frequencies", z_scan);
    }
    ov_params narrow = params;
    narrow.search_hz = 20 + params.spread_hz / 2;
    narrow.deep_pfa = params.deep_pfa / count;
    int32_t baseband_rate = 125;
    while (baseband_rate < 2 * (3 / chip + 20 + params.spread_hz) + 40 || baseband_rate * chip < 15.999999999) {
        baseband_rate *= 2;
    }
    for (int32_t k = 0; k < count && static_cast<int32_t>(result.spots.size()) < max_spots; ++k) {
        const ov_hit& tile = tiles[static_cast<std::size_t>(k)];
        if (params.verbose != 0) say("--- tile %d/%d: %.1f Hz (scan z=%.1f)\n", k + 1, count, tile.freq_hz, tile.z);
        BasebandOwner bb;
        const int cut = q != nullptr ? ov_baseband_iq(iq.i.data(), q, n, rate, tile.freq_hz, baseband_rate, bb)
                                     : ov_baseband_real(iq.i.data(), n, rate, tile.freq_hz, baseband_rate, bb);
        if (cut != 0) continue;
        std::array<ov_spot, 16> local;
        const int32_t found = run(bb, narrow, local.data(), 16);
        for (int32_t s = 0; s < found && static_cast<int32_t>(result.spots.size()) < max_spots; ++s) {
            const ov_spot& spot = local[static_cast<std::size_t>(s)];
            ov_spot* same = nullptr;
            for (ov_spot& other : result.spots) {
                if (same == nullptr && std::string(other.call) == spot.call &&
                    std::fabs(other.t - spot.t) < 0.5 * 61.184 * params.op) {
                    same = &other;
                }
            }
            if (same == nullptr) {
                result.spots.push_back(spot);
            } else if (spot.deep != 0) {
                if (same->deep != 0) ++merges->deep_after_deep;
                if (same->deep == 0) ++merges->deep_dropped;
            } else if (same->deep != 0) {
                ++merges->deep_replaced;
                *same = spot;
            } else if (spot.snr > same->snr) {
                ++merges->stronger_replaced;
                *same = spot;
            } else {
                ++merges->weaker_dropped;
            }
        }
    }
    std::stable_sort(result.spots.begin(), result.spots.end(),
                     [](const ov_spot& a, const ov_spot& b) { return a.t < b.t; });
    if (result.count == 0) result.count = static_cast<int32_t>(result.spots.size());
    result.text = testing::internal::GetCapturedStderr();
    return result;
}

void expect_equal(const Outcome& found, const Outcome& expected) {
    EXPECT_EQ(found.count, expected.count);
    EXPECT_EQ(found.text, expected.text);
    ASSERT_EQ(found.spots.size(), expected.spots.size());
    for (std::size_t k = 0; k < found.spots.size(); ++k) {
        const ov_spot& a = found.spots[k];
        const ov_spot& b = expected.spots[k];
        EXPECT_STREQ(a.call, b.call);
        EXPECT_STREQ(a.locator, b.locator);
        EXPECT_EQ(a.protocol, b.protocol);
        EXPECT_EQ(a.t, b.t);
        EXPECT_EQ(a.freq, b.freq);
        EXPECT_EQ(a.snr, b.snr);
        EXPECT_EQ(a.drift, b.drift);
        EXPECT_EQ(a.z, b.z);
        EXPECT_EQ(a.score, b.score);
        EXPECT_EQ(a.deep, b.deep);
        EXPECT_EQ(a.rank, b.rank);
    }
}

int32_t count_text(const std::string& text, const std::string& part) {
    int32_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// Every frame sent is found once and nothing else.
void expect_all(const Outcome& result, const std::vector<Sent>& sent, double within_db) {
    EXPECT_EQ(result.spots.size(), sent.size());
    for (const Sent& s : sent) {
        SCOPED_TRACE(s.call + " at " + std::to_string(s.freq) + " Hz, " + std::to_string(s.snr) + " dB");
        int32_t times = 0;
        for (const ov_spot& spot : result.spots) {
            if (s.call != spot.call || std::fabs(spot.t - s.t) > 1) continue;
            ++times;
            EXPECT_EQ(spot.protocol, s.protocol);
            EXPECT_EQ(spot.locator, s.locator);
            EXPECT_NEAR(spot.t, s.t, 0.07);
            EXPECT_NEAR(spot.freq, s.freq, 1.0);
            EXPECT_NEAR(spot.snr, s.snr, within_db);
        }
        EXPECT_EQ(times, 1);
    }
}

// ---- Many stations -------------------------------------------------------------------------------------------------

TEST(WideDecode, FindsTwentyStationsOfThreeProtocolsInAFastRecording) {
    constexpr int32_t RATE = 96000;
    IqSamples iq = render(43, RATE, 7, std::vector<Station>{});
    Random random(41);
    std::vector<Sent> sent;
    for (int32_t k = 0; k < 20; ++k) {
        const int32_t protocol = k % 4 == 2 ? OVL_ORVEL_S : k % 4 == 3 ? OVL_ORVEL_L : OVL_OPERA;
        const double frame_s = ovl_frame_chips(static_cast<uint32_t>(protocol)) * CHIP_SECONDS;
        std::string locator;
        if (protocol == OVL_ORVEL_L) {
            for (const auto& [low, high] : {std::array{'A', 'R'}, {'A', 'R'}, {'0', '9'}, {'0', '9'}}) {
                locator.push_back(static_cast<char>(random.integer(low, high)));
            }
        }
        sent.push_back({protocol, random.callsign(), locator, random.uniform(0.5, 42.5 - frame_s),
                        -45000 + 90000.0 * k / 19 + random.uniform(-900, 900), random.uniform(-18, -10)});
        key_fast(iq, RATE, Scene{}.noise_rms, sent.back());
    }
    ov_params params = band(0, 47000);
    params.max_cands = 6;
    const Outcome result = decode(iq, RATE, params, 6, 100, 100);
    expect_all(result, sent, 1.5);
}

TEST(WideDecode, GivesWhatOneScanAndNarrowDecodesGive) {
    const std::vector<Sent> sent = {
        opera("AA1AA", 2, -1500, -8),
        {OVL_ORVEL_S, "BB2BB", "", 6.5, -701.3, -10},
        {OVL_ORVEL_L, "CC3CC", "JO31", 3, 250, -9},
        opera("DD4DD", 10, 1333, -14),
        opera("EE5EE", 14, 1700, -5),
    };
    const IqSamples iq = render(46, 4000, 3, sent);
    ov_params params = band(0, 1900);
    params.max_cands = 6;
    EXPECT_EQ(decode(iq, 4000, params, 6, 1).text, "");
    params.verbose = 1;
    const Outcome result = decode(iq, 4000, params, 6);
    expect_equal(result, model(iq, 4000, params, 6));
    expect_all(result, sent, 1.5);
}

TEST(WideDecode, RealSamplesAreDecodedAsWell) {
    const std::vector<Sent> sent = {opera("AA1AA", 1, 400, -8), opera("BB2BB", 2, 2500, -8),
                                    opera("CC3CC", 3, 3600, -10)};
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 35;
    scene.stations = stations_of(sent);
    const IqSamples real{render_real(scene), {}};
    ov_params params = opera_band(2000, 2500);
    params.verbose = 1;
    const Outcome result = decode(real, 8000, params, 6);
    expect_all(result, sent, 1.5);
    expect_equal(result, model(real, 8000, params, 6));
}

TEST(WideDecode, OtherSpeedsAndSpreadReachTheTiles) {
    Sent slow = opera("AA1AA", 0, 0, 0);
    Station station{chips_of(slow), 1, 300, 0, -5, 0};
    const IqSamples iq = render(35, 2000, 5, {station});
    for (const auto& [op, spread] : std::vector<std::array<double, 2>>{{0.5, 3}, {0.5, 40}, {0.25, 0}, {0.4, 0}}) {
        ov_params params = opera_band(0, 900);
        params.op = op;
        params.spread_hz = spread;
        params.verbose = 1;
        const Outcome result = decode(iq, 2000, params, 6, 5);
        expect_equal(result, model(iq, 2000, params, 6, 5));
        EXPECT_GE(count_text(result.text, "--- tile "), 1) << op << ' ' << spread;
        EXPECT_EQ(count_text(result.text, "Spread mode: "), spread > 0 ? count_text(result.text, "--- tile ") : 0);
    }
}

// ---- Tiles ---------------------------------------------------------------------------------------------------------

IqSamples three_strengths() {
    return render(
        34, 2000, 9,
        std::vector<Sent>{opera("AA1AA", 2, -500, -12), opera("BB2BB", 1.5, 0, -2), opera("CC3CC", 1, 500, -7)});
}

std::vector<std::string> calls(const Outcome& result) {
    std::vector<std::string> names;
    for (const ov_spot& spot : result.spots) names.emplace_back(spot.call);
    return names;
}

TEST(WideDecode, TheStrongestFrequenciesAreExaminedFirst) {
    const IqSamples iq = three_strengths();
    const ov_params params = opera_band(0, 900);
    using Calls = std::vector<std::string>;
    EXPECT_EQ(calls(decode(iq, 2000, params, 8)), (Calls{"CC3CC", "BB2BB", "AA1AA"})) << "in order of time";
    EXPECT_EQ(calls(decode(iq, 2000, params, 8, 1)), Calls{"BB2BB"});
    EXPECT_EQ(calls(decode(iq, 2000, params, 8, 2)), (Calls{"CC3CC", "BB2BB"}));
    EXPECT_EQ(calls(decode(iq, 2000, params, 8, 50, 1)), Calls{"BB2BB"});
    EXPECT_EQ(calls(decode(iq, 2000, params, 8, 50, 2)), (Calls{"CC3CC", "BB2BB"}));
}

TEST(WideDecode, WithoutTilesOrRoomThereAreNoSpots) {
    const IqSamples iq = three_strengths();
    ov_params params = opera_band(0, 900);
    params.verbose = 1;
    for (const int32_t tiles : {0, -1, std::numeric_limits<int32_t>::min()}) {
        const Outcome none = decode(iq, 2000, params, 8, tiles);
        EXPECT_EQ(none.count, 0);
        EXPECT_NE(none.text.find("\nScan: 0 frequencies above 8.0 sigma\n"), std::string::npos);
        EXPECT_EQ(count_text(none.text, "\n"), 2);
    }
    for (const int32_t room : {0, -1, std::numeric_limits<int32_t>::min()}) {
        const Outcome none = decode(iq, 2000, params, 8, 3, room);
        EXPECT_EQ(none.count, 0);
        EXPECT_NE(none.text.find("\nScan: 3 frequencies above 8.0 sigma\n"), std::string::npos);
        EXPECT_EQ(count_text(none.text, "--- tile"), 0);
    }
    EXPECT_EQ(ov_decode_wide(iq.i.data(), iq.q.data(), static_cast<int32_t>(iq.i.size()), 2000, opera_band(0, 900), 8,
                             3, nullptr, 0),
              0);
}

TEST(WideDecode, WithTooLittleRoomATileGivesItsFirstSpots) {
    const IqSamples iq = render(66, 1000, 4, {opera("AA1AA", 1, 0, -8), opera("BB2BB", 34, 5, -5)});
    ASSERT_EQ(calls(decode(iq, 1000, opera_band(0, 450), 20)), (std::vector<std::string>{"AA1AA", "BB2BB"}));
    const Outcome cut = decode(iq, 1000, opera_band(0, 450), 20, 1, 1);
    expect_equal(cut, model(iq, 1000, opera_band(0, 450), 20, 1, 1));
    EXPECT_EQ(calls(cut), (std::vector<std::string>{"AA1AA"}));
}

TEST(WideDecode, ReportsWhatTheScanFoundAndWhichTileItExamines) {
    const IqSamples iq = three_strengths();
    ov_params params = opera_band(0, 900);
    params.verbose = 1;
    const Outcome one = decode(iq, 2000, params, 8, 1);
    EXPECT_NE(one.text.find("\nScan: 1 frequency above 8.0 sigma\n--- tile 1/1: 0.0 Hz (scan z="), std::string::npos);

    const Outcome three = decode(iq, 2000, params, 8, 3);
    EXPECT_EQ(three.text.find("Scan: 461 bins of 3.91 Hz from -898 to 898 Hz, 1059 windows; jump statistic median "),
              0U);
    std::array<ov_hit, 3> hits;
    ASSERT_EQ(ov_scan(iq.i.data(), iq.q.data(), static_cast<int32_t>(iq.i.size()), 2000, 0.128, -900, 900, 8, 30, 3,
                      hits.data(), nullptr, 0),
              3);
    std::size_t at = three.text.find("\nScan: 3 frequencies above 8.0 sigma\n");
    for (std::size_t k = 0; k < 3; ++k) {
        std::array<char, 100> line;
        std::snprintf(line.data(), line.size(), "\n--- tile %d/3: %.1f Hz (scan z=%.1f)\n", static_cast<int>(k) + 1,
                      hits[k].freq_hz, hits[k].z);
        ASSERT_NE(at, std::string::npos);
        at = three.text.find(line.data(), at);
    }
    EXPECT_NE(at, std::string::npos);

    const Outcome none = decode(iq, 2000, params, 1e6);
    EXPECT_EQ(none.count, 0);
    EXPECT_NE(none.text.find("\nScan: 0 frequencies above 1000000.0 sigma\n"), std::string::npos);
    EXPECT_EQ(count_text(none.text, "\n"), 2);
}

TEST(WideDecode, TheFalseAlarmsOfTheDeepSearchAreSharedOutOverTheTiles) {
    const IqSamples iq = three_strengths();
    ovc_known known{};
    ASSERT_EQ(ovc_known_init("ZZ9ZZ", &known), 0);
    ov_params params = opera_band(0, 900);
    params.verbose = 1;
    params.known = &known;
    params.n_known = 1;
    for (const int32_t tiles : {1, 2, 3}) {
        const Outcome result = decode(iq, 2000, params, 8, tiles);
        expect_equal(result, model(iq, 2000, params, 8, tiles));

        // 34 s at 250 Hz in steps of an eighth or sixteenth of a chip, guarded by a fifth of a frame at both ends, and
        // 20 Hz to both sides: the grid of one tile.
        BasebandOwner bb;
        ASSERT_EQ(ov_baseband_iq(iq.i.data(), iq.q.data(), static_cast<int32_t>(iq.i.size()), 2000, 0, 250, bb), 0);
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(bb, 0.128, 20, 0, map), 0);
        std::array<ovc_deep_hit, 64> hits;
        double threshold = 0;
        ovc_deep_search(&map, &known, 1, -1e9, 1e9, 20, 0.2, 0.0001 / tiles, 64, hits.data(), &threshold);
        std::array<char, 100> line;
        std::snprintf(line.data(), line.size(), "Deep search: 1 known callsign(s), threshold Z=%.2f, ", threshold);
        EXPECT_EQ(count_text(result.text, line.data()), tiles) << line.data() << result.text;
    }
}

// ---- Duplicates ----------------------------------------------------------------------------------------------------

// C transmits between the frequencies of two stronger stations A and B, at another time: it shows in both their tiles
// and has none of its own.
TEST(WideDecode, AStationBetweenTwoTilesIsReportedOnceAsTheStrongerOne) {
    Merges merges;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        const std::vector<Sent> sent = {opera("AA1AA", 1, 0, -5), opera("BB2BB", 1.5, 36, -5),
                                        opera("CC3CC", 34, 18, -12)};
        const IqSamples iq = render(66, 1000, seed, sent);
        const Outcome expected = model(iq, 1000, opera_band(0, 450), 20, 50, 64, &merges);
        const Outcome result = decode(iq, 1000, opera_band(0, 450), 20);
        expect_equal(result, expected);
        ASSERT_EQ(calls(result), (std::vector<std::string>{"AA1AA", "BB2BB", "CC3CC"}));
        EXPECT_NEAR(result.spots[2].freq, 18, 1);
    }
    EXPECT_GT(merges.stronger_replaced, 0);
    EXPECT_GT(merges.weaker_dropped, 0);
}

// One candidate is examined in each tile. In that of A this is A, and C next to it is left to the deep search; the
// second tile is that of C's other transmitter, which is weaker.
TEST(WideDecode, AnOrdinaryDecodeReplacesADeepOne) {
    ovc_known known{};
    ASSERT_EQ(ovc_known_init("CC3CC", &known), 0);
    ov_params params = opera_band(0, 450);
    params.known = &known;
    params.n_known = 1;
    params.max_cands = 1;
    const IqSamples iq =
        render(140, 1000, 1,
               std::vector<Sent>{opera("AA1AA", 1, 0, -5), opera("CC3CC", 34, 18, -8), opera("CC3CC", 34, 60, -13)});
    Merges merges;
    const Outcome expected = model(iq, 1000, params, 8, 2, 64, &merges);
    EXPECT_EQ(merges.deep_replaced, 1);
    const Outcome result = decode(iq, 1000, params, 8, 2);
    expect_equal(result, expected);
    ASSERT_EQ(calls(result), (std::vector<std::string>{"AA1AA", "CC3CC"}));
    EXPECT_EQ(result.spots[1].deep, 0);
    EXPECT_NEAR(result.spots[1].freq, 60, 1);
}

// A is over before the frames that are asked for begin, so that C is the candidate of its tile; B is that of the
// second, where C's other, stronger transmitter is left to the deep search.
TEST(WideDecode, ADeepDecodeNeverReplacesAnOrdinaryOne) {
    ovc_known known{};
    ASSERT_EQ(ovc_known_init("CC3CC", &known), 0);
    ov_params params = opera_band(0, 450);
    params.known = &known;
    params.n_known = 1;
    params.max_cands = 1;
    params.start_min = 32;
    const IqSamples iq = render(160, 1000, 1,
                                std::vector<Sent>{opera("AA1AA", 1, 0, 0), opera("CC3CC", 34, 18, -12),
                                                  opera("CC3CC", 34, 78, -8), opera("BB2BB", 67, 60, -4)});
    Merges merges;
    const Outcome expected = model(iq, 1000, params, 8, 2, 64, &merges);
    EXPECT_EQ(merges.deep_dropped, 1);
    const Outcome result = decode(iq, 1000, params, 8, 2);
    expect_equal(result, expected);
    ASSERT_EQ(calls(result), (std::vector<std::string>{"CC3CC", "BB2BB"}));
    EXPECT_EQ(result.spots[0].deep, 0);
    EXPECT_NEAR(result.spots[0].freq, 18, 1);
}

TEST(WideDecode, OfTwoDeepDecodesTheFirstStays) {
    const IqSamples iq =
        render(66, 1000, 2,
               std::vector<Sent>{opera("AA1AA", 1, 0, 0), opera("BB2BB", 1.5, 36, -2), opera("CC3CC", 34, 18, -12)});
    ovc_known known{};
    ASSERT_EQ(ovc_known_init("CC3CC", &known), 0);
    ov_params params = opera_band(0, 450);
    params.known = &known;
    params.n_known = 1;
    params.max_cands = 0;
    Merges merges;
    const Outcome expected = model(iq, 1000, params, 8, 2, 64, &merges);
    EXPECT_EQ(merges.deep_after_deep, 1);
    const Outcome result = decode(iq, 1000, params, 8, 2);
    expect_equal(result, expected);
    ASSERT_EQ(calls(result), std::vector<std::string>{"CC3CC"});
    EXPECT_EQ(result.spots[0].deep, 1);
}

TEST(WideDecode, TheSameCallsignIsReportedAgainAfterHalfAFrame) {
    struct Case {
        double later_s;
        double second_snr;
        std::size_t spots;
    };
    for (const Case& c : {Case{0, -6, 1}, Case{HALF_FRAME_S - 0.2, -6, 1}, Case{HALF_FRAME_S - 0.2, -12, 1},
                          Case{HALF_FRAME_S + 0.2, -6, 2}, Case{20, -6, 2}}) {
        SCOPED_TRACE(c.later_s);
        const std::vector<Sent> sent = {opera("AA1AA", 1, -300, -9), opera("AA1AA", 1 + c.later_s, 300, c.second_snr)};
        const IqSamples iq = render(33 + c.later_s, 1000, 4, sent);
        const Outcome result = decode(iq, 1000, opera_band(0, 450), 8);
        ASSERT_EQ(result.spots.size(), c.spots);
        if (c.spots == 2) {
            expect_all(result, sent, 1.5);
        } else {
            EXPECT_NEAR(result.spots[0].freq, c.second_snr > -9 ? 300 : -300, 1);
        }
    }
}

// ---- Nothing to find -----------------------------------------------------------------------------------------------

// Carriers, drifting ones among them, and words of short and long marks at the speed of the chips and slower.
std::vector<Station> hostile_stations() {
    std::vector<Station> stations;
    for (int32_t k = 0; k < 4; ++k) {
        stations.push_back({std::vector<uint8_t>(400, 1), -2, -1800.0 + 300 * k, 0.01 * k, -12.0 + 4 * k, 1});
    }
    Random random(6);
    for (int32_t k = 0; k < 6; ++k) {
        const auto unit = static_cast<std::size_t>(1 + k % 2);
        std::vector<uint8_t> marks;
        while (marks.size() < 340) {
            marks.insert(marks.end(), unit * (random.integer(0, 1) == 1 ? 3 : 1), 1);
            marks.insert(marks.end(), unit * (random.integer(0, 3) == 0 ? 3 : 1), 0);
        }
        stations.push_back({marks, 0, 100.0 + 250 * k, 0, -10.0 + 3 * k, 1});
    }
    return stations;
}

TEST(WideDecode, InventsNothing) {
    std::vector<ovc_known> known(20);
    Random random(6);
    for (ovc_known& entry : known) ASSERT_EQ(ovc_known_init(random.callsign().c_str(), &entry), 0);
    for (const bool bursts : {false, true}) {
        IqSamples iq = render(45, 4000, 8, hostile_stations());
        for (int32_t burst = 0; bursts && burst < 5; ++burst) {
            const auto at = static_cast<std::size_t>(random.integer(0, 160000));
            for (std::size_t k = at; k < at + 2000; ++k) {
                iq.i[k] += random.normal();
                iq.q[k] += random.normal();
            }
        }
        ov_params params = band(0, 1950);
        params.max_cands = 10;
        params.known = known.data();
        params.n_known = static_cast<int32_t>(known.size());
        params.verbose = 1;
        const Outcome result = decode(iq, 4000, params, bursts ? 0 : 8, 10);
        EXPECT_EQ(calls(result), std::vector<std::string>{});
        EXPECT_GE(count_text(result.text, "--- tile "), 6);
    }
}

TEST(WideDecode, SilenceHoldsNothing) {
    IqSamples iq{std::vector<double>(40000), std::vector<double>(40000)};
    EXPECT_EQ(decode(iq, 1000, opera_band(0, 450), 6).count, 0);
    EXPECT_EQ(decode(iq, 1000, opera_band(0, 450), -1).count, 0);
    iq.q.clear();
    EXPECT_EQ(decode(iq, 1000, opera_band(200, 150), 6).count, 0);
}

TEST(WideDecode, ADeadChannelStillShowsTheStation) {
    IqSamples iq = render(33, 1000, 5, std::vector<Sent>{opera("AA1AA", 1, 200, 0)});
    std::fill(iq.q.begin(), iq.q.end(), 0.0);
    const Outcome result = decode(iq, 1000, opera_band(0, 450), 8);
    EXPECT_EQ(calls(result), std::vector<std::string>{"AA1AA"});
}

// ---- Failures ------------------------------------------------------------------------------------------------------

TEST(WideDecode, SamplesThatAreNoNumbersAreRefusedWhereThereIsSomethingToDecode) {
    for (const double bad : {NAN_D, INF_D, -INF_D}) {
        IqSamples iq = render(34, 1000, 5, std::vector<Sent>{opera("AA1AA", 3, 200, 0)});
        std::fill(iq.i.begin() + 500, iq.i.begin() + 900, bad);
        EXPECT_EQ(decode(iq, 1000, opera_band(0, 450), 8).count, -1);
    }
}

TEST(WideDecode, RefusesWhatCannotBeScanned) {
    const IqSamples iq = render(34, 1000, 5, std::vector<Sent>{opera("AA1AA", 1, 200, 0)});
    ASSERT_EQ(decode(iq, 1000, opera_band(0, 450), 8).count, 1);
    for (const double bad : {NAN_D, INF_D, -INF_D, 1e300, 3000.0}) {
        EXPECT_EQ(decode(iq, 1000, opera_band(bad, 450), 8).count, -1) << "centre " << bad;
    }
    for (const double bad : {NAN_D, -INF_D, -1e300, -450.0, 0.0, 7.0}) {
        EXPECT_EQ(decode(iq, 1000, opera_band(0, bad), 8).count, -1) << "width " << bad;
    }
    for (const double all : {501.0, 1e300}) {
        EXPECT_EQ(decode(iq, 1000, opera_band(0, all), 8).count, 1) << "width " << all;
    }
    for (const double bad : {NAN_D, 0.0, -0.5, INF_D, -INF_D, 1e300, 1e-300, 0.02, 1e3}) {
        ov_params params = opera_band(0, 450);
        params.op = bad;
        EXPECT_EQ(decode(iq, 1000, params, 8).count, -1) << "op " << bad;
    }
    for (const double bad : {NAN_D, INF_D, 1e300}) {
        ov_params params = opera_band(0, 450);
        params.spread_hz = bad;
        EXPECT_EQ(decode(iq, 1000, params, 8).count, -1) << "spread " << bad;
    }
    for (const int32_t rate : {0, -1, 1, std::numeric_limits<int32_t>::max()}) {
        EXPECT_EQ(decode(iq, rate, opera_band(0, 450), 8).count, -1) << rate << " Hz";
    }
    for (const int32_t n : {0, -1, 1, 1000, std::numeric_limits<int32_t>::min()}) {
        ov_spot spot;
        EXPECT_EQ(ov_decode_wide(iq.i.data(), iq.q.data(), n, 1000, opera_band(0, 450), 8, 3, &spot, 1), -1) << n;
    }
}

TEST(WideDecode, TheScanThresholdMayBeAnyNumber) {
    const IqSamples iq = render(34, 1000, 5, std::vector<Sent>{opera("AA1AA", 1, 200, 0)});
    for (const double none : {NAN_D, INF_D, 1e300})
        EXPECT_EQ(decode(iq, 1000, opera_band(0, 450), none).count, 0) << none;
    for (const double all : {-INF_D, -1e300, 0.0}) {
        EXPECT_EQ(calls(decode(iq, 1000, opera_band(0, 450), all, 4)), std::vector<std::string>{"AA1AA"}) << all;
    }
}

// A rate whose prime factors do not fit gives no spectrum, but only where there is something to decode.
TEST(WideDecode, WithoutASpectrumItFailsOnlyWhenSomethingIsKeyed) {
    const IqSamples station = render(34, 1009, 5, std::vector<Sent>{opera("AA1AA", 1, 200, 0)});
    EXPECT_EQ(decode(station, 1009, opera_band(0, 450), 8).count, -1);
    EXPECT_EQ(decode(station, 1009, opera_band(0, 450), 8, 50, 0).count, -1);
    const IqSamples noise = render(34, 1009, 5, std::vector<Sent>{});
    EXPECT_EQ(decode(noise, 1009, opera_band(0, 450), 8).count, 0);
}

}  // namespace
