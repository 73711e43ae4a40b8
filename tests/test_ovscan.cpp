// The frequency scan against a plain model that sums every run afresh, its rules about peaks, bands and failures, and
// the keyed detection that hosts call.
#include "ovscan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include "failing_memory.h"
#include "liborvel.h"
#include "scan_model.h"
#include "siggen.h"

namespace {

using scan_model::Input;
using scan_model::Result;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr ov_hit UNWRITTEN = {-77, -77};

// ---- Input
// -----------------------------------------------------------------------------------------------------------

// Samples without anything in them.
Input silence(int32_t rate, double seconds, bool is_complex) {
    Input input;
    input.rate = rate;
    input.re.assign(static_cast<std::size_t>(seconds * rate), 0.0);
    if (is_complex) input.im = input.re;
    input.f_lo = is_complex ? -rate / 2.0 : 0;
    input.f_hi = rate / 2.0;
    return input;
}

void add_noise(Input& input, uint64_t seed, double rms = 1) {
    Random random(seed);
    for (double& x : input.re) x += rms * random.normal();
    for (double& x : input.im) x += rms * random.normal();
}

// A tone whose amplitude is amplitude(sample).
template <class Amplitude>
void add_tone(Input& input, double freq_hz, Amplitude amplitude) {
    for (std::size_t k = 0; k < input.re.size(); ++k) {
        const double a = amplitude(k);
        if (a == 0) continue;
        const double turns = freq_hz * static_cast<double>(k) / input.rate;
        const double phase = 2 * std::numbers::pi * (turns - std::floor(turns)) + 0.3;
        input.re[k] += a * std::cos(phase);
        if (!input.im.empty()) input.im[k] += a * std::sin(phase);
    }
}

void add_carrier(Input& input, double freq_hz, double amplitude) {
    add_tone(input, freq_hz, [&](std::size_t) { return amplitude; });
}

// Keyed at random from second `from` to second `to`, in step with chips that start at second `from`.
void add_station(Input& input, double freq_hz, double amplitude, uint64_t seed, double from = 0, double to = 1e9) {
    Random random(seed);
    std::vector<bool> chips;
    const double chip = input.win_s * input.rate;
    for (double k = 0; k < static_cast<double>(input.re.size()) + chip; k += chip) {
        chips.push_back(random.integer(0, 1) == 1);
    }
    add_tone(input, freq_hz, [&](std::size_t k) {
        const double t = static_cast<double>(k) - from * input.rate;
        if (t < 0 || static_cast<double>(k) >= to * input.rate) return 0.0;
        return chips[static_cast<std::size_t>(t / chip)] ? amplitude : 0.0;
    });
}

// ---- Scans
// -----------------------------------------------------------------------------------------------------------

struct Scan {
    int32_t count = 0;
    int32_t bins = -77;
    std::vector<ov_hit> hits;
};

Scan scan(const Input& input, int32_t verbose = 0) {
    Scan result;
    result.hits.assign(static_cast<std::size_t>(std::max(input.max_hits, 0)) + 1, UNWRITTEN);
    result.count = ov_scan_w(input.re.data(), input.imaginary(), input.n(), input.rate, input.win_s, input.f_lo,
                             input.f_hi, input.z_min, input.min_sep_hz, input.max_hits, result.hits.data(),
                             &result.bins, input.run_chips, input.var_min, verbose);
    const auto written = static_cast<std::size_t>(std::max(result.count, 0));
    EXPECT_LE(written, static_cast<std::size_t>(std::max(input.max_hits, 0)));
    for (std::size_t k = written; k < result.hits.size(); ++k) {
        EXPECT_EQ(result.hits[k].z, UNWRITTEN.z) << "past the hits";
    }
    result.hits.resize(std::min(written, result.hits.size()));
    return result;
}

std::vector<double> frequencies(const std::vector<ov_hit>& hits) {
    std::vector<double> freqs;
    for (const ov_hit& hit : hits) freqs.push_back(hit.freq_hz);
    return freqs;
}

void expect_same_hits(const std::vector<ov_hit>& found, const std::vector<ov_hit>& expected) {
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t k = 0; k < found.size(); ++k) {
        EXPECT_EQ(found[k].freq_hz, expected[k].freq_hz) << "hit " << k;
        EXPECT_NEAR(found[k].z, expected[k].z, 1e-6 * std::max(1.0, std::fabs(expected[k].z))) << "hit " << k;
    }
}

Result expect_like_model(const Input& input) {
    const Result expected = scan_model::expected_of(input);
    const Scan found = scan(input);
    if (expected.fails) {
        EXPECT_EQ(found.count, -1);
    } else {
        EXPECT_EQ(found.count, static_cast<int32_t>(expected.hits.size()));
        EXPECT_EQ(found.bins, expected.bins);
        expect_same_hits(found.hits, expected.hits);
    }
    return expected;
}

bool has_near(const std::vector<ov_hit>& hits, double freq_hz, double within_hz) {
    return std::any_of(hits.begin(), hits.end(),
                       [&](const ov_hit& hit) { return std::fabs(hit.freq_hz - freq_hz) <= within_hz; });
}

template <class T>
T pick(Random& random, const std::vector<T>& values) {
    return values[static_cast<std::size_t>(random.integer(0, static_cast<int32_t>(values.size()) - 1))];
}

