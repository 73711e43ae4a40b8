#include "pattern.h"

#include <regex>

namespace {

Match strings_of(const std::smatch& found) {
    return {found.begin(), found.end()};
}

}  // namespace

std::optional<Match> match_of(const std::string& text, const std::string& pattern) {
    std::smatch found;
    if (!std::regex_match(text, found, std::regex(pattern))) return std::nullopt;
    return strings_of(found);
}

std::optional<Match> first_match(const std::string& text, const std::string& pattern) {
    std::smatch found;
    if (!std::regex_search(text, found, std::regex(pattern))) return std::nullopt;
    return strings_of(found);
}

std::vector<Match> all_matches(const std::string& text, const std::string& pattern) {
    const std::regex compiled(pattern);
    std::vector<Match> matches;
    for (std::sregex_iterator found(text.begin(), text.end(), compiled), end; found != end; ++found) {
        matches.push_back(strings_of(*found));
    }
    return matches;
}

std::string replaced(const std::string& text, const std::string& pattern, const std::string& with) {
    return std::regex_replace(text, std::regex(pattern), with);
}
