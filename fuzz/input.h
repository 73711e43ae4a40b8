// What fuzzers share: values drawn from the bytes of an input, and promises that end the process when they are broken.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

// A promise of the code under test. A broken one ends the process; the stack that libFuzzer then prints says which.
inline void expect(bool kept) {
    if (!kept) std::abort();
}

// Bytes that integer() takes for a range.
inline std::size_t bytes_for(int64_t low, int64_t high) {
    const auto span = static_cast<uint64_t>(high - low);
    return span <= UINT8_MAX ? 1 : span <= UINT16_MAX ? 2 : span <= UINT32_MAX ? 4 : 8;
}

// Values in the order of the bytes, so that seeds can be written by hand (see make_corpus.cpp). Past the end of the
// input every byte is 0.
class Input {
  public:
    Input(const uint8_t* data, std::size_t size) : next_(data), left_(size) {}

    std::size_t left() const { return left_; }

    // The bytes of a number as memory holds them.
    template <class T>
    T raw() {
        std::array<uint8_t, sizeof(T)> bytes{};
        take(bytes.data(), bytes.size());
        T value;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    // In [low, high], both included.
    int64_t integer(int64_t low, int64_t high) {
        uint64_t value = 0;
        std::array<uint8_t, 8> bytes{};
        take(bytes.data(), bytes_for(low, high));
        for (std::size_t i = bytes.size(); i > 0; i--) value = value << 8 | bytes[i - 1];
        return low + static_cast<int64_t>(value % (static_cast<uint64_t>(high - low) + 1));
    }
    int32_t int32(int32_t low, int32_t high) { return static_cast<int32_t>(integer(low, high)); }
    bool flag() { return (raw<uint8_t>() & 1) != 0; }

    // In [low, high], in 65535 steps.
    double number(double low, double high) { return low + (high - low) * raw<uint16_t>() / 65535.0; }

    // Any number at all; often an edge case.
    double any_double() {
        constexpr double INFINITE = std::numeric_limits<double>::infinity();
        constexpr std::array EDGES = {
            0.0,    -0.0,         -1.0,          1e-300,    1e300,
            -1e300, 2147483647.0, -2147483648.0, 1e9,       -1e9,
            5e-324, 1e18,         INFINITE,      -INFINITE, std::numeric_limits<double>::quiet_NaN()};
        const auto choice = static_cast<std::size_t>(int32(0, EDGES.size()));
        return choice < EDGES.size() ? EDGES[choice] : raw<double>();
    }
    // A number in [low, high], or, one time in eight, any.
    double mostly(double low, double high) { return int32(0, 7) == 7 ? any_double() : number(low, high); }

    // At most `most` bytes without a NUL; their number comes first.
    std::string text(int32_t most) {
        std::string text(static_cast<std::size_t>(int32(0, most)), '\0');
        text.resize(std::min(text.size(), left_));
        take(text.data(), text.size());
        return text.substr(0, text.find('\0'));
    }

    // All that is left.
    std::string rest() {
        std::string text(left_, '\0');
        take(text.data(), text.size());
        return text;
    }

  private:
    void take(void* to, std::size_t n) {
        n = std::min(n, left_);
        if (n == 0) return;
        std::memcpy(to, next_, n);
        next_ += n;
        left_ -= n;
    }

    const uint8_t* next_;
    std::size_t left_;
};
