// The station: receivers' spots into the store, and from there to the outputs.
#pragma once

#include <string>

#include "config/config.h"
#include "outputs/output.h"

// Runs by a configuration until it is interrupted; SIGHUP reads the file again. The receivers' children are `program`.
// Returns an exit status. Throws IoError and UsageError.
int run_station(const std::string& config_path, const std::string& program);

// Prints every mistake of a configuration. False when there is one. Throws IoError.
bool check_station(const std::string& config_path);

// The configuration of a file. Throws UsageError when it has mistakes, after all have been printed, and IoError.
Config read_or_refuse(const std::string& path);

Keeper keeper_of(const Config& config);
