// orvel send: a transmission on a sound device, now or on a schedule.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_send(CLI::App& app, int& status);
