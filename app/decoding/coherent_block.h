// The coherent search of one block, after its standard decode.
#pragma once

#include <vector>

#include "decoding/decode_block.h"
#include "decoding/search.h"

// Adds what is found to the spots of the standard decode, in order of time. In a wide band it looks around the
// frequencies at which something is keyed, as the standard decode does. Throws std::bad_alloc.
//
//   params   those of the standard decode
void add_coherent(const Block& block, const Search& search, const ov_params& params, std::vector<Found>& spots);
