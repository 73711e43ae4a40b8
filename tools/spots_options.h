// The options of `orvel spots`: for the command, which explains and completes them, and for orvel-station, which runs
// it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>

// As typed.
struct SpotsOptions {
    std::string store = "/var/lib/orvel/spots.db";
    std::string call, receiver, protocol, from, until, band, plot;
    std::size_t newest = 0;
    bool json = false, csv = false, adif = false;
};

// Adds the subcommand; it has no callback yet. `options` must outlive it.
CLI::App* add_spots_options(CLI::App& app, SpotsOptions& options);
