// Spots as rows of a table.
#pragma once

#include <string>

#include "spots/spot.h"

// The columns of a spot, or their names, behind the first column: its time, set to the width that it needs.
std::string spot_row(const std::string& time, const Spot& spot);
std::string spot_header(const std::string& time);
