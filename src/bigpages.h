// Large buffers come and go with every block: the kernel clears and maps their pages one by one. In large pages that is
// a fiftieth of the work.
#pragma once

#include <cstddef>
#include <memory>

#include "platform.h"

// Before a buffer, which may be null, is first touched.
inline void prefer_big_pages(void* buffer, std::size_t bytes) noexcept {
    constexpr std::size_t WORTH_IT = std::size_t{8} << 20;
    if (buffer != nullptr && bytes >= WORTH_IT) platform_prefer_big_pages(buffer, bytes);
}

// An array that is still to be filled. Throws std::bad_alloc.
template <class T>
std::unique_ptr<T[]> big_array(std::size_t count) {
    auto array = std::make_unique_for_overwrite<T[]>(count);
    prefer_big_pages(array.get(), count * sizeof(T));
    return array;
}
