// What a keeper wants to know before a station is left alone.
#pragma once

#include <string>

// Looks after the receivers of a configuration, each for some seconds, the clock, the disk and the outputs, and prints
// a line about each: "ok", "note" or "bad", what it is, and how it is. The receivers' children are `program`. True when
// nothing is bad. Throws IoError, and UsageError for a configuration with mistakes.
bool examine_station(const std::string& config_path, const std::string& program);
