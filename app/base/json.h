// JSON as our programs print it: one object per line.
#pragma once

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

// The numbers of an object with at most six decimals: what lies beyond is noise.
inline nlohmann::ordered_json rounded(nlohmann::ordered_json object) {
    for (auto& value : object) {
        if (value.is_number_float()) value = std::round(value.get<double>() * 1e6) / 1e6;
    }
    return object;
}

// A file name may be any bytes.
inline bool is_utf8(const std::string& text) {
    const nlohmann::json value(text);
    using Handler = nlohmann::json::error_handler_t;
    return value.dump(-1, ' ', false, Handler::replace) == value.dump(-1, ' ', false, Handler::ignore);
}

// Text that is not UTF-8 is shown with the replacement character.
inline std::string json_line(nlohmann::ordered_json object) {
    return rounded(std::move(object)).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
