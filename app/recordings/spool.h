// A file without a name, for bytes that come only once and are wanted in any order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "system/files.h"

// In the directory for temporary files, which TMPDIR names. It is gone with the process, however that ends.
class Spool {
  public:
    // Throws IoError, here and below, when the disk does not take it.
    Spool();

    void append(std::span<const uint8_t> bytes);

    // Fills `out` from a place on. Returns how many bytes there were.
    std::size_t read_at(uint64_t offset, std::span<uint8_t> out) const { return file_->read_at(offset, out); }

  private:
    std::optional<DiskFile> file_;
};
