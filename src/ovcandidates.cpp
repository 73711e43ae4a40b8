// A frame shows in the score map as a pattern of ON and OFF chips: candidates are where that pattern fits best over all
// messages that a frame could carry.
#include "ovcandidates.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "bigpages.h"
#include "multiversion.h"
#include "ovcenc.h"
#include "robust.h"
#include "runsums.h"

namespace {

constexpr std::size_t MAX_SCORE_SAMPLES = 200000;

constexpr double THINNING_CHIPS = 7;       // candidates this close in time
constexpr double THINNING_BANDWIDTHS = 2;  // and frequency (in 1/chip) are one

// Correlations of a group with the eight words, for some columns: bit j of word w is the parity of w AND (j + 1), so
// they are the negated Walsh-Hadamard transform of 0 and the seven differences, which lie `stride` apart.
using EightWords = std::array<Floats8, 8>;
inline void correlate(const float* differences, std::size_t stride, EightWords& x) {
    x[0] = Floats8{};
    for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
        load(x[j + 1], differences + j * stride);
        x[j + 1] = -x[j + 1];
    }
    for (std::size_t half = 1; half < x.size(); half *= 2) {
        for (std::size_t k = 0; k < x.size(); k++) {
            if ((k & half) != 0) continue;
            const Floats8 sum = x[k] + x[k + half];
            x[k + half] = x[k] - x[k + half];
            x[k] = sum;
        }
    }
}

// n is a multiple of FLOATS, here and in the next function.
ORVEL_MULTIVERSION void correlate_words(const float* differences, std::size_t n, float* words) {
    for (std::size_t c = 0; c < n; c += FLOATS) {
        EightWords x;
        correlate(differences + c, n, x);
        for (std::size_t w = 0; w < x.size(); w++) store(x[w], words + w * n + c);
    }
}

// The best of the last word alone, of the first four, and of all.
ORVEL_MULTIVERSION void correlate_best(const float* differences, std::size_t n, float* last, float* four, float* all) {
    const Floats8 lowest = Floats8{} - 1e30f;
    for (std::size_t c = 0; c < n; c += FLOATS) {
        EightWords x;
        correlate(differences + c, n, x);
        Floats8 best = lowest;
        for (std::size_t w = 0; w < x.size(); w++) {
            best = x[w] > best ? x[w] : best;  // unchanged where x is NaN
            if (w == 3) store(best, four + c);
        }
        store(best, all + c);
        best = x[7] > lowest ? x[7] : lowest;
        store(best, last + c);
    }
}

ORVEL_MULTIVERSION void subtract(const float* a, const float* b, std::size_t n, float* out) {
    for (std::size_t c = 0; c < n; c++) out[c] = a[c] - b[c];
}

// Sums of 17 rows, in their order.
using GroupRows = std::array<const float*, OVC_GROUPS>;
ORVEL_MULTIVERSION void sum_groups(const GroupRows& rows, std::size_t n, float* out) {
    for (std::size_t c = 0; c < n; c += FLOATS) {
        Floats8 sum{};
        for (const float* row : rows) {
            Floats8 values;
            load(values, row + c);
            sum += values;
        }
        std::memcpy(out + c, &sum, std::min(FLOATS, n - c) * sizeof(float));
    }
}

// The score of every cell of a grid, row by row.
class ScoreGrid {
  public:
    explicit ScoreGrid(const ov_grid& grid)
        : columns_(grid.n_columns),
          size_(static_cast<std::size_t>(grid.n_rows) * columns_),
          scores_(big_array<float>(size_)) {}

    std::span<float> row(int64_t i) { return {scores_.get() + static_cast<std::size_t>(i) * columns_, columns_}; }
    std::span<const float> row(int64_t i) const {
        return {scores_.get() + static_cast<std::size_t>(i) * columns_, columns_};
    }
    std::span<float> all() { return {scores_.get(), size_}; }
    std::span<const float> all() const { return {scores_.get(), size_}; }

