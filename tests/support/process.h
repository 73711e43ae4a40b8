// Runs a program as a shell would, and tells what came out of it.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct ProcessInput {
    std::string stdin_file = "/dev/null";
    std::string stdout_file;                                       // takes the output away when given
    bool stdout_closed_pipe = false;                               // standard output is a pipe that nobody reads
    std::vector<std::pair<std::string, std::string>> environment;  // variables to set
};

struct ProcessResult {
    int status = -1;  // exit status, or -1 when the program was ended by a signal
    std::string out;  // standard output and standard error
    std::string err;
};

// arguments[0] is the program, with its path. Throws std::runtime_error when it cannot be started.
ProcessResult run_process(const std::vector<std::string>& arguments, const ProcessInput& input = {});

// The lines of a text, without their line feeds.
std::vector<std::string> lines_of(const std::string& text);
