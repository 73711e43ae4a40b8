// A range of floating-point numbers is narrowed until one is left, the smallest that has enough values at or below it.
// Each step counts values, which vectorises and needs no branch; sorting or partitioning would move them about and
// mispredict every other comparison. Where to count is read off a few values first and interpolated then, which finds
// most ranks in half a dozen steps; every third step halves the range, so that no values take more than a hundred.
#include "median.h"

#include <algorithm>
#include <array>
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

constexpr float NONE = -std::numeric_limits<float>::infinity();

// Maxima side by side, as a compiler leaves one in order.
class Greatest {
  public:
    void take(const Floats8& values, const Ints8& chosen) {
        const Floats8 value = chosen ? values : NONE - Floats8{};
        lanes_ = value > lanes_ ? value : lanes_;
    }
    void take(float value, bool chosen) { rest_ = chosen && value > rest_ ? value : rest_; }
    float value() const {
        float all = rest_;
        for (std::size_t lane = 0; lane < FLOATS; lane++) all = lanes_[lane] > all ? lanes_[lane] : all;
        return all;
    }

  private:
    Floats8 lanes_ = NONE - Floats8{};
    float rest_ = NONE;
};

// How many values are below a limit, and the greatest of them; -infinity when there is none.
struct Below {
    std::size_t count;
    float greatest;
};
ORVEL_MULTIVERSION Below find_below(const float* values, std::size_t n, float limit) {
    Greatest greatest;
    std::size_t count = 0;
    std::size_t i = 0;
    while (i + FLOATS <= n) {
        Ints8 below{};
        for (const std::size_t end = std::min(n, i + CHUNK); i + FLOATS <= end; i += FLOATS) {
            Floats8 value;
            load(value, values + i);
            greatest.take(value, value < limit);
            below -= value < limit;
        }
        for (std::size_t lane = 0; lane < FLOATS; lane++) count += static_cast<std::size_t>(below[lane]);
    }
    for (; i < n; i++) {
        greatest.take(values[i], values[i] < limit);
        count += values[i] < limit ? 1 : 0;
    }
    return {count, greatest.value()};
}

// The greatest of the values at or below a limit.
ORVEL_MULTIVERSION float greatest_up_to(const float* values, std::size_t n, float limit) {
    Greatest greatest;
    std::size_t i = 0;
    for (; i + FLOATS <= n; i += FLOATS) {
        Floats8 value;
        load(value, values + i);
        greatest.take(value, value <= limit);
    }
    for (; i < n; i++) greatest.take(values[i], values[i] <= limit);
    return greatest.value();
}

// The keys between which a rank lies, and how many values are below the lower and at or below the higher.
struct Bracket {
    uint32_t low, high;
    std::size_t below, upto;

    // Halfway.
    uint32_t middle() const { return low + (high - low) / 2; }

    // Where the values up to a rank should end if they are spread evenly.
    uint32_t guess(std::size_t rank) const {
        const double first = value_of(low);
        const double last = value_of(high);
        const double share = static_cast<double>(rank + 1 - below) / static_cast<double>(upto - below);
        const double value = first + share * (last - first);
        return std::isfinite(value) ? limited(key_of(static_cast<float>(value))) : middle();
    }
    uint32_t limited(uint32_t key) const { return std::clamp(key, low, high - 1); }

    void narrow(uint32_t key, std::size_t count, std::size_t rank) {
        (count > rank ? high : low) = count > rank ? key : key + 1;
        (count > rank ? upto : below) = count;
    }
};

// Keys that a rank is likely to lie between, from a few of the values.
constexpr std::size_t PROBES = 12;
std::array<uint32_t, 2> likely_keys(std::span<const float> values, std::size_t rank) {
    constexpr std::size_t MARGIN = 3;
    std::array<float, PROBES> probes;
    const std::size_t step = values.size() / PROBES;
    for (std::size_t i = 0; i < PROBES; i++) {
        const float value = values[i * step + step / 2];
        probes[i] = std::isnan(value) ? std::numeric_limits<float>::infinity() : value;
    }
    std::ranges::sort(probes);
    const std::size_t place = std::min(rank / step, PROBES - 1);
    return {key_of(probes[std::min(place + MARGIN, PROBES - 1)]), key_of(probes[place - std::min(place, MARGIN)])};
}

}  // namespace

float select_rank(std::span<const float> values, std::size_t rank) {
    constexpr float INF = std::numeric_limits<float>::infinity();
    const auto count = [&](float limit) { return count_up_to(values.data(), values.size(), limit); };
    Bracket bracket{key_of(-INF), key_of(INF), 0, count(INF)};
    if (bracket.upto <= rank) return std::numeric_limits<float>::quiet_NaN();
    const auto narrow = [&](uint32_t key) { bracket.narrow(key, count(value_of(key)), rank); };
    if (values.size() >= PROBES) {
        for (const uint32_t key : likely_keys(values, rank)) {
            if (key >= bracket.low && key < bracket.high) narrow(key);
        }
    }
    for (int32_t step = 1; bracket.low < bracket.high; step++) {
        if (rank + 1 == bracket.upto) {
            return greatest_up_to(values.data(), values.size(), value_of(bracket.high)) + 0.0f;
        }
        narrow(step % 3 == 0 ? bracket.middle() : bracket.guess(rank));
    }
    return value_of(bracket.low) + 0.0f;  // +0, never -0: its sign shows in whatever is divided by it
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
