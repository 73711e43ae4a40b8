// How a program begins: its command line, and the streams that it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

// The words of the command line, which main() has as these. From here on the standard streams pass all bytes on as they
// are, and a terminal takes them for UTF-8.
std::vector<std::string> begin_program(int argc, char** argv);

// Whether a path is that of a named pipe, which can be read only once.
bool is_named_pipe(const std::string& path);

// What comes once: standard input, or a named pipe.
class InputStream {
  public:
    // "-" is standard input. Waits for the writer of a named pipe. Throws IoError, here and below, whose text is the
    // reason.
    explicit InputStream(const std::string& path);
    InputStream(const InputStream&) = delete;
    InputStream& operator=(const InputStream&) = delete;
    InputStream(InputStream&& other) noexcept;
    ~InputStream();

    // Waits for bytes. Returns how many; 0 at the end.
    std::size_t read(std::span<uint8_t> room) const;

    // As the C library numbers it.
    int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

// Bytes of standard input that come within a time: nothing when none come, 0 at the end. Throws IoError.
std::optional<std::size_t> read_standard_input(std::span<uint8_t> room, double seconds);
