#include "vault.h"

#include <cmath>

#include "base/error.h"
#include "base/json.h"
#include "base/text.h"
#include "base/utc.h"
#include "schema.h"
#include "shares.h"

namespace {

constexpr int DAYS_AHEAD = 3;
constexpr double AHEAD_EVERY_S = 3600;
constexpr int PRESENCE = 1'000'000;  // among a network's locks: beyond all shares
constexpr int UTC_DECIMALS = 2;      // as spots have it
constexpr double ROUNDING_S = 0.01;
constexpr double MOST_APART_S = 3600;

// In the order of their keys: whoever else writes the same waits, and does not meet us half way.
constexpr const char* KEEP_SPOTS = R"(
INSERT INTO orvel.spot
SELECT id, station, station_locator, receiver, utc_start, utc_end, freq_hz, rf_hz, drift_hz_s, snr_db, protocol, call,
       locator, deep, method, odds
FROM json_to_recordset($1::json) AS new (id uuid, station text, station_locator text, receiver text,
    utc_start timestamptz, utc_end timestamptz, freq_hz double precision, rf_hz double precision,
    drift_hz_s double precision, snr_db double precision, protocol text, call text, locator text, deep boolean,
    method text, odds double precision)
ORDER BY id
ON CONFLICT (id, utc_start) DO NOTHING)";
constexpr const char* MOVE_MARKS = R"(
INSERT INTO orvel.mark (station, epoch, number, id)
SELECT station, epoch, number, nullif(id, '')::uuid
FROM json_to_recordset($1::json) AS new (station text, epoch uuid, number bigint, id text)
ORDER BY station, epoch
ON CONFLICT (station, epoch) DO UPDATE SET number = excluded.number, id = excluded.id, moved = now()
WHERE mark.number <= excluded.number)";

using Json = nlohmann::json;

Json optional_number(const std::optional<double>& value) {
    return value && std::isfinite(*value) ? Json(*value) : Json();
}

Json json_of(const StationSpot& message) {
    const Spot& spot = message.spot;
    Json object = {{"id", message.id},
                   {"station", message.station},
                   {"station_locator", message.station_locator},
                   {"receiver", spot.receiver},
                   {"utc_start", utc_text(spot.start, UTC_DECIMALS)},
                   {"utc_end", utc_text(spot.end, UTC_DECIMALS)},
                   {"freq_hz", spot.freq_hz},
                   {"rf_hz", optional_number(spot.rf_hz)},
                   {"drift_hz_s", spot.drift_hz_s},
                   {"snr_db", optional_number(spot.snr_db)},
                   {"protocol", ovl_proto_name(spot.protocol)},
                   {"call", spot.call},
                   {"locator", spot.locator},
                   {"deep", spot.deep}};
    if (spot.finding) {
        object["method"] = method_name(spot.finding->method);
        object["odds"] = optional_number(spot.finding->odds);
    }
    return object;
}

Json json_of(const StationMark& moved) {
    return {
        {"station", moved.station}, {"epoch", moved.mark.epoch}, {"number", moved.mark.number}, {"id", moved.mark.id}};
}

template <class Item>
std::string json_array(std::span<const Item> items) {
    Json array = Json::array();
    for (const Item& item : items) array.push_back(json_of(item));
    return array.dump();
}

int64_t day_of(double utc) {
    return static_cast<int64_t>(std::floor(utc / DAY_S));
}

}  // namespace

PostgresVault::PostgresVault(const std::string& where, const std::optional<std::string>& password,
                             const std::string& network)
    : database_(where, password), network_(std::to_string(stable_hash(network) >> 1)) {
    require_same_time(
        utc_now(),
        static_cast<double>(database_.run("SELECT extract(epoch FROM clock_timestamp())::bigint").integer(0, 0)));
    bring_up_to_date(database_);
    database_.prepare("keep_spots", KEEP_SPOTS);
    database_.prepare("move_marks", MOVE_MARKS);
    database_.prepare("marks",
                      "SELECT epoch, number, id FROM (SELECT * FROM orvel.mark WHERE station = $1 ORDER BY moved DESC "
                      "LIMIT $2::bigint) AS latest ORDER BY moved");
    database_.prepare("take_share", "SELECT pg_try_advisory_lock($1::int, $2::int)");
    database_.prepare("leave_share", "SELECT pg_advisory_unlock($1::int, $2::int)");
    database_.prepare(
        "division",
        "SELECT objid::bigint FROM pg_locks WHERE locktype = 'advisory' AND granted AND objsubid = 2 AND "
        "classid = $1::oid AND database = (SELECT oid FROM pg_database WHERE datname = current_database())");
    database_.run("SELECT pg_advisory_lock_shared($1::int, $2::int)", {network_, std::to_string(PRESENCE)});
}