// Noise, stations, carriers and bursts, scanned in every way.
Input random_input(uint64_t seed) {
    Random random(seed);
    Input input;
    input.rate = pick<int32_t>(random, {250, 1000, 4000, 8000, 11025, 48000, 192000});
    const int32_t window = pick<int32_t>(random, {8, 9, 10, 11, 16, 27, 32, 50, 63, 64});
    input.win_s = (window + random.uniform(-0.45, 0.45)) / input.rate;
    const double block = window * random.uniform(8.5, pick<double>(random, {12, 40, 120, 700}));
    input.re.assign(static_cast<std::size_t>(block), 0.0);
    const bool is_complex = random.integer(0, 1) == 1;
    if (is_complex) input.im = input.re;

    const double half = input.rate / 2.0;
    input.f_lo = pick<double>(random, {is_complex ? -half : 0, -2 * half, -0.3 * half, random.uniform(-half, half)});
    input.f_hi = input.f_lo + random.uniform(0.1, 3) * half;
    add_noise(input, seed + 1000, pick<double>(random, {0, 0.01, 1, 1e4}));
    for (int32_t k = random.integer(0, 3); k > 0; --k) {
        const double seconds = static_cast<double>(input.re.size()) / input.rate;
        const double freq = random.uniform(is_complex ? -half : 0, half);
        const double from = random.uniform(-0.2, 0.5) * seconds;
        add_station(input, freq, random.uniform(0.1, 3), random.next(), std::max(0.0, from), 2 * seconds);
    }
    if (random.integer(0, 1) == 1) add_carrier(input, random.uniform(0, half), random.uniform(0.1, 3));
    if (random.integer(0, 3) == 0) {
        const std::size_t at = input.re.size() / 3;
        for (std::size_t k = at; k < at + static_cast<std::size_t>(window); ++k) input.re[k] += 50 * random.normal();
    }
    input.z_min = pick<double>(random, {-1e9, 0, 0, 1, 3, 6});
    input.min_sep_hz = pick<double>(random, {0, 1, 3.5, 20}) * input.rate / (2.0 * window);
    input.max_hits = pick<int32_t>(random, {0, 1, 3, 1000, 1000, 1000, 1000, 1000});
    input.run_chips = pick<int32_t>(random, {-5, 0, 5, 15, 16, 17, 20, 50, 238, 1 << 30});
    input.var_min = pick<double>(random, {-1, 0, 0, 0.5, 0.85, 1.2});
    return input;
}

TEST(FrequencyScan, FindsWhatTheDefinitionSaysOnRandomInput) {
    int32_t hits = 0;
    int32_t failures = 0;
    int32_t carriers_ruled_out = 0;
    for (uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const Result expected = expect_like_model(random_input(seed));
        hits += static_cast<int32_t>(expected.hits.size());
        failures += expected.fails ? 1 : 0;
        carriers_ruled_out += static_cast<int32_t>(std::count(expected.statistic.begin(), expected.statistic.end(), 0));
        if (HasFatalFailure()) return;
    }
    EXPECT_GT(hits, 400);
    EXPECT_GT(failures, 3);
    EXPECT_GT(carriers_ruled_out, 100);
}

TEST(FrequencyScan, NoiseIsTakenFromEverySecondWindowOfMoreThanFourThousand) {
    for (const int32_t windows : {2000, 2001, 3999, 4000, 4001, 6100}) {
        SCOPED_TRACE(windows);
        Input input = silence(1000, 0, true);
        input.win_s = 0.008;
        input.re.assign(static_cast<std::size_t>(8 + 2 * (windows - 1)), 0.0);
        input.im = input.re;
        input.z_min = -1e9;
        add_noise(input, 5);
        // It grows, so that the choice of windows shows.
        for (std::size_t k = 0; k < input.re.size(); ++k) input.re[k] *= 1 + static_cast<double>(k) / 4000;
        EXPECT_EQ(expect_like_model(input).windows, windows);
    }
}

TEST(FrequencyScan, TheOrdinaryScanExaminesRunsOfOneFrameWithoutAVarianceTest) {
    for (uint64_t seed = 1; seed <= 5; ++seed) {
        Input input = silence(500, 60, true);
        add_noise(input, seed);
        add_station(input, 80, 0.2, seed + 10, 5, 40);
        add_carrier(input, -120, 1);
        input.z_min = 1;
        input.min_sep_hz = 30;
        input.run_chips = 238;
        input.var_min = 0;
        const Scan expected = scan(input);
        ASSERT_GT(expected.count, 3);
        std::vector<ov_hit> hits(100);
        int32_t bins = 0;
        hits.resize(
            static_cast<std::size_t>(ov_scan(input.re.data(), input.im.data(), input.n(), input.rate, input.win_s,
                                             input.f_lo, input.f_hi, input.z_min, 30, 100, hits.data(), &bins, 0)));
        EXPECT_EQ(bins, expected.bins);
        expect_same_hits(hits, expected.hits);
    }
}

TEST(FrequencyScan, ReportsOnRequestWhatItExamined) {
    for (const bool is_complex : {false, true}) {
        Input input = silence(1000, 20, is_complex);
        add_noise(input, 3);
        add_station(input, 101, 0.5, 4);
        const Result expected = scan_model::expected_of(input);
        testing::internal::CaptureStderr();
        scan(input);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        testing::internal::CaptureStderr();
        scan(input, 1);
        const std::string text = testing::internal::GetCapturedStderr();
        std::array<char, 300> line;
        std::snprintf(line.data(), line.size(),
                      "Scan: %d bins of 3.91 Hz from %d to 496 Hz, 622 windows; jump statistic median %.3f, sigma "
                      "%.4f\n",
                      is_complex ? 255 : 127, is_complex ? -496 : 4, expected.median, expected.sigma);
        EXPECT_EQ(text, line.data());
    }
}

