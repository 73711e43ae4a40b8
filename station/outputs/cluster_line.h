// A spot as clients of a cluster read it.
#pragma once

#include <string>

#include "spots/spot.h"

// Of a spot whose radio frequency is known: 75 columns, whose frequency ends at the 24th, unless the spotter is so long
// that it is pushed on.
std::string cluster_line(const Spot& spot, const std::string& spotter);
