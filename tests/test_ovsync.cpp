// Synchronisation and measurement against the plain models, on random basebands, hand-made maps and stations in noise.
#include "ovsync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include "ovsnr.h"
#include "owners.h"
#include "siggen.h"
#include "sync_model.h"

namespace {

using sync_model::Complex;
using sync_model::Samples;
using sync_model::Search;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr int32_t MAX32 = std::numeric_limits<int32_t>::max();
constexpr int32_t MIN32 = std::numeric_limits<int32_t>::min();
constexpr double CHIP = CHIP_SECONDS;

Samples random_samples(std::size_t n, double rate, uint64_t seed) {
    Samples out;
    out.rate = rate;
    Random random(seed);
    for (std::size_t k = 0; k < n; ++k) {
        const double re = random.normal();
        const double im = random.normal();
        out.x.emplace_back(re, im);
    }
    return out;
}

void add_tone(Samples& samples, double amplitude, double f) {
    for (std::size_t k = 0; k < samples.x.size(); ++k)
        samples.x[k] += std::polar(amplitude, 2 * std::numbers::pi * f * static_cast<double>(k) / samples.rate);
}

// A map whose cells a test sets itself: rows of `steps` to a chip of 16 samples at 125 Hz.
struct HandMap {
    std::vector<float> power, noise;
    ov_specmap map{};

    HandMap(int32_t npos, int32_t half, int32_t steps, int32_t pairs, int32_t pair_mode) {
        map.chip_s = CHIP;
        map.rate = 125;
        map.chip_len = 16;
        map.steps_per_chip = steps;
        map.hop = 16 / steps;
        map.nfft = 64;
        map.bin_hz = 125.0 / 64;
        map.half = half;
        map.nbins = 2 * half + 1;
        map.npos = npos;
        map.noise_rescale = 1;
        map.spread_factor = 1;
        map.pairs = pairs;
        map.frame_chips = 2 * pairs + 1;
        map.pair_mode = pair_mode;
        power.assign(static_cast<std::size_t>(npos) * static_cast<std::size_t>(map.nbins), 1.0F);
        noise.assign(static_cast<std::size_t>(map.nbins), 1.0F);
        map.power = power.data();
        map.noise = noise.data();
    }
    HandMap(const HandMap&) = delete;
    HandMap& operator=(const HandMap&) = delete;

    float& at(int32_t row, int32_t bin) {
        return power[static_cast<std::size_t>(row) * static_cast<std::size_t>(map.nbins) +
                     static_cast<std::size_t>(bin)];
    }
    void randomise(uint64_t seed) {
        Random random(seed);
        for (float& cell : power) cell = static_cast<float>(-std::log(random.uniform(1e-9, 1)));
    }
    // Small whole numbers: every score is exact in single precision, in whatever order it is summed, and ties abound.
    void randomise_whole(uint64_t seed, int32_t high) {
        Random random(seed);
        for (float& cell : power) cell = static_cast<float>(random.integer(0, high));
    }
    // Keys chips of a frame that starts at `row` in one column.
    void key(const std::vector<uint8_t>& chips, int32_t row, int32_t bin, float level) {
        for (std::size_t c = 0; c < chips.size(); ++c) {
            const int32_t where = row + static_cast<int32_t>(c) * map.steps_per_chip;
            if (where >= 0 && where < map.npos && chips[c] != 0) at(where, bin) += level;
        }
    }
};

struct Result {
    int32_t count = 0;
    double median = -77;
    double sigma = -77;
    std::vector<ov_cand> out;
};

Result search_map(const ov_specmap& map, const Search& search) {
    Result result;
    std::vector<ov_cand> room(static_cast<std::size_t>(std::max(search.max_out, 0)) + 1);
    result.count = ov_find_candidates(map, search.t_min, search.t_max, search.search_hz, search.edge, search.z_min,
                                      search.max_out, room.data(), &result.median, &result.sigma);
    if (result.count > 0) result.out.assign(room.begin(), room.begin() + result.count);
    return result;
}

// tolerance 0: everything exactly equal.
void expect_equal_search(const ov_specmap& map, const Search& search, double tolerance, const std::string& what) {
    SCOPED_TRACE(what);
    const auto plain = sync_model::find_candidates(map, search);
    const Result real = search_map(map, search);
    ASSERT_EQ(real.out.size(), plain.out.size());
    ASSERT_EQ(real.count, static_cast<int32_t>(plain.out.size()));
    EXPECT_NEAR(real.median, plain.searched ? plain.median : -77, tolerance * 100);
    EXPECT_NEAR(real.sigma, plain.searched ? plain.sigma : -77, tolerance * 100);
    for (std::size_t k = 0; k < real.out.size(); ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(real.out[k].pos, plain.out[k].pos);
        ASSERT_EQ(real.out[k].bin, plain.out[k].bin);
        ASSERT_EQ(real.out[k].t, plain.out[k].t);
        ASSERT_EQ(real.out[k].f, plain.out[k].f);
        ASSERT_NEAR(real.out[k].score, plain.out[k].score, tolerance * 100);
        ASSERT_NEAR(real.out[k].z, plain.out[k].z, tolerance * 100);
    }
}

void expect_zeroed(const ov_specmap& map) {
    EXPECT_EQ(map.power, nullptr);
    EXPECT_EQ(map.noise, nullptr);
    EXPECT_EQ(std::tie(map.chip_len, map.steps_per_chip, map.hop, map.nfft, map.nbins, map.half, map.npos),
              std::tuple(0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(std::tie(map.spread, map.pairs, map.frame_chips, map.pair_mode), std::tuple(0, 0, 0, 0));
    EXPECT_EQ(std::tie(map.chip_s, map.rate, map.bin_hz, map.noise_rescale, map.spread_factor),
              std::tuple(0.0, 0.0, 0.0, 0.0, 0.0));
}

void expect_equal_maps(const ov_specmap& map, const sync_model::Map& plain, double tolerance) {
    EXPECT_EQ(map.chip_len, plain.chip_len);
    EXPECT_EQ(map.steps_per_chip, plain.steps);
    EXPECT_EQ(map.hop, plain.hop);
    EXPECT_EQ(map.nfft, plain.nfft);
    EXPECT_EQ(map.bin_hz, plain.bin_hz);
    EXPECT_EQ(map.spread, plain.spread);
    ASSERT_EQ(map.half, plain.half);
    ASSERT_EQ(map.nbins, plain.nbins);
    ASSERT_EQ(map.npos, plain.npos);
    for (std::size_t b = 0; b < plain.noise.size(); ++b)
        ASSERT_NEAR(map.noise[b] / plain.noise[b], 1, tolerance) << "column " << b;
    for (std::size_t k = 0; k < plain.power.size(); ++k)
        ASSERT_NEAR(map.power[k], plain.power[k], tolerance * (1 + std::abs(plain.power[k])))
            << "row " << k / plain.noise.size() << " column " << k % plain.noise.size();
}

bool same_hyp(const ov_hyp& a, const ov_hyp& b) {
    return a.start == b.start && a.f == b.f && a.drift == b.drift && a.metric == b.metric && a.noise == b.noise &&
           a.n_in == b.n_in && a.noise_rescale == b.noise_rescale && a.spread_factor == b.spread_factor &&
           a.nchips == b.nchips && std::equal(a.energy, a.energy + a.nchips, b.energy) &&
           std::equal(a.soft, a.soft + (a.nchips - 1) / 2, b.soft);
}

std::unique_ptr<ov_hyp> empty_hyp() {
    auto hyp = std::make_unique<ov_hyp>();
    *hyp = {};
    hyp->metric = -1e300;
    return hyp;
}

}  // namespace

// ---- Median -----------------------------------------------------------------------------------------------------

TEST(Median, IsTheMiddleOrTheMeanOfTheTwoMiddleValues) {
    std::vector<float> scratch(101);
    EXPECT_EQ(median_of(nullptr, 0, nullptr), 0);
    EXPECT_EQ(median_of(scratch.data(), -3, scratch.data()), 0);
    const std::vector<float> odd = {5, 1, 9};
    EXPECT_EQ(median_of(odd.data(), 3, scratch.data()), 5);
    const std::vector<float> even = {8, 1, 2, 100};
    EXPECT_EQ(median_of(even.data(), 4, scratch.data()), 5);
    EXPECT_EQ(median_of(odd.data(), 1, scratch.data()), 5);
    EXPECT_EQ(odd, (std::vector<float>{5, 1, 9})) << "input changed";

    Random random(1);
    for (int32_t n = 1; n <= 100; ++n) {
        std::vector<float> values;
        for (int32_t k = 0; k < n; ++k) values.push_back(static_cast<float>(random.integer(-20, 20)) / 7);
        ASSERT_EQ(median_of(values.data(), n, scratch.data()), sync_model::median(values)) << n;
    }
}

TEST(Median, MeanOfTheMiddleIsTakenInSinglePrecision) {
    std::vector<float> scratch(2);
    const std::vector<float> far = {16777216.0F, 16777218.0F};  // the mean, 16777217, is no float
    EXPECT_EQ(median_of(far.data(), 2, scratch.data()), (16777216.0F + 16777218.0F) * 0.5F);
    const std::vector<float> huge = {3e38F, 3e38F};  // the sum overflows first
    EXPECT_EQ(median_of(huge.data(), 2, scratch.data()), std::numeric_limits<float>::infinity());
}

TEST(Median, OfZerosIsAPositiveZero) {
    const std::vector<float> zeros(7, 0.0F);
    const std::vector<float> mixed = {-2, -1, 0, 0, 0, 1, 2};
    std::vector<float> scratch(7);
    for (const int32_t n : {1, 2, 7}) {
        EXPECT_FALSE(std::signbit(median_of(zeros.data(), n, scratch.data()))) << n;
    }
    EXPECT_EQ(median_of(mixed.data(), 7, scratch.data()), 0);
    EXPECT_FALSE(std::signbit(median_of(mixed.data(), 7, scratch.data())));
}

TEST(Median, SurvivesValuesThatAreNoNumbers) {
    Random random(2);
    std::vector<float> scratch(300);
    for (int32_t n = 1; n <= 300; n += 13) {
        std::vector<float> values;
        for (int32_t k = 0; k < n; ++k)
            values.push_back(random.integer(0, 2) == 0 ? std::numeric_limits<float>::quiet_NaN()
                                                       : static_cast<float>(random.normal()));
        const float middle = median_of(values.data(), n, scratch.data());
        EXPECT_TRUE(std::isnan(middle) || std::abs(middle) < 10);
    }
}

// ---- Score map --------------------------------------------------------------------------------------------------

TEST(ScoreMap, EqualsTheDefinition) {
    struct Case {
        double rate, chip_s, search_hz, spread_hz;
        std::size_t n;
    };
    const std::vector<Case> cases = {
        {125, 0.128, 20, 0, 300},      // the smallest OPERA map: 16 samples, hop 1, whole band
        {125, 0.128, 200, 0, 64},      // wider than the band
        {125, 0.128, 20, 10, 120},     // spread 4
        {125, 0.128, 20, 0.1, 120},    // spread at least the padding
        {250, 0.128, 5, 0, 400},       // hop 2, a margin that fits
        {250, 0.128, 46.5, 0, 200},    // margin and band end together
        {250, 0.128, 5, 12, 300},      //
        {500, 0.128, 30, 0, 700},      // hop 4
        {500, 0.128, 10, 3.4, 300},    //
        {100, 0.1, 10, 0, 150},        // 10 samples: hop 1, 10 rows a chip
        {100, 0.13, 10, 20, 150},      // 13 samples
        {40, 0.1, 1, 0, 9000},         // 4 samples; more than 4000 rows
        {40, 0.1, 1, 0, 4003},         // exactly 4000 rows
        {40, 0.1, 1, 0, 4},            // one row
        {40, 0.1, 1, 20, 40},          // spread 4 leaves 3 columns a side
        {512, 1, 2, 0, 512 + 32 * 3},  // the longest chip that is padded 4 times
        {513, 1, 2, 0, 515},           // padded twice, hop 1
        {528, 1, 3, 0, 528 + 33 * 5},  // padded twice, hop 33
        {528, 1, 3, 2, 528 + 33 * 3},  //
        {2500, 0.0128, 50, 0, 61},     // a short chip; samples left over at the end
        {125, 0.128, -14, 0, 60},      // a search that takes columns away
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.rate) + " Hz, chip " + std::to_string(c.chip_s) + ", search " +
                     std::to_string(c.search_hz) + ", spread " + std::to_string(c.spread_hz));
        Samples samples = random_samples(c.n, c.rate, c.n);
        add_tone(samples, 0.7, 3.3);
        const ov_baseband bb = samples.view();
        const auto plain = sync_model::score_map(bb, c.chip_s, c.search_hz, c.spread_hz);
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(bb, c.chip_s, c.search_hz, c.spread_hz, map), plain.fits ? 0 : -1);
        if (!plain.fits) {
            ADD_FAILURE() << "not a case of this test";
            continue;
        }
        EXPECT_EQ(map.chip_s, c.chip_s);
        EXPECT_EQ(map.rate, c.rate);
        EXPECT_EQ(map.noise_rescale, 1);
        EXPECT_EQ(map.spread_factor,
                  plain.spread == 0 ? 1 : static_cast<double>(2 * plain.spread + 1) / static_cast<double>(plain.pad));
        EXPECT_EQ(std::tie(map.pairs, map.frame_chips, map.pair_mode), std::tuple(119, 239, 0));
        expect_equal_maps(map, plain, 2e-5);
    }
}

