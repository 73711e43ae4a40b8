// The deep search against the full array of Z, on hand-made maps; the refinement against its grid written out.
#include "ovcdeep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "deep_model.h"
#include "failing_memory.h"
#include "owners.h"
#include "siggen.h"
#include "sync_model.h"

namespace {

using deep_model::Found;
using deep_model::Search;
using sync_model::Samples;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double UNWRITTEN = -77;

// Bytes that a call needs at its worst.
template <class Call>
std::size_t peak_memory(Call call) {
    FailingMemory memory;
    memory.watch(call);
    EXPECT_EQ(memory.live_blocks(), 0);
    return memory.peak_bytes();
}

// ---- Maps and callsigns ------------------------------------------------------------------------------------------

// A map whose cells a test sets itself: `steps` rows to a chip, `hop` samples to a row, four columns to a chip
// bandwidth.
struct HandMap {
    std::vector<float> power, noise;
    ov_specmap map{};

    HandMap(int32_t npos, int32_t half, int32_t steps, int32_t hop, double chip_s = CHIP_SECONDS) {
        map.chip_s = chip_s;
        map.chip_len = steps * hop;
        map.rate = map.chip_len / chip_s;
        map.steps_per_chip = steps;
        map.hop = hop;
        map.nfft = 4 * map.chip_len;
        map.bin_hz = map.rate / map.nfft;
        map.half = half;
        map.nbins = 2 * half + 1;
        map.npos = npos;
        map.noise_rescale = 1;
        map.spread_factor = 1;
        map.pairs = OVC_PAIRS;
        map.frame_chips = OVC_CHIPS;
        power.assign(static_cast<std::size_t>(npos) * static_cast<std::size_t>(map.nbins), 1.0F);
        noise.assign(static_cast<std::size_t>(map.nbins), 1.0F);
        map.power = power.data();
        map.noise = noise.data();
    }
    HandMap(const HandMap&) = delete;
    HandMap& operator=(const HandMap&) = delete;

