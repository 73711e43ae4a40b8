#include "base/json.h"

#include <cmath>
#include <utility>

using Json = nlohmann::ordered_json;

Json parse_json(std::string_view text) {
    return Json::parse(text, nullptr, false);
}

std::string json_text(const Json& value, int indent) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json rounded(Json object) {
    for (auto& value : object) {
        if (value.is_number_float()) value = std::round(value.get<double>() * 1e6) / 1e6;
    }
    return object;
}

std::string json_line(Json object) {
    return json_text(rounded(std::move(object))) + "\n";
}

std::string as_utf8(const std::string& text) {
    return parse_json(json_text(text)).get<std::string>();
}

bool is_utf8(const std::string& text) {
    return as_utf8(text) == text;
}
