// orvel listen: spots from a sound device or standard input, as they come.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_listen(CLI::App& app, int& status);
