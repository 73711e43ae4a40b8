// Parsers of the command line on their own: steps, times, lengths, numbers, lists, bands and stations; and the files
// that it names, of stations and of callsigns.
#include <cmath>

#include "base/error.h"
#include "base/parse.h"
#include "base/utc.h"
#include "decoding/search.h"
#include "input.h"
#include "memory_file.h"
#include "options.h"
#include "simulation/stations.h"
#include "spots/spot.h"
#include "transmission/steps.h"

namespace {

constexpr double YEAR_10000 = 253402300800;  // UTC

void step(Input& input) {
    const std::string text = input.rest();
    ovl_tx_step step{};
    try {
        step = parse_step(text);
    } catch (const UsageError& error) {
        expect(error.what()[0] != '\0');
        return;
    }
    expect(step.kind >= OVL_TX_FRAME && step.kind <= OVL_TX_PAUSE && std::isfinite(step.seconds));
    expect(std::memchr(step.call, 0, sizeof step.call) != nullptr);
    expect(std::memchr(step.locator, 0, sizeof step.locator) != nullptr);
    if (step.kind == OVL_TX_FRAME) expect(ovl_frame_chips(static_cast<uint32_t>(step.protocol)) > 0);

    const TransmitterPtr tx = make_transmitter();
    Transmission transmission;
    transmission.steps = {text};
    try {
        start_transmitter(tx.get(), transmission);
        expect(total_seconds(tx.get()) >= 0.05);
    } catch (const UsageError& error) {
        expect(error.what()[0] != '\0');
    }
}

void time_of_text(Input& input) {
    const double now = input.number(0, 4e9);
    const std::string text = input.rest();
    const auto utc = parse_utc(text, now);
    if (!utc) return;
    expect(std::isfinite(*utc) && *utc < YEAR_10000 + 86400 && *utc > -62167219201.0);
    const bool dated = text.find('-') != std::string::npos;
    if (!dated) expect(*utc >= now - 1e-6 && *utc <= now + 86400 + 1e-6);
    if (*utc < 0 || *utc >= YEAR_10000 - 1) return;
    const auto again = parse_utc(utc_text(*utc, 6), 0);
    expect(again && std::fabs(*again - *utc) < 1e-4);
}

void text_of_time(Input& input) {
    const double utc = input.mostly(0, YEAR_10000 - 1);
    if (!(utc >= -1e9 && utc < YEAR_10000 - 1)) return;
    const int decimals = input.int32(0, 6);
    const std::string text = utc_text(utc, decimals);
    const auto again = parse_utc(text, 0);
    expect(again && (utc < 0 || std::fabs(*again - utc) <= 0.5 * std::pow(10.0, -decimals) + 1e-4));
}

void length(Input& input) {
    const bool zero_allowed = input.flag();
    const auto seconds = parse_duration(input.rest(), zero_allowed);
    if (!seconds) return;
    expect(*seconds >= 0 && *seconds <= 1e9 && (zero_allowed || *seconds > 0));
}

void slot(Input& input) {
    const double earliest = input.number(0, 4e9);
    const double period = input.number(1, 1e6);
    const double offset = input.number(0, 1e6);
    const double slot = next_slot(earliest, period, offset);
    expect(slot >= earliest - 1e-5 && slot < earliest + period + 1e-5);
}

void number(Input& input) {
    std::string text = input.rest();
    const auto value = parse_finite(text);
    expect(!value || std::isfinite(*value));
    expect(finite_number()(text).empty() == value.has_value());
}

void list(Input& input) {
    const std::string text = input.rest();
    std::string joined;
    const std::vector<std::string> parts = split_list(text);
    for (const std::string& part : parts) {
        expect(!part.empty());
        joined += part + ",";
    }
    expect(split_list(joined) == parts);
}

void range(Input& input) {
    const auto range = parse_range(input.rest());
    if (range) expect(std::isfinite(range->low) && std::isfinite(range->high) && range->low < range->high);
}

// A line that was understood is the same when it is written and read again.
void spot(Input& input) {
    const auto read = parse_spot_line(input.rest());
    if (!read || !(std::fabs(read->start) < 1e12) || !(std::fabs(read->end) < 1e12)) return;
    const std::string line = spot_line(*read);
    const auto again = parse_spot_line(line);
    expect(again && spot_line(*again) == line);
}

MemoryFile file_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A station that was understood can be sent, and is the same when its truth is read again.
void expect_sound(const SimStation& station) {
    expect(station.chips.size() == static_cast<std::size_t>(ovl_frame_chips(station.protocol)));
    expect(std::isfinite(station.length_s()) && station.length_s() > 0);
    expect(std::isfinite(station.t_start) && std::isfinite(station.freq_hz) && std::isfinite(station.drift_hz_s));
    const std::string truth = truth_line(station);
    const MemoryFile file = file_of(truth);
    const std::vector<SimStation> again = read_stations(file.path(), 0);
    expect(again.size() == 1 && truth_line(again[0]) == truth);
}

void one_station(Input& input) {
    try {
        expect_sound(parse_station(input.rest(), 1500));
    } catch (const UsageError& error) {
        expect(error.what()[0] != '\0');
    }
}

void file_of_stations(Input& input) {
    const MemoryFile file = file_of(input.rest());
    try {
        for (const SimStation& station : read_stations(file.path(), 1500)) expect_sound(station);
    } catch (const UsageError& error) {
        expect(error.what()[0] != '\0');
    }
}

void file_of_callsigns(Input& input) {
    const MemoryFile file = file_of(input.rest());
    std::vector<ovc_known> known;
    try {
        add_known_file("", file.path(), known);
        for (const ovc_known& entry : known) expect(entry.display[0] != '\0');
    } catch (const UsageError& error) {
        expect(error.what()[0] != '\0');
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    constexpr std::array KINDS = {step,        time_of_text,     text_of_time,      length, slot, number, list, range,
                                  one_station, file_of_stations, file_of_callsigns, spot};
    KINDS[static_cast<std::size_t>(input.int32(0, KINDS.size() - 1))](input);
    return 0;
}
