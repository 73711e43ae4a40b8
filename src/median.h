// Order statistics of single-precision values, by selection.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

// Ascending, NaN behind every number: the order stays total on hostile input.
inline int32_t cmp_float(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) {
        return static_cast<int32_t>(std::isnan(a)) - static_cast<int32_t>(std::isnan(b));
    }
    return (a > b) - (a < b);
}

inline bool float_less(float a, float b) {
    return cmp_float(a, b) < 0;
}

// The middle one of at least one value in order, of an even count the upper one. The values are reordered: smaller ones
// come to lie before the middle.
inline float upper_median(std::span<float> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end(), float_less);
    return *middle;
}
