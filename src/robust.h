// Robust statistics of the receive chain: what noise looks like when some of it is signal, and what stands out of it.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

#include "median.h"

// Noise powers are distributed exponentially: their median is so much of their mean. The digits and the precision are
// part of the results.
inline constexpr double LN2 = 0.6931472;
inline constexpr float LN2_F32 = 0.6931472f;

// Noise where there is none.
inline constexpr float NOISE_FLOOR = 1e-30f;

// Median of a statistic, and its standard deviation as far as it is that of a normal distribution.
struct RobustStatistics {
    float median;
    double sigma;  // above 0
};

// By one of the medians of median.h. Uses up the values.
template <class Median>
RobustStatistics robust_statistics(std::span<float> values, Median median_of_values) {
    constexpr double SIGMA_PER_MAD = 1.4826;  // standard deviation / median absolute deviation
    constexpr double LEAST_SIGMA = 1e-9;
    const float median = median_of_values(values);
    for (float& value : values) value = std::fabs(value - median);
    const double sigma = SIGMA_PER_MAD * median_of_values(values);
    return {median, sigma > 0 ? sigma : LEAST_SIGMA};
}

// Whether no neighbour of a value in a grid is greater; a flat top is several peaks. rows(r) gives row r as a span.
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

// Copies the strongest of each neighbourhood, as far as there is room: each for which near(kept, item) holds with none
// that was kept. Returns their number.
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