TEST(ScoreMap, HasAColumnOnEachSideOfTheCentreAtLeast) {
    constexpr double BIN_HZ = 125.0 / 64;
    Samples samples = random_samples(60, 125, 1);
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, -39 * BIN_HZ, 0, map), 0);
    EXPECT_EQ(map.nbins, 3U);
    MapOwner none;
    EXPECT_EQ(ov_spectrogram(samples.view(), 0.128, -40 * BIN_HZ, 0, none), -1);
}

TEST(ScoreMap, SixteenSamplesAChipAreTheSmallestOperaMap) {
    Samples samples = random_samples(500, 125, 3);
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, 20, 0, map), 0);
    EXPECT_EQ(map.hop, 1);
    EXPECT_EQ(map.steps_per_chip, 16);
    EXPECT_EQ(map.nfft, 64);
    EXPECT_EQ(map.bin_hz, 1.953125);
    EXPECT_EQ(map.npos, 485);
}

TEST(ScoreMap, NoiseHasMeanOneInEveryColumn) {
    Samples samples = random_samples(20000, 250, 4);
    for (const double spread_hz : {0.0, 20.0}) {
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, 30, spread_hz, map), 0);
        double sum = 0;
        for (int64_t k = 0; k < int64_t{map.npos} * map.nbins; ++k) sum += static_cast<double>(map.power[k]);
        const double mean = sum / map.npos / map.nbins;
        // A spread sum is nearly symmetric, so its median over ln 2 lies above its mean.
        EXPECT_NEAR(mean, spread_hz > 0 ? 0.75 : 1, 0.05) << spread_hz;
    }
}

TEST(ScoreMap, ASilentBlockHasTheFloorAsNoise) {
    Samples silent;
    silent.rate = 125;
    silent.x.assign(400, 0.0);
    for (const double spread_hz : {0.0, 10.0}) {
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(silent.view(), 0.128, 20, spread_hz, map), 0);
        for (int32_t b = 0; b < map.nbins; ++b) ASSERT_EQ(map.noise[b], 1e-30F);
        for (int64_t k = 0; k < int64_t{map.npos} * map.nbins; ++k) ASSERT_EQ(map.power[k], 0);
    }
}

TEST(ScoreMap, SpreadSumsSlideInDoubleWithSinglePrecisionSteps) {
    // A line far above everything else leaves its rounding error in the columns that follow.
    Samples samples = random_samples(512 + 32, 512, 5);
    for (Complex& x : samples.x) x *= 1e-3;
    add_tone(samples, 1e4, -150.3);
    const ov_baseband bb = samples.view();
    const auto plain = sync_model::score_map(bb, 1, 1e6, 2);
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(bb, 1, 1e6, 2, map), 0);
    ASSERT_EQ(map.spread, 4);
    expect_equal_maps(map, plain, 1e-5);
}

TEST(ScoreMap, RefusesWhatDoesNotFitAndZeroesTheRecord) {
    Samples samples = random_samples(64, 125, 6);
    const ov_baseband bb = samples.view();
    ov_baseband short_block = bb;
    short_block.n = 15;
    ov_baseband empty = bb;
    empty.n = 0;
    ov_baseband no_rate = bb;
    no_rate.rate = 0;
    ov_baseband nan_rate = bb;
    nan_rate.rate = NOT_A_NUMBER;
    struct Case {
        const char* why;
        const ov_baseband* bb;
        double chip_s, search_hz, spread_hz;
    };
    const std::vector<Case> refused = {
        {"chip of 12.5 samples", &bb, 0.1, 20, 0},
        {"chip of 16.00001 samples", &bb, 0.12800008, 20, 0},
        {"chip of 3 samples", &bb, 0.024, 20, 0},
        {"chip of no length", &bb, 0, 20, 0},
        {"negative chip", &bb, -0.128, 20, 0},
        {"endless chip", &bb, INF, 20, 0},
        {"huge chip", &bb, 1e300, 20, 0},
        {"chip of more samples than fit 32 bits", &bb, 8e8, 20, 0},
        {"chip of more samples than fit 32 bits when padded", &bb, 8e6, 20, 0},
        {"NaN chip", &bb, NOT_A_NUMBER, 20, 0},
        {"block shorter than a chip", &short_block, 0.128, 20, 0},
        {"empty block", &empty, 0.128, 20, 0},
        {"no rate", &no_rate, 0.128, 20, 0},
        {"NaN rate", &nan_rate, 0.128, 20, 0},
        {"no column: search", &bb, 0.128, -2000, 0},
        {"no column: endless negative search", &bb, 0.128, -INF, 0},
        {"no column: huge negative search", &bb, 0.128, -1e300, 0},
        {"no column: spread", &bb, 0.128, 20, 130},
        {"no column: huge spread", &bb, 0.128, 20, 1e300},
        {"no column: endless spread", &bb, 0.128, 20, INF},
    };
    for (const Case& c : refused) {
        SCOPED_TRACE(c.why);
        ov_specmap map{};
        map.npos = 5;
        map.spread_factor = 3;
        EXPECT_EQ(ov_spectrogram(*c.bb, c.chip_s, c.search_hz, c.spread_hz, map), -1);
        expect_zeroed(map);
        ov_spectrogram_free(map);
        expect_zeroed(map);
    }
}

