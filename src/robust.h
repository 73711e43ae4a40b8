// Robust statistics of the receive chain: the level of noise with signals in it, and what stands out from it.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

#include "median.h"

// Noise powers are exponentially distributed: their median is this share of their mean. Results depend on the digits
// and the precision.
inline constexpr double LN2 = 0.6931472;
inline constexpr float LN2_F32 = 0.6931472f;

// Noise level where there is none, as in digital silence.
inline constexpr float NOISE_FLOOR = 1e-30f;

// Median of a statistic, and its standard deviation, estimated as for a normal distribution.
struct RobustStatistics {
    float median;
    double sigma;  // above 0
};

// By one of the medians of median.h. Overwrites the values.
template <class Median>
RobustStatistics robust_statistics(std::span<float> values, Median median_of_values) {
    constexpr double SIGMA_PER_MAD = 1.4826;  // standard deviation / median absolute deviation
    constexpr double LEAST_SIGMA = 1e-9;
    const float median = median_of_values(values);
    for (float& value : values) value = std::fabs(value - median);
    const double sigma = SIGMA_PER_MAD * median_of_values(values);
    return {median, sigma > 0 ? sigma : LEAST_SIGMA};
}

// Whether no neighbour of a value in a grid is greater; each point of a flat top is a peak. rows(r) gives row r as a
// span.
template <class Rows>
bool is_peak(const Rows& rows, int64_t n_rows, int64_t row, std::size_t column) {
    const float value = rows(row)[column];
    const std::size_t left = column > 0 ? column - 1 : 0;
    for (int64_t r = std::max<int64_t>(row - 1, 0); r <= std::min(row + 1, n_rows - 1); r++) {
        const std::span<const float> values = rows(r);
        const std::size_t right = std::min(column + 2, values.size());
        if (std::ranges::any_of(values.subspan(left, right - left), [&](float other) { return other > value; })) {
            return false;
        }
    }
    return true;
}

// Copies the strongest item of each neighbourhood while there is room: an item is kept if near(kept, item) holds for
// none kept before it. Returns the number kept.
template <class Item, class Near>
int32_t thin_out(std::span<const Item> sorted, std::span<Item> out, const Near& near) {
    std::size_t kept = 0;
    for (const Item& item : sorted) {
        if (kept == out.size()) break;
        const bool taken = std::ranges::any_of(out.first(kept), [&](const Item& other) { return near(other, item); });
        if (!taken) out[kept++] = item;
    }
    return static_cast<int32_t>(kept);
}
