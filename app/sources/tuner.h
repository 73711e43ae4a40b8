// How a receiver is asked to be set, in the address of a source.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

struct TunerSettings {
    std::optional<double> freq_hz;
    int32_t rate = 250000;          // Hz
    std::optional<double> gain_db;  // automatic otherwise
    int32_t ppm = 0;                // by which its clock is to be corrected
    int32_t direct = 0;             // 1 or 2: the input I or Q is sampled without a tuner
};

// "freq=HZ&rate=HZ&gain=DB|auto&ppm=N&direct=0|1|2", all optional, where an HZ may end in k, M or G. Throws UsageError,
// whose text begins with `where`.
TunerSettings parse_tuner(std::string_view where, std::string_view settings);
