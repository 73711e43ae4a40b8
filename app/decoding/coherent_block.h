// The coherent search of a block or of one band of it, after its standard decode.
#pragma once

#include <vector>

#include "decoding/decode_block.h"
#include "ovbb.h"

// Adds what is found to the spots of the standard decode, in order of time. Throws std::bad_alloc.
//
//   params     those of the standard decode
//   baseband   at 500 Hz or more
void add_coherent(const Block& block, const ov_params& params, std::vector<Found>& spots);
void add_coherent(const ov_baseband& baseband, const ov_params& params, std::vector<Found>& spots);
