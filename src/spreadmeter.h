// Energies of chips summed over neighbouring map columns, for refining in spread mode: of many neighbouring hypotheses
// at once, or of one frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "chipmeter.h"
#include "ovbb.h"
#include "ovrecords.h"

// Energies of the windows of one chip at pairs of frequencies, f ± node, given as half their sum and half their
// difference. The baseband must outlive it. One thread at a time.
class PairMeter {
  public:
    PairMeter(const ov_baseband& bb, int32_t chip_len);

    // The pairs, a multiple of 8 of them, and the windows: n_starts of them, step samples apart, which together span at
    // most two chips. Throws std::bad_alloc when memory is short.
    void prepare(std::span<const double> node_hz, int32_t n_starts, int32_t step);

    // Measures the windows from sample `first` on; samples outside the baseband count as 0.
    void measure(int64_t first, double f);

    // Of the window at one start, a value for each pair.
    const double* half_sum(std::size_t start) const { return half_sum_.data() + start * pairs_; }
    const double* half_difference(std::size_t start) const { return half_difference_.data() + start * pairs_; }

  private:
    void load_chip(int64_t first, double f);

    const ov_baseband& bb_;
    std::size_t chip_len_;
    std::size_t pairs_ = 0, n_starts_ = 0, step_ = 0;
    std::vector<double> cos_, sin_;  // of each node's turn, a row for each sample before the middle of the span
    double turn_ = 0;                // rad per sample, of the last measurement
    std::vector<double> turn_re_, turn_im_;
    std::vector<double> re_, im_;  // samples of the span, mixed down by it
    std::vector<double> half_sum_, half_difference_;
};

// Frequencies f + i·step_hz for −n ≤ i ≤ n, in the middle of the frame, Hz.
struct FreqGrid {
    double f, step_hz;
    int32_t n;
};

// The counterpart of ChipMeter and DriftMeter with a spread; energies may differ in the last bit. Keeps its memory from
// one measurement to the next. The baseband must outlive it. One thread at a time.
class SpreadMeter {
  public:
    // For frames of the map's layout, summed over its spread.
    SpreadMeter(const ov_baseband& bb, const ov_specmap& map);

    // Measures frames at all the starts and frequencies, n ≥ 1, with one drift (Hz/s). Throws std::bad_alloc when
    // memory is short.
    void measure(const StartGrid& starts, const FreqGrid& freqs, double drift);

    // Measures one start with many drifts. False when the grid reaches too far from f to be measured together. Throws
    // std::bad_alloc when memory is short.
    bool measure_drifts(int32_t start, const DriftGrid& grid);

    // Of the last measurement, by start and frequency, i as in FreqGrid, or by frequency and drift, i and j as in
    // DriftGrid: the energies of a frame's chips, −1 where a chip does not lie wholly inside the baseband.
    const float* energies(int32_t start_index, int32_t i) const;
    const float* drift_energies(int32_t i, int32_t j) const;

    // How many chips do.
    int32_t measured(int32_t start_index) const { return measured_[static_cast<std::size_t>(start_index)]; }
    int32_t measured() const { return measured_.front(); }

  private:
    using Share = std::function<void(std::size_t degree, std::span<const double> sums, std::span<double> out)>;

    void set_weights(double reach_hz, std::span<const double> offsets_hz, std::size_t outputs, const Share& share);
    void set_series(double reach_hz, std::size_t terms);
    void set_offsets(std::size_t chip, double reach_hz);
    double from_middle_s(std::size_t chip) const;

    PairMeter pairs_;
    int32_t n_samples_;  // of the baseband
    double rate_;
    std::size_t chip_len_, nchips_;
    int32_t spread_;  // columns each side
    double bin_hz_;

    // An energy is a combination of energies at nodes.
    std::vector<double> node_hz_;
    std::size_t outputs_ = 0;         // combinations, a multiple of 8
    std::vector<double> even_, odd_;  // their weights, a row for each pair: of half its sum, of half its difference
    std::vector<double> combined_;    // the two parts of all combinations
    std::vector<double> offsets_;     // of the drifting hypotheses at one chip
    std::vector<float> plus_, minus_;
    std::vector<float> energies_;
    std::vector<int32_t> measured_;
    FreqGrid freqs_{};
    DriftGrid drifts_{};
};

// Measures single frames as ov_chip_energies_sp does, with the same result. The baseband must outlive it.
class SpreadFrameMeter {
  public:
    // Throws std::bad_alloc when memory is short.
    SpreadFrameMeter(const ov_baseband& bb, const ov_specmap& map);

    // out has room for the map's frame_chips. Returns the number of chips measured.
    int32_t measure(int32_t start, double f, double drift, float* out);

  private:
    PairMeter pairs_;
    int32_t n_samples_;
    double rate_;
    int32_t chip_len_, nchips_;
    std::size_t spread_;
};
