#include <windows.h>
// after it
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform.h"
#include "system/files.h"
#include "system/io_error.h"
#include "system/reason_windows.h"
#include "windows_path.h"

namespace {

const intptr_t NONE = reinterpret_cast<intptr_t>(INVALID_HANDLE_VALUE);
constexpr std::size_t MOST_AT_ONCE = 1 << 30;

HANDLE handle_of(intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

// What the C library says of the same.
int errno_of(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_NAME:
            return ENOENT;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION:
        case ERROR_WRITE_PROTECT:
            return EACCES;
        case ERROR_DISK_FULL:
            return ENOSPC;
        default:
            return EIO;
    }
}

bool succeeded(BOOL done) {
    if (done == 0) errno = errno_of(GetLastError());
    return done != 0;
}

OVERLAPPED at_place(uint64_t offset) {
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(offset & 0xFFFFFFFF);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}

}  // namespace

std::string windows_reason(unsigned long error) {
    wchar_t* text = nullptr;
    const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    const DWORD length = FormatMessageW(flags, nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::string reason = length > 0 ? utf8_text({text, length}) : "error " + std::to_string(error);
    LocalFree(text);
    while (reason.ends_with('\n') || reason.ends_with('\r') || reason.ends_with('.') || reason.ends_with(' ')) {
        reason.pop_back();
    }
    return reason;
}

std::filesystem::path native_path(const std::string& name) {
    return windows_path(name);
}

std::string text_of(const std::filesystem::path& path) {
    return utf8_text(path.native());
}

std::string path_in(const std::string& directory, const std::string& name) {
    return text_of(std::filesystem::path(wide_text(directory)) / wide_text(name));
}

bool is_file_name(const std::string& text) {
    const std::filesystem::path path = wide_text(text);
    return path.filename() == path;
}

std::FILE* open_file(const std::string& path, const char* mode) {
    return platform_open(path.c_str(), mode);
}

bool sync_file(std::FILE* file) {
    return _commit(_fileno(file)) == 0;
}

bool move_file(const std::string& from, const std::string& to) {
    const DWORD how = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
    return succeeded(MoveFileExW(windows_path(from).c_str(), windows_path(to).c_str(), how));
}

bool remove_file(const std::string& path) {
    return succeeded(DeleteFileW(windows_path(path).c_str()));
}

std::string last_reason() {
    return std::strerror(errno);
}

std::string temporary_directory() {
    std::error_code error;
    const auto named = std::filesystem::temp_directory_path(error);
    return error ? "." : text_of(named);
}

DiskFile::DiskFile(const std::string& path)
    : handle_(reinterpret_cast<intptr_t>(CreateFileW(windows_path(path).c_str(), GENERIC_READ,
                                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))) {
    if (!succeeded(handle_ != NONE)) throw IoError(last_reason());
}

DiskFile::DiskFile(Temporary) : handle_(NONE) {
    constexpr int ATTEMPTS = 100;
    const std::string base = temporary_directory() + "\\orvel-" + std::to_string(GetCurrentProcessId()) + "-";
    for (int attempt = 0; attempt < ATTEMPTS && handle_ == NONE; attempt++) {
        const std::string name = base + std::to_string(GetTickCount64()) + "-" + std::to_string(attempt);
        handle_ = reinterpret_cast<intptr_t>(
            CreateFileW(windows_path(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                        FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
        if (handle_ == NONE && GetLastError() != ERROR_FILE_EXISTS) break;
    }
    if (!succeeded(handle_ != NONE)) throw IoError(last_reason());
}

DiskFile DiskFile::temporary() {
    return DiskFile(Temporary{});
}

DiskFile::DiskFile(DiskFile&& other) noexcept : handle_(std::exchange(other.handle_, NONE)) {}

DiskFile::~DiskFile() {
    if (handle_ != NONE) CloseHandle(handle_of(handle_));
}

uint64_t DiskFile::size() const {
    LARGE_INTEGER bytes{};
    const bool known = GetFileSizeEx(handle_of(handle_), &bytes) != 0 && bytes.QuadPart > 0;
    return known ? static_cast<uint64_t>(bytes.QuadPart) : 0;
}

std::size_t DiskFile::read_at(uint64_t offset, std::span<uint8_t> out) const {
    std::size_t done = 0;
    while (done < out.size()) {
        OVERLAPPED place = at_place(offset + done);
        const auto wanted = static_cast<DWORD>(std::min(out.size() - done, MOST_AT_ONCE));
        DWORD got = 0;
        if (ReadFile(handle_of(handle_), out.data() + done, wanted, &got, &place) == 0 || got == 0) break;
        done += got;
    }
    return done;
}

void DiskFile::append(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        OVERLAPPED end = at_place(size());
        const auto wanted = static_cast<DWORD>(std::min(bytes.size(), MOST_AT_ONCE));
        DWORD done = 0;
        if (!succeeded(WriteFile(handle_of(handle_), bytes.data(), wanted, &done, &end))) throw IoError(last_reason());
        bytes = bytes.subspan(done);
    }
}
