// A program that runs beside this one, or in its place.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

// Where a program is, as a shell would look for it; "" when it is nowhere.
std::string find_program(const std::string& program);

// The same, but first in the directory of the program that runs. Not on Windows, as the next.
std::string find_beside(const std::string& program);

// Runs a program in place of this one, with these arguments, of which the first is its name. Throws IoError.
[[noreturn]] void become_program(const std::string& path, std::vector<std::string> arguments);

// A running program in a process group of its own, which the terminal's Ctrl-C does not reach. What it prints is read
// without waiting.
class Child {
  public:
    struct Options {
        std::vector<std::string> variables = {};  // "NAME=VALUE", besides this process's own
        std::string input = {};                   // its standard input, 64 kB at most
        bool errors_apart = false;                // standard error is not mixed into the output; not on Windows
        bool ends_with_us = false;                // it gets SIGTERM when the thread that started it ends
    };

    // Starts path with these arguments, of which the first is its name. Throws IoError.
    Child(const std::string& path, std::vector<std::string> arguments, const Options& options);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();  // one that still runs is killed with its group

    // What it has printed since the last call, as far as there is room. Returns how many bytes that is.
    std::size_t read_output(std::span<char> room);

    // Descriptors to read from; errors() is -1 unless errors are apart. Not on Windows, as signal().
    int output() const;
    int errors() const;

    // The status, as waitpid() gives it, once it has ended.
    std::optional<int> ended();

    // To its group, while it runs.
    void signal(int number);

  private:
    struct Process;
    std::unique_ptr<Process> process_;
};

// "exit status 3" or "ended by signal 9".
std::string ending_text(int status);
