// What stations and collectors say to each other, as texts: written and read here.
//
// A station that waits for a collector numbers its spots. Each says which number came before it, so that a collector
// sees what is missing; and the collector says up to which number it has stored all of them: its mark.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "spots/spot.h"

// Where a spot stands in what an output of a station sends.
struct Place {
    std::string epoch;  // a UUID; numbers of one do not count in another
    int64_t number;     // grows, not always by 1
    int64_t after;      // between this number and that nothing is sent
    bool operator==(const Place&) const = default;
};

struct StationSpot {
    std::string id;  // a UUID
    std::string station, station_locator;
    Spot spot;
};

// A message, as far as it could be read.
struct SpotMessage {
    std::optional<StationSpot> spot;
    std::optional<Place> place;  // nothing where the station waits for nobody
};

struct Mark {
    std::string epoch;
    int64_t number = 0;  // all spots up to it are stored
    std::string id;      // of the spot with this number; "" where it has none
    int64_t again = 0;   // when it differs from before, what follows the number is to be sent again
    bool operator==(const Mark&) const = default;
};

// The line of a spot with where it stands, and the station's locator.
std::string placed_line(const std::string& spot_line, const Place& place, const std::string& station_locator);

// Messages come from anywhere: a spot has a UUID, a callsign, locators and a receiver of printable ASCII that are not
// too long, a time within `[EARLIEST_UTC, latest_utc]`, and finite numbers, or it is none.
SpotMessage read_spot_message(std::string_view text, double latest_utc);
inline constexpr double EARLIEST_UTC = 946684800;  // 2000-01-01

// What a station or a receiver may be called: printable ASCII without blanks, not too long.
bool is_name(std::string_view text);

std::string mark_line(const Mark& mark);
std::optional<Mark> read_mark(std::string_view text);
