#include "coherent/whiten.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>

#include "median.h"
#include "ovfft.h"
#include "robust.h"

namespace coherent {
namespace {

using Complex = std::complex<double>;

constexpr double SHORTEST_CHIPS = 40;
constexpr double LEAST_LEVEL = 0.01;  // of the median of all: what a filter removed stays removed

// Noise power by frequency, from windows of two chips. A station is off for half of the time and narrow: the noise is
// a low quantile over time, and the median of what its neighbours have.
constexpr double QUANTILE = 0.3;
constexpr int32_t NEIGHBOURS = 6;  // on each side, 4 Hz apart

// Noise power by time, from one chip at a time. All of the band tells of an impulse, half of it of slower changes.
constexpr int32_t ROWS_PER_CHIP = 4;
constexpr int32_t SMOOTHED_ROWS = 16;  // on each side
constexpr float IMPULSE = 2;           // powers above the smoothed one by this factor count as they are

float quantile(std::span<const float> values, double share) {
    return select_rank(values, static_cast<std::size_t>(share * static_cast<double>(values.size())));
}

std::vector<float> running_median(std::span<const float> values, int32_t side) {
    std::vector<float> out(values.size());
    const auto n = static_cast<int64_t>(values.size());
    for (int64_t i = 0; i < n; i++) {
        const int64_t first = std::max<int64_t>(i - side, 0);
        const int64_t last = std::min<int64_t>(i + side, n - 1);
        out[static_cast<std::size_t>(i)] =
            upper_median(values.subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(last - first + 1)));
    }
    return out;
}

// Powers of windows of `length` samples, `hop` apart: rows of `length` columns from 0 Hz upward.
struct Spectrogram {
    std::vector<float> power;
    std::size_t rows, columns;
};

std::optional<Spectrogram> spectrogram(std::span<const Complex> samples, std::size_t length, std::size_t hop,
                                       bool tapered) {
    const auto buffer = fftw_array<Complex>(static_cast<int64_t>(length));
    if (!buffer) return std::nullopt;
    const FftwPlan plan = plan_complex(static_cast<int32_t>(length), buffer.get(), buffer.get(), FFTW_FORWARD);
    if (!plan) return std::nullopt;
    std::vector<double> window(length, 1.0);
    double energy = static_cast<double>(length);
    if (tapered) {
        energy = 0;
        for (std::size_t i = 0; i < length; i++) {
            window[i] = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) /
                                             static_cast<double>(length));
            energy += window[i] * window[i];
        }
    }
    Spectrogram out{{}, (samples.size() - length) / hop + 1, length};
    out.power.resize(out.rows * length);
    for (std::size_t row = 0; row < out.rows; row++) {
        for (std::size_t i = 0; i < length; i++) buffer[i] = samples[row * hop + i] * window[i];
        fftw_execute(plan.get());
        for (std::size_t i = 0; i < length; i++) {
            out.power[row * length + i] = static_cast<float>(std::norm(buffer[i]) / energy);
        }
    }
    return out;
}

// Noise power by frequency: `length` columns from 0 Hz upward. Empty for silence.
std::vector<float> levels_by_frequency(const Spectrogram& spectra) {
    const auto exponential = static_cast<float>(-std::log(1 - QUANTILE));
    std::vector<float> levels(spectra.columns);
    std::vector<float> column(spectra.rows);
    for (std::size_t k = 0; k < levels.size(); k++) {
        for (std::size_t row = 0; row < spectra.rows; row++) column[row] = spectra.power[row * spectra.columns + k];
        levels[(k + spectra.columns / 2) % spectra.columns] = quantile(column, QUANTILE) / exponential;
    }
    std::vector<float> smooth = running_median(levels, NEIGHBOURS);  // from the lowest frequency upward
    const float middle = upper_median(smooth);
    if (!(middle > NOISE_FLOOR) || !std::isfinite(middle)) return {};
    for (float& level : smooth) level = std::max(level, static_cast<float>(LEAST_LEVEL) * middle);
    std::rotate(smooth.begin(), smooth.begin() + static_cast<std::ptrdiff_t>(smooth.size() / 2), smooth.end());
    return smooth;
}

// Smallest length from n up without a prime factor above 5.
int32_t smooth_length(int32_t n) {
    for (;; n++) {
        int32_t rest = n;
        for (const int32_t prime : {2, 3, 5}) {
            while (rest % prime == 0) rest /= prime;
        }
        if (rest == 1) return n;
    }
}

