// All subcommands of orvel: for the command itself, and for what is generated from its options.
#pragma once

#include <CLI/CLI.hpp>

// Adds them to the command, in the order in which its help lists them; each sets status when it runs.
void add_subcommands(CLI::App& app, int& status);