TEST(ScoreMap, EndlessSearchesTakeTheWholeBandAndNanSpreadIsOff) {
    Samples samples = random_samples(64, 125, 6);
    for (const double search_hz : {1e6, 1e300, INF}) {
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, search_hz, 0, map), 0);
        EXPECT_EQ(map.half, 31) << search_hz;
    }
    for (const double spread_hz : {NOT_A_NUMBER, -1.0, -INF, 0.0}) {
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, 20, spread_hz, map), 0);
        EXPECT_EQ(map.spread, 0) << spread_hz;
    }
    ov_specmap nan_search{};
    EXPECT_EQ(ov_spectrogram(samples.view(), 0.128, NOT_A_NUMBER, 0, nan_search), nan_search.power ? 0 : -1);
    ov_spectrogram_free(nan_search);
    expect_zeroed(nan_search);
}

TEST(ScoreMap, OverflowingSamplesDoNotBreakIt) {
    for (const double loud : {1e155, 1e200, 1e300}) {
        Samples samples = random_samples(200, 125, 7);
        for (std::size_t k = 80; k < 120; ++k) samples.x[k] *= loud;
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(samples.view(), 0.128, 20, 0, map), 0);
        ov_spec_frame(map, 4, 1);
        const Result result = search_map(map, Search{});
        EXPECT_GE(result.count, 0);
        for (const ov_cand& cand : result.out) {
            EXPECT_FALSE(std::isnan(cand.score));
            EXPECT_FALSE(std::isnan(cand.z));
        }
    }
}

TEST(ScoreMap, FrameLayoutTouchesNothingElseAndIsCapped) {
    HandMap hand(10, 2, 1, 119, 0);
    const ov_specmap before = hand.map;
    for (const auto& [coded, pairs] : {std::pair{119, 119}, {160, 160}, {161, 160}, {MAX32, 160}, {7, 7}}) {
        ov_specmap copy = hand.map;
        ov_spec_frame(copy, coded, 1);
        EXPECT_EQ(copy.pairs, pairs);
        EXPECT_EQ(copy.frame_chips, 2 * pairs + 1);
        EXPECT_EQ(copy.pair_mode, 1);
        EXPECT_EQ(copy.power, before.power);
        EXPECT_EQ(copy.npos, before.npos);
        EXPECT_EQ(copy.bin_hz, before.bin_hz);
    }
}

// ---- Candidates -------------------------------------------------------------------------------------------------

TEST(CandidateSearch, EqualsTheDefinitionOnRandomMaps) {
    for (uint64_t seed = 1; seed <= 3; ++seed) {
        for (const auto& [steps, pairs, mode] :
             {std::tuple{1, 119, 0}, {2, 119, 0}, {1, 119, 1}, {2, 12, 1}, {16, 5, 1}, {1, 160, 1}, {4, 1, 1}}) {
            HandMap hand((2 * pairs + 1) * steps + 23, 5, steps, pairs, mode);
            hand.randomise(seed);
            for (const double z_min : {-1e3, 0.0, 1.5, 3.0}) {
                Search search;
                search.z_min = z_min;
                search.edge = 0.03 * static_cast<double>(seed);
                expect_equal_search(hand.map, search, 1e-5,
                                    std::to_string(steps) + ' ' + std::to_string(pairs) + ' ' + std::to_string(mode) +
                                        " z " + std::to_string(z_min));
            }
        }
    }
}

TEST(CandidateSearch, TiesAndThinningEqualTheDefinitionOnWholeNumbers) {
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        for (const auto& [steps, pairs, mode] : {std::tuple{1, 119, 0}, {1, 30, 1}, {2, 6, 1}, {16, 4, 1}}) {
            HandMap hand((2 * pairs + 1) * steps + 40, 12, steps, pairs, mode);
            hand.randomise_whole(seed, seed < 4 ? 1 : 9);
            for (const double z_min : {-1e3, 0.0, 0.6744, 2.0}) {
                Search search;
                search.z_min = z_min;
                search.edge = 0.05;
                expect_equal_search(hand.map, search, 0,
                                    std::to_string(steps) + ' ' + std::to_string(pairs) + ' ' + std::to_string(mode) +
                                        " z " + std::to_string(z_min));
            }
        }
    }
}

TEST(CandidateSearch, SingleCellsHaveTheScoreOfTheDefinition) {
    HandMap hand(270, 3, 1, 119, 0);
    hand.randomise(9);
    for (int32_t row = -47; row <= 78; ++row) {
        Search search;
        search.t_min = (row - 0.3) * 0.128;
        search.t_max = (row + 0.3) * 0.128;
        search.search_hz = 0;
        search.z_min = -10;
        const Result result = search_map(hand.map, search);
        ASSERT_EQ(result.count, 1) << row;
        ASSERT_EQ(result.out[0].pos, row);
        ASSERT_EQ(result.out[0].bin, 3);
        ASSERT_NEAR(result.out[0].score, sync_model::score(hand.map, row, 3), 2e-4) << row;
        EXPECT_EQ(result.median, result.out[0].score);
        EXPECT_EQ(result.sigma, 1e-9);
    }
}

TEST(CandidateSearch, SamplesScoresEvenlyAboveTwoHundredThousand) {
    HandMap hand(20000, 10, 1, 2, 1);
    hand.randomise_whole(4, 5);
    // Scores that grow with time: a sample of the first cells would show.
    for (int32_t row = 0; row < hand.map.npos; ++row) {
        for (int32_t bin = 0; bin < hand.map.nbins; ++bin) hand.at(row, bin) *= static_cast<float>(1 + row / 500);
    }
    Search search;
    search.z_min = 2;
    expect_equal_search(hand.map, search, 0, "420 000 cells");
}

TEST(CandidateSearch, FindsTheKeyedFrameFirst) {
    const auto chips = opera_chips("K1ABC");
    HandMap hand(400, 8, 1, 119, 0);
    hand.randomise(10);
    hand.key(chips, 77, 5, 3.0F);
    const Result result = search_map(hand.map, Search{});
    ASSERT_GE(result.count, 1);
    EXPECT_EQ(result.out[0].pos, 77);
    EXPECT_EQ(result.out[0].bin, 5);
    EXPECT_EQ(result.out[0].t, 16.0 * 77 / 125);
    EXPECT_EQ(result.out[0].f, -3 * 1.953125);
    EXPECT_EQ(result.out[0].z, (result.out[0].score - result.median) / result.sigma);
    EXPECT_GT(result.out[0].z, 8);
}

TEST(CandidateSearch, FramesMayHangOverBothEdgesByAFifth) {
    const auto chips = opera_chips("K1ABC");
    for (const int32_t start : {-47, -20, 0, 100, 161, 180, 208}) {  // 400 rows, 47 chips over either end
        HandMap hand(400, 8, 1, 119, 0);
        hand.randomise(static_cast<uint64_t>(100 + start));
        hand.key(chips, start, 9, 5.0F);
        const Result result = search_map(hand.map, Search{});
        ASSERT_GE(result.count, 1);
        EXPECT_EQ(result.out[0].pos, start);
        EXPECT_EQ(result.out[0].bin, 9);
    }
    HandMap hand(400, 8, 1, 119, 0);
    hand.randomise(1);
    for (const double edge : {0.2, 0.0, -3.0, 0.5, 7.0}) {
        Search search;
        search.edge = edge;
        search.z_min = -1e6;
        search.max_out = 100000;
        const auto over = static_cast<int32_t>(std::floor(std::clamp(edge, 0.0, 0.5) * 239));
        int32_t first = MAX32;
        int32_t last = MIN32;
        for (const ov_cand& cand : search_map(hand.map, search).out) {
            first = std::min(first, cand.pos);
            last = std::max(last, cand.pos);
        }
        EXPECT_GE(first, -over);
        EXPECT_LT(first, -over + 12);
        EXPECT_LE(last, 161 + over);
        EXPECT_GT(last, 161 + over - 12);
        expect_equal_search(hand.map, search, 1e-5, "edge " + std::to_string(edge));
    }
}

TEST(CandidateSearch, TimeLimitsAreRoundedInwards) {
    HandMap hand(300, 3, 1, 119, 0);
    hand.randomise(12);
    for (const auto& [t_min, t_max] : {std::pair{1.0, 5.0},
                                       {1.024, 5.12},
                                       {1.025, 5.119},
                                       {-2.0, 0.0},
                                       {-INF, 3.0},
                                       {4.0, INF},
                                       {-INF, INF},
                                       {-1e9, 1e9},
                                       {-1e300, 1e300}}) {
        Search search;
        search.t_min = t_min;
        search.t_max = t_max;
        search.z_min = -1e6;
        expect_equal_search(hand.map, search, 1e-5, std::to_string(t_min) + ' ' + std::to_string(t_max));
    }
}

