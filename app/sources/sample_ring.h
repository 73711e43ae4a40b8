// Samples on their way from a sound system's callback, which must never wait, to whoever reads them.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// One thread pushes, another takes. What finds no room is dropped, and with it all that follows until the rest has been
// taken: so it is known where samples are missing, and how many.
class SampleRing {
  public:
    // Throws std::bad_alloc.
    explicit SampleRing(std::size_t room) : ring_(room) {}

    // False when the samples were dropped.
    bool push(std::span<const float> samples) {
        const uint64_t written = written_.load(std::memory_order_relaxed);
        const uint64_t room = ring_.size() - (written - read_.load(std::memory_order_acquire));
        if (dropped_.load(std::memory_order_acquire) > 0 || samples.size() > room) {
            dropped_.fetch_add(samples.size(), std::memory_order_release);
            return false;
        }
        const std::size_t slot = written % ring_.size();
        const std::size_t straight = std::min(samples.size(), ring_.size() - slot);
        std::ranges::copy(samples.first(straight), ring_.begin() + static_cast<std::ptrdiff_t>(slot));
        std::ranges::copy(samples.subspan(straight), ring_.begin());
        written_.store(written + samples.size(), std::memory_order_release);
        return true;
    }

    // All samples that are there. Returns how many were dropped right before them.
    uint64_t take(std::vector<float>& samples) {
        const uint64_t read = read_.load(std::memory_order_relaxed);
        const bool some_dropped = dropped_.load(std::memory_order_acquire) > 0;  // then nothing more is written
        const uint64_t written = written_.load(std::memory_order_acquire);
        const auto count = static_cast<std::size_t>(written - read);
        samples.resize(count);
        const std::size_t slot = read % ring_.size();
        const std::size_t straight = std::min(count, ring_.size() - slot);
        std::copy_n(ring_.begin() + static_cast<std::ptrdiff_t>(slot), straight, samples.begin());
        std::copy_n(ring_.begin(), count - straight, samples.begin() + static_cast<std::ptrdiff_t>(straight));
        read_.store(written, std::memory_order_release);
        const uint64_t before = lost_;
        lost_ = count > 0 ? 0 : lost_;
        if (some_dropped) lost_ += dropped_.exchange(0, std::memory_order_acq_rel);
        return count > 0 ? before : 0;
    }

  private:
    std::vector<float> ring_;
    std::atomic<uint64_t> written_ = 0;  // samples, ever
    std::atomic<uint64_t> read_ = 0;
    std::atomic<uint64_t> dropped_ = 0;  // behind all that is in the ring
    uint64_t lost_ = 0;                  // before the next that are taken
};
