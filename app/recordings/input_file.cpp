#include "recordings/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/error.h"

void refuse_recording(const std::string& path, const std::string& reason) {
    throw IoError("cannot read '" + path + "': " + reason);
}

InputFile::InputFile(const std::string& path) {
    if (is_url(path)) {
        url_ = std::make_unique<UrlFile>(path);
        size_ = url_->size();
        return;
    }
    descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) refuse_recording(path, std::strerror(errno));
    struct stat status {};
    if (fstat(descriptor_, &status) == 0 && status.st_size > 0) size_ = static_cast<uint64_t>(status.st_size);
}

InputFile::~InputFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

std::size_t InputFile::read_at(uint64_t offset, std::span<uint8_t> out) const {
    if (url_) return url_->read_at(offset, out);
    std::size_t done = 0;
    while (done < out.size() && offset + done < size_) {
        const ssize_t got = pread(descriptor_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}
