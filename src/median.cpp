// Halving the range of floating-point numbers 32 times leaves one: the smallest that has enough values at or below it.
// Each step counts values, which vectorises and needs no branch; sorting or partitioning would move them about and
// mispredict every other comparison.
#include "median.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "multiversion.h"

namespace {

// Keys in the order of the numbers: the bits of negative numbers are inverted.
constexpr uint32_t SIGN = 0x80000000u;
uint32_t key_of(float value) {
    const auto bits = std::bit_cast<uint32_t>(value);
    return (bits & SIGN) != 0 ? ~bits : bits | SIGN;
}
float value_of(uint32_t key) {
    return std::bit_cast<float>((key & SIGN) != 0 ? key & ~SIGN : ~key);
}

// Values are counted in chunks, so that a count fits a lane as wide as a value.
constexpr std::size_t CHUNK = 1 << 20;

// How many values are at or below a limit.
ORVEL_MULTIVERSION std::size_t count_up_to(const float* values, std::size_t n, float limit) {
    std::size_t total = 0;
    for (std::size_t first = 0; first < n; first += CHUNK) {
        const std::size_t end = std::min(first + CHUNK, n);
        int32_t count = 0;
        for (std::size_t i = first; i < end; i++) count += values[i] <= limit ? 1 : 0;
        total += static_cast<std::size_t>(count);
    }
    return total;
}

// How many values are below a limit, and the greatest of them; -infinity when there is none.
struct Below {
    std::size_t count;
    float greatest;
};
ORVEL_MULTIVERSION Below find_below(const float* values, std::size_t n, float limit) {
    constexpr float NONE = -std::numeric_limits<float>::infinity();
    Below below{0, NONE};
    for (std::size_t first = 0; first < n; first += CHUNK) {
        const std::size_t end = std::min(first + CHUNK, n);
        int32_t count = 0;
        float greatest = NONE;
        for (std::size_t i = first; i < end; i++) {
            const float value = values[i] < limit ? values[i] : NONE;
            count += values[i] < limit ? 1 : 0;
            greatest = value > greatest ? value : greatest;
        }
        below.count += static_cast<std::size_t>(count);
        below.greatest = std::max(below.greatest, greatest);
    }
    return below;
}

}  // namespace

float select_rank(std::span<const float> values, std::size_t rank) {
    constexpr float INF = std::numeric_limits<float>::infinity();
    uint32_t low = key_of(-INF);
    uint32_t high = key_of(INF);
    if (count_up_to(values.data(), values.size(), INF) <= rank) return std::numeric_limits<float>::quiet_NaN();
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (count_up_to(values.data(), values.size(), value_of(middle)) > rank) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return value_of(low) + 0.0f;  // +0, never -0: its sign shows in whatever is divided by it
}

float median_value(std::span<const float> values) {
    if (values.empty()) return 0;
    const float upper = upper_median(values);
    if (values.size() % 2 == 1 || std::isnan(upper)) return upper;
    // The other middle value is the greatest below the upper one, or equals it where too few are below.
    const Below below = find_below(values.data(), values.size(), upper);
    const float lower = below.count == values.size() / 2 ? below.greatest : upper;
    return (lower + upper) * 0.5f;
}
