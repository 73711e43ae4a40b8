// Writers of recordings, whatever their kind.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

class SampleWriter {
  public:
    virtual ~SampleWriter() = default;

    // Interleaved samples of full scale 1, whole frames of them. False when the file takes no more.
    virtual bool write(std::span<const float> samples) = 0;

    // Finishes the file. Throws IoError when it could not be opened or written.
    virtual void close() = 0;

    virtual int64_t clipped() const = 0;  // 16-bit samples beyond full scale so far
};

// Samples rounded to the nearest of 16 bits. Returns how many were beyond full scale, and clipped.
int64_t round_to_s16(std::span<const float> samples, std::vector<int16_t>& rounded);
