// The pieces that make the receive chain fast, each against its plain definition.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "chipmeter.h"
#include "median.h"
#include "ovsync.h"
#include "runsums.h"
#include "siggen.h"
#include "vecmath.h"

namespace {

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INF = std::numeric_limits<float>::infinity();

// ---- Medians --------------------------------------------------------------------------------------------------------

std::vector<float> sorted(std::vector<float> values) {
    std::sort(values.begin(), values.end(), [](float a, float b) {
        if (std::isnan(a) || std::isnan(b)) return !std::isnan(a) && std::isnan(b);
        return a < b;
    });
    return values;
}

void expect_every_rank(const std::vector<float>& values) {
    const std::vector<float> expected = sorted(values);
    for (std::size_t rank = 0; rank < values.size(); rank++) {
        const float selected = select_rank(values, rank);
        if (std::isnan(expected[rank])) {
            ASSERT_TRUE(std::isnan(selected)) << rank;
        } else {
            ASSERT_EQ(selected, expected[rank]) << rank;
        }
    }
}

TEST(SelectRank, EqualsSortingOnRandomValues) {
    Random random(1);
    for (int32_t n = 1; n < 120; n++) {
        std::vector<float> values;
        for (int32_t i = 0; i < n; i++) {
            const double magnitude = std::pow(10.0, random.uniform(-44, 38));
            values.push_back(static_cast<float>(random.normal() * (n % 3 == 0 ? magnitude : 1)));
            if (n % 4 == 0) values.back() = static_cast<float>(random.integer(-2, 2));  // many equal ones
        }
        SCOPED_TRACE(n);
        expect_every_rank(values);
    }
}

TEST(SelectRank, TakesExtremesAndNumbersThatAreNone) {
    constexpr float MAX = std::numeric_limits<float>::max();
    constexpr float TINY = std::numeric_limits<float>::denorm_min();
    expect_every_rank({INF, -INF, MAX, -MAX, 0.0f, TINY, -TINY, NOT_A_NUMBER, 1.0f, -NOT_A_NUMBER});
    expect_every_rank({NOT_A_NUMBER, NOT_A_NUMBER});
    expect_every_rank({INF, INF, INF});
    EXPECT_TRUE(std::isnan(select_rank(std::vector<float>{1.0f}, 1))) << "there is no such rank";
    EXPECT_TRUE(std::isnan(select_rank({}, 0)));
}

TEST(MedianValue, IsTheMiddleOrTheMeanOfTwo) {
    EXPECT_EQ(median_value({}), 0);
    EXPECT_EQ(median_value(std::vector<float>{3, 1, 2}), 2);
    EXPECT_EQ(median_value(std::vector<float>{4, 1, 3, 2}), 2.5f);
    EXPECT_EQ(upper_median(std::vector<float>{4, 1, 3, 2}), 3);
    EXPECT_EQ(median_value(std::vector<float>{1, 1, 1, 9}), 1);
}

// ---- Elementary functions -------------------------------------------------------------------------------------------

// A few units in the last place, of the smallest arguments too: a message may be as small as the product of many.
constexpr double FEW_ULPS = 1e-15;

void expect_right(double got, double expected, double x) {
    ASSERT_NEAR(got, expected, FEW_ULPS * std::fabs(expected)) << x;
}

TEST(VectorMaths, TheExponentialIsRightToTheLastBitsOverItsRange) {
    for (double x = -700; x <= 700; x += 0.0137) expect_right(vecmath::expm1(x), std::expm1(x), x);
    for (double x = 1e-300; x < 700; x *= 1.37) {
        expect_right(vecmath::expm1(x), std::expm1(x), x);
        expect_right(vecmath::expm1(-x), std::expm1(-x), -x);
    }
    EXPECT_EQ(vecmath::expm1(0.0), 0.0);
}

TEST(VectorMaths, TheHyperbolicFunctionsAreRightOverTheRangeOfMessages) {
    for (double x = 1e-300; x <= 30; x *= 1.0013) {
        expect_right(vecmath::tanh_half(x), std::tanh(0.5 * x), x);
        expect_right(vecmath::tanh_half(-x), std::tanh(-0.5 * x), -x);
    }
    for (double x = 1e-300; x <= 0.999999; x *= 1.0013) {
        expect_right(vecmath::two_atanh(x), 2 * std::atanh(x), x);
        expect_right(vecmath::two_atanh(-x), 2 * std::atanh(-x), -x);
    }
    for (double x = -0.999999; x < 0.999999; x += 0.0000317) {
        expect_right(vecmath::tanh_half(30 * x), std::tanh(15 * x), 30 * x);
        expect_right(vecmath::two_atanh(x), 2 * std::atanh(x), x);
    }
    expect_right(vecmath::tanh_half(30), std::tanh(15.0), 30);
    expect_right(vecmath::two_atanh(0.999999), 2 * std::atanh(0.999999), 0.999999);
    EXPECT_EQ(vecmath::tanh_half(0.0), 0.0);
    EXPECT_EQ(vecmath::two_atanh(0.0), 0.0);
}

TEST(VectorMaths, WhatIsNoNumberStaysNone) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(vecmath::tanh_half(nan)));
    EXPECT_TRUE(std::isnan(vecmath::two_atanh(nan)));
    EXPECT_TRUE(std::isnan(vecmath::tanh_half(static_cast<double>(NOT_A_NUMBER))));
}

