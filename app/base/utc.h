// Times of day on the command line and in the output: UTC, as seconds since 1970-01-01.
#pragma once

#include <optional>
#include <string>

inline constexpr double DAY_S = 86400;

// The wall clock.
double utc_now();

// "2026-03-01T12:00:02.5Z", with `decimals` decimals (at most 6).
std::string utc_text(double utc, int decimals);

// The time that a text gives: "2026-03-01T12:00[:02[.5]][Z]", or "12:00[:02[.5]][Z]" for the next such time of day
// after now. Nothing when it is neither.
std::optional<double> parse_utc(const std::string& text, double now);

// The time that a file's name gives, as receivers write it: 20260301_120000, 2026-03-01T12:00:00Z, 260301_1200 and the
// like, date before time. Nothing when there is none.
std::optional<double> utc_in_name(const std::string& path);

// Seconds of a length like "90", "90s", "10m" or "1.5h". Nothing when it is not a length, is negative, or is 0 where
// that is not allowed.
std::optional<double> parse_duration(const std::string& text, bool zero_allowed = false);

// First of the times offset + k · period since midnight 1970-01-01 that is at `earliest` or later.
double next_slot(double earliest, double period, double offset);
