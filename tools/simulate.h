// orvel simulate: writes recordings of stations that never were, and the truth about them.
#pragma once

#include <CLI/CLI.hpp>

void add_simulate(CLI::App& app, int& status);