// ---- Runs -----------------------------------------------------------------------------------------------------------

TEST(RunSums, EveryRunIsSummedOnceAndInOrder) {
    std::vector<int64_t> ends(11);
    for (int64_t n = 0; n < 40; n++) {
        for (int64_t run = 1; run < 12; run++) {
            std::vector<int64_t> sums;
            sum_runs(
                n, run, ends.data(), [](int64_t& sum, int64_t i) { sum += int64_t{1} << i; },
                [&](int64_t i, int64_t a, int64_t b) {
                    ASSERT_EQ(i, static_cast<int64_t>(sums.size()));
                    sums.push_back(a + b);
                });
            ASSERT_EQ(static_cast<int64_t>(sums.size()), std::max<int64_t>(n - run + 1, 0)) << n << " " << run;
            for (std::size_t i = 0; i < sums.size(); i++) {
                ASSERT_EQ(sums[i], ((int64_t{1} << run) - 1) << i) << n << " " << run;
            }
        }
    }
}

TEST(RunSums, AHugeTermLeavesNothingBehind) {
    std::vector<double> terms(1000, 0.1);
    terms[300] = 1e30;
    std::vector<double> ends(119);
    sum_runs(
        1000, 119, ends.data(), [&](double& sum, int64_t i) { sum += terms[static_cast<std::size_t>(i)]; },
        [&](int64_t i, double a, double b) {
            const bool without = i > 300 || i + 119 <= 300;
            ASSERT_NEAR(a + b, without ? 11.9 : 1e30, without ? 1e-12 : 1e15) << i;
        });
}

// ---- Chip energies --------------------------------------------------------------------------------------------------

// |Σ x·e^(−2πj·f·k/rate)|² of a chip, from the definition; −1 when it does not lie inside.
double defined_energy(const std::vector<std::complex<double>>& x, double rate, int32_t chip_len, int32_t nchips,
                      int32_t start, double f, double drift, int32_t chip) {
    const int64_t first = start + static_cast<int64_t>(chip) * chip_len;
    if (first < 0 || first + chip_len > static_cast<int64_t>(x.size())) return -1;
    const double own_f = f + drift * (chip + 0.5 - nchips / 2.0) * chip_len / rate;
    std::complex<double> sum;
    for (int32_t k = 0; k < chip_len; k++) {
        sum += x[static_cast<std::size_t>(first + k)] * std::polar(1.0, -2 * std::numbers::pi * own_f * k / rate);
    }
    return std::norm(sum);
}

class ChipEnergies : public ::testing::Test {
  protected:
    ChipEnergies() : samples_(N) {
        Random random(4);
        for (auto& sample : samples_) sample = {random.normal(), random.normal()};
        bb_ = {samples_.data(), N, RATE, 0};
    }

    static constexpr int32_t N = 4000;
    static constexpr double RATE = 500;
    std::vector<std::complex<double>> samples_;
    ov_baseband bb_{};
};

TEST_F(ChipEnergies, OfNeighboursEqualTheDefinition) {
    struct Case {
        int32_t chip_len, nchips;
        StartGrid starts;
        double drift;
    };
    for (const Case& c : {Case{64, 50, {100, 9, 1}, 0}, Case{64, 50, {100, 9, 1}, 0.7}, Case{64, 62, {-40, 9, 4}, 0.3},
                          Case{64, 62, {90, 1, 1}, -0.4}, Case{7, 321, {1500, 3, 1}, 0}, Case{4, 239, {3100, 3, 1}, 2},
                          Case{128, 31, {-200, 15, 4}, 0.1}, Case{100, 20, {3990, 10, 2}, 0.1}}) {
        SCOPED_TRACE(std::to_string(c.chip_len) + " samples from " + std::to_string(c.starts.first));
        const std::vector<double> freqs = {-200, -0.3, 0, 1.7, 249};
        ChipMeter meter(bb_, c.chip_len, c.nchips);
        meter.measure({0, 2, 1}, {freqs.data(), 2}, 1);  // of another shape: its memory is used again
        meter.measure(c.starts, freqs, c.drift);
        for (int32_t s = 0; s < c.starts.count; s++) {
            int32_t inside = 0;
            for (std::size_t f = 0; f < freqs.size(); f++) {
                inside = 0;
                for (int32_t chip = 0; chip < c.nchips; chip++) {
                    const double expected =
                        defined_energy(samples_, RATE, c.chip_len, c.nchips, c.starts.at(s), freqs[f], c.drift, chip);
                    const double energy = static_cast<double>(meter.energies(s, f)[chip]);
                    ASSERT_NEAR(energy, expected, 1e-6 * std::fabs(expected) + 1e-9) << s << " " << f << " " << chip;
                    ASSERT_EQ(energy == -1, expected < 0);
                    inside += expected >= 0 ? 1 : 0;
                }
            }
            EXPECT_EQ(meter.measured(s), inside);
        }
    }
}

