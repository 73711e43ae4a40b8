#include "simulation/stations.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "base/callsign.h"
#include "base/error.h"
#include "base/frame_text.h"
#include "base/json.h"
#include "base/parse.h"
#include "base/text.h"
#include "system/files.h"

namespace {

constexpr double MAX_START_S = 1e6;
constexpr double MAX_DRIFT_HZ_S = 1000;
constexpr double MAX_FREQ_HZ = 1e6;
constexpr double MAX_SNR_DB = 100;

[[noreturn]] void refuse(const std::string& what, const std::string& reason) {
    throw UsageError("'" + what + "': " + reason);
}

void check_range(const std::string& what, const char* name, double value, double low, double high) {
    if (value >= low && value <= high) return;
    refuse(what, format("%s is out of range (%g to %g)", name, low, high));
}

// Fills in the chips of a station whose fields are set; `what` names it in errors.
SimStation complete(const std::string& what, SimStation station) {
    check_range(what, "start", station.t_start, -MAX_START_S, MAX_START_S);
    check_range(what, "freq", station.freq_hz, -MAX_FREQ_HZ, MAX_FREQ_HZ);
    check_range(what, "drift", station.drift_hz_s, -MAX_DRIFT_HZ_S, MAX_DRIFT_HZ_S);
    check_range(what, "snr", station.snr_db, -MAX_SNR_DB, MAX_SNR_DB);
    check_range(what, "walk", station.walk_rad, 0, MAX_WALK_RAD);
    check_range(what, "spread", station.fading.spread_hz, 0, MAX_SPREAD_HZ);
    check_range(what, "delay", station.fading.delay_ms, 0, MAX_DELAY_MS);
    if (station.fading.spread_hz == 0 && station.fading.delay_ms > 0) refuse(what, "a delay needs a spread above 0");
    if (station.fading.spread_hz > 0 && station.fading.spread_hz < 1e-3) {
        refuse(what, "spread is out of range (0, or 0.001 to 50)");
    }
    if (const std::string problem = callsign_problem(station.call); !problem.empty()) refuse(what, problem);
    station.chips.resize(static_cast<std::size_t>(ovl_frame_chips(station.protocol)));
    if (ovl_encode(station.protocol, station.call.c_str(), station.locator.c_str(), station.chips.data(),
                   static_cast<int32_t>(station.chips.size())) < 0) {
        refuse(what, "'" + station.locator + "' is no locator of 4 or 6 characters");
    }
    warn_of_doubtful(station.call);
    return station;
}

Fading parse_fading(const std::string& what, const std::string& name) {
    const auto fading = find_fading(name);
    if (!fading) refuse(what, "fading is one of good, moderate, poor");
    return *fading;
}

void set_field(const std::string& what, std::string_view name, const std::string& value, SimStation& station) {
    if (name == "fading") {
        station.fading = parse_fading(what, value);
        return;
    }
    double* const field = name == "freq"     ? &station.freq_hz
                          : name == "snr"    ? &station.snr_db
                          : name == "start"  ? &station.t_start
                          : name == "drift"  ? &station.drift_hz_s
                          : name == "walk"   ? &station.walk_rad
                          : name == "spread" ? &station.fading.spread_hz
                          : name == "delay"  ? &station.fading.delay_ms
                                             : nullptr;
    if (field == nullptr) {
        refuse(what, "'" + std::string(name) + "' is not one of freq, snr, start, drift, walk, fading, spread, delay");
    }
    const auto number = parse_finite(value);
    if (!number) refuse(what, "expected a finite number after '" + std::string(name) + "='");
    *field = *number;
}

// ---- Files ----------------------------------------------------------------------------------------------------------

uint32_t protocol_of(const std::string& what, const std::string& name) {
    const ov_protocol* const protocol = ov_protocol_by_option(name);
    if (protocol == nullptr) refuse(what, "protocol '" + name + "' is not one of " + ov_protocol_options());
    return static_cast<uint32_t>(protocol->id);
}

SimStation station_of(const std::string& what, const nlohmann::json& object, double default_freq_hz) {
    if (!object.is_object()) refuse(what, "expected a JSON object");
    SimStation station;
    station.protocol = OVL_OPERA;
    station.freq_hz = default_freq_hz;
    for (const auto& [key, value] : object.items()) {
        const bool text = key == "call" || key == "protocol" || key == "locator" || key == "fading";
        if (text ? !value.is_string() : !value.is_number()) {
            refuse(what, "'" + key + (text ? "' is not a string" : "' is not a number"));
        }
        if (key == "call") {
            station.call = value.get<std::string>();
        } else if (key == "protocol") {
            station.protocol = protocol_of(what, value.get<std::string>());
        } else if (key == "locator") {
            station.locator = value.get<std::string>();
        } else if (key == "fading") {
            station.fading = parse_fading(what, value.get<std::string>());
        } else if (key == "t_start") {
            station.t_start = value.get<double>();
        } else if (key == "freq_hz") {
            station.freq_hz = value.get<double>();
        } else if (key == "drift_hz_s") {
            station.drift_hz_s = value.get<double>();
        } else if (key == "snr_db") {
            station.snr_db = value.get<double>();
        } else if (key == "walk_rad") {
            station.walk_rad = value.get<double>();
        } else if (key == "spread_hz") {
            station.fading.spread_hz = value.get<double>();
        } else if (key == "delay_ms") {
            station.fading.delay_ms = value.get<double>();
        } else {
            refuse(what, "unknown field '" + key + "'");
        }
    }
    if (station.call.empty()) refuse(what, "'call' is missing");
    if (station.protocol != OVL_ORVEL_L) station.locator.clear();
    return complete(what, std::move(station));
}

nlohmann::json parse_json(const std::string& what, const std::string& text) {
    auto value = nlohmann::json::parse(text, nullptr, false);
    if (value.is_discarded()) refuse(what, "it is not JSON");
    return value;
}

}  // namespace

