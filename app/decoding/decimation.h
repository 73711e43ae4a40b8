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
    int64_t period;  // samples; the block is followed by zeros up to here, where it begins again. A multiple of factor
    int64_t turns;   // of the frequency in a period: it comes to lie at 0 Hz
    int32_t factor;
    double half_hz;  // of the band, which is less than half of what is left
};

// Sample m stands for sample m·factor of the block; there are period/factor. Within the band they are those of the
// block, and what folds into it is damped, to 12 digits. Throws std::bad_alloc.
FftwArray<std::complex<double>> decimate(const Block& block, const Decimation& decimation);

// The largest factor that divides `length` and leaves a rate at which a band has room for the slopes of the filter; 1
// where that gains nothing.
int32_t decimation_factor(int64_t length, int32_t rate, double half_hz);

// The baseband of a block around a frequency, as ov_baseband_real() and ov_baseband_iq() give it, to 12 digits. Returns
// 0, or -1 as they do.
int baseband_around(const Block& block, double center_hz, int32_t out_rate, ov_baseband& out);
