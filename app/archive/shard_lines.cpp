#include "archive/shard_lines.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <utility>

#include "base/json.h"
#include "liborvel.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr double MOST_S = 1e9;  // times in a recording
constexpr double MOST_UTC = 1e11;
constexpr std::size_t MOST_COUNT = 1 << 30;

// ---- Numbers, exactly -----------------------------------------------------------------------------------------------

// JSON has no infinity and no NaN.
Json json_of(double value) {
    if (std::isfinite(value)) return value;
    if (std::isnan(value)) return nullptr;
    return value > 0 ? "inf" : "-inf";
}

Json json_of(const std::optional<double>& value) {
    return value ? Json(*value) : Json();
}

const Json* find(const Json& object, const char* name) {
    const auto field = object.find(name);
    return field == object.end() ? nullptr : &*field;
}

bool take(const Json& object, const char* name, double& value) {
    const Json* const field = find(object, name);
    if (field == nullptr) return false;
    constexpr double INFINITE = std::numeric_limits<double>::infinity();
    if (field->is_number()) value = field->get<double>();
    if (field->is_null()) value = std::numeric_limits<double>::quiet_NaN();
    if (field->is_string()) value = *field == "-inf" ? -INFINITE : INFINITE;
    return field->is_number() || field->is_null() || *field == "inf" || *field == "-inf";
}

bool take(const Json& object, const char* name, std::optional<double>& value, double most) {
    double number = 0;
    if (!take(object, name, number) || std::fabs(number) > most) return false;
    if (!std::isnan(number)) value = number;
    return true;
}

bool take(const Json& object, const char* name, int32_t& value) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_number_integer()) return false;
    const auto number = field->get<int64_t>();
    value = static_cast<int32_t>(number);
    return value == number;
}

bool take(const Json& object, const char* name, std::size_t& value) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_number_unsigned()) return false;
    value = field->get<std::size_t>();
    return value <= MOST_COUNT;
}

bool take(const Json& object, const char* name, bool& value) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_boolean()) return false;
    value = field->get<bool>();
    return true;
}

bool take(const Json& object, const char* name, std::string& value) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_string()) return false;
    value = field->get<std::string>();
    return true;
}

// Whether a field is "name": "value".
bool says(const Json& object, const char* name, std::string_view value) {
    std::string text;
    return take(object, name, text) && text == value;
}

// ---- Names of files, which may be any bytes -------------------------------------------------------------------------

void put_text(Json& object, const char* name, const std::string& text) {
    if (is_utf8(text)) {
        object[name] = text;
    } else {
        object[name] = std::vector<uint8_t>(text.begin(), text.end());
    }
}

bool take_text(const Json& object, const char* name, std::string& text) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_array()) return take(object, name, text);
    for (const Json& byte : *field) {
        if (!byte.is_number_unsigned() || byte.get<uint64_t>() > UINT8_MAX) return false;
        text += static_cast<char>(byte.get<uint8_t>());
    }
    return true;
}

// ---- A find ---------------------------------------------------------------------------------------------------------

template <class Value>
struct Member {
    const char* name;
    Value Found::*place;
};

constexpr std::array NUMBERS = {Member<double>{"t", &Found::t},       Member<double>{"freq", &Found::freq},
                                Member<double>{"snr", &Found::snr},   Member<double>{"drift", &Found::drift},
                                Member<double>{"z", &Found::z},       Member<double>{"score", &Found::score},
                                Member<double>{"gap", &Found::gap},   Member<double>{"contrast", &Found::contrast},
                                Member<double>{"odds", &Found::odds}, Member<double>{"off_excess", &Found::off_excess}};
constexpr std::array COUNTS = {Member<int32_t>{"rank", &Found::rank}, Member<int32_t>{"shift", &Found::shift},
                               Member<int32_t>{"chips_ok", &Found::chips_ok}, Member<int32_t>{"deep", &Found::deep},
                               Member<int32_t>{"protocol", &Found::protocol}};

Json json_of(const Found& found) {
    Json object;
    object["call"] = found.call;
    object["locator"] = found.locator;
    for (const auto& [name, place] : COUNTS) object[name] = found.*place;
    for (const auto& [name, place] : NUMBERS) object[name] = json_of(found.*place);
    return object;
}

bool take_chars(const Json& object, const char* name, std::span<char> out) {
    std::string text;
    if (!take(object, name, text) || text.size() >= out.size()) return false;
    std::ranges::fill(out, '\0');
    std::ranges::copy(text, out.begin());
    return true;
}

std::optional<Found> found_of(const Json& object) {
    Found found{};
    const auto taken = [&](const auto& member) { return take(object, member.name, found.*member.place); };
    const bool complete = object.is_object() && take_chars(object, "call", found.call) &&
                          take_chars(object, "locator", found.locator) && std::ranges::all_of(COUNTS, taken) &&
                          std::ranges::all_of(NUMBERS, taken);
    if (!complete || !(std::fabs(found.t) <= MOST_S) || !std::isfinite(found.freq)) return std::nullopt;
    const bool known = ovl_frame_chips(static_cast<uint32_t>(found.protocol)) > 0 && found.deep >= OVL_STANDARD &&
                       found.deep <= OVL_COHERENT_KNOWN;
    return known ? std::optional(found) : std::nullopt;
}

