#include "recordings/spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/error.h"

namespace {

std::string directory() {
    std::error_code error;
    const auto named = std::filesystem::temp_directory_path(error);
    return error ? "/tmp" : named.string();
}

[[noreturn]] void refuse(int reason) {
    throw IoError("cannot keep what comes in '" + directory() + "': " + std::strerror(reason));
}

}  // namespace

Spool::Spool() {
    std::string name = directory() + "/orvel-XXXXXX";
    descriptor_ = mkostemp(name.data(), O_CLOEXEC);
    if (descriptor_ < 0) refuse(errno);
    unlink(name.c_str());
}

Spool::~Spool() {
    close(descriptor_);
}

void Spool::append(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t done = write(descriptor_, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) refuse(errno);
        bytes = bytes.subspan(static_cast<std::size_t>(done));
    }
}

std::size_t Spool::read_at(uint64_t offset, std::span<uint8_t> out) const {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t got = pread(descriptor_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}
