// What every subcommand says to its user: exit statuses, error lines, checked output, checks of option values.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum ExitStatus : int {
    EXIT_DONE = 0,    // all went well
    EXIT_FAILED = 1,  // some input could not be used, or the output could not be written
    EXIT_USAGE = 2    // a wrong option, value or combination
};

// The same text with "\n", "\x1b" and so on in place of control characters and bytes that are no UTF-8, which a file's
// name may hold: one line, and nothing that moves a terminal's cursor.
std::string printable(std::string_view text);

// "orvel: <message>" and a line feed on standard error; the message as printable() has it.
void print_error(const std::string& message);

// Writes text to standard output. All output goes through here; whether it arrived is asked once, by flush_output.
void print(std::string_view text);

// Pushes out what was printed. False, with an error line the first time, when some of it could not be written: a full
// disk or a pipe that nobody reads.
bool flush_output();

// printf into a string. Numbers have a decimal point in every locale, as the command never leaves the "C" locale.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

// The number that the whole text stands for, if it is one and finite.
std::optional<double> parse_finite(const std::string& text);

// Checks for option values: the whole text must be a finite number (not below 0).
CLI::Validator finite_number();
CLI::Validator width();

// The parts of a list between commas and blanks; empty parts are dropped.
std::vector<std::string> split_list(std::string_view text);

// Standard error's last line, rewritten in place; nothing where that is no terminal. Errors clear it first. There is
// one at a time.
class StatusLine {
  public:
    StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;
    ~StatusLine();

    void show(const std::string& text);
    void clear();  // before other output

  private:
    bool terminal_;
};
