// The station: receivers' spots into the store, and from there to the outputs.
#pragma once

#include <string>

// Runs by a configuration until it is interrupted; SIGHUP reads the file again. The receivers' children are `program`.
// Returns an exit status. Throws IoError and UsageError.
int run_station(const std::string& config_path, const std::string& program);

// Prints every mistake of a configuration. False when there is one. Throws IoError.
bool check_station(const std::string& config_path);