    float& at(int32_t row, int32_t column) {
        return power[static_cast<std::size_t>(row) * static_cast<std::size_t>(map.nbins) +
                     static_cast<std::size_t>(column)];
    }
    void randomise(uint64_t seed) {
        Random random(seed);
        for (float& cell : power) cell = static_cast<float>(-std::log(random.uniform(1e-9, 1)));
    }
    // So far between rows and columns that no hit is near another: every peak shows.
    void spread_out() {
        map.chip_s = 1e-3;
        map.rate = 1;
        map.bin_hz = 4000;
    }
    // Raises the second chip of each pair where the entry's sign is positive, else the first.
    void key(const ovc_known& entry, int32_t row, int32_t column, float level) {
        for (int32_t k = 0; k < OVC_PAIRS; ++k) {
            const int32_t where = row + (2 * k + (entry.signs[k] > 0 ? 2 : 1)) * map.steps_per_chip;
            if (where >= 0 && where < map.npos) at(where, column) += level;
        }
    }
};

ovc_known known_entry(const std::string& call) {
    ovc_known entry;
    EXPECT_EQ(ovc_known_init(call.c_str(), &entry), 0) << call;
    return entry;
}

std::vector<ovc_known> known_entries(Random& random, std::size_t count) {
    std::vector<ovc_known> known;
    for (std::size_t i = 0; i < count; ++i) known.push_back(known_entry(random.callsign()));
    return known;
}

// Signs that no frame has.
ovc_known foreign_entry(Random& random) {
    ovc_known entry{};
    for (int8_t& sign : entry.signs) sign = random.integer(0, 1) == 1 ? int8_t{1} : int8_t{-1};
    return entry;
}

// ---- Comparison --------------------------------------------------------------------------------------------------

struct Result {
    int32_t count = 0;
    double threshold = UNWRITTEN;
    std::vector<ovc_deep_hit> hits;
};

Result search_map(const ov_specmap& map, const std::vector<ovc_known>& known, const Search& search) {
    constexpr int32_t MARK = 0x5A5A5A5A;
    Result result;
    std::vector<ovc_deep_hit> room(static_cast<std::size_t>(std::max(search.max_hits, 0)) + 1);
    for (ovc_deep_hit& hit : room) hit.known = MARK;
    result.count =
        ovc_deep_search(&map, known.data(), static_cast<int32_t>(known.size()), search.t_min, search.t_max,
                        search.search_hz, search.guard, search.pfa, search.max_hits, room.data(), &result.threshold);
    const auto written =
        std::find_if(room.begin(), room.end(), [](const ovc_deep_hit& hit) { return hit.known == MARK; });
    EXPECT_EQ(written - room.begin(), std::max(result.count, 0));
    result.hits.assign(room.begin(), written);
    return result;
}

bool same_place(const ovc_deep_hit& a, const ovc_deep_hit& b) {
    return a.known == b.known && a.pos == b.pos && a.column == b.column && a.t == b.t && a.f == b.f;
}

// The same hits in the same order. Only hits whose Z differ by less than rounding may change places.
void expect_same_hits(const std::vector<ovc_deep_hit>& real, const std::vector<ovc_deep_hit>& plain) {
    ASSERT_EQ(real.size(), plain.size());
    for (std::size_t i = 0; i < real.size(); ++i) {
        ASSERT_NEAR(real[i].z, plain[i].z, 1e-5 * plain[i].z) << i;
        if (i > 0) {
            ASSERT_LE(real[i].z, real[i - 1].z) << i;
        }
        const auto matches = std::count_if(plain.begin(), plain.end(), [&](const ovc_deep_hit& hit) {
            return same_place(real[i], hit) && std::abs(hit.z - plain[i].z) <= 2e-6 * plain[i].z;
        });
        ASSERT_EQ(matches, 1) << i << ": known " << real[i].known << " row " << real[i].pos << " column "
                              << real[i].column << " z " << real[i].z;
    }
}

Found expect_equal_search(const ov_specmap& map, const std::vector<ovc_known>& known, const Search& search,
                          const std::string& what) {
    SCOPED_TRACE(what);
    Found plain = deep_model::deep_search(map, known, search);
    const Result real = search_map(map, known, search);
    EXPECT_EQ(real.count, static_cast<int32_t>(plain.hits.size()));
    if (plain.searched) {
        EXPECT_NEAR(real.threshold, plain.threshold, 1e-12);
    } else {
        EXPECT_EQ(real.threshold, UNWRITTEN);
    }
    expect_same_hits(real.hits, plain.hits);
    return plain;
}

// ---- Threshold ---------------------------------------------------------------------------------------------------

TEST(DeepThreshold, KnownValues) {
    EXPECT_NEAR(ovc_deep_threshold(1, 1e-4), 3.72, 0.005);
    EXPECT_NEAR(ovc_deep_threshold(1e6, 1e-4), 6.36, 0.005);
    EXPECT_NEAR(ovc_deep_threshold(1, 0.5), 0.0, 1e-12);
    EXPECT_NEAR(ovc_deep_threshold(1, 0.15865525393145707), 1.0, 1e-12);
    EXPECT_NEAR(ovc_deep_threshold(1000, 0.022750131948179212 * 1000), 2.0, 1e-12);
}

TEST(DeepThreshold, IsTheBisectedTailOfTheNormalDistribution) {
    Random random(1);
    double before = 0;
    for (double trials = 0.01; trials < 1e15; trials *= 3.7) {
        const double pfa = std::pow(10.0, random.uniform(-12, 0));
        EXPECT_EQ(ovc_deep_threshold(trials, pfa), deep_model::threshold(trials, pfa)) << trials << ' ' << pfa;
        const double z = ovc_deep_threshold(trials, 1e-4);
        EXPECT_GE(z, before);
        before = z;
    }
}

TEST(DeepThreshold, UnusableArgumentsHaveDefaults) {
    const double standard = ovc_deep_threshold(1, 1e-6);
    for (const double pfa : {0.0, -0.0, -1.0, -INF, NOT_A_NUMBER}) EXPECT_EQ(ovc_deep_threshold(1, pfa), standard);
    for (const double trials : {1.0, 0.5, 0.0, -5.0, -INF, NOT_A_NUMBER})
        EXPECT_EQ(ovc_deep_threshold(trials, 1e-6), standard);
    EXPECT_NEAR(ovc_deep_threshold(1, 2.0), 0.0, 1e-12);
    EXPECT_NEAR(ovc_deep_threshold(1, INF), 0.0, 1e-12);
    const double endless = ovc_deep_threshold(INF, 1e-4);
    EXPECT_GT(endless, 30);
    EXPECT_LE(endless, 40);
}

// ---- Search ------------------------------------------------------------------------------------------------------

struct Layout {
    int32_t steps, hop;
};
constexpr std::array LAYOUTS = {Layout{2, 1}, Layout{16, 1}, Layout{3, 4}, Layout{16, 4}};

std::string name_of(const Layout& layout) {
    return std::to_string(layout.steps) + " rows a chip, hop " + std::to_string(layout.hop);
}

// Weak frames of the entries at random places, some hanging over an edge.
void key_at_random(HandMap& map, const std::vector<ovc_known>& known, Random& random, float level) {
    const int32_t steps = map.map.steps_per_chip;
    for (const ovc_known& entry : known) {
        const int32_t row = random.integer(-40 * steps, map.map.npos - 238 * steps + 40 * steps);
        map.key(entry, row, random.integer(0, map.map.nbins - 1), level);
    }
}

TEST(DeepSearch, EqualsTheDefinitionOnRandomMaps) {
    Random random(2);
    std::size_t hits = 0;
    for (const Layout& layout : LAYOUTS) {
        for (const double guard : {0.0, 0.2, 0.5, -0.3}) {
            HandMap map(250 * layout.steps + 7, 4, layout.steps, layout.hop);
            map.randomise(random.next());
            std::vector<ovc_known> known = known_entries(random, 3);
            known.insert(known.begin() + 1, foreign_entry(random));
            key_at_random(map, known, random, 2.2F);
            Search search;
            search.guard = guard;
            search.pfa = 0.01;
            hits += expect_equal_search(map.map, known, search, name_of(layout) + " guard " + std::to_string(guard))
                        .hits.size();
        }
    }
    EXPECT_GT(hits, 20u);
}

TEST(DeepSearch, EqualsTheDefinitionUnderLimitsOfTimeAndFrequency) {
    Random random(3);
    std::size_t hits = 0;
    for (int trial = 0; trial < 12; ++trial) {
        const Layout& layout = LAYOUTS[static_cast<std::size_t>(trial) % 3];
        HandMap map(270 * layout.steps, 8, layout.steps, layout.hop);
        map.randomise(random.next());
        const auto known = known_entries(random, 3);
        key_at_random(map, known, random, 2.2F);
        Search search;
        search.t_min = random.uniform(-8, 1);
        search.t_max = search.t_min + random.uniform(0, 6);
        search.search_hz = random.uniform(0, 20);
        search.guard = random.uniform(-0.1, 0.7);
        search.pfa = 100;
        hits += expect_equal_search(map.map, known, search, "trial " + std::to_string(trial)).hits.size();
    }
    EXPECT_GT(hits, 20u);
}

TEST(DeepSearch, EveryPeakIsThatOfTheDefinition) {
    Random random(4);
    std::size_t hits = 0;
    for (const Layout& layout : {Layout{2, 1}, Layout{3, 4}}) {
        HandMap map(250 * layout.steps, 10, layout.steps, layout.hop);
        map.spread_out();
        map.randomise(random.next());
        std::vector<ovc_known> known = known_entries(random, 2);
        known.push_back(foreign_entry(random));
        for (const double pfa : {0.99, 30.0, 1e9}) {
            for (const int32_t max_hits : {0, 1, 64, 100000}) {
                Search search;
                search.pfa = pfa;
                search.max_hits = max_hits;
                hits = std::max(hits, expect_equal_search(map.map, known, search,
                                                          name_of(layout) + " pfa " + std::to_string(pfa) + " room " +
                                                              std::to_string(max_hits))
                                          .hits.size());
            }
        }
    }
    EXPECT_GT(hits, 1000u);
}

TEST(DeepSearch, ThinsOutManyPeaksLikeTheDefinition) {
    Random random(5);
    HandMap map(370 * 2, 25, 2, 1);
    map.randomise(random.next());
    const auto known = known_entries(random, 4);
    for (const int32_t max_hits : {-1, 0, 1, 5, 64, 1000}) {
        Search search;
        search.guard = 0.5;
        search.pfa = 1e9;
        search.max_hits = max_hits;
        const Found plain = expect_equal_search(map.map, known, search, "room " + std::to_string(max_hits));
        EXPECT_GT(plain.peaks.size(), 3000u);
        if (max_hits <= 5) {
            EXPECT_EQ(plain.hits.size(), static_cast<std::size_t>(std::max(max_hits, 0)));
        } else {
            EXPECT_GT(plain.hits.size(), 5u);
        }
    }
}

// With one callsign the bound of a cell is its sum: nothing but the rounding of sums in another order lies between.
TEST(DeepSearch, FindsACellThatReachesTheThresholdByAHair) {
    Random random(18);
    for (int trial = 0; trial < 6; ++trial) {
        HandMap map(245 * 2, 10, 2, 1);
        map.randomise(random.next());
        const auto known = known_entries(random, trial % 2 == 0 ? 1 : 5);
        Search search;
        search.pfa = 10;
        const Found all = deep_model::deep_search(map.map, known, search);
        ASSERT_FALSE(all.hits.empty());
        const double highest = all.hits.front().z;
        const double trials = search.pfa / (0.5 * std::erfc(all.threshold / std::numbers::sqrt2));
        search.pfa = trials * 0.5 * std::erfc(highest * (1 - 2e-6) / std::numbers::sqrt2);
        const Found hair = expect_equal_search(map.map, known, search, "trial " + std::to_string(trial));
        ASSERT_EQ(hair.hits.size(), 1u);
        EXPECT_LT(highest - hair.threshold, 3e-6 * highest);
    }
}

// One sign off the code words, in every group; and none off.
TEST(DeepSearch, SignsThatAreNoCodeWordsGiveTheDefinedResult) {
    Random random(6);
    HandMap map(250 * 2, 3, 2, 1);
    map.spread_out();
    map.randomise(random.next());
    std::vector<ovc_known> known(18, known_entry("QQ0XYZ"));
    for (std::size_t g = 0; g < 17; ++g) {
        int8_t& sign = known[g].signs[g + 17 * (g % 7)];
        sign = static_cast<int8_t>(-sign);
    }
    Search search;
    search.pfa = 1e9;
    search.max_hits = 100000;
    EXPECT_GT(expect_equal_search(map.map, known, search, "").hits.size(), 1000u);
}

// Every word in every group, whether a frame could hold it or not.
TEST(DeepSearch, EveryWordInEveryGroup) {
    Random random(7);
    HandMap map(245 * 2, 2, 2, 1);
    map.spread_out();
    map.randomise(random.next());
    std::vector<ovc_known> known(8);
    for (std::size_t word = 0; word < known.size(); ++word) {
        for (std::size_t k = 0; k < OVC_PAIRS; ++k)
            known[word].signs[k] = OVC_WALSH[(word + k % 17) % 8][k / 17] != 0 ? int8_t{1} : int8_t{-1};
    }
    Search search;
    search.pfa = 1e9;
    search.max_hits = 100000;
    EXPECT_GT(expect_equal_search(map.map, known, search, "").hits.size(), 300u);
}

TEST(DeepSearch, EqualNeighboursAreBothPeaks) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    HandMap map(250 * 4, 5, 4, 1);
    map.spread_out();
    for (const int32_t column : {4, 5, 6}) map.key(known[0], 20, column, 3);
    map.key(known[0], 21, 5, 3);
    Search search;
    search.max_hits = 1000;
    const Result result = search_map(map.map, known, search);
    ASSERT_EQ(result.count, 4);
    for (const ovc_deep_hit& hit : result.hits) EXPECT_NEAR(hit.z, std::sqrt(119.0), 1e-5);
    // Equal ones by row and column.
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(result.hits[i].pos, 20);
        EXPECT_EQ(result.hits[i].column, 4 + static_cast<int32_t>(i));
    }
    EXPECT_EQ(result.hits[3].pos, 21);
    expect_equal_search(map.map, known, search, "");
}

