// What our programs say to their user, on standard output and standard error.
#pragma once

#include <string>
#include <string_view>

// The same text with "\n", "\x1b" and so on in place of control characters and bytes that are not UTF-8, which a file's
// name may hold: one line, and nothing that moves a terminal's cursor.
std::string printable(std::string_view text);

// "orvel: <message>" and a line feed on standard error; the message as printable() has it.
void print_error(const std::string& message);

// Writes text to standard output. All output goes through here; flush_output checks once whether it arrived.
void print(std::string_view text);

// Flushes what was printed. False, with an error line the first time, when some of it could not be written: a full disk
// or a pipe that nobody reads.
bool flush_output();

// Standard error's last line, rewritten in place; nothing where that is not a terminal. Errors clear it first. There is
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
