// orvel scan: where in recordings something is keyed.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_scan(CLI::App& app, int& status);
