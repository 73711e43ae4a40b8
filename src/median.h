// Order statistics of single-precision values. Values that are no numbers count as larger than all others.
#pragma once

#include <cstddef>
#include <span>

// The value with so many others before it in ascending order; NaN when there is none.
float select_rank(std::span<const float> values, std::size_t rank);

// The middle value, of an even count the upper one of two. Of at least one value.
inline float upper_median(std::span<const float> values) {
    return select_rank(values, values.size() / 2);
}

// The middle value, of an even count the mean of two; 0 for none.
float median_value(std::span<const float> values);
