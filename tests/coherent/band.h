// Basebands for the stages of the coherent search: noise and keyed carriers as the stages take them.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <span>
#include <vector>

#include "coherent/strip.h"
#include "coherent/whiten.h"
#include "siggen.h"

namespace band {

inline constexpr double RATE = 500;
inline constexpr int32_t CHIP_LEN = 64;
inline constexpr double CHIP_S = CHIP_LEN / RATE;

using Samples = std::vector<std::complex<double>>;

// Noise of power 1.
inline Samples noise(Random& random, double seconds) {
    Samples samples(static_cast<std::size_t>(seconds * RATE));
    for (auto& sample : samples) {
        const double re = random.normal();
        sample = std::complex<double>(re, random.normal()) / std::numbers::sqrt2;
    }
    return samples;
}

// A random frame with that many chip pairs.
inline std::vector<uint8_t> random_chips(Random& random, int32_t pairs) {
    std::vector<uint8_t> chips = {1};
    for (int32_t k = 0; k < pairs; k++) {
        const bool bit = random.integer(0, 1) != 0;
        chips.push_back(bit ? 0 : 1);
        chips.push_back(bit ? 1 : 0);
    }
    return chips;
}

inline std::complex<double> carrier(const coherent::Hypothesis& frame, double frame_s, double t) {
    const double from_middle_s = t - frame.start_s - frame_s / 2;
    return std::polar(
        1.0, 2 * std::numbers::pi * (frame.f * from_middle_s + frame.drift * from_middle_s * from_middle_s / 2));
}

// Adds a frame with rounded edges of 5 ms. amplitude is that of its carrier in noise amplitudes of a chip.
inline void add_frame(Samples& samples, std::span<const uint8_t> chips, const coherent::Hypothesis& frame,
                      double amplitude, double phase = 0.5) {
    const double frame_s = static_cast<double>(chips.size()) * CHIP_S;
    const auto keyed = [&](int64_t k) {
        return k >= 0 && k < static_cast<int64_t>(chips.size()) && chips[static_cast<std::size_t>(k)] != 0 ? 1.0 : 0.0;
    };
    for (std::size_t i = 0; i < samples.size(); i++) {
        const double t = static_cast<double>(i) / RATE;
        const double at = (t - frame.start_s) / CHIP_S;
        const auto border = static_cast<int64_t>(std::lround(at));  // the nearest
        const double edge = std::clamp((at - static_cast<double>(border)) * CHIP_S / EDGE_SECONDS, -0.5, 0.5);
        const double rise = 0.5 + 0.5 * std::sin(std::numbers::pi * edge);
        const double envelope = keyed(border - 1) * (1 - rise) + keyed(border) * rise;
        samples[i] += amplitude / std::sqrt(CHIP_LEN) * envelope * std::polar(1.0, phase) * carrier(frame, frame_s, t);
    }
}

inline coherent::Whitened as_white(const Samples& samples) {
    coherent::Whitened block{{}, std::vector<float>(samples.size(), 1.0f), RATE, CHIP_LEN};
    for (const auto& sample : samples) block.samples.emplace_back(sample);
    return block;
}

}  // namespace band
