#include "listening/spectrum.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

namespace {

constexpr double LEAST_POINTS = 512;
constexpr int32_t LEAST_LENGTH = 1 << 6;
constexpr int32_t MOST_LENGTH = 1 << 18;

int32_t length_for(double width_hz, int32_t rate) {
    const double wanted = LEAST_POINTS * rate / width_hz;
    if (!(wanted < MOST_LENGTH)) return MOST_LENGTH;
    return std::max(LEAST_LENGTH, static_cast<int32_t>(std::bit_ceil(static_cast<uint32_t>(std::ceil(wanted)))));
}

}  // namespace

Spectrum::Spectrum(int32_t rate, bool iq, const Range& band)
    : iq_(iq),
      n_(length_for(band.high - band.low, rate)),
      window_(static_cast<std::size_t>(n_)),
      block_(float_fft_complexes(static_cast<std::size_t>(n_))),
      plan_(plan_float_complex(n_, block_.get(), block_.get(), FFTW_FORWARD)) {
    double squares = 0;
    for (int32_t k = 0; k < n_; k++) {
        const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (k + 0.5) / n_);
        window_[static_cast<std::size_t>(k)] = static_cast<float>(w);
        squares += w * w;
    }
    scale_ = static_cast<float>((iq ? 1 : 2) / (squares * rate));

    const double bin_hz = static_cast<double>(rate) / n_;
    const auto low = static_cast<int32_t>(iq ? -n_ / 2 : 0);
    const int32_t high = n_ / 2 - 1;
    first_bin_ = std::clamp(static_cast<int32_t>(std::lround(band.low / bin_hz)), low, high);
    const int32_t last_bin = std::clamp(static_cast<int32_t>(std::lround(band.high / bin_hz)), first_bin_, high);
    const int32_t bins = last_bin - first_bin_ + 1;
    bins_a_point_ = (bins + static_cast<int32_t>(MOST_POINTS) - 1) / static_cast<int32_t>(MOST_POINTS);
    power_.resize(static_cast<std::size_t>(bins / bins_a_point_));
    band_.low = (first_bin_ - 0.5) * bin_hz;
    band_.high = band_.low + static_cast<double>(power_.size()) * bins_a_point_ * bin_hz;
}

void Spectrum::push(std::span<const float> samples, const Taker& take) {
    const std::size_t width = iq_ ? 2 : 1;
    for (std::size_t at = 0; at + width <= samples.size(); at += width) {
        const float w = window_[static_cast<std::size_t>(held_)];
        block_[static_cast<std::size_t>(held_)] = {w * samples[at], iq_ ? w * samples[at + 1] : 0.0f};
        if (++held_ == n_) transform(take);
    }
}

void Spectrum::transform(const Taker& take) {
    held_ = 0;
    fftwf_execute(plan_.get());
    int32_t bin = first_bin_;
    for (float& point : power_) {
        float sum = 0;
        for (int32_t k = 0; k < bins_a_point_; k++, bin++)
            sum += std::norm(block_[static_cast<std::size_t>((bin + n_) % n_)]);
        point = scale_ * sum / static_cast<float>(bins_a_point_);
    }
    take(power_);
}

void MeanSpectrum::add(std::span<const float> power) {
    sum_.resize(power.size());
    for (std::size_t k = 0; k < power.size(); k++) sum_[k] += static_cast<double>(power[k]);
    count_++;
}

std::vector<double> MeanSpectrum::take_db() {
    std::vector<double> levels = std::move(sum_);
    for (double& level : levels) level = std::max(10 * std::log10(level / static_cast<double>(count_)), LEAST_LEVEL_DB);
    sum_.clear();
    count_ = 0;
    return levels;
}

double median_db(std::vector<double> levels_db) {
    const auto middle = levels_db.begin() + std::ssize(levels_db) / 2;
    std::ranges::nth_element(levels_db, middle);
    return *middle;
}
