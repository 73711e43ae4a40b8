// orvel devices: what sound devices there are.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_devices(CLI::App& app, int& status);
