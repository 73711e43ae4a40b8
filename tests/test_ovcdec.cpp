// The OPERA frame decision: rankings, checks and margins against plain models that follow the definitions.
#include "ovcdec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "siggen.h"

namespace {

constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();
constexpr float INF_F = std::numeric_limits<float>::infinity();

using Soft = std::array<float, OVC_PAIRS>;
using Rows = std::array<uint8_t, OVC_GROUPS>;

const std::array<std::string, 8> WALSH_ROWS = {
    "0000000", "1010101", "0110011", "1100110", "0001111", "1011010", "0111100", "1101001",
};
const std::string WHITENING = "111000010101011111100110110100000001100100010101011";

// ---- Frames and soft bits ------------------------------------------------------------------------------------------

// Rows that a message of this number is sent with.
Rows rows_of(uint32_t value) {
    std::array<uint8_t, OVC_VECTOR_BITS> vec{};
    ovc_build_vector(value, vec.data());
    Rows rows{};
    for (std::size_t i = 0; i < vec.size(); ++i) {
        const bool bit = (vec[i] != 0) != (WHITENING[i] == '1');
        rows[i / 3] = static_cast<uint8_t>(2 * rows[i / 3] + bit);
    }
    return rows;
}

ovc_frame frame_of(const Rows& rows) {
    ovc_frame frame{};
    std::copy(rows.begin(), rows.end(), frame.rows);
    return frame;
}

Rows rows_in(const ovc_frame& frame) {
    Rows rows{};
    std::copy(std::begin(frame.rows), std::end(frame.rows), rows.begin());
    return rows;
}

bool row_bit(int row, std::size_t column) {
    return WALSH_ROWS[static_cast<std::size_t>(row)][column] == '1';
}

// Soft bits of ±level that show exactly these rows.
Soft exact(const Rows& rows, float level = 1) {
    Soft soft{};
    for (std::size_t g = 0; g < 17; ++g) {
        for (std::size_t j = 0; j < 7; ++j) soft[17 * j + g] = row_bit(rows[g], j) ? level : -level;
    }
    return soft;
}

Soft exact_call(const std::string& call, float level = 1) {
    const std::vector<uint8_t> chips = opera_chips(call);
    Soft soft{};
    for (std::size_t k = 0; k < soft.size(); ++k) soft[k] = chips[2 + 2 * k] ? level : -level;
    return soft;
}

Soft random_soft(Random& random) {
    Soft soft{};
    for (float& value : soft) value = static_cast<float>(random.normal());
    return soft;
}

// Few values, so that many sums are equal, and exactly so.
Soft tied_soft(Random& random) {
    Soft soft{};
    for (float& value : soft) value = static_cast<float>(random.integer(-2, 2));
    return soft;
}

Soft noisy(Soft soft, double sigma, Random& random) {
    for (float& value : soft) value += static_cast<float>(sigma * random.normal());
    return soft;
}

uint32_t random_value(Random& random) {
    return static_cast<uint32_t>(random.next() % (OVC_MAX_CALL + 1ULL));
}

struct Checked {
    int result;
    std::string call;
    uint32_t value;
};

Checked check(const Rows& rows) {
    char call[8] = "";
    uint32_t value = 0;
    const ovc_frame frame = frame_of(rows);
    const int result = ovc_check_frame(&frame, call, &value);
    return {result, call, value};
}

// ---- Plain models --------------------------------------------------------------------------------------------------

using Metrics = std::array<std::array<double, 8>, 17>;

Metrics model_metrics(const Soft& soft) {
    Metrics metrics{};
    for (std::size_t g = 0; g < 17; ++g) {
        for (int r = 0; r < 8; ++r) {
            double sum = 0;
            for (std::size_t j = 0; j < 7; ++j) {
                const double value = soft[g + 17 * j];
                sum += row_bit(r, j) ? value : -value;
            }
            metrics[g][static_cast<std::size_t>(r)] = sum;
        }
    }
    return metrics;
}

std::vector<int> model_allowed(std::size_t group) {
    if (group == 0) return {7};
    if (group == 1) return {0, 1, 2, 3};
    return {0, 1, 2, 3, 4, 5, 6, 7};
}

struct Change {
    std::size_t group;
    int row;
};

struct Variation {
    double cost = 0;
    std::vector<Change> changes = {};
};

bool in_different_groups(const std::vector<Change>& changes) {
    std::set<std::size_t> groups;
    for (const Change& change : changes) groups.insert(change.group);
    return groups.size() == changes.size();
}

void sort_by_cost(std::vector<Variation>& list) {
    std::stable_sort(list.begin(), list.end(), [](const Variation& a, const Variation& b) { return a.cost < b.cost; });
}

// Every hypothesis that may be listed, cheapest first, equal costs in order of arrival.
std::vector<ovc_frame> model_list(const Soft& soft) {
    const Metrics metrics = model_metrics(soft);
    Rows best{};
    double total = 0;
    std::vector<Variation> singles;
    for (std::size_t g = 0; g < 17; ++g) {
        const std::vector<int> allowed = model_allowed(g);
        const int winner = *std::max_element(allowed.begin(), allowed.end(), [&](int a, int b) {
            return metrics[g][static_cast<std::size_t>(a)] < metrics[g][static_cast<std::size_t>(b)];
        });
        best[g] = static_cast<uint8_t>(winner);
        total += metrics[g][best[g]];
        for (const int row : allowed) {
            if (row == winner) continue;
            singles.push_back({metrics[g][best[g]] - metrics[g][static_cast<std::size_t>(row)], {{g, row}}});
        }
    }
    EXPECT_EQ(singles.size(), 108U);
    sort_by_cost(singles);

    std::vector<Variation> list = {{}};
    list.insert(list.end(), singles.begin(), singles.end());
    for (std::size_t a = 0; a < 16; ++a) {
        for (std::size_t b = a + 1; b < 16; ++b) {
            Variation pair = {singles[a].cost + singles[b].cost, {singles[a].changes[0], singles[b].changes[0]}};
            if (in_different_groups(pair.changes)) list.push_back(pair);
        }
    }
    for (std::size_t a = 0; a < 8; ++a) {
        for (std::size_t b = a + 1; b < 8; ++b) {
            for (std::size_t c = b + 1; c < 8; ++c) {
                Variation triple = {singles[a].cost + singles[b].cost + singles[c].cost,
                                    {singles[a].changes[0], singles[b].changes[0], singles[c].changes[0]}};
                if (in_different_groups(triple.changes)) list.push_back(triple);
            }
        }
    }
    sort_by_cost(list);

    std::vector<ovc_frame> frames;
    for (const Variation& variation : list) {
        Rows rows = best;
        for (const Change& change : variation.changes) rows[change.group] = static_cast<uint8_t>(change.row);
        ovc_frame frame = frame_of(rows);
        frame.metric = total - variation.cost;
        frame.deficit = variation.cost;
        frames.push_back(frame);
    }
    return frames;
}

// The best `count` frames of all 8^15 · 4, by joining group after group and keeping the best so far.
struct Ranked {
    double metric = 0;
    std::vector<uint8_t> rows = {};
};

std::vector<Ranked> best_of_all(const Soft& soft, std::size_t count) {
    const Metrics metrics = model_metrics(soft);
    std::vector<Ranked> best = {{}};
    for (std::size_t g = 0; g < 17; ++g) {
        std::vector<Ranked> longer;
        for (const Ranked& front : best) {
            for (const int row : model_allowed(g)) {
                Ranked next = front;
                next.metric += metrics[g][static_cast<std::size_t>(row)];
                next.rows.push_back(static_cast<uint8_t>(row));
                longer.push_back(next);
            }
        }
        std::sort(longer.begin(), longer.end(), [](const Ranked& a, const Ranked& b) { return a.metric > b.metric; });
        longer.resize(std::min(longer.size(), count));
        best = longer;
    }
    return best;
}

// Digits that may follow each letter in a callsign that begins with a letter and a digit.
const std::map<char, std::string> DIGITS_AFTER = {
    {'A', "23456789"}, {'C', "23456789"}, {'D', "23456789"}, {'E', "234567"},  {'H', "2346789"}, {'J', "2345678"},
    {'L', "23456789"}, {'P', "2345"},     {'S', "2356789"},  {'T', "2345678"}, {'V', "2345678"}, {'Z', "2368"},
};

bool contains(const std::string& set, char c) {
    return set.find(c) != std::string::npos;
}

bool model_plausible(const std::string& call) {
    const std::string digits = "0123456789";
    if (call[3] == ' ') return false;
    if (call[0] == ' ') return contains("BFGIKMNRW", call[1]);
    const bool two = contains(digits, call[1]);
    if (!contains(digits, call[0])) {
        if (call[0] == 'Q') return false;
        const auto entry = DIGITS_AFTER.find(call[0]);
        return !two || (entry != DIGITS_AFTER.end() && contains(entry->second, call[1]));
    }
    if (call[0] == '1') return call[1] == 'A';
    return call[0] != '0' && !two;
}

// Patterns that lead from one valid frame to another, "group^mask …", in the order in which they are tried.
const char* const TWIN_TABLE =
    "1^3 6^5, 2^3 7^5, 3^3 8^5, 4^3 9^5, 1^2 12^1 13^6, 2^6 6^1 7^2, 2^5 6^1 7^7, 3^6 7^1 8^2, 3^5 7^1 8^7, "
    "4^6 8^1 9^2, 4^5 8^1 9^7, 4^6 14^5 15^5, 5^7 8^2 10^3, 5^6 9^1 10^2, 5^2 10^5 11^4, 5^3 10^4 13^4, "
    "5^3 13^2 14^2, 10^4 13^6 14^2, 1^1 2^7 6^2 7^1, 1^2 2^7 6^7 7^1, 1^3 2^6 6^4 7^2, 1^1 2^1 6^3 7^3, "
    "1^2 2^1 6^6 7^3, 1^1 2^4 6^2 7^4, 1^2 2^4 6^7 7^4, 1^3 2^3 6^5 7^5, 1^1 2^2 6^3 7^6, 1^2 2^2 6^6 7^6, "
    "1^3 2^5 6^4 7^7, 1^1 3^1 6^3 8^3, 1^2 3^1 6^6 8^3, 1^3 3^3 6^5 8^5, 1^1 3^2 6^3 8^6, 1^2 3^2 6^6 8^6, "
    "1^1 4^1 6^3 9^3, 1^2 4^1 6^6 9^3, 1^3 4^3 6^5 9^5, 1^1 4^2 6^3 9^6, 1^2 4^2 6^6 9^6, 1^1 5^2 6^3 10^6, "
    "1^2 5^2 6^6 10^6, 1^1 6^3 10^3 11^4, 1^2 6^6 10^3 11^4, 1^1 6^5 12^1 13^6, 1^2 6^2 13^4 15^1, "
    "1^1 6^7 13^4 15^1, 1^1 6^3 13^7 16^4, 1^2 6^6 13^7 16^4, 1^2 10^4 12^1 14^2, 2^7 3^7 6^1 8^1, "
    "2^7 3^4 6^1 8^4, 2^1 3^7 7^2 8^1, 2^2 3^7 7^7 8^1, 2^3 3^6 7^4 8^2, 2^1 3^1 7^3 8^3, 2^2 3^1 7^6 8^3, "
    "2^1 3^4 7^2 8^4, 2^2 3^4 7^7 8^4, 2^3 3^3 7^5 8^5, 2^1 3^2 7^3 8^6, 2^2 3^2 7^6 8^6, 2^3 3^5 7^4 8^7, "
    "2^1 4^1 7^3 9^3, 2^2 4^1 7^6 9^3, 2^3 4^3 7^5 9^5, 2^1 4^2 7^3 9^6, 2^2 4^2 7^6 9^6, 2^1 5^2 7^3 10^6, "
    "2^2 5^2 7^6 10^6, 2^1 7^3 10^3 11^4, 2^2 7^6 10^3 11^4, 2^1 7^3 13^7 16^4, 2^2 7^6 13^7 16^4, "
    "3^1 4^7 5^1 10^1, 3^7 4^7 7^1 9^1, 3^7 4^4 7^1 9^4, 3^1 4^7 8^2 9^1, 3^2 4^7 8^7 9^1, 3^3 4^6 8^4 9^2, "
    "3^1 4^1 8^3 9^3, 3^2 4^1 8^6 9^3, 3^1 4^4 8^2 9^4, 3^2 4^4 8^7 9^4, 3^3 4^3 8^5 9^5, 3^1 4^2 8^3 9^6, "
    "3^2 4^2 8^6 9^6, 3^3 4^5 8^4 9^7, 3^1 4^7 11^4 13^4, 3^6 5^7 7^1 10^3, 3^3 5^7 8^7 10^3, "
    "3^1 5^5 8^1 10^5, 3^2 5^5 8^4 10^5, 3^1 5^2 8^3 10^6, 3^2 5^2 8^6 10^6, 3^1 5^7 8^1 11^4, "
    "3^2 5^7 8^4 11^4, 3^1 8^3 10^3 11^4, 3^2 8^6 10^3 11^4, 3^1 8^3 13^7 16^4, 3^2 8^6 13^7 16^4, "
    "4^7 5^4 8^1 10^4, 4^7 5^3 8^3 10^7, 4^7 5^7 8^1 13^4, 4^3 5^6 9^4 10^2, 4^1 5^4 9^2 10^4, "
    "4^2 5^4 9^7 10^4, 4^1 5^2 9^3 10^6, 4^2 5^2 9^6 10^6, 4^1 5^7 9^2 13^4, 4^2 5^7 9^7 13^4, "
    "4^7 5^4 13^1 15^1, 4^7 8^3 10^3 13^4, 4^7 8^1 11^5 16^5, 4^1 9^3 10^3 11^4, 4^2 9^6 10^3 11^4, "
    "4^1 9^2 11^5 16^5, 4^2 9^7 11^5 16^5, 4^1 9^3 13^7 16^4, 4^2 9^6 13^7 16^4, 4^5 9^5 14^5 15^5, "
    "4^3 11^6 12^6 16^3, 5^7 6^4 9^1 15^1, 5^1 6^4 10^2 15^1, 5^1 8^2 9^1 10^1, 5^5 8^2 10^6 11^4, "
    "5^4 8^2 10^7 13^4, 5^3 8^1 13^5 15^1, 5^4 9^1 10^7 11^4, 5^5 9^1 10^6 13^4, 5^7 9^1 13^3 16^4, "
    "5^1 10^1 11^4 13^4, 5^6 10^1 11^1 16^5, 5^4 10^4 11^5 16^5, 5^6 10^1 11^1 16^6, 5^1 10^2 13^3 16^4, "
    "5^2 10^6 13^7 16^4, 5^7 11^5 13^4 16^5, 6^2 12^1 13^2 15^1, 6^6 12^1 13^1 16^4, 6^4 13^3 15^1 16^4, "
    "7^2 9^1 15^5 16^3, 7^1 10^4 12^6 16^2, 8^2 9^1 11^4 13^4, 8^1 9^2 14^5 15^5, 8^1 10^4 13^1 15^1, "
    "8^2 11^1 13^3 16^1, 8^1 13^7 14^2 15^1, 9^1 10^3 11^1 16^5, 9^1 10^3 11^1 16^6, 9^5 11^6 12^6 16^3, "
    "9^1 11^5 13^7 16^1, 9^2 13^7 14^7 15^4, 10^3 11^4 13^7 16^4";

struct Xor {
    std::size_t group;
    uint8_t mask;