TEST(DeepSearch, HitsCarryTheirPlace) {
    const std::vector<ovc_known> known = {known_entry("A1"), known_entry("QQ0XYZ")};
    HandMap map(300 * 16, 20, 16, 4);
    map.key(known[1], -80, 33, 3);
    const Result result = search_map(map.map, known, {});
    ASSERT_EQ(result.count, 1);
    EXPECT_EQ(result.hits[0].known, 1);
    EXPECT_EQ(result.hits[0].pos, -80);
    EXPECT_EQ(result.hits[0].column, 33);
    EXPECT_DOUBLE_EQ(result.hits[0].t, -80 * 0.008);
    EXPECT_DOUBLE_EQ(result.hits[0].f, 13 / (4 * 0.128));
    EXPECT_NEAR(result.hits[0].z, std::sqrt(117.0), 1e-5);  // five chips, two pairs among them, before the block
}

// 10 s apart in a frame of 30.6 s.
TEST(DeepSearch, TwoPeaksOfOneCallsignInHalfAFrameAreOneHit) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ"), known_entry("A1B")};
    for (const bool same : {true, false}) {
        HandMap map(340 * 16, 6, 16, 1);
        map.randomise(8);
        map.key(known[0], 30, 6, 2.5F);
        map.key(known[same ? 0 : 1], 30 + 1250, 6, 5.0F);
        const Found plain = expect_equal_search(map.map, known, {}, same ? "same" : "different");
        ASSERT_EQ(plain.hits.size(), same ? 1u : 2u);
        EXPECT_EQ(plain.hits[0].pos, 1280);
        EXPECT_EQ(plain.hits[0].known, same ? 0 : 1);
    }
}

