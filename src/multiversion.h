// ORVEL_MULTIVERSION before a function compiles it for plain x86-64, AVX2 and AVX-512; the loader picks the version
// that the machine can run. All versions give the same results: none may fuse a multiplication with an addition. The
// function must not throw, however it is declared: the compiler assumes that calls of it do not, so an exception would
// end the process. Elsewhere, and under sanitizers, which are not yet set up when the loader chooses, there is one
// version.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define ORVEL_ONE_VERSION
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVEL_ONE_VERSION
#endif

#if defined(__x86_64__) && defined(__gnu_linux__) && defined(__GNUC__) && !defined(ORVEL_ONE_VERSION)
#define ORVEL_MULTIVERSION __attribute__((target_clones("default", "avx2", "avx512f")))
#else
#define ORVEL_MULTIVERSION
#endif

// Numbers side by side, as many as a register of AVX2 holds: GCC keeps wider vectors in memory.
// Plain x86-64 aligns them by 16, the version for AVX2 takes them to be aligned by 32: a type on the heap that holds
// them says alignas(32).
inline constexpr std::size_t FLOATS = 8;
using Floats8 [[gnu::vector_size(FLOATS * sizeof(float))]] = float;
using Ints8 [[gnu::vector_size(FLOATS * sizeof(int32_t))]] = int32_t;
using Floats4 [[gnu::vector_size(4 * sizeof(float))]] = float;
using Doubles4 [[gnu::vector_size(4 * sizeof(double))]] = double;

// Two such vectors, for loops in which one would wait for its own last result.
inline constexpr std::size_t DOUBLES = 8;
struct Doubles8 {
    Doubles4 low, high;

    double operator[](std::size_t i) const { return i < DOUBLES / 2 ? low[i] : high[i - DOUBLES / 2]; }
    Doubles8& operator+=(const Doubles8& b) {
        low += b.low;
        high += b.high;
        return *this;
    }
};
inline Doubles8 operator+(const Doubles8& a, const Doubles8& b) {
    return {a.low + b.low, a.high + b.high};
}
inline Doubles8 operator-(const Doubles8& a, const Doubles8& b) {
    return {a.low - b.low, a.high - b.high};
}
inline Doubles8 operator*(const Doubles8& a, const Doubles8& b) {
    return {a.low * b.low, a.high * b.high};
}
inline Doubles8 operator+(const Doubles8& a, double b) {
    return {a.low + b, a.high + b};
}
inline Doubles8 operator*(const Doubles8& a, double b) {
    return {a.low * b, a.high * b};
}
inline Doubles8 operator*(double a, const Doubles8& b) {
    return b * a;
}

// At any address. GCC copies with memcpy in halves, which the processor cannot forward to a read of the whole.
using Floats8Anywhere [[gnu::vector_size(sizeof(Floats8)), gnu::aligned(alignof(float)), gnu::may_alias]] = float;
using Floats4Anywhere [[gnu::vector_size(sizeof(Floats4)), gnu::aligned(alignof(float)), gnu::may_alias]] = float;
using Doubles4Anywhere [[gnu::vector_size(sizeof(Doubles4)), gnu::aligned(alignof(double)), gnu::may_alias]] = double;

inline void load(Floats4& out, const float* from) {
    out = *reinterpret_cast<const Floats4Anywhere*>(from);
}
inline void store(const Floats4& values, float* to) {
    *reinterpret_cast<Floats4Anywhere*>(to) = values;
}
inline void load(Doubles4& out, const double* from) {
    out = *reinterpret_cast<const Doubles4Anywhere*>(from);
}
inline void store(const Doubles4& values, double* to) {
    *reinterpret_cast<Doubles4Anywhere*>(to) = values;
}
inline void load(Doubles8& out, const double* from) {
    load(out.low, from);
    load(out.high, from + DOUBLES / 2);
}
inline void load(Floats8& out, const float* from) {
    out = *reinterpret_cast<const Floats8Anywhere*>(from);
}
inline void store(const Floats8& values, float* to) {
    *reinterpret_cast<Floats8Anywhere*>(to) = values;
}
inline double sum_of(const Doubles8& x) {
    return ((x[0] + x[4]) + (x[2] + x[6])) + ((x[1] + x[5]) + (x[3] + x[7]));
}
