// Frame hypotheses: measured chip by chip on the baseband, where start, frequency and drift are free.
//
//     candidate → grid of starts, frequencies and drifts → best hypothesis → the same shifted by whole chips
//
// No state; any thread.
#pragma once

#include <cstdint>
#include <functional>

#include "ovbb.h"
#include "ovrecords.h"

// Frequency in each window of a drifting frame whose frequency is f in its middle.
class DriftLine {
  public:
    DriftLine(double rate, int32_t start, int32_t nchips, int32_t chip_len, double f, double drift)
        : rate_(rate),
          middle_s_((start + static_cast<double>(nchips) * chip_len / 2.0) / rate),
          half_window_(chip_len / 2.0),
          f_(f),
          drift_(drift) {}

    // Hz, in the middle of the chip-long window that begins at that sample.
    double at(double window_start) const { return f_ + drift_ * ((window_start + half_window_) / rate_ - middle_s_); }

  private:
    double rate_, middle_s_, half_window_, f_, drift_;
};

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

// Measures a hypothesis shifted by a whole number of chips. Returns 0, or -1 when too few chips lie inside (out then
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
// judge(hypothesis) keeps one in best where it is better; where converting it to a std::function could allocate, pass
// it by std::ref. Returns 0, or -1 when the coarse stage kept none, or memory is short.
int ov_search_around(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift_max,
                     ov_hyp& best, const std::function<void(const ov_measured&)>& judge);

// Chips of a frame that must lie inside the baseband when a fraction `edge` of them may lie outside.
int32_t ov_chips_needed(double edge, int32_t frame_chips);
