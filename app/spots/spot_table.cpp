#include "spots/spot_table.h"

#include "base/text.h"
#include "liborvel.h"

namespace {

std::string row(const std::string& time, const char* freq, const char* drift, const char* snr, const char* protocol,
                const char* call, const char* locator, const char* method) {
    std::string line = format("%s  %12s  %10s  %6s  %-8s  %-8s  %-7s  %s", time.c_str(), freq, drift, snr, protocol,
                              call, locator, method);
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string spot_header(const std::string& time, bool with_method) {
    return row(time, "frequency Hz", "drift Hz/s", "SNR dB", "protocol", "callsign", "locator",
               with_method ? "method" : "");
}

std::string spot_row(const std::string& time, const Spot& spot) {
    return row(time, cell(spot.freq_hz, 2).c_str(), cell(spot.drift_hz_s, 3, true).c_str(),
               (spot.snr_db ? cell(*spot.snr_db, 1, true) : "-").c_str(), ovl_proto_name(spot.protocol),
               spot.call.c_str(), spot.locator.empty() ? "-" : spot.locator.c_str(),
               spot.finding ? method_name(spot.finding->method) : "");
}
