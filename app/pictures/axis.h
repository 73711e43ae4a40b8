// Ticks at round numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct Tick {
    double value;
    std::string label;
};

// Ticks from low to high, at most `most` of them (at least 2), at multiples of 1, 2 or 5 times a power of ten.
std::vector<Tick> number_ticks(double low, double high, int32_t most);

// Ticks of a time axis in seconds from the start of a recording: plain seconds up to two minutes, then minutes and
// hours. With the UTC time of the start, in seconds since 1970-01-01, they fall on round times of day instead.
std::vector<Tick> time_ticks(double from_s, double to_s, int32_t most, std::optional<double> start_utc);

// What such an axis shows: "time, s" or the like.
std::string time_axis_name(double from_s, double to_s, std::optional<double> start_utc);
