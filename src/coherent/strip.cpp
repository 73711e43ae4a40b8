#include "coherent/strip.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace coherent {
namespace {

using Complex = std::complex<double>;
constexpr double TURN = 2 * std::numbers::pi;

}  // namespace

Strip::Strip(const Whitened& block, const Hypothesis& around, int32_t chips, int32_t reach)
    : around_(around), chip_s_(block.chip_len / block.rate), chips_(chips), scale_(1 / std::sqrt(block.chip_len)) {
    const int32_t step = block.chip_len / STEPS;
    const int32_t count = (chips + 2 * reach) * STEPS + 2;  // a start at the very end is interpolated, too
    const auto first = static_cast<int64_t>(std::floor(around.start_s * block.rate)) - reach * block.chip_len;
    first_s_ = static_cast<double>(first) / block.rate;
    sums_.resize(static_cast<std::size_t>(count) + 1);
    weights_.resize(static_cast<std::size_t>(count) + 1);

    // The phase of the frame's carrier is f·t + drift·t²/2 with t from the middle of the frame.
    const double middle_s = around.start_s + chips * chip_s_ / 2;
    const double t = first_s_ - middle_s;
    const double dt = 1 / block.rate;
    Complex phasor = std::polar(1.0, -TURN * (around.f * t + around.drift * t * t / 2));
    Complex turn = std::polar(1.0, -TURN * (around.f * dt + around.drift * (t * dt + dt * dt / 2)));
    const Complex bend = std::polar(1.0, -TURN * around.drift * dt * dt);
    Complex sum = 0;
    double weight = 0;
    const auto n = static_cast<int64_t>(block.samples.size());
    for (int32_t k = 0; k < count; k++) {
        for (int32_t i = 0; i < step; i++) {
            const int64_t at = first + static_cast<int64_t>(k) * step + i;
            if (at >= 0 && at < n) {
                sum += Complex(block.samples[static_cast<std::size_t>(at)]) * phasor;
                weight += block.weights[static_cast<std::size_t>(at)];
            }
            phasor *= turn;
            turn *= bend;
        }
        phasor /= std::sqrt(std::norm(phasor));
        sums_[static_cast<std::size_t>(k) + 1] = sum;
        weights_[static_cast<std::size_t>(k) + 1] = weight;
    }
    for (double& w : weights_) w /= block.chip_len;
}

void Strip::measure(const Hypothesis& at, std::span<ChipSum> out) const {
    const double step_s = chip_s_ / STEPS;
    const double position = std::clamp((at.start_s - first_s_) / step_s, 0.0,
                                       static_cast<double>(sums_.size()) - 2 - static_cast<double>(out.size()) * STEPS);
    const auto whole = static_cast<std::size_t>(position);
    const double share = position - static_cast<double>(whole);
    const auto before = [&](std::size_t chip) {
        const std::size_t k = whole + chip * STEPS;
        return sums_[k] + share * (sums_[k + 1] - sums_[k]);
    };
    const auto weight_before = [&](std::size_t chip) {
        const std::size_t k = whole + chip * STEPS;
        return weights_[k] + share * (weights_[k + 1] - weights_[k]);
    };

    // What is left to turn: the difference of the two carriers, at the middle of each chip, with t from the middle of
    // the strip's frame.
    const double shift_s = (at.start_s - around_.start_s);
    const double drift = at.drift - around_.drift;
    const double f = at.f - at.drift * shift_s - around_.f;
    const double t = shift_s + (0.5 - chips_ / 2.0) * chip_s_;
    Complex phasor = std::polar(1.0, -TURN * (f * t + drift * t * t / 2));
    Complex turn = std::polar(1.0, -TURN * (f * chip_s_ + drift * (t * chip_s_ + chip_s_ * chip_s_ / 2)));
    const Complex bend = std::polar(1.0, -TURN * drift * chip_s_ * chip_s_);
    Complex last = before(0);
    double last_weight = weight_before(0);
    for (std::size_t k = 0; k < out.size(); k++) {
        const Complex next = before(k + 1);
        const double next_weight = weight_before(k + 1);
        out[k] = {std::complex<float>((next - last) * phasor * scale_), static_cast<float>(next_weight - last_weight)};
        last = next;
        last_weight = next_weight;
        phasor *= turn;
        turn *= bend;
    }
}

}  // namespace coherent
