// What spread mode measures together, against sums formed one by one: energies of chips, and the choice of a
// refinement.
#include "spreadmeter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "ovcdeep.h"
#include "ovsync.h"
#include "siggen.h"
#include "sync_model.h"

namespace {

using sync_model::Samples;

// A float is good to 6e-8 of it.
constexpr double SINGLE_PRECISION = 1e-7;
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

Samples noise(std::size_t n, double rate, uint64_t seed) {
    Samples samples;
    samples.rate = rate;
    Random random(seed);
    for (std::size_t k = 0; k < n; k++) {
        const double re = random.normal();
        samples.x.emplace_back(re, random.normal());
    }
    return samples;
}

void add_tone(Samples& samples, double amplitude, double f) {
    for (std::size_t k = 0; k < samples.x.size(); k++)
        samples.x[k] += std::polar(amplitude, 2 * std::numbers::pi * f * static_cast<double>(k) / samples.rate);
}

// As much of a map as chips need.
ov_specmap chips_map(double rate, int32_t chip_len, int32_t nchips, int32_t spread) {
    ov_specmap map{};
    map.rate = rate;
    map.chip_s = chip_len / rate;
    map.chip_len = chip_len;
    map.frame_chips = nchips;
    map.spread = spread;
    map.nfft = (chip_len <= 512 ? 4 : 2) * chip_len;
    map.bin_hz = rate / map.nfft;
    return map;
}

void expect_energies(const float* got, const sync_model::Energies& expected, double share, const std::string& where) {
    for (std::size_t chip = 0; chip < expected.value.size(); chip++) {
        const double value = expected.value[chip];
        ASSERT_EQ(got[chip] == -1, value == -1) << where << " chip " << chip;
        ASSERT_NEAR(static_cast<double>(got[chip]), value, share * std::fabs(value)) << where << " chip " << chip;
        ASSERT_FALSE(std::signbit(got[chip]) && value != -1) << where << " chip " << chip;
    }
}

// Every energy of a grid against the definition.
void expect_grid(const ov_baseband& bb, const ov_specmap& map, const StartGrid& starts, const FreqGrid& freqs,
                 double drift, double share) {
    SpreadMeter meter(bb, map);
    meter.measure({5, 2, 1}, {1, 0.3, 1}, 0.1);  // of another shape: its memory is used again
    meter.measure(starts, freqs, drift);
    for (int32_t s = 0; s < starts.count; s++) {
        for (int32_t i = -freqs.n; i <= freqs.n; i++) {
            const auto expected =
                sync_model::chip_energies_spread(bb, map, starts.at(s), freqs.f + i * freqs.step_hz, drift);
            ASSERT_EQ(meter.measured(s), expected.measured);
            expect_energies(meter.energies(s, i), expected, share, std::to_string(s) + ", " + std::to_string(i));
        }
    }
}

void expect_drifts(const ov_baseband& bb, const ov_specmap& map, int32_t start, const DriftGrid& grid, double share) {
    SpreadMeter meter(bb, map);
    ASSERT_TRUE(meter.measure_drifts(3, {0, 0.1, 1, 0.001, 9}));
    ASSERT_TRUE(meter.measure_drifts(start, grid));
    for (int32_t j = -grid.n_drifts; j <= grid.n_drifts; j++) {
        for (int32_t i = -grid.n_freqs; j != 0 && i <= grid.n_freqs; i++) {
            const auto expected =
                sync_model::chip_energies_spread(bb, map, start, grid.f + i * grid.step_hz, j * grid.unit);
            ASSERT_EQ(meter.measured(), expected.measured);
            expect_energies(meter.drift_energies(i, j), expected, share, std::to_string(i) + ", " + std::to_string(j));
        }
    }
}

// ---- Energies -------------------------------------------------------------------------------------------------------

struct Shape {
    int32_t chip_len, nchips, spread;
    StartGrid starts;
};

// Frames inside, over both edges, and wholly outside; chips of even and odd length, spreads from one column to the
// band.
const std::vector<Shape> SHAPES = {
    {64, 5, 4, {100, 9, 1}},   {64, 5, 13, {-70, 3, 1}},  {63, 5, 5, {20, 3, 1}},   {128, 5, 6, {-300, 5, 2}},
    {16, 20, 4, {700, 3, 1}},  {7, 21, 1, {-9, 3, 1}},    {4, 31, 7, {0, 2, 1}},    {5, 31, 9, {900, 3, 2}},
    {512, 3, 2, {-512, 3, 8}}, {640, 1, 2, {90, 16, 20}}, {32, 3, 63, {-20, 3, 3}}, {64, 3, 4, {5000, 2, 1}},
};

TEST(SpreadEnergies, OfNeighboursEqualTheDefinition) {
    Samples samples = noise(1024, 500, 1);
    for (const Shape& shape : SHAPES) {
        SCOPED_TRACE(std::to_string(shape.chip_len) + " samples, spread " + std::to_string(shape.spread));
        const ov_specmap map = chips_map(500, shape.chip_len, shape.nchips, shape.spread);
        expect_grid(samples.view(), map, shape.starts, {-3.3, map.bin_hz / 4, 4}, 0, SINGLE_PRECISION);
        expect_grid(samples.view(), map, shape.starts, {120, map.bin_hz / 16, 2}, 0.8, SINGLE_PRECISION);
    }
}

TEST(SpreadEnergies, OfManyDriftsEqualTheDefinition) {
    Samples samples = noise(1024, 500, 2);
    for (const Shape& shape : SHAPES) {
        if (shape.nchips == 1) continue;
        SCOPED_TRACE(std::to_string(shape.chip_len) + " samples, spread " + std::to_string(shape.spread));
        const ov_specmap map = chips_map(500, shape.chip_len, shape.nchips, shape.spread);
        const double unit = 0.5 * map.bin_hz / (map.frame_chips * map.chip_s);
        const int32_t n_drifts = shape.chip_len < 32 ? 12 : 4;
        expect_drifts(samples.view(), map, shape.starts.first, {7.7, map.bin_hz / 4, 2, unit, n_drifts},
                      SINGLE_PRECISION);
    }
}

// Where it is left out what strong signals hold, a weak sum beside them would show it.
TEST(SpreadEnergies, BesideStrongCarriersEqualTheDefinition) {
    const ov_specmap map = chips_map(500, 64, 5, 4);
    const double rim_hz = (map.spread + 1) * map.bin_hz;
    for (const double away_hz : {0.0, rim_hz - 1, rim_hz, rim_hz + 0.5, rim_hz + 4, 20.0, 31.25, 100.0, 250.0}) {
        SCOPED_TRACE(away_hz);
        Samples samples = noise(500, 500, 3);
        add_tone(samples, 1e5, 40 + away_hz);
        expect_grid(samples.view(), map, {30, 3, 4}, {40, map.bin_hz / 4, 4}, 0, SINGLE_PRECISION);
        expect_drifts(samples.view(), map, 30, {40, map.bin_hz / 4, 2, 0.4, 4}, SINGLE_PRECISION);
    }
}

TEST(SpreadEnergies, OfSilenceAreNothing) {
    Samples samples = noise(1000, 500, 4);
    std::fill(samples.x.begin() + 250, samples.x.end(), 0);
    const ov_specmap map = chips_map(500, 64, 14, 4);
    expect_grid(samples.view(), map, {0, 9, 1}, {10, map.bin_hz / 4, 4}, 0.3, SINGLE_PRECISION);
    expect_drifts(samples.view(), map, 3, {10, map.bin_hz / 4, 2, 0.3, 4}, SINGLE_PRECISION);
}

TEST(SpreadEnergies, OfDriftsTooFarApartAreNotMeasuredTogether) {
    Samples samples = noise(1000, 500, 5);
    SpreadMeter meter(samples.view(), chips_map(500, 64, 14, 4));
    EXPECT_FALSE(meter.measure_drifts(0, {0, 5, 4, 0.01, 2})) << "frequencies";
    EXPECT_FALSE(meter.measure_drifts(0, {0, 0.5, 2, 5, 12})) << "drifts";
    EXPECT_FALSE(meter.measure_drifts(0, {0, NOT_A_NUMBER, 2, 1, 12}));
    EXPECT_FALSE(meter.measure_drifts(0, {0, 0.5, 2, std::numeric_limits<double>::infinity(), 12}));
}

TEST(SpreadEnergies, OfOneFrameEqualThoseColumnByColumnToTheLastBit) {
    Samples samples = noise(1024, 500, 6);
    add_tone(samples, 30, 77);
    for (const Shape& shape : SHAPES) {
        SCOPED_TRACE(std::to_string(shape.chip_len) + " samples, spread " + std::to_string(shape.spread));
        const ov_specmap map = chips_map(500, shape.chip_len, shape.nchips, shape.spread);
        const ov_baseband bb = samples.view();
        SpreadFrameMeter meter(bb, map);
        for (const double drift : {0.0, -0.7}) {
            std::array<float, OV_MAX_CHIPS> expected;
            std::array<float, OV_MAX_CHIPS> got;
            const int32_t n_in = ov_chip_energies_sp(bb, map, shape.starts.first, 71.3, drift, expected.data());
            EXPECT_EQ(meter.measure(shape.starts.first, 71.3, drift, got.data()), n_in);
            EXPECT_TRUE(std::equal(got.begin(), got.begin() + shape.nchips, expected.begin()));
        }
    }
}

// ---- Refinement -----------------------------------------------------------------------------------------------------

// The hypotheses of a refinement, one by one; attempt keeps the better one in best.
template <class Attempt>
void try_all(const ov_specmap& map, int32_t start, double f, double drift_max, const ov_hyp& best, Attempt attempt) {
    const int32_t step = map.hop >= 4 ? map.hop / 4 : 1;
    for (int32_t d = -map.hop; d <= map.hop; d += step) {
        for (int32_t i = -4; i <= 4; i++) attempt(start + d, f + i * map.bin_hz / 4, 0.0);
    }
    if (drift_max > 0) {
        double unit = 0.5 * map.bin_hz / (map.frame_chips * map.chip_s);
        double n = std::ceil(drift_max / unit);
        if (n > 12) {
            n = 12;
            unit = drift_max / 12;
        }
        const int32_t base = best.start;
        const double middle = best.f;
        for (int32_t j = -static_cast<int32_t>(n); j <= static_cast<int32_t>(n); j++) {
            for (int32_t i = -2; j != 0 && i <= 2; i++) attempt(base, middle + i * map.bin_hz / 4, j * unit);
        }
    }
    const int32_t base = best.start;
    const double middle = best.f;
    const double drift = best.drift;
    for (int32_t d = -step; d <= step; d += step >= 4 ? step / 4 : 1) {
        for (int32_t i = -2; i <= 2; i++) attempt(base + d, middle + i * map.bin_hz / 16, drift);
    }
}

void expect_same(const ov_hyp& got, const ov_hyp& expected) {
    EXPECT_EQ(got.start, expected.start);
    EXPECT_EQ(got.f, expected.f);
    EXPECT_EQ(got.drift, expected.drift);
    EXPECT_EQ(got.metric, expected.metric);
    EXPECT_EQ(got.noise, expected.noise);
    EXPECT_EQ(got.n_in, expected.n_in);
    EXPECT_TRUE(std::equal(std::begin(got.energy), std::end(got.energy), std::begin(expected.energy)));
}

// Keying of a frame whose chips are all known, with noise, and in some scenes a carrier or silence beside it.
Samples keyed_scene(const std::vector<uint8_t>& chips, double rate, int32_t round) {
    Random random(static_cast<uint64_t>(100 + round));
    const auto chip_len = static_cast<std::size_t>(rate * CHIP_SECONDS);
    Samples samples = noise((chips.size() + 8) * chip_len, rate, static_cast<uint64_t>(round));
    const double amplitude = round % 3 == 0 ? 0 : random.uniform(0.1, 2);
    const double width_hz = random.uniform(0, 6);
    double phase = 0;
    for (std::size_t k = 0; k < samples.x.size(); k++) {
        phase += 2 * std::numbers::pi * (3 + width_hz * random.normal()) / rate;
        const std::size_t chip = k / chip_len;
        if (chip >= 4 && chip < 4 + chips.size() && chips[chip - 4] != 0) samples.x[k] += std::polar(amplitude, phase);
    }
    if (round % 4 == 1) add_tone(samples, std::pow(10, random.uniform(0, 4)), random.uniform(-60, 60));
    if (round % 5 == 4) std::fill_n(samples.x.begin(), samples.x.size() / 3, 0);
    return samples;
}

// Refines around a place in both ways.
void expect_same_choice(const ov_baseband& bb, const ov_specmap& map, const ov_cand& cand, double drift_max) {
    ov_hyp expected{};
    expected.metric = -1e300;
    try_all(map, cand.pos * map.hop, cand.f, drift_max, expected,
            [&](int32_t start, double f, double drift) { try_hyp(bb, map, start, f, drift, 11, expected); });
    ov_hyp got{};
    ASSERT_EQ(ov_refine(bb, map, cand, drift_max, 0.3, got), 0);
    expect_same(got, expected);
}

TEST(SpreadRefinement, ChoosesWhatTryingAllChooses) {
    std::vector<uint8_t> chips(17);
    Random random(7);
    for (uint8_t& chip : chips) chip = static_cast<uint8_t>(random.integer(0, 1));
    for (const double rate : {125.0, 500.0, 625.0}) {  // 16 steps of one sample and of four, and 80 of one
        for (int32_t round = 0; round < 10; round++) {
            SCOPED_TRACE(std::to_string(rate) + " Hz, round " + std::to_string(round));
            Samples samples = keyed_scene(chips, rate, round);
            const ov_baseband bb = samples.view();
            ov_specmap map;
            ASSERT_EQ(ov_spectrogram(bb, CHIP_SECONDS, 20, round % 2 == 0 ? 12 : 30, map), 0);
            ov_spec_frame(map, 8, 1);
            ov_cand cand{};
            cand.pos = (round % 3 == 2 ? -4 : 4) * map.steps_per_chip + random.integer(-8, 8);
            cand.f = random.integer(-8, 8) * map.bin_hz;
            const double columns_a_frame = std::array{0.0, 2.0, 20.0}[static_cast<std::size_t>(round % 3)];
            expect_same_choice(bb, map, cand, columns_a_frame * map.bin_hz / (map.frame_chips * map.chip_s));
            ov_spectrogram_free(map);
        }
    }
}

// Chips that differ by less than a float can tell: the choice is one of rounding, and still the same.
TEST(SpreadRefinement, OfASteadyCarrierIsTheSameChoice) {
    for (int32_t round = 0; round < 12; round++) {
        SCOPED_TRACE(round);
        Samples samples = noise(27 * 16, 125, static_cast<uint64_t>(200 + round));
        for (auto& sample : samples.x) sample *= std::pow(10.0, -1.0 * round);
        add_tone(samples, 1, 2.3);
        const ov_baseband bb = samples.view();
        ov_specmap map;
        ASSERT_EQ(ov_spectrogram(bb, CHIP_SECONDS, 10, 12, map), 0);
        ov_spec_frame(map, 8, 1);
        ov_cand cand{};
        cand.pos = 4 * map.steps_per_chip;
        expect_same_choice(bb, map, cand, 2 * map.bin_hz / (map.frame_chips * map.chip_s));
        ov_spectrogram_free(map);
    }
}

TEST(SpreadRefinement, OfKnownCallsignsChoosesWhatTryingAllChooses) {
    ovc_known known;
    ASSERT_EQ(ovc_known_init("K2QRX", &known), 0);
    for (int32_t round = 0; round < 6; round++) {
        SCOPED_TRACE(round);
        Samples samples = keyed_scene(opera_chips("K2QRX"), 125, round);
        const ov_baseband bb = samples.view();
        ov_specmap map;
        ASSERT_EQ(ov_spectrogram(bb, CHIP_SECONDS, 10, round % 2 == 0 ? 12 : 30, map), 0);
        ovc_deep_hit hit{};
        hit.pos = 4 * map.steps_per_chip + round - 4;
        hit.f = (round - 2) * map.bin_hz;
        const double drift_max = 2 * map.bin_hz / (map.frame_chips * map.chip_s);
        ov_hyp expected{};
        expected.metric = -1e300;
        try_all(map, hit.pos * map.hop, hit.f, drift_max, expected, [&](int32_t start, double f, double drift) {
            try_deep(bb, map, known, start, f, drift, 192, expected);
        });
        ov_hyp got{};
        ASSERT_EQ(ovc_deep_refine(bb, &map, &known, &hit, drift_max, 0.2, got), 0);
        expect_same(got, expected);
        ov_spectrogram_free(map);
    }
}

}  // namespace
