// Elementary functions without a branch or a call, so that the compiler can work on several elements of a loop at once.
// Right to some 1e-16 of the largest value that the function takes near its argument.
#pragma once

#include <bit>
#include <cstdint>

namespace vecmath {

// 1.5 · 2^52: added to a number of less than 2^51 it rounds that to an integer, which then stands in the low bits.
inline constexpr double ROUNDER = 6755399441055744.0;

// e^x for |x| ≤ 700; NaN for NaN.
inline double exp(double x) {
    constexpr double PER_LN2 = 1.4426950408889634;
    constexpr double LN2_HIGH = 6.93147180369123816490e-01;
    constexpr double LN2_LOW = 1.90821492927058770002e-10;
    const double shifted = x * PER_LN2 + ROUNDER;
    const double k = shifted - ROUNDER;
    const double r = (x - k * LN2_HIGH) - k * LN2_LOW;  // |r| ≤ ln 2 / 2

    // Taylor's series; the first term left out is below 4e-18.
    double p = 1.0 / 6227020800.0;
    p = p * r + 1.0 / 479001600.0;
    p = p * r + 1.0 / 39916800.0;
    p = p * r + 1.0 / 3628800.0;
    p = p * r + 1.0 / 362880.0;
    p = p * r + 1.0 / 40320.0;
    p = p * r + 1.0 / 5040.0;
    p = p * r + 1.0 / 720.0;
    p = p * r + 1.0 / 120.0;
    p = p * r + 1.0 / 24.0;
    p = p * r + 1.0 / 6.0;
    p = p * r + 0.5;
    p = p * r + 1.0;
    p = p * r + 1.0;
    const uint64_t power_of_two = std::bit_cast<uint64_t>(shifted) << 52;
    return std::bit_cast<double>(std::bit_cast<uint64_t>(p) + power_of_two);
}

// ln x for a normal number x above 0; any number for one that is none.
inline double log(double x) {
    constexpr double LN2 = 0.69314718055994531;
    constexpr uint64_t SQRT_HALF = 0x3fe6a09e667f3bcdULL;  // bits of sqrt(1/2)
    constexpr uint64_t EXPONENT = 0xfff0000000000000ULL;
    constexpr uint64_t TWO_52 = 0x4330000000000000ULL;  // bits of 2^52
    // x = m · 2^k with m between sqrt(1/2) and sqrt(2). The exponent is kept above 0 until it is a number.
    const uint64_t bits = std::bit_cast<uint64_t>(x) - SQRT_HALF + (uint64_t{1024} << 52);
    const double k = std::bit_cast<double>((bits >> 52) | TWO_52) - (4503599627370496.0 + 1024.0);
    const double m = std::bit_cast<double>(std::bit_cast<uint64_t>(x) - ((bits & EXPONENT) - (uint64_t{1024} << 52)));

    // ln m = 2·artanh s; the first term left out is below 2e-17.
    const double s = (m - 1.0) / (m + 1.0);
    const double q = s * s;
    double p = 1.0 / 19.0;
    p = p * q + 1.0 / 17.0;
    p = p * q + 1.0 / 15.0;
    p = p * q + 1.0 / 13.0;
    p = p * q + 1.0 / 11.0;
    p = p * q + 1.0 / 9.0;
    p = p * q + 1.0 / 7.0;
    p = p * q + 1.0 / 5.0;
    p = p * q + 1.0 / 3.0;
    p = p * q + 1.0;
    return k * LN2 + 2.0 * s * p;
}

// tanh(x/2) for |x| ≤ 700.
inline double tanh_half(double x) {
    const double e = exp(x);
    return (e - 1.0) / (e + 1.0);
}

// 2·artanh(x) for |x| < 1.
inline double two_atanh(double x) {
    return log((1.0 + x) / (1.0 - x)) + (x - x);  // NaN for NaN
}

}  // namespace vecmath
