#include "console.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

namespace {

std::mutex error_lock;
bool status_shown = false;

// The lock must be held.
void clear_status() {
    if (std::exchange(status_shown, false)) std::fputs("\r\033[K", stderr);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        if (c == '\n') {
            shown += "\\n";
        } else if (c == '\r') {
            shown += "\\r";
        } else if (c == '\t') {
            shown += "\\t";
        } else if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
            shown += format("\\x%02x", static_cast<unsigned>(c));
        } else {
            shown += c;
        }
    }
    return shown;
}

void print_error(const std::string& message) {
    const std::lock_guard guard(error_lock);
    clear_status();
    std::fprintf(stderr, "orvel: %s\n", printable(message).c_str());
}

void print(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

bool flush_output() {
    static bool reported = false;
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int reason = errno;
    if (flushed && std::ferror(stdout) == 0) return true;
    if (!reported) {
        print_error(std::string("cannot write the output") + (reason != 0 ? ": " : "") +
                    (reason != 0 ? std::strerror(reason) : ""));
    }
    reported = true;
    return false;
}

std::string format(const char* pattern, ...) {
    std::va_list arguments;
    va_start(arguments, pattern);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, pattern, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

std::optional<double> parse_finite(const std::string& text) {
    const char* end = text.data() + text.size();
    const char* begin = text.data();
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') ++begin;
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || stop != end || !std::isfinite(value)) return std::nullopt;
    return value;
}

CLI::Validator finite_number() {
    return {[](const std::string& text) {
                return parse_finite(text) ? std::string() : "'" + text + "' is not a finite number";
            },
            ""};
}

CLI::Validator width() {
    return {[](const std::string& text) {
                const auto value = parse_finite(text);
                return value && *value >= 0 ? std::string() : "'" + text + "' is not a finite number of 0 or more";
            },
            ""};
}

std::vector<std::string> split_list(std::string_view text) {
    constexpr std::string_view SEPARATORS = ", ;\t\r\n\v\f";
    std::vector<std::string> parts;
    for (std::size_t begin = text.find_first_not_of(SEPARATORS); begin != std::string_view::npos;) {
        const std::size_t end = text.find_first_of(SEPARATORS, begin);
        parts.emplace_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(SEPARATORS, end);
    }
    return parts;
}

StatusLine::StatusLine() : terminal_(isatty(STDERR_FILENO) != 0) {}

StatusLine::~StatusLine() {
    clear();
}

void StatusLine::show(const std::string& text) {
    if (!terminal_) return;
    const std::lock_guard guard(error_lock);
    std::fprintf(stderr, "\r%s\033[K", printable(text).c_str());
    status_shown = true;
}

void StatusLine::clear() {
    const std::lock_guard guard(error_lock);
    clear_status();
}
