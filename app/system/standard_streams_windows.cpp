#include <windows.h>
// after it
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "system/io_error.h"
#include "system/standard_streams.h"
#include "windows_path.h"

// Of the C library, which expands what a user's * stands for.
extern "C" int __wgetmainargs(int* argc, wchar_t*** argv, wchar_t*** variables, int expand, int* new_mode);

namespace {

constexpr DWORD STEP_MS = 10;

UINT console_code_page = 0;

void restore_console() {
    SetConsoleOutputCP(console_code_page);
}

void let_terminal_move_its_cursor(DWORD stream) {
    const HANDLE handle = GetStdHandle(stream);
    DWORD mode = 0;
    if (GetConsoleMode(handle, &mode) != 0) SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

unsigned bytes_of(std::size_t size) {
    return static_cast<unsigned>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

// Whether a read would not wait. A pipe cannot be waited for.
bool input_is_there(HANDLE input) {
    if (GetFileType(input) != FILE_TYPE_PIPE) {
        return GetFileType(input) == FILE_TYPE_DISK || WaitForSingleObject(input, 0) == WAIT_OBJECT_0;
    }
    DWORD bytes = 0;
    return PeekNamedPipe(input, nullptr, 0, nullptr, &bytes, nullptr) == 0 || bytes > 0;
}

}  // namespace

std::vector<std::string> begin_program(int, char**) {
    for (std::FILE* const stream : {stdin, stdout, stderr}) _setmode(_fileno(stream), _O_BINARY);
    if (console_code_page == 0) {
        console_code_page = GetConsoleOutputCP();
        if (console_code_page != 0) std::atexit(restore_console);
    }
    SetConsoleOutputCP(CP_UTF8);
    let_terminal_move_its_cursor(STD_OUTPUT_HANDLE);
    let_terminal_move_its_cursor(STD_ERROR_HANDLE);

    int count = 0;
    wchar_t** words = nullptr;
    wchar_t** variables = nullptr;
    int new_mode = 0;
    __wgetmainargs(&count, &words, &variables, 1, &new_mode);
    std::vector<std::string> arguments;
    for (int k = 0; k < count; k++) arguments.push_back(utf8_text(words[k]));
    return arguments;
}

bool is_named_pipe(const std::string& path) {
    return path.starts_with("\\\\.\\pipe\\");
}

InputStream::InputStream(const std::string& path)
    : descriptor_(path == "-" ? _dup(_fileno(stdin)) : _wopen(wide_text(path).c_str(), _O_RDONLY | _O_BINARY)) {
    if (descriptor_ < 0) throw IoError(std::strerror(errno));
}

InputStream::InputStream(InputStream&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

InputStream::~InputStream() {
    if (descriptor_ >= 0) _close(descriptor_);
}

std::size_t InputStream::read(std::span<uint8_t> room) const {
    const int got = _read(descriptor_, room.data(), bytes_of(room.size()));
    if (got < 0) throw IoError(std::strerror(errno));
    return static_cast<std::size_t>(got);
}

std::optional<std::size_t> read_standard_input(std::span<uint8_t> room, double seconds) {
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(1000 * seconds);
    while (!input_is_there(input)) {
        if (GetTickCount64() >= end) return std::nullopt;
        Sleep(STEP_MS);
    }
    const int got = _read(_fileno(stdin), room.data(), bytes_of(room.size()));
    if (got < 0) throw IoError(std::strerror(errno));
    return static_cast<std::size_t>(got);
}