// Frames of the same Z, at chips of 1/8 s, where the limits are exact: half a frame is 239 rows, three chip
// bandwidths are 12 columns.
TEST(DeepSearch, HitsExactlyTheLimitApartAreBothKept) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    const auto count = [&](int32_t rows, int32_t columns) {
        HandMap map(370 * 2, 14, 2, 1, 0.125);
        map.key(known[0], 8, 1, 4);
        map.key(known[0], 8 + rows, 1 + columns, 4);
        const Result result = search_map(map.map, known, {});
        EXPECT_EQ(result.count, static_cast<int32_t>(deep_model::deep_search(map.map, known, {}).hits.size()));
        return result.count;
    };
    EXPECT_EQ(count(239, 0), 2);
    EXPECT_EQ(count(238, 0), 1);
    EXPECT_EQ(count(5, 12), 2);
    EXPECT_EQ(count(5, 11), 1);
    EXPECT_EQ(count(238, 11), 1);
    EXPECT_EQ(count(238, 12), 2);
    EXPECT_EQ(count(239, 11), 2);
}

TEST(DeepSearch, FramesMayHangOverBothEdgesByTheGuard) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    const auto found_at = [&](int32_t row, double guard) {
        HandMap map(300 * 2, 2, 2, 1);
        map.key(known[0], row, 2, 5);
        Search search;
        search.guard = guard;
        const Result result = search_map(map.map, known, search);
        return result.count == 1 && result.hits[0].pos == row;
    };
    const int32_t last = 599 - 476;
    EXPECT_TRUE(found_at(0, 0));
    EXPECT_FALSE(found_at(-1, 0));
    EXPECT_TRUE(found_at(last, 0));
    EXPECT_FALSE(found_at(last + 1, 0));
    EXPECT_FALSE(found_at(-1, -0.5));
    EXPECT_TRUE(found_at(-94, 0.2));  // 47 chips
    EXPECT_FALSE(found_at(-95, 0.2));
    EXPECT_TRUE(found_at(last + 94, 0.2));
    EXPECT_FALSE(found_at(last + 95, 0.2));
    EXPECT_TRUE(found_at(-238, 0.5));  // 119 chips, the most
    EXPECT_TRUE(found_at(-238, 17));
    EXPECT_FALSE(found_at(-239, 17));
    EXPECT_TRUE(found_at(last + 238, INF));
    EXPECT_FALSE(found_at(last + 239, INF));
    EXPECT_FALSE(found_at(-1, NOT_A_NUMBER));
    EXPECT_TRUE(found_at(0, NOT_A_NUMBER));
}

TEST(DeepSearch, StartTimesAreRoundedInward) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    HandMap map(300 * 16, 2, 16, 1);
    map.key(known[0], 100, 2, 5);  // 0.8 s
    const auto found = [&](double t_min, double t_max) {
        Search search;
        search.t_min = t_min;
        search.t_max = t_max;
        const Result result = search_map(map.map, known, search);
        return result.count == 1 && result.hits[0].pos == 100;
    };
    EXPECT_TRUE(found(0.793, 0.807));
    EXPECT_FALSE(found(0.801, 2));
    EXPECT_FALSE(found(-1, 0.799));
    EXPECT_TRUE(found(-INF, INF));
    EXPECT_TRUE(found(NOT_A_NUMBER, NOT_A_NUMBER));
}

TEST(DeepSearch, NothingToSearchLeavesTheThresholdUnwritten) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    HandMap map(300 * 2, 4, 2, 1);
    map.key(known[0], 8, 4, 5);
    const auto expect_nothing = [&](const HandMap& where, const std::vector<ovc_known>& entries, const Search& search) {
        Result result;
        EXPECT_EQ(peak_memory([&] {
                      result.count = ovc_deep_search(&where.map, entries.data(), static_cast<int32_t>(entries.size()),
                                                     search.t_min, search.t_max, search.search_hz, search.guard,
                                                     search.pfa, search.max_hits, nullptr, &result.threshold);
                  }),
                  0u);
        EXPECT_EQ(result.count, 0);
        EXPECT_EQ(result.threshold, UNWRITTEN);
    };
    Search limits;
    limits.t_min = 3;
    limits.t_max = 2;
    expect_nothing(map, known, limits);
    limits = {};
    limits.t_min = 1e6;
    expect_nothing(map, known, limits);
    limits = {};
    limits.t_max = -1e6;
    expect_nothing(map, known, limits);
    limits = {};
    limits.t_min = INF;
    expect_nothing(map, known, limits);
    limits = {};
    limits.search_hz = -1;
    expect_nothing(map, known, limits);
    limits.search_hz = NOT_A_NUMBER;
    expect_nothing(map, known, limits);
    expect_nothing(map, {}, {});
    const HandMap shorter(477 - 2 * 94 - 1, 4, 2, 1);  // one row too short for a frame that extends past both edges
    expect_nothing(shorter, known, {});
    double threshold = UNWRITTEN;
    EXPECT_EQ(ovc_deep_search(&map.map, known.data(), -3, -1, 1, 10, 0.2, 1e-4, 64, nullptr, &threshold), 0);
    EXPECT_EQ(threshold, UNWRITTEN);
}