// Divides the samples' spectrum by the noise amplitude.
bool flatten(std::span<Complex> samples, std::span<const float> levels) {
    const int32_t length = smooth_length(static_cast<int32_t>(samples.size() + levels.size()));
    const auto buffer = fftw_array<Complex>(length);
    if (!buffer) return false;
    const FftwPlan forward = plan_complex(length, buffer.get(), buffer.get(), FFTW_FORWARD);
    const FftwPlan back = plan_complex(length, buffer.get(), buffer.get(), FFTW_BACKWARD);
    if (!forward || !back) return false;
    std::copy(samples.begin(), samples.end(), buffer.get());
    std::fill(buffer.get() + samples.size(), buffer.get() + length, Complex{});
    fftw_execute(forward.get());
    const double columns_per_bin = static_cast<double>(levels.size()) / length;
    for (int32_t i = 0; i < length; i++) {
        const double at = i * columns_per_bin;
        const auto left = static_cast<std::size_t>(at);
        const double share = at - static_cast<double>(left);
        const double level = (1 - share) * levels[left % levels.size()] + share * levels[(left + 1) % levels.size()];
        buffer[static_cast<std::size_t>(i)] /= std::sqrt(level) * length;
    }
    fftw_execute(back.get());
    std::copy_n(buffer.get(), samples.size(), samples.begin());
    return true;
}

// Noise power by time, a value for each row.
std::vector<float> levels_by_time(const Spectrogram& spectra) {
    std::vector<float> raw(spectra.rows);
    for (std::size_t row = 0; row < spectra.rows; row++) {
        raw[row] = upper_median(std::span(spectra.power).subspan(row * spectra.columns, spectra.columns)) / LN2_F32;
    }
    std::vector<float> levels = running_median(raw, SMOOTHED_ROWS);
    const float middle = std::max(upper_median(levels), NOISE_FLOOR);
    for (std::size_t row = 0; row < levels.size(); row++) {
        if (raw[row] > IMPULSE * levels[row]) levels[row] = raw[row];
        levels[row] = std::max(levels[row] / middle, static_cast<float>(LEAST_LEVEL));
    }
    return levels;
}

}  // namespace

std::optional<Whitened> whiten(const ov_baseband& baseband, double chip_s) {
    const auto chip_len = static_cast<int32_t>(std::lround(chip_s * baseband.rate));
    if (chip_len < 16 || chip_len % 16 != 0 || baseband.n < SHORTEST_CHIPS * chip_len) return std::nullopt;
    const auto chip = static_cast<std::size_t>(chip_len);
    std::vector<Complex> samples(baseband.samples, baseband.samples + baseband.n);
    if (!std::ranges::all_of(samples, [](Complex x) { return std::isfinite(x.real()) && std::isfinite(x.imag()); })) {
        return std::nullopt;
    }
    const auto by_frequency = spectrogram(samples, 2 * chip, chip, true);
    if (!by_frequency) return std::nullopt;
    const std::vector<float> levels = levels_by_frequency(*by_frequency);
    if (levels.empty() || !flatten(samples, levels)) return std::nullopt;

    const std::size_t hop = chip / ROWS_PER_CHIP;
    const auto by_time = spectrogram(samples, chip, hop, false);
    if (!by_time) return std::nullopt;
    const std::vector<float> powers = levels_by_time(*by_time);

    Whitened out{{}, {}, baseband.rate, chip_len};
    out.samples.resize(samples.size());
    out.weights.resize(samples.size());
    for (std::size_t i = 0; i < samples.size(); i++) {
        // A sample belongs to the rows whose windows hold it; the worst of them counts.
        const std::size_t last = std::min(i / hop, powers.size() - 1);
        const std::size_t first = i / hop >= ROWS_PER_CHIP - 1 ? std::min(i / hop - (ROWS_PER_CHIP - 1), last) : 0;
        const float power = *std::max_element(powers.begin() + static_cast<std::ptrdiff_t>(first),
                                              powers.begin() + static_cast<std::ptrdiff_t>(last) + 1);
        out.weights[i] = 1 / power;
        out.samples[i] = std::complex<float>(samples[i]) / power;
    }
    return out;
}

}  // namespace coherent
