#include "base/console.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "base/text.h"

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

}  // namespace

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
