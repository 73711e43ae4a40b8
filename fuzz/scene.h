// Blocks of samples drawn from the bytes of an input: frames, carriers and noise, raw bytes, and values that no sample
// should have. A few dozen bytes make a block in which the whole decoder has work to do.
#pragma once

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "input.h"
#include "liborvel.h"

inline constexpr int32_t MAX_PARTS = 8;

enum class Part { END, FRAME, NOISE, CARRIER, BYTES, ANYTHING, GAIN };
inline constexpr int32_t LAST_PART = static_cast<int32_t>(Part::GAIN);

// Ranges from which parts are drawn.
inline constexpr double MIN_FRAME_START_S = -12;
inline constexpr double MAX_FRAME_START_S = 30;
inline constexpr double MAX_AMPLITUDE = 4;
inline constexpr double MAX_DRIFT_HZ_S = 0.1;

namespace scene_parts {

using Samples = std::vector<double>;

// `quarter` turns the carrier by a quarter of a period: the second signal of I/Q.
inline void add_carrier(Samples& samples, int32_t rate, double freq_hz, double drift_hz_s, double amplitude,
                        bool quarter, double from_s, double to_s) {
    const double n = static_cast<double>(samples.size());
    const auto first = static_cast<std::size_t>(std::clamp(std::ceil(from_s * rate), 0.0, n));
    const auto last = static_cast<std::size_t>(std::clamp(std::ceil(to_s * rate), 0.0, n));
    for (std::size_t k = first; k < last; k++) {
        const double t = static_cast<double>(k) / rate;
        const double turns = freq_hz * t + drift_hz_s * t * t / 2 + (quarter ? 0 : 0.25);
        samples[k] += amplitude * std::sin(2 * std::numbers::pi * turns);
    }
}

inline void add_frame(Input& input, Samples& samples, Samples* second, int32_t rate) {
    const uint32_t protocol = 1u << input.int32(0, 2);
    const std::string call = input.text(8);
    const std::string locator = input.text(6);
    const double start_s = input.number(MIN_FRAME_START_S, MAX_FRAME_START_S);
    const double freq_hz = input.number(0, rate / 2.0);
    const double amplitude = input.number(0, MAX_AMPLITUDE);
    const double drift_hz_s = input.number(-MAX_DRIFT_HZ_S, MAX_DRIFT_HZ_S);
    std::array<uint8_t, 321> chips;
    const int32_t n = ovl_encode(protocol, call.c_str(), locator.c_str(), chips.data(), 321);
    for (int32_t k = 0; k < n; k++) {
        if (chips[static_cast<std::size_t>(k)] == 0) continue;
        const double from_s = start_s + k * ovl_chip_seconds();
        add_carrier(samples, rate, freq_hz, drift_hz_s, amplitude, false, from_s, from_s + ovl_chip_seconds());
        if (second == nullptr) continue;
        add_carrier(*second, rate, freq_hz, drift_hz_s, amplitude, true, from_s, from_s + ovl_chip_seconds());
    }
}

inline void add_noise(Input& input, Samples& samples, Samples* second) {
    std::minstd_rand random(input.raw<uint16_t>());
    const double amplitude = input.number(0, MAX_AMPLITUDE);
    std::uniform_real_distribution<double> uniform(-amplitude, amplitude);
    const auto next = [&] { return uniform(random); };
    for (double& sample : samples) sample += next();
    if (second == nullptr) return;
    for (double& sample : *second) sample += next();
}

inline std::size_t draw_place(Input& input, const Samples& samples) {
    return static_cast<std::size_t>(input.integer(0, static_cast<int64_t>(samples.size()) - 1) & 0x7FFFFFFF);
}

inline void add_bytes(Input& input, Samples& samples, Samples* second) {
    std::size_t place = draw_place(input, samples);
    for (int32_t n = input.int32(0, 4095); n > 0 && place < samples.size() && input.left() > 0; n--, place++) {
        samples[place] += input.raw<int8_t>() / 32.0;
        if (second != nullptr) (*second)[place] += input.raw<int8_t>() / 32.0;
    }
}

}  // namespace scene_parts

// Draws the parts of a block into n samples (n at least 1), and of I/Q into as many of the second channel. Nothing in
// them needs to be finite.
inline void draw_samples(Input& input, int32_t rate, std::vector<double>& samples, std::vector<double>* second) {
    using namespace scene_parts;
    for (int32_t parts = 0; parts < MAX_PARTS; parts++) {
        switch (static_cast<Part>(input.int32(0, LAST_PART))) {
            case Part::END:
                return;
            case Part::FRAME:
                add_frame(input, samples, second, rate);
                break;
            case Part::NOISE:
                add_noise(input, samples, second);
                break;
            case Part::CARRIER: {
                const double freq_hz = input.number(0, rate / 2.0);
                const double amplitude = input.number(0, MAX_AMPLITUDE);
                add_carrier(samples, rate, freq_hz, 0, amplitude, false, 0, 1e9);
                if (second != nullptr) add_carrier(*second, rate, freq_hz, 0, amplitude, true, 0, 1e9);
                break;
            }
            case Part::BYTES:
                add_bytes(input, samples, second);
                break;
            case Part::ANYTHING: {
                const std::size_t place = draw_place(input, samples);
                samples[place] = input.any_double();
                break;
            }
            case Part::GAIN: {
                const double gain = std::pow(10.0, input.int32(-20, 20));
                for (double& sample : samples) sample *= gain;
                if (second == nullptr) break;
                for (double& sample : *second) sample *= gain;
                break;
            }
        }
    }
}

// Samples as the public calls take them: values too large for a float become infinite.
inline std::vector<float> to_floats(const std::vector<double>& samples) {
    std::vector<float> floats(samples.size());
    std::transform(samples.begin(), samples.end(), floats.begin(), [](double x) {
        constexpr float LARGEST = std::numeric_limits<float>::max();
        constexpr float INFINITE = std::numeric_limits<float>::infinity();
        if (x > LARGEST) return INFINITE;
        return x < -LARGEST ? -INFINITE : static_cast<float>(x);
    });
    return floats;
}
