// JSON as our programs print it: one object per line.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

// Text need not be UTF-8 (a file name may be any bytes): what is not becomes the replacement character.
inline std::string json_line(const nlohmann::ordered_json& object) {
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
