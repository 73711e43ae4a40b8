// The options of `orvel collect`: for the command, which explains and completes them, and for orvel-collector, which
// runs it.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

struct CollectOptions {
    std::string config;
    bool check = false;
};

CLI::App* add_collect_options(CLI::App& app, CollectOptions& options);
