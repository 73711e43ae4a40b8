// The file that a station is run by.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config/values.h"
#include "config/web_config.h"

// Part of a day in UTC, which may pass midnight.
struct Hours {
    int32_t from_minute, to_minute;  // of the day, 0 to 1439

    bool contain(double utc) const;
    bool operator==(const Hours&) const = default;
};

struct ReceiverConfig {
    std::string name;
    std::string source;                  // as `orvel listen` takes it
    std::vector<std::string> arguments;  // of `orvel listen`
    std::vector<Hours> hours;            // when it works; empty = always
    bool operator==(const ReceiverConfig&) const = default;
};

struct OutputConfig {
    std::string type;  // the name of its kind
    std::string name;  // of this one
    Values values;
    bool operator==(const OutputConfig&) const = default;
};

struct Config {
    Values station;                // callsign, locator, antenna
    Values store;                  // path, keep_days, most_megabytes
    std::optional<WebConfig> web;  // nothing without [web]
    std::vector<ReceiverConfig> receivers;
    std::vector<OutputConfig> outputs;
};

// A kind of output and what its tables may hold besides type and name.
struct OutputKind {
    std::string_view type;
    std::span<const Key> keys;
};

// Reads a file and notes every mistake in it. Throws IoError when it cannot be read.
Config read_config(const std::string& path, std::span<const OutputKind> kinds, std::vector<Mistake>& mistakes);
