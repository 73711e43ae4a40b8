// orvel simulate: recordings of stations that never were, and the truth about them.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_simulate(CLI::App& app, int& status);
