// A decoded frame as our programs pass it on: one JSON object per line, written and read here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "liborvel.h"
#include "ovpipe.h"
#include "spots/found.h"

// A spot. Of a recording the times are seconds from its first sample; of a receiver they are UTC, in seconds since
// 1970-01-01, and `file` is empty.
struct Spot {
    std::string file;                // the recording
    std::optional<double> file_utc;  // UTC from which its times count, where that is known: of its first sample, but
                                     // for gaps before the spot
    double start, end;
    double freq_hz, drift_hz_s;
    std::optional<double> rf_hz;   // on the air, where the receiver's tuning is known
    std::optional<double> snr_db;  // nothing where it could not be measured
    uint32_t protocol;             // OVL_ id
    std::string call;
    std::string locator;                 // "" where the frame carries none
    bool deep;                           // only a search for known callsigns found it
    std::optional<ovl_finding> finding;  // nothing unless the coherent search was asked for
    std::string receiver;                // that heard it; "" for the only one
    std::optional<Standing> standing;    // nothing where only confirmed spots are shown
};

// What the decoder found at a time that counts as in Spot, without its finding.
Spot spot_of(const ov_spot& found, std::string file = {});

// End of a frame whose start is in `found`, s.
double spot_end(const ov_spot& found);

// Name of an OVL_ method: "standard", "deep", "coherent" or "coherent-known".
const char* method_name(int32_t method);

// "provisional", "confirmed" or "withdrawn".
const char* standing_name(Standing standing);

// One JSON object and a line feed: "file", "t_start" and "t_end" of a recording's spot, "utc_start" and "utc_end" of a
// receiver's, all five where a recording's time is known; then "freq_hz", "rf_hz" where it is known, "drift_hz_s",
// "snr_db" (null where unknown), "protocol", "call", "locator", "deep". Of a finding there follow "method", as
// method_name() has it, and "odds" (null where not measured). Of a file whose name is not UTF-8 "file" shows what can
// be shown, and "file_url" leads to it. At the end, where there are such, "receiver" and "standing".
std::string spot_line(const Spot& spot);

// The same behind "type": "spot", among lines of other types.
std::string typed_spot_line(const Spot& spot);

// What may be unknown of a spot, and has columns nevertheless: all lines of a table have the same.
struct SpotColumns {
    bool utc = false, rf = false;
};

// The same fields as comma-separated values in a line, and the line of their names. What is unknown is empty; a file
// whose name is not UTF-8 is a URL.
std::string spot_csv(const Spot& spot, const SpotColumns& columns = {});
std::string spot_csv_names(const Spot& spot, const SpotColumns& columns = {});

// Reads a line of JSON. Other fields are ignored. Nothing when it is not such an object, or a field is missing or of
// the wrong kind: a line may come from anywhere. "rf_hz", "receiver" and "standing" may be missing, "method" and "odds"
// together.
std::optional<Spot> parse_spot_line(std::string_view line);