TEST(CandidateSearch, NoPlaceToSearchGivesNothingAndWritesNoStatistics) {
    HandMap hand(300, 3, 1, 119, 0);
    hand.randomise(12);
    struct Case {
        const char* why;
        double t_min, t_max, search_hz, edge;
    };
    for (const Case& c : {Case{"limits crossed", 5, 1, 10, 0.2},
                          {"between two rows", 0.01, 0.02, 10, 0.2},
                          {"after the block", 1e9, 2e9, 10, 0.2},
                          {"after the block", INF, INF, 10, 0.2},
                          {"before the block", -2e9, -1e9, 10, 0.2},
                          {"before the block", -INF, -INF, 10, 0.2},
                          {"no column", -1e9, 1e9, -0.1, 0.2},
                          {"no column", -1e9, 1e9, -1e300, 0.2},
                          {"no column", -1e9, 1e9, -INF, 0.2}}) {
        SCOPED_TRACE(c.why);
        Search search;
        search.t_min = c.t_min;
        search.t_max = c.t_max;
        search.search_hz = c.search_hz;
        search.edge = c.edge;
        const Result result = search_map(hand.map, search);
        EXPECT_EQ(result.count, 0);
        EXPECT_EQ(result.median, -77);
        EXPECT_EQ(result.sigma, -77);
    }
    // 150 rows hold 239 chips only when 89 lie outside; a fifth at each end is enough, a tenth is not.
    HandMap part(150, 3, 1, 119, 0);
    part.randomise(13);
    Search search;
    search.edge = 0.1;
    EXPECT_EQ(search_map(part.map, search).median, -77);
    search.edge = 0.2;
    EXPECT_NE(search_map(part.map, search).median, -77);
}

TEST(CandidateSearch, EndlessSearchesTakeEveryColumn) {
    HandMap hand(300, 3, 1, 119, 0);
    hand.randomise(12);
    for (const double search_hz : {5.0, 5.86, 1e300, INF}) {
        Search search;
        search.search_hz = search_hz;
        search.z_min = 0;
        expect_equal_search(hand.map, search, 1e-5, std::to_string(search_hz));
    }
}

TEST(CandidateSearch, NanArgumentsAreHarmless) {
    HandMap hand(300, 3, 1, 119, 0);
    hand.randomise(12);
    for (int which = 0; which < 5; ++which) {
        Search search;
        search.max_out = 50;
        (which == 0   ? search.t_min
         : which == 1 ? search.t_max
         : which == 2 ? search.search_hz
         : which == 3 ? search.edge
                      : search.z_min) = NOT_A_NUMBER;
        const Result result = search_map(hand.map, search);
        EXPECT_GE(result.count, 0) << which;
        EXPECT_LE(result.count, 50) << which;
        for (const ov_cand& cand : result.out) {
            EXPECT_GE(cand.pos, -119);
            EXPECT_LT(cand.pos, 300);
            EXPECT_GE(cand.bin, 0);
            EXPECT_LT(cand.bin, 7);
            EXPECT_FALSE(std::isnan(cand.score));
        }
        if (which == 2 || which == 4) {
            EXPECT_EQ(result.count, 0) << "a limit that is not a number admits nothing";
        }
    }
}

TEST(CandidateSearch, RoomAndNullOutputsAreRespected) {
    HandMap hand(300, 3, 1, 119, 0);
    hand.randomise(12);
    Search search;
    search.z_min = -1e6;
    const auto all = search_map(hand.map, search);
    ASSERT_GT(all.count, 5);
    for (const int32_t room : {-5, 0, 1, 3, all.count, all.count + 1}) {
        search.max_out = room;
        const Result result = search_map(hand.map, search);
        EXPECT_EQ(result.count, std::clamp(room, 0, all.count));
        EXPECT_EQ(result.median, all.median);
        for (std::size_t k = 0; k < result.out.size(); ++k) EXPECT_EQ(result.out[k].pos, all.out[k].pos);
    }
    ov_cand one[1];
    EXPECT_EQ(ov_find_candidates(hand.map, -1e9, 1e9, 10, 0.2, -1e6, 1, one, nullptr, nullptr), 1);
    EXPECT_EQ(ov_find_candidates(hand.map, -1e9, 1e9, 10, 0.2, -1e6, 0, nullptr, nullptr, nullptr), 0);
}

TEST(CandidateSearch, NeighboursWithinSevenChipsAndTwoBandwidthsAreThinned) {
    // Single loud cells in pair mode: each frame start that puts one into a pair scores alike.
    for (const auto& [rows, columns, kept] :
         {std::tuple{7, 0, 1}, {8, 0, 2}, {0, 8, 1}, {0, 9, 2}, {7, 8, 1}, {8, 8, 2}, {7, 9, 2}, {2, 9, 2}}) {
        HandMap hand(60, 20, 1, 1, 1);
        const int32_t row = 20;
        hand.at(row, 15) = 1000;       // scores at the two starts 1 and 2 rows before
        hand.at(row + 1, 15) = -1000;  // one start, row − 1, is twice as strong
        hand.at(row + rows, 15 + columns) += 900;
        hand.at(row + rows + 1, 15 + columns) += -900;
        Search search;
        search.edge = 0;
        search.z_min = 1.5e12;  // sigma is 1e-9 on a flat map: only the two strongest cells
        const Result result = search_map(hand.map, search);
        EXPECT_EQ(result.count, kept) << rows << ' ' << columns;
        expect_equal_search(hand.map, search, 0, std::to_string(rows) + ' ' + std::to_string(columns));
    }
}

TEST(CandidateSearch, OfTwoEqualAdjacentMaximaTheFirstIsKept) {
    HandMap hand(60, 20, 1, 1, 1);
    hand.at(20, 15) = 1000;
    hand.at(20, 16) = 1000;
    Search search;
    search.edge = 0;
    const auto plain = sync_model::find_candidates(hand.map, search);
    ASSERT_EQ(plain.peaks.size(), 4u);  // two columns, two rows
    const Result result = search_map(hand.map, search);
    ASSERT_EQ(result.count, 1);
    EXPECT_EQ(result.out[0].pos, plain.peaks[0].pos);
    EXPECT_EQ(result.out[0].bin, 15);
}

TEST(CandidateSearch, ThresholdIsMetByEquality) {
    // On a flat map every score equals the median, and with z_min = 0 the threshold.
    for (const int32_t mode : {0, 1}) {
        HandMap hand(300, 4, 1, 119, mode);
        Search search;
        search.z_min = 0;
        const Result result = search_map(hand.map, search);
        EXPECT_GE(result.count, 10);
        EXPECT_EQ(result.median, 0);
        EXPECT_EQ(result.sigma, 1e-9);
        expect_equal_search(hand.map, search, 0, "flat map");
        search.z_min = 1e-6;
        EXPECT_EQ(search_map(hand.map, search).count, 0);
    }
}

TEST(CandidateSearch, AFrameWithoutPairsScoresNothing) {
    for (const int32_t pairs : {0, -1, -1000}) {
        HandMap hand(300, 4, 1, 119, 1);
        hand.randomise(23);
        ov_spec_frame(hand.map, pairs, 1);
        EXPECT_EQ(hand.map.pairs, pairs);
        EXPECT_EQ(hand.map.frame_chips, 2 * pairs + 1);
        const Result result = search_map(hand.map, Search{});
        EXPECT_EQ(result.count, 0);
        EXPECT_EQ(result.median, 0);
        EXPECT_EQ(result.sigma, 1e-9);
    }
}

TEST(CandidateSearch, CellsThatAreNoNumbersNeverMakeCandidates) {
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity()};
    for (const int32_t mode : {0, 1}) {
        for (const float value : bad) {
            for (const int32_t every : {1, 2, 50, 1000}) {
                HandMap hand(300, 5, 1, 119, mode);
                hand.randomise(21);
                for (std::size_t k = 0; k < hand.power.size(); k += static_cast<std::size_t>(every))
                    hand.power[k] = value;
                for (const double z_min : {-1e6, 0.0, 3.0}) {
                    Search search;
                    search.z_min = z_min;
                    for (const ov_cand& cand : search_map(hand.map, search).out) {
                        ASSERT_FALSE(std::isnan(cand.score)) << mode << ' ' << value << ' ' << every;
                        ASSERT_FALSE(std::isnan(cand.z)) << mode << ' ' << value << ' ' << every;
                    }
                }
            }
        }
    }
}

TEST(CandidateSearch, OneBrokenCellHidesNoFrameElsewhere) {
    const auto chips = opera_chips("K1ABC");
    for (const int32_t mode : {0, 1}) {
        HandMap hand(600, 8, 1, 119, mode);
        hand.randomise(22);
        hand.key(chips, 300, 12, 4.0F);
        hand.at(5, 2) = std::numeric_limits<float>::quiet_NaN();
        const Result result = search_map(hand.map, Search{});
        ASSERT_GE(result.count, 1) << mode;
        EXPECT_EQ(result.out[0].pos, 300) << mode;
        EXPECT_EQ(result.out[0].bin, 12) << mode;
    }
}

// ---- Chip energies ----------------------------------------------------------------------------------------------