// ---- A take ---------------------------------------------------------------------------------------------------------

Json json_of(const Take& take) {
    Json object;
    object["begin_s"] = take.begin_s;
    object["utc"] = json_of(take.utc);
    object["dial_hz"] = take.tuning ? Json(take.tuning->dial_hz) : Json();
    object["lower"] = take.tuning && take.tuning->sideband == Sideband::LOWER;
    return object;
}

std::optional<Take> take_of(const Json& object) {
    Take result;
    std::optional<double> begin_s;
    std::optional<double> dial_hz;
    bool lower = false;
    const bool complete = object.is_object() && take(object, "begin_s", begin_s, MOST_S) && begin_s &&
                          take(object, "utc", result.utc, MOST_UTC) && take(object, "dial_hz", dial_hz, HUGE_VAL) &&
                          take(object, "lower", lower);
    if (!complete) return std::nullopt;
    result.begin_s = *begin_s;
    if (dial_hz) result.tuning = Tuning{*dial_hz, lower ? Sideband::LOWER : Sideband::UPPER};
    return result;
}

// Takes all items of an array; false when one is not what it should be.
template <class Item>
bool take_all(const Json& object, const char* name, std::optional<Item> (*item_of)(const Json&),
              std::vector<Item>& out) {
    const Json* const field = find(object, name);
    if (field == nullptr || !field->is_array()) return false;
    for (const Json& json : *field) {
        auto item = item_of(json);
        if (!item) return false;
        out.push_back(std::move(*item));
    }
    return true;
}

// ---- Lines ----------------------------------------------------------------------------------------------------------

Json json_of(const ShardHead& head) {
    Json object;
    object["type"] = "shard";
    object["version"] = ovl_version();
    object["shard"] = name_of(head.shard);
    object["list"] = head.list;
    object["recordings"] = head.recordings;
    return object;
}

Json json_of(const RecordingHead& head) {
    Json object;
    object["type"] = "recording";
    object["recording"] = head.recording;
    put_text(object, "file", head.file);
    put_text(object, "problem", head.problem);
    object["blocks"] = head.blocks;
    object["coherent"] = head.coherent;
    object["takes"] = Json::array();
    for (const Take& take : head.takes) object["takes"].push_back(json_of(take));
    return object;
}

Json json_of(const BlockFinds& finds) {
    Json object;
    object["type"] = "block";
    object["recording"] = finds.recording;
    object["block"] = finds.block;
    object["until_s"] = json_of(finds.decoded.until_s);
    put_text(object, "problem", finds.decoded.problem);
    object["decoded"] = finds.decoded.spots.has_value();
    object["spots"] = Json::array();
    if (finds.decoded.spots) {
        for (const Found& found : *finds.decoded.spots) object["spots"].push_back(json_of(found));
    }
    return object;
}

Json json_of(const ShardEnd&) {
    Json object;
    object["type"] = "end";
    return object;
}

std::optional<ShardLine> shard_head_of(const Json& object) {
    ShardHead head;
    std::string shard;
    const bool complete = says(object, "version", ovl_version()) && take(object, "shard", shard) &&
                          take(object, "list", head.list) && take(object, "recordings", head.recordings);
    const auto parsed = parse_shard(shard);
    if (!complete || !parsed) return std::nullopt;
    head.shard = *parsed;
    return head;
}

std::optional<ShardLine> recording_head_of(const Json& object) {
    RecordingHead head;
    const bool complete = take(object, "recording", head.recording) && take_text(object, "file", head.file) &&
                          take_text(object, "problem", head.problem) && take(object, "blocks", head.blocks) &&
                          take(object, "coherent", head.coherent) && take_all(object, "takes", take_of, head.takes);
    const bool decodable = head.blocks > 0 && !head.takes.empty();
    if (!complete || decodable == !head.problem.empty()) return std::nullopt;
    return head;
}

std::optional<ShardLine> block_of(const Json& object) {
    BlockFinds finds;
    bool decoded = false;
    std::vector<Found> spots;
    const bool complete = take(object, "recording", finds.recording) && take(object, "block", finds.block) &&
                          take(object, "until_s", finds.decoded.until_s) && !std::isnan(finds.decoded.until_s) &&
                          take_text(object, "problem", finds.decoded.problem) && take(object, "decoded", decoded) &&
                          take_all(object, "spots", found_of, spots);
    if (!complete) return std::nullopt;
    if (decoded) finds.decoded.spots = std::move(spots);
    return finds;
}

}  // namespace

std::string shard_line(const ShardLine& line) {
    return std::visit([](const auto& one) { return json_of(one); }, line).dump() + "\n";
}

std::optional<ShardLine> parse_shard_line(std::string_view text) {
    const Json object = Json::parse(text, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    if (says(object, "type", "shard")) return shard_head_of(object);
    if (says(object, "type", "recording")) return recording_head_of(object);
    if (says(object, "type", "block")) return block_of(object);
    if (says(object, "type", "end")) return ShardEnd{};
    return std::nullopt;
}
