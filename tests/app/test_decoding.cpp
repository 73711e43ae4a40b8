// Decodes of one block: the bands that it is cut into, the way from fast samples to a baseband, neighbours in a band,
// and SNRs beside a filter's edge.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "decoding/bands.h"
#include "decoding/decimation.h"
#include "decoding/decode_block.h"
#include "decoding/finds.h"
#include "ovbb.h"
#include "ovfft.h"
#include "ovpassband.h"
#include "owners.h"
#include "protocol.h"
#include "siggen.h"

namespace {

Search search_of(double center_hz, double search_hz) {
    Search search;
    search.center_hz = center_hz;
    search.search_hz = search_hz;
    search.protocols = OVL_OPERA;
    return search;
}

Station station(const std::string& call, double freq_hz, double snr_db, double t_start = 5) {
    return {.chips = opera_chips(call), .t_start = t_start, .freq_hz = freq_hz, .snr_db = snr_db};
}

// Leaves of real samples the frequencies between two.
void filter(std::vector<double>& samples, int32_t rate, double low_hz, double high_hz) {
    const auto n = static_cast<int32_t>(samples.size());
    const auto bins = fftw_array<std::complex<double>>(n);
    std::copy(samples.begin(), samples.end(), bins.get());
    fftw_execute(plan_complex(n, bins.get(), bins.get(), FFTW_FORWARD).get());
    for (int32_t k = 0; k < n; k++) {
        const double f = std::min(k, n - k) * (static_cast<double>(rate) / n);
        if (f < low_hz || f > high_hz) bins[static_cast<std::size_t>(k)] = 0;
    }
    fftw_execute(plan_complex(n, bins.get(), bins.get(), FFTW_BACKWARD).get());
    for (int32_t k = 0; k < n; k++) samples[static_cast<std::size_t>(k)] = bins[static_cast<std::size_t>(k)].real() / n;
}

// ---- Bands ----------------------------------------------------------------------------------------------------------

const std::vector<double> SILENCE(8000);
const Block AUDIO = {SILENCE, {}, 8000};

TEST(Bands, UpTo250HzEachSideAreDecodedAtOnce) {
    for (const double half : {0.0, 60.0, 200.0, 250.0}) EXPECT_TRUE(is_one_band(search_of(1500, half)));
    EXPECT_FALSE(is_one_band(search_of(1500, 251)));
}

TEST(Bands, AWiderSearchIsCoveredByNeighboursWithinTheBandOfTheSamples) {
    for (const double half : {251.0, 400.0, 1000.0, 2000.0, 1e9}) {
        const auto bands = bands_of(AUDIO, search_of(1500, half));
        ASSERT_TRUE(bands && !bands->empty());
        const double first = std::max(0.0, 1500 - half);
        const double last = std::min(4000.0, 1500 + half);
        EXPECT_NEAR(bands->front().center_hz - bands->front().half_hz, first, 1e-6);
        EXPECT_NEAR(bands->back().center_hz + bands->back().half_hz, last, 1e-6);
        for (std::size_t k = 0; k < bands->size(); k++) {
            EXPECT_LE((*bands)[k].half_hz, MOST_BAND_HZ / 2);
            if (k == 0) continue;
            const double overlap =
                (*bands)[k - 1].center_hz + (*bands)[k - 1].half_hz - ((*bands)[k].center_hz - (*bands)[k].half_hz);
            EXPECT_NEAR(overlap, 4, 1e-6);
        }
    }
}

TEST(Bands, ASearchBesideTheBandOfTheSamplesHasNone) {
    const auto bands = bands_of(AUDIO, search_of(9000, 1000));
    ASSERT_TRUE(bands);
    EXPECT_TRUE(bands->empty());
}

// ---- Decimation -----------------------------------------------------------------------------------------------------

// Noise, with carriers within and beside the band that are far stronger.
struct Fast {
    Fast(int32_t rate_hz, std::size_t n, bool iq, double center_hz, uint64_t seed)
        : rate(rate_hz), x(n), q(iq ? n : 0) {
        Random random(seed);
        for (const double off_hz : {-249.0, 3.0, 251.0, 1999.0}) {
            const double turn = 2 * std::numbers::pi * (center_hz + off_hz) / rate;
            for (std::size_t k = 0; k < n; k++) {
                x[k] += 100 * std::cos(turn * static_cast<double>(k)) + random.normal();
                if (iq) q[k] += 100 * std::sin(turn * static_cast<double>(k)) + random.normal();
            }
        }
    }

