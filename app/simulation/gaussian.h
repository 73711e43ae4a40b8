// Random numbers whose sequence for a seed is the same everywhere: the standard library promises that for its engines,
// not for its distributions.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <random>

class GaussianSource {
  public:
    // Streams of one seed are independent of each other.
    GaussianSource(uint64_t seed, uint32_t stream) : engine_(make_engine(seed, stream)) {}

    double uniform() { return static_cast<double>(engine_() >> 11) * 0x1p-53; }  // in [0, 1)

    // Mean square 1, independent real and imaginary parts (G. E. P. Box and M. E. Muller, 1958).
    std::complex<double> complex_normal() {
        const double radius = std::sqrt(-std::log(1 - uniform()));
        const double angle = 2 * std::numbers::pi * uniform();
        return {radius * std::cos(angle), radius * std::sin(angle)};
    }

    // Mean 0, variance 1.
    double normal() {
        if (has_spare_) {
            has_spare_ = false;
            return spare_;
        }
        const std::complex<double> pair = std::numbers::sqrt2 * complex_normal();
        spare_ = pair.imag();
        has_spare_ = true;
        return pair.real();
    }

  private:
    static std::mt19937_64 make_engine(uint64_t seed, uint32_t stream) {
        std::seed_seq sequence{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32), stream};
        return std::mt19937_64(sequence);
    }

    std::mt19937_64 engine_;
    double spare_ = 0;
    bool has_spare_ = false;
};
