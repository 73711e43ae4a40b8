// Elementary functions without a branch or a call, so that the compiler can vectorise loops over them. Accurate to a
// few units in the last place, for tiny results too.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace vecmath {

// 1.5 · 2^52: added to a number of less than 2^51 it rounds that to an integer, which is then in the low bits.
inline constexpr double ROUNDER = 6755399441055744.0;
inline constexpr double LN2_HIGH = 6.93147180369123816490e-01;
inline constexpr double LN2_LOW = 1.90821492927058770002e-10;

// e^x - 1 for |x| ≤ 700; NaN for NaN.
inline double expm1(double x) {
    constexpr double PER_LN2 = 1.4426950408889634;
    constexpr uint64_t BIAS = 1023;  // of the exponent of a double
    const double shifted = x * PER_LN2 + ROUNDER;
    const double k = shifted - ROUNDER;
    const double r = (x - k * LN2_HIGH) - k * LN2_LOW;  // |r| ≤ ln 2 / 2

    // Taylor's series of e^r - 1 over r; the first term left out is below 2e-17.
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
    const auto power_of_two = std::bit_cast<double>((std::bit_cast<uint64_t>(shifted) + BIAS) << 52);
    return power_of_two * (p * r) + (power_of_two - 1.0);
}

// tanh(x/2) for |x| ≤ 700.
inline double tanh_half(double x) {
    const double e = expm1(x);
    return e / (e + 2.0);
}

// 2·artanh(x) for |x| < 1; NaN for NaN.
inline double two_atanh(double x) {
    constexpr uint64_t SQRT_HALF = 0x3fe6a09e667f3bcdULL;  // bits of sqrt(1/2)
    constexpr uint64_t EXPONENT = 0xfff0000000000000ULL;
    constexpr uint64_t TWO_52 = 0x4330000000000000ULL;  // bits of 2^52
    // It is ln((1 + a) / (1 - a)) with the sign of x. The ratio is m · 2^k with m between sqrt(1/2) and sqrt(2). The
    // exponent is biased above 0 until it is converted to a number.
    const double a = std::fabs(x);
    const double ratio = (1.0 + a) / (1.0 - a);
    const uint64_t bits = std::bit_cast<uint64_t>(ratio) - SQRT_HALF + (uint64_t{1024} << 52);
    const double k = std::bit_cast<double>((bits >> 52) | TWO_52) - (4503599627370496.0 + 1024.0);
    const auto power_of_two = std::bit_cast<double>((bits & EXPONENT) - (uint64_t{1} << 52));

    // ln m = 2·artanh s with s = (m - 1) / (m + 1), formed so that it is a itself when k is 0: the ratio has lost the
    // digits of a small a. The first term left out is below 2e-17.
    const double s = (2.0 * a - (power_of_two - 1.0) * (1.0 - a)) / ((1.0 + a) + power_of_two * (1.0 - a));
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
    return std::copysign(k * LN2_HIGH + (2.0 * s * p + k * LN2_LOW), x);
}

}  // namespace vecmath
