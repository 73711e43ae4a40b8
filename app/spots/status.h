// How a receiver is doing: one JSON object per line, written and read here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct Status {
    std::string receiver;  // "" for the only one
    double utc = 0;
    int32_t rate = 0;                       // Hz
    double level_db = 0, peak_db = 0;       // of full scale, since the status before
    std::optional<double> noise_db;         // of full scale in 1 Hz, where half of what is searched is less
    int64_t clipped = 0;                    // samples at full scale, since then
    double captured_s = 0, lost_s = 0;      // since the beginning
    std::optional<double> clock_error_ppm;  // above 0: samples come faster than their rate says
    double decode_s = 0;                    // that decodes took since the status before
    int64_t spots = 0;                      // since the beginning
};

// "type": "status" and the fields, with null for what is not known.
std::string status_line(const Status& status);

// Nothing when it is no such line. Numbers that are missing or null are unknown, or 0.
std::optional<Status> parse_status_line(std::string_view line);
