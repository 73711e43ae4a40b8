// The collector: stations' spots from a broker into the database, and marks back to the stations.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/values.h"

struct CollectorConfig {
    Values broker;     // host, port, user, password, ca_file, prefix
    Values database;   // connection, password
    Values collector;  // name
};

// Reads a file and notes every mistake in it. Throws IoError when it cannot be read.
CollectorConfig read_collector_config(const std::string& path, std::vector<Mistake>& mistakes);

// Works until it is interrupted. What it depends on may come and go. Returns an exit status; throws UsageError.
int run_collector(const CollectorConfig& config);
