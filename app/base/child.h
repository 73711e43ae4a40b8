// A program that runs beside this one.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// Where a program is, as a shell would look for it; "" when it is nowhere.
std::string find_program(const std::string& program);

// The same, but first in the directory of the program that runs.
std::string find_beside(const std::string& program);

// A running program in a process group of its own, which the terminal's Ctrl-C does not reach. The descriptors of what
// it prints do not block.
class Child {
  public:
    struct Options {
        std::vector<std::string> variables = {};  // "NAME=VALUE", besides this process's own
        std::string input = {};                   // its standard input, 64 kB at most
        bool errors_apart = false;                // standard error is not mixed into the output
        bool ends_with_us = false;                // it gets SIGTERM when the thread that started it ends
    };

    // Starts path with these arguments, of which the first is its name. Throws IoError.
    Child(const std::string& path, std::vector<std::string> arguments, const Options& options);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();  // one that still runs is killed with its group

    // Descriptors to read from; errors() is -1 unless errors are apart.
    int output() const { return output_; }
    int errors() const { return errors_; }

    // The status, as waitpid() gives it, once it has ended.
    std::optional<int> ended();

    // To its group, while it runs.
    void signal(int number);

  private:
    pid_t pid_ = 0;
    std::optional<int> status_;
    int output_ = -1;
    int errors_ = -1;
};

// "exit status 3" or "ended by signal 9".
std::string ending_text(int status);
