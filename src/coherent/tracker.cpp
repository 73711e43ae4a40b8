#include "coherent/tracker.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "multiversion.h"

namespace coherent {
namespace {

using Row = std::array<float, PHASES>;

constexpr float CLIP = 3.3f;  // noise amplitudes by which a chip may exceed what is expected
constexpr float TINY = 1e-20f;
constexpr float LEAST = 1e-37f;
constexpr std::size_t MAX_TAPS = 11;  // on each side

// Probabilities of steps of the walk, by their size.
struct Kernel {
    std::size_t side;
    std::array<float, MAX_TAPS + 1> taps;
};

// A normal distribution of the steps, cut at 3.5 sigma, with exactly the walk's variance where the grid is coarse.
Kernel make_kernel(double sigma) {
    constexpr double GRID = 2 * std::numbers::pi / PHASES;
    Kernel kernel{};
    if (sigma < 0.6 * GRID) {
        const double beside = sigma * sigma / (2 * GRID * GRID);
        kernel.side = 1;
        kernel.taps[0] = static_cast<float>(1 - 2 * beside);
        kernel.taps[1] = static_cast<float>(beside);
        return kernel;
    }
    kernel.side = std::min(MAX_TAPS, static_cast<std::size_t>(std::ceil(3.5 * sigma / GRID)));
    double sum = 0;
    for (std::size_t k = 0; k <= kernel.side; k++) {
        const double x = static_cast<double>(k) * GRID / sigma;
        kernel.taps[k] = static_cast<float>(std::exp(-x * x / 2));
        sum += (k == 0 ? 1 : 2) * static_cast<double>(kernel.taps[k]);
    }
    for (float& tap : kernel.taps) tap = static_cast<float>(tap / sum);
    return kernel;
}

const Kernel& kernel_of(std::size_t walk) {
    static const std::array kernels = [] {
        std::array<Kernel, WALKS.size()> all{};
        for (std::size_t i = 0; i < all.size(); i++) all[i] = make_kernel(WALKS[i]);
        return all;
    }();
    return kernels[walk];
}

// One step of the walk.
inline void walk_step(const Kernel& kernel, const Row& from, Row& to) {
    std::array<float, PHASES + 2 * MAX_TAPS> ring;
    for (std::size_t i = 0; i < MAX_TAPS; i++) {
        ring[i] = from[PHASES - MAX_TAPS + i];
        ring[MAX_TAPS + PHASES + i] = from[i];
    }
    std::copy(from.begin(), from.end(), ring.begin() + MAX_TAPS);
    for (std::size_t i = 0; i < PHASES; i++) to[i] = kernel.taps[0] * ring[MAX_TAPS + i];
    for (std::size_t k = 1; k <= kernel.side; k++) {
        const float tap = kernel.taps[k];
        for (std::size_t i = 0; i < PHASES; i++) {
            to[i] += tap * (ring[MAX_TAPS + i - k] + ring[MAX_TAPS + i + k]);
        }
    }
}

inline float sum_of_row(const Row& row) {
    std::array<float, 8> sum{};
    for (std::size_t i = 0; i < PHASES; i += 8) {
        for (std::size_t j = 0; j < 8; j++) sum[j] += row[i + j];
    }
    return ((sum[0] + sum[4]) + (sum[2] + sum[6])) + ((sum[1] + sum[5]) + (sum[3] + sum[7]));
}

// Scales a row to a sum of 1; returns the logarithm of the sum.
inline double normalise(Row& row) {
    const float sum = std::max(sum_of_row(row), TINY);
    const float scale = 1 / sum;
    for (float& value : row) value = value * scale + TINY;
    return std::log(sum);
}

// e^x for x up to 0, to some 2e-7 of the value; at least e^-86.
inline void exp_negative(const Floats8& x, Floats8& out) {
    const Floats8 least = Floats8{} - 86.0f;
    const Floats8 limited = x < least ? least : x;
    const Floats8 whole = (limited * 1.44269504f + 12582912.0f) - 12582912.0f;
    const Floats8 r = (limited - whole * 0.693359375f) + whole * 2.12194440e-4f;
    Floats8 p = r * (1.0f / 5040) + 1.0f / 720;
    p = p * r + 1.0f / 120;
    p = p * r + 1.0f / 24;
    p = p * r + 1.0f / 6;
    p = p * r + 0.5f;
    p = p * r + 1.0f;
    p = p * r + 1.0f;
    const Ints8 exponent = (__builtin_convertvector(whole, Ints8) + 127) << 23;
    Floats8 power;
    std::memcpy(&power, &exponent, sizeof power);
    out = p * power;
}

struct Circle {
    Row cos, sin;
};
const Circle& circle() {
    static const Circle made = [] {
        Circle c{};
        for (std::size_t i = 0; i < PHASES; i++) {
            const double angle = 2 * std::numbers::pi * static_cast<double>(i) / PHASES;
            c.cos[i] = static_cast<float>(std::cos(angle));
            c.sin[i] = static_cast<float>(std::sin(angle));
        }
        return c;
    }();
    return made;
}

// For e^(re·cos φ + im·sin φ − scale).
struct Exponent {
    float re, im, scale;
};

// Likelihood ratios of many chips, over e^scale.
ORVEL_MULTIVERSION void fill_rows(const Circle& circle, const Exponent* exponents, std::size_t n, Row* rows) {
    for (std::size_t k = 0; k < n; k++) {
        for (std::size_t i = 0; i < PHASES; i += FLOATS) {
            Floats8 cos;
            Floats8 sin;
            load(cos, &circle.cos[i]);
            load(sin, &circle.sin[i]);
            Floats8 ratios;
            exp_negative(cos * exponents[k].re + sin * exponents[k].im - exponents[k].scale, ratios);
            store(ratios, &rows[k][i]);
        }
    }
}

ORVEL_MULTIVERSION double run_any(const Kernel& kernel, const Row& leading, const Row* chips, std::size_t pairs,
                                  Row* before) {
    Row state = leading;
    double log_sum = normalise(state);
    for (std::size_t k = 0; k < pairs; k++) {
        Row next;
        walk_step(kernel, state, next);
        if (before != nullptr) before[k] = next;
        for (std::size_t i = 0; i < PHASES; i++) state[i] = next[i] * (chips[2 * k][i] + chips[2 * k + 1][i]);
        log_sum += normalise(state);
    }
    return log_sum;
}

ORVEL_MULTIVERSION void run_back(const Kernel& kernel, const Row* chips, std::size_t pairs, const Row* before,
                                 float* soft) {
    Row after;
    after.fill(1.0f / PHASES);
    for (std::size_t left = pairs; left > 0; left--) {
        const std::size_t k = left - 1;
        Row one;
        Row zero;
        for (std::size_t i = 0; i < PHASES; i++) {
            const float path = before[k][i] * after[i];
            one[i] = path * chips[2 * k + 1][i];
            zero[i] = path * chips[2 * k][i];
        }
        soft[k] = std::log((sum_of_row(one) + LEAST) / (sum_of_row(zero) + LEAST));
        Row state;
        for (std::size_t i = 0; i < PHASES; i++) state[i] = after[i] * (chips[2 * k][i] + chips[2 * k + 1][i]);
        normalise(state);
        walk_step(kernel, state, after);
    }
}

ORVEL_MULTIVERSION double run_word(const Kernel& kernel, const Row& leading, const Row* chips, std::size_t pairs,
                                   const Word& word) {
    Row state = leading;
    double log_sum = normalise(state);
    for (std::size_t k = 0; k < pairs; k++) {
        const Row& chip = chips[2 * k + (word[k / 64] >> (k % 64) & 1)];
        Row next;
        walk_step(kernel, state, next);
        for (std::size_t i = 0; i < PHASES; i++) state[i] = next[i] * chip[i];
        log_sum += normalise(state);
    }
    return log_sum;
}

}  // namespace

PhaseTable::PhaseTable(std::span<const ChipSum> chips, float amplitude) : pairs_(chips.size() / 2) {
    // 2·A·chip, limited, and A²·weight, both in the logarithm.
    std::array<Exponent, OV_MAX_CHIPS> exponents{};
    std::array<float, OV_MAX_CHIPS> tops{};
    for (std::size_t k = 0; k < chips.size(); k++) {
        const ChipSum& chip = chips[k];
        const float most = CLIP * std::sqrt(chip.weight) + amplitude * chip.weight;
        const float size = std::sqrt(std::norm(chip.value));
        const float factor = 2 * amplitude * (size > most ? most / size : 1.0f);
        const float penalty = amplitude * amplitude * chip.weight;
        exponents[k] = {factor * chip.value.real(), factor * chip.value.imag(), penalty};
        tops[k] = factor * size - penalty;
    }
    // The rows of a pair are divided by what the larger of them can have at most.
    log_scale_ = tops[0] - std::log(static_cast<double>(PHASES));
    exponents[0].scale += tops[0];
    for (std::size_t k = 1; k + 1 < chips.size(); k += 2) {
        const float scale = std::max(tops[k], tops[k + 1]);
        exponents[k].scale += scale;
        exponents[k + 1].scale += scale;
        log_scale_ += scale;
    }
    fill_rows(circle(), exponents.data(), chips.size(), rows_.data());
}

double PhaseTable::evidence(std::size_t walk) const {
    return log_scale_ + run_any(kernel_of(walk), rows_[0], rows_.data() + 1, pairs_, nullptr) -
           static_cast<double>(pairs_) * std::numbers::ln2;
}

double PhaseTable::soft_bits(std::size_t walk, std::span<float> soft) const {
    std::array<Row, OV_MAX_PAIRS> before;
    const double sum = run_any(kernel_of(walk), rows_[0], rows_.data() + 1, pairs_, before.data());
    run_back(kernel_of(walk), rows_.data() + 1, pairs_, before.data(), soft.data());
    return log_scale_ + sum - static_cast<double>(pairs_) * std::numbers::ln2;
}

double PhaseTable::likelihood(std::size_t walk, const Word& word) const {
    return log_scale_ + run_word(kernel_of(walk), rows_[0], rows_.data() + 1, pairs_, word);
}

}  // namespace coherent
