// A row of a waterfall as our programs pass it on: one JSON object per line, written and read here.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/parse.h"

// What a line can say: from this level in steps.
inline constexpr double LEAST_LEVEL_DB = -140;

struct SpectrumRow {
    std::string receiver;  // "" for the only one
    double utc = 0;        // of its end
    Range band{};          // Hz
    std::vector<double> levels_db;
};

// One JSON object per line: "type": "spectrum", "receiver", "utc", "low_hz", "high_hz", and "levels": a byte a point in
// base64, from -140 dB of full scale in 1 Hz in steps of 0.6 dB, as "zero_db" and "step_db" say.
std::string spectrum_line(const SpectrumRow& row);

// Nothing when it is no such line: it may come from anywhere.
std::optional<SpectrumRow> parse_spectrum_line(std::string_view line);
