// Signal-to-noise ratios where noise fills only a part of the baseband.
//
// A decode compares a station with the noise of the whole baseband around it. Where a part of that lies past the edge
// of a receiver's filter or of the recording's own band, the median noise is too low and the SNR too high by tens of
// decibels. Library hosts see to that by their search band; our programs measure such spots again.
//
// No state; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "ovbb.h"
#include "ovpipe.h"

// Which bins of a chip-long window hold noise, in FFTW's order: those whose floor over time is at most 9 dB below that
// of the filled part. Keyed signals do not hide it. All where the block is too short to tell. Throws std::bad_alloc.
std::vector<uint8_t> ov_filled_bins(const ov_baseband& bb, int32_t chip_len);

// Measures the SNR of spots again, over what is filled, unless nearly all of the baseband is; -99 where too little is.
// The spots are those of run() on this baseband. A spread search measures in another way and is left alone. Throws
// std::bad_alloc.
void ov_measure_within_passband(const ov_baseband& bb, const ov_params& params, std::span<ov_spot> spots);
