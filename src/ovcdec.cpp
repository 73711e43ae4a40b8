// The 17 Walsh groups are independent until the CRC: the best frame takes the best row of every group, and every other
// frame costs the sum of the metrics that its changed rows lose. The cheapest changes are enumerated, not all
// 4 · 8^15.
#include "ovcdec.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <span>
#include <string_view>
#include <vector>

namespace {

constexpr double NO_TWIN = 1e30;

// Metrics of every group's rows.
using Metrics = std::array<std::array<double, 8>, OVC_GROUPS>;

// One group takes a row other than its best.
struct Change {
    uint8_t group;
    uint8_t row;
};

// Up to three changes of the best frame and what they cost together.
struct Candidate {
    double cost;
    int32_t n_changes;
    std::array<Change, 3> changes;
};

// A list on the stack: its bounds are fixed.
template <class T, std::size_t Capacity>
class FixedList {
  public:
    void push_back(const T& item) { items_[size_++] = item; }
    std::span<T> items() { return {items_.data(), size_}; }

  private:
    std::array<T, Capacity> items_;
    std::size_t size_ = 0;
};

constexpr std::size_t MAX_SINGLES = 3 + 15 * 7;  // every allowed row but the best
constexpr std::size_t PAIRED_SINGLES = 16;       // pairs are made of the cheapest 16,
constexpr std::size_t TRIPLED_SINGLES = 8;       // triples of the cheapest 8
using Singles = FixedList<Candidate, MAX_SINGLES>;
using Candidates = FixedList<Candidate, OVC_MAX_LISTED>;

// A pattern of row changes that turns a valid message into another: row XOR mask in each of n groups.
struct Twin {
    uint8_t n;
    std::array<uint8_t, 4> groups;
    std::array<uint8_t, 4> masks;
};

// Patterns of two to four groups that the two checksums cannot see; a few hold only where a zero checksum byte was
// replaced. Group 0 is fixed and never among them.
constexpr std::array<Twin, 153> OVC_TWINS = {{
    {2, {1, 6, 0, 0}, {3, 5, 0, 0}},    {2, {2, 7, 0, 0}, {3, 5, 0, 0}},    {2, {3, 8, 0, 0}, {3, 5, 0, 0}},
    {2, {4, 9, 0, 0}, {3, 5, 0, 0}},    {3, {1, 12, 13, 0}, {2, 1, 6, 0}},  {3, {2, 6, 7, 0}, {6, 1, 2, 0}},
    {3, {2, 6, 7, 0}, {5, 1, 7, 0}},    {3, {3, 7, 8, 0}, {6, 1, 2, 0}},    {3, {3, 7, 8, 0}, {5, 1, 7, 0}},
    {3, {4, 8, 9, 0}, {6, 1, 2, 0}},    {3, {4, 8, 9, 0}, {5, 1, 7, 0}},    {3, {4, 14, 15, 0}, {6, 5, 5, 0}},
    {3, {5, 8, 10, 0}, {7, 2, 3, 0}},   {3, {5, 9, 10, 0}, {6, 1, 2, 0}},   {3, {5, 10, 11, 0}, {2, 5, 4, 0}},
    {3, {5, 10, 13, 0}, {3, 4, 4, 0}},  {3, {5, 13, 14, 0}, {3, 2, 2, 0}},  {3, {10, 13, 14, 0}, {4, 6, 2, 0}},
    {4, {1, 2, 6, 7}, {1, 7, 2, 1}},    {4, {1, 2, 6, 7}, {2, 7, 7, 1}},    {4, {1, 2, 6, 7}, {3, 6, 4, 2}},
    {4, {1, 2, 6, 7}, {1, 1, 3, 3}},    {4, {1, 2, 6, 7}, {2, 1, 6, 3}},    {4, {1, 2, 6, 7}, {1, 4, 2, 4}},
    {4, {1, 2, 6, 7}, {2, 4, 7, 4}},    {4, {1, 2, 6, 7}, {3, 3, 5, 5}},    {4, {1, 2, 6, 7}, {1, 2, 3, 6}},
    {4, {1, 2, 6, 7}, {2, 2, 6, 6}},    {4, {1, 2, 6, 7}, {3, 5, 4, 7}},    {4, {1, 3, 6, 8}, {1, 1, 3, 3}},
    {4, {1, 3, 6, 8}, {2, 1, 6, 3}},    {4, {1, 3, 6, 8}, {3, 3, 5, 5}},    {4, {1, 3, 6, 8}, {1, 2, 3, 6}},
    {4, {1, 3, 6, 8}, {2, 2, 6, 6}},    {4, {1, 4, 6, 9}, {1, 1, 3, 3}},    {4, {1, 4, 6, 9}, {2, 1, 6, 3}},
    {4, {1, 4, 6, 9}, {3, 3, 5, 5}},    {4, {1, 4, 6, 9}, {1, 2, 3, 6}},    {4, {1, 4, 6, 9}, {2, 2, 6, 6}},
    {4, {1, 5, 6, 10}, {1, 2, 3, 6}},   {4, {1, 5, 6, 10}, {2, 2, 6, 6}},   {4, {1, 6, 10, 11}, {1, 3, 3, 4}},
    {4, {1, 6, 10, 11}, {2, 6, 3, 4}},  {4, {1, 6, 12, 13}, {1, 5, 1, 6}},  {4, {1, 6, 13, 15}, {2, 2, 4, 1}},
    {4, {1, 6, 13, 15}, {1, 7, 4, 1}},  {4, {1, 6, 13, 16}, {1, 3, 7, 4}},  {4, {1, 6, 13, 16}, {2, 6, 7, 4}},
    {4, {1, 10, 12, 14}, {2, 4, 1, 2}}, {4, {2, 3, 6, 8}, {7, 7, 1, 1}},    {4, {2, 3, 6, 8}, {7, 4, 1, 4}},
    {4, {2, 3, 7, 8}, {1, 7, 2, 1}},    {4, {2, 3, 7, 8}, {2, 7, 7, 1}},    {4, {2, 3, 7, 8}, {3, 6, 4, 2}},
    {4, {2, 3, 7, 8}, {1, 1, 3, 3}},    {4, {2, 3, 7, 8}, {2, 1, 6, 3}},    {4, {2, 3, 7, 8}, {1, 4, 2, 4}},
    {4, {2, 3, 7, 8}, {2, 4, 7, 4}},    {4, {2, 3, 7, 8}, {3, 3, 5, 5}},    {4, {2, 3, 7, 8}, {1, 2, 3, 6}},
    {4, {2, 3, 7, 8}, {2, 2, 6, 6}},    {4, {2, 3, 7, 8}, {3, 5, 4, 7}},    {4, {2, 4, 7, 9}, {1, 1, 3, 3}},
    {4, {2, 4, 7, 9}, {2, 1, 6, 3}},    {4, {2, 4, 7, 9}, {3, 3, 5, 5}},    {4, {2, 4, 7, 9}, {1, 2, 3, 6}},
    {4, {2, 4, 7, 9}, {2, 2, 6, 6}},    {4, {2, 5, 7, 10}, {1, 2, 3, 6}},   {4, {2, 5, 7, 10}, {2, 2, 6, 6}},
    {4, {2, 7, 10, 11}, {1, 3, 3, 4}},  {4, {2, 7, 10, 11}, {2, 6, 3, 4}},  {4, {2, 7, 13, 16}, {1, 3, 7, 4}},
    {4, {2, 7, 13, 16}, {2, 6, 7, 4}},  {4, {3, 4, 5, 10}, {1, 7, 1, 1}},   {4, {3, 4, 7, 9}, {7, 7, 1, 1}},
    {4, {3, 4, 7, 9}, {7, 4, 1, 4}},    {4, {3, 4, 8, 9}, {1, 7, 2, 1}},    {4, {3, 4, 8, 9}, {2, 7, 7, 1}},
    {4, {3, 4, 8, 9}, {3, 6, 4, 2}},    {4, {3, 4, 8, 9}, {1, 1, 3, 3}},    {4, {3, 4, 8, 9}, {2, 1, 6, 3}},
    {4, {3, 4, 8, 9}, {1, 4, 2, 4}},    {4, {3, 4, 8, 9}, {2, 4, 7, 4}},    {4, {3, 4, 8, 9}, {3, 3, 5, 5}},
    {4, {3, 4, 8, 9}, {1, 2, 3, 6}},    {4, {3, 4, 8, 9}, {2, 2, 6, 6}},    {4, {3, 4, 8, 9}, {3, 5, 4, 7}},
    {4, {3, 4, 11, 13}, {1, 7, 4, 4}},  {4, {3, 5, 7, 10}, {6, 7, 1, 3}},   {4, {3, 5, 8, 10}, {3, 7, 7, 3}},
    {4, {3, 5, 8, 10}, {1, 5, 1, 5}},   {4, {3, 5, 8, 10}, {2, 5, 4, 5}},   {4, {3, 5, 8, 10}, {1, 2, 3, 6}},
    {4, {3, 5, 8, 10}, {2, 2, 6, 6}},   {4, {3, 5, 8, 11}, {1, 7, 1, 4}},   {4, {3, 5, 8, 11}, {2, 7, 4, 4}},
    {4, {3, 8, 10, 11}, {1, 3, 3, 4}},  {4, {3, 8, 10, 11}, {2, 6, 3, 4}},  {4, {3, 8, 13, 16}, {1, 3, 7, 4}},
    {4, {3, 8, 13, 16}, {2, 6, 7, 4}},  {4, {4, 5, 8, 10}, {7, 4, 1, 4}},   {4, {4, 5, 8, 10}, {7, 3, 3, 7}},
    {4, {4, 5, 8, 13}, {7, 7, 1, 4}},   {4, {4, 5, 9, 10}, {3, 6, 4, 2}},   {4, {4, 5, 9, 10}, {1, 4, 2, 4}},
    {4, {4, 5, 9, 10}, {2, 4, 7, 4}},   {4, {4, 5, 9, 10}, {1, 2, 3, 6}},   {4, {4, 5, 9, 10}, {2, 2, 6, 6}},
    {4, {4, 5, 9, 13}, {1, 7, 2, 4}},   {4, {4, 5, 9, 13}, {2, 7, 7, 4}},   {4, {4, 5, 13, 15}, {7, 4, 1, 1}},
    {4, {4, 8, 10, 13}, {7, 3, 3, 4}},  {4, {4, 8, 11, 16}, {7, 1, 5, 5}},  {4, {4, 9, 10, 11}, {1, 3, 3, 4}},
    {4, {4, 9, 10, 11}, {2, 6, 3, 4}},  {4, {4, 9, 11, 16}, {1, 2, 5, 5}},  {4, {4, 9, 11, 16}, {2, 7, 5, 5}},
    {4, {4, 9, 13, 16}, {1, 3, 7, 4}},  {4, {4, 9, 13, 16}, {2, 6, 7, 4}},  {4, {4, 9, 14, 15}, {5, 5, 5, 5}},
    {4, {4, 11, 12, 16}, {3, 6, 6, 3}}, {4, {5, 6, 9, 15}, {7, 4, 1, 1}},   {4, {5, 6, 10, 15}, {1, 4, 2, 1}},
    {4, {5, 8, 9, 10}, {1, 2, 1, 1}},   {4, {5, 8, 10, 11}, {5, 2, 6, 4}},  {4, {5, 8, 10, 13}, {4, 2, 7, 4}},
    {4, {5, 8, 13, 15}, {3, 1, 5, 1}},  {4, {5, 9, 10, 11}, {4, 1, 7, 4}},  {4, {5, 9, 10, 13}, {5, 1, 6, 4}},
    {4, {5, 9, 13, 16}, {7, 1, 3, 4}},  {4, {5, 10, 11, 13}, {1, 1, 4, 4}}, {4, {5, 10, 11, 16}, {6, 1, 1, 5}},
    {4, {5, 10, 11, 16}, {4, 4, 5, 5}}, {4, {5, 10, 11, 16}, {6, 1, 1, 6}}, {4, {5, 10, 13, 16}, {1, 2, 3, 4}},
    {4, {5, 10, 13, 16}, {2, 6, 7, 4}}, {4, {5, 11, 13, 16}, {7, 5, 4, 5}}, {4, {6, 12, 13, 15}, {2, 1, 2, 1}},
    {4, {6, 12, 13, 16}, {6, 1, 1, 4}}, {4, {6, 13, 15, 16}, {4, 3, 1, 4}}, {4, {7, 9, 15, 16}, {2, 1, 5, 3}},
    {4, {7, 10, 12, 16}, {1, 4, 6, 2}}, {4, {8, 9, 11, 13}, {2, 1, 4, 4}},  {4, {8, 9, 14, 15}, {1, 2, 5, 5}},
    {4, {8, 10, 13, 15}, {1, 4, 1, 1}}, {4, {8, 11, 13, 16}, {2, 1, 3, 1}}, {4, {8, 13, 14, 15}, {1, 7, 2, 1}},
    {4, {9, 10, 11, 16}, {1, 3, 1, 5}}, {4, {9, 10, 11, 16}, {1, 3, 1, 6}}, {4, {9, 11, 12, 16}, {5, 6, 6, 3}},
    {4, {9, 11, 13, 16}, {1, 5, 7, 1}}, {4, {9, 13, 14, 15}, {2, 7, 7, 4}}, {4, {10, 11, 13, 16}, {3, 4, 7, 4}},
}};

// The digits that may follow a letter in a callsign whose second character is a digit.
struct PrefixDigits {
    char letter;
    std::string_view digits;
};
constexpr std::array<PrefixDigits, 12> LETTER_DIGIT_PREFIXES = {{
    {'A', "23456789"},
    {'C', "23456789"},
    {'D', "23456789"},
    {'E', "234567"},
    {'H', "2346789"},
    {'J', "2345678"},
    {'L', "23456789"},
    {'P', "2345"},
    {'S', "2356789"},
    {'T', "2345678"},
    {'V', "2345678"},
    {'Z', "2368"},
}};
constexpr std::string_view SINGLE_LETTER_PREFIXES = "BFGIKMNRW";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_letter(char c) {
    return c >= 'A' && c <= 'Z';
}

Metrics all_group_metrics(const float* soft) {
    Metrics metrics;
    for (int32_t g = 0; g < OVC_GROUPS; g++) group_metrics(soft, g, metrics[static_cast<std::size_t>(g)].data());
    return metrics;
}

// The first allowed row with the largest metric; -1 when all are NaN.
int32_t best_row(const std::array<double, 8>& metrics, int32_t group) {
    const ovc_row_range allowed = ovc_allowed_rows(group);
    int32_t best = -1;
    double best_metric = OVC_NO_METRIC;
    for (int32_t row = allowed.first; row <= allowed.last; row++) {
        const double metric = metrics[static_cast<std::size_t>(row)];
        if (metric > best_metric) {
            best_metric = metric;
            best = row;
        }
    }
    return best;
}

int32_t cmp_cand(const Candidate& a, const Candidate& b) {
    return (a.cost > b.cost) - (a.cost < b.cost);
}

void sort_by_cost(std::span<Candidate> candidates) {
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return cmp_cand(a, b) < 0; });
}