  private:
    std::size_t columns_;
    std::size_t size_;
    std::unique_ptr<float[]> scores_;
};

void score_groups(const ov_specmap& map, const ov_grid& grid, ScoreGrid& scores) {
    ov_group_rows groups(map, grid, ov_group_rows::Keep::BEST);
    for (int64_t i = 0; i < grid.n_rows; i++) {
        const int64_t t = grid.first_row + i;
        groups.advance(t);
        GroupRows rows;
        for (std::size_t g = 0; g < rows.size(); g++) rows[g] = groups.best(t, g);
        sum_groups(rows, grid.n_columns, scores.row(i).data());
    }
}

// Some columns of a row of the score, in double precision.
template <std::size_t COLUMNS>
struct alignas(sizeof(Doubles4)) ColumnSums {
    double sums[COLUMNS];

    // Adds |b - a| of that many columns.
    void add_difference(const float* a, const float* b) {
        for (std::size_t c = 0; c < COLUMNS; c++) sums[c] += static_cast<double>(std::fabs(b[c] - a[c]));
    }
};

// Scores of some columns, of frames that start in rows t, t + 2S, …: pair k of the frame in row t compares the chips at
// row t + (2k + 1)S, so that neighbouring scores of this sequence share all but one of their terms. Chips outside the
// map add nothing.
template <std::size_t COLUMNS>
[[gnu::always_inline]] inline void score_columns(const ov_specmap& map, const ov_grid& grid, int64_t residue,
                                                 std::size_t column, ColumnSums<COLUMNS>* ends,
                                                 ScoreGrid& scores) noexcept {
    using Sums = ColumnSums<COLUMNS>;
    const int64_t stride = 2 * int64_t{map.steps_per_chip};
    const int64_t starts = (grid.n_rows - residue + stride - 1) / stride;
    const int64_t first_row = grid.first_row + residue + map.steps_per_chip;
    const float* const source = map.power + grid.first_column + column;
    sum_runs(
        starts + map.pairs - 1, map.pairs, ends,
        [&](Sums& sums, int64_t i) {
            const int64_t u = first_row + i * stride;
            if (u < 0 || u + map.steps_per_chip >= map.npos) return;
            const float* const first = source + u * map.nbins;
            sums.add_difference(first, first + int64_t{map.steps_per_chip} * map.nbins);
        },
        [&](int64_t i, const Sums& a, const Sums& b) {
            float* const out = scores.row(residue + i * stride).data() + column;
            for (std::size_t c = 0; c < std::size(a.sums); c++) out[c] = static_cast<float>(a.sums[c] + b.sums[c]);
        });
}

constexpr std::size_t WIDE = 16;  // columns
ORVEL_MULTIVERSION void score_wide(const ov_specmap& map, const ov_grid& grid, int64_t residue, std::size_t column,
                                   ColumnSums<WIDE>* ends, ScoreGrid& scores) noexcept {
    score_columns(map, grid, residue, column, ends, scores);
}

void score_pairs(const ov_specmap& map, const ov_grid& grid, ScoreGrid& scores) {
    if (map.pairs < 1) {
        std::ranges::fill(scores.all(), 0.0f);
        return;
    }
    const int64_t residues = std::min(2 * int64_t{map.steps_per_chip}, grid.n_rows);
    const auto run = static_cast<std::size_t>(map.pairs);
    if (grid.n_columns < WIDE) {
        std::vector<ColumnSums<1>> ends(run);
        for (std::size_t column = 0; column < grid.n_columns; column++) {
            for (int64_t r = 0; r < residues; r++) score_columns(map, grid, r, column, ends.data(), scores);
        }
        return;
    }
    std::vector<ColumnSums<WIDE>> ends(run);
    for (std::size_t next = 0; next < grid.n_columns; next += WIDE) {
        const std::size_t column = std::min(next, grid.n_columns - WIDE);  // the last ones overlap
        for (int64_t r = 0; r < residues; r++) score_wide(map, grid, r, column, ends.data(), scores);
    }
}

