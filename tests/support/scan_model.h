// Plain model of the frequency scan: every transform by its definition, every run of chips summed afresh, every median
// by sorting. Slow, obviously right, only for tests.
#pragma once

#include <cstdint>
#include <vector>

#include "liborvel.h"

namespace scan_model {

struct Input {
    std::vector<double> re, im;  // im empty for real samples
    int32_t rate = 1000;
    double win_s = 0.128;
    double f_lo = 0, f_hi = 500;
    double z_min = 6, min_sep_hz = 0;
    int32_t max_hits = 1000;
    int32_t run_chips = 238;
    double var_min = 0;

    const double* imaginary() const { return im.empty() ? nullptr : im.data(); }
    int32_t n() const { return static_cast<int32_t>(re.size()); }
};

struct Result {
    bool fails = false;
    int64_t window = 0, windows = 0, first = 0, bins = 0;
    double bin_hz = 0, median = 0, sigma = 0;
    std::vector<float> statistic;
    std::vector<ov_hit> hits;
};

// The strongest hits that are min_sep_hz apart, strongest first.
std::vector<ov_hit> thinned(std::vector<ov_hit> hits, double min_sep_hz, int32_t max_hits);

Result expected_of(const Input& input);

}  // namespace scan_model
