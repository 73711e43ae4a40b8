#include "recordings/input_file.h"

#include <algorithm>

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
    try {
        file_.emplace(path);
    } catch (const IoError& error) {
        refuse_recording(path, error.what());
    }
    size_ = file_->size();
}

std::size_t InputFile::read_at(uint64_t offset, std::span<uint8_t> out) const {
    if (url_) return url_->read_at(offset, out);
    const uint64_t there = size_ - std::min(offset, size_);
    return file_->read_at(offset, out.first(static_cast<std::size_t>(std::min<uint64_t>(there, out.size()))));
}
