// orvel plot: a picture of a recording and the frames in it, or of the chips of one frame.
#pragma once

#include <CLI/CLI.hpp>

// Adds the subcommand to the command line of `orvel`. When it is called, `status` becomes its exit status.
void add_plot(CLI::App& app, int& status);
