// `orvel spots`: what the store holds, as a table, JSON, CSV or ADIF.
#pragma once

#include <CLI/CLI.hpp>

void add_spots(CLI::App& app, int& status);