TEST(DeepSearch, TheShortestBlockHasOnePlace) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    HandMap map(477, 4, 2, 1);
    map.randomise(9);
    map.key(known[0], 0, 4, 4);
    Search search;
    search.guard = 0;
    EXPECT_EQ(expect_equal_search(map.map, known, search, "").hits.size(), 1u);
    search.search_hz = 0;
    EXPECT_EQ(expect_equal_search(map.map, known, search, "one column").hits.size(), 1u);
}

TEST(DeepSearch, ThresholdIsWrittenWithoutRoomForHitsAndMayBeLeftOut) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    HandMap map(300 * 2, 4, 2, 1);
    map.key(known[0], 8, 4, 5);
    double threshold = UNWRITTEN;
    EXPECT_EQ(ovc_deep_search(&map.map, known.data(), 1, -9, 9, 99, 0.2, 1e-4, 0, nullptr, &threshold), 0);
    EXPECT_GT(threshold, 4);
    ovc_deep_hit hit;
    EXPECT_EQ(ovc_deep_search(&map.map, known.data(), 1, -9, 9, 99, 0.2, 1e-4, 1, &hit, nullptr), 1);
    EXPECT_EQ(hit.pos, 8);
}

TEST(DeepSearch, TwoHundredFiftySixCallsigns) {
    Random random(10);
    auto known = known_entries(random, 256);
    HandMap map(242 * 2, 1, 2, 1);
    map.randomise(11);
    map.key(known[255], -3, 0, 3);
    map.key(known[0], 5, 2, 3);
    Search search;
    search.guard = 0.02;
    const Found plain = expect_equal_search(map.map, known, search, "");
    ASSERT_GE(plain.hits.size(), 2u);
    EXPECT_EQ(plain.hits[0].known + plain.hits[1].known, 255);
}

TEST(DeepSearch, AFlatMapHasNoHits) {
    const std::vector<ovc_known> known = {known_entry("QQ0XYZ")};
    const HandMap map(300 * 2, 4, 2, 1);
    Search search;
    search.pfa = 1e9;
    EXPECT_EQ(search_map(map.map, known, search).count, 0);
}

// Over the noise floor of digital silence powers reach 1e30, whose squares no float can hold.
TEST(DeepSearch, TheScaleOfTheMapDoesNotMatter) {
    Random random(27);
    std::vector<ovc_known> known = known_entries(random, 2);
    known.push_back(foreign_entry(random));
    HandMap map(250 * 2, 4, 2, 1);
    map.randomise(28);
    map.key(known[0], 10, 2, 3);
    map.key(known[2], -7, 7, 3);
    Search search;
    search.pfa = 10;
    const Found expected = deep_model::deep_search(map.map, known, search);
    ASSERT_GT(expected.hits.size(), 2u);
    const std::vector<float> power = map.power;
    for (const float scale : {1e-25F, 1e-10F, 1.0F, 1e12F, 1e22F, 1e30F, 1e34F}) {
        SCOPED_TRACE(scale);
        std::transform(power.begin(), power.end(), map.power.begin(), [&](float cell) { return cell * scale; });
        expect_same_hits(search_map(map.map, known, search).hits, expected.hits);
    }
}

// A bad cell spoils the frames that touch it and no other.
TEST(DeepSearch, CellsThatAreNoNumbersGiveNoHits) {
    Random random(12);
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity()}) {
        HandMap map(280 * 2, 12, 2, 1);
        map.spread_out();
        map.randomise(13);
        std::vector<ovc_known> known = known_entries(random, 2);
        known.push_back(foreign_entry(random));
        for (int i = 0; i < 3; ++i) map.at(random.integer(0, map.map.npos - 1), random.integer(0, 24)) = bad;
        for (int32_t row = 0; row < map.map.npos; ++row) map.at(row, 20) = bad;
        Search search;
        search.pfa = 1e9;
        search.max_hits = 100000;
        const Found plain = expect_equal_search(map.map, known, search, std::to_string(bad));
        EXPECT_GT(plain.hits.size(), 500u);
        for (const ovc_deep_hit& hit : plain.hits) EXPECT_NE(hit.column, 20);
    }
}

// ---- Memory ------------------------------------------------------------------------------------------------------

std::size_t search_memory(double seconds, const std::vector<ovc_known>& known, int32_t expected_hits) {
    HandMap map(static_cast<int32_t>(seconds * 125) - 15, 1, 16, 1);
    map.randomise(14);
    map.spread_out();
    for (int32_t i = 0; i < expected_hits; ++i) map.key(known[0], 100, 2 * i, 30);
    std::array<ovc_deep_hit, 64> hits;
    int32_t count = 0;
    const std::size_t peak = peak_memory([&] {
        count = ovc_deep_search(&map.map, known.data(), static_cast<int32_t>(known.size()), -1e9, 1e9, 1e9, 0.2, 1e-9,
                                64, hits.data(), nullptr);
    });
    EXPECT_EQ(count, expected_hits);
    return peak;
}

TEST(DeepSearchMemory, DoesNotGrowWithTheBlock) {
    Random random(15);
    auto known = known_entries(random, 2);
    const std::size_t minute = search_memory(60, known, 0);
    EXPECT_GT(minute, 0u);
    EXPECT_EQ(search_memory(600, known, 0), minute);
    EXPECT_EQ(search_memory(60, known, 2), search_memory(150, known, 2));
    known.push_back(foreign_entry(random));
    EXPECT_EQ(search_memory(150, known, 0), search_memory(60, known, 0));
}