void require_same_time(double own_utc, double database_utc) {
    if (std::fabs(own_utc - database_utc) <= MOST_APART_S) return;
    throw IoError(format("the clock is at %s, the database's at %s", utc_text(own_utc, 0).c_str(),
                         utc_text(database_utc, 0).c_str()));
}

// Its bounds are made of a number alone.
void PostgresVault::make_day(int64_t day) {
    if (days_.contains(day)) return;
    const std::string from = utc_text(static_cast<double>(day) * DAY_S, 0);
    const std::string to = utc_text(static_cast<double>(day + 1) * DAY_S, 0);
    const std::string name = "spot_" + from.substr(0, 4) + from.substr(5, 2) + from.substr(8, 2);
    PostgresTransaction transaction(database_);
    database_.run("SELECT pg_advisory_xact_lock(hashtext('orvel.spot'))");
    if (!database_
             .run("SELECT EXISTS (SELECT FROM pg_inherits WHERE inhrelid = to_regclass($1) AND inhparent = "
                  "'orvel.spot'::regclass)",
                  {"orvel." + name})
             .is_true(0, 0)) {
        // To attach what is complete stops nobody who reads. A day that was detached and left here comes back.
        database_.script(format("CREATE TABLE IF NOT EXISTS orvel.%s (LIKE orvel.spot INCLUDING ALL); ALTER TABLE "
                                "orvel.spot ATTACH PARTITION orvel.%s FOR VALUES FROM ('%s') TO ('%s')",
                                name.c_str(), name.c_str(), from.c_str(), to.c_str())
                             .c_str());
    }
    transaction.commit();
    days_.insert(day);
}

void PostgresVault::make_days_ahead(double utc) {
    if (utc < ahead_at_) return;
    for (int64_t day = day_of(utc); day <= day_of(utc) + DAYS_AHEAD; day++) make_day(day);
    ahead_at_ = utc + AHEAD_EVERY_S;
}

void PostgresVault::keep(std::span<const StationSpot> spots, std::span<const StationMark> marks) {
    make_days_ahead(utc_now());
    for (const StationSpot& spot : spots) {
        make_day(day_of(spot.spot.start));
        make_day(day_of(spot.spot.start + ROUNDING_S));
    }
    PostgresTransaction transaction(database_);
    if (!spots.empty()) database_.run_prepared("keep_spots", {json_array(spots)});
    if (!marks.empty()) database_.run_prepared("move_marks", {json_array(marks)});
    transaction.commit();
}

std::vector<Mark> PostgresVault::marks(const std::string& station) {
    const Rows rows = database_.run_prepared("marks", {station, std::to_string(MOST_EPOCHS)});
    std::vector<Mark> marks;
    marks.reserve(static_cast<std::size_t>(rows.count()));
    for (int row = 0; row < rows.count(); row++) {
        marks.push_back({.epoch = rows.text(row, 0), .number = rows.integer(row, 1), .id = rows.text(row, 2)});
    }
    return marks;
}

Vault::Division PostgresVault::division() {
    const Rows rows = database_.run_prepared("division", {network_});
    Division division{0, {}};
    for (int row = 0; row < rows.count(); row++) {
        const auto lock = static_cast<int>(rows.integer(row, 0));
        if (lock == PRESENCE) {
            division.collectors++;
        } else {
            division.taken.insert(lock);
        }
    }
    return division;
}

bool PostgresVault::take_share(int share) {
    return database_.run_prepared("take_share", {network_, std::to_string(share)}).is_true(0, 0);
}

void PostgresVault::leave_share(int share) {
    database_.run_prepared("leave_share", {network_, std::to_string(share)});
}
