// The functions of the C library are replaced where the linker sees calls of them (--wrap), operator new by being
// defined here. A table of the watched blocks says whose they are when they are freed, so that nothing needs to be kept
// in the blocks themselves.
#include "failing_memory.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
void* __real_fftw_malloc(std::size_t size);
void __real_fftw_free(void* block);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
void __wrap_free(void* block);
void* __wrap_fftw_malloc(std::size_t size);
void __wrap_fftw_free(void* block);
}

namespace {

// Memory for the table itself.
template <class T>
struct UnwatchedAllocator {
    using value_type = T;
    UnwatchedAllocator() = default;
    template <class Other>
    explicit(false) UnwatchedAllocator(const UnwatchedAllocator<Other>&) {}

    T* allocate(std::size_t n) {
        void* const block = __real_malloc(n * sizeof(T));
        if (block == nullptr) std::abort();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t) { __real_free(block); }
    bool operator==(const UnwatchedAllocator&) const { return true; }
};

struct Block {
    FailingMemory* owner;
    std::size_t size;
};
using Table = std::unordered_map<void*, Block, std::hash<void*>, std::equal_to<>,
                                 UnwatchedAllocator<std::pair<void* const, Block>>>;

thread_local constinit FailingMemory* watching = nullptr;

std::mutex lock;

// Never destroyed: blocks are freed until the very end of the process.
Table& table() {
    alignas(Table) static std::byte place[sizeof(Table)];
    static Table* const made = new (place) Table;
    return *made;
}

}  // namespace

class MemoryBooks {
  public:
    static bool refuses(std::size_t size) {
        FailingMemory* const memory = watching;
        if (memory == nullptr) return false;
        memory->requests_++;
        memory->largest_ = std::max(memory->largest_, size);
        const bool refused = memory->refuses_ == Refuses::ONE
                                 ? memory->requests_ == memory->refused_
                                 : memory->refused_ > 0 && memory->requests_ >= memory->refused_;
        if (refused) memory->has_refused_ = true;
        return refused;
    }

    static void* taken(void* block, std::size_t size) {
        FailingMemory* const memory = watching;
        if (memory == nullptr || block == nullptr) return block;
        const std::lock_guard guard(lock);
        table()[block] = {memory, size};
        memory->live_blocks_++;
        memory->live_bytes_ += size;
        memory->peak_bytes_ = std::max(memory->peak_bytes_, memory->live_bytes_);
        return block;
    }

    static void given_back(void* block) {
        if (block == nullptr) return;
        const std::lock_guard guard(lock);
        const auto found = table().find(block);
        if (found == table().end()) return;
        found->second.owner->live_blocks_--;
        found->second.owner->live_bytes_ -= found->second.size;
        table().erase(found);
    }

    static void forget(const FailingMemory* owner) {
        const std::lock_guard guard(lock);
        std::erase_if(table(), [owner](const auto& entry) { return entry.second.owner == owner; });
    }
};

FailingMemory::~FailingMemory() {
    MemoryBooks::forget(this);
}

FailingMemory::Watch::Watch(FailingMemory& memory) {
    if (watching != nullptr) std::abort();
    watching = &memory;
}

FailingMemory::Watch::~Watch() {
    watching = nullptr;
}

// ---- The C library and FFTW ----------------------------------------------------------------------------------------

void* __wrap_malloc(std::size_t size) {
    return MemoryBooks::refuses(size) ? nullptr : MemoryBooks::taken(__real_malloc(size), size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    return MemoryBooks::refuses(count * size) ? nullptr : MemoryBooks::taken(__real_calloc(count, size), count * size);
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (MemoryBooks::refuses(size)) return nullptr;  // the old block stays
    MemoryBooks::given_back(block);
    return MemoryBooks::taken(__real_realloc(block, size), size);
}

void __wrap_free(void* block) {
    MemoryBooks::given_back(block);
    __real_free(block);
}

void* __wrap_fftw_malloc(std::size_t size) {
    return MemoryBooks::refuses(size) ? nullptr : MemoryBooks::taken(__real_fftw_malloc(size), size);
}

void __wrap_fftw_free(void* block) {
    MemoryBooks::given_back(block);
    __real_fftw_free(block);
}

// ---- operator new --------------------------------------------------------------------------------------------------

namespace {

void* take(std::size_t size) noexcept {
    return MemoryBooks::refuses(size) ? nullptr
                                      : MemoryBooks::taken(__real_malloc(std::max<std::size_t>(size, 1)), size);
}

void* take_aligned(std::size_t size, std::align_val_t alignment) noexcept {
    if (MemoryBooks::refuses(size)) return nullptr;
    void* block = nullptr;
    if (posix_memalign(&block, static_cast<std::size_t>(alignment), std::max<std::size_t>(size, 1)) != 0)
        return nullptr;
    return MemoryBooks::taken(block, size);
}

void* or_throw(void* block) {
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void give_back(void* block) noexcept {
    __wrap_free(block);
}

}  // namespace

void* operator new(std::size_t size) {
    return or_throw(take(size));
}
void* operator new[](std::size_t size) {
    return or_throw(take(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return take(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return take(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return or_throw(take_aligned(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return or_throw(take_aligned(size, alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return take_aligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return take_aligned(size, alignment);
}
void operator delete(void* block) noexcept {
    give_back(block);
}
void operator delete[](void* block) noexcept {
    give_back(block);
}
void operator delete(void* block, std::size_t) noexcept {
    give_back(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    give_back(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    give_back(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    give_back(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    give_back(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    give_back(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    give_back(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    give_back(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    give_back(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    give_back(block);
}
