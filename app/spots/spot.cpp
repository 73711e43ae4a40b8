#include "spots/spot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <utility>

#include "base/console.h"
#include "base/json.h"
#include "base/text.h"
#include "base/utc.h"
#include "protocol.h"
#include "system/files.h"

namespace {

constexpr int UTC_DECIMALS = 2;
constexpr std::array METHODS = {"standard", "deep", "coherent", "coherent-known"};  // by OVL_ method

constexpr std::array STANDINGS = {"provisional", "confirmed", "withdrawn"};  // by Standing

using Json = nlohmann::ordered_json;

// Takes a field of an object; false when it is missing or of the wrong kind.
bool take(const Json& object, const char* name, std::string& value) {
    const auto field = object.find(name);
    if (field == object.end() || !field->is_string()) return false;
    value = field->get<std::string>();
    return true;
}

// An infinity or NaN is written as null.
bool take(const Json& object, const char* name, double& value) {
    const auto field = object.find(name);
    if (field == object.end() || !(field->is_number() || field->is_null())) return false;
    value = field->is_null() ? NAN : field->get<double>();
    return true;
}

bool take(const Json& object, const char* name, bool& value) {
    const auto field = object.find(name);
    if (field == object.end() || !field->is_boolean()) return false;
    value = field->get<bool>();
    return true;
}

bool take_utc(const Json& object, const char* name, double& value) {
    std::string text;
    if (!take(object, name, text) || text.find('T') == std::string::npos) return false;
    const auto utc = parse_utc(text, 0);
    value = utc.value_or(0);
    return utc.has_value();
}

bool take_times(const Json& object, Spot& spot) {
    if (!object.contains("file")) {
        return take_utc(object, "utc_start", spot.start) && take_utc(object, "utc_end", spot.end);
    }
    double utc = 0;
    const bool dated = object.contains("utc_start");
    if (dated && !take_utc(object, "utc_start", utc)) return false;
    if (!take(object, "file", spot.file) || !take(object, "t_start", spot.start) || !take(object, "t_end", spot.end)) {
        return false;
    }
    if (dated) spot.file_utc = utc - spot.start;
    return true;
}

bool take_protocol(const Json& object, Spot& spot) {
    std::string name;
    if (!take(object, "protocol", name)) return false;
    const ov_protocol* const protocol = ov_protocol_by_name(name);
    if (protocol != nullptr) spot.protocol = static_cast<uint32_t>(protocol->id);
    return protocol != nullptr;
}

bool take_rf(const Json& object, Spot& spot) {
    if (!object.contains("rf_hz")) return true;
    double rf_hz = NAN;
    if (!take(object, "rf_hz", rf_hz)) return false;
    if (!std::isnan(rf_hz)) spot.rf_hz = rf_hz;
    return true;
}

bool take_finding(const Json& object, Spot& spot) {
    if (!object.contains("method") && !object.contains("odds")) return true;
    std::string name;
    ovl_finding finding{};
    if (!take(object, "method", name) || !take(object, "odds", finding.odds)) return false;
    const auto method = std::find(METHODS.begin(), METHODS.end(), name);
    finding.method = static_cast<int32_t>(method - METHODS.begin());
    spot.finding = finding;
    return method != METHODS.end();
}

bool take_receiver(const Json& object, Spot& spot) {
    return !object.contains("receiver") || take(object, "receiver", spot.receiver);
}

bool take_standing(const Json& object, Spot& spot) {
    if (!object.contains("standing")) return true;
    std::string name;
    if (!take(object, "standing", name)) return false;
    const auto standing = std::find(STANDINGS.begin(), STANDINGS.end(), name);
    spot.standing = static_cast<Standing>(standing - STANDINGS.begin());
    return standing != STANDINGS.end();
}

// The URL of a file, whose name may be any bytes.
std::string file_url(const std::string& path) {
    constexpr std::string_view PLAIN = "/-._~";
    std::string url = "file://";
    for (const char c : text_of(std::filesystem::absolute(native_path(path)))) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           PLAIN.find(c) != std::string_view::npos;
        url += plain ? std::string(1, c) : format("%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
    }
    return url;
}

// The fields of a spot in the order in which they are written.
Json fields_of(const Spot& spot, const SpotColumns& columns = {}) {
    Json object;
    const bool recorded = !spot.file.empty();
    if (recorded) {
        object["file"] = spot.file;
        if (!is_utf8(spot.file)) object["file_url"] = file_url(spot.file);
    }
    if (!recorded || spot.file_utc) {
        const double begin = spot.file_utc.value_or(0);
        object["utc_start"] = utc_text(begin + spot.start, UTC_DECIMALS);
        object["utc_end"] = utc_text(begin + spot.end, UTC_DECIMALS);
    } else if (columns.utc) {
        object["utc_start"] = Json();
        object["utc_end"] = Json();
    }
    if (recorded) {
        object["t_start"] = spot.start;
        object["t_end"] = spot.end;
    }
    object["freq_hz"] = spot.freq_hz;
    if (spot.rf_hz || columns.rf) object["rf_hz"] = spot.rf_hz ? Json(*spot.rf_hz) : Json();
    object["drift_hz_s"] = spot.drift_hz_s;
    object["snr_db"] = spot.snr_db ? Json(*spot.snr_db) : Json();
    object["protocol"] = ovl_proto_name(spot.protocol);
    object["call"] = spot.call;
    object["locator"] = spot.locator;
    object["deep"] = spot.deep;
    if (spot.finding) {
        object["method"] = method_name(spot.finding->method);
        object["odds"] = spot.finding->odds;
    }
    if (!spot.receiver.empty()) object["receiver"] = spot.receiver;
    if (spot.standing) object["standing"] = standing_name(*spot.standing);
    return object;
}

// The fields as values of columns, which are the same for all files.
Json columns_of(const Spot& spot, const SpotColumns& columns) {
    Json fields = rounded(fields_of(spot, columns));
    if (fields.erase("file_url") != 0) fields["file"] = file_url(spot.file);
    return fields;
}

std::string csv_cell(const Json& value) {
    if (value.is_number_float() && !std::isfinite(value.get<double>())) return "";
    if (!value.is_string()) return value.is_null() ? "" : json_text(value);
    std::string text = printable(value.get<std::string>());
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted += c;
        quoted += c;
    }
    return quoted + '"';
}

}  // namespace

