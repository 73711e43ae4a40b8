#include "spots/status.h"

#include <algorithm>
#include <cstdint>

#include "base/json.h"
#include "base/utc.h"

std::string status_line(const Status& status) {
    using Json = nlohmann::ordered_json;
    Json object;
    object["type"] = "status";
    if (!status.receiver.empty()) object["receiver"] = status.receiver;
    object["utc"] = utc_text(status.utc, 2);
    object["rate"] = status.rate;
    object["level_db"] = status.level_db;
    object["peak_db"] = status.peak_db;
    object["noise_db"] = status.noise_db ? Json(*status.noise_db) : Json();
    object["clipped"] = status.clipped;
    object["captured_s"] = status.captured_s;
    object["lost_s"] = status.lost_s;
    object["clock_error_ppm"] = status.clock_error_ppm ? Json(*status.clock_error_ppm) : Json();
    object["decode_s"] = status.decode_s;
    object["spots"] = status.spots;
    return json_line(object);
}

std::optional<Status> parse_status_line(std::string_view line) {
    const auto object = parse_json(line);
    if (!object.is_object() || object.value("type", nlohmann::ordered_json()) != "status") return std::nullopt;
    const auto number = [&](const char* name) -> std::optional<double> {
        const auto field = object.find(name);
        if (field == object.end() || !field->is_number()) return std::nullopt;
        return field->get<double>();
    };
    const auto count = [&](const char* name) {
        return static_cast<int64_t>(std::clamp(number(name).value_or(0), 0.0, 1e15));
    };
    const auto text = [&](const char* name) {
        const auto field = object.find(name);
        return field != object.end() && field->is_string() ? field->get<std::string>() : "";
    };
    const auto utc = parse_utc(text("utc"), 0);
    if (!utc) return std::nullopt;
    Status status;
    status.receiver = text("receiver");
    status.utc = *utc;
    status.rate = static_cast<int32_t>(std::min<int64_t>(count("rate"), INT32_MAX));
    status.level_db = number("level_db").value_or(0);
    status.peak_db = number("peak_db").value_or(0);
    status.noise_db = number("noise_db");
    status.clipped = count("clipped");
    status.captured_s = number("captured_s").value_or(0);
    status.lost_s = number("lost_s").value_or(0);
    status.clock_error_ppm = number("clock_error_ppm");
    status.decode_s = number("decode_s").value_or(0);
    status.spots = count("spots");
    return status;
}
