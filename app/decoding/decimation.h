// A narrow band of fast samples. The transform of a whole block gives all bins, of which a search needs one in a
// hundred; a filter that leaves one sample in many costs a tenth of that.
#pragma once

#include <complex>
#include <cstdint>

#include "decoding/decode_block.h"
#include "ovbb.h"
#include "ovfft.h"

// What to leave of a block: samples at rate/factor around a frequency.
struct Decimation {
    int64_t period;  // samples, < 2³¹, a multiple of factor: the block, then zeros up to here, where it begins again
    int64_t turns;   // of the frequency in a period: it comes to lie at 0 Hz
    int32_t factor;
    double half_hz;  // half of the band's width, less than half of the rate that is left
};

// Sample m stands for sample m·factor of the block; there are period/factor. Within the band they are those of the
// block, and what folds into it is damped, to 12 digits. Throws std::bad_alloc.
FftwArray<std::complex<double>> decimate(const Block& block, const Decimation& decimation);

// The largest factor that divides `length`, leaves a rate at which a band has room for the slopes of the filter, and is
// small beside the samples of a block; 1 where that gains nothing.
int32_t decimation_factor(int64_t length, int64_t samples, int32_t rate, double half_hz);

// The baseband of a block around a frequency, as ov_baseband_real() and ov_baseband_iq() give it, to 12 digits. Returns
// 0, or -1 as they do. Throws std::bad_alloc.
int baseband_around(const Block& block, double center_hz, int32_t out_rate, ov_baseband& out);