// ---- Peaks
// -----------------------------------------------------------------------------------------------------------

// A station halfway between two bins, alone and in step with the windows: both bins show the same to the last bit. The
// band is so narrow that all bins share one noise level.
Input between_bins(int32_t lower_bin) {
    Input input = silence(1000, 3, true);
    input.win_s = 0.016;
    const double bin_hz = 1000.0 / 32;
    add_station(input, (lower_bin + 0.5) * bin_hz, 1, 8);
    input.z_min = 0.5;
    return input;
}

TEST(FrequencyScan, OnAFlatTopTheRightmostBinIsThePeak) {
    constexpr double BIN_HZ = 1000.0 / 32;
    const auto peaks = [&](int32_t first, int32_t last) {
        Input input = between_bins(4);
        input.f_lo = first * BIN_HZ;
        input.f_hi = last * BIN_HZ;
        const Result expected = expect_like_model(input);
        EXPECT_EQ(expected.bins, last - first + 1);
        if (first <= 4 && last >= 5) {
            EXPECT_EQ(expected.statistic[static_cast<std::size_t>(4 - first)],
                      expected.statistic[static_cast<std::size_t>(5 - first)]);
        }
        input.max_hits = 1;
        return frequencies(scan(input).hits);
    };
    const std::vector<double> lower = {4 * BIN_HZ};
    const std::vector<double> upper = {5 * BIN_HZ};
    EXPECT_EQ(peaks(-2, 12), upper) << "in the middle of the band";
    EXPECT_EQ(peaks(4, 12), upper) << "at its lower end";
    EXPECT_EQ(peaks(-2, 5), upper) << "at its upper end";
    EXPECT_EQ(peaks(-2, 4), lower) << "with its left half in the band";
    EXPECT_EQ(peaks(5, 12), upper) << "with its right half in the band";
}

TEST(FrequencyScan, WhereAllBinsAreEqualOnlyTheLastIsAPeak) {
    Input input = silence(1000, 3, true);
    input.win_s = 0.016;
    for (std::size_t k = 5; k < input.re.size(); k += 32) input.re[k] = 4;  // one click in every other chip
    input.z_min = 0;
    const Scan clicks = scan(input);
    ASSERT_EQ(clicks.count, 1);
    EXPECT_EQ(clicks.hits[0].freq_hz, 15 * 1000.0 / 32);
    EXPECT_EQ(clicks.hits[0].z, 0);
}

TEST(FrequencyScan, DigitalSilenceScoresNothingAnywhere) {
    for (const bool is_complex : {false, true}) {
        Input input = silence(1000, 10, is_complex);
        input.z_min = 1e-3;
        EXPECT_EQ(scan(input).count, 0);
        input.z_min = 0;
        const Scan all = scan(input);
        ASSERT_EQ(all.count, 1);
        EXPECT_EQ(all.hits[0].z, 0);
        EXPECT_EQ(all.hits[0].freq_hz, 127 * 1000.0 / 256);
    }
}

Input busy_band() {
    Input input = silence(1000, 60, true);
    add_noise(input, 11);
    add_station(input, 100.5, 0.4, 1);
    add_station(input, 131.25, 0.3, 2);
    add_station(input, -300, 0.5, 3);
    input.min_sep_hz = 0;
    return input;
}

TEST(FrequencyScan, OfNearHitsTheStrongerStays) {
    Input input = busy_band();
    input.z_min = 0;
    const std::vector<ov_hit> all = scan(input).hits;
    ASSERT_GT(all.size(), 30U);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const ov_hit& a, const ov_hit& b) { return a.z > b.z; }));
    for (const double separation : {0.0, 3.0, 11.71875, 11.72, 30.0, 31.25, 31.26, 200.0, 2000.0, INF}) {
        SCOPED_TRACE(separation);
        input.min_sep_hz = separation;
        const Scan found = scan(input);
        expect_same_hits(found.hits, scan_model::thinned(all, separation, 1000));
        for (const int32_t limit : {1, 2, 5}) {
            input.max_hits = limit;
            expect_same_hits(scan(input).hits, scan_model::thinned(all, separation, limit));
        }
        input.max_hits = 1000;
    }
}

TEST(FrequencyScan, HitsExactlyTheLeastDistanceApartBothStay) {
    Input input = silence(1000, 60, true);  // bins of 3.90625 Hz
    add_noise(input, 12);
    add_station(input, 125, 0.8, 1);
    add_station(input, 156.25, 0.8, 2);
    input.z_min = 20;
    input.min_sep_hz = 31.25;
    const std::vector<double> freqs = frequencies(scan(input).hits);
    EXPECT_EQ(std::set<double>(freqs.begin(), freqs.end()), (std::set<double>{125, 156.25}));
    input.min_sep_hz = std::nextafter(31.25, 32);
    EXPECT_EQ(scan(input).count, 1);
}

TEST(FrequencyScan, WithoutRoomThereAreNoHits) {
    Input input = busy_band();
    for (const int32_t room : {0, -1, std::numeric_limits<int32_t>::min()}) {
        EXPECT_EQ(ov_scan_w(input.re.data(), input.im.data(), input.n(), input.rate, input.win_s, input.f_lo,
                            input.f_hi, 6, 0, room, nullptr, nullptr, 238, 0, 0),
                  0);
    }
}