Singles list_singles(const Metrics& metrics, const std::array<int32_t, OVC_GROUPS>& best) {
    Singles singles;
    for (int32_t g = 0; g < OVC_GROUPS; g++) {
        const auto& m = metrics[static_cast<std::size_t>(g)];
        const int32_t top = best[static_cast<std::size_t>(g)];
        const ovc_row_range allowed = ovc_allowed_rows(g);
        for (int32_t row = allowed.first; row <= allowed.last; row++) {
            if (row == top) continue;
            const double cost = m[static_cast<std::size_t>(top)] - m[static_cast<std::size_t>(row)];
            singles.push_back({cost, 1, {{{static_cast<uint8_t>(g), static_cast<uint8_t>(row)}, {}, {}}}});
        }
    }
    sort_by_cost(singles.items());
    return singles;
}

// The best frame, all singles, and pairs and triples of the cheapest singles in different groups, cheapest first.
Candidates list_candidates(Singles& sorted) {
    Candidates list;
    list.push_back({});
    for (const Candidate& single : sorted.items()) list.push_back(single);

    const std::span<const Candidate> singles = sorted.items();
    const auto group = [&](std::size_t i) { return singles[i].changes[0].group; };
    for (std::size_t a = 0; a < PAIRED_SINGLES; a++) {
        for (std::size_t b = a + 1; b < PAIRED_SINGLES; b++) {
            if (group(a) == group(b)) continue;
            list.push_back(
                {singles[a].cost + singles[b].cost, 2, {{singles[a].changes[0], singles[b].changes[0], {}}}});
        }
    }
    for (std::size_t a = 0; a < TRIPLED_SINGLES; a++) {
        for (std::size_t b = a + 1; b < TRIPLED_SINGLES; b++) {
            for (std::size_t c = b + 1; c < TRIPLED_SINGLES; c++) {
                if (group(a) == group(b) || group(a) == group(c) || group(b) == group(c)) continue;
                list.push_back({singles[a].cost + singles[b].cost + singles[c].cost,
                                3,
                                {{singles[a].changes[0], singles[b].changes[0], singles[c].changes[0]}}});
            }
        }
    }
    sort_by_cost(list.items());
    return list;
}

}  // namespace

