#include "web/lines.h"

#include <algorithm>
#include <cmath>

#include "base/utc.h"
#include "spots/spot.h"

namespace {

using Json = nlohmann::ordered_json;

Json or_null(const std::optional<double>& value) {
    return value ? Json(*value) : Json();
}

Json receiver_json(const ReceiverState& receiver) {
    Json one = {{"name", receiver.name}, {"state", receiver.state}};
    if (!receiver.status) return one;
    const Status& status = *receiver.status;
    one["utc"] = utc_text(status.utc, 2);
    one["rate"] = status.rate;
    one["level_db"] = status.level_db;
    one["peak_db"] = status.peak_db;
    one["noise_db"] = or_null(status.noise_db);
    one["clipped"] = status.clipped;
    one["captured_s"] = status.captured_s;
    one["lost_s"] = status.lost_s;
    one["clock_error_ppm"] = or_null(status.clock_error_ppm);
    one["decode_s"] = status.decode_s;
    one["spots"] = status.spots;
    return one;
}

}  // namespace

Json spot_json(const StoredSpot& stored) {
    Json one = {{"number", stored.number}, {"id", stored.id}, {"transmission", stored.transmission}};
    one.update(parse_json(spot_line(stored.spot)));
    return one;
}

Json receivers_json(const StationState& state) {
    Json all = Json::array();
    for (const ReceiverState& receiver : state.receivers) all.push_back(receiver_json(receiver));
    return all;
}

Json outputs_json(const StationState& state, int64_t last_number) {
    Json all = Json::array();
    for (const OutputState& output : state.outputs) {
        all.push_back({{"name", output.name},
                       {"type", output.type},
                       {"waiting", std::max<int64_t>(last_number - output.position, 0)},
                       {"problem", output.problem},
                       {"since", output.since > 0 ? Json(utc_text(output.since, 0)) : Json()}});
    }
    return all;
}
