// What a receiver's process prints: a line is a spot, a status or neither, and what it is can be written and read
// again.
#include <cmath>
#include <string>

#include "input.h"
#include "spots/spot.h"
#include "spots/status.h"

namespace {

// Lines have six decimals at most.
bool is_near(double a, double b) {
    return std::fabs(a - b) <= 1e-5 + 1e-9 * std::fabs(a);
}

void check_spot(const Spot& spot) {
    expect(std::isfinite(spot.start) && std::isfinite(spot.end) && std::isfinite(spot.freq_hz));
    const auto again = parse_spot_line(spot_line(spot));
    if (std::fabs(spot.start) > 1e11 || std::fabs(spot.end) > 1e11) return;  // no time of a clock
    expect(again && again->call == spot.call && again->receiver == spot.receiver && again->deep == spot.deep);
    expect(is_near(again->freq_hz, spot.freq_hz) && again->snr_db.has_value() == spot.snr_db.has_value());
}

void check_status(const Status& status) {
    const auto again = parse_status_line(status_line(status));
    expect(again && again->receiver == status.receiver && is_near(again->captured_s, status.captured_s));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string line = Input(data, size).rest();
    if (const auto spot = parse_spot_line(line)) check_spot(*spot);
    if (const auto status = parse_status_line(line)) check_status(*status);
    return 0;
}