void group_metrics(const float* soft, int32_t g, double* out) {
    for (std::size_t row = 0; row < OVC_WALSH.size(); row++) {
        double sum = 0;
        for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
            const double value = soft[static_cast<std::size_t>(g) + OVC_GROUPS * j];
            sum += OVC_WALSH[row][j] != 0 ? value : -value;
        }
        out[row] = sum;
    }
}

double ovc_frame_metric(const float* soft) {
    double total = 0;
    for (int32_t g = 0; g < OVC_GROUPS; g++) {
        std::array<double, 8> metrics;
        group_metrics(soft, g, metrics.data());
        const int32_t row = best_row(metrics, g);
        total += row < 0 ? OVC_NO_METRIC : metrics[static_cast<std::size_t>(row)];
    }
    return total;
}

int32_t ovc_list_frames(const float* soft, int32_t maxn, ovc_frame* out) {
    if (maxn < 1) return 0;
    if (!std::all_of(soft, soft + OVC_PAIRS, [](float v) { return std::isfinite(v); })) return 0;

    const Metrics metrics = all_group_metrics(soft);
    std::array<int32_t, OVC_GROUPS> best;
    double best_metric = 0;
    for (std::size_t g = 0; g < OVC_GROUPS; g++) {
        best[g] = best_row(metrics[g], static_cast<int32_t>(g));
        best_metric += metrics[g][static_cast<std::size_t>(best[g])];
    }

    Singles singles = list_singles(metrics, best);
    Candidates candidates = list_candidates(singles);
    const auto listed = candidates.items().first(std::min(candidates.items().size(), static_cast<std::size_t>(maxn)));
    for (const Candidate& candidate : listed) {
        ovc_frame& frame = *out++;
        frame.metric = best_metric - candidate.cost;
        frame.deficit = candidate.cost;
        std::transform(best.begin(), best.end(), frame.rows, [](int32_t row) { return static_cast<uint8_t>(row); });
        for (const Change& change : std::span(candidate.changes).first(static_cast<std::size_t>(candidate.n_changes))) {
            frame.rows[change.group] = change.row;
        }
    }
    return static_cast<int32_t>(listed.size());
}

