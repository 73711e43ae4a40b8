// What receivers heard, kept in a database: whatever ends the program, what add() returned for is there afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "spots/spot.h"
#include "store/database.h"

// A spot as it is kept. Its times are UTC.
struct StoredSpot {
    int64_t number;        // in the order in which they came, from 1
    std::string id;        // unique everywhere: a random UUID
    int64_t transmission;  // equal for receivers that heard the same frame
    Spot spot;
};

// A minute of a receiver.
struct ReceiverMinute {
    std::string receiver;
    double end;  // UTC
    std::optional<double> level_db, noise_db;
    double captured_s, lost_s;
    double decode_s;  // spent on decoding
    int64_t clipped;  // samples
};

// Which spots; all of them where nothing is set.
struct SpotFilter {
    std::string call = {};  // "" = any; else letters and digits, with * for any others
    std::string receiver = {};
    std::optional<uint32_t> protocol = {};                  // OVL_ id
    std::optional<double> from = {}, until = {};            // UTC of the start
    std::optional<double> rf_low_hz = {}, rf_high_hz = {};  // radio frequency, where it is known
    std::optional<int64_t> after = {};                      // numbers beyond this
    std::optional<int64_t> before = {};                     // and below this
    std::optional<std::size_t> newest = {};                 // so many of the latest
};

// What a receiver heard of a beacon within a step of time.
struct CurvePoint {
    std::string receiver;
    double utc;  // of the step's begin
    int64_t spots;
    std::optional<double> snr_db, least_snr_db, most_snr_db;  // the mean, and between which
    double freq_hz;                                           // mean; on the air, where that is known
};

// A beacon as it was heard last.
struct Beacon {
    StoredSpot last;
    std::string locator;  // of the last frame that carried one; "" when none did
};

class Store {
  public:
    // For writing, a file that is missing is made and an older one brought up to date. Throws IoError, also for files
    // of a later version.
    Store(const std::string& path, Database::Access access);

    // Keeps spots, each with its receiver; all or, when it throws, none of them, and returns those that are new: a
    // receiver's frame that is there already is left out. Spots of several receivers with the same callsign and
    // protocol that began within half of a frame and, where both are known, on the same radio frequency, are of the
    // same transmission. One commit takes some milliseconds, whatever it holds.
    std::vector<StoredSpot> add(std::span<const Spot> spots);
    void add(const ReceiverMinute& minute);

    // Calls take with each of the spots in order of their numbers until it returns false.
    void query(const SpotFilter& filter, const std::function<bool(const StoredSpot&)>& take);
    // The latest transmissions below a number, the newest first: all spots of one follow each other. `call` as in
    // SpotFilter.
    std::vector<StoredSpot> transmissions(const std::string& call, std::optional<int64_t> before, std::size_t most);

    // By receiver, in the order in which they came, and time. `call` is one callsign.
    std::vector<CurvePoint> curve(const std::string& call, double from, double until, double step_s);
    std::vector<Beacon> beacons();  // by callsign
    int64_t last_number();          // 0 while there is none

    std::vector<ReceiverMinute> minutes(const std::string& receiver, double from, double until);
    std::vector<ReceiverMinute> last_minutes(double from);  // one of each receiver that has one since
    std::vector<std::string> receivers();

    // The number of the last spot that an output has delivered. One that is new begins with what comes next.
    int64_t position_or_last(const std::string& output);
    void set_position(const std::string& output, int64_t number);

    // For whoever keeps account of an output's numbers elsewhere: a UUID that names the sequence they belong to. It
    // stays the same until it is renewed, as this file may be a copy of earlier times, in which numbers come a second
    // time. The output must have a position.
    std::string epoch(const std::string& output);
    std::string renew_epoch(const std::string& output);
    // Whether the spot with a number has, or may have had before it was forgotten, this id ("" = any).
    bool may_hold(int64_t number, const std::string& id);

    // Forgets spots and minutes before a time, and the oldest of them while the file is larger; the number of spots.
    int64_t forget(double before, std::optional<int64_t> most_bytes);

    // Of the file, without what is free in it.
    int64_t bytes();

  private:
    std::vector<StoredSpot> newest(const SpotFilter& filter);
    std::optional<StoredSpot> insert(const Spot& spot);
    int64_t receiver_number(const std::string& name);
    int64_t transmission_of(const Spot& spot);
    std::map<int64_t, std::string> receiver_names();

    Database database_;
};
