// Candidate search: where in a score map may frames begin?
//
//     score map → correlation with the frame structure at every start and frequency → peaks
//
// OPERA frames are scored by the best Walsh words of their groups, ORVEL frames by the differences within their chip
// pairs: in both cases by what the frame would show, whatever its message. No state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "ovrecords.h"

// The part of a map that is searched: frame starts (rows, possibly before the first) and columns.
struct ov_grid {
    int64_t first_row;
    int64_t n_rows;
    std::size_t first_column;
    std::size_t n_columns;
};

// Finds the grid for frames of `chips` chips. t_min, t_max, search_hz and edge as in ov_find_candidates. False when
// there is no place to search.
bool ov_search_grid(const ov_specmap& map, int32_t chips, double t_min, double t_max, double search_hz, double edge,
                    ov_grid& grid);

// Power in the chip after row r minus power in the chip that begins there, over the grid's columns; zeros where either
// lies outside the map.
void ov_pair_difference(const ov_specmap& map, const ov_grid& grid, int64_t r, float* out);

// Correlations of one Walsh group with its eight words, by the map row in which the group begins.
//
// Pair g + 17j of a frame at row t compares the chips at rows t + (2g + 1)S + 34jS and S later (S rows per chip), so
// the correlations of a group depend only on the row u = t + (2g + 1)S in which it begins, not on the frame: each row's
// are formed once, kept while a frame can still use them, and shared by all groups, frames and known callsigns.
// Construction throws std::bad_alloc when memory is short.
class ov_group_rows {
  public:
    enum class Keep {
        BEST,  // the best correlation
        WORDS  // the correlation with each word, and the sum of the squared differences
    };

    // Rows for frames that start in the grid, which must be requested in ascending order of frame start.
    ov_group_rows(const ov_specmap& map, const ov_grid& grid, Keep keep);

    // Forms what frames up to start row t need.
    void advance(int64_t t);

    // One value for each column of the grid, and zeros up to a multiple of PADDING columns, of group g of a frame that
    // starts in row t. A best ignores NaN and is at least -1e30. The next word is word_stride() values on.
    static constexpr std::size_t PADDING = 16;
    const float* word(int64_t t, std::size_t g, std::size_t w) const { return row(t, g, w); }
    std::size_t word_stride() const { return stride_; }
    const float* best(int64_t t, std::size_t g) const {
        return row(t, g, g == 0 ? ONLY_LAST : g == 1 ? FIRST_FOUR : ALL);
    }

    // Sum of the group's squared differences. In double: a float cannot hold the square of a power over the noise floor
    // of digital silence.
    const double* squares(int64_t t, std::size_t g) const;

  private:
    enum Best : std::size_t { ONLY_LAST, FIRST_FOUR, ALL, N_BEST };  // words that a group may have

    std::size_t slot(int64_t u) const { return static_cast<std::size_t>((u - grid_.first_row) % depth_); }
    int64_t group_row(int64_t t, std::size_t g) const;
    const float* row(int64_t t, std::size_t g, std::size_t kind) const;
    void form(int64_t u);
    void form_squares(int64_t u);

    const ov_specmap& map_;
    ov_grid grid_;
    Keep keep_;
    std::size_t stride_;  // columns, rounded up
    std::size_t kinds_;   // rows kept of each
    int64_t depth_;       // rows kept
    int64_t next_row_;    // first row not formed yet
    std::vector<float> rows_;
    std::vector<double> squares_;
    std::vector<float> differences_;
};

// Finds frame starts, strongest first, at most one within 7 chips and two chip bandwidths of another.
//
//   t_min, t_max   allowed start times, s
//   search_hz      half-width of the search, Hz
//   edge           fraction of the frame that may extend past each end of the block, clamped to 0 … 0.5
//   z_min          threshold in sigma above the median score
//   max_out, out   room for the result
//   median_out, sigma_out   statistics of the scores, or null; unwritten when there is no place to search
// Returns the number of candidates, or -1 when memory is short.
int32_t ov_find_candidates(const ov_specmap& map, double t_min, double t_max, double search_hz, double edge,
                           double z_min, int32_t max_out, ov_cand* out, double* median_out, double* sigma_out);
