#include "spots_command.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/json.h"
#include "base/parse.h"
#include "base/text.h"
#include "base/utc.h"
#include "pictures/history.h"
#include "protocol.h"
#include "spots/spot_table.h"
#include "spots_options.h"
#include "store/adif.h"
#include "store/store.h"

namespace {

double time_of(const std::string& option, const std::string& text) {
    if (const auto ago = parse_duration(text)) return utc_now() - *ago;
    const auto utc = parse_utc(text, utc_now() - DAY_S);
    if (!utc) throw UsageError(option + ": '" + text + "' is neither a UTC time nor a length like 12h");
    return *utc;
}

SpotFilter filter_of(const SpotsOptions& options) {
    SpotFilter filter{.call = options.call, .receiver = options.receiver};
    if (!options.protocol.empty()) {
        const ov_protocol* const protocol = ov_protocol_by_option(options.protocol);
        if (protocol == nullptr) {
            throw UsageError("--protocol: '" + options.protocol + "' is not one of " + ov_protocol_options());
        }
        filter.protocol = protocol->id;
    }
    if (!options.from.empty()) filter.from = time_of("--from", options.from);
    if (!options.until.empty()) filter.until = time_of("--until", options.until);
    if (!options.band.empty()) {
        const auto band = parse_range(options.band);
        if (!band) throw UsageError("--band: '" + options.band + "' is not LO:HI in Hz");
        filter.rf_low_hz = band->low;
        filter.rf_high_hz = band->high;
    }
    if (options.newest > 0) filter.newest = options.newest;
    return filter;
}

constexpr SpotColumns COLUMNS = {.utc = true, .rf = true};

std::string line_of(const SpotsOptions& options, const StoredSpot& stored) {
    const Spot& spot = stored.spot;
    if (options.adif) return adif_record(stored);
    if (options.csv) return spot_csv(spot, COLUMNS);
    if (!options.json) return spot_row(utc_text(spot.start, 1), spot);
    nlohmann::ordered_json line;
    line["id"] = stored.id;
    line["transmission"] = stored.transmission;
    line.update(parse_json(spot_line(spot)));
    return json_line(line);
}

// The newest of more would hide the others.
constexpr std::size_t MOST_POINTS = 1'000'000;

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    if (!file.flush()) throw IoError("cannot write '" + path + "'");
}

// Of radio frequencies where all are known.
int plot(const SpotsOptions& options, Store& store, SpotFilter filter) {
    const auto picture = picture_format(options.plot);
    if (!picture) throw UsageError("--plot: '" + options.plot + "' is neither PNG, SVG nor PDF");
    if (!filter.newest) filter.newest = MOST_POINTS;
    std::vector<Spot> found;
    store.query(filter, [&](const StoredSpot& stored) {
        found.push_back(stored.spot);
        return true;
    });
    if (found.empty()) throw IoError("there are no such spots");
    const bool on_air = std::ranges::all_of(found, [](const Spot& spot) { return spot.rf_hz.has_value(); });
    std::vector<HistoryPoint> points;
    points.reserve(found.size());
    for (const Spot& spot : found) {
        points.push_back({spot.start, spot.snr_db, on_air ? *spot.rf_hz : spot.freq_hz, spot.deep});
    }
    PictureLayout layout;
    layout.format = *picture;
    layout.title = options.call.empty() ? "All spots" : upper_case(options.call);
    write_file(options.plot, draw_history(layout, points));
    return EXIT_SUCCESS;
}

int spots(const SpotsOptions& options) {
    const SpotFilter filter = filter_of(options);
    Store store(options.store, Database::Access::READ);
    if (!options.plot.empty()) return plot(options, store, filter);
    if (options.adif) print(adif_header());
    if (options.csv) print(spot_csv_names({}, COLUMNS));
    if (!options.json && !options.csv && !options.adif) print(spot_header(format("%22s", "UTC"), true));
    store.query(filter, [&](const StoredSpot& stored) {
        print(line_of(options, stored));
        return true;
    });
    return flush_output() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

void add_spots(CLI::App& app, int& status) {
    const auto options = std::make_shared<SpotsOptions>();
    CLI::App* const sub = add_spots_options(app, *options);
    sub->callback([options, &status] { status = spots(*options); });
}
