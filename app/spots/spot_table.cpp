#include "spots/spot_table.h"

#include "base/text.h"
#include "liborvel.h"

namespace {

struct Cells {
    std::string time, freq, rf, drift, snr, protocol, call, locator, method;
};

std::string row(const Cells& cells, bool with_rf) {
    std::string line = format("%s  %12s", cells.time.c_str(), cells.freq.c_str());
    if (with_rf) line += format("  %13s", cells.rf.c_str());
    line += format("  %10s  %6s  %-8s  %-8s  %-7s  %s", cells.drift.c_str(), cells.snr.c_str(), cells.protocol.c_str(),
                   cells.call.c_str(), cells.locator.c_str(), cells.method.c_str());
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string spot_header(const std::string& time, bool with_method, bool with_rf) {
    return row({time, "frequency Hz", "radio Hz", "drift Hz/s", "SNR dB", "protocol", "callsign", "locator",
                with_method ? "method" : ""},
               with_rf);
}

std::string spot_row(const std::string& time, const Spot& spot, bool with_rf) {
    return row({time, cell(spot.freq_hz, 2), spot.rf_hz ? cell(*spot.rf_hz, 2) : "-", cell(spot.drift_hz_s, 3, true),
                spot.snr_db ? cell(*spot.snr_db, 1, true) : "-", ovl_proto_name(spot.protocol), spot.call,
                spot.locator.empty() ? "-" : spot.locator, spot.finding ? method_name(spot.finding->method) : ""},
               with_rf);
}