TEST(ChipEnergies, EqualTheDefinition) {
    Random random(31);
    for (const auto& [rate, chip_len, nchips] : {std::tuple{125.0, 16, 239},
                                                 {250.0, 32, 21},
                                                 {100.0, 13, 12},
                                                 {100.0, 7, 15},
                                                 {1000.0, 600, 4},
                                                 {50.0, 1, 9}}) {
        const int32_t span = chip_len * nchips;
        Samples samples = random_samples(static_cast<std::size_t>(span) + 40, rate, 32);
        const ov_baseband bb = samples.view();
        for (int round = 0; round < 12; ++round) {
            const int32_t start = random.integer(-span - 5, span + 45);
            const double f = random.uniform(-rate / 2, rate / 2);
            const double drift = round % 3 == 0 ? 0 : random.uniform(-50, 50);
            const auto plain = sync_model::chip_energies(bb, chip_len, nchips, start, f, drift);
            std::vector<float> energy(static_cast<std::size_t>(nchips), -5.0F);
            EXPECT_EQ(ov_chip_energies(bb, chip_len, nchips, start, f, drift, energy.data()), plain.measured);
            for (std::size_t c = 0; c < energy.size(); ++c) {
                if (plain.value[c] < 0) {
                    ASSERT_EQ(energy[c], -1) << c;
                } else {
                    ASSERT_NEAR(energy[c], plain.value[c], 1e-6 * (chip_len + plain.value[c])) << c;
                }
            }
        }
    }
}

TEST(ChipEnergies, OnlyWholeChipsInsideCount) {
    Samples samples = random_samples(160, 125, 33);
    const ov_baseband bb = samples.view();
    float energy[12];
    for (const auto& [start, measured, first] : {std::tuple{0, 10, 0},
                                                 {-1, 9, 1},
                                                 {1, 9, 0},
                                                 {-16, 10, 1},
                                                 {-17, 9, 2},
                                                 {-192, 0, 12},
                                                 {160, 0, 12},
                                                 {145, 0, 12},
                                                 {144, 1, 0}}) {
        EXPECT_EQ(ov_chip_energies(bb, 16, 12, start, 0, 0, energy), measured) << start;
        for (int c = 0; c < 12; ++c) {
            const bool inside = c >= first && c < first + measured;
            EXPECT_EQ(energy[c] >= 0, inside) << start << ' ' << c;
            if (!inside) {
                EXPECT_EQ(energy[c], -1);
            }
        }
    }
    EXPECT_EQ(ov_chip_energies(bb, 16, 0, 0, 0, 0, nullptr), 0);
    EXPECT_EQ(ov_chip_energies(bb, 16, -3, 0, 0, 0, nullptr), 0);
}

TEST(ChipEnergies, DriftIsReferredToTheMiddleOfTheFrame) {
    // A chirp through 5 Hz in the middle of 41 chips: measured with its own drift every chip is coherent.
    const double drift = 3;
    const double middle = (32 + 41 * 16 / 2.0) / 125;
    Samples samples;
    samples.rate = 125;
    for (int k = 0; k < 800; ++k) {
        const double t = k / 125.0 - middle;
        samples.x.push_back(std::polar(1.0, 2 * std::numbers::pi * (5 * t + drift * t * t / 2)));
    }
    float energy[41];
    ASSERT_EQ(ov_chip_energies(samples.view(), 16, 41, 32, 5, drift, energy), 41);
    for (int c = 0; c < 41; ++c) EXPECT_GT(energy[c], 0.99 * 256) << c;
    ASSERT_EQ(ov_chip_energies(samples.view(), 16, 41, 32, 5, 0, energy), 41);
    EXPECT_GT(energy[20], 0.99 * 256);
    EXPECT_LT(energy[0], 0.2 * 256);
    EXPECT_LT(energy[40], 0.2 * 256);
}

TEST(ChipEnergies, ChipsOfNoLengthHaveNoEnergy) {
    Samples samples = random_samples(20, 125, 34);
    for (const auto& [chip_len, start] : {std::pair{0, 3}, {-1, 5}, {-4, 16}}) {
        float energy[5] = {9, 9, 9, 9, 9};
        EXPECT_EQ(ov_chip_energies(samples.view(), chip_len, 5, start, 1, 0.1, energy), 5) << chip_len;
        for (const float e : energy) EXPECT_EQ(e, 0) << chip_len;
    }
}

TEST(ChipEnergies, FarStartsAndWildFrequenciesAreHarmless) {
    Samples samples = random_samples(100, 125, 35);
    std::vector<float> energy(239);
    for (const int32_t start : {MIN32, MIN32 + 100, MAX32, MAX32 - 100, -2000000000, 2000000000}) {
        EXPECT_EQ(ov_chip_energies(samples.view(), 16, 239, start, 1, 1, energy.data()), 0) << start;
        EXPECT_EQ(std::count(energy.begin(), energy.end(), -1.0F), 239) << start;
    }
    EXPECT_EQ(ov_chip_energies(samples.view(), MAX32, 239, 0, 1, 1, energy.data()), 0);
    for (const double wild : {NOT_A_NUMBER, INF, -INF, 1e300}) {
        EXPECT_EQ(ov_chip_energies(samples.view(), 16, 239, 0, wild, 0, energy.data()), 6);
        EXPECT_EQ(ov_chip_energies(samples.view(), 16, 239, 0, 0, wild, energy.data()), 6);
        EXPECT_EQ(energy[10], -1);
    }
}

TEST(ChipEnergies, SpreadSumsNeighbouringBinsAndKeepsChipsOutside) {
    Samples samples = random_samples(500, 125, 36);
    const ov_baseband bb = samples.view();
    for (const int32_t spread : {0, 1, 4}) {
        HandMap hand(10, 3, 16, 20, 1);
        hand.map.spread = spread;
        for (const int32_t start : {-30, 0, 40}) {
            const auto plain = sync_model::chip_energies_spread(bb, hand.map, start, 7.7, 0.9);
            float energy[OV_MAX_CHIPS];
            EXPECT_EQ(ov_chip_energies_sp(bb, hand.map, start, 7.7, 0.9, energy), plain.measured);
            for (std::size_t c = 0; c < plain.value.size(); ++c) {
                if (plain.value[c] < 0) {
                    ASSERT_EQ(energy[c], -1);
                } else {
                    ASSERT_NEAR(energy[c], plain.value[c], 1e-6 * (16 + plain.value[c]));
                }
            }
        }
    }
}

TEST(ChipEnergies, LieOnTheScaleOfTheMap) {
    Samples samples = random_samples(300, 250, 37);
    const ov_baseband bb = samples.view();
    for (const double spread_hz : {0.0, 20.0}) {
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(bb, 0.128, 5, spread_hz, map), 0);
        ov_spec_frame(map, 2, 1);
        float energy[OV_MAX_CHIPS];
        for (const int32_t bin : {map.half, map.half - 9, map.half + 20}) {
            const double f = (bin - map.half) * map.bin_hz;
            ASSERT_EQ(ov_chip_energies_sp(bb, map, 7 * map.hop, f, 0, energy), 5);
            for (int c = 0; c < 5; ++c) {
                const float cell = map.power[(7 + c * 16) * map.nbins + bin];
                EXPECT_NEAR(static_cast<double>(energy[c]) / ov_noise_at(map, f), cell, 1e-4 * (1 + cell));
            }
        }
    }
}

TEST(SoftBits, AreSecondMinusFirstInUnitsOfNoise) {
    const float energy[9] = {100, 3, 8, -1, 4, 4, -1, 7.5F, 1.25F};
    float soft[4] = {9, 9, 9, 9};
    energies_to_soft(energy, 4, 2.5, 0.5, soft);
    EXPECT_EQ(soft[0], 1.0F);
    EXPECT_EQ(soft[1], 0.0F);
    EXPECT_EQ(soft[2], 0.0F);
    EXPECT_EQ(soft[3], -1.25F);
    // The difference is rounded before it is divided.
    const float far[3] = {0, 1.0F, 16777216.0F};
    energies_to_soft(far, 1, 1e-3, 1, soft);
    EXPECT_EQ(soft[0], static_cast<float>(static_cast<double>(16777216.0F - 1.0F) / 1e-3));
    const float odd[3] = {0, 0.3F, 100000000.0F};
    energies_to_soft(odd, 1, 3, 7, soft);
    EXPECT_EQ(soft[0], static_cast<float>(static_cast<double>(100000000.0F - 0.3F) / 3.0 * 7.0));
}

TEST(NoiseAt, IsTheNearestColumnClampedToTheMap) {
    HandMap hand(5, 3, 1, 2, 1);
    for (std::size_t b = 0; b < 7; ++b) hand.noise[b] = static_cast<float>(b) + 0.5F;
    const double bin = hand.map.bin_hz;
    for (const auto& [f, column] : {std::pair{0.0, 3},
                                    {bin, 4},
                                    {-bin, 2},
                                    {0.49 * bin, 3},
                                    {0.5 * bin, 4},
                                    {-0.5 * bin, 2},
                                    {-0.49 * bin, 3},
                                    {3 * bin, 6},
                                    {40 * bin, 6},
                                    {-3 * bin, 0},
                                    {-50 * bin, 0},
                                    {1e300, 6},
                                    {-1e300, 0},
                                    {INF, 6},
                                    {-INF, 0}}) {
        EXPECT_EQ(ov_noise_at(hand.map, f), column + 0.5) << f;
    }
    const double somewhere = ov_noise_at(hand.map, NOT_A_NUMBER);
    EXPECT_TRUE(std::isnan(somewhere) || (somewhere >= 0.5 && somewhere <= 6.5));
}

// ---- Hypotheses -------------------------------------------------------------------------------------------------