// Every so many-th score, evenly.
RobustStatistics score_statistics(std::span<const float> scores) {
    const std::size_t n = std::min(scores.size(), MAX_SCORE_SAMPLES);
    std::vector<float> sample(n);
    // Score i * size / n for each i, without a division for each.
    const std::size_t step = scores.size() / std::max<std::size_t>(n, 1);
    const std::size_t rest = scores.size() - step * n;
    std::size_t at = 0;
    std::size_t remainder = 0;
    for (float& score : sample) {
        score = scores[at];
        at += step;
        remainder += rest;
        if (remainder >= n) {
            remainder -= n;
            at++;
        }
    }
    return robust_statistics(sample, median_value);
}

ORVEL_MULTIVERSION bool any_reaches(const float* scores, std::size_t n, float threshold) {
    int32_t count = 0;
    for (std::size_t i = 0; i < n; i++) count += scores[i] >= threshold ? 1 : 0;
    return count > 0;
}

std::vector<ov_cand> find_peaks(const ov_specmap& map, const ov_grid& grid, const ScoreGrid& scores,
                                const RobustStatistics& statistics, double z_min) {
    const auto threshold = static_cast<float>(z_min * statistics.sigma + statistics.median);
    const auto rows = [&](int64_t r) { return scores.row(r); };
    std::vector<ov_cand> peaks;
    for (int64_t i = 0; i < grid.n_rows; i++) {
        const std::span<const float> row = scores.row(i);
        if (!any_reaches(row.data(), row.size(), threshold)) continue;
        for (std::size_t c = 0; c < row.size(); c++) {
            const float score = row[c];
            if (!(score >= threshold) || !std::isfinite(score) || !is_peak(rows, grid.n_rows, i, c)) continue;
            ov_cand cand;
            cand.pos = static_cast<int32_t>(grid.first_row + i);
            cand.bin = static_cast<int32_t>(grid.first_column + c);
            cand.t = map.row_s(cand.pos);
            cand.f = map.column_hz(cand.bin);
            cand.score = score;
            cand.z = (score - static_cast<double>(statistics.median)) / statistics.sigma;
            peaks.push_back(cand);
        }
    }
    return peaks;
}

int32_t cmp_cand_desc(const ov_cand& a, const ov_cand& b) {
    return (b.score > a.score) - (b.score < a.score);
}

}  // namespace

bool ov_search_grid(const ov_specmap& map, int32_t chips, double t_min, double t_max, double search_hz, double edge,
                    ov_grid& grid) {
    const double fraction = std::fmin(std::fmax(edge, 0.0), 0.5);
    const double overhang = std::floor(fraction * chips) * map.steps_per_chip;
    const double to_last_chip = static_cast<double>(chips - 1) * map.steps_per_chip;
    const double first = std::fmax(-overhang, std::ceil(t_min * map.rate / map.hop));
    const double last = std::fmin(map.npos - 1 - to_last_chip + overhang, std::floor(t_max * map.rate / map.hop));
    if (!(last >= first)) return false;

    if (!(search_hz >= 0)) return false;
    const double half = std::fmin(std::floor(search_hz / map.bin_hz), map.half);
    grid.first_row = static_cast<int64_t>(first);
    grid.n_rows = static_cast<int64_t>(last - first) + 1;
    grid.first_column = static_cast<std::size_t>(map.half - half);
    grid.n_columns = 2 * static_cast<std::size_t>(half) + 1;
    return true;
}

void ov_pair_difference(const ov_specmap& map, const ov_grid& grid, int64_t r, float* out) {
    if (r < 0 || r + map.steps_per_chip >= map.npos) {
        std::fill_n(out, grid.n_columns, 0.0f);
        return;
    }
    const float* const first = map.row(r).data() + grid.first_column;
    const float* const second = map.row(r + map.steps_per_chip).data() + grid.first_column;
    subtract(second, first, grid.n_columns, out);
}

