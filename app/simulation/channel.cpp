#include "simulation/channel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

std::optional<Fading> find_fading(std::string_view name) {
    if (name == "good") return Fading{0.1, 0.5};
    if (name == "moderate") return Fading{0.5, 1};
    if (name == "poor") return Fading{1, 2};
    return std::nullopt;
}

// White noise through a filter whose power response is the Doppler spectrum exp(-f²/2σ²): its impulse response is
// exp(-4π²σ²t²), and with nodes at a fixed share of 1/σ its taps are the same for every spread.
PathGain::PathGain(double spread_hz, uint64_t seed, uint32_t stream)
    : nodes_per_second_(NODES_PER_SIGMA * spread_hz / 2), random_(seed, stream) {
    double power = 0;
    for (std::size_t k = 0; k < LENGTH; k++) {
        const double turn = 2 * std::numbers::pi * (static_cast<double>(k) - HALF_LENGTH) / NODES_PER_SIGMA;
        taps_[k] = std::exp(-turn * turn);
        power += taps_[k] * taps_[k];
    }
    for (double& tap : taps_) tap /= std::sqrt(power);
    for (std::complex<double>& value : white_) value = random_.complex_normal();
    before_ = next_node();
    after_ = next_node();
}

std::complex<double> PathGain::next_node() {
    white_[oldest_] = random_.complex_normal();
    oldest_ = (oldest_ + 1) % LENGTH;
    std::complex<double> sum = 0;
    for (std::size_t k = 0; k < LENGTH; k++) sum += taps_[k] * white_[(oldest_ + k) % LENGTH];
    return sum;
}

std::complex<double> PathGain::at(double t) {
    const double place = std::max(t, 0.0) * nodes_per_second_;
    while (static_cast<double>(node_ + 1) <= place) {
        before_ = after_;
        after_ = next_node();
        node_++;
    }
    const double share = std::clamp(place - static_cast<double>(node_), 0.0, 1.0);
    return before_ + share * (after_ - before_);
}

double PhaseWalk::at(double t) {
    const double position = t / STEP_S;
    const auto node = static_cast<int64_t>(position);
    for (; node_ < node; node_++) {
        before_ = after_;
        after_ += step_rad_ * random_.normal() / (2 * std::numbers::pi);
    }
    return before_ + (after_ - before_) * (position - static_cast<double>(node));
}

WattersonChannel::WattersonChannel(const Fading& fading, uint64_t seed, uint32_t stream)
    : direct_(fading.spread_hz, seed, stream),
      delayed_(fading.spread_hz, seed, stream + 1),
      delay_s_(fading.delay_ms / 1000) {}

WattersonChannel::Gains WattersonChannel::at(double t) {
    const double share = 1 / std::numbers::sqrt2;
    return {share * direct_.at(t), share * delayed_.at(t)};
}
