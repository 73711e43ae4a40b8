// A file that is read at any place: on a disk, or behind http:// or https://.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "sources/url_file.h"
#include "system/files.h"

class InputFile {
  public:
    // Throws IoError, whose text names the file and the reason.
    explicit InputFile(const std::string& path);

    uint64_t size() const { return size_; }

    // Fills `out` from a place on. Returns how many bytes there were: fewer only at the end, or where the file can be
    // read no further. Throws IoError where it lies behind a URL.
    std::size_t read_at(uint64_t offset, std::span<uint8_t> out) const;

  private:
    std::unique_ptr<UrlFile> url_;
    std::optional<DiskFile> file_;
    uint64_t size_ = 0;
};

// "cannot read 'path': reason", thrown as IoError.
[[noreturn]] void refuse_recording(const std::string& path, const std::string& reason);