TEST(FrequencyScan, TheThresholdMayBeAnyNumber) {
    Input input = busy_band();
    input.z_min = NOT_A_NUMBER;
    EXPECT_EQ(scan(input).count, 0);
    input.z_min = INF;
    EXPECT_EQ(scan(input).count, 0);
    input.z_min = 1e300;
    EXPECT_EQ(scan(input).count, 0);
    input.z_min = -INF;
    const Scan all = scan(input);
    EXPECT_GT(all.count, 40);
    EXPECT_LT(all.hits.back().z, 0);

    // A hit at the threshold counts.
    input.z_min = all.hits[3].z;
    EXPECT_EQ(scan(input).count, 4);
    input.z_min = std::nextafter(all.hits[3].z, INF);
    EXPECT_EQ(scan(input).count, 3);
}

// ---- Bands and failures
// ----------------------------------------------------------------------------------------------

TEST(FrequencyScan, TheBandEndsAtHalfTheRate) {
    for (const double beyond : {500.0, 501.0, 1e6, 1e300, INF}) {
        Input complex = silence(1000, 10, true);
        add_noise(complex, 1);
        complex.f_lo = -beyond;
        complex.f_hi = beyond;
        EXPECT_EQ(scan(complex).bins, 255);
        Input real = silence(1000, 10, false);
        add_noise(real, 1);
        real.f_lo = -beyond;
        real.f_hi = beyond;
        EXPECT_EQ(scan(real).bins, 127);
    }
}

TEST(FrequencyScan, RealSamplesShowNothingAtZeroNorAtHalfTheRate) {
    Input input = silence(1000, 60, false);
    add_noise(input, 2);
    add_station(input, 0, 1, 3);
    add_station(input, 500, 1, 4);
    add_station(input, 200, 0.4, 5);
    input.f_lo = -INF;
    input.f_hi = INF;
    input.z_min = -INF;
    const Scan found = scan(input);
    ASSERT_GT(found.count, 10);
    for (const ov_hit& hit : found.hits) {
        EXPECT_GE(hit.freq_hz, 1000.0 / 256);
        EXPECT_LE(hit.freq_hz, 127 * 1000.0 / 256);
    }
}

TEST(FrequencyScan, BinsLieWithinTheBandAskedFor) {
    Input input = silence(1000, 10, true);
    add_noise(input, 2);
    input.z_min = -INF;
    input.f_lo = 3 * 1000.0 / 256;
    input.f_hi = 7 * 1000.0 / 256;
    EXPECT_EQ(scan(input).bins, 5);
    input.f_lo += 0.001;
    EXPECT_EQ(scan(input).count, -1);
    input.f_lo -= 0.002;
    EXPECT_EQ(scan(input).bins, 5);
    input.f_hi -= 0.001;
    EXPECT_EQ(scan(input).count, -1);
}

TEST(FrequencyScan, RefusesWhatItCannotScan) {
    const Input good = busy_band();
    ASSERT_GE(scan(good).count, 3);
    const auto refuses = [](const Input& input) {
        const Scan found = scan(input);
        return found.count == -1;
    };
    for (const double win_s : {0.0, -0.128, 0.00749, 60.0, 59.9, 1e9, 1e300, -1e300, INF, -INF, NOT_A_NUMBER}) {
        Input input = good;
        input.win_s = win_s;
        EXPECT_TRUE(refuses(input)) << "window of " << win_s << " s";
    }
    for (const int32_t rate :
         {0, -1, -1000, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()}) {
        Input input = good;
        input.rate = rate;
        EXPECT_TRUE(refuses(input)) << rate << " Hz";
    }
    for (const auto& [f_lo, f_hi] : std::vector<std::array<double, 2>>{{100, 115},
                                                                       {100, 0},
                                                                       {600, 700},
                                                                       {-700, -600},
                                                                       {NOT_A_NUMBER, 100},
                                                                       {0, NOT_A_NUMBER},
                                                                       {INF, INF},
                                                                       {-INF, -INF},
                                                                       {INF, -INF},
                                                                       {1e300, 1e300},
                                                                       {NOT_A_NUMBER, NOT_A_NUMBER}}) {
        Input input = good;
        input.f_lo = f_lo;
        input.f_hi = f_hi;
        EXPECT_TRUE(refuses(input)) << f_lo << " … " << f_hi << " Hz";
    }
    for (const int32_t n : {0, -1, 1, std::numeric_limits<int32_t>::min()}) {
        EXPECT_EQ(
            ov_scan_w(good.re.data(), good.im.data(), n, 1000, 0.128, -500, 500, 6, 0, 0, nullptr, nullptr, 238, 0, 0),
            -1)
            << n << " samples";
    }
    Input input = good;
    input.win_s = 0.0075;  // rounds to 8 samples
    EXPECT_FALSE(refuses(input));
}

TEST(FrequencyScan, NeedsThirtyTwoWindows) {
    for (const int32_t window : {8, 10, 13, 128}) {
        Input input;
        input.rate = 1000;
        input.win_s = window / 1000.0;
        input.f_hi = 500;
        const auto least = static_cast<std::size_t>(window + std::ceil(31 * window / 4.0));
        input.re.assign(least, 0.0);
        add_noise(input, 1);
        EXPECT_GE(scan(input).count, 0) << window;
        input.re.pop_back();
        EXPECT_EQ(scan(input).count, -1) << window;
    }
}

