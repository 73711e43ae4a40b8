#include "schema.h"

#include <array>
#include <string>

#include "base/error.h"

namespace {

// Each step brings a schema to the version of its index plus 1. Days are partitions, whose key has to be part of what
// is unique; the start of a spot never changes, so that its id alone would be as good.
constexpr std::array MIGRATIONS = {
    R"(
CREATE TABLE orvel.spot (
    id uuid NOT NULL,
    station text NOT NULL,
    station_locator text NOT NULL,
    receiver text NOT NULL,
    utc_start timestamptz NOT NULL,
    utc_end timestamptz NOT NULL,
    freq_hz double precision NOT NULL,
    rf_hz double precision,
    drift_hz_s double precision NOT NULL,
    snr_db double precision,
    protocol text NOT NULL,
    call text NOT NULL,
    locator text NOT NULL,
    deep boolean NOT NULL,
    method text,
    odds double precision,
    PRIMARY KEY (id, utc_start)
) PARTITION BY RANGE (utc_start);
CREATE INDEX spot_call ON orvel.spot (call, utc_start);
CREATE INDEX spot_station ON orvel.spot (station, utc_start);
CREATE INDEX spot_locator ON orvel.spot (call, utc_start) WHERE locator <> '';

CREATE TABLE orvel.mark (
    station text NOT NULL,
    epoch uuid NOT NULL,
    number bigint NOT NULL,
    id uuid,
    moved timestamptz NOT NULL DEFAULT now(),
    PRIMARY KEY (station, epoch));
)",
    // The middle of a locator's square; NULL where it is none. For least() a NULL is nothing, and not unknown.
    R"(
CREATE FUNCTION orvel.locator_longitude(locator text) RETURNS double precision
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE AS $$
    SELECT CASE WHEN upper(locator) ~ '^[A-R]{2}[0-9]{2}([A-X]{2})?$' THEN
        20.0 * (ascii(upper(locator)) - 65) - 180 + 2.0 * (ascii(substr(locator, 3, 1)) - 48)
        + CASE WHEN length(locator) = 6 THEN (ascii(upper(substr(locator, 5, 1))) - 65 + 0.5) / 12 ELSE 1 END
    END $$;
CREATE FUNCTION orvel.locator_latitude(locator text) RETURNS double precision
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE AS $$
    SELECT CASE WHEN upper(locator) ~ '^[A-R]{2}[0-9]{2}([A-X]{2})?$' THEN
        10.0 * (ascii(upper(substr(locator, 2, 1))) - 65) - 90 + (ascii(substr(locator, 4, 1)) - 48)
        + CASE WHEN length(locator) = 6 THEN (ascii(upper(substr(locator, 6, 1))) - 65 + 0.5) / 24 ELSE 0.5 END
    END $$;

CREATE FUNCTION orvel.distance_km(a text, b text) RETURNS double precision
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE AS $$
    SELECT 2 * 6371 * asin(least(1, sqrt(sind((q.lat - p.lat) / 2) ^ 2
                                         + cosd(p.lat) * cosd(q.lat) * sind((q.lon - p.lon) / 2) ^ 2)))
    FROM (SELECT orvel.locator_latitude(a) AS lat, orvel.locator_longitude(a) AS lon) AS p,
         (SELECT orvel.locator_latitude(b) AS lat, orvel.locator_longitude(b) AS lon) AS q
    WHERE p.lat + q.lat IS NOT NULL $$;
CREATE FUNCTION orvel.bearing_deg(a text, b text) RETURNS double precision
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE AS $$
    SELECT CASE WHEN deg < 0 THEN deg + 360 ELSE deg END
    FROM (SELECT atan2d(sind(q.lon - p.lon) * cosd(q.lat),
                        cosd(p.lat) * sind(q.lat) - sind(p.lat) * cosd(q.lat) * cosd(q.lon - p.lon)) AS deg
          FROM (SELECT orvel.locator_latitude(a) AS lat, orvel.locator_longitude(a) AS lon) AS p,
               (SELECT orvel.locator_latitude(b) AS lat, orvel.locator_longitude(b) AS lon) AS q) AS course $$;

CREATE VIEW orvel.spot_path AS
    SELECT *, orvel.distance_km(station_locator, locator) AS distance_km,
           orvel.bearing_deg(station_locator, locator) AS bearing_deg
    FROM orvel.spot;
CREATE VIEW orvel.best_snr_by_hour AS
    SELECT date_trunc('hour', utc_start, 'UTC') AS hour, call, station, receiver, max(snr_db) AS snr_db,
           count(*) AS spots
    FROM orvel.spot GROUP BY 1, 2, 3, 4;
CREATE VIEW orvel.heard_by AS
    SELECT h.*, orvel.distance_km(h.station_locator, b.locator) AS distance_km,
           orvel.bearing_deg(h.station_locator, b.locator) AS bearing_deg
    FROM (SELECT call, station, station_locator, min(utc_start) AS first, max(utc_start) AS last, count(*) AS spots,
                 max(snr_db) AS best_snr_db
          FROM orvel.spot GROUP BY call, station, station_locator) AS h
    LEFT JOIN LATERAL (SELECT s.locator FROM orvel.spot AS s WHERE s.call = h.call AND s.locator <> ''
                       ORDER BY s.utc_start DESC LIMIT 1) AS b ON true;
)"};
constexpr auto VERSION = static_cast<int64_t>(MIGRATIONS.size());

// 0 where there is nothing yet.
int64_t version_of(Postgres& database) {
    if (!database.run("SELECT to_regclass('orvel.version') IS NOT NULL").is_true(0, 0)) return 0;
    return database.run("SELECT max(version) FROM orvel.version").integer(0, 0);
}

}  // namespace

void bring_up_to_date(Postgres& database) {
    if (version_of(database) == VERSION) return;  // needs no rights to make tables
    PostgresTransaction transaction(database);
    database.run("SELECT pg_advisory_xact_lock(hashtext('orvel.version'))");  // another collector may be at it
    int64_t version = version_of(database);
    if (version > VERSION) throw IoError("database: it was written by a later version of this program");
    if (version == 0) {
        database.script(
            "CREATE SCHEMA IF NOT EXISTS orvel; CREATE TABLE orvel.version (version bigint NOT NULL);"
            "INSERT INTO orvel.version VALUES (0)");
    }
    for (; version < VERSION; version++) database.script(MIGRATIONS[static_cast<std::size_t>(version)]);
    database.run("UPDATE orvel.version SET version = $1", {std::to_string(VERSION)});
    transaction.commit();
}
