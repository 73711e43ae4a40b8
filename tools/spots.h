// Decoded frames as the command prints them: rows of a table, or JSON objects.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ovpipe.h"

// The columns of a spot, or their names, behind the first column: its time, set to the width that it needs.
std::string spot_row(const std::string& time, const ov_spot& spot);
std::string spot_header(const std::string& time);

// Adds a spot to an object that already tells when it was.
void add_spot(nlohmann::ordered_json& object, const ov_spot& spot);

// End of the frame, s.
double spot_end(const ov_spot& spot);

// A number for a table; "-" when it is none. A value that rounds to zero has no sign.
std::string cell(double value, int decimals, bool show_sign = false);