TEST(FrequencyScan, TooFewChipsForARunScoreNothing) {
    Input input = silence(1000, 0, false);
    input.z_min = -INF;
    for (const int32_t windows : {64, 65, 68}) {
        input.re.assign(static_cast<std::size_t>(128 + 32 * (windows - 1)), 0.0);
        add_noise(input, 1);
        const Result expected = expect_like_model(input);
        const float most = *std::max_element(expected.statistic.begin(), expected.statistic.end());
        EXPECT_EQ(most > 0, windows > 64) << windows;  // a run of 16 takes 17 windows of one phase
    }
}

TEST(FrequencyScan, ARunIsAtMostOneChipShorterThanTheRecording) {
    Input input = silence(1000, 0, true);
    input.re.assign(128 + 32 * 159, 0.0);  // 160 windows: 40 chips of each phase
    input.im = input.re;
    add_noise(input, 13);
    add_station(input, 125, 1, 14);
    input.z_min = 0;
    input.run_chips = 39;
    const std::vector<ov_hit> longest = expect_like_model(input).hits;
    ASSERT_GT(longest.size(), 10U);
    for (const int32_t run : {40, 41, 100, std::numeric_limits<int32_t>::max()}) {
        input.run_chips = run;
        expect_same_hits(scan(input).hits, longest);
    }
    input.run_chips = 38;
    EXPECT_NE(scan(input).hits[0].z, longest[0].z);
}

TEST(FrequencyScan, WithoutMemoryItFailsAndKeepsNothing) {
    const Input input = busy_band();
    std::vector<ov_hit> hits(100);
    const auto scan_now = [&] {
        return ov_scan_w(input.re.data(), input.im.data(), input.n(), input.rate, input.win_s, input.f_lo, input.f_hi,
                         6, 0, 100, hits.data(), nullptr, 238, 0, 0);
    };
    const int32_t found = scan_now();
    EXPECT_GE(found, 3);
    int64_t failures = 0;
    refuse_each_request([&](FailingMemory& memory) {
        const int32_t count = memory.watch(scan_now);
        EXPECT_TRUE(count == found || (count == -1 && memory.has_refused())) << count;
        failures += count == -1 ? 1 : 0;
    });
    EXPECT_GT(failures, 2 * 6);
}

// ---- What is keyed and what is not
// -----------------------------------------------------------------------------------

TEST(FrequencyScan, AKeyedStationIsFoundAtItsFrequency) {
    for (const double freq : {-433.3, -210.0, 57.7, 300.0, 491.0}) {
        Input input = silence(1000, 60, true);
        add_noise(input, 21);
        add_station(input, freq, 0.5, 22);
        input.max_hits = 1;
        const Scan found = scan(input);
        ASSERT_EQ(found.count, 1) << freq;
        EXPECT_NEAR(found.hits[0].freq_hz, freq, 2.0);
        EXPECT_GT(found.hits[0].z, 20);
    }
}

TEST(FrequencyScan, ASteadyCarrierScoresNothingInItsBin) {
    Input input = silence(1000, 60, true);
    add_noise(input, 23);
    add_carrier(input, 125, 3);
    add_carrier(input, -301, 0.5);
    input.z_min = -INF;
    const Result expected = expect_like_model(input);
    EXPECT_EQ(expected.statistic[static_cast<std::size_t>(32 - expected.first)], 0);
    EXPECT_EQ(expected.statistic[static_cast<std::size_t>(-77 - expected.first)], 0);
    for (const ov_hit& hit : scan(input).hits) {
        if (std::fabs(hit.freq_hz - 125) < 3 || std::fabs(hit.freq_hz + 301) < 3) {
            EXPECT_LT(hit.z, 0);
        }
    }
}

TEST(FrequencyScan, NoiseAloneStaysBelowSixSigma) {
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        Input input = silence(2000, 60, seed % 2 == 0);
        add_noise(input, 100 + seed);
        EXPECT_EQ(scan(input).count, 0) << seed;
    }
}

TEST(FrequencyScan, ADeadChannelShowsEveryStationOnBothSides) {
    for (const bool dead_i : {false, true}) {
        Input input = silence(1000, 60, true);
        add_noise(input, 24);
        add_station(input, 125, 1, 25);
        (dead_i ? input.re : input.im).assign(input.re.size(), 0.0);
        input.max_hits = 2;
        input.min_sep_hz = 30;
        const Scan found = scan(input);
        ASSERT_EQ(found.count, 2);
        EXPECT_NEAR(found.hits[0].freq_hz, -found.hits[1].freq_hz, 0.001);
        EXPECT_NEAR(std::fabs(found.hits[0].freq_hz), 125, 2);
        EXPECT_NEAR(found.hits[0].z, found.hits[1].z, 1e-4 * found.hits[0].z);
    }
}

// ---- Hostile stretches
// -----------------------------------------------------------------------------------------------

// Twenty minutes of noise with a station near the end, in a band of a few dozen bins.
Input long_recording() {
    Input input = silence(500, 1200, true);
    add_noise(input, 31);
    add_station(input, 50, 2, 32, 1100, 1135);
    input.f_lo = -50;
    input.f_hi = 100;
    input.max_hits = 1;
    return input;
}

