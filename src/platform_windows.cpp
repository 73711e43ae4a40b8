#include <windows.h>

#include <cerrno>

#include "platform.h"
#include "windows_path.h"

namespace {

constexpr std::size_t LONG_PATH = 240;  // calls that make folders take less than those that open files

std::wstring absolute(const std::wstring& path) {
    const DWORD room = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(room, L'\0');
    const DWORD length = room > 0 ? GetFullPathNameW(path.c_str(), room, full.data(), nullptr) : 0;
    full.resize(length < room ? length : 0);
    return full;
}

}  // namespace

std::wstring wide_text(std::string_view utf8) {
    const int bytes = static_cast<int>(utf8.size());
    const int room = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(room > 0 ? room : 0), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, wide.data(), room);
    return wide;
}

std::string utf8_text(std::wstring_view wide) {
    const int words = static_cast<int>(wide.size());
    const int room = WideCharToMultiByte(CP_UTF8, 0, wide.data(), words, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(room > 0 ? room : 0), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), words, utf8.data(), room, nullptr, nullptr);
    return utf8;
}

std::wstring windows_path(std::string_view utf8) {
    const std::wstring path = wide_text(utf8);
    if (path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\")) return path;
    const std::wstring full = absolute(path);
    if (full.size() < LONG_PATH) return path;
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

std::FILE* platform_open(const char* path, const char* mode) {
    const std::wstring wide = windows_path(path);
    if (wide.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    return _wfopen(wide.c_str(), wide_text(mode).c_str());
}

bool platform_seek(std::FILE* file, int64_t offset, int whence) {
    return _fseeki64(file, offset, whence) == 0;
}

int64_t platform_tell(std::FILE* file) {
    return _ftelli64(file);
}

// A library's turn comes when it is unloaded: the other threads are gone by then, and COM may wait for them for ever.
void platform_at_exit(void (*)()) {}

void platform_prefer_big_pages(void*, std::size_t) noexcept {}

double platform_now() {
    constexpr double TICKS_PER_S = 1e7;
    constexpr int64_t UNIX_EPOCH = 116444736000000000;  // in ticks since 1601
    FILETIME time{};
    GetSystemTimePreciseAsFileTime(&time);
    const auto ticks = static_cast<int64_t>(static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
    return static_cast<double>(ticks - UNIX_EPOCH) / TICKS_PER_S;
}
