// Signal-to-noise ratio of frames whose chips are known. No state; any thread.
#pragma once

#include <cstdint>
#include <span>

#include "ovbb.h"
#include "ovrecords.h"

inline constexpr double OV_NO_SNR = -99;  // dB, where it could not be measured

// SNR in dB in 2500 Hz of a decoded frame, -99 when nothing could be measured. `on` has one byte for each chip of the
// frame, nonzero where the carrier is on. The result refers to key-down power.
//
// ov_estimate_snr compares ON chips with OFF chips. ov_estimate_snr_bb compares ON chips with the noise in the baseband
// more than 15 bins from the carrier, and falls back to the first where that cannot be measured.
double ov_estimate_snr(const ov_hyp& hyp, const uint8_t* on, double chip_s);
double ov_estimate_snr_bb(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, const uint8_t* on,
                          double chip_s);

// The same where only a part of the baseband holds noise: `filled` has a byte for each bin of a chip-long window, in
// FFTW's order, nonzero where it does. -99 where too little of that lies beside the carrier. Throws std::bad_alloc.
double ov_estimate_snr_filled(const ov_baseband& bb, int32_t chip_len, const ov_hyp& hyp, const uint8_t* on,
                              double chip_s, std::span<const uint8_t> filled);
