// What our programs do alike, from the words of a command line to an exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

// Runs a main program, which returns its exit status: what it throws becomes a line and EXIT_FAILED, and neither a pipe
// that nobody reads nor a limit on files' sizes ends it.
int run_program(const std::function<int()>& program);

// Runs `parse`, which parses the words and does what they ask for; answers help and version, and refuses what is wrong,
// with EXIT_USAGE. Standard output is written then. Returns `status` or a worse one.
int run_command_line(const CLI::App& app, const std::function<void()>& parse, const int& status);
