#include "listening/status.h"

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