TEST(DeepSearchMemory, GrowsByAFewBytesForEachCallsign) {
    Random random(16);
    const auto known = known_entries(random, 41);
    const std::size_t one = search_memory(40, {known[0]}, 0);
    const std::size_t all = search_memory(40, known, 0);
    EXPECT_LE(all - one, 40U * 64);
}

TEST(DeepSearchMemory, ShortageIsReportedAndEverythingFreed) {
    Random random(17);
    HandMap map(250 * 2, 4, 2, 1);
    map.spread_out();
    map.randomise(18);
    const auto known = known_entries(random, 2);
    std::vector<ovc_deep_hit> room(100000);
    const auto search = [&] {
        return ovc_deep_search(&map.map, known.data(), 2, -1e9, 1e9, 1e9, 0.2, 1e9, 100000, room.data(), nullptr);
    };
    const int32_t found = search();
    EXPECT_GT(found, 100);
    const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
        const int32_t count = memory.watch(search);
        EXPECT_EQ(count, memory.has_refused() ? -1 : found);
    });
    EXPECT_GT(refused, 5);
}

// ---- Measurement -------------------------------------------------------------------------------------------------

// A baseband of noise with one frame, chips of chip_len samples.
Samples station(const std::string& call, int32_t chip_len, double seconds, double t_start, double f, double drift,
                double snr_db, uint64_t seed) {
    Scene scene;
    scene.rate = static_cast<int32_t>(std::lround(chip_len / CHIP_SECONDS));
    scene.seconds = seconds;
    scene.seed = seed;
    Station on_air;
    on_air.chips = opera_chips(call);
    on_air.t_start = t_start;
    on_air.freq_hz = f;
    on_air.drift_hz_s = drift;
    on_air.snr_db = snr_db;
    scene.stations = {on_air};
    const IqSamples iq = render_iq(scene);
    Samples samples;
    samples.rate = scene.rate;
    for (std::size_t k = 0; k < iq.i.size(); ++k) samples.x.emplace_back(iq.i[k], iq.q[k]);
    return samples;
}

// A map record for a baseband, without powers: measurements use its layout and its noise only.
struct MapRecord {
    std::vector<float> noise;
    ov_specmap map{};

    MapRecord(int32_t chip_len, int32_t half) {
        map.chip_s = CHIP_SECONDS;
        map.chip_len = chip_len;
        map.rate = chip_len / CHIP_SECONDS;
        map.hop = chip_len % 16 == 0 ? chip_len / 16 : 1;
        map.steps_per_chip = chip_len / map.hop;
        map.nfft = (chip_len <= 512 ? 4 : 2) * chip_len;
        map.bin_hz = map.rate / map.nfft;
        map.half = half;
        map.nbins = 2 * half + 1;
        map.npos = 1;
        map.noise_rescale = 0.75;
        map.spread_factor = 1.25;
        map.pairs = OVC_PAIRS;
        map.frame_chips = OVC_CHIPS;
        for (int32_t c = 0; c < map.nbins; ++c) noise.push_back(0.01F * static_cast<float>(c + 1));
        map.noise = noise.data();
    }
    MapRecord(const MapRecord&) = delete;
    MapRecord& operator=(const MapRecord&) = delete;
};

ov_hyp empty_hyp() {
    ov_hyp hyp{};
    hyp.metric = -1e300;
    return hyp;
}

void expect_equal_hyps(const ov_hyp& a, const ov_hyp& b) {
    EXPECT_EQ(a.start, b.start);
    EXPECT_EQ(a.f, b.f);
    EXPECT_EQ(a.drift, b.drift);
    EXPECT_EQ(a.metric, b.metric);
    EXPECT_EQ(a.noise, b.noise);
    EXPECT_EQ(a.n_in, b.n_in);
    EXPECT_EQ(a.noise_rescale, b.noise_rescale);
    EXPECT_EQ(a.spread_factor, b.spread_factor);
    EXPECT_EQ(a.nchips, b.nchips);
    EXPECT_TRUE(std::equal(std::begin(a.energy), std::end(a.energy), std::begin(b.energy)));
    EXPECT_TRUE(std::equal(std::begin(a.soft), std::end(a.soft), std::begin(b.soft)));
}

TEST(DeepMeasurement, EqualsTheDirectSum) {
    const ovc_known known = known_entry("QQ0XYZ");
    Random random(19);
    Samples samples = station("QQ0XYZ", 16, 33, 1.0, 3.0, 0.01, -15, 20);
    for (const int32_t spread : {0, 2}) {
        for (int trial = 0; trial < 40; ++trial) {
            MapRecord record(16, 12);
            record.map.spread = spread;
            const int32_t start = trial == 0 ? 125 : random.integer(-1000, 1200);
            const double f = trial == 0 ? 3.0 : random.uniform(-30, 30);
            const double drift = trial == 0 ? 0.01 : random.uniform(-0.2, 0.2);
            ov_hyp best = empty_hyp();
            const ov_baseband bb = samples.view();
            try_deep(bb, record.map, known, start, f, drift, 0, best);

            const auto energies = sync_model::chip_energies_spread(bb, record.map, start, f, drift);
            const double z = deep_model::energy_statistic(energies.value, known);
            EXPECT_NEAR(best.metric, z, 2e-5);
            if (trial == 0) {
                EXPECT_GT(z, 7);
            }
            EXPECT_EQ(best.start, start);
            EXPECT_EQ(best.f, f);
            EXPECT_EQ(best.drift, drift);
            EXPECT_EQ(best.n_in, energies.measured);
            const auto column = static_cast<std::size_t>(std::clamp(std::round(f / record.map.bin_hz) + 12, 0.0, 24.0));
            EXPECT_EQ(best.noise, static_cast<double>(record.noise[column]));
            EXPECT_EQ(best.noise_rescale, 0.75);
            EXPECT_EQ(best.spread_factor, 1.25);
            EXPECT_EQ(best.nchips, 0);
            for (std::size_t c = 0; c < OVC_CHIPS; ++c)
                EXPECT_NEAR(best.energy[c], energies.value[c], 1e-5 * std::abs(energies.value[c]) + 1e-9);
        }
    }
}