int ovc_check_frame(const ovc_frame* frame, char* call, uint32_t* value) {
    std::array<uint8_t, OVC_VECTOR_BITS> bits;
    for (std::size_t g = 0; g < OVC_GROUPS; g++) {
        const uint32_t row = frame->rows[g];
        bits[3 * g] = static_cast<uint8_t>(row / 4);
        bits[3 * g + 1] = static_cast<uint8_t>(row / 2 % 2);
        bits[3 * g + 2] = static_cast<uint8_t>(row % 2);
    }
    for (std::size_t i = 0; i < bits.size(); i++) bits[i] = static_cast<uint8_t>(bits[i] ^ OVC_PSEUDO[i]);

    if (ovc_check_vector(bits.data(), value) != 0) return -1;
    return ov_unpack_call(*value, call);
}

int32_t ovc_decode_soft(const float* soft, int32_t maxn, char* call, uint32_t* value, ovc_soft_info* info) {
    const int32_t wanted = std::clamp(maxn, 1, OVC_MAX_LISTED);
    std::vector<ovc_frame> frames;
    try {
        frames.resize(static_cast<std::size_t>(wanted));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    const int32_t listed = ovc_list_frames(soft, wanted, frames.data());

    for (int32_t rank = 0; rank < listed; rank++) {
        const ovc_frame& frame = frames[static_cast<std::size_t>(rank)];
        if (ovc_check_frame(&frame, call, value) != 0) continue;
        if (info != nullptr) *info = {rank + 1, rank, frame.metric, frame.deficit};
        return 0;
    }
    if (info != nullptr) *info = {listed, -1, listed > 0 ? frames.front().metric : 0.0, 0.0};
    return -1;
}

int32_t ov_call_plausible(const char* call) {
    const char first = call[0];
    const char second = call[1];
    if (call[3] == ' ') return 0;
    if (first == ' ') return SINGLE_LETTER_PREFIXES.find(second) != std::string_view::npos;
    if (first == 'Q') return 0;
    if (is_letter(first)) {
        if (!is_digit(second)) return 1;
        return std::any_of(LETTER_DIGIT_PREFIXES.begin(), LETTER_DIGIT_PREFIXES.end(), [&](const PrefixDigits& prefix) {
            return prefix.letter == first && prefix.digits.find(second) != std::string_view::npos;
        });
    }
    if (first == '0') return 0;
    if (first == '1') return second == 'A';
    return is_digit(first) && !is_digit(second);
}

double ovc_twin_margin(const float* soft, const ovc_frame* frame, int32_t plausible, char* twin_call) {
    const Metrics metrics = all_group_metrics(soft);
    if (twin_call != nullptr) twin_call[0] = '\0';

    double margin = NO_TWIN;
    for (const Twin& pattern : OVC_TWINS) {
        ovc_frame twin = *frame;
        double cost = 0;
        for (std::size_t i = 0; i < pattern.n; i++) {
            const std::size_t group = pattern.groups[i];
            const std::size_t old_row = frame->rows[group];
            const std::size_t new_row = old_row ^ pattern.masks[i];
            twin.rows[group] = static_cast<uint8_t>(new_row);
            cost += metrics[group][old_row] - metrics[group][new_row];
        }
        if (twin.rows[1] >= 4 || !(cost < margin)) continue;

        std::array<char, 7> call;
        uint32_t value = 0;
        if (ovc_check_frame(&twin, call.data(), &value) != 0) continue;
        if (plausible != 0 && ov_call_plausible(call.data()) == 0) continue;
        margin = cost;
        if (twin_call != nullptr) std::copy(call.begin(), call.end(), twin_call);
    }
    return margin;
}
