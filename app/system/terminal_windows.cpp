#include <windows.h>

#include "system/terminal.h"

namespace {

HANDLE handle_of(Stream stream) {
    return GetStdHandle(stream == Stream::OUTPUT ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

}  // namespace

// Lines are rewritten in place by sequences of control characters, which older consoles do not know.
bool is_terminal(Stream stream) {
    DWORD mode = 0;
    return GetConsoleMode(handle_of(stream), &mode) != 0 && (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

std::size_t terminal_columns(Stream stream) {
    CONSOLE_SCREEN_BUFFER_INFO screen{};
    if (GetConsoleScreenBufferInfo(handle_of(stream), &screen) == 0) return 0;
    const int columns = screen.srWindow.Right - screen.srWindow.Left + 1;
    return columns > 0 ? static_cast<std::size_t>(columns) : 0;
}

bool errors_go_to_journal() {
    return false;
}