// A carrier that swells to 1e15 and fades again, so slowly (a factor of 1.4 a chip) that nothing in it counts as
// keying, neither in its own bin nor in those it leaks into.
TEST(FrequencyScan, AHugeSignalHoursAgoDoesNotBlurWhatComesLater) {
    Input input = long_recording();
    const Result quiet = expect_like_model(input);
    ASSERT_EQ(quiet.hits.size(), 1U);
    EXPECT_NEAR(quiet.hits[0].freq_hz, 50, 2);
    add_tone(input, -20.4, [&](std::size_t k) {
        const double chips = std::fabs(static_cast<double>(k) / input.rate - 100) / input.win_s;
        return chips < 400 ? 1e15 * std::pow(1.4, -chips / 2) : 0.0;
    });
    ASSERT_GT(*std::max_element(input.re.begin(), input.re.end()), 0.9e15);
    for (const double var_min : {0.0, 0.5}) {
        input.var_min = var_min;
        const Result loud = expect_like_model(input);
        ASSERT_EQ(loud.hits.size(), 1U);
        EXPECT_EQ(loud.hits[0].freq_hz, quiet.hits[0].freq_hz);
        const auto bin = static_cast<std::size_t>(std::lround(loud.hits[0].freq_hz / loud.bin_hz) - loud.first);
        EXPECT_NEAR(loud.statistic[bin], quiet.statistic[bin], 0.15 * quiet.statistic[bin]);  // noise is taken for less
    }
}

TEST(FrequencyScan, SamplesThatAreNoNumbersHideOnlyWhatIsNearThem) {
    Input input = long_recording();
    const double freq = scan(input).hits.at(0).freq_hz;
    for (std::size_t k = 100000; k < 100500; ++k) input.re[k] = NOT_A_NUMBER;
    input.im[200000] = NOT_A_NUMBER;
    expect_like_model(input);
    EXPECT_EQ(frequencies(scan(input).hits), std::vector<double>{freq});
}

TEST(FrequencyScan, NothingButNonsenseGivesNoHit) {
    for (const double bad : {NOT_A_NUMBER, INF, -INF, 1e300}) {
        Input input = silence(1000, 20, true);
        std::fill(input.re.begin(), input.re.end(), bad);
        EXPECT_EQ(scan(input).count, 0) << bad;
    }
}

// ---- Keyed detection
// -------------------------------------------------------------------------------------------------

ovl_settings settings_at(double center_hz, double search_hz) {
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.center_hz = center_hz;
    settings.search_hz = search_hz;
    return settings;
}

std::vector<ov_hit> keyed(const std::vector<float>& x, int32_t rate, const ovl_settings& settings, double seconds,
                          double z_min, int32_t room = 64) {
    std::vector<ov_hit> hits(static_cast<std::size_t>(room) + 1, UNWRITTEN);
    const int32_t count =
        ovl_keyed(x.data(), static_cast<int32_t>(x.size()), rate, &settings, seconds, z_min, hits.data(), room);
    EXPECT_GE(count, 0);
    EXPECT_LE(count, room);
    hits.resize(static_cast<std::size_t>(std::clamp(count, 0, room)));
    return hits;
}

std::vector<float> beacon_scene(double seconds, std::vector<Station> stations, int32_t rate = 12000,
                                uint64_t seed = 1) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = seed;
    scene.stations = std::move(stations);
    return to_float(render_real(scene));
}

Station beacon(double t_start, double freq_hz, double snr_db, const char* call = "AA1AA") {
    return {opera_chips(call), t_start, freq_hz, 0, snr_db, 0.4};
}

Station steady(double freq_hz, double snr_db) {
    return {std::vector<uint8_t>(239, 1), -1, freq_hz, 0, snr_db, 0.4};
}

TEST(Keyed, ABeaconIsFoundAtItsFrequency) {
    for (const int32_t rate : {4000, 8000, 12000, 48000}) {
        const auto hits = keyed(beacon_scene(28, {beacon(-1, 1523, 0)}, rate), rate, settings_at(1500, 200), 25, 8);
        ASSERT_GE(hits.size(), 1U) << rate;
        EXPECT_NEAR(hits[0].freq_hz, 1523, 2.0);
        EXPECT_GT(hits[0].z, 20);
    }
}

TEST(Keyed, ABeaconInNoiseIsFoundInThirtySeconds) {
    for (uint64_t seed = 1; seed <= 5; ++seed) {
        const auto hits =
            keyed(beacon_scene(30.6, {beacon(0, 1450, -14)}, 12000, seed), 12000, settings_at(1500, 200), 30, 6);
        ASSERT_EQ(hits.size(), 1U) << seed;
        EXPECT_NEAR(hits[0].freq_hz, 1450, 3.0) << seed;
    }
}

TEST(Keyed, NoiseIsNotKeyed) {
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        EXPECT_TRUE(keyed(beacon_scene(20, {}, 12000, seed), 12000, settings_at(1500, 200), 15, 6).empty()) << seed;
    }
}

TEST(Keyed, ASteadyCarrierIsNotKeyed) {
    for (const double snr_db : {-18.0, -14.0, -10.0, -5.0, 0.0, 10.0, 20.0}) {
        for (uint64_t seed = 1; seed <= 5; ++seed) {
            const auto hits =
                keyed(beacon_scene(20, {steady(1523, snr_db)}, 12000, seed), 12000, settings_at(1500, 200), 15, 6);
            EXPECT_FALSE(has_near(hits, 1523, 7)) << snr_db << " dB, seed " << seed;
        }
    }
}

