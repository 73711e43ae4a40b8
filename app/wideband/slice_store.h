// The newest samples of all slices of a wide band, as 16-bit I and Q with a scale for every eighth of a second or so.
#pragma once

#include <complex>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

class SliceStore {
  public:
    static constexpr int64_t CHUNK = 512;  // samples

    // Holds `capacity` samples of each slice, and a little more. Throws std::bad_alloc.
    //
    //   first   the number of the first sample that comes: chunks lie where they would had all before it come
    SliceStore(std::size_t slices, int64_t capacity, int64_t first = 0);

    // The next samples of one slice; the oldest go. One thread.
    void append(std::size_t slice, std::span<const std::complex<float>> samples);

    // The end of what was appended of a slice by whole chunks.
    int64_t stored(std::size_t slice) const { return slices_[slice].chunks * CHUNK; }

    // Samples that copy() serves when this many are stored: from the first on.
    int64_t oldest(int64_t stored) const;

    // Fills the last chunk of a slice with silence.
    void complete(std::size_t slice);

    // Copies samples from `first` on that are stored and stay so meanwhile. Any thread, beside append().
    void copy(std::size_t slice, int64_t first, std::span<std::complex<float>> out) const;

  private:
    struct Pair {
        int16_t i, q;
    };
    struct Slice {
        int64_t chunks = 0;
        std::vector<std::complex<float>> begun;  // the chunk that is not full
    };
    void store_chunk(std::size_t slice);
    std::size_t place(std::size_t slice, int64_t chunk) const {
        return slice * static_cast<std::size_t>(chunks_) + static_cast<std::size_t>(chunk % chunks_);
    }

    int64_t chunks_;                 // of a slice
    std::unique_ptr<Pair[]> pairs_;  // touched as it fills
    std::unique_ptr<float[]> scales_;
    std::vector<Slice> slices_;
};
