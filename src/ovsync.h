// Synchronisation and measurement: where in a baseband are frames, and how strong is each of their chips?
//
//     baseband → score map → candidates → refined hypothesis → shifted fits → SNR
//
// The score map, made here, is a power spectrogram, one row per sixteenth of a chip and one column per frequency bin,
// normalised so that noise has mean 1 in every column. Candidates (ovcandidates.h) are peaks of the map's correlation
// with the frame structure; a hypothesis (ovhypothesis.h) is measured chip by chip on the baseband itself, and its SNR
// (ovsnr.h) when its chips are known. No state; any thread.
#pragma once

#include <cstdint>

#include "ovbb.h"
#include "ovcandidates.h"
#include "ovhypothesis.h"
#include "ovrecords.h"
#include "ovsnr.h"

// Median of n values (mean of the middle two for even n, 0 for none). scratch holds n floats.
float median_of(const float* values, int32_t n, float* scratch);

// Makes the score map of a baseband in OPERA's layout.
//
//   chip_s      chip length, s; must be a whole number of at least 4 samples
//   search_hz   half-width that will be searched, Hz; the map is a little wider
//   spread_hz   width over which energy is summed, Hz; 0 or less = off
// Returns 0, or -1 with the map zeroed when the chip does not fit, the block is shorter than a chip, no column is left
// or memory is short. Free the map with ov_spectrogram_free.
int ov_spectrogram(const ov_baseband& bb, double chip_s, double search_hz, double spread_hz, ov_specmap& out);
void ov_spectrogram_free(ov_specmap& map);

// Sets the frame layout: ncoded chip pairs (at most OV_MAX_PAIRS) after one leading chip.
void ov_spec_frame(ov_specmap& map, int32_t ncoded, int32_t pair_mode);