TEST(DeepMeasurement, KeepsOnlyWhatIsStrictlyBetter) {
    const ovc_known known = known_entry("QQ0XYZ");
    Samples samples = station("QQ0XYZ", 16, 33, 1.0, 3.0, 0, -15, 21);
    const MapRecord record(16, 12);
    ov_hyp best = empty_hyp();
    try_deep(samples.view(), record.map, known, 125, 3.0, 0, 239, best);
    ASSERT_GT(best.metric, 7);
    ASSERT_EQ(best.start, 125);
    const ov_hyp first = best;
    try_deep(samples.view(), record.map, known, 400, 3.0, 0, 100, best);  // worse
    expect_equal_hyps(best, first);
    best.drift = 1;  // equal
    try_deep(samples.view(), record.map, known, 125, 3.0, 0, 239, best);
    EXPECT_EQ(best.drift, 1);
    best.metric = std::nextafter(best.metric, 0.0);
    try_deep(samples.view(), record.map, known, 125, 3.0, 0, 239, best);
    expect_equal_hyps(best, first);
}

TEST(DeepMeasurement, NeedsEnoughChips) {
    const ovc_known known = known_entry("QQ0XYZ");
    Samples samples = station("QQ0XYZ", 16, 33, -1.28, 3.0, 0, -15, 22);
    const MapRecord record(16, 12);
    for (const int32_t needed : {229, 230, 239}) {
        ov_hyp best = empty_hyp();
        try_deep(samples.view(), record.map, known, -160, 3.0, 0, needed, best);
        EXPECT_EQ(best.metric > -1e299, needed == 229) << needed;
        EXPECT_EQ(best.n_in, needed == 229 ? 229 : 0);
    }
    // Nothing measured is a Z of 0.
    ov_hyp best = empty_hyp();
    try_deep(samples.view(), record.map, known, 1 << 20, 3.0, 0, 0, best);
    EXPECT_EQ(best.metric, 0.0);
    EXPECT_EQ(best.n_in, 0);
}

TEST(DeepMeasurement, NoEnergyIsAZOfZero) {
    const ovc_known known = known_entry("QQ0XYZ");
    Samples samples;
    samples.rate = 125;
    samples.x.assign(4000, 0.0);
    const MapRecord record(16, 12);
    ov_hyp best = empty_hyp();
    try_deep(samples.view(), record.map, known, 0, 0, 0, 239, best);
    EXPECT_EQ(best.metric, 0.0);
    EXPECT_EQ(best.n_in, 239);
}

// ---- Refinement --------------------------------------------------------------------------------------------------

// The grid written out.
std::optional<ov_hyp> refine_model(const ov_baseband& bb, const ov_specmap& map, const ovc_known& known,
                                   const ovc_deep_hit& hit, double drift_range, double guard) {
    const auto needed = static_cast<int32_t>(std::ceil((1 - guard) * 239));
    ov_hyp best = empty_hyp();
    const int32_t s0 = hit.pos * map.hop;
    const int32_t step = map.hop >= 4 ? map.hop / 4 : 1;
    for (int32_t offset = -map.hop; offset <= map.hop; offset += step) {
        for (int i = -4; i <= 4; ++i)
            try_deep(bb, map, known, s0 + offset, hit.f + i * map.bin_hz / 4, 0, needed, best);
    }
    if (best.metric <= -1e299) return std::nullopt;

    if (drift_range > 0) {
        double unit = 0.5 * map.bin_hz / (239 * map.chip_s);
        auto m = static_cast<int>(std::ceil(drift_range / unit));
        if (m >= 13) {
            m = 12;
            unit = drift_range / 12;
        }
        const ov_hyp base = best;
        for (int d = -m; d <= m; ++d) {
            for (int i = -2; i <= 2 && d != 0; ++i)
                try_deep(bb, map, known, base.start, base.f + i * map.bin_hz / 4, d * unit, needed, best);
        }
    }

    const ov_hyp base = best;
    const int32_t fine = step >= 4 ? step / 4 : 1;
    for (int32_t offset = -step; offset <= step; offset += fine) {
        for (int i = -2; i <= 2; ++i)
            try_deep(bb, map, known, base.start + offset, base.f + i * map.bin_hz / 16, base.drift, needed, best);
    }
    for (std::size_t k = 0; k < OVC_PAIRS; ++k) {
        const float first = best.energy[1 + 2 * k];
        const float second = best.energy[2 + 2 * k];
        if (first >= 0 && second >= 0)
            best.soft[k] = static_cast<float>(static_cast<double>(second - first) / best.noise * map.noise_rescale);
    }
    return best;
}

ovc_deep_hit hit_at(const ov_specmap& map, int32_t pos, double f) {
    ovc_deep_hit hit{};
    hit.pos = pos;
    hit.column = map.half + static_cast<int32_t>(std::lround(f / map.bin_hz));
    hit.t = static_cast<double>(pos) * map.hop / map.rate;
    hit.f = (hit.column - map.half) * map.bin_hz;
    return hit;
}

constexpr double HALF_BIN_A_FRAME = 0.5 * (1 / (4 * 0.128)) / (239 * 0.128);  // Hz/s, of four columns a bandwidth

