#include <sys/mman.h>
#include <sys/types.h>

#include <chrono>
#include <cstdlib>

#include "platform.h"

static_assert(sizeof(off_t) == 8, "recordings may be longer than 2 GiB");

std::FILE* platform_open(const char* path, const char* mode) {
    return std::fopen(path, mode);
}

bool platform_seek(std::FILE* file, int64_t offset, int whence) {
    return fseeko(file, static_cast<off_t>(offset), whence) == 0;
}

int64_t platform_tell(std::FILE* file) {
    return ftello(file);
}

void platform_at_exit(void (*function)()) {
    std::atexit(function);
}

void platform_prefer_big_pages([[maybe_unused]] void* buffer, [[maybe_unused]] std::size_t bytes) noexcept {
#if defined(MADV_HUGEPAGE)
    constexpr std::size_t PAGE = 4096;
    const std::size_t before = (PAGE - reinterpret_cast<std::uintptr_t>(buffer) % PAGE) % PAGE;  // of the first page
    if (bytes > before) madvise(static_cast<char*>(buffer) + before, (bytes - before) / PAGE * PAGE, MADV_HUGEPAGE);
#endif
}

double platform_now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}
