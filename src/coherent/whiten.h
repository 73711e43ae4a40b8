// Baseband with its noise made even, and what every sample of it is worth.
//
// Over frequency the noise is divided out by its amplitude. Over time it is divided out by its power, which is the
// matched weighting: a chip in an impulse counts for as little as it knows. With noise power v around a sample the
// result has the noise power 1/v and a signal of amplitude A/v: `weight` holds 1/v, so that for every sample
//     ln (likelihood with a signal A·e^jφ / likelihood without) = 2·A·Re(e^−jφ·sample) − A²·weight.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ovbb.h"

namespace coherent {

struct Whitened {
    std::vector<std::complex<float>> samples;
    std::vector<float> weights;  // of the samples; 1 in the middle
    double rate;                 // Hz
    int32_t chip_len;            // samples in a chip, a multiple of 16
};

// Nothing for a block shorter than a few seconds, for silence and for a sample that is not finite. Nothing or
// std::bad_alloc when memory is short.
std::optional<Whitened> whiten(const ov_baseband& baseband, double chip_s);

}  // namespace coherent
