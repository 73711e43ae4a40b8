// A table is computed by rotation from a few phasors instead of by a sine and a cosine per sample.
#include "phasors.h"

#include <array>
#include <cmath>
#include <complex>

#include "multiversion.h"

namespace {

// e^(−jk·turn) for k = 0 … n − 1. Four at a time: each is the one four before it, rotated, so that none waits for its
// neighbour.
ORVEL_MULTIVERSION void fill_table(double turn, std::size_t n, double* re, double* im) {
    constexpr std::size_t STRIDE = 4;
    const std::complex<double> once(std::cos(turn), -std::sin(turn));
    const std::complex<double> twice = once * once;
    const std::complex<double> thrice = twice * once;
    const std::complex<double> step = twice * twice;
    std::array<double, STRIDE> now_re = {1, once.real(), twice.real(), thrice.real()};
    std::array<double, STRIDE> now_im = {0, once.imag(), twice.imag(), thrice.imag()};
    for (std::size_t k = 0; k < n; k += STRIDE) {
        for (std::size_t j = 0; j < STRIDE; j++) {
            if (k + j < n) {
                re[k + j] = now_re[j];
                im[k + j] = now_im[j];
            }
            const double next_re = now_re[j] * step.real() - now_im[j] * step.imag();
            now_im[j] = now_re[j] * step.imag() + now_im[j] * step.real();
            now_re[j] = next_re;
        }
    }
}

ORVEL_MULTIVERSION void multiply(const double* turn_re, const double* turn_im, std::size_t n, double* re, double* im) {
    for (std::size_t k = 0; k < n; k++) {
        const double turned = re[k] * turn_re[k] - im[k] * turn_im[k];
        im[k] = re[k] * turn_im[k] + im[k] * turn_re[k];
        re[k] = turned;
    }
}

}  // namespace

void turn_table(double turn, std::size_t n, double* re, double* im) {
    fill_table(turn, n, re, im);
}

void turn_samples(const double* turn_re, const double* turn_im, std::size_t n, double* re, double* im) {
    multiply(turn_re, turn_im, n, re, im);
}
