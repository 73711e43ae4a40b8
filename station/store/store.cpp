#include "store/store.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/text.h"

namespace {

// Each step brings a database to the version of its index plus 1.
constexpr std::array MIGRATIONS = {
    R"(
CREATE TABLE receiver (
    number INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE);
CREATE TABLE transmission (
    number INTEGER PRIMARY KEY,
    protocol INTEGER NOT NULL,
    call TEXT NOT NULL,
    locator TEXT NOT NULL,
    start REAL NOT NULL,
    rf_hz REAL);
CREATE INDEX transmission_call ON transmission (call, start);
CREATE TABLE spot (
    number INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    receiver INTEGER NOT NULL REFERENCES receiver,
    transmission INTEGER NOT NULL REFERENCES transmission,
    start REAL NOT NULL,
    end REAL NOT NULL,
    freq_hz REAL NOT NULL,
    rf_hz REAL,
    drift_hz_s REAL NOT NULL,
    snr_db REAL,
    deep INTEGER NOT NULL,
    method INTEGER,
    odds REAL,
    UNIQUE (transmission, receiver));
CREATE INDEX spot_start ON spot (start);
CREATE TABLE minute (
    receiver INTEGER NOT NULL REFERENCES receiver,
    end REAL NOT NULL,
    level_db REAL,
    noise_db REAL,
    captured_s REAL NOT NULL,
    lost_s REAL NOT NULL,
    decode_s REAL NOT NULL,
    clipped INTEGER NOT NULL,
    PRIMARY KEY (receiver, end)) WITHOUT ROWID;
CREATE TABLE outbox (
    output TEXT PRIMARY KEY,
    position INTEGER NOT NULL) WITHOUT ROWID;
)",
    // One beacon among millions of spots: its latest, and its curve from the index alone.
    R"(
ALTER TABLE spot ADD COLUMN call TEXT NOT NULL DEFAULT '';
UPDATE spot SET call = (SELECT call FROM transmission WHERE number = spot.transmission);
CREATE INDEX spot_call ON spot (call);
CREATE INDEX spot_curve ON spot (call, start, receiver, snr_db, rf_hz, freq_hz);
CREATE INDEX transmission_locator ON transmission (call, start, locator) WHERE locator <> '';
)",
    // A few among millions of spots: which of a block of 1024 numbers are wanted.
    R"(
ALTER TABLE spot ADD COLUMN protocol INTEGER NOT NULL DEFAULT 0;
UPDATE spot SET protocol = (SELECT protocol FROM transmission WHERE number = spot.transmission);
CREATE INDEX spot_block_start ON spot (number >> 10, start);
CREATE INDEX spot_block_rf ON spot (number >> 10, rf_hz);
CREATE INDEX spot_block_receiver ON spot (number >> 10, receiver);
CREATE INDEX spot_block_protocol ON spot (number >> 10, protocol);
)",
    "ALTER TABLE outbox ADD COLUMN epoch TEXT NOT NULL DEFAULT '';"};
constexpr auto VERSION = static_cast<int64_t>(MIGRATIONS.size());

constexpr double SAME_S = 15.3;            // half of the shortest frame
constexpr double SAME_HZ = 20;             // of two receivers' radio frequencies, and besides
constexpr double SAME_SHARE = 2e-5;        // what their oscillators are wrong by
constexpr std::size_t MOST_HEARINGS = 16;  // of a transmission, as a page of them is looked for
constexpr int64_t FORGOTTEN_AT_ONCE = 1000;
constexpr int BLOCK_BITS = 10;  // of the indexes spot_block

int64_t single(Database& database, std::string_view sql) {
    Statement statement = database.prepare(sql);
    return statement.step() ? statement.integer(0) : 0;
}

