// Synchronisation and measurement: where in a baseband are frames, and how strong is each of their chips?
//
//     baseband → score map → candidates → refined hypothesis → shifted fits → SNR
//
// The score map is a power spectrogram, one row each sixteenth of a chip and one column each frequency bin, normalised
// so that noise has mean 1 in every column. Candidates are peaks of the map's correlation with the frame structure;
// a hypothesis is measured chip by chip on the baseband itself.
//
// Frequencies are offsets in Hz from the baseband's centre, times are seconds from its first sample, start positions
// may be negative (a frame that began before the block). No state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "ovbb.h"
#include "protocol.h"

// The score map.
struct ov_specmap {
    double chip_s;           // chip length, s
    double rate;             // baseband rate, Hz
    int32_t chip_len;        // samples in a chip, N
    int32_t steps_per_chip;  // map rows in a chip: 16, or N where 16 does not divide N
    int32_t hop;             // samples between rows
    int32_t nfft;            // transform length, N zero-padded 4 times (2 times above N = 512)
    double bin_hz;           // column spacing, Hz
    int32_t nbins;           // columns, 2·half + 1
    int32_t half;            // columns on each side of the centre
    int32_t npos;            // rows
    float* power;            // npos × nbins, row by row, noise has mean 1; owned
    float* noise;            // nbins noise powers by which the columns were divided; owned
    int32_t spread;          // half-width of the spread sum, bins; 0 = off
    double noise_rescale;    // 1
    double spread_factor;    // bins summed in units of unpadded bins; 1 with spread off
    int32_t pairs;           // frame layout: chip pairs,
    int32_t frame_chips;     // chips,
    int32_t pair_mode;       // 0: scored by Walsh groups (OPERA), 1: by Manchester pairs (ORVEL)
};

// A likely frame.
struct ov_cand {
    int32_t pos;   // start, map rows
    int32_t bin;   // map column
    double t;      // start, s
    double f;      // frequency offset, Hz
    double score;  // correlation with the frame structure
    double z;      // the same in sigma above the median of all scores
};

// A measured frame hypothesis.
struct ov_hyp {
    int32_t start;               // first sample of the frame in the baseband
    double f;                    // frequency offset in the middle of the frame, Hz
    double drift;                // Hz/s
    double metric;               // score, higher is better
    double noise;                // noise power at f, on the scale of the energies
    int32_t n_in;                // chips that lie wholly inside the baseband
    double noise_rescale;        // the map's
    double spread_factor;        // the map's
    int32_t nchips;              // chips of the frame
    float energy[OV_MAX_CHIPS];  // chip energies, -1 outside the baseband
    float soft[OV_MAX_PAIRS];    // soft bits of the chip pairs
};

// Median of n values (mean of the middle two for even n, 0 for none). scratch holds n floats.
float median_of(const float* values, int32_t n, float* scratch);

// Makes the score map of a baseband in OPERA's layout.
//
//   chip_s      chip length, s; must be a whole number of at least 4 samples
//   search_hz   half-width that will be searched, Hz; the map is a little wider
//   spread_hz   width over which energy is summed, Hz; 0 or less = off
// Returns 0, or -1 with the map zeroed when the chip does not fit, the block is shorter than a chip, no column is left
// or memory is short. Free the map with ov_spectrogram_free.
int ov_spectrogram(const ov_baseband& bb, double chip_s, double search_hz, double spread_hz, ov_specmap& out);
void ov_spectrogram_free(ov_specmap& map);

// Sets the frame layout: ncoded chip pairs (at most OV_MAX_PAIRS) behind one leading chip.
void ov_spec_frame(ov_specmap& map, int32_t ncoded, int32_t pair_mode);

// The part of a map that is searched: frame starts (rows, possibly before the first) and columns.
struct ov_grid {
    int64_t first_row;
    int64_t n_rows;
    int32_t first_column;
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
// Pair g + 17j of a frame at row t compares the chips at rows t + (2g + 1)S + 34jS and S later (S rows a chip), so the
// correlations of a group depend only on the row u = t + (2g + 1)S in which it begins, not on the frame: each row's
// are formed once, kept while a frame can still use them, and shared by all groups, frames and known callsigns. Making
// one throws std::bad_alloc when memory is short.
class ov_group_rows {
  public:
    enum class Keep {
        BEST,  // the best correlation
        WORDS  // the correlation with each word, and the sum of the squared differences
    };

    // Rows for frames that start in the grid, which must be asked for in ascending order of frame start.
    ov_group_rows(const ov_specmap& map, const ov_grid& grid, Keep keep);

    // Forms what frames up to start row t need.
    void advance(int64_t t);