    Block block() const { return {x, q, rate}; }
    int whole_baseband(double center_hz, ov_baseband& out) const {
        const auto n = static_cast<int32_t>(x.size());
        return q.empty() ? ov_baseband_real(x.data(), n, rate, center_hz, 500, out)
                         : ov_baseband_iq(x.data(), q.data(), n, rate, center_hz, 500, out);
    }

    int32_t rate;
    std::vector<double> x, q;
};

// The greatest difference of two basebands, of the greatest sample.
double difference_of(const ov_baseband& a, const ov_baseband& b) {
    double most = 0;
    double apart = 0;
    for (int32_t k = 0; k < a.n; k++) {
        most = std::max(most, std::abs(b.samples[k]));
        apart = std::max(apart, std::abs(a.samples[k] - b.samples[k]));
    }
    return apart / most;
}

TEST(Decimation, GivesTheBasebandOfTheWholeTransform) {
    struct Case {
        int32_t rate;
        std::size_t n;
        bool iq;
        double center_hz;
    };
    const Case cases[] = {{48000, 48000 * 3, true, 0},          {48000, 100003, true, -17123.4},
                          {44100, 70001, true, 9000},           {96000, 96000, true, 47900},
                          {48000, 48000 * 2, false, 1500},      {48000, 77777, false, 23700},
                          {192000, 192000, false, 60000.00001}, {24000, 30000, true, 700}};
    uint64_t seed = 1;
    for (const Case& c : cases) {
        const Fast fast(c.rate, c.n, c.iq, c.center_hz, seed++);
        EXPECT_GT(decimation_factor(c.rate, static_cast<int64_t>(c.n), c.rate, 250), 1) << c.rate;
        BasebandOwner decimated;
        BasebandOwner whole;
        ASSERT_EQ(baseband_around(fast.block(), c.center_hz, 500, decimated), 0);
        ASSERT_EQ(fast.whole_baseband(c.center_hz, whole), 0);
        ASSERT_EQ(decimated.n, whole.n) << c.rate;
        EXPECT_EQ(decimated.rate, whole.rate);
        EXPECT_EQ(decimated.centre, whole.centre) << c.rate;
        const double difference = difference_of(decimated, whole);
        EXPECT_LT(difference, 1e-11) << c.rate << ' ' << c.center_hz;
        EXPECT_GT(difference, 0) << "another way";
    }
}

TEST(Decimation, IsLeftOutWhereItGainsNothingOrTheBandReachesPastTheSamples) {
    const Fast slow(12000, 24000, false, 1500, 1);
    const Fast real(48000, 48000, false, 1500, 2);
    for (const auto& [fast, center_hz] : {std::pair(&slow, 1500.0), {&real, 200.0}, {&real, 23800.0}, {&real, 0.0}}) {
        BasebandOwner one;
        BasebandOwner other;
        ASSERT_EQ(baseband_around(fast->block(), center_hz, 500, one), 0);
        ASSERT_EQ(fast->whole_baseband(center_hz, other), 0);
        EXPECT_EQ(difference_of(one, other), 0) << center_hz;
    }
}

TEST(Decimation, TakesNoMoreMemoryThanTheSamples) {
    EXPECT_EQ(decimation_factor(4'000'000, 1000, 2'000'000'000, 250), 1);
    EXPECT_LE(decimation_factor(4'000'000, 1'000'000, 2'000'000'000, 250), 1000);
}

TEST(Decimation, RefusesWhatTheWholeTransformRefuses) {
    Fast fast(48000, 48000, true, 0, 1);
    BasebandOwner baseband;
    for (const double center_hz : {HUGE_VAL, std::nan(""), 1e300}) {
        EXPECT_EQ(baseband_around(fast.block(), center_hz, 500, baseband), -1);
    }
    EXPECT_EQ(baseband_around({fast.x, fast.q, 47777}, 0, 500, baseband), -1) << "a rate without sizes";
    for (const std::size_t place : {std::size_t{0}, std::size_t{33}, fast.q.size() - 1}) {
        const double sample = std::exchange(fast.q[place], std::nan(""));
        EXPECT_EQ(baseband_around(fast.block(), 0, 500, baseband), -1) << place;
        fast.q[place] = sample;
    }
    EXPECT_EQ(baseband_around(fast.block(), 0, 500, baseband), 0);
}

// ---- Neighbours -----------------------------------------------------------------------------------------------------

// Of two stations close together the weaker does not stand out by itself.
TEST(WideBlock, FindsBothOfTwoNeighboursAtAnySpacingEachOnce) {
#ifdef ORVEL_SANITIZED
    constexpr std::array SPACINGS = {16.0};
#else
    constexpr std::array SPACINGS = {12.0, 16.0, 21.0, 24.0, 29.0, 45.0};
#endif
    Random random(11);
    for (const double spacing : SPACINGS) {
        Scene scene;
        scene.rate = 6000;
        scene.seconds = 42;
        scene.seed = random.next();
        std::multiset<std::string> sent;
        for (int32_t pair = 0; pair < 3; pair++) {
            for (const int32_t weaker : {0, 1}) {
                const std::string call = random.callsign();
                sent.insert(call);
                scene.stations.push_back(station(call, -1400 + 1100.0 * pair + weaker * spacing,
                                                 weaker != 0 ? -16 : -10, random.uniform(1, 10)));
            }
        }
        const IqSamples samples = render_iq(scene);
        Search search;
        search.iq = true;
        search.wide = true;
        search.protocols = OVL_OPERA;
        const auto found = decode_block({samples.i, samples.q, scene.rate}, search);
        ASSERT_TRUE(found);
        std::multiset<std::string> calls;
        for (const Found& spot : *found) calls.insert(spot.call);
        EXPECT_EQ(calls, sent) << spacing;
    }
}

// ---- Finds of several bands
// ------------------------------------------------------------------------------------------

Found find(int32_t protocol, double t, double freq, double contrast) {
    Found found{};
    found.protocol = protocol;
    found.t = t;
    found.freq = freq;
    found.contrast = contrast;
    return found;
}

Found find(const char* call, double t, int32_t deep, double score) {
    Found found{};
    std::strncpy(found.call, call, sizeof found.call - 1);
    found.t = t;
    found.deep = deep;
    found.score = score;
    return found;
}

TEST(Finds, OfTwoOfAFrameThePlainerStaysThenTheBetterFit) {
    const struct {
        Found first, second;
        bool second_stays;
    } cases[] = {
        {find("K1ABC", 10, 0, 5), find("K1ABC", 10.1, 0, 6), true},
        {find("K1ABC", 10, 0, 6), find("K1ABC", 10.1, 0, 5), false},
        {find("K1ABC", 10, 1, 9), find("K1ABC", 10.1, 0, 5), true},
        {find("K1ABC", 10, 0, 5), find("K1ABC", 10.1, 1, 9), false},
    };
    for (const auto& [first, second, second_stays] : cases) {
        Finds finds;
        finds.add(std::array{first});
        finds.add(std::array{second});
        const std::vector<Found> all = finds.in_order_of_time();
        ASSERT_EQ(all.size(), 1u);
        EXPECT_EQ(all[0].t, (second_stays ? second : first).t);
    }
}

TEST(Finds, OtherCallsignsAndLaterFramesStandInOrderOfTime) {
    Finds finds;
    finds.add(std::array{find("K1ABC", 26, 0, 5), find("DL1QXA", 10.1, 0, 6)});
    finds.add(std::array{find("K1ABC", 10, 0, 5)});
    const std::vector<Found> all = finds.in_order_of_time();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].t, 10);
    EXPECT_EQ(all[1].t, 10.1);
    EXPECT_EQ(all[2].t, 26);
    EXPECT_TRUE(finds.in_order_of_time().empty());
}

TEST(Finds, WhatAFrameLeaksToItsSidesIsNoStation) {
    const Found frame = find(OVL_OPERA, 10, 1500, 40);
    EXPECT_TRUE(is_phantom(find(OVL_ORVEL_L, 5, 1484, 2), frame));
    EXPECT_TRUE(is_phantom(find(OVL_ORVEL_S, 20, 1520, 3.9), frame));
    EXPECT_FALSE(is_phantom(find(OVL_ORVEL_L, 5, 1484, 4.1), frame)) << "too strong for a leak";
    EXPECT_FALSE(is_phantom(find(OVL_ORVEL_L, 5, 1531, 2), frame)) << "too far away";
    EXPECT_FALSE(is_phantom(find(OVL_ORVEL_S, 26, 1484, 2), frame)) << "less than half at the same time";
    EXPECT_FALSE(is_phantom(find(OVL_OPERA, 10, 1484, 2), frame)) << "a neighbour of the same protocol";
}

TEST(Finds, BesideAFrameOnlyStationsAreAdded) {
    Found frame = find("K1ABC", 10, 0, 5);
    Found leak = find("QX1X", 5, 0, 4);
    Found neighbour = find("DL1QXA", 12, 0, 4);
    frame.protocol = neighbour.protocol = OVL_OPERA;
    leak.protocol = OVL_ORVEL_L;
    frame.freq = 1500;
    leak.freq = neighbour.freq = 1516;
    frame.contrast = 40;
    leak.contrast = neighbour.contrast = 2;
    Finds finds;
    finds.add(std::array{frame});
    finds.add_rest({leak, neighbour});
    const std::vector<Found> all = finds.in_order_of_time();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_STREQ(all[0].call, "K1ABC");
    EXPECT_STREQ(all[1].call, "DL1QXA");
}

// ---- SNR ------------------------------------------------------------------------------------------------------------

class Passband : public testing::Test {
  protected:
    // The SNRs found in audio through a filter, less those sent.
    std::vector<double> errors(double low_hz, double high_hz, const Search& search, const std::vector<double>& freqs) {
        Scene scene;
        scene.rate = 8000;
        scene.seconds = 40;
        Random random(5);
        for (const double freq : freqs) scene.stations.push_back(station(random.callsign(), freq, -14));
        std::vector<double> samples = render_real(scene);
        filter(samples, scene.rate, low_hz, high_hz);
        const auto found = decode_block({samples, {}, scene.rate}, search);
        EXPECT_TRUE(found && found->size() == freqs.size());
        std::vector<double> out;
        for (const Found& spot : *found) out.push_back(spot.snr + 14);
        return out;
    }
};

TEST_F(Passband, SnrIsRightWhereTheSearchIsWiderThanTheFilter) {
    for (const double search_hz : {1000.0, 1400.0, 3000.0}) {
        for (const double error : errors(300, 2700, search_of(1500, search_hz), {700, 1500, 2300})) {
            EXPECT_NEAR(error, 0, 1) << search_hz;
        }
    }
}

TEST_F(Passband, SnrIsRightBesideTheEdgesOfAFilterAndOfTheBand) {
    for (const double error : errors(300, 2700, search_of(330, 200), {330})) EXPECT_NEAR(error, 0, 1.2);
    for (const double error : errors(300, 2700, search_of(2600, 200), {2670})) EXPECT_NEAR(error, 0, 1.2);
    for (const double error : errors(0, 4000, search_of(100, 200), {60})) EXPECT_NEAR(error, 0, 1.2);
    for (const double error : errors(0, 4000, search_of(3950, 250), {3950})) EXPECT_NEAR(error, 0, 1.2);
}

TEST_F(Passband, SnrIsRightThroughATelegraphyFilter) {
    for (const double width : {120.0, 200.0, 400.0}) {
        for (const double error : errors(1500 - width / 2, 1500 + width / 2, search_of(1500, 200), {1495})) {
            EXPECT_NEAR(error, 0, 1.5) << width;
        }
    }
}

// Where nothing is missing the library's value stands, also beside strong carriers and keyed neighbours.
TEST_F(Passband, SnrIsTheLibrarysWhereNoiseFillsTheBaseband) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 40;
    Random random(5);
    scene.stations = {station(random.callsign(), 1500, -14), station(random.callsign(), 1540, 5),
                      station(random.callsign(), 1420, 0)};
    scene.stations.push_back({.chips = std::vector<uint8_t>(310, 1), .freq_hz = 1600, .snr_db = 15});
    const std::vector<double> samples = render_real(scene);
    const Search search = search_of(1500, 200);
    const auto found = decode_block({samples, {}, scene.rate}, search);
    ov_params params = decode_params(search);
    params.max_cands = 120;
    std::vector<ov_spot> spots(64);
    spots.resize(static_cast<std::size_t>(
        ov_decode_real(samples.data(), static_cast<int32_t>(samples.size()), scene.rate, params, spots.data(), 64)));
    ASSERT_TRUE(found && found->size() == 3);
    ASSERT_EQ(spots.size(), 3u);
    for (std::size_t k = 0; k < 3; k++) EXPECT_EQ((*found)[k].snr, spots[k].snr);
}

TEST_F(Passband, DigitalSilenceAroundAFrameIsNoPassband) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 40;
    scene.noise = false;
    scene.stations = {station("K2QRX", 1500, 0)};
    const std::vector<double> samples = render_real(scene);
    const auto found = decode_block({samples, {}, scene.rate}, search_of(1500, 200));
    ASSERT_TRUE(found && found->size() == 1);
    EXPECT_GT(found->front().snr, 10);
}

// Half of the bins are empty; of spots in the other half only frames are measured again.
TEST(WithinPassband, OnlyFramesOfAFilteredBandAreMeasuredAgain) {
    Scene scene;
    scene.rate = 1000;
    scene.seconds = 40;
    scene.stations = {station("K2QRX", 300, -14)};
    std::vector<double> samples = render_real(scene);
    filter(samples, scene.rate, 200, 400);
    ov_params params = decode_params(search_of(300, 100));
    params.center_hz = 300;
    BasebandOwner baseband;
    ASSERT_EQ(ov_baseband_real(samples.data(), static_cast<int32_t>(samples.size()), scene.rate, 300, 500, baseband),
              0);
    ov_spot frame{};
    std::strncpy(frame.call, "K2QRX", sizeof frame.call - 1);
    frame.protocol = OVL_OPERA;
    frame.t = 5;
    frame.freq = 300;
    const auto snr = [&](const ov_spot& spot) {
        std::vector<ov_spot> spots = {spot};
        ov_measure_within_passband(baseband, params, spots);
        return spots[0].snr;
    };
    frame.snr = 77;
    const double measured = snr(frame);
    EXPECT_NEAR(measured, -14, 1);
    ov_spot unknown = frame;
    unknown.protocol = 99;
    EXPECT_EQ(snr(unknown), OV_NO_SNR);
    ov_spot no_callsign = frame;
    std::strncpy(no_callsign.call, "?", sizeof no_callsign.call - 1);
    EXPECT_EQ(snr(no_callsign), OV_NO_SNR);
    params.snr_adjust = 0;
    EXPECT_NEAR(measured - snr(frame), ov_protocol_by_id(OVL_OPERA)->on_share_db, 1e-9);
    params.spread_hz = 1;
    EXPECT_EQ(snr(frame), 77) << "as it was where the energies are spread";
}

TEST(WithinPassband, AShortBasebandCountsAsFilled) {
    std::vector<std::complex<double>> samples(100);
    const ov_baseband baseband = {samples.data(), 100, 500, 0};
    EXPECT_EQ(ov_filled_bins(baseband, 64), std::vector<uint8_t>(64, 1));
}

}  // namespace
