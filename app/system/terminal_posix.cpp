#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "system/terminal.h"

namespace {

int descriptor(Stream stream) {
    return stream == Stream::OUTPUT ? STDOUT_FILENO : STDERR_FILENO;
}

}  // namespace

bool is_terminal(Stream stream) {
    return isatty(descriptor(stream)) != 0;
}

std::size_t terminal_columns(Stream stream) {
    winsize size{};
    return ioctl(descriptor(stream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

// It tells its device and inode.
bool errors_go_to_journal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat end {};
    return stream != nullptr && fstat(STDERR_FILENO, &end) == 0 &&
           stream == std::to_string(end.st_dev) + ":" + std::to_string(end.st_ino);
}