    // One value for each column of the grid, and zeros up to a multiple of 16 columns, of group g of a frame that
    // starts in row t. A best is taken over numbers only and is at least -1e30.
    const float* word(int64_t t, int32_t g, int32_t w) const { return row(t, g, static_cast<std::size_t>(w)); }
    const float* best(int64_t t, int32_t g) const { return row(t, g, g == 0 ? ONLY_LAST : g == 1 ? FIRST_FOUR : ALL); }

    // Sum of the group's squared differences. In double: a float cannot hold the square of a power over the noise floor
    // of digital silence.
    const double* squares(int64_t t, int32_t g) const;

  private:
    enum Best : std::size_t { ONLY_LAST, FIRST_FOUR, ALL, N_BEST };  // words that a group may have

    std::size_t slot(int64_t u) const { return static_cast<std::size_t>((u - grid_.first_row) % depth_); }
    int64_t group_row(int64_t t, int32_t g) const;
    const float* row(int64_t t, int32_t g, std::size_t kind) const;
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
//   edge           fraction of the frame that may hang over each end of the block, clamped to 0 … 0.5
//   z_min          threshold in sigma above the median score
//   max_out, out   room for the result
//   median_out, sigma_out   statistics of the scores, or null; unwritten when there is no place to search
// Returns the number of candidates, or -1 when memory is short.
int32_t ov_find_candidates(const ov_specmap& map, double t_min, double t_max, double search_hz, double edge,
                           double z_min, int32_t max_out, ov_cand* out, double* median_out, double* sigma_out);

// Energies of the chips of a frame, each summed coherently at a frequency that drifts linearly through f in the middle
// of the frame. A chip not wholly inside the baseband has energy -1. Returns the number of chips measured.
//
//   chip_len, start   samples
//   out               nchips floats
int32_t ov_chip_energies(const ov_baseband& bb, int32_t chip_len, int32_t nchips, int32_t start, double f, double drift,
                         float* out);

// The same in the map's layout, summed over its spread. out has room for OV_MAX_CHIPS.
int32_t ov_chip_energies_sp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift,
                            float* out);

// Soft bit of each pair: second chip minus first in units of noise, times scale; 0 where one was not measured.
void energies_to_soft(const float* energy, int32_t pairs, double noise, double scale, float* soft);

// Noise power of the map column nearest to f.
double ov_noise_at(const ov_specmap& map, double f);

// Measures one hypothesis and replaces best if at least min_chips chips were measured and it scores strictly higher.
void try_hyp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift, int32_t min_chips,
             ov_hyp& best);

// Searches start, frequency and drift around a candidate for the best hypothesis.
//
//   drift_max   half-range of the drift, Hz/s; 0 or less = none
//   edge        fraction of the chips that may lie outside the baseband
// Returns 0, or -1 with out untouched when no hypothesis had enough chips inside or memory is short.
int ov_refine(const ov_baseband& bb, const ov_specmap& map, const ov_cand& cand, double drift_max, double edge,
              ov_hyp& out);

// Measures a hypothesis moved by a whole number of chips. Returns 0, or -1 when too few chips lie inside (out then
// holds what was measured).
int ov_fit_shift(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, int32_t shift, double edge,
                 ov_hyp& out);

// One measured hypothesis of ov_search_around: its place and the energies of its chips, of which n_in are measured.
struct ov_measured {
    int32_t start;
    double f;
    double drift;
    const float* energy;
    int32_t n_in;
};

// The grid of ov_refine around a start sample and frequency: coarse in start and frequency, then drift, then fine.
// judge(hypothesis) keeps one in best where it is better; where making a std::function of it could ask for memory, pass
// it by std::ref. Returns 0, or -1 when none of the coarse stage was, or memory is short.
int ov_search_around(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift_max,
                     ov_hyp& best, const std::function<void(const ov_measured&)>& judge);

// Chips of a frame that must lie inside the baseband when a fraction `edge` of them may lie outside.
int32_t ov_chips_needed(double edge, int32_t frame_chips);

// SNR in dB in 2500 Hz of a decoded frame, -99 when nothing could be measured. `on` has one byte for each chip of the
// frame, nonzero where the carrier is on. The result refers to key-down power.
//
// ov_estimate_snr compares ON chips with OFF chips. ov_estimate_snr_bb compares ON chips with the noise in the baseband
// more than 15 bins beside the carrier, and falls back to the first where that cannot be measured.
double ov_estimate_snr(const ov_hyp& hyp, const uint8_t* on, double chip_s);
double ov_estimate_snr_bb(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, const uint8_t* on,
                          double chip_s);
