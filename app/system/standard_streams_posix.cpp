#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "system/io_error.h"
#include "system/standard_streams.h"

std::vector<std::string> begin_program(int argc, char** argv) {
    return {argv, argv + argc};
}

bool is_named_pipe(const std::string& path) {
    std::error_code error;
    return std::filesystem::status(path, error).type() == std::filesystem::file_type::fifo;
}

InputStream::InputStream(const std::string& path)
    : descriptor_(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) throw IoError(std::strerror(errno));
}

InputStream::InputStream(InputStream&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

InputStream::~InputStream() {
    if (descriptor_ >= 0) close(descriptor_);
}

std::size_t InputStream::read(std::span<uint8_t> room) const {
    ssize_t got = -1;
    do {
        got = ::read(descriptor_, room.data(), room.size());
    } while (got < 0 && errno == EINTR);
    if (got < 0) throw IoError(std::strerror(errno));
    return static_cast<std::size_t>(got);
}

std::optional<std::size_t> read_standard_input(std::span<uint8_t> room, double seconds) {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(1000 * seconds)) <= 0) return std::nullopt;
    const ssize_t got = ::read(STDIN_FILENO, room.data(), room.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return std::nullopt;
    if (got < 0) throw IoError(std::strerror(errno));
    return static_cast<std::size_t>(got);
}