    bool operator==(const Xor&) const = default;
    auto operator<=>(const Xor&) const = default;
};
using Pattern = std::vector<Xor>;

const std::vector<Pattern>& twin_patterns() {
    static const std::vector<Pattern> patterns = [] {
        std::vector<Pattern> parsed;
        std::istringstream table(TWIN_TABLE);
        for (std::string entry; std::getline(table, entry, ',');) {
            Pattern pattern;
            std::istringstream fields(entry);
            unsigned group = 0;
            unsigned mask = 0;
            char hat = 0;
            while (fields >> group >> hat >> mask) pattern.push_back({group, static_cast<uint8_t>(mask)});
            parsed.push_back(pattern);
        }
        return parsed;
    }();
    return patterns;
}

Rows twin_of(Rows rows, const Pattern& pattern) {
    for (const Xor& change : pattern) rows[change.group] ^= change.mask;
    return rows;
}

struct Margin {
    double margin = 1e30;
    std::string call = "";
};

Margin model_margin(const Soft& soft, const Rows& rows, bool plausible) {
    const Metrics metrics = model_metrics(soft);
    Margin nearest;
    for (const Pattern& pattern : twin_patterns()) {
        const Rows twin = twin_of(rows, pattern);
        double cost = 0;
        for (const Xor& change : pattern) {
            cost += metrics[change.group][rows[change.group]] - metrics[change.group][twin[change.group]];
        }
        const Checked checked = check(twin);
        if (checked.result != 0 || twin[1] >= 4) continue;
        if (plausible && !model_plausible(checked.call)) continue;
        if (cost < nearest.margin) nearest = {cost, checked.call};
    }
    return nearest;
}

Margin margin(const Soft& soft, const Rows& rows, int32_t plausible) {
    char call[7] = {'?', '?', '?', '?', '?', '?', '?'};
    const ovc_frame frame = frame_of(rows);
    const double value = ovc_twin_margin(soft.data(), &frame, plausible, call);
    EXPECT_EQ(ovc_twin_margin(soft.data(), &frame, plausible, nullptr), value);
    return {value, call};
}

// ---- Metrics -------------------------------------------------------------------------------------------------------

TEST(FrameMetrics, GroupMetricsAreCorrelationsWithTheWalshRows) {
    Random random(21);
    for (int round = 0; round < 200; ++round) {
        Soft soft = random_soft(random);
        // Values far apart make the sum depend on its order and on its width.
        if (round % 2) {
            for (float& value : soft) value *= static_cast<float>(std::pow(10.0, random.integer(-12, 12)));
        }
        const Metrics expected = model_metrics(soft);
        for (std::size_t g = 0; g < 17; ++g) {
            double got[8];
            group_metrics(soft.data(), static_cast<int32_t>(g), got);
            for (std::size_t r = 0; r < 8; ++r) ASSERT_EQ(got[r], expected[g][r]) << "group " << g << ", row " << r;
        }
    }
}

TEST(FrameMetrics, ASingleSoftBitCountsInItsOwnGroupOnly) {
    for (std::size_t pair = 0; pair < OVC_PAIRS; ++pair) {
        Soft soft{};
        soft[pair] = 2.5F;
        for (int32_t g = 0; g < 17; ++g) {
            double got[8];
            group_metrics(soft.data(), g, got);
            for (int r = 0; r < 8; ++r) {
                const bool mine = pair % 17 == static_cast<std::size_t>(g);
                ASSERT_EQ(got[r], !mine ? 0.0 : row_bit(r, pair / 17) ? 2.5 : -2.5) << pair << ' ' << g << ' ' << r;
            }
        }
    }
}

TEST(FrameMetrics, SumsAreFormedInDoublePrecision) {
    Soft soft{};
    soft[0] = 16777216;  // 2^24: in single precision the next term would be lost
    soft[17] = 1;
    double got[8];
    group_metrics(soft.data(), 0, got);
    EXPECT_EQ(got[3], 16777217);
    EXPECT_EQ(got[0], -16777217);
}

TEST(FrameMetrics, TheFrameMetricIsTheBestAllowedRowOfEachGroup) {
    Random random(22);
    for (int round = 0; round < 300; ++round) {
        const Soft soft = round % 3 ? random_soft(random) : tied_soft(random);
        const Metrics metrics = model_metrics(soft);
        double expected = 0;
        for (std::size_t g = 0; g < 17; ++g) {
            double best = -1e300;
            for (const int row : model_allowed(g)) best = std::max(best, metrics[g][static_cast<std::size_t>(row)]);
            expected += best;
        }
        ASSERT_EQ(ovc_frame_metric(soft.data()), expected);
    }
}

TEST(FrameMetrics, ForbiddenRowsDoNotCount) {
    Rows rows{};
    rows[0] = 3;
    rows[1] = 6;
    Soft soft = exact(rows);
    for (std::size_t k = 0; k < soft.size(); ++k) {
        if (k % 17 > 1) soft[k] = 0;
    }
    EXPECT_EQ(ovc_frame_metric(soft.data()), -2);  // any other row agrees with three of seven bits
}

TEST(FrameMetrics, AnExactFrameScoresOneForEachPair) {
    EXPECT_EQ(ovc_frame_metric(exact_call("QQ0XYZ").data()), 119);
    EXPECT_EQ(ovc_frame_metric(exact_call("QQ0XYZ", 1e30F).data()), 119 * static_cast<double>(1e30F));
    EXPECT_EQ(ovc_frame_metric(Soft{}.data()), 0);
}

// ---- List ----------------------------------------------------------------------------------------------------------

std::vector<ovc_frame> list(const Soft& soft, int32_t maxn) {
    // Exactly as many as may be written; a sanitizer sees one more.
    std::vector<ovc_frame> frames(static_cast<std::size_t>(std::clamp(maxn, 0, OVC_MAX_LISTED)));
    const int32_t count = ovc_list_frames(soft.data(), maxn, frames.data());
    EXPECT_GE(count, 0);
    EXPECT_LE(count, std::max(maxn, 0));
    frames.resize(static_cast<std::size_t>(count));
    return frames;
}

void expect_same_frames(const std::vector<ovc_frame>& got, const std::vector<ovc_frame>& expected, std::size_t count) {
    ASSERT_EQ(got.size(), std::min(count, expected.size()));
    for (std::size_t k = 0; k < got.size(); ++k) {
        ASSERT_EQ(rows_in(got[k]), rows_in(expected[k])) << "rank " << k;
        ASSERT_EQ(got[k].metric, expected[k].metric) << "rank " << k;
        ASSERT_EQ(got[k].deficit, expected[k].deficit) << "rank " << k;
    }
}

TEST(FrameList, EqualsTheEnumerationOfAllVariations) {
    Random random(23);
    for (int round = 0; round < 150; ++round) {
        const Soft soft = round % 2 ? random_soft(random) : noisy(exact(rows_of(random_value(random))), 0.8, random);
        const std::vector<ovc_frame> expected = model_list(soft);
        for (const int32_t maxn : {285, 1000, 32, 7, 1, static_cast<int32_t>(expected.size())}) {
            ASSERT_NO_FATAL_FAILURE(expect_same_frames(list(soft, maxn), expected, static_cast<std::size_t>(maxn)));
        }
    }
}

TEST(FrameList, KeepsTheOrderOfArrivalWhereCostsAreEqual) {
    Random random(24);
    for (int round = 0; round < 100; ++round) {
        const Soft soft = round == 0 ? Soft{} : round == 1 ? exact_call("K1AB") : tied_soft(random);
        ASSERT_NO_FATAL_FAILURE(expect_same_frames(list(soft, 285), model_list(soft), 285));
    }
}

TEST(FrameList, BeginsWithTheThirteenBestOfAllFrames) {
    // A frame with four changes has 15 cheaper ones, one with a change beyond the limits of pairs and triples at least
    // 13: up to there nothing can be missing.
    Random random(25);
    for (int round = 0; round < 60; ++round) {
        const Soft soft = round % 2 ? random_soft(random) : noisy(exact(rows_of(random_value(random))), 1.0, random);
        const std::vector<ovc_frame> got = list(soft, 13);
        const std::vector<Ranked> expected = best_of_all(soft, 13);
        ASSERT_EQ(got.size(), 13U);
        for (std::size_t k = 0; k < 13; ++k) {
            ASSERT_TRUE(std::equal(expected[k].rows.begin(), expected[k].rows.end(), got[k].rows)) << "rank " << k;
            ASSERT_NEAR(got[k].metric, expected[k].metric, 1e-9);
        }
    }
}

TEST(FrameList, HoldsDifferentAllowedFramesByRisingDeficit) {
    Random random(26);
    for (int round = 0; round < 60; ++round) {
        const Soft soft = round % 3 ? random_soft(random) : tied_soft(random);
        const std::vector<ovc_frame> frames = list(soft, 1000);
        ASSERT_GT(frames.size(), 1U + 108U);
        ASSERT_LE(frames.size(), 285U);
        std::set<Rows> seen;
        double last = 0;
        for (const ovc_frame& frame : frames) {
            ASSERT_TRUE(seen.insert(rows_in(frame)).second);
            ASSERT_GE(frame.deficit, last);
            last = frame.deficit;
            ASSERT_NEAR(frame.metric + frame.deficit, ovc_frame_metric(soft.data()), 1e-9);
            ASSERT_EQ(frame.rows[0], 7);
            ASSERT_LE(frame.rows[1], 3);
            const Metrics metrics = model_metrics(soft);
            double sum = 0;
            for (std::size_t g = 0; g < 17; ++g) {
                ASSERT_LE(frame.rows[g], 7);
                sum += metrics[g][frame.rows[g]];
            }
            ASSERT_NEAR(frame.metric, sum, 1e-9);
        }
    }
}

TEST(FrameList, GrowsTo285WhereTheCheapestChangesLieInDifferentGroups) {
    // One clear runner-up in each of 16 groups: 120 pairs and 56 triples, none of them ruled out.
    Rows rows = rows_of(123627437);
    Soft soft = exact(rows);
    for (std::size_t g = 1; g < 17; ++g) {
        const int other = rows[g] ^ 1;
        for (std::size_t j = 0; j < 7; ++j) {
            if (row_bit(rows[g], j) != row_bit(other, j)) soft[17 * j + g] *= 0.01F * static_cast<float>(g);
        }
    }
    const std::vector<ovc_frame> expected = model_list(soft);
    ASSERT_EQ(expected.size(), 285U);
    ASSERT_NO_FATAL_FAILURE(expect_same_frames(list(soft, 285), expected, 285));
    ASSERT_NO_FATAL_FAILURE(expect_same_frames(list(soft, 1000), expected, 1000));
}

TEST(FrameList, ListsNothingWhenNothingIsAsked) {
    const Soft soft = exact_call("K1AB");
    for (const int32_t maxn : {0, -1, std::numeric_limits<int32_t>::min()}) {
        ovc_frame frame = {-5, -6, {99}};
        EXPECT_EQ(ovc_list_frames(soft.data(), maxn, &frame), 0) << maxn;
        EXPECT_EQ(frame.metric, -5);
        EXPECT_EQ(frame.deficit, -6);
        EXPECT_EQ(frame.rows[0], 99);
    }
    EXPECT_EQ(ovc_list_frames(soft.data(), 0, nullptr), 0);
}

TEST(FrameList, OfSilenceIsAllZero) {
    const std::vector<ovc_frame> frames = list(Soft{}, 1000);
    ASSERT_GT(frames.size(), 109U);
    Rows best{};
    best[0] = 7;
    EXPECT_EQ(rows_in(frames[0]), best);
    for (const ovc_frame& frame : frames) {
        EXPECT_EQ(frame.metric, 0);
        EXPECT_EQ(frame.deficit, 0);
    }
}

TEST(FrameList, AnExactFrameComesFirstAndChecks) {
    Random random(27);
    for (int round = 0; round < 200; ++round) {
        const std::string call = random.callsign();
        const std::vector<ovc_frame> frames = list(exact_call(call), 32);
        ASSERT_EQ(frames.size(), 32U);
        EXPECT_EQ(frames[0].deficit, 0);
        EXPECT_EQ(frames[0].metric, 119);
        EXPECT_EQ(frames[1].deficit, 8);  // four of seven bits differ between any two rows
        char normalised[7];
        ASSERT_EQ(ov_normalize_call(call.c_str(), normalised), 0);
        const Checked checked = check(rows_in(frames[0]));
        EXPECT_EQ(checked.result, 0);
        EXPECT_EQ(checked.call, normalised);
    }
}

TEST(FrameList, HoldsForHugeAndTinySoftBits) {
    for (const float level : {1e30F, 3e38F, 1e-30F, 1e-40F}) {
        const std::vector<ovc_frame> frames = list(exact_call("QQ0XYZ", level), 285);
        ASSERT_FALSE(frames.empty()) << level;
        EXPECT_NEAR(frames[0].metric / level, 119, 1e-9);
        EXPECT_EQ(frames[0].deficit, 0);
        EXPECT_EQ(check(rows_in(frames[0])).call, "QQ0XYZ");
    }
}

// ---- Soft bits that are no numbers ---------------------------------------------------------------------------------

std::vector<Soft> soft_bits_that_are_not_finite() {
    std::vector<Soft> all;
    for (const float bad : {NAN_F, INF_F, -INF_F}) {
        for (std::size_t pair = 0; pair < OVC_PAIRS; ++pair) {
            Soft soft = exact_call("QQ0XYZ");
            soft[pair] = bad;
            all.push_back(soft);
        }
        Soft soft{};
        soft.fill(bad);
        all.push_back(soft);
    }
    Soft mixed = exact_call("QQ0XYZ");
    mixed[5] = INF_F;
    mixed[5 + 17] = -INF_F;
    all.push_back(mixed);
    return all;
}

TEST(SoftBitsThatAreNotFinite, ListNothing) {
    for (const Soft& soft : soft_bits_that_are_not_finite()) EXPECT_TRUE(list(soft, 285).empty());
}

TEST(SoftBitsThatAreNotFinite, DecodeNothing) {
    for (const Soft& soft : soft_bits_that_are_not_finite()) {
        char call[7] = "";
        uint32_t value = 0;
        ovc_soft_info info = {77, 77, 77, 77};
        EXPECT_EQ(ovc_decode_soft(soft.data(), 32, call, &value, &info), -1);
        EXPECT_EQ(info.tried, 0);
        EXPECT_EQ(info.index, -1);
        EXPECT_EQ(info.metric, 0);
        EXPECT_EQ(info.deficit, 0);
    }
}

TEST(SoftBitsThatAreNotFinite, NeverWinAFrameMetric) {
    Soft soft = exact_call("QQ0XYZ");
    soft[40] = NAN_F;
    EXPECT_LT(ovc_frame_metric(soft.data()), -1e299);
    soft.fill(NAN_F);
    EXPECT_LT(ovc_frame_metric(soft.data()), -1e299);
}

TEST(SoftBitsThatAreNotFinite, LeaveAMarginThatIsANumber) {
    const ovc_frame frame = frame_of(rows_of(123627437));
    for (const Soft& soft : soft_bits_that_are_not_finite()) {
        char call[7];
        EXPECT_FALSE(std::isnan(ovc_twin_margin(soft.data(), &frame, 0, call)));
    }
}

// ---- Check ---------------------------------------------------------------------------------------------------------

TEST(FrameCheck, AcceptsTheFramesOfAllNumbersThatUnpack) {
    Random random(28);
    int accepted = 0;
    for (int round = 0; round < 3000; ++round) {
        const uint32_t value =
            round % 10 ? random_value(random) : OVC_MAX_CALL - 5 + static_cast<uint32_t>(round) / 100;
        char call[7] = "";
        const int unpacks = ov_unpack_call(value, call);
        const Checked checked = check(rows_of(value));
        ASSERT_EQ(checked.result, unpacks) << value;
        if (unpacks != 0) continue;
        ASSERT_EQ(checked.call, call);
        ASSERT_EQ(checked.value, value);
        ++accepted;
    }
    EXPECT_GT(accepted, 2000);
}

TEST(FrameCheck, ReadsBackWhatTheEncoderSends) {
    Random random(29);
    for (int round = 0; round < 300; ++round) {
        const std::string call = random.callsign();
        char normalised[7];
        uint32_t value = 0;
        ASSERT_EQ(ov_normalize_call(call.c_str(), normalised), 0);
        ASSERT_EQ(ov_pack_call(normalised, &value), 0);
        EXPECT_EQ(exact_call(call), exact(rows_of(value))) << call;
        EXPECT_EQ(check(rows_of(value)).call, normalised);
    }
}

TEST(FrameCheck, RefusesAFrameWithOneOtherRow) {
    Random random(30);
    for (int round = 0; round < 15; ++round) {
        const Rows rows = rows_of(random_value(random));
        for (std::size_t g = 0; g < 17; ++g) {
            for (unsigned row = 0; row < 256; ++row) {  // rows above 7 belong to no frame
                Rows changed = rows;
                changed[g] = static_cast<uint8_t>(row);
                if (row == rows[g]) continue;
                ASSERT_EQ(check(changed).result, -1) << "group " << g << ", row " << row;
            }
        }
    }
}

// ---- Decode --------------------------------------------------------------------------------------------------------

TEST(SoftDecode, TakesAnExactFrameAtOnce) {
    const Soft soft = exact_call("QQ0XYZ");
    for (const int32_t maxn : {32, 1, 0, -7, 1000, std::numeric_limits<int32_t>::max()}) {
        char call[7] = "";
        uint32_t value = 0;
        ovc_soft_info info = {77, 77, 77, 77};
        ASSERT_EQ(ovc_decode_soft(soft.data(), maxn, call, &value, &info), 0) << maxn;
        EXPECT_STREQ(call, "QQ0XYZ");
        EXPECT_EQ(value, 123627437U);
        EXPECT_EQ(info.tried, 1);
        EXPECT_EQ(info.index, 0);
        EXPECT_EQ(info.metric, 119);
        EXPECT_EQ(info.deficit, 0);
        EXPECT_EQ(ovc_decode_soft(soft.data(), maxn, call, &value, nullptr), 0);
    }
}

TEST(SoftDecode, TakesTheFirstFrameThatChecks) {
    Random random(31);
    int first = 0;
    int later = 0;
    int none = 0;
    for (int round = 0; round < 400; ++round) {
        const Soft soft = noisy(exact(rows_of(random_value(random))), 0.5 + 0.002 * round, random);
        const int32_t maxn = round % 4 == 0 ? 285 : round % 4 == 1 ? 32 : round % 4 == 2 ? 3 : 0;
        const std::vector<ovc_frame> ranked = model_list(soft);
        const std::size_t tries = std::min(ranked.size(), static_cast<std::size_t>(std::max(1, maxn)));
        std::size_t index = 0;
        while (index < tries && check(rows_in(ranked[index])).result != 0) ++index;

        char call[7] = "";
        uint32_t value = 0;
        ovc_soft_info info = {77, 77, 77, 77};
        const int result = ovc_decode_soft(soft.data(), maxn, call, &value, &info);
        if (index < tries) {
            const Checked expected = check(rows_in(ranked[index]));
            ASSERT_EQ(result, 0);
            EXPECT_EQ(call, expected.call);
            EXPECT_EQ(value, expected.value);
            EXPECT_EQ(info.tried, static_cast<int32_t>(index) + 1);
            EXPECT_EQ(info.index, static_cast<int32_t>(index));
            EXPECT_EQ(info.metric, ranked[index].metric);
            EXPECT_EQ(info.deficit, ranked[index].deficit);
            (index == 0 ? first : later)++;
        } else {
            ASSERT_EQ(result, -1);
            EXPECT_EQ(info.tried, static_cast<int32_t>(tries));
            EXPECT_EQ(info.index, -1);
            EXPECT_EQ(info.metric, ranked[0].metric);
            EXPECT_EQ(info.deficit, 0);
            ++none;
        }
        EXPECT_EQ(ovc_decode_soft(soft.data(), maxn, call, &value, nullptr), result);
    }
    EXPECT_GT(first, 20);
    EXPECT_GT(later, 20);
    EXPECT_GT(none, 20);
}

// ---- Twins ---------------------------------------------------------------------------------------------------------

TEST(TwinTable, HasPatternsOfTwoToFourGroups) {
    std::map<std::size_t, int> sizes;
    for (const Pattern& pattern : twin_patterns()) {
        sizes[pattern.size()]++;
        for (std::size_t k = 0; k < pattern.size(); ++k) {
            EXPECT_GE(pattern[k].group, k == 0 ? 1U : pattern[k - 1].group + 1);
            EXPECT_LE(pattern[k].group, 16U);
            EXPECT_GE(pattern[k].mask, 1);
            EXPECT_LE(pattern[k].mask, pattern[k].group == 1 ? 3 : 7);
        }
    }
    EXPECT_EQ(sizes, (std::map<std::size_t, int>{{2, 4}, {3, 14}, {4, 135}}));
    EXPECT_EQ(std::set<Pattern>(twin_patterns().begin(), twin_patterns().end()).size(), 153U);
}

// The frame checksum is linear but for zero bytes that are replaced. All patterns follow from its linear part except
// two, which lie next to their linear neighbours: they lead to or from frames whose second checksum has a zero byte.
const std::set<Pattern> PATTERNS_OF_A_REPLACED_BYTE = {
    {{5, 6}, {10, 1}, {11, 1}, {16, 6}},
    {{9, 1}, {10, 3}, {11, 1}, {16, 6}},
};

// Vector as one number: bit i is vector bit i.
uint64_t vector_bits(uint32_t value) {
    std::array<uint8_t, OVC_VECTOR_BITS> vec{};
    ovc_build_vector(value, vec.data());
    uint64_t bits = 0;
    for (std::size_t i = 0; i < vec.size(); ++i) bits |= static_cast<uint64_t>(vec[i]) << i;
    return bits;
}

// Whether a checksum byte holds what stands for a zero: 27, 43, or the three lowest bits of 43.
bool may_hold_replaced_byte(uint32_t value) {
    const uint64_t bits = vector_bits(value);
    const uint64_t low = bits >> 32 & 0xff;
    const uint64_t high = bits >> 40 & 0xff;
    const uint64_t second = bits >> 48 & 7;
    return low == 0b11011000 || high == 0b11010100 || second == 0b110;  // first bit lowest
}

// Callsign bits of a frame, whether it is valid or not.
uint32_t number_in(const Rows& rows) {
    uint32_t number = 0;
    for (std::size_t i = 4; i < 32; ++i) {
        const bool bit = (rows[i / 3] >> (2 - i % 3) & 1) != (WHITENING[i] == '1');
        number = 2 * number + bit;
    }
    return number;
}

TEST(TwinTable, EveryPatternTurnsEveryFrameIntoAFrameUnlessAChecksumByteIsReplaced) {
    Random random(32);
    int compared = 0;
    int replaced = 0;
    for (int round = 0; round < 400; ++round) {
        const auto value = static_cast<uint32_t>(random.next() & 0x0fffffff);
        const Rows rows = rows_of(value);
        for (const Pattern& pattern : twin_patterns()) {
            const Rows twin = twin_of(rows, pattern);
            const uint32_t number = number_in(twin);
            EXPECT_NE(number, value);
            const bool holds = rows_of(number) == twin;
            if (may_hold_replaced_byte(value) || may_hold_replaced_byte(number)) continue;
            if (PATTERNS_OF_A_REPLACED_BYTE.contains(pattern)) {
                ASSERT_FALSE(holds) << value;
                ++replaced;
            } else {
                ASSERT_TRUE(holds) << value;
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 30000);
    EXPECT_GT(replaced, 100);
}

TEST(TwinTable, TwoPatternsHoldWhereAChecksumByteIsReplaced) {
    for (const Pattern& pattern : PATTERNS_OF_A_REPLACED_BYTE) {
        Random random(33);
        int held = 0;
        for (int round = 0; round < 10000; ++round) {
            const auto value = static_cast<uint32_t>(random.next() & 0x0fffffff);
            const Rows twin = twin_of(rows_of(value), pattern);
            held += rows_of(number_in(twin)) == twin;
        }
        EXPECT_GT(held, 10);
    }
}

// The difference that each callsign bit makes in a vector while no byte is replaced.
std::array<uint64_t, 28> bit_differences(Random& random) {
    std::array<uint64_t, 28> differences{};
    for (uint32_t bit = 0; bit < 28; ++bit) {
        uint32_t value = 0;
        do {
            value = static_cast<uint32_t>(random.next() & 0x0fffffff);
        } while (may_hold_replaced_byte(value) || may_hold_replaced_byte(value ^ 1U << bit));
        differences[bit] = vector_bits(value) ^ vector_bits(value ^ 1U << bit);
    }
    return differences;
}

TEST(TwinTable, HoldsEveryPatternThatTheLinearPartAllows) {
    // A difference of rows leads from frame to frame when its checksum bits follow from its callsign bits: what is left
    // of each changed bit is a syndrome of 19 bits, and patterns are the changes whose syndromes cancel.
    Random random(34);
    const std::array<uint64_t, 28> differences = bit_differences(random);
    const auto syndrome_of_bit = [&](std::size_t place) {
        return (place < 32 ? differences[31 - place] : 1ULL << place) >> 32;
    };
    std::vector<Xor> changes;
    std::array<std::array<uint64_t, 8>, 17> syndromes{};  // of group and mask
    for (std::size_t g = 1; g < 17; ++g) {
        for (uint8_t mask = 1; mask < (g == 1 ? 4 : 8); ++mask) {  // the first bit of group 1 is always 0
            changes.push_back({g, mask});
            for (std::size_t bit = 0; bit < 3; ++bit) {
                if (mask >> (2 - bit) & 1) syndromes[g][mask] ^= syndrome_of_bit(3 * g + bit);
            }
        }
    }

    // One or two changes by their syndrome; two such with equal syndromes make a pattern.
    std::map<uint64_t, std::vector<Pattern>> by_syndrome;
    const auto syndrome = [&](const Xor& change) { return syndromes[change.group][change.mask]; };
    for (const Xor& first : changes) {
        by_syndrome[syndrome(first)].push_back({first});
        for (const Xor& second : changes) {
            if (first.group < second.group) by_syndrome[syndrome(first) ^ syndrome(second)].push_back({first, second});
        }
    }
    std::set<Pattern> expected = PATTERNS_OF_A_REPLACED_BYTE;
    for (const auto& [key, patterns] : by_syndrome) {
        for (const Pattern& front : patterns) {
            if (key == 0) expected.insert(front);
            for (const Pattern& back : patterns) {
                if (front.back().group >= back.front().group) continue;
                Pattern joined = front;
                joined.insert(joined.end(), back.begin(), back.end());
                expected.insert(joined);
            }
        }
    }
    EXPECT_EQ(expected.size(), 153U);
    EXPECT_TRUE(expected == std::set<Pattern>(twin_patterns().begin(), twin_patterns().end()));
}

TEST(TwinMargin, KnowsEveryPattern) {
    // Soft bits that show the twin: its pattern gains 8 in each of its groups, and no other pattern as much.
    Random random(34);
    for (std::size_t k = 0; k < twin_patterns().size(); ++k) {
        const Pattern& pattern = twin_patterns()[k];
        Rows rows{};
        Checked twin = {};
        do {
            rows = rows_of(random_value(random));
            twin = check(twin_of(rows, pattern));
        } while (twin.result != 0);
        const Margin got = margin(exact(twin_of(rows, pattern)), rows, 0);
        EXPECT_EQ(got.margin, -8.0 * static_cast<double>(pattern.size())) << "pattern " << k;
        EXPECT_EQ(got.call, twin.call) << "pattern " << k;
    }
}

TEST(TwinMargin, IsTheCheapestValidTwin) {
    Random random(35);
    for (int round = 0; round < 300; ++round) {
        const Rows rows = rows_of(random_value(random));
        const Soft soft = round % 3 == 0 ? random_soft(random) : noisy(exact(rows), 0.7, random);
        for (const int32_t plausible : {0, 1, -1}) {
            const Margin expected = model_margin(soft, rows, plausible != 0);
            const Margin got = margin(soft, rows, plausible);
            ASSERT_EQ(got.margin, expected.margin) << round;
            ASSERT_EQ(got.call, expected.call) << round;
        }
    }
}

TEST(TwinMargin, TheEarliestOfEqualTwinsWins) {
    Random random(36);
    for (int round = 0; round < 300; ++round) {
        const Rows rows = rows_of(random_value(random));
        const Soft soft = round % 2 ? Soft{} : tied_soft(random);
        for (const int32_t plausible : {0, 1}) {
            const Margin expected = model_margin(soft, rows, plausible != 0);
            const Margin got = margin(soft, rows, plausible);
            ASSERT_EQ(got.margin, expected.margin) << round;
            ASSERT_EQ(got.call, expected.call) << round;
        }
    }
}

TEST(TwinMargin, OfAnExactFrameIsEightForEachGroup) {
    Random random(37);
    std::set<double> seen;
    for (int round = 0; round < 300; ++round) {
        const Rows rows = rows_of(random_value(random));
        const double found = margin(exact(rows), rows, 0).margin;
        EXPECT_TRUE(found == 16 || found == 24 || found == 32 || found == 1e30) << found;
        seen.insert(found);
    }
    EXPECT_TRUE(seen.contains(16));
}

TEST(TwinMargin, PlausibilityOnlyTakesTwinsAway) {
    Random random(38);
    int fewer = 0;
    for (int round = 0; round < 300; ++round) {
        const Rows rows = rows_of(random_value(random));
        const Soft soft = noisy(exact(rows), 0.7, random);
        const double all = margin(soft, rows, 0).margin;
        const double plausible = margin(soft, rows, 1).margin;
        ASSERT_GE(plausible, all);
        fewer += plausible > all;
    }
    EXPECT_GT(fewer, 20);
}

TEST(TwinMargin, IsSentinelAndNoCallsignWithoutATwin) {
    // Rows that are no frame have no twins, and a second group beyond its rows cannot be brought back.
    Rows broken = rows_of(123627437);
    broken[16] ^= 1;
    EXPECT_EQ(margin(exact(broken), broken, 0).margin, 1e30);
    EXPECT_EQ(margin(exact(broken), broken, 0).call, "");
    broken = rows_of(123627437);
    broken[1] |= 4;
    EXPECT_EQ(margin(exact(broken), broken, 0).margin, 1e30);
}

TEST(TwinMargin, AMarginAtTheSentinelIsNoTwin) {
    // Costs beyond 1e30 do not undercut it.
    const Rows rows = rows_of(123627437);
    const Margin got = margin(exact(rows, 1e30F), rows, 0);
    EXPECT_EQ(got.margin, 1e30);
    EXPECT_EQ(got.call, "");
    const Margin below = margin(exact(rows, 1e27F), rows, 0);
    EXPECT_LT(below.margin, 1e30);
    EXPECT_NE(below.call, "");
}

// ---- Plausible callsigns -------------------------------------------------------------------------------------------

TEST(PlausibleCallsigns, Examples) {
    EXPECT_EQ(ov_call_plausible(" K1AB "), 1);
    EXPECT_EQ(ov_call_plausible(" X1AB "), 0);
    EXPECT_EQ(ov_call_plausible("QA1ABC"), 0);
    EXPECT_EQ(ov_call_plausible("QQ0XYZ"), 0);
    EXPECT_EQ(ov_call_plausible("1A2ABC"), 1);
    EXPECT_EQ(ov_call_plausible("1B2ABC"), 0);
    EXPECT_EQ(ov_call_plausible("12AB  "), 0);
    EXPECT_EQ(ov_call_plausible("345ABC"), 0);
    EXPECT_EQ(ov_call_plausible("3A5ABC"), 1);
    EXPECT_EQ(ov_call_plausible("0A5ABC"), 0);
    EXPECT_EQ(ov_call_plausible("A21AB "), 1);
    EXPECT_EQ(ov_call_plausible("H51ABC"), 0);
    EXPECT_EQ(ov_call_plausible("H41ABC"), 1);
    EXPECT_EQ(ov_call_plausible("AA1   "), 0);  // no suffix
    EXPECT_EQ(ov_call_plausible(" K1   "), 0);
    EXPECT_EQ(ov_call_plausible("AA1A  "), 1);
}

TEST(PlausibleCallsigns, EqualTheModelForAllBeginnings) {
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const std::string digits = "0123456789";
    int pairs = 0;
    int letter_digit = 0;
    for (const char first : " " + letters + digits) {
        for (const char second : letters + digits) {
            for (const char digit : digits) {
                for (const std::string suffix : {"   ", "A  ", "AB ", "ABC", "ZZZ", "Q  "}) {
                    const std::string call = std::string{first, second, digit} + suffix;
                    ASSERT_EQ(ov_call_plausible(call.c_str()), model_plausible(call) ? 1 : 0) << '"' << call << '"';
                }
            }
            const int plausible = ov_call_plausible((std::string{first, second} + "1A  ").c_str());
            pairs += plausible;
            if (contains(letters, first) && contains(digits, second)) letter_digit += plausible;
        }
    }
    EXPECT_EQ(letter_digit, 81);
    EXPECT_EQ(pairs, 9 + 81 + 25 * 26 + 1 + 8 * 26);
}

}  // namespace