void migrate(Database& database) {
    // Before the first table: space of what is forgotten goes back to the disk.
    database.run("PRAGMA auto_vacuum = INCREMENTAL; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
    Transaction transaction(database);
    for (int64_t version = single(database, "PRAGMA user_version"); version < VERSION; version++) {
        database.run(MIGRATIONS[static_cast<std::size_t>(version)]);
        database.run(format("PRAGMA user_version = %lld", static_cast<long long>(version + 1)));
    }
    transaction.commit();
}

// A random UUID (RFC 4122, version 4).
std::string new_id() {
    std::random_device source;
    std::array<uint32_t, 4> word{};
    std::ranges::generate(word, std::ref(source));
    word[1] = (word[1] & 0xffff0fffU) | 0x4000U;
    word[2] = (word[2] & 0x3fffffffU) | 0x80000000U;
    return format("%08x-%04x-%04x-%04x-%04x%08x", word[0], word[1] >> 16, word[1] & 0xffffU, word[2] >> 16,
                  word[2] & 0xffffU, word[3]);
}

constexpr std::string_view SPOT_COLUMNS =
    "SELECT s.number, s.id, r.name, s.transmission, s.start, s.end, s.freq_hz, s.rf_hz, s.drift_hz_s, s.snr_db, "
    "t.protocol, t.call, t.locator, s.deep, s.method, s.odds "
    "FROM spot s JOIN transmission t ON t.number = s.transmission JOIN receiver r ON r.number = s.receiver";

StoredSpot read_spot(const Statement& row) {
    StoredSpot stored{row.integer(0), row.text(1), row.integer(3), {}};
    Spot& spot = stored.spot;
    spot.receiver = row.text(2);
    spot.start = row.real(4);
    spot.end = row.real(5);
    spot.freq_hz = row.real(6);
    spot.rf_hz = row.optional_real(7);
    spot.drift_hz_s = row.real(8);
    spot.snr_db = row.optional_real(9);
    spot.protocol = static_cast<uint32_t>(row.integer(10));
    spot.call = row.text(11);
    spot.locator = row.text(12);
    spot.deep = row.integer(13) != 0;
    if (const auto method = row.optional_integer(14)) {
        spot.finding =
            ovl_finding{.method = static_cast<int32_t>(*method), .odds = row.optional_real(15).value_or(NAN)};
    }
    return stored;
}

constexpr std::string_view MINUTE_COLUMNS =
    "SELECT r.name, m.end, m.level_db, m.noise_db, m.captured_s, m.lost_s, m.decode_s, m.clipped FROM receiver r JOIN "
    "minute m ON m.receiver = r.number";

ReceiverMinute read_minute(const Statement& row) {
    return {row.text(0), row.real(1), row.optional_real(2), row.optional_real(3),
            row.real(4), row.real(5), row.real(6),          row.integer(7)};
}

// Conditions joined by AND, and their values in order.
class Conditions {
  public:
    void add(std::string_view condition, double value) {
        add(condition);
        numbers_.emplace_back(count_++, value);
    }
    void add(std::string_view condition, std::string text) {
        add(condition);
        texts_.emplace_back(count_++, std::move(text));
    }
    const std::string& sql() const { return sql_; }
    int count() const { return count_; }
    void bind(Statement& statement) const {
        for (const auto& [index, value] : numbers_) statement.bind(index, value);
        for (const auto& [index, text] : texts_) statement.bind(index, std::string_view(text));
    }

  private:
    void add(std::string_view condition) {
        sql_ += sql_.empty() ? " WHERE " : " AND ";
        sql_ += condition;
    }
    int count_ = 0;
    std::string sql_;
    std::vector<std::pair<int, double>> numbers_;
    std::vector<std::pair<int, std::string>> texts_;
};

// What a callsign matches is sorted by number if it is little; of more, the latest are quickly met on the way through
// all.
constexpr int64_t LITTLE = 5000;

bool is_pattern(const std::string& call) {
    return call.find_first_of("*?[") != std::string::npos;
}

const char* compared_by(const std::string& call) {
    return is_pattern(call) ? "GLOB" : "=";
}

bool is_little(Database& database, const std::string& call) {
    Statement matches = database.prepare(format("SELECT count(*) FROM (SELECT 1 FROM spot WHERE call %s ? LIMIT %lld)",
                                                compared_by(call), static_cast<long long>(LITTLE)));
    return matches.bind(0, std::string_view(upper_case(call))).step() && matches.integer(0) < LITTLE;
}

void add_call(const std::string& call, bool by_index, Conditions& all) {
    if (call.empty()) return;
    all.add(format("%ss.call %s ?", by_index ? "" : "+", compared_by(call)), upper_case(call));
}

// By more than callsign and number.
bool is_narrow(const SpotFilter& filter) {
    return !filter.receiver.empty() || filter.protocol || filter.from || filter.until || filter.rf_low_hz ||
           filter.rf_high_hz;
}

bool is_by_call(Database& database, const SpotFilter& filter) {
    if (filter.call.empty()) return false;
    if (!is_pattern(filter.call) && !(filter.newest && is_narrow(filter))) return true;
    return is_little(database, filter.call);
}

Conditions conditions_of(const SpotFilter& filter, bool by_call) {
    Conditions all;
    add_call(filter.call, by_call, all);
    if (!filter.receiver.empty()) all.add("r.name = ?", filter.receiver);
    if (filter.protocol) all.add("s.protocol = ?", *filter.protocol);
    if (filter.from) all.add("s.start >= ?", *filter.from);
    if (filter.until) all.add("s.start < ?", *filter.until);
    if (filter.rf_low_hz) all.add("s.rf_hz >= ?", *filter.rf_low_hz);
    if (filter.rf_high_hz) all.add("s.rf_hz <= ?", *filter.rf_high_hz);
    if (filter.after) all.add("s.number > ?", static_cast<double>(*filter.after));
    if (filter.before) all.add("s.number < ?", static_cast<double>(*filter.before));
    return all;
}

// The spots of a point of a curve.
struct CurveSum {
    int64_t spots = 0, measured = 0;
    double snr_db = 0, freq_hz = 0;
    double least_snr_db = HUGE_VAL, most_snr_db = -HUGE_VAL;

    void add(const std::optional<double>& snr, double hz) {
        spots++;
        freq_hz += hz;
        if (!snr) return;
        measured++;
        snr_db += *snr;
        least_snr_db = std::min(least_snr_db, *snr);
        most_snr_db = std::max(most_snr_db, *snr);
    }

    CurvePoint point(const std::string& receiver, double utc) const {
        CurvePoint point{receiver, utc, spots, {}, {}, {}, freq_hz / static_cast<double>(spots)};
        if (measured == 0) return point;
        point.snr_db = snr_db / static_cast<double>(measured);
        point.least_snr_db = least_snr_db;
        point.most_snr_db = most_snr_db;
        return point;
    }
};

}  // namespace

