#include "wideband/slice_store.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float MOST = 32767;

}  // namespace

SliceStore::SliceStore(std::size_t slices, int64_t capacity)
    : chunks_((capacity + CHUNK - 1) / CHUNK + 1),
      pairs_(std::make_unique_for_overwrite<Pair[]>(slices * static_cast<std::size_t>(chunks_ * CHUNK))),
      scales_(std::make_unique_for_overwrite<float[]>(slices * static_cast<std::size_t>(chunks_))),
      slices_(slices) {
    for (Slice& slice : slices_) slice.begun.reserve(CHUNK);
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
    float greatest = 0;
    for (const auto& sample : begun) {
        greatest = std::max({greatest, std::fabs(sample.real()), std::fabs(sample.imag())});
    }
    const float units = greatest > 0 ? MOST / greatest : 0;
    const std::size_t chunk = place(slice, slices_[slice].chunks++);
    scales_[chunk] = greatest / MOST;
    std::ranges::transform(begun, pairs_.get() + chunk * CHUNK, [units](const std::complex<float>& sample) {
        return Pair{static_cast<int16_t>(std::lrint(sample.real() * units)),
                    static_cast<int16_t>(std::lrint(sample.imag() * units))};
    });
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
