// JSON as our programs read and print it: one object per line. The library's parser and printer, which take the
// compiler seconds, are used here alone.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

// The value of a text, discarded when that is not JSON.
nlohmann::ordered_json parse_json(std::string_view text);

// Text that is not UTF-8 is shown with the replacement character. Without an indent it is one line.
std::string json_text(const nlohmann::ordered_json& value, int indent = -1);

// The numbers of an object with at most six decimals: what lies beyond is noise.
nlohmann::ordered_json rounded(nlohmann::ordered_json object);

// A rounded object and the line's end.
std::string json_line(nlohmann::ordered_json object);

// A file name may be any bytes; those that are no UTF-8 become replacement characters.
bool is_utf8(const std::string& text);
std::string as_utf8(const std::string& text);
