// Takes a decoded frame out of a block, so that weaker ones beside it show.
#pragma once

#include <complex>
#include <cstdint>
#include <span>

#include "coherent/strip.h"

namespace coherent {

// Subtracts the frame with the amplitude and phase that it has around each of its chips, and with the edges that they
// have on average. Its start may be wrong by a quarter of a chip, its frequency and drift by as much as its phase,
// where that is steady from one ON chip to the next, can show.
//
//   samples    baseband
//   rate       Hz
//   chip_len   samples in a chip
//   chips      of the frame, 1 = ON
void take_out(std::span<std::complex<double>> samples, double rate, int32_t chip_len, const Hypothesis& frame,
              std::span<const uint8_t> chips);

}  // namespace coherent
