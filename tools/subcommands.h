// The subcommands of orvel, one file each: for the command itself, and for what is generated from its options.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// Each adds one subcommand. When it runs, `status` becomes its exit status; UsageError and IoError say why it cannot.
void add_decode(CLI::App& app, int& status);
void add_merge(CLI::App& app, int& status);
void add_encode(CLI::App& app, int& status);
void add_render(CLI::App& app, int& status);
void add_simulate(CLI::App& app, int& status);
void add_plot(CLI::App& app, int& status);
void add_scan(CLI::App& app, int& status);
void add_devices(CLI::App& app, int& status);
void add_send(CLI::App& app, int& status);
void add_listen(CLI::App& app, int& status);
void add_station(CLI::App& app, int& status);
void add_spots(CLI::App& app, int& status);
void add_collect(CLI::App& app, int& status);

// Whether a subcommand is one that this build does without.
bool is_left_out(const std::string& name);

// All of them, in the order in which the help lists them.
void add_subcommands(CLI::App& app, int& status);