TEST(DeepRefinement, EqualsTheGridWrittenOut) {
    const ovc_known known = known_entry("QQ0XYZ");
    for (const int32_t chip_len : {16, 20, 64, 144, 320, 544}) {
        const double unit = chip_len > 512 ? 2 * HALF_BIN_A_FRAME : HALF_BIN_A_FRAME;
        Samples samples = station("QQ0XYZ", chip_len, 33, 1.203, 3.3, 2.2 * unit, -18, 23);
        const MapRecord record(chip_len, 12);
        const ovc_deep_hit hit = hit_at(record.map, static_cast<int32_t>(1.2 / record.map.hop * samples.rate), 3.3);
        for (const double range : {0.0, -1.0, 0.5 * unit, 3 * unit}) {
            SCOPED_TRACE(std::to_string(chip_len) + " samples a chip, drift " + std::to_string(range));
            if (chip_len > 150 && range != 3 * unit) continue;
            const auto expected = refine_model(samples.view(), record.map, known, hit, range, 0.2);
            ASSERT_TRUE(expected.has_value());
            ov_hyp hyp{};
            ASSERT_EQ(ovc_deep_refine(samples.view(), &record.map, &known, &hit, range, 0.2, hyp), 0);
            expect_equal_hyps(hyp, *expected);
            EXPECT_GT(hyp.metric, range > unit ? 7 : 3);
            EXPECT_EQ(hyp.nchips, 0);
            if (!(range > 0)) {
                EXPECT_EQ(hyp.drift, 0.0);
            }
        }
    }
}

TEST(DeepRefinement, WideDriftRangesAreCutIntoTwelveSteps) {
    const ovc_known known = known_entry("QQ0XYZ");
    for (const double steps : {11.5, 12.0, 12.5, 30.0}) {
        for (const double share : {-0.92, 0.97}) {
            Samples samples = station("QQ0XYZ", 16, 33, 1.2, 3.0, share * steps * HALF_BIN_A_FRAME, -12, 24);
            const MapRecord record(16, 12);
            const ovc_deep_hit hit = hit_at(record.map, 150, 3.0);
            const double range = steps * HALF_BIN_A_FRAME;
            const auto expected = refine_model(samples.view(), record.map, known, hit, range, 0.2);
            ASSERT_TRUE(expected.has_value());
            ov_hyp hyp{};
            ASSERT_EQ(ovc_deep_refine(samples.view(), &record.map, &known, &hit, range, 0.2, hyp), 0);
            expect_equal_hyps(hyp, *expected);
            const double unit = steps > 12 ? range / 12 : HALF_BIN_A_FRAME;
            EXPECT_NEAR(hyp.drift / unit, std::round(hyp.drift / unit), 1e-9);
            EXPECT_NEAR(hyp.drift, share * range, 2 * unit);
        }
    }
}

TEST(DeepRefinement, EqualsTheGridAtTheEdgesOfTheBlock) {
    const ovc_known known = known_entry("QQ0XYZ");
    Random random(25);
    int32_t refused = 0;
    for (int trial = 0; trial < 24; ++trial) {
        const double t_start = random.uniform(-9, 9);
        Samples samples = station("QQ0XYZ", 16, 31, t_start, random.uniform(-8, 8), 0, -15, random.next());
        const MapRecord record(16, 12);
        const ovc_deep_hit hit = hit_at(record.map, static_cast<int32_t>(t_start * 125), random.uniform(-8, 8));
        const double guard = std::array{0.2, 0.0, 0.5, -0.1}[static_cast<std::size_t>(trial) % 4];
        const auto expected = refine_model(samples.view(), record.map, known, hit, HALF_BIN_A_FRAME, guard);
        ov_hyp hyp{};
        hyp.start = 12345;
        const int result = ovc_deep_refine(samples.view(), &record.map, &known, &hit, HALF_BIN_A_FRAME, guard, hyp);
        ASSERT_EQ(result, expected.has_value() ? 0 : -1);
        if (expected.has_value()) {
            expect_equal_hyps(hyp, *expected);
        } else {
            EXPECT_EQ(hyp.start, 12345);
            ++refused;
        }
    }
    EXPECT_GT(refused, 5);
    EXPECT_LT(refused, 20);
}

// ---- Both --------------------------------------------------------------------------------------------------------

TEST(DeepSearch, FindsAndRefinesAWeakFrame) {
    const std::vector<ovc_known> known = {known_entry("A1B"), known_entry("QQ0XYZ"), known_entry("ZZ9ZZ")};
    Samples samples = station("QQ0XYZ", 16, 45, 5.31, -7.4, 0.01, -24, 26);
    const ov_baseband bb = samples.view();
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(bb, CHIP_SECONDS, 20, 0, map), 0);
    Search search;
    search.search_hz = 20;
    const Found plain = expect_equal_search(map, known, search, "");
    ASSERT_EQ(plain.hits.size(), 1u);
    EXPECT_EQ(plain.hits[0].known, 1);
    EXPECT_NEAR(plain.hits[0].t, 5.31, 0.06);
    EXPECT_NEAR(plain.hits[0].f, -7.4, 2.0);
    ov_hyp hyp{};
    ASSERT_EQ(ovc_deep_refine(bb, &map, &known[1], &plain.hits[0], 0.1, 0.2, hyp), 0);
    EXPECT_NEAR(hyp.start / 125.0, 5.31, 0.04);
    EXPECT_NEAR(hyp.f, -7.4, 2.0);  // a quarter of a chip bandwidth
    EXPECT_GE(hyp.metric, plain.hits[0].z - 1e-5);
    const auto expected = refine_model(bb, map, known[1], plain.hits[0], 0.1, 0.2);
    ASSERT_TRUE(expected.has_value());
    expect_equal_hyps(hyp, *expected);
}

}  // namespace
