// Elementary functions without a branch or a call, of single numbers and of vectors (Doubles4) alike. Accurate to a few
// units in the last place, for tiny results too.
#pragma once

#include <bit>
#include <cstdint>

#include "multiversion.h"

namespace vecmath {

using Bits4 [[gnu::vector_size(sizeof(Doubles4))]] = uint64_t;

// Vectors are passed by reference: in registers they would need the caller to be compiled for the same machine.
inline void to_bits(const double& x, uint64_t& bits) {
    bits = std::bit_cast<uint64_t>(x);
}
inline void to_bits(const Doubles4& x, Bits4& bits) {
    bits = reinterpret_cast<Bits4>(x);
}
inline void from_bits(const uint64_t& bits, double& x) {
    x = std::bit_cast<double>(bits);
}
inline void from_bits(const Bits4& bits, Doubles4& x) {
    x = reinterpret_cast<Doubles4>(bits);
}

template <class X>
struct BitsOf;
template <>
struct BitsOf<double> {
    using Type = uint64_t;
};
template <>
struct BitsOf<Doubles4> {
    using Type = Bits4;
};
template <class X>
using Bits = typename BitsOf<X>::Type;

inline constexpr uint64_t SIGN = uint64_t{1} << 63;

template <class X>
inline void absolute(const X& x, X& out) {
    Bits<X> bits;
    to_bits(x, bits);
    from_bits(bits & ~SIGN, out);
}

// 1.5 · 2^52: added to a number of less than 2^51 it rounds that to an integer, which is then in the low bits.
inline constexpr double ROUNDER = 6755399441055744.0;
inline constexpr double LN2_HIGH = 6.93147180369123816490e-01;
inline constexpr double LN2_LOW = 1.90821492927058770002e-10;

// e^x - 1 for |x| ≤ 700; NaN for NaN.
template <class X>
inline void expm1(const X& x, X& out) {
    constexpr double PER_LN2 = 1.4426950408889634;
    constexpr uint64_t BIAS = 1023;  // of the exponent of a double
    const X shifted = x * PER_LN2 + ROUNDER;
    const X k = shifted - ROUNDER;
    const X r = (x - k * LN2_HIGH) - k * LN2_LOW;  // |r| ≤ ln 2 / 2

    // Taylor's series of e^r - 1 over r; the first term left out is below 2e-17.
    X p = r * (1.0 / 6227020800.0) + 1.0 / 479001600.0;
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
    Bits<X> exponent;
    to_bits(shifted, exponent);
    X power_of_two;
    from_bits((exponent + BIAS) << 52, power_of_two);
    out = power_of_two * (p * r) + (power_of_two - 1.0);
}

// tanh(x/2) for |x| ≤ 700.
template <class X>
inline void tanh_half(const X& x, X& out) {
    X e;
    expm1(x, e);
    out = e / (e + 2.0);
}

// 2·artanh(x) for |x| < 1; NaN for NaN.
template <class X>
inline void two_atanh(const X& x, X& out) {
    constexpr uint64_t SQRT_HALF = 0x3fe6a09e667f3bcdULL;  // bits of sqrt(1/2)
    constexpr uint64_t EXPONENT = 0xfff0000000000000ULL;
    constexpr uint64_t TWO_52 = 0x4330000000000000ULL;  // bits of 2^52
    // It is ln((1 + a) / (1 - a)) with the sign of x. The ratio is m · 2^k with m between sqrt(1/2) and sqrt(2). The
    // exponent is biased above 0 until it is converted to a number.
    X a;
    absolute(x, a);
    const X ratio = (1.0 + a) / (1.0 - a);
    Bits<X> bits;
    to_bits(ratio, bits);
    bits = bits - SQRT_HALF + (uint64_t{1024} << 52);
    X biased;
    from_bits((bits >> 52) | TWO_52, biased);
    const X k = biased - (4503599627370496.0 + 1024.0);
    X power_of_two;
    from_bits((bits & EXPONENT) - (uint64_t{1} << 52), power_of_two);

    // ln m = 2·artanh s with s = (m - 1) / (m + 1), formed so that it is a itself when k is 0: the ratio has lost the
    // digits of a small a. The first term left out is below 2e-17.
    const X s = (2.0 * a - (power_of_two - 1.0) * (1.0 - a)) / ((1.0 + a) + power_of_two * (1.0 - a));
    const X q = s * s;
    X p = q * (1.0 / 19.0) + 1.0 / 17.0;
    p = p * q + 1.0 / 15.0;
    p = p * q + 1.0 / 13.0;
    p = p * q + 1.0 / 11.0;
    p = p * q + 1.0 / 9.0;
    p = p * q + 1.0 / 7.0;
    p = p * q + 1.0 / 5.0;
    p = p * q + 1.0 / 3.0;
    p = p * q + 1.0;
    absolute<X>(k * LN2_HIGH + (2.0 * s * p + k * LN2_LOW), out);
    Bits<X> magnitude;
    Bits<X> sign;
    to_bits(out, magnitude);
    to_bits(x, sign);
    from_bits(magnitude | (sign & SIGN), out);
}

inline double expm1(double x) {
    double out = 0;
    expm1(x, out);
    return out;
}
inline double tanh_half(double x) {
    double out = 0;
    tanh_half(x, out);
    return out;
}
inline double two_atanh(double x) {
    double out = 0;
    two_atanh(x, out);
    return out;
}

}  // namespace vecmath
