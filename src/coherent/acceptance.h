// Whether a frame that was read was sent.
//
// The checksum is used up by decoding: in noise, too, some word fits best. What is left to tell them apart is how well.
#pragma once

#include <optional>

#include "coherent/frames.h"

namespace coherent {

// Log odds (natural) that a frame was sent as it was read; nothing when it is not to be believed.
std::optional<double> accepted_odds(const Frame& frame);

// The same of a frame of find_known(), one of so many known ones.
std::optional<double> accepted_known_odds(const Frame& frame, std::size_t known);

}  // namespace coherent