Store::Store(const std::string& path, Database::Access access) : database_(path, access) {
    const int64_t version = single(database_, "PRAGMA user_version");
    if (version > VERSION) throw IoError("'" + path + "' was written by a later version of this program");
    if (access == Database::Access::WRITE) {
        migrate(database_);
    } else if (version < VERSION) {
        throw IoError("'" + path +
                      "' holds no spots, or those of an earlier version, which the station brings up to date");
    }
}

int64_t Store::receiver_number(const std::string& name) {
    Statement known = database_.prepare("SELECT number FROM receiver WHERE name = ?");
    if (known.bind(0, std::string_view(name)).step()) return known.integer(0);
    database_.prepare("INSERT INTO receiver (name) VALUES (?)").bind(0, std::string_view(name)).step();
    return database_.last_row();
}

int64_t Store::transmission_of(const Spot& spot) {
    Statement near = database_.prepare(
        "SELECT number, rf_hz FROM transmission WHERE call = ? AND start > ? AND start < ? AND protocol = ? "
        "ORDER BY abs(start - ?)");
    near.bind(0, std::string_view(spot.call)).bind(1, spot.start - SAME_S).bind(2, spot.start + SAME_S);
    near.bind(3, static_cast<int64_t>(spot.protocol)).bind(4, spot.start);
    while (near.step()) {
        const auto rf_hz = near.optional_real(1);
        if (!rf_hz || !spot.rf_hz || std::fabs(*rf_hz - *spot.rf_hz) <= SAME_HZ + SAME_SHARE * *spot.rf_hz) {
            return near.integer(0);
        }
    }
    Statement insert =
        database_.prepare("INSERT INTO transmission (protocol, call, locator, start, rf_hz) VALUES (?, ?, ?, ?, ?)");
    insert.bind(0, static_cast<int64_t>(spot.protocol)).bind(1, std::string_view(spot.call));
    insert.bind(2, std::string_view(spot.locator)).bind(3, spot.start).bind(4, spot.rf_hz).step();
    return database_.last_row();
}

