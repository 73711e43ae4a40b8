// Order statistics of single-precision values. NaN counts as larger than all other values.
#pragma once

#include <cstddef>
#include <span>

// The value of this rank in ascending order, from 0; NaN when there is none.
float select_rank(std::span<const float> values, std::size_t rank);

// The middle value; of an even count, the upper of the two. At least one value.
inline float upper_median(std::span<const float> values) {
    return select_rank(values, values.size() / 2);
}

// The middle value; of an even count, the mean of the two; 0 for none.
float median_value(std::span<const float> values);
