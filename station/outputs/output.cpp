#include "outputs/output.h"

#include <algorithm>
#include <array>

#include "base/error.h"
#include "base/json.h"
#include "outputs/types.h"

namespace {

const std::array TYPES = {
    OutputType{{"file", FILE_KEYS}, make_file_output},
    OutputType{{"command", COMMAND_KEYS}, make_command_output},
    OutputType{{"mqtt", MQTT_KEYS}, make_mqtt_output},
    OutputType{{"udp", UDP_KEYS}, make_udp_output},
    OutputType{{"pskreporter", PSKREPORTER_KEYS}, make_pskreporter_output},
    OutputType{{"telnet", TELNET_KEYS}, make_telnet_output},
    OutputType{{"webhook", WEBHOOK_KEYS}, make_webhook_output},
};

}  // namespace

std::span<const OutputType> output_types() {
    return TYPES;
}

std::vector<OutputKind> output_kinds() {
    std::vector<OutputKind> kinds;
    kinds.reserve(TYPES.size());
    for (const OutputType& type : TYPES) kinds.push_back(type.kind);
    return kinds;
}

std::unique_ptr<Output> make_output(const OutputConfig& config, const Keeper& keeper) {
    const auto type = std::ranges::find(TYPES, config.type, [](const OutputType& one) { return one.kind.type; });
    if (type == TYPES.end()) throw UsageError("'" + config.type + "' is no type of output");
    return type->make(config.values, keeper);
}

bool is_wanted(const StoredSpot& stored, const Values& values) {
    return !stored.spot.deep || values.flag("doubtful");
}

std::string stored_line(const StoredSpot& stored, const Keeper& keeper) {
    nlohmann::ordered_json line;
    line["id"] = stored.id;
    line["station"] = keeper.callsign;
    line.update(parse_json(spot_line(stored.spot)));
    return json_line(line);
}
