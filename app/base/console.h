// What our programs say to their user, on standard output and standard error.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The same text with "\n", "\x1b" and so on in place of control characters and bytes that are not UTF-8, which a file's
// name may hold: one line, and nothing that moves a terminal's cursor.
std::string printable(std::string_view text);

// Columns that a printable text takes at most: two for each character from U+0800 on, of which some are that wide.
std::size_t columns_of(std::string_view text);

// As many of a printable text's first characters as that many columns hold, without blanks at the end.
std::string first_columns(std::string_view text, std::size_t columns);

// How much a line matters, as syslog counts it.
enum class Level { ERROR = 3, WARNING = 4, NOTICE = 5 };

// "orvel: <message>" and a line feed on standard error; the message as printable() has it. Where standard error is
// systemd's journal, the level comes before it.
void print_error(const std::string& message, Level level = Level::ERROR);

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

    void show(const std::string& text);  // cut to columns()
    void clear();                        // before other output

    // Columns that a text may take so that it stays on one line: one less than the terminal has; where that does not
    // know it, $COLUMNS; else no limit.
    std::size_t columns() const;

  private:
    bool terminal_;
};
