#include "base/text.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>

std::string format(const char* pattern, ...) {
    std::va_list arguments;
    va_start(arguments, pattern);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, pattern, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

std::string cell(double value, int decimals, bool show_sign) {
    if (!std::isfinite(value)) return "-";
    if (std::abs(value) < 0.5 * std::pow(10.0, -decimals)) value = 0;
    return show_sign ? format("%+.*f", decimals, value) : format("%.*f", decimals, value);
}

std::string lower_case(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

std::string upper_case(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}
