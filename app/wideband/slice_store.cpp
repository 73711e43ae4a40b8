#include "wideband/slice_store.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace {

constexpr float MOST = 32767;
constexpr float LEAST = 1e-30F;  // of a chunk that is not silence: units per sample stay finite

// Magnitudes compare as their bits do, and of integers a compiler takes several at once.
float greatest_of(const float* values, std::size_t n) {
    int32_t greatest = 0;
    for (std::size_t k = 0; k < n; k++) greatest = std::max(greatest, std::bit_cast<int32_t>(std::fabs(values[k])));
    return std::bit_cast<float>(greatest);
}

// Rounds half up.
int16_t rounded(float value) {
    constexpr float SHIFT = 32768;  // conversion to an integer cuts off, so that of what is positive is wanted
    return static_cast<int16_t>(static_cast<int32_t>(value + (SHIFT + 0.5F)) - static_cast<int32_t>(SHIFT));
}

}  // namespace

SliceStore::SliceStore(std::size_t slices, int64_t capacity, int64_t first)
    : chunks_((capacity + CHUNK - 1) / CHUNK + 1),
      pairs_(std::make_unique_for_overwrite<Pair[]>(slices * static_cast<std::size_t>(chunks_ * CHUNK))),
      scales_(std::make_unique_for_overwrite<float[]>(slices * static_cast<std::size_t>(chunks_))),
      slices_(slices) {
    for (Slice& slice : slices_) {
        slice.begun.reserve(CHUNK);
        slice.begun.resize(static_cast<std::size_t>(first % CHUNK));
        slice.chunks = first / CHUNK;
    }
}

void SliceStore::append(std::size_t slice, std::span<const std::complex<float>> samples) {
    auto& begun = slices_[slice].begun;
    while (!samples.empty()) {
        const std::size_t n = std::min(samples.size(), static_cast<std::size_t>(CHUNK) - begun.size());
        begun.insert(begun.end(), samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(n));
        samples = samples.subspan(n);
        if (begun.size() == CHUNK) store_chunk(slice);
    }
}

void SliceStore::complete(std::size_t slice) {
    auto& begun = slices_[slice].begun;
    if (begun.empty()) return;
    begun.resize(CHUNK);
    store_chunk(slice);
}

void SliceStore::store_chunk(std::size_t slice) {
    auto& begun = slices_[slice].begun;
    const auto* const values = reinterpret_cast<const float*>(begun.data());
    const float greatest = greatest_of(values, 2 * CHUNK);
    const float units = greatest >= LEAST ? MOST / greatest : 0;
    const std::size_t chunk = place(slice, slices_[slice].chunks++);
    scales_[chunk] = greatest / MOST;
    Pair* const pairs = pairs_.get() + chunk * CHUNK;
    for (std::size_t k = 0; k < CHUNK; k++) {
        pairs[k] = {rounded(values[2 * k] * units), rounded(values[2 * k + 1] * units)};
    }
    begun.clear();
}

int64_t SliceStore::oldest(int64_t stored) const {
    return std::max<int64_t>(0, stored - chunks_ * CHUNK);
}

void SliceStore::copy(std::size_t slice, int64_t first, std::span<std::complex<float>> out) const {
    while (!out.empty()) {
        const std::size_t chunk = place(slice, first / CHUNK);
        const auto begin = static_cast<std::size_t>(first % CHUNK);
        const std::size_t n = std::min(out.size(), static_cast<std::size_t>(CHUNK) - begin);
        const float scale = scales_[chunk];
        const Pair* const from = pairs_.get() + chunk * CHUNK + begin;
        std::transform(from, from + n, out.begin(), [scale](const Pair& pair) {
            return std::complex<float>(scale * static_cast<float>(pair.i), scale * static_cast<float>(pair.q));
        });
        first += static_cast<int64_t>(n);
        out = out.subspan(n);
    }
}
