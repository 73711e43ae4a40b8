// The search for places where something is keyed, and the chips measured there, against their definitions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <vector>

#include "band.h"
#include "coherent/search.h"
#include "coherent/strip.h"

using namespace coherent;
using namespace band;

namespace {

using Complex = std::complex<double>;

// A chip's sum at a frequency, in noise amplitudes.
Complex chip_at(const Whitened& block, int64_t first, double f) {
    Complex sum = 0;
    for (int64_t i = first; i < first + CHIP_LEN; i++) {
        const double angle = -2 * std::numbers::pi * f * static_cast<double>(i) / RATE;
        sum += Complex(block.samples[static_cast<std::size_t>(i)]) * std::polar(1.0, angle);
    }
    return sum / std::sqrt(CHIP_LEN);
}

Whitened noise_and_frame(uint64_t seed, const Hypothesis& frame, double amplitude, double seconds = 40) {
    Random random(seed);
    Samples samples = noise(random, seconds);
    add_frame(samples, random_chips(random, 119), frame, amplitude);
    return as_white(samples);
}

// ---- The map -------------------------------------------------------------------------------------------------------

TEST(SegmentMap, EqualsItsDefinition) {
    const Whitened block = noise_and_frame(31, {3, 7, 0.02}, 2, 36);
    Random random(32);
    for (const int32_t pairs : {4, 8}) {
        const auto map = segment_map(block, pairs, 20);
        ASSERT_TRUE(map);
        EXPECT_EQ(map->pairs, pairs);
        EXPECT_EQ(map->hop, CHIP_LEN / 4);
        EXPECT_EQ(map->rows, (36 * 500 - 2 * pairs * CHIP_LEN) / map->hop + 1);
        EXPECT_GE(map->columns / 2 * map->column_hz, 20);
        EXPECT_LE(map->column_hz, 1 / (2 * pairs * CHIP_S));
        for (int32_t trial = 0; trial < 60; trial++) {
            const int32_t row = random.integer(0, map->rows - 1);
            const int32_t column = random.integer(0, map->columns - 1);
            const double f = (column - map->columns / 2) * map->column_hz;
            // Differences are as wide as a chip; half of a pair's width from column to column is enough for them.
            const double grid = RATE / (4 * CHIP_LEN);
            const double f_pair = std::round(f / grid) * grid;
            Complex sum = 0;
            double differences = 0;
            for (int32_t k = 0; k < pairs; k++) {
                const int64_t first = row * map->hop + 2 * k * CHIP_LEN;
                sum += chip_at(block, first, f) + chip_at(block, first + CHIP_LEN, f);
                differences += std::norm(chip_at(block, first + CHIP_LEN, f_pair) - chip_at(block, first, f_pair));
            }
            const double expected = (std::norm(sum) + differences) / 4;
            EXPECT_NEAR(map->row(row)[static_cast<std::size_t>(column)], expected, 1e-4 * (1 + expected));
        }
    }
}

TEST(SegmentMap, IsTheMeanPowerOfAllPatterns) {
    const Whitened block = noise_and_frame(33, {2, 0, 0}, 3, 36);
    constexpr int32_t PAIRS = 4;
    const auto map = segment_map(block, PAIRS, 5);
    ASSERT_TRUE(map);
    for (const int32_t row : {0, 77, 400}) {
        double mean = 0;
        for (int32_t pattern = 0; pattern < 1 << PAIRS; pattern++) {
            Complex on = 0;
            for (int32_t k = 0; k < PAIRS; k++) {
                on += chip_at(block, row * map->hop + (2 * k + (pattern >> k & 1)) * CHIP_LEN, 0);
            }
            mean += std::norm(on) / (1 << PAIRS);
        }
        EXPECT_NEAR(map->row(row)[static_cast<std::size_t>(map->columns / 2)], mean, 1e-4 * (1 + mean)) << row;
    }
}

TEST(SegmentMap, NoiseHasAMeanOfOnePerPair) {
    Random random(34);
    const Whitened block = as_white(noise(random, 60));
    for (const int32_t pairs : {4, 8}) {
        const auto map = segment_map(block, pairs, 100);
        ASSERT_TRUE(map);
        double mean = 0;
        for (const float power : map->power)
            mean += static_cast<double>(power) / static_cast<double>(map->power.size());
        EXPECT_NEAR(mean, pairs, 0.03 * pairs);
    }
}

TEST(SegmentMap, NeedsABlockOfOneSegment) {
    Random random(35);
    const Samples samples = noise(random, 8 * 2 * CHIP_S);
    EXPECT_TRUE(segment_map(as_white(samples), 8, 10));
    EXPECT_FALSE(segment_map(as_white({samples.begin(), samples.end() - 1}), 8, 10));
}

// ---- Places --------------------------------------------------------------------------------------------------------

constexpr double FRAME_S = 239 * CHIP_S;
constexpr double NO_LIMIT_S = 1e9;
constexpr SearchRange EVERYWHERE = {30, 0.055, 0.2, -NO_LIMIT_S, NO_LIMIT_S};

std::vector<Place> places_in(const Whitened& block, const SearchRange& range, std::size_t most = 8, int32_t pairs = 8) {
    const auto map = segment_map(block, pairs, 33);
    EXPECT_TRUE(map);
    return find_places(block, *map, 119, range, most);
}

// Starts some pairs apart look alike until a word is read.
bool is_at(const Place& place, const Hypothesis& frame) {
    return std::fabs(place.start_s - frame.start_s) < 20 * CHIP_S && std::fabs(place.f - frame.f) < 0.5 &&
           std::fabs(place.drift - frame.drift) < 0.02;
}

TEST(SearchForPlaces, FindsFramesWhereverTheyAre) {
    uint64_t seed = 36;
    for (const Hypothesis& frame : {Hypothesis{4.1, -12.3, 0.0},
                                    {2.03, 29.2, -0.04},
                                    {-0.18 * FRAME_S, 3, 0.03},
                                    {40 - 0.82 * FRAME_S, -29.4, 0.05}}) {
        const Whitened block = noise_and_frame(seed++, frame, 1.5);
        for (const int32_t pairs : {4, 8}) {
            const std::vector<Place> places = places_in(block, EVERYWHERE, 8, pairs);
            ASSERT_FALSE(places.empty());
            EXPECT_TRUE(is_at(places[0], frame)) << places[0].start_s << " s, " << places[0].f << " Hz, "
                                                 << places[0].drift << " Hz/s; sought " << frame.start_s;
            EXPECT_GT(places[0].z, 10);
        }
    }
}

TEST(SearchForPlaces, ListsTheStrongestFirstAndEachOnce) {
    const Whitened block = noise_and_frame(41, {4, -5, 0.01}, 2);
    const std::vector<Place> places = places_in(block, EVERYWHERE, 30);
    EXPECT_GT(places.size(), 5u);
    EXPECT_LE(places.size(), 30u);
    for (std::size_t i = 0; i < places.size(); i++) {
        for (std::size_t j = 0; j < i; j++) {
            EXPECT_GE(places[j].z, places[i].z);
            EXPECT_FALSE(is_near(places[j], places[i], CHIP_S));
        }
    }
    EXPECT_EQ(places_in(block, EVERYWHERE, 3).size(), 3u);
}

TEST(SearchForPlaces, KeepsToItsRange) {
    const Hypothesis frame{4.1, 12.3, 0.0};
    const Whitened block = noise_and_frame(42, frame, 1.5);
    const auto expect_within = [&](const SearchRange& range, bool found) {
        const std::vector<Place> places = places_in(block, range, 20);
        EXPECT_EQ(std::ranges::any_of(places, [&](const Place& place) { return is_at(place, frame); }), found);
        for (const Place& place : places) {
            EXPECT_GE(place.start_s, std::max(range.start_first, -range.guard * FRAME_S));
            EXPECT_LE(place.start_s, std::min(range.start_last, 40 - (1 - range.guard) * FRAME_S));
            EXPECT_LE(std::fabs(place.f), range.half_width);
            EXPECT_LE(std::fabs(place.drift), range.drift + 0.005);
        }
    };
    expect_within(EVERYWHERE, true);
    expect_within({13, 0.055, 0.2, -NO_LIMIT_S, NO_LIMIT_S}, true);
    expect_within({11, 0.055, 0.2, -NO_LIMIT_S, NO_LIMIT_S}, false);
    expect_within({30, 0.055, 0.2, 4, NO_LIMIT_S}, true);
    expect_within({30, 0.055, 0.2, 7, NO_LIMIT_S}, false);
    expect_within({30, 0.055, 0.2, -NO_LIMIT_S, 4.2}, true);
    expect_within({30, 0.055, 0.2, -NO_LIMIT_S, 1.2}, false);
    expect_within({30, 0, 0.2, -NO_LIMIT_S, NO_LIMIT_S}, true);
    expect_within({30, 0.055, 0, 0, NO_LIMIT_S}, true);
}

TEST(SearchForPlaces, ARangeBetweenTwoRowsHasNone) {
    const Whitened block = noise_and_frame(43, {4.1, 12.3, 0}, 1.5);
    EXPECT_TRUE(places_in(block, {30, 0.055, 0.2, 4.101, 4.109}).empty());
}

TEST(SearchForPlaces, ARangeWithoutStartsHasNone) {
    const Whitened block = noise_and_frame(44, {4.1, 12.3, 0}, 1.5);
    EXPECT_TRUE(places_in(block, {30, 0.055, 0.2, 5, 4}).empty());
    EXPECT_TRUE(places_in(block, {30, 0.055, 0.2, 1e300, 1e300}).empty());
    EXPECT_TRUE(places_in(block, {30, 0.055, 0.2, -NO_LIMIT_S, -1e300}).empty());
    EXPECT_TRUE(places_in(block, {30, 0.055, 0.2, std::numeric_limits<double>::quiet_NaN(), 4}).empty());
}

// A frame may lie outside the block by a fifth, no more.
TEST(SearchForPlaces, TheGuardLimitsWhatHangsOverTheEdges) {
    for (const Hypothesis& frame : {Hypothesis{-0.19 * FRAME_S, 3, 0.0}, {40 - 0.81 * FRAME_S, 3, 0.0}}) {
        const Whitened block = noise_and_frame(45, frame, 1.5);
        const auto found = [&](double guard) {
            const std::vector<Place> places = places_in(block, {30, 0.055, guard, -NO_LIMIT_S, NO_LIMIT_S});
            return std::ranges::any_of(places, [&](const Place& place) { return is_at(place, frame); });
        };
        EXPECT_TRUE(found(0.2));
        EXPECT_FALSE(found(0.05));
    }
}

TEST(SearchForPlaces, PlacesAreNearWithinTwoDozenChipsAndHalfAHertz) {
    const Place place{10, 5, 0, 4};
    EXPECT_TRUE(is_near(place, {10 + 23 * CHIP_S, 5.5, 0.05, 9}, CHIP_S));
    EXPECT_FALSE(is_near(place, {10 + 25 * CHIP_S, 5, 0, 4}, CHIP_S));
    EXPECT_FALSE(is_near(place, {10, 5.7, 0, 4}, CHIP_S));
}

// ---- Chips ---------------------------------------------------------------------------------------------------------

// A frame's chip by its samples, each mixed down and cut where the chip begins and ends.
struct Measured {
    Complex value = 0;
    double weight = 0;
};
Measured measure_plainly(const Whitened& block, const Hypothesis& at, int32_t chips, std::size_t chip) {
    Measured out;
    const double first = (at.start_s + static_cast<double>(chip) * CHIP_S) * RATE;
    for (auto i = static_cast<int64_t>(std::ceil(first - 1e-6)); static_cast<double>(i) < first + CHIP_LEN - 1e-6;
         i++) {
        if (i < 0 || i >= static_cast<int64_t>(block.samples.size())) continue;
        const auto k = static_cast<std::size_t>(i);
        out.value += Complex(block.samples[k]) * std::conj(carrier(at, chips * CHIP_S, static_cast<double>(i) / RATE));
        out.weight += static_cast<double>(block.weights[k]);
    }
    return {out.value / std::sqrt(CHIP_LEN), out.weight / CHIP_LEN};
}

// The largest difference when all have been turned by one angle.
double worst_difference(const Whitened& block, const Hypothesis& at, const std::vector<ChipSum>& chips) {
    std::vector<Measured> plain;
    Complex turn = 0;
    for (std::size_t k = 0; k < chips.size(); k++) {
        plain.push_back(measure_plainly(block, at, static_cast<int32_t>(chips.size()), k));
        turn += plain[k].value * std::conj(Complex(chips[k].value));
    }
    turn /= std::abs(turn);
    double worst = 0;
    for (std::size_t k = 0; k < chips.size(); k++) {
        worst = std::max(worst, std::abs(Complex(chips[k].value) * turn - plain[k].value));
        EXPECT_NEAR(chips[k].weight, plain[k].weight, 0.02) << k;
    }
    return worst;
}

std::vector<ChipSum> measure(const Strip& strip, const Hypothesis& at) {
    std::vector<ChipSum> chips(239);
    strip.measure(at, chips);
    return chips;
}

TEST(Strip, ChipsEqualDirectSums) {
    const Hypothesis frame{4.096, -11.7, 0.037};
    Whitened block = noise_and_frame(51, frame, 1.5);
    Random random(52);
    for (float& weight : block.weights) weight = static_cast<float>(random.uniform(0, 1));
    const Strip strip(block, frame, 239, 28);
    EXPECT_LT(worst_difference(block, frame, measure(strip, frame)), 1e-4);
    for (const int32_t chips : {-28, -3, 1, 28}) {
        const Hypothesis moved{frame.start_s + chips * CHIP_S, frame.f + frame.drift * chips * CHIP_S, frame.drift};
        EXPECT_LT(worst_difference(block, moved, measure(strip, moved)), 1e-4) << chips;
    }
}

TEST(Strip, NeighboursInFrequencyAndDriftAreCloseToDirectSums) {
    const Hypothesis frame{4.096, -11.7, 0.037};
    const Whitened block = noise_and_frame(53, frame, 1.5);
    const Strip strip(block, frame, 239, 28);
    for (const auto& [df, dd, chips] : {std::tuple{0.1, 0.0, 0.0},
                                        {0.0, 0.005, 0.0},
                                        {-0.15, 0.008, 0.0},
                                        {0.1, -0.003, 5.25},
                                        {-0.1, 0.003, -20.5}}) {
        const Hypothesis at{frame.start_s + chips * CHIP_S, frame.f + frame.drift * chips * CHIP_S + df,
                            frame.drift + dd};
        EXPECT_LT(worst_difference(block, at, measure(strip, at)), 0.12) << df << " Hz, " << dd << " Hz/s";
    }
}

// Between two sums the samples count in part.
TEST(Strip, AnyStartLosesLittleOfAFrame) {
    Samples samples(20000);
    Random random(54);
    const std::vector<uint8_t> keyed = random_chips(random, 119);
    const Hypothesis frame{4.0967, 6.1, -0.02};
    add_frame(samples, keyed, frame, 2);
    const Whitened block = as_white(samples);
    const Strip strip(block, {4, 6.1 - 0.02 * -0.0967, -0.02}, 239, 4);
    const std::vector<ChipSum> chips = measure(strip, frame);
    Complex on = 0;
    double off = 0;
    for (std::size_t k = 0; k < chips.size(); k++) {
        if (keyed[k] != 0) {
            on += Complex(chips[k].value) / 120.0;
        } else {
            off = std::max(off, static_cast<double>(std::abs(chips[k].value)));
        }
    }
    EXPECT_NEAR(std::abs(on), 2, 0.05);
    EXPECT_LT(off, 0.1);
}

TEST(Strip, OutsideTheBlockThereIsNothing) {
    const Hypothesis frame{-2.048, 3, 0};  // 16 chips before it
    const Whitened block = noise_and_frame(55, frame, 1, 24);
    const Strip strip(block, frame, 239, 8);
    const std::vector<ChipSum> chips = measure(strip, frame);
    const std::size_t end = 16 + static_cast<std::size_t>(24 / CHIP_S);  // chips that begin before the block ends
    for (std::size_t k = 0; k < chips.size(); k++) {
        if (k < 16 || k > end) {
            EXPECT_NEAR(std::abs(chips[k].value), 0, 1e-6) << k;
            EXPECT_NEAR(chips[k].weight, 0, 1e-6) << k;
        } else if (k < end - 1) {
            EXPECT_NEAR(chips[k].weight, 1, 1e-6) << k;
        }
    }
}

}  // namespace
