#include "base/console.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "system/terminal.h"

namespace {

std::mutex error_lock;
bool status_shown = false;

// The lock must be held.
void clear_status() {
    if (std::exchange(status_shown, false)) std::fputs("\r\033[K", stderr);
}

// How many bytes at the beginning of a text are a printable UTF-8 character: 0 when they are a control character (to a
// terminal U+0080 to U+009F are the same as those of ASCII), or not UTF-8.
std::size_t printable_bytes(std::string_view text) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const uint32_t first = byte(0);
    if (first < 0x80) return first >= ' ' && first != 0x7f ? 1 : 0;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    uint32_t character = first & (0x7fU >> length);
    for (std::size_t at = 1; at < length; at++) {
        if ((byte(at) & 0xc0U) != 0x80) return 0;
        character = character << 6 | (byte(at) & 0x3fU);
    }
    constexpr uint32_t LEAST[] = {0xa0, 0x800, 0x10000};  // of 2, 3 and 4 bytes
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    return character >= LEAST[length - 2] && character <= 0x10ffff && !surrogate ? length : 0;
}

std::size_t columns_of_variable() {
    const char* const variable = std::getenv("COLUMNS");
    if (variable == nullptr) return 0;
    const char* const end = variable + std::strlen(variable);
    std::size_t columns = 0;
    const auto [stop, error] = std::from_chars(variable, end, columns);
    return error == std::errc() && stop == end ? columns : 0;
}

// Bytes of a text of whole characters that a number of columns holds, and the columns they take.
struct Cut {
    std::size_t bytes = 0, columns = 0;
};

Cut cut(std::string_view text, std::size_t columns) {
    Cut done;
    while (done.bytes < text.size()) {
        const std::size_t length = std::max<std::size_t>(printable_bytes(text.substr(done.bytes)), 1);
        const std::size_t width = length < 3 ? 1 : 2;
        if (width > columns - done.columns) break;
        done.bytes += length;
        done.columns += width;
    }
    return done;
}

bool is_journal() {
    static const bool is = errors_go_to_journal();
    return is;
}

}  // namespace

std::size_t columns_of(std::string_view text) {
    return cut(text, std::numeric_limits<std::size_t>::max()).columns;
}

std::string first_columns(std::string_view text, std::size_t columns) {
    text = text.substr(0, cut(text, columns).bytes);
    while (text.ends_with(' ')) text.remove_suffix(1);
    return std::string(text);
}

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = printable_bytes(text);
        const char c = text.front();
        if (length > 0) {
            shown += text.substr(0, length);
        } else if (c == '\n') {
            shown += "\\n";
        } else if (c == '\r') {
            shown += "\\r";
        } else if (c == '\t') {
            shown += "\\t";
        } else {
            shown += format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}

void print_error(const std::string& message, Level level) {
    const std::lock_guard guard(error_lock);
    clear_status();
    if (is_journal()) std::fprintf(stderr, "<%d>", static_cast<int>(level));
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

StatusLine::StatusLine() : terminal_(is_terminal(Stream::ERRORS)) {}

StatusLine::~StatusLine() {
    clear();
}

void StatusLine::show(const std::string& text) {
    if (!terminal_) return;
    const std::lock_guard guard(error_lock);
    std::fprintf(stderr, "\r%s\033[K", first_columns(printable(text), columns()).c_str());
    status_shown = true;
}

std::size_t StatusLine::columns() const {
    const std::size_t known = terminal_columns(Stream::ERRORS);
    const std::size_t columns = known > 0 ? known : columns_of_variable();
    return columns > 0 ? columns - 1 : std::numeric_limits<std::size_t>::max();
}

void StatusLine::clear() {
    const std::lock_guard guard(error_lock);
    clear_status();
}