SimStation parse_station(const std::string& text, double default_freq_hz) {
    // The step ends where the next NAME= begins: a locator after a comma is part of it.
    std::size_t end = text.find(',');
    const auto has_equals = [&](std::size_t comma) {
        const std::size_t equals = text.find('=', comma);
        return equals != std::string::npos && equals < text.find(',', comma + 1);
    };
    while (end != std::string::npos && !has_equals(end)) end = text.find(',', end + 1);

    const std::string frame_text = text.substr(0, end);
    const std::size_t equals = frame_text.find('=');
    if (equals == std::string::npos) refuse(frame_text, "a station is NAME=VALUE, followed by what differs");
    const ov_protocol* const protocol = ov_protocol_by_option(std::string_view(frame_text).substr(0, equals));
    if (protocol == nullptr) refuse(text, "a station sends one of " + ov_protocol_options());
    const FrameText frame = parse_frame(frame_text, *protocol, std::string_view(frame_text).substr(equals + 1));
    SimStation station;
    station.call = frame.call;
    station.protocol = static_cast<uint32_t>(protocol->id);
    station.locator = frame.locator;
    station.freq_hz = default_freq_hz;
    while (end != std::string::npos) {
        const std::size_t begin = end + 1;
        end = text.find(',', begin);
        const std::string item = text.substr(begin, end == std::string::npos ? end : end - begin);
        const std::size_t sign = item.find('=');
        if (sign == std::string::npos) refuse(text, "'" + item + "' is not NAME=VALUE");
        set_field(text, std::string_view(item).substr(0, sign), item.substr(sign + 1), station);
    }
    return complete(text, std::move(station));
}

std::vector<SimStation> read_stations(const std::string& path, double default_freq_hz) {
    std::ifstream file(native_path(path), std::ios::binary);
    std::string text;
    for (std::string line; std::getline(file, line);) text += line + '\n';
    if (!file.eof()) throw UsageError("--stations: cannot read '" + path + "'");

    std::vector<SimStation> stations;
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && text[first] == '[') {
        for (const auto& object : parse_json(path, text)) {
            stations.push_back(
                station_of(format("%s: station %zu", path.c_str(), stations.size() + 1), object, default_freq_hz));
        }
        return stations;
    }
    int32_t number = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        number++;
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        const std::string what = format("%s: line %d", path.c_str(), number);
        stations.push_back(station_of(what, parse_json(what, line), default_freq_hz));
    }
    return stations;
}

std::string truth_line(const SimStation& station) {
    nlohmann::ordered_json line;
    line["call"] = station.call;
    line["protocol"] = ovl_proto_name(station.protocol);
    line["locator"] = station.locator;
    line["t_start"] = station.t_start;
    line["freq_hz"] = station.freq_hz;
    line["drift_hz_s"] = station.drift_hz_s;
    line["snr_db"] = station.snr_db;
    if (station.walk_rad > 0) line["walk_rad"] = station.walk_rad;
    if (station.fading.spread_hz > 0) {
        line["spread_hz"] = station.fading.spread_hz;
        line["delay_ms"] = station.fading.delay_ms;
    }
    return json_line(line);
}