std::optional<StoredSpot> Store::insert(const Spot& spot) {
    StoredSpot stored{0, new_id(), transmission_of(spot), spot};
    std::optional<int64_t> method;
    std::optional<double> odds;
    if (spot.finding) {
        method = spot.finding->method;
        if (std::isfinite(spot.finding->odds)) odds = spot.finding->odds;
    }
    Statement insert = database_.prepare(
        "INSERT INTO spot (id, receiver, transmission, start, end, freq_hz, rf_hz, drift_hz_s, snr_db, deep, method, "
        "odds, call, protocol) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (transmission, receiver) "
        "DO NOTHING");
    insert.bind(0, std::string_view(stored.id)).bind(1, receiver_number(spot.receiver)).bind(2, stored.transmission);
    insert.bind(3, spot.start).bind(4, spot.end).bind(5, spot.freq_hz).bind(6, spot.rf_hz).bind(7, spot.drift_hz_s);
    insert.bind(8, spot.snr_db).bind(9, static_cast<int64_t>(spot.deep)).bind(10, method).bind(11, odds);
    insert.bind(12, std::string_view(spot.call)).bind(13, static_cast<int64_t>(spot.protocol)).step();
    if (database_.changed() == 0) return std::nullopt;
    stored.number = database_.last_row();
    return stored;
}

std::vector<StoredSpot> Store::add(std::span<const Spot> spots) {
    std::vector<StoredSpot> added;
    added.reserve(spots.size());
    Transaction transaction(database_);
    for (const Spot& spot : spots) {
        if (auto stored = insert(spot)) added.push_back(std::move(*stored));
    }
    transaction.commit();
    return added;
}

