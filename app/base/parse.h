// Values that a user types.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The number that the whole text stands for, if it is one and finite.
std::optional<double> parse_finite(std::string_view text);

// The parts of a list between commas, semicolons and blanks; empty parts are dropped.
std::vector<std::string> split_list(std::string_view text);

// Two numbers.
struct Range {
    double low, high;
};

// "LO:HI" with LO below HI.
std::optional<Range> parse_range(std::string_view text);