// What the detection does in terms of the plain scan.
std::vector<ov_hit> keyed_model(const std::vector<float>& x, int32_t rate, const ovl_settings& settings, double seconds,
                                double z_min) {
    const auto newest = static_cast<std::ptrdiff_t>(std::floor((0.256 + seconds) * rate));
    Input input;
    input.re.assign(x.end() - std::min(newest, static_cast<std::ptrdiff_t>(x.size())), x.end());
    input.rate = rate;
    input.win_s = 0.128;
    const double half = std::max(settings.search_hz, 300.0);
    input.f_lo = std::max(settings.center_hz - half, 100.0);
    input.f_hi = settings.center_hz + half;
    input.z_min = z_min;
    input.min_sep_hz = 15;
    input.max_hits = 64;
    input.run_chips = static_cast<int32_t>(std::floor(seconds / 0.128));
    input.var_min = 0.85;
    std::vector<ov_hit> hits;
    for (const ov_hit& hit : scan_model::expected_of(input).hits) {
        if (std::fabs(hit.freq_hz - settings.center_hz) <= 5 + settings.search_hz) hits.push_back(hit);
    }
    return hits;
}

TEST(Keyed, FindsWhatTheDefinitionSays) {
    const std::vector<float> x =
        beacon_scene(24, {beacon(-3, 1523, -8), beacon(-2, 1250, -3, "BB2BB"), steady(1400, 0)}, 4000, 5);
    std::size_t found = 0;
    for (const auto& settings : {settings_at(1500, 200), settings_at(1500, 350), settings_at(1300, 20),
                                 settings_at(200, 200), settings_at(1900, 500)}) {
        for (const double seconds : {3.0, 10.01, 20.0}) {
            SCOPED_TRACE(std::to_string(settings.center_hz) + " Hz, " + std::to_string(seconds) + " s");
            const std::vector<ov_hit> expected = keyed_model(x, 4000, settings, seconds, 0.5);
            expect_same_hits(keyed(x, 4000, settings, seconds, 0.5), expected);
            found += expected.size();
        }
    }
    EXPECT_GT(found, 40U);
}

TEST(Keyed, TooLittleAudioIsNoError) {
    struct Case {
        int32_t rate;
        double seconds;
        int32_t least;  // samples: half the chips, rounded down, and eight more
    };
    for (const Case& c :
         {Case{4000, 3.0, 19 * 512}, Case{4000, 3.1, 20 * 512}, Case{12000, 20, 86 * 1536}, Case{11025, 3.0, 26812}}) {
        const ovl_settings settings = settings_at(1500, 200);
        std::vector<float> x = beacon_scene((c.least + 10.0) / c.rate, {}, c.rate);
        x.resize(static_cast<std::size_t>(c.least));
        EXPECT_FALSE(keyed(x, c.rate, settings, c.seconds, -1e9).empty()) << c.rate << ' ' << c.seconds;
        x.pop_back();
        EXPECT_TRUE(keyed(x, c.rate, settings, c.seconds, -1e9).empty()) << c.rate << ' ' << c.seconds;
        ov_hit hit{};
        EXPECT_EQ(ovl_keyed(x.data(), 0, c.rate, &settings, c.seconds, -1e9, &hit, 1), 0);
        EXPECT_EQ(ovl_keyed(x.data(), -5, c.rate, &settings, c.seconds, -1e9, &hit, 1), 0);
    }
}

TEST(Keyed, RefusesBadArguments) {
    const std::vector<float> x = beacon_scene(10, {beacon(-1, 1523, 0)}, 4000);
    const auto n = static_cast<int32_t>(x.size());
    const ovl_settings good = settings_at(1500, 200);
    std::array<ov_hit, 64> hits;
    const auto result = [&](const float* samples, int32_t rate, const ovl_settings* settings, double seconds,
                            ov_hit* out,
                            int32_t room) { return ovl_keyed(samples, n, rate, settings, seconds, 6, out, room); };
    ASSERT_GE(result(x.data(), 4000, &good, 8, hits.data(), 64), 1);
    EXPECT_GE(result(x.data(), 4000, &good, 3.0, hits.data(), 64), 0);
    EXPECT_EQ(result(nullptr, 4000, &good, 8, hits.data(), 64), -1);
    EXPECT_EQ(result(x.data(), 4000, nullptr, 8, hits.data(), 64), -1);
    EXPECT_EQ(result(x.data(), 4000, &good, 8, nullptr, 64), -1);
    EXPECT_EQ(result(x.data(), 4000, &good, 8, hits.data(), 0), -1);
    EXPECT_EQ(result(x.data(), 4000, &good, 8, hits.data(), -3), -1);
    EXPECT_EQ(result(x.data(), 3999, &good, 8, hits.data(), 64), -1);
    EXPECT_EQ(result(x.data(), 0, &good, 8, hits.data(), 64), -1);
    EXPECT_EQ(result(x.data(), std::numeric_limits<int32_t>::min(), &good, 8, hits.data(), 64), -1);
    for (const double seconds : {2.999, 0.0, -8.0, -1e300, -INF, NOT_A_NUMBER}) {
        EXPECT_EQ(result(x.data(), 4000, &good, seconds, hits.data(), 64), -1) << seconds;
    }
    for (const double seconds : {1e4, 1e9, 1e300, INF}) {
        EXPECT_EQ(result(x.data(), 4000, &good, seconds, hits.data(), 64), 0) << seconds << ": too little audio";
    }
    EXPECT_EQ(result(x.data(), std::numeric_limits<int32_t>::max(), &good, 8, hits.data(), 64), 0);
}

