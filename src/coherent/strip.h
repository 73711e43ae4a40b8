// The surroundings of one frame hypothesis, mixed down to its frequency and drift: chip sums at any start near it.
#pragma once

#include <complex>
#include <cstdint>
#include <span>
#include <vector>

#include "coherent/whiten.h"

namespace coherent {

// A chip's sum in units of the noise amplitude, and what it is worth: 1 in even noise, 0 outside the block.
struct ChipSum {
    std::complex<float> value;
    float weight;
};

// Where a frame is thought to be.
struct Hypothesis {
    double start_s;
    double f;  // Hz from the baseband's centre, in the middle of the frame
    double drift;
};

class Strip {
  public:
    // For frames of so many chips that begin at most `reach` chips away from the hypothesis.
    Strip(const Whitened& block, const Hypothesis& around, int32_t chips, int32_t reach);

    // The chips of a frame. Its frequency and drift may differ from the strip's by little: by some 0.3 Hz anywhere in
    // the frame.
    void measure(const Hypothesis& at, std::span<ChipSum> out) const;

    double chip_seconds() const { return chip_s_; }

  private:
    static constexpr int32_t STEPS = 16;  // sums in a chip; between them sums are interpolated

    Hypothesis around_;
    double chip_s_, first_s_;  // time of the first sum
    int32_t chips_;
    double scale_;
    std::vector<std::complex<double>> sums_;  // of all samples before
    std::vector<double> weights_;
};

}  // namespace coherent