Spot spot_of(const ov_spot& found, std::string file) {
    Spot spot{};
    spot.file = std::move(file);
    spot.start = found.t;
    spot.end = spot_end(found);
    spot.freq_hz = found.freq;
    spot.drift_hz_s = found.drift;
    if (std::isfinite(found.snr) && found.snr > OV_NO_SNR) spot.snr_db = found.snr;
    spot.protocol = static_cast<uint32_t>(found.protocol);
    spot.call = found.call;
    spot.locator = found.locator;
    spot.deep = found.deep == OVL_DEEP || found.deep == OVL_COHERENT_KNOWN;
    return spot;
}

double spot_end(const ov_spot& found) {
    return found.t + ovl_chip_seconds() * ovl_frame_chips(static_cast<uint32_t>(found.protocol));
}

const char* method_name(int32_t method) {
    return METHODS.at(static_cast<std::size_t>(method));
}

const char* standing_name(Standing standing) {
    return STANDINGS.at(static_cast<std::size_t>(standing));
}

std::string spot_line(const Spot& spot) {
    return json_line(fields_of(spot));
}

std::string typed_spot_line(const Spot& spot) {
    return R"({"type":"spot",)" + spot_line(spot).substr(1);
}

std::string spot_csv(const Spot& spot, const SpotColumns& columns) {
    std::string line;
    for (const auto& value : columns_of(spot, columns)) line += csv_cell(value) + ',';
    line.back() = '\n';
    return line;
}

std::string spot_csv_names(const Spot& spot, const SpotColumns& columns) {
    const Json fields = columns_of(spot, columns);
    std::string line;
    for (const auto& [name, value] : fields.items()) line += name + ',';
    line.back() = '\n';
    return line;
}

std::optional<Spot> parse_spot_line(std::string_view line) {
    const Json object = parse_json(line);
    if (!object.is_object()) return std::nullopt;
    Spot spot{};
    double snr_db = NAN;
    const bool complete = take_times(object, spot) && take(object, "freq_hz", spot.freq_hz) && take_rf(object, spot) &&
                          take(object, "drift_hz_s", spot.drift_hz_s) && take(object, "snr_db", snr_db) &&
                          take_protocol(object, spot) && take(object, "call", spot.call) &&
                          take(object, "locator", spot.locator) && take(object, "deep", spot.deep) &&
                          take_finding(object, spot) && take_receiver(object, spot) && take_standing(object, spot);
    if (!complete) return std::nullopt;
    if (!std::isnan(snr_db)) spot.snr_db = snr_db;
    return spot;
}