void Store::add(const ReceiverMinute& minute) {
    Transaction transaction(database_);
    Statement insert = database_.prepare(
        "INSERT OR REPLACE INTO minute (receiver, end, level_db, noise_db, captured_s, lost_s, decode_s, clipped) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    insert.bind(0, receiver_number(minute.receiver))
        .bind(1, minute.end)
        .bind(2, minute.level_db)
        .bind(3, minute.noise_db);
    insert.bind(4, minute.captured_s).bind(5, minute.lost_s).bind(6, minute.decode_s).bind(7, minute.clipped).step();
    transaction.commit();
}

// Block by block, as in the order of numbers no index helps to find a few among many.
std::vector<StoredSpot> Store::newest(const SpotFilter& filter) {
    const std::size_t most = filter.newest.value_or(0);
    const int64_t last = std::min(last_number(), filter.before.value_or(INT64_MAX) - 1);
    const int64_t first = std::max(single(database_, "SELECT min(number) FROM spot"), filter.after.value_or(0) + 1);
    Conditions conditions = conditions_of(filter, false);
    conditions.add(format("s.number >> %d = ?", BLOCK_BITS), 0);
    const int block_index = conditions.count() - 1;
    Statement rows = database_.prepare(std::string(SPOT_COLUMNS) + conditions.sql() + " ORDER BY s.number DESC");
    conditions.bind(rows);
    std::vector<StoredSpot> spots;
    for (int64_t block = last >> BLOCK_BITS; block >= first >> BLOCK_BITS && spots.size() < most; block--) {
        rows.bind(block_index, block);
        while (spots.size() < most && rows.step()) spots.push_back(read_spot(rows));
    }
    std::ranges::reverse(spots);
    return spots;
}

void Store::query(const SpotFilter& filter, const std::function<bool(const StoredSpot&)>& take) {
    const bool by_call = is_by_call(database_, filter);
    if (filter.newest && !by_call) {
        for (const StoredSpot& stored : newest(filter)) {
            if (!take(stored)) return;
        }
        return;
    }
    const Conditions conditions = conditions_of(filter, by_call);
    std::string sql = std::string(SPOT_COLUMNS) + conditions.sql();
    if (filter.newest) {
        sql = format("SELECT * FROM (%s ORDER BY s.number DESC LIMIT %zu) ORDER BY 1", sql.c_str(), *filter.newest);
    } else {
        sql += " ORDER BY s.number";
    }
    Statement rows = database_.prepare(sql);
    conditions.bind(rows);
    while (rows.step()) {
        if (!take(read_spot(rows))) return;
    }
}

std::vector<StoredSpot> Store::transmissions(const std::string& call, std::optional<int64_t> before, std::size_t most) {
    Conditions conditions;
    if (before) conditions.add("s.transmission < ?", static_cast<double>(*before));
    add_call(call, !is_pattern(call) || is_little(database_, call), conditions);
    Statement rows = database_.prepare(
        std::string(SPOT_COLUMNS) + " WHERE s.transmission IN (SELECT DISTINCT transmission FROM (SELECT " +
        "s.transmission FROM spot s" + conditions.sql() +
        format(" ORDER BY s.number DESC LIMIT %zu) ORDER BY transmission DESC LIMIT %zu) ORDER BY s.transmission DESC, "
               "s.number",
               most * MOST_HEARINGS, most));
    conditions.bind(rows);
    std::vector<StoredSpot> spots;
    while (rows.step()) spots.push_back(read_spot(rows));
    return spots;
}

std::vector<CurvePoint> Store::curve(const std::string& call, double from, double until, double step_s) {
    Statement rows = database_.prepare(
        "SELECT receiver, start, snr_db, coalesce(rf_hz, freq_hz) FROM spot INDEXED BY spot_curve WHERE call = ? AND "
        "start >= ? AND start < ?");
    rows.bind(0, std::string_view(call)).bind(1, from).bind(2, until);
    std::map<std::pair<int64_t, int64_t>, CurveSum> sums;  // by receiver and step
    while (rows.step()) {
        const auto step = static_cast<int64_t>((rows.real(1) - from) / step_s);
        sums[{rows.integer(0), step}].add(rows.optional_real(2), rows.real(3));
    }
    std::vector<CurvePoint> points;
    points.reserve(sums.size());
    const std::map<int64_t, std::string> names = receiver_names();
    for (const auto& [key, sum] : sums) {
        points.push_back(sum.point(names.at(key.first), from + step_s * static_cast<double>(key.second)));
    }
    return points;
}

// From callsign to callsign in the index, rather than through all of it.
std::vector<Beacon> Store::beacons() {
    Statement rows = database_.prepare(
        "WITH RECURSIVE c (call) AS (SELECT min(call) FROM spot UNION ALL SELECT (SELECT min(call) FROM spot WHERE "
        "call > c.call) FROM c WHERE c.call IS NOT NULL), last (number) AS MATERIALIZED (SELECT (SELECT max(number) "
        "FROM spot WHERE call = c.call) FROM c WHERE c.call IS NOT NULL) " +
        std::string(SPOT_COLUMNS) + " WHERE s.number IN (SELECT number FROM last) ORDER BY t.call");
    Statement located = database_.prepare(
        "SELECT locator FROM transmission WHERE call = ? AND locator <> '' ORDER BY start DESC LIMIT 1");
    std::vector<Beacon> beacons;
    while (rows.step()) {
        Beacon beacon{read_spot(rows), ""};
        if (located.bind(0, std::string_view(beacon.last.spot.call)).step()) {
            beacon.locator = located.text(0);
            while (located.step()) {
            }
        }
        beacons.push_back(std::move(beacon));
    }
    return beacons;
}

int64_t Store::last_number() {
    return single(database_, "SELECT max(number) FROM spot");
}

std::vector<ReceiverMinute> Store::minutes(const std::string& receiver, double from, double until) {
    Statement rows = database_.prepare(std::string(MINUTE_COLUMNS) +
                                       " WHERE r.name = ? AND m.end >= ? AND m.end < ? ORDER BY m.end");
    rows.bind(0, std::string_view(receiver)).bind(1, from).bind(2, until);
    std::vector<ReceiverMinute> minutes;
    while (rows.step()) minutes.push_back(read_minute(rows));
    return minutes;
}

std::vector<ReceiverMinute> Store::last_minutes(double from) {
    Statement rows = database_.prepare(
        std::string(MINUTE_COLUMNS) +
        " WHERE m.end >= ? AND m.end = (SELECT max(end) FROM minute WHERE receiver = r.number) ORDER BY r.name");
    rows.bind(0, from);
    std::vector<ReceiverMinute> minutes;
    while (rows.step()) minutes.push_back(read_minute(rows));
    return minutes;
}

std::map<int64_t, std::string> Store::receiver_names() {
    Statement rows = database_.prepare("SELECT number, name FROM receiver");
    std::map<int64_t, std::string> names;
    while (rows.step()) names.emplace(rows.integer(0), rows.text(1));
    return names;
}

std::vector<std::string> Store::receivers() {
    Statement rows = database_.prepare("SELECT name FROM receiver ORDER BY name");
    std::vector<std::string> names;
    while (rows.step()) names.push_back(rows.text(0));
    return names;
}

int64_t Store::position_or_last(const std::string& output) {
    {
        Statement row = database_.prepare("SELECT position FROM outbox WHERE output = ?");
        if (row.bind(0, std::string_view(output)).step()) return row.integer(0);
    }
    const int64_t last = single(database_, "SELECT max(number) FROM spot");
    set_position(output, last);
    return last;
}

void Store::set_position(const std::string& output, int64_t number) {
    Transaction transaction(database_);
    Statement insert = database_.prepare(
        "INSERT INTO outbox (output, position) VALUES (?, ?) ON CONFLICT (output) DO UPDATE SET position = "
        "excluded.position");
    insert.bind(0, std::string_view(output)).bind(1, number).step();
    transaction.commit();
}

std::string Store::epoch(const std::string& output) {
    {
        Statement row = database_.prepare("SELECT epoch FROM outbox WHERE output = ?");
        if (row.bind(0, std::string_view(output)).step() && !row.text(0).empty()) return row.text(0);
    }
    return renew_epoch(output);
}

std::string Store::renew_epoch(const std::string& output) {
    std::string epoch = new_id();
    Transaction transaction(database_);
    Statement set = database_.prepare("UPDATE outbox SET epoch = ? WHERE output = ?");
    set.bind(0, std::string_view(epoch)).bind(1, std::string_view(output)).step();
    transaction.commit();
    return epoch;
}

bool Store::may_hold(int64_t number, const std::string& id) {
    if (number > single(database_, "SELECT max(seq) FROM sqlite_sequence WHERE name = 'spot'")) return false;
    Statement row = database_.prepare("SELECT id FROM spot WHERE number = ?");
    return id.empty() || !row.bind(0, number).step() || row.text(0) == id;
}

int64_t Store::bytes() {
    return single(database_, "PRAGMA page_size") *
           (single(database_, "PRAGMA page_count") - single(database_, "PRAGMA freelist_count"));
}

int64_t Store::forget(double before, std::optional<int64_t> most_bytes) {
    const auto forget_before = [&](double time) {
        Transaction transaction(database_);
        database_.prepare("DELETE FROM spot WHERE start < ?").bind(0, time).step();
        const int64_t forgotten = database_.changed();
        database_.prepare("DELETE FROM minute WHERE end < ?").bind(0, time).step();
        database_
            .prepare(
                "DELETE FROM transmission WHERE start < ? AND number NOT IN (SELECT transmission FROM spot WHERE start "
                "< ?)")
            .bind(0, time + SAME_S)
            .bind(1, time + 2 * SAME_S)
            .step();
        transaction.commit();
        return forgotten;
    };
    int64_t forgotten = forget_before(before);
    while (most_bytes && bytes() > *most_bytes) {
        Statement oldest = database_.prepare("SELECT start FROM spot ORDER BY start LIMIT 1 OFFSET ?");
        if (!oldest.bind(0, FORGOTTEN_AT_ONCE).step()) break;
        const double time = oldest.real(0);
        while (oldest.step()) {
        }
        const int64_t more = forget_before(time);
        if (more == 0) break;
        forgotten += more;
    }
    database_.run("PRAGMA incremental_vacuum; PRAGMA wal_checkpoint(TRUNCATE)");
    return forgotten;
}
