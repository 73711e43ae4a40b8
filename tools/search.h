// What to search for, as several subcommands take it from the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ovcenc.h"

// The options, as typed.
struct SearchOptions {
    std::optional<double> center_hz;
    double search_hz = 200;
    double spread_hz = 0;
    std::string protocols = "all";
    std::string known_list;
    std::string known_file;
    bool known_only = false;
};

// Adds the options to a subcommand; `center` tells the help which centre is searched around by default.
void add_search_options(CLI::App& sub, SearchOptions& options, const std::string& center);

// Values of the options; each throws CLI::ValidationError, which ends the command as wrong usage.
int32_t protocol_mask(const SearchOptions& options);
std::vector<ovc_known> known_callsigns(const SearchOptions& options);

// A band of frequencies, Hz.
struct Band {
    double low_hz, high_hz;
};

// "LO:HI" with LO below HI. Throws CLI::ValidationError.
Band parse_band(const std::string& text);
