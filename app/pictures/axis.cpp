#include "pictures/axis.h"
#include "base/utc.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace {

constexpr double PLAIN_S = 120;  // longer times are shown in minutes or hours
constexpr double HOUR_S = 3600;
constexpr const char* MINUS = "\u2212";

// The multiples of a step from low to high.
std::vector<double> multiples(double low, double high, double step) {
    std::vector<double> values;
    constexpr double SLACK = 1e-9;
    const double first = std::ceil(low / step - SLACK);
    const double last = std::floor(high / step + SLACK);
    for (int32_t k = 0; k < 1000 && first + k <= last; k++) values.push_back((first + k) * step);
    return values;
}

// The smallest round step that gives at most `most` ticks.
double round_step(double low, double high, int32_t most) {
    const double least = (high - low) / std::max(most, 2);
    const double decade = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * decade >= least * (1 - 1e-9)) return factor * decade;
    }
    return 10 * decade;
}

std::string number_text(double value, int decimals) {
    if (std::abs(value) < 0.5 * std::pow(10.0, -decimals)) value = 0;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, std::fabs(value));
    return (value < 0 ? MINUS : "") + std::string(text.data());
}

// "1:02:03", "2:03", or "01:02" and "01:02:03" for times of day.
std::string clock_text(double seconds, bool hours, bool second_digits, bool of_day) {
    const auto whole = static_cast<int64_t>(std::llround(std::abs(seconds)));
    const auto hour = static_cast<int>(whole / 3600 % (of_day ? 24 : 1000000));
    const auto minute = static_cast<int>(whole / 60 % 60);
    const auto second = static_cast<int>(whole % 60);
    std::array<char, 64> text{};
    if (of_day && !second_digits) {
        std::snprintf(text.data(), text.size(), "%02d:%02d", hour, minute);
    } else if (of_day) {
        std::snprintf(text.data(), text.size(), "%02d:%02d:%02d", hour, minute, second);
    } else if (hours && !second_digits) {
        std::snprintf(text.data(), text.size(), "%d:%02d", hour, minute);
    } else if (hours) {
        std::snprintf(text.data(), text.size(), "%d:%02d:%02d", hour, minute, second);
    } else {
        std::snprintf(text.data(), text.size(), "%d:%02d", static_cast<int>(whole / 60), second);
    }
    return (seconds < 0 ? MINUS : "") + std::string(text.data());
}

double round_time_step(double from_s, double to_s, int32_t most) {
    const double least = (to_s - from_s) / std::max(most, 2);
    for (const double step : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0, 7200.0,
                              10800.0, 21600.0, 43200.0, 86400.0}) {
        if (step >= least) return step;
    }
    return DAY_S * std::ceil(least / DAY_S);
}

}  // namespace

std::vector<Tick> number_ticks(double low, double high, int32_t most) {
    if (!(low < high)) return {};
    const double step = round_step(low, high, most);
    const int decimals = std::clamp(static_cast<int>(-std::floor(std::log10(step) + 1e-9)), 0, 12);
    std::vector<Tick> ticks;
    for (const double value : multiples(low, high, step)) ticks.push_back({value, number_text(value, decimals)});
    return ticks;
}

std::vector<Tick> time_ticks(double from_s, double to_s, int32_t most, std::optional<double> start_utc) {
    if (!(from_s < to_s)) return {};
    const bool fractions = round_step(from_s, to_s, most) < 1;
    if (!start_utc && (to_s <= PLAIN_S || fractions)) return number_ticks(from_s, to_s, most);
    const double zero = start_utc ? std::fmod(*start_utc, DAY_S) : 0;  // of the day, s
    const double step = round_time_step(from_s, to_s, most);
    std::vector<Tick> ticks;
    for (const double value : multiples(zero + from_s, zero + to_s, step)) {
        ticks.push_back({value - zero, clock_text(value, to_s > HOUR_S, step < 60, start_utc.has_value())});
    }
    return ticks;
}

std::string time_axis_name(double from_s, double to_s, std::optional<double> start_utc) {
    if (start_utc) return "UTC";
    if (to_s <= PLAIN_S || to_s - from_s < 2) return "time, s";
    return to_s > HOUR_S ? "time, h:min" : "time, min:s";
}
