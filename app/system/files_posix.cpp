#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "system/files.h"
#include "system/io_error.h"

namespace {

constexpr intptr_t NONE = -1;

int descriptor(intptr_t handle) {
    return static_cast<int>(handle);
}

}  // namespace

std::filesystem::path native_path(const std::string& name) {
    return name;
}

std::string text_of(const std::filesystem::path& path) {
    return path.string();
}

std::string path_in(const std::string& directory, const std::string& name) {
    return (std::filesystem::path(directory) / name).string();
}

bool is_file_name(const std::string& text) {
    return std::filesystem::path(text).filename() == text;
}

std::FILE* open_file(const std::string& path, const char* mode) {
    return std::fopen(path.c_str(), mode);
}

bool sync_file(std::FILE* file) {
    return fsync(fileno(file)) == 0;
}

bool move_file(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0;
}

bool remove_file(const std::string& path) {
    return std::remove(path.c_str()) == 0;
}

std::string last_reason() {
    return std::strerror(errno);
}

std::string temporary_directory() {
    std::error_code error;
    const auto named = std::filesystem::temp_directory_path(error);
    return error ? "/tmp" : named.string();
}

DiskFile::DiskFile(const std::string& path) : handle_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (handle_ == NONE) throw IoError(last_reason());
}

DiskFile::DiskFile(Temporary) : handle_(NONE) {
    std::string name = temporary_directory() + "/orvel-XXXXXX";
    handle_ = mkostemp(name.data(), O_CLOEXEC);
    if (handle_ == NONE) throw IoError(last_reason());
    unlink(name.c_str());
}

DiskFile DiskFile::temporary() {
    return DiskFile(Temporary{});
}

DiskFile::DiskFile(DiskFile&& other) noexcept : handle_(std::exchange(other.handle_, NONE)) {}

DiskFile::~DiskFile() {
    if (handle_ != NONE) close(descriptor(handle_));
}

uint64_t DiskFile::size() const {
    struct stat status {};
    const bool known = fstat(descriptor(handle_), &status) == 0 && status.st_size > 0;
    return known ? static_cast<uint64_t>(status.st_size) : 0;
}

std::size_t DiskFile::read_at(uint64_t offset, std::span<uint8_t> out) const {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t got =
            pread(descriptor(handle_), out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

void DiskFile::append(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t done = write(descriptor(handle_), bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) throw IoError(last_reason());
        bytes = bytes.subspan(static_cast<std::size_t>(done));
    }
}
