// orvel render: a transmission into a WAV file.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_render(CLI::App& app, int& status);
