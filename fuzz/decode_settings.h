// Rates, lengths and settings of a decode, drawn from the bytes of an input.
#pragma once

#include <cmath>

#include "input.h"
#include "liborvel.h"

// Enough for a whole frame at the lowest rates; more would only take longer.
inline constexpr int32_t MAX_SAMPLES = 12000;
inline constexpr double MAX_SEARCH_HZ = 64;

// A rate at which whole frames fit into a block, a usual one, or any.
inline int32_t draw_rate(Input& input) {
    constexpr std::array RATES = {250, 250, 250, 500, 250, 125, 1000, 4000, 8000, 12000, 44100, 192000};
    const auto choice = static_cast<std::size_t>(input.int32(0, RATES.size()));
    return choice < RATES.size() ? RATES[choice] : input.raw<int32_t>();
}

inline ovl_settings draw_settings(Input& input, int32_t rate) {
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.protocols = input.flag() ? input.raw<int32_t>() : 7;
    settings.center_hz = input.mostly(0, std::clamp(rate, 1, 8000) / 2.0);
    settings.search_hz = input.mostly(0, MAX_SEARCH_HZ);
    if (input.flag()) settings.spread_hz = input.mostly(0, 16);
    settings.deep_search = input.int32(0, 2) - 1;
    settings.known_only = input.int32(0, 7) == 7 ? 1 : 0;
    if (input.flag()) settings.end_min = input.mostly(-10, 60);
    if (input.flag()) settings.end_max = input.mostly(-1, 60);
    return settings;
}

// Whether a search is one that a fuzzer can wait for: narrow, or so wide that it is refused immediately.
inline bool is_quick(double search_hz, double spread_hz, int32_t n, int32_t rate) {
    constexpr double QUICK = 1 << 16;
    constexpr double REFUSED = 1 << 23;
    if (rate < 1) return true;
    const double width_hz = 2 * std::fmax(search_hz, 0.0) + std::fmax(spread_hz, 0.0) + 125;
    const double samples = width_hz * n / rate;
    const bool too_wide = width_hz > 2 * std::fmax(130e3, 2.0 * rate + 5e3);
    return !(samples > QUICK) || (too_wide && samples > REFUSED);
}
