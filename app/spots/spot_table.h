// Spots as rows of a table.
#pragma once

#include <string>

#include "spots/spot.h"

// The columns of a spot, or their names, after the first column: its time, already padded. The last one, how it was
// found, is there for spots with a finding; with_rf: one for the frequency on the air, where it is known.
std::string spot_row(const std::string& time, const Spot& spot, bool with_rf = false);
std::string spot_header(const std::string& time, bool with_method, bool with_rf = false);