TEST(Keyed, ABandWithoutBinsIsAnError) {
    const std::vector<float> x = beacon_scene(10, {}, 4000);
    ov_hit hit{};
    for (const double center : {-1000.0, -205.0, 2400.0, 1e300, INF, -INF, NOT_A_NUMBER}) {
        const ovl_settings settings = settings_at(center, 200);
        EXPECT_EQ(ovl_keyed(x.data(), static_cast<int32_t>(x.size()), 4000, &settings, 8, 6, &hit, 1), -1) << center;
    }
    const ovl_settings nowhere = settings_at(1500, NOT_A_NUMBER);
    EXPECT_EQ(ovl_keyed(x.data(), static_cast<int32_t>(x.size()), 4000, &nowhere, 8, -1e9, &hit, 1), 0);
    const ovl_settings everywhere = settings_at(1500, INF);
    EXPECT_EQ(ovl_keyed(x.data(), static_cast<int32_t>(x.size()), 4000, &everywhere, 8, -1e9, &hit, 1), 1);
}

TEST(Keyed, TheStrongestComeFirst) {
    const std::vector<float> x =
        beacon_scene(30, {beacon(-1, 1400, -8), beacon(-1, 1500, 0, "BB2BB"), beacon(-1, 1600, -4, "CC3CC")});
    const auto all = keyed(x, 12000, settings_at(1500, 200), 25, 8);
    ASSERT_GE(all.size(), 3U);
    EXPECT_NEAR(all[0].freq_hz, 1500, 2);
    EXPECT_TRUE(has_near(all, 1400, 3));
    EXPECT_TRUE(has_near(all, 1600, 3));
    for (std::size_t k = 1; k < all.size(); ++k) EXPECT_GE(all[k - 1].z, all[k].z);
    for (const int32_t room : {1, 2}) {
        expect_same_hits(keyed(x, 12000, settings_at(1500, 200), 25, 8, room), {all.begin(), all.begin() + room});
    }
}

TEST(Keyed, ABeaconOutsideTheBandIsNotReported) {
    // All in the scanned ±300 Hz.
    const std::vector<float> x = beacon_scene(30, {beacon(-1, 1500, 0), beacon(-1, 1640, 0, "BB2BB")}, 4000);
    const auto at = [&](double search) { return keyed(x, 4000, settings_at(1500, search), 25, 20); };
    EXPECT_TRUE(has_near(at(150), 1640, 3));
    EXPECT_TRUE(has_near(at(140), 1640, 3)) << "within 5 Hz of the edge";
    EXPECT_FALSE(has_near(at(100), 1640, 10));
    EXPECT_TRUE(has_near(at(100), 1500, 3));
    EXPECT_TRUE(has_near(at(0), 1500, 3));

    // The limit to the last bit: a hit lies on a bin, and bins are 3.90625 Hz apart.
    const double freq = at(150)[0].freq_hz > 1600 ? at(150)[0].freq_hz : at(150)[1].freq_hz;
    EXPECT_TRUE(has_near(at(freq - 1505), freq, 0));
    EXPECT_FALSE(has_near(at(freq - 1505.001), freq, 0));
}

TEST(Keyed, NothingBelowAHundredHertzIsExamined) {
    const std::vector<float> x = beacon_scene(30, {beacon(-1, 62.5, 10)}, 4000);
    const auto hits = keyed(x, 4000, settings_at(200, 200), 25, -1e9);
    EXPECT_FALSE(hits.empty());
    for (const ov_hit& hit : hits) EXPECT_GE(hit.freq_hz, 100);
}

TEST(Keyed, OnlyTheNewestSecondsCount) {
    std::vector<float> x = beacon_scene(60, {beacon(5, 1523, 0)}, 4000);  // ends at 35.6 s
    EXPECT_TRUE(has_near(keyed(x, 4000, settings_at(1500, 200), 40, 10), 1523, 3));
    EXPECT_TRUE(keyed(x, 4000, settings_at(1500, 200), 20, 8).empty());

    // The same hits as from the newest samples alone, and the sample before those is not read.
    const auto newest = static_cast<std::ptrdiff_t>(20.256 * 4000);
    const std::vector<float> tail(x.end() - newest, x.end());
    const auto hits = keyed(tail, 4000, settings_at(1500, 200), 20, -1e9);
    ASSERT_GT(hits.size(), 3U);
    std::fill(x.begin(), x.end() - newest, std::numeric_limits<float>::quiet_NaN());
    expect_same_hits(keyed(x, 4000, settings_at(1500, 200), 20, -1e9), hits);
}

TEST(Keyed, WithoutMemoryItFailsAndKeepsNothing) {
    const std::vector<float> x = beacon_scene(10, {beacon(-1, 1523, 0)}, 4000);
    const ovl_settings settings = settings_at(1500, 200);
    std::array<ov_hit, 64> hits;
    const auto look = [&] {
        return ovl_keyed(x.data(), static_cast<int32_t>(x.size()), 4000, &settings, 8, 6, hits.data(), 64);
    };
    const int32_t found = look();
    EXPECT_GE(found, 1);
    int64_t failures = 0;
    refuse_each_request([&](FailingMemory& memory) {
        const int32_t count = memory.watch(look);
        EXPECT_TRUE(count == found || (count == -1 && memory.has_refused())) << count;
        failures += count == -1 ? 1 : 0;
    });
    EXPECT_GT(failures, 2 * 7);
}

}  // namespace
