#include "base/parse.h"

#include <charconv>
#include <cmath>

std::optional<double> parse_finite(std::string_view text) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::vector<std::string> split_list(std::string_view text) {
    constexpr std::string_view SEPARATORS = ", ;\t\r\n\v\f";
    std::vector<std::string> parts;
    for (std::size_t begin = text.find_first_not_of(SEPARATORS); begin != std::string_view::npos;) {
        const std::size_t end = text.find_first_of(SEPARATORS, begin);
        parts.emplace_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(SEPARATORS, end);
    }
    return parts;
}

std::optional<Range> parse_range(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto low = parse_finite(text.substr(0, colon));
    const auto high = parse_finite(text.substr(colon + 1));
    if (!low || !high || !(*low < *high)) return std::nullopt;
    return Range{*low, *high};
}