ov_group_rows::ov_group_rows(const ov_specmap& map, const ov_grid& grid, Keep keep)
    : map_(map),
      grid_(grid),
      keep_(keep),
      stride_((grid.n_columns + PADDING - 1) / PADDING * PADDING),
      kinds_(keep == Keep::BEST ? static_cast<std::size_t>(N_BEST) : OVC_WALSH.size()),
      depth_(2 * OVC_GROUPS * int64_t{map.steps_per_chip}),
      next_row_(grid.first_row + map.steps_per_chip),
      rows_(static_cast<std::size_t>(depth_) * kinds_ * stride_),
      squares_(keep == Keep::WORDS ? static_cast<std::size_t>(depth_) * grid.n_columns : 0),
      differences_(OVC_WORD_BITS * stride_) {}

void ov_group_rows::advance(int64_t t) {
    while (next_row_ <= group_row(t, OVC_GROUPS - 1)) form(next_row_++);
}

int64_t ov_group_rows::group_row(int64_t t, std::size_t g) const {
    return t + static_cast<int64_t>(2 * g + 1) * map_.steps_per_chip;
}

const float* ov_group_rows::row(int64_t t, std::size_t g, std::size_t kind) const {
    return rows_.data() + (slot(group_row(t, g)) * kinds_ + kind) * stride_;
}

const double* ov_group_rows::squares(int64_t t, std::size_t g) const {
    return squares_.data() + slot(group_row(t, g)) * grid_.n_columns;
}

void ov_group_rows::form(int64_t u) {
    int64_t r = u;
    for (std::size_t j = 0; j < OVC_WORD_BITS; j++, r += depth_) {
        ov_pair_difference(map_, grid_, r, differences_.data() + j * stride_);
    }
    float* const out = rows_.data() + slot(u) * kinds_ * stride_;
    if (keep_ == Keep::BEST) {
        correlate_best(differences_.data(), stride_, out + ONLY_LAST * stride_, out + FIRST_FOUR * stride_,
                       out + ALL * stride_);
    } else {
        correlate_words(differences_.data(), stride_, out);
        form_squares(u);
    }
}

void ov_group_rows::form_squares(int64_t u) {
    const std::size_t n = grid_.n_columns;
    double* const out = squares_.data() + slot(u) * n;
    std::fill_n(out, n, 0.0);
    for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
        for (std::size_t c = 0; c < n; c++) {
            const double difference = differences_[j * stride_ + c];
            out[c] += difference * difference;
        }
    }
}

int32_t ov_find_candidates(const ov_specmap& map, double t_min, double t_max, double search_hz, double edge,
                           double z_min, int32_t max_out, ov_cand* out, double* median_out, double* sigma_out) {
    ov_grid grid;
    if (!ov_search_grid(map, map.frame_chips, t_min, t_max, search_hz, edge, grid)) return 0;
    try {
        ScoreGrid scores(grid);
        if (map.pair_mode == 0) {
            score_groups(map, grid, scores);
        } else {
            score_pairs(map, grid, scores);
        }
        const RobustStatistics statistics = score_statistics(scores.all());
        if (median_out != nullptr) *median_out = statistics.median;
        if (sigma_out != nullptr) *sigma_out = statistics.sigma;
        if (max_out < 1) return 0;

        std::vector<ov_cand> peaks = find_peaks(map, grid, scores, statistics, z_min);
        std::stable_sort(peaks.begin(), peaks.end(),
                         [](const ov_cand& a, const ov_cand& b) { return cmp_cand_desc(a, b) < 0; });
        const double near_s = THINNING_CHIPS * map.chip_s;
        const double near_hz = THINNING_BANDWIDTHS / map.chip_s;
        return thin_out<ov_cand>(peaks, {out, static_cast<std::size_t>(max_out)},
                                 [&](const ov_cand& a, const ov_cand& b) {
                                     return std::fabs(a.t - b.t) <= near_s && std::fabs(a.f - b.f) <= near_hz;
                                 });
    } catch (const std::bad_alloc&) {
        return -1;
    }
}
