// Energies of the chips of a frame at many neighbouring starts and frequencies at once, as the refinement of a
// hypothesis asks for them.
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
    void make_phasors(std::span<const double> freqs);
    void load_chip(int64_t first, double turn);

    const ov_baseband& bb_;
    int32_t chip_len_;
    int32_t nchips_;
    std::size_t width_ = 0;  // samples that the starts' windows of a chip span
    std::size_t n_starts_ = 0;
    std::vector<double> phasor_re_, phasor_im_;  // width_ for each frequency
    std::vector<double> re_, im_;                // of the span, drift taken out
    std::vector<double> turn_re_, turn_im_;      // by which that is done
    std::vector<float> energies_;
    std::vector<int32_t> measured_;
};
