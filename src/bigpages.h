// Large buffers come and go with every block: the kernel clears and maps their pages one by one. In large pages that is
// a fiftieth of the work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#if defined(__linux__)
#include <sys/mman.h>
#endif

// Before a buffer is first touched. A hint: it may change nothing.
inline void prefer_big_pages([[maybe_unused]] void* buffer, [[maybe_unused]] std::size_t bytes) noexcept {
#if defined(__linux__)
    constexpr std::size_t WORTH_IT = std::size_t{8} << 20;
    constexpr std::size_t PAGE = 4096;
    if (buffer == nullptr || bytes < WORTH_IT) return;
    const std::size_t before = (PAGE - reinterpret_cast<std::uintptr_t>(buffer) % PAGE) % PAGE;  // of the first page
    madvise(static_cast<char*>(buffer) + before, (bytes - before) / PAGE * PAGE, MADV_HUGEPAGE);
#endif
}

// An array that is still to be filled. Throws std::bad_alloc.
template <class T>
std::unique_ptr<T[]> big_array(std::size_t count) {
    auto array = std::make_unique_for_overwrite<T[]>(count);
    prefer_big_pages(array.get(), count * sizeof(T));
    return array;
}