TEST(TryHypothesis, MeasuresScoresAndReplacesOnlyTheStrictlyWorse) {
    Samples samples = random_samples(239 * 16 + 100, 125, 41);
    const ov_baseband bb = samples.view();
    for (const int32_t mode : {0, 1}) {
        for (const int32_t spread : {0, 2}) {
            HandMap hand(10, 20, 16, 119, mode);
            hand.map.spread = spread;
            hand.map.noise_rescale = 0.75;
            hand.map.spread_factor = 2.5;
            for (std::size_t b = 0; b < hand.noise.size(); ++b) hand.noise[b] = 30 + static_cast<float>(b);
            auto best = empty_hyp();
            try_hyp(bb, hand.map, -20, 5.1, 0.02, 191, *best);
            EXPECT_EQ(best->start, -20);
            EXPECT_EQ(best->f, 5.1);
            EXPECT_EQ(best->drift, 0.02);
            EXPECT_EQ(best->noise, ov_noise_at(hand.map, 5.1));
            EXPECT_EQ(best->n_in, 237);
            EXPECT_EQ(best->noise_rescale, 0.75);
            EXPECT_EQ(best->spread_factor, 2.5);
            EXPECT_EQ(best->nchips, 239);
            const auto plain = sync_model::chip_energies_spread(bb, hand.map, -20, 5.1, 0.02);
            float soft[119];
            for (std::size_t i = 0; i < 119; ++i) {
                const double first = plain.value[2 * i + 1];
                const double second = plain.value[2 * i + 2];
                soft[i] = first < 0 || second < 0
                              ? 0.0F
                              : static_cast<float>((second - first) / ov_noise_at(hand.map, 5.1) * 0.75);
                ASSERT_NEAR(best->soft[i], soft[i], 1e-4) << i;
            }
            EXPECT_NEAR(best->metric, sync_model::frame_metric(soft, 119, mode), 1e-3);

            // The same again is a tie and changes nothing; a best that is a little worse is replaced whole.
            best->n_in = 77;
            try_hyp(bb, hand.map, -20, 5.1, 0.02, 191, *best);
            EXPECT_EQ(best->n_in, 77);
            best->metric = std::nextafter(best->metric, -INF);
            try_hyp(bb, hand.map, -20, 5.1, 0.02, 191, *best);
            EXPECT_EQ(best->n_in, 237);
        }
    }
}

TEST(TryHypothesis, TooFewChipsLeaveTheBestAlone) {
    Samples samples = random_samples(239 * 16, 125, 42);
    const ov_baseband bb = samples.view();
    HandMap hand(10, 20, 16, 119, 0);
    for (const auto& [start, inside] :
         {std::pair{0, 239}, {-16, 238}, {-17, 237}, {48 * 16, 191}, {-48 * 16 - 1, 190}}) {
        for (const int32_t min_chips : {inside - 1, inside, inside + 1}) {
            auto best = empty_hyp();
            try_hyp(bb, hand.map, start, 0, 0, min_chips, *best);
            EXPECT_EQ(best->n_in, min_chips <= inside ? inside : 0) << start;
            EXPECT_EQ(best->metric == -1e300, min_chips > inside) << start;
        }
    }
}

TEST(TryHypothesis, NeverTakesAScoreThatIsNoNumber) {
    Samples samples = random_samples(239 * 16, 125, 43);
    samples.x[2000] = {NOT_A_NUMBER, 0};
    for (const int32_t mode : {0, 1}) {
        HandMap hand(10, 20, 16, 119, mode);
        auto best = empty_hyp();
        try_hyp(samples.view(), hand.map, 0, 0, 0, 0, *best);
        EXPECT_FALSE(std::isnan(best->metric));
        best = empty_hyp();
        best->metric = 1;
        try_hyp(samples.view(), hand.map, 0, NOT_A_NUMBER, 0, 0, *best);
        EXPECT_EQ(best->metric, 1);
        EXPECT_EQ(best->nchips, 0);
    }
}

// The search grid, every hypothesis of it, in order.
int plain_refine(const ov_baseband& bb, const ov_specmap& map, const ov_cand& cand, double drift_max, double edge,
                 ov_hyp& best, int& tried) {
    best = {};
    best.metric = -1e300;
    tried = 0;
    const auto min_chips = static_cast<int32_t>(std::ceil((1 - edge) * map.frame_chips));
    const auto attempt = [&](int32_t start, double f, double drift) {
        try_hyp(bb, map, start, f, drift, min_chips, best);
        ++tried;
    };
    const bool wide = map.hop >= 4;
    for (int32_t d = -map.hop; d <= map.hop; d += wide ? map.hop / 4 : 1) {
        for (int i = -4; i <= 4; ++i) attempt(cand.pos * map.hop + d, cand.f + i * map.bin_hz / 4, 0);
    }
    if (best.metric <= -1e299) return -1;
    if (drift_max > 0) {
        const int32_t start = best.start;
        const double f = best.f;
        double step = 0.5 * map.bin_hz / (map.frame_chips * map.chip_s);
        double count = std::ceil(drift_max / step);
        if (count > 12) {
            count = 12;
            step = drift_max / 12;
        }
        for (int j = -static_cast<int>(count); j <= static_cast<int>(count); ++j) {
            for (int i = -2; j != 0 && i <= 2; ++i) attempt(start, f + i * map.bin_hz / 4, j * step);
        }
    }
    const int32_t start = best.start;
    const double f = best.f;
    const double drift = best.drift;
    const int32_t q = wide ? map.hop / 4 : 1;
    for (int32_t d = -q; d <= q; d += q >= 4 ? std::max(1, q / 4) : 1) {
        for (int i = -2; i <= 2; ++i) attempt(start + d, f + i * map.bin_hz / 16, drift);
    }
    return 0;
}

TEST(Refine, SearchesItsGridInOrder) {
    Random random(51);
    int tried = 0;
    for (const auto& [rate, chip_s, pairs] : {std::tuple{125.0, 0.128, 6},
                                              {250.0, 0.128, 5},
                                              {500.0, 0.128, 4},
                                              {625.0, 0.128, 4},
                                              {1000.0, 0.128, 3},
                                              {2000.0, 0.128, 2},
                                              {2250.0, 0.128, 1},
                                              {4000.0, 0.128, 1},
                                              {6000.0, 0.128, 1},
                                              {100.0, 0.13, 5}}) {
        for (int round = 0; round < 4; ++round) {
            Samples samples = random_samples(static_cast<std::size_t>(rate * chip_s * (2 * pairs + 9)), rate,
                                             static_cast<uint64_t>(52 + round));
            const ov_baseband bb = samples.view();
            MapOwner map;
            ASSERT_EQ(ov_spectrogram(bb, chip_s, 10, round == 3 ? 5 : 0, map), 0);
            ov_spec_frame(map, pairs, 1);
            ov_cand cand{};
            cand.pos = random.integer(-map.steps_per_chip, 5 * map.steps_per_chip);
            cand.bin = map.half + random.integer(-5, 5);
            cand.f = (cand.bin - map.half) * map.bin_hz;
            const double step = 0.5 * map.bin_hz / (map.frame_chips * chip_s);
            for (const double drift_max : {0.0, -1.0, 0.3 * step, step, 3.5 * step, 12 * step, 12.5 * step, 1e3}) {
                auto plain = empty_hyp();
                auto real = empty_hyp();
                ASSERT_EQ(plain_refine(bb, map, cand, drift_max, 0.7, *plain, tried), 0);
                ASSERT_EQ(ov_refine(bb, map, cand, drift_max, 0.7, *real), 0);
                EXPECT_TRUE(same_hyp(*plain, *real))
                    << rate << " Hz, drift_max " << drift_max / step << " steps: " << real->start << ' ' << real->f
                    << ' ' << real->drift << " instead of " << plain->start << ' ' << plain->f << ' ' << plain->drift;
                if (map.hop == 1 && drift_max > 12 * step) {
                    EXPECT_EQ(tried, 3 * 9 + 24 * 5 + 3 * 5);
                }
            }
        }
    }
}

TEST(Refine, EqualScoresKeepTheFirstHypothesis) {
    Samples silent;
    silent.rate = 125;
    silent.x.assign(239 * 16 + 200, 0.0);
    HandMap hand(300, 20, 16, 119, 0);
    ov_cand cand{};
    cand.pos = 40;
    cand.f = 3 * hand.map.bin_hz;
    auto hyp = empty_hyp();
    ASSERT_EQ(ov_refine(silent.view(), hand.map, cand, 0.1, 0.2, *hyp), 0);
    EXPECT_EQ(hyp->start, 39);
    EXPECT_EQ(hyp->f, cand.f - hand.map.bin_hz);
    EXPECT_EQ(hyp->drift, 0);
    EXPECT_EQ(hyp->metric, 0);
}

TEST(Refine, TooFewChipsInsideLeaveTheOutputAlone) {
    Samples samples = random_samples(239 * 16, 125, 53);
    HandMap hand(300, 20, 16, 119, 0);
    ov_cand cand{};
    for (const auto& [pos, edge, result] : {std::tuple{-47 * 16 - 1, 0.2, 0},
                                            {-47 * 16 - 2, 0.2, -1},
                                            {47 * 16 + 1, 0.2, 0},
                                            {47 * 16 + 2, 0.2, -1},
                                            {0, 0.0, 0},
                                            {1, 0.0, 0},
                                            {2, 0.0, -1},
                                            {0, -0.1, -1},
                                            {100000, 0.5, -1},
                                            {100000, 1.0, 0},
                                            {100000, 3.0, 0}}) {
        cand.pos = pos;
        auto hyp = empty_hyp();
        hyp->n_in = -5;
        EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, 0, edge, *hyp), result) << pos << ' ' << edge;
        EXPECT_EQ(hyp->n_in == -5, result != 0) << pos << ' ' << edge;
    }
}

