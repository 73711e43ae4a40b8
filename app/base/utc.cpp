#include "base/utc.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "platform.h"
#include "system/files.h"

namespace {

constexpr double MAX_DURATION_S = 1e9;

// Takes a number of exactly `digits` digits, at most `highest`, from the front of a text.
bool take_number(std::string_view& text, std::size_t digits, int highest, int& value) {
    if (text.size() < digits) return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + digits, value);
    if (error != std::errc() || end != text.data() + digits || text[0] == '-' || value > highest) return false;
    text.remove_prefix(digits);
    return true;
}

bool take(std::string_view& text, char c) {
    if (text.empty() || text[0] != c) return false;
    text.remove_prefix(1);
    return true;
}

// Seconds since midnight of "hh:mm[:ss[.fraction]]", which must be all of the text.
std::optional<double> parse_time_of_day(std::string_view text) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (!take_number(text, 2, 23, hour) || !take(text, ':') || !take_number(text, 2, 59, minute)) return std::nullopt;
    double fraction = 0;
    if (take(text, ':')) {
        if (!take_number(text, 2, 59, second)) return std::nullopt;
        if (text.size() > 1 && text[0] == '.') {
            const std::string_view digits = text.substr(1);
            if (digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
            std::from_chars(text.data(), text.data() + text.size(), fraction);
            text = {};
        }
    }
    if (!text.empty()) return std::nullopt;
    return 3600.0 * hour + 60.0 * minute + second + fraction;
}

// Midnight of "yyyy-mm-dd", taken from the front of a text.
std::optional<double> take_date(std::string_view& text) {
    int year = 0;
    int month = 0;
    int day = 0;
    if (!take_number(text, 4, 9999, year) || !take(text, '-') || !take_number(text, 2, 12, month) || !take(text, '-') ||
        !take_number(text, 2, 31, day)) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return std::nullopt;
    return DAY_S * static_cast<double>(std::chrono::sys_days(date).time_since_epoch().count());
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The digits of a date and a time, from the front of a text: two each after a year of two or four, with separators or
// none. The seconds may be missing; another digit may not follow.
std::optional<std::string> take_stamp(std::string_view& text, std::size_t year_digits) {
    std::string_view rest = text;
    std::string digits;
    const auto take_digits = [&](std::size_t count) {
        if (rest.size() < count || !std::ranges::all_of(rest.substr(0, count), is_digit)) return false;
        digits += rest.substr(0, count);
        rest.remove_prefix(count);
        return true;
    };
    const auto skip_one_of = [&](std::string_view separators) {
        const bool there = !rest.empty() && separators.find(rest[0]) != std::string_view::npos;
        const std::string_view separator = rest.substr(0, there ? 1 : 0);
        rest.remove_prefix(separator.size());
        return separator;
    };
    const auto skip = [&](std::string_view separator) {
        const bool there = rest.starts_with(separator);
        if (there) rest.remove_prefix(separator.size());
        return there;
    };
    const auto at_digit = [&] { return !rest.empty() && is_digit(rest[0]); };

    if (!take_digits(year_digits)) return std::nullopt;
    const std::string_view separator = skip_one_of("-.");
    if (!take_digits(2) || !skip(separator) || !take_digits(2)) return std::nullopt;
    skip_one_of("-_T ");
    if (!take_digits(2)) return std::nullopt;
    skip_one_of("-:.");
    if (!take_digits(2)) return std::nullopt;

    const std::string_view after_minute = rest;
    skip_one_of("-:.");
    if (!take_digits(2) || at_digit()) {
        rest = after_minute;
        digits.resize(year_digits + 8);
    }
    if (at_digit()) return std::nullopt;
    text = rest;
    return digits;
}

// "20260301120000" as a time; the seconds may be missing.
std::optional<double> utc_of_digits(const std::string& digits) {
    const char* const at = digits.c_str();
    return parse_utc(
        format("%.4s-%.2s-%.2sT%.2s:%.2s:%s", at, at + 4, at + 6, at + 8, at + 10, digits.size() > 12 ? at + 12 : "00"),
        0);
}

}  // namespace

double utc_now() {
    return platform_now();
}

std::string utc_text(double utc, int decimals) {
    const double unit = std::pow(10.0, decimals);
    const auto ticks = static_cast<int64_t>(std::llround(utc * unit));  // rounded once: 59.96 never becomes 60.0
    const auto a_second = static_cast<int64_t>(unit);
    const std::chrono::sys_seconds whole{std::chrono::seconds(ticks >= 0 ? ticks / a_second : 0)};
    const auto day = std::chrono::floor<std::chrono::days>(whole);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(whole - day);
    std::string text =
        format("%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
               static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
               static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
    if (decimals > 0) text += format(".%0*d", decimals, static_cast<int>(ticks >= 0 ? ticks % a_second : 0));
    return text + "Z";
}

std::optional<double> parse_utc(const std::string& text, double now) {
    std::string_view rest = text;
    if (rest.ends_with('Z')) rest.remove_suffix(1);
    if (rest.find('-') == std::string_view::npos) {
        const auto time = parse_time_of_day(rest);
        return time ? std::optional(next_slot(now, DAY_S, *time)) : std::nullopt;
    }
    const auto date = take_date(rest);
    if (!date || !take(rest, 'T')) return std::nullopt;
    const auto time = parse_time_of_day(rest);
    return time ? std::optional(*date + *time) : std::nullopt;
}

std::optional<double> utc_in_name(const std::string& path) {
    const std::string name = text_of(native_path(path).filename());
    std::string_view rest = name;
    while (!rest.empty()) {
        std::optional<std::string> digits;
        if (rest.starts_with("20")) digits = take_stamp(rest, 4);
        if (!digits && (digits = take_stamp(rest, 2))) digits->insert(0, "20");
        if (digits) {
            if (const auto utc = utc_of_digits(*digits)) return utc;
        }
        // The next may begin after what is no digit.
        while (!rest.empty() && is_digit(rest[0])) rest.remove_prefix(1);
        if (!rest.empty()) rest.remove_prefix(1);
    }
    return std::nullopt;
}

std::optional<double> parse_duration(const std::string& text, bool zero_allowed) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) return std::nullopt;
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    if (unit == "m") {
        value *= 60;
    } else if (unit == "h") {
        value *= 3600;
    } else if (!unit.empty() && unit != "s") {
        return std::nullopt;
    }
    const bool enough = zero_allowed ? value >= 0 : value > 0;
    return enough && value <= MAX_DURATION_S ? std::optional(value) : std::nullopt;
}

double next_slot(double earliest, double period, double offset) {
    return offset + period * std::ceil((earliest - offset) / period);
}
