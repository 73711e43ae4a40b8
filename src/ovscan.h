// Frequency scan: where in a band is a carrier switched on and off at the chip rate?
//
//     samples → power of every chip-long window and bin → jump statistic of each bin → peaks above the median
//
// In units of a bin's noise, x_i is the power of one chip and j_i = |x_{i+1} − x_i| its jump to the next. The statistic
// is the highest mean jump of any run of chips; runs whose jumps hold less than 70 % of their power, as those of a
// steady carrier, do not count.
//
// No state; any thread.
#pragma once

#include <cstdint>

#include "liborvel.h"

// The runs of ov_scan: the jumps of an OPERA frame.
inline constexpr int32_t OV_FRAME_RUN = 238;

// What separates keying from a steady carrier with noise on it, and one keyed signal from the next.
inline constexpr double OV_KEYED_VARIANCE = 0.85;
inline constexpr double OV_KEYED_SEPARATION_HZ = 15;

// Scans n samples, I/Q when im is not null.
//
//   rate           sample rate, Hz
//   win_s          chip length, s
//   f_lo, f_hi     band, Hz; what lies past 0 Hz (real samples) or half the rate is left out
//   z_min          least distance of a hit from the median of all bins, sigma
//   min_sep_hz     least distance between hits; of closer ones the stronger stays
//   max_hits, hits room for the result, strongest first
//   nbins_out      bins in the band, or null
//   run_chips      chips in a run, at least 16
//   var_min        least variance of a run's powers, in units of their squared mean; 0 or less = no such test
//   verbose        nonzero: one line about the scan on standard error
// Returns the number of hits, or -1 when the window has fewer than 8 samples, the block fewer than 32 windows (four per
// chip), the band fewer than 5 bins, or memory is short.
int32_t ov_scan_w(const double* re, const double* im, int32_t n, int32_t rate, double win_s, double f_lo, double f_hi,
                  double z_min, double min_sep_hz, int32_t max_hits, ov_hit* hits, int32_t* nbins_out,
                  int32_t run_chips, double var_min, int32_t verbose);

// The same with runs of one OPERA frame and no test of the variance.
int32_t ov_scan(const double* re, const double* im, int32_t n, int32_t rate, double win_s, double f_lo, double f_hi,
                double z_min, double min_sep_hz, int32_t max_hits, ov_hit* hits, int32_t* nbins_out, int32_t verbose);