TEST(Refine, WildArgumentsEndAndNeverGiveANumberThatIsNone) {
    Samples samples = random_samples(239 * 16, 125, 54);
    HandMap hand(300, 20, 16, 119, 0);
    ov_cand cand{};
    for (const double wild : {NOT_A_NUMBER, INF, 1e300, -INF, -1e300}) {
        auto hyp = empty_hyp();
        EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, wild, 0.2, *hyp), 0) << wild;
        EXPECT_FALSE(std::isnan(hyp->metric)) << wild;
        EXPECT_FALSE(std::isnan(hyp->f)) << wild;
        if (std::isnan(wild)) continue;
        EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, 0.05, wild, *hyp), wild > 0 ? 0 : -1) << wild;
    }
    // An edge that is not a number leaves no chip outside.
    auto hyp = empty_hyp();
    EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, 0.05, NOT_A_NUMBER, *hyp), 0);
    EXPECT_EQ(hyp->n_in, 239);
    cand.pos = 2;
    EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, 0.05, NOT_A_NUMBER, *hyp), -1);
    hand.map.hop = 4;
    for (const int32_t pos : {500000000, -500000000}) {
        cand.pos = pos;
        EXPECT_EQ(ov_refine(samples.view(), hand.map, cand, 0.05, 0.2, *hyp), -1);
    }
}

TEST(FitShift, MeasuresTheFrameMovedByWholeChips) {
    Samples samples = random_samples(239 * 16 + 64, 125, 55);
    const ov_baseband bb = samples.view();
    for (const int32_t mode : {0, 1}) {
        HandMap hand(300, 20, 16, 119, mode);
        hand.map.noise_rescale = 0.5;
        hand.map.spread = mode;
        auto hyp = empty_hyp();
        try_hyp(bb, hand.map, 10, 2.5, 0.01, 1, *hyp);
        hyp->noise = 37;  // is not measured again
        hyp->spread_factor = 9;
        for (const auto& [shift, inside, result] : {std::tuple{0, 239, 0},
                                                    {1, 239, 0},
                                                    {3, 239, 0},
                                                    {4, 238, 0},
                                                    {-1, 238, 0},
                                                    {-40, 199, 0},
                                                    {-47, 192, 0},
                                                    {-48, 191, -1},
                                                    {50, 192, 0},
                                                    {51, 191, -1},
                                                    {-300, 0, -1},
                                                    {300, 0, -1}}) {
            auto out = empty_hyp();
            ASSERT_EQ(ov_fit_shift(bb, hand.map, *hyp, shift, 0.2, *out), result) << shift;
            EXPECT_EQ(out->start, 10 + 16 * shift);
            EXPECT_EQ(out->n_in, inside) << shift;
            EXPECT_EQ(std::tie(out->f, out->drift, out->noise, out->spread_factor, out->nchips),
                      std::tuple(2.5, 0.01, 37.0, 9.0, 239));
            float energy[OV_MAX_CHIPS];
            ov_chip_energies_sp(bb, hand.map, out->start, 2.5, 0.01, energy);
            ASSERT_TRUE(std::equal(energy, energy + 239, out->energy));
            if (result != 0) continue;
            float soft[OV_MAX_PAIRS];
            energies_to_soft(energy, 119, 37, 0.5, soft);
            ASSERT_TRUE(std::equal(soft, soft + 119, out->soft));
            EXPECT_NEAR(out->metric, sync_model::frame_metric(soft, 119, mode), 1e-9);
        }
    }
}

TEST(FitShift, FarShiftsAndWildEdgesAreHarmless) {
    Samples samples = random_samples(239 * 16, 125, 56);
    const ov_baseband bb = samples.view();
    HandMap hand(300, 20, 16, 119, 0);
    auto hyp = empty_hyp();
    try_hyp(bb, hand.map, 0, 2.5, 0, 1, *hyp);
    auto out = empty_hyp();
    for (const int32_t shift : {100000000, -100000000}) {
        EXPECT_EQ(ov_fit_shift(bb, hand.map, *hyp, shift, 0.2, *out), -1);
        EXPECT_EQ(out->n_in, 0);
    }
    for (const double wild : {INF, 1e300, -INF, -1e300})
        EXPECT_EQ(ov_fit_shift(bb, hand.map, *hyp, 0, wild, *out), wild > 0 ? 0 : -1) << wild;
    EXPECT_EQ(ov_fit_shift(bb, hand.map, *hyp, 0, NOT_A_NUMBER, *out), 0);
    EXPECT_EQ(ov_fit_shift(bb, hand.map, *hyp, 1, NOT_A_NUMBER, *out), -1);
}

// ---- SNR --------------------------------------------------------------------------------------------------------

TEST(Snr, OnOffEqualsTheDefinition) {
    Random random(61);
    for (int round = 0; round < 40; ++round) {
        auto hyp = empty_hyp();
        hyp->nchips = random.integer(1, 60);
        hyp->spread_factor = round % 4 == 0 ? 0 : round % 4 == 1 ? -2 : 1.75;
        std::vector<uint8_t> on;
        for (int32_t c = 0; c < hyp->nchips; ++c) {
            on.push_back(static_cast<uint8_t>(random.integer(0, 2)));  // any value but 0 is on
            hyp->energy[c] =
                random.integer(0, 4) == 0 ? -1.0F : static_cast<float>(random.uniform(0, on.back() != 0 ? 40 : 5));
        }
        EXPECT_NEAR(ov_estimate_snr(*hyp, on.data(), 0.128), sync_model::snr_on_off(*hyp, on, 0.128), 1e-9) << round;
    }
}

TEST(Snr, NothingToCompareIsMinus99) {
    auto hyp = empty_hyp();
    hyp->nchips = 4;
    hyp->spread_factor = 1;
    for (int c = 0; c < 4; ++c) hyp->energy[c] = 5;
    const std::vector<uint8_t> all = {1, 1, 1, 1};
    const std::vector<uint8_t> none = {0, 0, 0, 0};
    const std::vector<uint8_t> two = {1, 1, 0, 0};
    EXPECT_EQ(ov_estimate_snr(*hyp, all.data(), 0.128), -99);
    EXPECT_EQ(ov_estimate_snr(*hyp, none.data(), 0.128), -99);
    EXPECT_NE(ov_estimate_snr(*hyp, two.data(), 0.128), -99);
    hyp->energy[0] = hyp->energy[1] = -1;
    EXPECT_EQ(ov_estimate_snr(*hyp, two.data(), 0.128), -99);
    hyp->nchips = 0;
    EXPECT_EQ(ov_estimate_snr(*hyp, two.data(), 0.128), -99);
}

TEST(Snr, WeakSignalsGiveTheFloor) {
    auto hyp = empty_hyp();
    hyp->nchips = 2;
    hyp->energy[0] = 4;
    hyp->energy[1] = 5;
    const std::vector<uint8_t> on = {1, 0};
    EXPECT_NEAR(ov_estimate_snr(*hyp, on.data(), 0.128), 10 * std::log10(0.0001 / 320), 1e-12);
    hyp->energy[0] = 10;
    EXPECT_NEAR(ov_estimate_snr(*hyp, on.data(), 0.128), 10 * std::log10(1 / 320.0), 1e-12);
}

TEST(Snr, SilentOffChipsGiveNoNan) {
    auto hyp = empty_hyp();
    hyp->nchips = 2;
    const std::vector<uint8_t> on = {1, 0};
    EXPECT_FALSE(std::isnan(ov_estimate_snr(*hyp, on.data(), 0.128)));
    hyp->energy[0] = 7;
    EXPECT_FALSE(std::isnan(ov_estimate_snr(*hyp, on.data(), 0.128)));
}

TEST(Snr, InTheBasebandEqualsTheDefinition) {
    Random random(62);
    int measured_beside = 0;
    for (const auto& [rate, chip_len, pairs] : {std::tuple{500.0, 64, 40},
                                                {250.0, 32, 119},
                                                {125.0, 16, 119},
                                                {300.0, 37, 60},
                                                {300.0, 15, 60},
                                                {1000.0, 128, 20}}) {
        for (int round = 0; round < 4; ++round) {
            HandMap hand(10, 20, 16, pairs, 1);
            hand.map.chip_len = chip_len;
            hand.map.rate = rate;
            hand.map.bin_hz = rate / (4 * chip_len);
            const int32_t nchips = 2 * pairs + 1;
            Samples samples =
                random_samples(static_cast<std::size_t>(nchips * chip_len), rate, static_cast<uint64_t>(63 + round));
            const double f = random.uniform(-rate / 2, rate / 2);
            add_tone(samples, 2, f);
            const ov_baseband bb = samples.view();
            auto hyp = empty_hyp();
            try_hyp(bb, hand.map, round == 0 ? 0 : random.integer(-300, 300), f, 0.5 * round, 0, *hyp);
            std::vector<uint8_t> on;
            for (int32_t c = 0; c < nchips; ++c) on.push_back(static_cast<uint8_t>(random.integer(0, 3)));
            const double chip_s = chip_len / rate;
            const double plain = sync_model::snr_in_baseband(bb, hand.map, *hyp, on, chip_s);
            EXPECT_NEAR(ov_estimate_snr_bb(bb, hand.map, *hyp, on.data(), chip_s), plain, 1e-4)
                << rate << ' ' << chip_len << ' ' << round;
            measured_beside += plain != sync_model::snr_on_off(*hyp, on, chip_s);

            hand.map.spread = 2;
            EXPECT_EQ(ov_estimate_snr_bb(bb, hand.map, *hyp, on.data(), chip_s),
                      ov_estimate_snr(*hyp, on.data(), chip_s));
        }
    }
    EXPECT_GE(measured_beside, 12);
}

