// The bands of a block that are decoded one by one: each so narrow that the noise in it is that around its stations.
#pragma once

#include <optional>
#include <vector>

#include "decoding/decode_block.h"
#include "decoding/search.h"

inline constexpr double MOST_BAND_HZ = 400;  // each at most

// Whether a search covers so little that it is decoded at once: up to 250 Hz each side.
bool is_one_band(const Search& search);

// The bands of any other search:
//   one wider than that   neighbours that overlap a little, as far as the band of the samples goes
//   a wide search         what lies around the keyed frequencies, close neighbours in one band
// Nothing when the scan for those fails: the block is too short, the band has too few bins, or memory is short.
std::optional<std::vector<Band>> bands_of(const Block& block, const Search& search);
