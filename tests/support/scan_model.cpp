#include "scan_model.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace scan_model {

namespace {

// NaN counts as above every number.
bool below(float a, float b) {
    return std::isnan(b) ? !std::isnan(a) : a < b;
}

float upper_middle(std::vector<float> values) {
    std::sort(values.begin(), values.end(), below);
    return values[values.size() / 2];
}

// powers[bin][window]
std::vector<std::vector<float>> powers_of(const Input& input, const Result& grid) {
    const int64_t turn = 2 * grid.window;
    std::vector<std::complex<double>> phasor;
    for (int64_t k = 0; k < turn; ++k) {
        phasor.push_back(std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(turn)));
    }
    std::vector<std::vector<float>> powers;
    for (int64_t bin = grid.first; bin < grid.first + grid.bins; ++bin) {
        std::vector<float> row;
        for (int64_t w = 0; w < grid.windows; ++w) {
            const auto start = static_cast<std::size_t>(
                std::lround(static_cast<double>(w) * (static_cast<double>(grid.window) / 4.0)));
            double sum_re = 0;
            double sum_im = 0;
            int64_t angle = 0;
            for (std::size_t k = 0; k < static_cast<std::size_t>(grid.window); ++k) {
                const std::complex<double> p = phasor[static_cast<std::size_t>(angle)];
                const double re = input.re[start + k];
                const double im = input.im.empty() ? 0.0 : input.im[start + k];
                sum_re += re * p.real() - im * p.imag();
                sum_im += re * p.imag() + im * p.real();
                angle = (angle + bin + turn) % turn;
            }
            row.push_back(static_cast<float>(sum_re * sum_re + sum_im * sum_im));
        }
        powers.push_back(row);
    }
    return powers;
}

std::vector<float> noise_of(const std::vector<std::vector<float>>& powers) {
    std::vector<float> levels;
    for (const std::vector<float>& row : powers) {
        const std::size_t step = row.size() > 2000 ? row.size() / 2000 : 1;
        std::vector<float> sampled;
        for (std::size_t w = 0; w < row.size(); w += step) sampled.push_back(row[w]);
        levels.push_back(static_cast<float>(upper_middle(sampled) / 0.6931472));
    }
    std::vector<float> noise;
    const std::ptrdiff_t count = std::ssize(levels);
    for (std::ptrdiff_t k = 0; k < count; ++k) {
        const auto from = levels.begin() + std::max<std::ptrdiff_t>(k - 16, 0);
        const auto to = levels.begin() + std::min<std::ptrdiff_t>(k + 16, count - 1) + 1;
        const float level = upper_middle({from, to});
        noise.push_back(level > 0 ? level : 1e-30F);
    }
    return noise;
}

float statistic_of(const std::vector<float>& row, float noise, int32_t run_chips, double var_min) {
    double best = 0;
    for (std::size_t phase = 0; phase < 4; ++phase) {
        std::vector<float> x;
        for (std::size_t w = phase; w < row.size(); w += 4) x.push_back(row[w] / noise);
        const auto chips = static_cast<int64_t>(x.size());
        int64_t run = std::max(run_chips, 16);
        if (run >= chips) run = chips - 1;
        if (run <= 15) continue;
        for (int64_t start = 0; start + run <= chips - 1; ++start) {
            double power = 0;
            double square = 0;
            double jumps = 0;
            for (int64_t i = start; i < start + run; ++i) {
                const float here = x[static_cast<std::size_t>(i)];
                power += here;
                square += static_cast<double>(here) * here;
                jumps += std::fabs(x[static_cast<std::size_t>(i) + 1] - here);
            }
            const double length = static_cast<double>(run);
            const double mean = power / length;
            bool counts = jumps / length > best && jumps >= 0.7 * power;
            if (var_min > 0) {
                counts = counts && mean > 0 && (square / length - mean * mean) / (mean * mean) >= var_min;
            }
            if (counts) best = jumps / length;
        }
    }
    return static_cast<float>(best);
}

bool is_peak(const std::vector<float>& statistic, std::size_t k) {
    if (k == 0) return statistic[0] > statistic[1];
    if (statistic[k] < statistic[k - 1]) return false;
    return k == statistic.size() - 1 || statistic[k] > statistic[k + 1];
}

}  // namespace

std::vector<ov_hit> thinned(std::vector<ov_hit> hits, double min_sep_hz, int32_t max_hits) {
    std::stable_sort(hits.begin(), hits.end(), [](const ov_hit& a, const ov_hit& b) { return a.z > b.z; });
    std::vector<ov_hit> kept;
    for (const ov_hit& hit : hits) {
        if (static_cast<int32_t>(kept.size()) >= max_hits) break;
        bool apart = true;
        for (const ov_hit& other : kept) {
            if (!(std::fabs(hit.freq_hz - other.freq_hz) >= min_sep_hz)) apart = false;
        }
        if (apart) kept.push_back(hit);
    }
    return kept;
}

Result expected_of(const Input& input) {
    Result result;
    result.fails = true;
    result.window = std::lround(input.win_s * input.rate);
    if (result.window < 8 || input.n() < result.window) return result;
    const double hop = static_cast<double>(result.window) / 4.0;
    result.windows = static_cast<int64_t>(std::floor((input.n() - static_cast<double>(result.window)) / hop)) + 1;
    if (result.windows < 32) return result;
    result.bin_hz = input.rate / (2.0 * static_cast<double>(result.window));
    result.first = static_cast<int64_t>(std::ceil(input.f_lo / result.bin_hz));
    auto last = static_cast<int64_t>(std::floor(input.f_hi / result.bin_hz));
    if (input.im.empty()) {
        result.first = std::max<int64_t>(result.first, 1);
    } else if (result.first <= -result.window) {
        result.first = 1 - result.window;
    }
    last = std::min(last, result.window - 1);
    result.bins = last - result.first + 1;
    if (result.bins < 5) return result;
    result.fails = false;

    const std::vector<std::vector<float>> powers = powers_of(input, result);
    const std::vector<float> noise = noise_of(powers);
    for (std::size_t k = 0; k < powers.size(); ++k) {
        result.statistic.push_back(statistic_of(powers[k], noise[k], input.run_chips, input.var_min));
    }
    const float median = upper_middle(result.statistic);
    std::vector<float> distance;
    for (const float value : result.statistic) distance.push_back(std::fabs(value - median));
    result.median = median;
    result.sigma = 1.4826 * upper_middle(distance);
    if (!(result.sigma > 0)) result.sigma = 1e-9;

    std::vector<ov_hit> hits;
    for (std::size_t k = 0; k < result.statistic.size(); ++k) {
        const double z = (result.statistic[k] - result.median) / result.sigma;
        if (z >= input.z_min && is_peak(result.statistic, k)) {
            hits.push_back({static_cast<double>(result.first + static_cast<int64_t>(k)) * result.bin_hz, z});
        }
    }
    result.hits = thinned(hits, input.min_sep_hz, input.max_hits);
    return result;
}

}  // namespace scan_model
