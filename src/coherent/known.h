// Frames of known callsigns, further down than any word could be read: with the pattern known, the ON chips of eight
// pairs at a time are summed coherently at every likely place.
#pragma once

#include <span>
#include <vector>

#include "coherent/code.h"
#include "coherent/frames.h"
#include "coherent/search.h"

namespace coherent {

// A frame that a known station sends.
struct KnownWord {
    const AffineCode* code;
    Word word;
    Message message;
};

// The places where known frames fit best, measured with their patterns; whether to believe them is for acceptance.h.
// All words are of one length.
//
//   map   of segments of eight pairs
std::vector<Frame> find_known(const Whitened& block, const SegmentMap& map, const SearchRange& range,
                              std::span<const KnownWord> words);

}  // namespace coherent
