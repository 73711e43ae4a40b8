// Raw samples from standard input, as they arrive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class RawInput {
  public:
    struct Format {
        bool is_float;  // 32-bit floating-point samples of full scale 1, else 16-bit integers; both little-endian
        int32_t channels;
        int32_t rate;  // Hz
    };
    explicit RawInput(const Format& format);

    // Waits for samples: whole frames, interleaved, full scale 1. What is not a number, or beyond any scale, is
    // silence. False at the end of the input, after an interrupt, or, with a line on standard error, when it cannot be
    // read. Throws IoError when the input is a sound file rather than samples.
    bool read(std::vector<float>& samples);

    bool failed() const { return failed_; }

  private:
    void require_raw() const;
    void convert(std::vector<float>& samples);
    template <class Integer>
    Integer little_endian(std::size_t at) const;

    bool is_float_;
    std::size_t frame_bytes_;
    std::vector<uint8_t> bytes_;
    std::size_t held_ = 0;
    bool begun_ = false;
    bool failed_ = false;
};
