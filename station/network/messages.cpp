#include "network/messages.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/json.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t MOST_BYTES = 4096;  // of a message
constexpr std::size_t MOST_CALL = 16;
constexpr std::size_t MOST_NAME = 64;  // of a station or a receiver
constexpr double LONGEST_S = 3600;     // of a frame

bool is_printable(std::string_view text, std::size_t most) {
    return text.size() <= most && std::ranges::all_of(text, [](char c) { return c > ' ' && c < '\x7f'; });
}

bool is_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

// As stations write them: in small letters.
bool is_uuid(std::string_view text) {
    constexpr std::string_view FORM = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    return std::ranges::equal(text, FORM, [](char c, char form) { return form == 'x' ? is_hex(c) : c == form; });
}

bool is_locator(std::string_view text) {
    constexpr std::array PAIRS = {std::string_view("AR"), std::string_view("09"), std::string_view("AX")};
    if (text.empty()) return true;
    if (text.size() != 4 && text.size() != 6) return false;
    for (std::size_t at = 0; at < text.size(); at++) {
        const std::string_view range = PAIRS.at(at / 2);
        const char c = text[at] >= 'a' ? static_cast<char>(text[at] - 'a' + 'A') : text[at];
        if (c < range[0] || c > range[1]) return false;
    }
    return true;
}

std::string text_of(const Json& object, const char* name) {
    const auto field = object.find(name);
    return field != object.end() && field->is_string() ? field->get<std::string>() : "";
}

std::optional<int64_t> count_of(const Json& object, const char* name) {
    const auto field = object.find(name);
    if (field == object.end() || !field->is_number_integer()) return std::nullopt;
    const auto count = field->get<int64_t>();
    return count >= 0 ? std::optional(count) : std::nullopt;
}

bool is_sound(const StationSpot& message, double latest_utc) {
    const Spot& spot = message.spot;
    const auto is_finite = [](const std::optional<double>& value) { return std::isfinite(value.value_or(0)); };
    return is_uuid(message.id) && is_name(message.station) && is_locator(message.station_locator) &&
           !spot.call.empty() && is_printable(spot.call, MOST_CALL) && is_locator(spot.locator) &&
           is_printable(spot.receiver, MOST_NAME) && spot.file.empty() && spot.start >= EARLIEST_UTC &&
           spot.start <= latest_utc && spot.end >= spot.start && spot.end <= spot.start + LONGEST_S &&
           std::isfinite(spot.freq_hz) && std::isfinite(spot.drift_hz_s) && is_finite(spot.rf_hz) &&
           is_finite(spot.snr_db);
}

std::optional<Place> place_of(const Json& object) {
    const auto number = count_of(object, "number");
    const auto after = count_of(object, "after");
    Place place{text_of(object, "epoch"), number.value_or(0), after.value_or(0)};
    if (!number || !after || *after >= *number || !is_uuid(place.epoch)) return std::nullopt;
    return place;
}

}  // namespace

std::string placed_line(const std::string& spot_line, const Place& place, const std::string& station_locator) {
    Json object = Json::parse(spot_line);
    object["station_locator"] = station_locator;
    object["epoch"] = place.epoch;
    object["number"] = place.number;
    object["after"] = place.after;
    return json_line(object);
}

bool is_name(std::string_view text) {
    return !text.empty() && is_printable(text, MOST_NAME);
}

SpotMessage read_spot_message(std::string_view text, double latest_utc) {
    const Json object = Json::parse(text.substr(0, MOST_BYTES), nullptr, false);
    if (!object.is_object()) return {};
    SpotMessage message{std::nullopt, place_of(object)};
    if (const auto spot = parse_spot_line(text)) {
        StationSpot found{text_of(object, "id"), text_of(object, "station"), text_of(object, "station_locator"), *spot};
        if (is_sound(found, latest_utc)) message.spot = std::move(found);
    }
    return message;
}

std::string mark_line(const Mark& mark) {
    Json object;
    object["epoch"] = mark.epoch;
    object["number"] = mark.number;
    object["id"] = mark.id;
    object["again"] = mark.again;
    return object.dump();
}

std::optional<Mark> read_mark(std::string_view text) {
    const Json object = Json::parse(text.substr(0, MOST_BYTES), nullptr, false);
    if (!object.is_object()) return std::nullopt;
    const auto number = count_of(object, "number");
    const auto again = count_of(object, "again");
    if (!number || !again) return std::nullopt;
    Mark mark{text_of(object, "epoch"), *number, text_of(object, "id"), *again};
    if (!is_uuid(mark.epoch)) return std::nullopt;
    return mark;
}
