#include "spots/spectrum_row.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <span>

#include "base/json.h"
#include "base/utc.h"

namespace {

constexpr double STEP_DB = 0.6;
constexpr std::size_t MOST_POINTS = 65536;
constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(std::span<const uint8_t> bytes) {
    std::string text;
    text.reserve(4 * (bytes.size() + 2) / 3);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (std::size_t k = 0; k < 3; k++) group = group << 8 | (k < count ? bytes[at + k] : 0U);
        for (std::size_t k = 0; k < 4; k++) text += k <= count ? DIGITS[group >> (18 - 6 * k) & 63U] : '=';
    }
    return text;
}

// Nothing when a text is not what base64() writes.
std::optional<std::vector<uint8_t>> parse_base64(std::string_view text) {
    if (text.size() % 4 != 0 || text.size() / 4 * 3 > MOST_POINTS) return std::nullopt;
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    const std::size_t digits = std::min(text.find('='), text.size());
    if (text.size() - digits > 2 || text.substr(digits).find_first_not_of('=') != std::string_view::npos) {
        return std::nullopt;
    }
    uint32_t group = 0;
    for (std::size_t at = 0; at < digits; at++) {
        const std::size_t digit = DIGITS.find(text[at]);
        if (digit == std::string_view::npos) return std::nullopt;
        group = (group << 6 | static_cast<uint32_t>(digit)) & 0xffffffU;
        if (at % 4 != 0) bytes.push_back(static_cast<uint8_t>(group >> (6 - 2 * (at % 4)) & 0xffU));
    }
    return bytes;
}

}  // namespace

std::string spectrum_line(const SpectrumRow& row) {
    std::vector<uint8_t> bytes;
    bytes.reserve(row.levels_db.size());
    for (const double level_db : row.levels_db) {
        bytes.push_back(static_cast<uint8_t>(std::clamp(std::lround((level_db - LEAST_LEVEL_DB) / STEP_DB), 0L, 255L)));
    }
    nlohmann::ordered_json object;
    object["type"] = "spectrum";
    if (!row.receiver.empty()) object["receiver"] = row.receiver;
    object["utc"] = utc_text(row.utc, 2);
    object["low_hz"] = row.band.low;
    object["high_hz"] = row.band.high;
    object["zero_db"] = LEAST_LEVEL_DB;
    object["step_db"] = STEP_DB;
    object["levels"] = base64(bytes);
    return json_line(object);
}

std::optional<SpectrumRow> parse_spectrum_line(std::string_view line) {
    const auto object = parse_json(line);
    if (!object.is_object() || object.value("type", nlohmann::ordered_json()) != "spectrum") return std::nullopt;
    const auto number = [&](const char* name) {
        const auto field = object.find(name);
        return field != object.end() && field->is_number() ? field->get<double>() : NAN;
    };
    const auto text = [&](const char* name) {
        const auto field = object.find(name);
        return field != object.end() && field->is_string() ? field->get<std::string>() : "";
    };
    const auto utc = parse_utc(text("utc"), 0);
    const auto bytes = parse_base64(text("levels"));
    SpectrumRow row{text("receiver"), utc.value_or(0), {number("low_hz"), number("high_hz")}, {}};
    const double zero_db = number("zero_db");
    const double step_db = number("step_db");
    const bool sound = std::isfinite(row.band.low) && std::isfinite(row.band.high) && row.band.low < row.band.high &&
                       std::isfinite(zero_db) && std::isfinite(step_db) && utc && bytes && !bytes->empty();
    if (!sound) return std::nullopt;
    row.levels_db.reserve(bytes->size());
    for (const uint8_t byte : *bytes) row.levels_db.push_back(zero_db + step_db * byte);
    return row;
}
