// Bytes as a file that can be opened by its path and disappears with the object.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "input.h"

class MemoryFile {
  public:
    MemoryFile(const uint8_t* data, std::size_t size) : descriptor_(memfd_create("recording", 0)) {
        expect(descriptor_ >= 0);
        for (std::size_t written = 0; written < size;) {
            const ssize_t n = write(descriptor_, data + written, size - written);
            expect(n > 0);
            written += static_cast<std::size_t>(n);
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { close(descriptor_); }

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};
