// Regular expressions for tests, as ECMAScript has them. A thin face: <regex> takes the compiler longer than most
// tests, and so is included in one file.
#pragma once

#include <optional>
#include <string>
#include <vector>

// What a match holds: all of it, then its groups, empty where a group took no part.
using Match = std::vector<std::string>;

std::optional<Match> match_of(const std::string& text, const std::string& pattern);  // of all of the text
std::optional<Match> first_match(const std::string& text, const std::string& pattern);
std::vector<Match> all_matches(const std::string& text, const std::string& pattern);
std::string replaced(const std::string& text, const std::string& pattern, const std::string& with);
