// Chip energies of a frame at many neighbouring starts, frequencies and drifts at once, for refining a hypothesis.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "ovbb.h"

// The starts first, first + step, …; together they span at most a chip.
struct StartGrid {
    int32_t first;  // sample
    int32_t count;  // at most 16
    int32_t step;   // samples

    int32_t at(int32_t index) const { return first + index * step; }
};

// Keeps its memory from one measurement to the next. The baseband must outlive it. One thread at a time.
class ChipMeter {
  public:
    // For frames of nchips chips of chip_len samples.
    ChipMeter(const ov_baseband& bb, int32_t chip_len, int32_t nchips);

    // Measures frames at all the starts and frequencies (Hz, in the middle of the frame) with one drift (Hz/s). Throws
    // std::bad_alloc when memory is short.
    void measure(const StartGrid& starts, std::span<const double> freqs, double drift);

    // Of the last measurement: the nchips energies of a frame, −1 where a chip does not lie wholly inside the baseband,
    // and how many do.
    const float* energies(int32_t start_index, std::size_t freq_index) const;
    int32_t measured(int32_t start_index) const { return measured_[static_cast<std::size_t>(start_index)]; }

  private:
    void make_phasors(std::span<const double> freqs, std::size_t reach);
    void load_chip(int64_t first, double turn);

    const ov_baseband& bb_;
    int32_t chip_len_;
    int32_t nchips_;
    std::size_t width_ = 0;  // samples that the starts' windows of a chip span
    std::size_t n_starts_ = 0;
    std::vector<double> phasor_re_, phasor_im_;  // width_ for each frequency
    std::vector<double> edge_re_, edge_im_;      // the same at the ends of the span, frequencies side by side
    std::vector<double> common_;                 // sums of one chip
    std::vector<double> re_, im_;                // of the span, drift removed
    std::vector<double> turn_re_, turn_im_;      // phasors that remove the drift
    std::vector<float> energies_;
    std::vector<int32_t> measured_;
};

// Frequencies f + i·step_hz for −n_freqs ≤ i ≤ n_freqs, each with the drifts j·unit for 1 ≤ |j| ≤ n_drifts.
struct DriftGrid {
    double f, step_hz;  // Hz, in the middle of the frame
    int32_t n_freqs;
    double unit;  // Hz/s
    int32_t n_drifts;
};

// Energies of the chips of a frame at one start, with many drifts. Keeps its memory from one measurement to the next.
// The baseband must outlive it. One thread at a time.
class DriftMeter {
  public:
    // For frames of nchips chips of chip_len samples. Throws std::bad_alloc when memory is short.
    DriftMeter(const ov_baseband& bb, int32_t chip_len, int32_t nchips);

    // False when the grid reaches too far from f to be measured together. Throws std::bad_alloc when memory is short.
    bool measure(int32_t start, const DriftGrid& grid);

    // Of the last measurement, with i and j as in DriftGrid: the nchips energies of a frame, −1 where a chip does not
    // lie wholly inside the baseband, and how many do.
    const float* energies(int32_t i, int32_t j) const;
    int32_t measured() const { return measured_; }

  private:
    void load_chip(int64_t first);

    const ov_baseband& bb_;
    int32_t chip_len_;
    int32_t nchips_;
    DriftGrid grid_{};
    std::vector<double> powers_;                 // of each sample's distance from the middle of the window
    std::vector<double> phasor_re_, phasor_im_;  // of f
    std::vector<double> re_, im_;                // samples of a chip, mixed down by them
    std::vector<double> turns_;                  // θ of the hypotheses at one chip
    std::vector<float> plus_, minus_;            // energies of one chip
    std::vector<float> energies_;
    int32_t measured_ = 0;
};