TEST(Snr, NeedsTwoHundredNoiseBinsInTheBaseband) {
    // 32 samples leave one bin next to the carrier in each window.
    Samples samples = random_samples(32 * 260, 250, 64);
    const ov_baseband bb = samples.view();
    for (const int32_t windows : {199, 200}) {
        HandMap hand(10, 20, 16, 119, 1);
        hand.map.chip_len = 32;
        auto hyp = empty_hyp();
        hyp->nchips = windows + 3;
        hyp->spread_factor = 1;
        ASSERT_EQ(ov_chip_energies(bb, 32, hyp->nchips, 50, 0, 0, hyp->energy), hyp->nchips);
        std::vector<uint8_t> on(static_cast<std::size_t>(hyp->nchips), 1);
        on.back() = 0;
        on[static_cast<std::size_t>(hyp->nchips) - 2] = 0;
        hyp->start = 50;
        const auto list = sync_model::noise_beside_carrier(bb, 32, *hyp, on);
        ASSERT_EQ(list.size(), static_cast<std::size_t>(windows));
        const double beside = ov_estimate_snr_bb(bb, hand.map, *hyp, on.data(), 0.128);
        const double fallback = ov_estimate_snr(*hyp, on.data(), 0.128);
        EXPECT_NEAR(beside, sync_model::snr_in_baseband(bb, hand.map, *hyp, on, 0.128), 1e-5);
        EXPECT_EQ(beside == fallback, windows == 199);
    }
}

TEST(Snr, InTheBasebandFallsBackOrGivesUp) {
    Samples samples = random_samples(64 * 239, 500, 65);
    const ov_baseband bb = samples.view();
    HandMap hand(10, 20, 16, 119, 0);
    hand.map.chip_len = 64;
    hand.map.rate = 500;
    auto hyp = empty_hyp();
    try_hyp(bb, hand.map, 0, 0, 0, 0, *hyp);
    // Never two ON chips in a row: no window.
    std::vector<uint8_t> on(239);
    for (std::size_t c = 0; c < 239; c += 2) on[c] = 1;
    EXPECT_EQ(ov_estimate_snr_bb(bb, hand.map, *hyp, on.data(), 0.128), ov_estimate_snr(*hyp, on.data(), 0.128));
    const std::vector<uint8_t> none(239);
    EXPECT_EQ(ov_estimate_snr_bb(bb, hand.map, *hyp, none.data(), 0.128), -99);
    // All ON, which the ON/OFF comparison cannot do.
    const std::vector<uint8_t> all(239, 1);
    EXPECT_NEAR(ov_estimate_snr_bb(bb, hand.map, *hyp, all.data(), 0.128),
                sync_model::snr_in_baseband(bb, hand.map, *hyp, all, 0.128), 1e-4);
    EXPECT_GT(ov_estimate_snr_bb(bb, hand.map, *hyp, all.data(), 0.128), -99);
    // Silence: the noise list is all zeros.
    Samples silent;
    silent.rate = 500;
    silent.x.assign(64 * 239, 0.0);
    auto quiet = empty_hyp();
    try_hyp(silent.view(), hand.map, 0, 0, 0, 0, *quiet);
    EXPECT_FALSE(std::isnan(ov_estimate_snr_bb(silent.view(), hand.map, *quiet, all.data(), 0.128)));
    // Frequencies and starts that are none.
    for (const double wild : {NOT_A_NUMBER, INF, 1e300}) {
        auto odd = std::make_unique<ov_hyp>(*hyp);
        odd->f = wild;
        EXPECT_FALSE(std::isnan(ov_estimate_snr_bb(bb, hand.map, *odd, all.data(), 0.128))) << wild;
    }
    for (const int32_t start : {MAX32, MIN32}) {
        auto odd = std::make_unique<ov_hyp>(*hyp);
        odd->start = start;
        EXPECT_EQ(ov_estimate_snr_bb(bb, hand.map, *odd, on.data(), 0.128), ov_estimate_snr(*odd, on.data(), 0.128));
    }
}

TEST(Snr, OfAPartOfTheBandIsThatOfTheWholeWhereAllIsFilled) {
    Samples samples = random_samples(64 * 239, 500, 66);
    const ov_baseband bb = samples.view();
    HandMap hand(10, 20, 16, 119, 0);
    hand.map.chip_len = 64;
    hand.map.rate = 500;
    auto hyp = empty_hyp();
    try_hyp(bb, hand.map, 0, 0, 0, 0, *hyp);
    const std::vector<uint8_t> all(239, 1);
    std::vector<uint8_t> filled(64, 1);
    EXPECT_EQ(ov_estimate_snr_filled(bb, 64, *hyp, all.data(), 0.128, filled),
              ov_estimate_snr_bb(bb, hand.map, *hyp, all.data(), 0.128));
    const std::vector<uint8_t> none(239);
    EXPECT_EQ(ov_estimate_snr_filled(bb, 64, *hyp, none.data(), 0.128, filled), OV_NO_SNR);

    // Within 15 bins of the carrier is noise only where there is none further away, and never within 4.
    std::fill(filled.begin(), filled.end(), uint8_t{0});
    EXPECT_EQ(ov_estimate_snr_filled(bb, 64, *hyp, all.data(), 0.128, filled), OV_NO_SNR);
    filled[4] = 1;
    EXPECT_EQ(ov_estimate_snr_filled(bb, 64, *hyp, all.data(), 0.128, filled), OV_NO_SNR);
    filled[5] = 1;
    EXPECT_GT(ov_estimate_snr_filled(bb, 64, *hyp, all.data(), 0.128, filled), OV_NO_SNR);
}

TEST(Snr, WithoutNoiseIsInfinite) {
    // Tones of whole amplitude and no frequency leave nothing at all when they are removed.
    HandMap hand(10, 20, 16, 119, 0);
    hand.map.chip_len = 64;
    hand.map.rate = 500;
    Samples clean;
    clean.rate = 500;
    std::vector<uint8_t> on(239);
    for (std::size_t c = 0; c < on.size(); c++) {
        on[c] = c % 4 < 2 ? 1 : 0;
        clean.x.insert(clean.x.end(), 64, on[c] != 0 ? 0.5 : 0.0);
    }
    auto hyp = empty_hyp();
    try_hyp(clean.view(), hand.map, 0, 0, 0, 0, *hyp);
    EXPECT_EQ(ov_estimate_snr_bb(clean.view(), hand.map, *hyp, on.data(), 0.128), INF);
    EXPECT_EQ(ov_estimate_snr(*hyp, on.data(), 0.128), INF);
}

// ---- All together -----------------------------------------------------------------------------------------------

TEST(Synchronisation, MeasuresStationsInNoiseAndOverBothEdges) {
    for (const auto& [t_start, freq, drift] :
         {std::tuple{7.3, 1487.3, 0.03}, {-6.0, 1530.9, -0.04}, {15.35, 1460.0, 0.0}, {3.111, 1500.0, 0.05}}) {
        Scene scene;
        scene.rate = 8000;
        scene.seconds = 40;
        scene.seed = 5;
        Station station;
        station.chips = opera_chips("K1ABC");
        station.t_start = t_start;
        station.freq_hz = freq;
        station.drift_hz_s = drift;
        station.snr_db = -14;
        scene.stations = {station};
        const auto samples = render_real(scene);
        BasebandOwner bb;
        ASSERT_EQ(ov_baseband_real(samples.data(), 320000, 8000, 1500, 500, bb), 0);
        MapOwner map;
        ASSERT_EQ(ov_spectrogram(bb, CHIP, 60, 0, map), 0);
        Search search;
        search.search_hz = 60;
        search.z_min = 4;
        const Result found = search_map(map, search);
        ASSERT_GE(found.count, 1);
        EXPECT_NEAR(found.out[0].t, t_start, 0.016);
        EXPECT_NEAR(found.out[0].f + bb.centre, freq, map.bin_hz);
        auto hyp = empty_hyp();
        ASSERT_EQ(ov_refine(bb, map, found.out[0], 0.1, 0.2, *hyp), 0);
        EXPECT_NEAR(hyp->start / bb.rate, t_start, 0.004);
        EXPECT_NEAR(hyp->f + bb.centre, freq, 0.5);
        EXPECT_NEAR(hyp->drift, drift, 0.04);
        // The estimate refers to key-down power, 3.0 dB above the mean over the frame.
        const double snr = ov_estimate_snr_bb(bb, map, *hyp, station.chips.data(), CHIP);
        EXPECT_NEAR(snr, -14 + 10 * std::log10(239.0 / 120), 0.8);
    }
}