TEST_F(ChipEnergies, OfManyDriftsEqualTheDefinition) {
    struct Case {
        int32_t chip_len, nchips, start;
        DriftGrid grid;
    };
    // The last but one turns by 5.4 within half a window, close to the limit.
    for (const Case& c : {Case{64, 50, 100, {1.2, 0.5, 2, 0.03, 12}}, Case{64, 62, -130, {-200, 0.5, 2, 0.03, 3}},
                          Case{64, 62, 900, {249, 0.5, 0, 0.1, 4}}, Case{7, 321, 2000, {3, 1, 1, 0.7, 2}},
                          Case{4, 239, 3900, {0, 1, 3, 0, 1}}, Case{128, 31, 7, {-11, 1, 4, 0.35, 2}},
                          Case{100, 20, 0, {80, 0.5, 2, 0.2, 0}}}) {
        SCOPED_TRACE(std::to_string(c.chip_len) + " samples from " + std::to_string(c.start));
        DriftMeter meter(bb_, c.chip_len, c.nchips);
        ASSERT_TRUE(meter.measure(50, {0, 0.1, 3, 0.01, 20}));  // of another shape: its memory is used again
        ASSERT_TRUE(meter.measure(c.start, c.grid));
        int32_t inside = 0;
        for (int32_t chip = 0; chip < c.nchips; chip++) {
            const int64_t first = c.start + int64_t{chip} * c.chip_len;
            inside += first >= 0 && first + c.chip_len <= N ? 1 : 0;
        }
        EXPECT_EQ(meter.measured(), inside);
        for (int32_t j = -c.grid.n_drifts; j <= c.grid.n_drifts; j++) {
            if (j == 0) continue;
            for (int32_t i = -c.grid.n_freqs; i <= c.grid.n_freqs; i++) {
                for (int32_t chip = 0; chip < c.nchips; chip++) {
                    const double expected = defined_energy(samples_, RATE, c.chip_len, c.nchips, c.start,
                                                           c.grid.f + i * c.grid.step_hz, j * c.grid.unit, chip);
                    const double energy = static_cast<double>(meter.energies(i, j)[chip]);
                    ASSERT_NEAR(energy, expected, 1e-6 * std::fabs(expected) + 1e-9) << i << " " << j << " " << chip;
                    ASSERT_EQ(energy == -1, expected < 0);
                }
            }
        }
    }
}

TEST_F(ChipEnergies, OfDriftsTooFarApartAreNotMeasuredTogether) {
    DriftMeter meter(bb_, 64, 50);
    EXPECT_FALSE(meter.measure(0, {0, 5, 4, 0.01, 2})) << "frequencies";
    EXPECT_FALSE(meter.measure(0, {0, 0.5, 2, 1, 12})) << "drifts";
    EXPECT_FALSE(meter.measure(0, {0, std::numeric_limits<double>::quiet_NaN(), 2, 1, 12}));
    EXPECT_FALSE(meter.measure(0, {0, 0.5, 2, std::numeric_limits<double>::infinity(), 12}));
}

TEST_F(ChipEnergies, OneByOneEqualTheDefinition) {
    for (const int32_t chip_len : {1, 2, 3, 4, 5, 63, 64}) {
        for (const double drift : {0.0, 0.9}) {
            std::vector<float> energies(40);
            const int32_t measured = ov_chip_energies(bb_, chip_len, 40, -2 * chip_len, 33.3, drift, energies.data());
            EXPECT_EQ(measured, 38);
            for (int32_t chip = 0; chip < 40; chip++) {
                const double expected = defined_energy(samples_, RATE, chip_len, 40, -2 * chip_len, 33.3, drift, chip);
                ASSERT_NEAR(static_cast<double>(energies[static_cast<std::size_t>(chip)]), expected,
                            1e-6 * std::fabs(expected))
                    << chip_len << " " << chip;
            }
        }
    }
}

}  // namespace
