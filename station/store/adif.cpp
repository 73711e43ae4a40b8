#include "store/adif.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "base/text.h"
#include "base/utc.h"
#include "liborvel.h"

namespace {

struct AmateurBand {
    std::string_view name;
    double low_hz, high_hz;
};
constexpr std::array BANDS = {
    AmateurBand{"2190m", 135700, 137800}, AmateurBand{"630m", 472000, 479000},  AmateurBand{"160m", 1.8e6, 2e6},
    AmateurBand{"80m", 3.5e6, 4e6},       AmateurBand{"60m", 5.06e6, 5.45e6},   AmateurBand{"40m", 7e6, 7.3e6},
    AmateurBand{"30m", 10.1e6, 10.15e6},  AmateurBand{"20m", 14e6, 14.35e6},    AmateurBand{"17m", 18.068e6, 18.168e6},
    AmateurBand{"15m", 21e6, 21.45e6},    AmateurBand{"12m", 24.89e6, 24.99e6}, AmateurBand{"10m", 28e6, 29.7e6},
    AmateurBand{"6m", 50e6, 54e6},        AmateurBand{"4m", 70e6, 71e6},        AmateurBand{"2m", 144e6, 148e6}};

// Lengths count octets.
std::string field(std::string_view name, const std::string& value) {
    if (value.empty()) return "";
    return format("<%.*s:%zu>", static_cast<int>(name.size()), name.data(), value.size()) + value;
}

// The digits of "2026-03-01T12:00:02Z".
std::string digits(double utc, std::size_t first, std::size_t count) {
    std::string text = utc_text(utc, 0);
    std::erase_if(text, [](char c) { return c < '0' || c > '9'; });
    return text.size() < first + count ? "" : text.substr(first, count);
}

}  // namespace

std::string amateur_band(double hz) {
    const auto band =
        std::ranges::find_if(BANDS, [&](const AmateurBand& one) { return hz >= one.low_hz && hz <= one.high_hz; });
    return band == BANDS.end() ? "" : std::string(band->name);
}

std::string adif_header() {
    const std::string version = ovl_version();
    return "Spots of beacons\n" + field("ADIF_VER", "3.1.4") + field("PROGRAMID", "orvel") +
           field("PROGRAMVERSION", version) + "<EOH>\n";
}

std::string adif_record(const StoredSpot& stored) {
    const Spot& spot = stored.spot;
    std::string record = field("CALL", spot.call) + field("QSO_DATE", digits(spot.start, 0, 8)) +
                         field("TIME_ON", digits(spot.start, 8, 6)) + field("TIME_OFF", digits(spot.end, 8, 6)) +
                         field("MODE", "OPERA") + field("APP_ORVEL_PROTOCOL", ovl_proto_name(spot.protocol));
    if (spot.rf_hz) {
        record += field("FREQ", format("%.6f", *spot.rf_hz / 1e6));
        record += field("BAND", amateur_band(*spot.rf_hz));
    }
    record += field("GRIDSQUARE", spot.locator);
    if (spot.snr_db) record += field("APP_ORVEL_SNR", format("%.1f", *spot.snr_db));
    record += field("APP_ORVEL_DRIFT", format("%.4f", spot.drift_hz_s)) + field("APP_ORVEL_RX", spot.receiver);
    return record + field("SWL", "Y") + "<EOR>\n";
}
