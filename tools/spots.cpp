#include "spots.h"

#include <cmath>
#include <cstdint>

#include "console.h"
#include "liborvel.h"

namespace {

constexpr double UNKNOWN_SNR = -99;  // the pipeline's mark for an SNR that could not be measured

bool snr_known(const ov_spot& spot) {
    return std::isfinite(spot.snr) && spot.snr > UNKNOWN_SNR;
}

std::string row(const std::string& time, const char* freq, const char* drift, const char* snr, const char* protocol,
                const char* call, const char* locator) {
    std::string line =
        format("%s  %12s  %10s  %6s  %-8s  %-8s  %s", time.c_str(), freq, drift, snr, protocol, call, locator);
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string spot_header(const std::string& time) {
    return row(time, "frequency Hz", "drift Hz/s", "SNR dB", "protocol", "callsign", "locator");
}

std::string spot_row(const std::string& time, const ov_spot& spot) {
    return row(time, cell(spot.freq, 2).c_str(), cell(spot.drift, 3, true).c_str(),
               (snr_known(spot) ? cell(spot.snr, 1, true) : "-").c_str(),
               ovl_proto_name(static_cast<uint32_t>(spot.protocol)), spot.call,
               spot.locator[0] != '\0' ? spot.locator : "-");
}

// JSON has no infinities; nlohmann's library writes them, and NaN, as null.
void add_spot(nlohmann::ordered_json& object, const ov_spot& spot) {
    object["freq_hz"] = spot.freq;
    object["drift_hz_s"] = spot.drift;
    object["snr_db"] = snr_known(spot) ? nlohmann::ordered_json(spot.snr) : nlohmann::ordered_json();
    object["protocol"] = ovl_proto_name(static_cast<uint32_t>(spot.protocol));
    object["call"] = spot.call;
    object["locator"] = spot.locator;
    object["deep"] = spot.deep != 0;
}

double spot_end(const ov_spot& spot) {
    return spot.t + ovl_chip_seconds() * ovl_frame_chips(static_cast<uint32_t>(spot.protocol));
}

std::string cell(double value, int decimals, bool show_sign) {
    if (!std::isfinite(value)) return "-";
    if (std::abs(value) < 0.5 * std::pow(10.0, -decimals)) value = 0;
    return show_sign ? format("%+.*f", decimals, value) : format("%.*f", decimals, value);
}
