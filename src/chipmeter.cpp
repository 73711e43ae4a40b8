// The windows of one chip at neighbouring starts share most of their samples. With one phase reference for all of them
// each sum is
//     samples before the common part + common part + samples after it,
// so that the common part is summed once for each frequency. Nothing is ever subtracted. A drift rotates a chip by the
// same angle per sample at all frequencies; the samples are rotated back beforehand.
//
// A frame's drift shifts the frequency of each of its chips a little. With u = −1 … 1 along the window and θ half of
// the angle by which the shift rotates over it,
//     Σ y·e^(−jθu) = Σ_q (−1)^q·θ^2q·E_q − jθ·Σ_q (−1)^q·θ^2q·O_q
//     E_q = Σ y·u^2q/(2q)!,  O_q = Σ y·u^(2q+1)/(2q+1)!,
// the series of cosine and sine. E and O are summed once per chip and serve the frequencies of all drifts, θ and −θ
// together.
#include "chipmeter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstring>
#include <numbers>

#include "multiversion.h"
#include "phasors.h"

namespace {

// Σ (re + j·im)·(phasor_re + j·phasor_im) over n samples.
struct Sum {
    double re, im;
};
inline Sum dot(const double* re, const double* im, const double* phasor_re, const double* phasor_im, std::size_t n) {
    Doubles8 sum_re{};
    Doubles8 sum_im{};
    std::size_t k = 0;
    for (; k + DOUBLES <= n; k += DOUBLES) {
        Doubles8 x_re;
        Doubles8 x_im;
        Doubles8 p_re;
        Doubles8 p_im;
        load(x_re, re + k);
        load(x_im, im + k);
        load(p_re, phasor_re + k);
        load(p_im, phasor_im + k);
        sum_re += x_re * p_re - x_im * p_im;
        sum_im += x_re * p_im + x_im * p_re;
    }
    Sum sum{sum_of(sum_re), sum_of(sum_im)};
    for (; k < n; k++) {
        sum.re += re[k] * phasor_re[k] - im[k] * phasor_im[k];
        sum.im += re[k] * phasor_im[k] + im[k] * phasor_re[k];
    }
    return sum;
}

constexpr std::size_t MAX_STARTS = 16;

// Phasors of several frequencies along the span of a chip's windows, negative angles. The common part has a row for
// each frequency, the samples before and after it have a row for each sample, with the frequencies side by side.
struct Phasors {
    const double *re, *im;            // n_freqs rows of width samples
    const double *edge_re, *edge_im;  // 2·reach rows of n_lanes frequencies: samples 0 …, then chip_len …
};

// The windows of a chip.
struct Windows {
    std::size_t chip_len, n_starts, step;
    std::size_t reach() const { return (n_starts - 1) * step; }  // from the first start to the last
    std::size_t width() const { return chip_len + reach(); }
};

// Where the energies of one chip go: by frequency, then by start.
struct Output {
    float* energy;
    std::size_t freq_stride, start_stride;
};

std::size_t lanes_for(std::size_t n_freqs) {
    return (n_freqs + DOUBLES - 1) / DOUBLES * DOUBLES;
}

// Energies of one chip at all starts and frequencies. common has room for twice the lanes.
ORVEL_MULTIVERSION void sum_windows(const double* re, const double* im, const Phasors& phasors, const Windows& windows,
                                    std::size_t n_freqs, double* common, const Output& out) {
    const std::size_t reach = windows.reach();
    const std::size_t n_lanes = lanes_for(n_freqs);
    for (std::size_t f = 0; f < n_freqs; f++) {
        const std::size_t first = f * windows.width() + reach;
        const Sum sum = dot(re + reach, im + reach, phasors.re + first, phasors.im + first, windows.chip_len - reach);
        common[f] = sum.re;
        common[n_lanes + f] = sum.im;
    }
    for (std::size_t lane = 0; lane < n_lanes; lane += DOUBLES) {
        const auto add = [&](Doubles8& sum_re, Doubles8& sum_im, std::size_t k, std::size_t row) {
            Doubles8 p_re;
            Doubles8 p_im;
            load(p_re, phasors.edge_re + row * n_lanes + lane);
            load(p_im, phasors.edge_im + row * n_lanes + lane);
            sum_re += re[k] * p_re - im[k] * p_im;
            sum_im += re[k] * p_im + im[k] * p_re;
        };
        Doubles8 common_re;
        Doubles8 common_im;
        load(common_re, common + lane);
        load(common_im, common + n_lanes + lane);

        // The earlier a window starts, the more samples it has before the common part, and the fewer after it.
        std::array<Doubles8, MAX_STARTS> before_re;
        std::array<Doubles8, MAX_STARTS> before_im;
        Doubles8 sum_re{};
        Doubles8 sum_im{};
        for (std::size_t i = windows.n_starts, k = reach; i > 0; i--) {
            for (; k > (i - 1) * windows.step; k--) add(sum_re, sum_im, k - 1, k - 1);
            before_re[i - 1] = sum_re;
            before_im[i - 1] = sum_im;
        }
        Doubles8 after_re{};
        Doubles8 after_im{};
        const std::size_t n_here = std::min(DOUBLES, n_freqs - lane);
        for (std::size_t i = 0, k = 0; i < windows.n_starts; i++) {
            for (; k < i * windows.step; k++) add(after_re, after_im, windows.chip_len + k, reach + k);
            const Doubles8 total_re = before_re[i] + common_re + after_re;
            const Doubles8 total_im = before_im[i] + common_im + after_im;
            const Doubles8 energy = total_re * total_re + total_im * total_im;
            for (std::size_t f = 0; f < n_here; f++) {
                out.energy[(lane + f) * out.freq_stride + i * out.start_stride] = static_cast<float>(energy[f]);
            }
        }
    }
}

// ---- Series ---------------------------------------------------------------------------------------------------------

constexpr std::size_t TERMS = 2 * DOUBLES;  // of each of the two series, at most
constexpr double MAX_TURN = 5.5;            // up to which the first term left out is below 2e-12
constexpr double NEGLIGIBLE = 1e-13;
constexpr std::size_t LANES = 2 * DOUBLES;  // hypotheses at a time: one vector would wait for its own last product

// The powers in the sums E and O with their signs and factorials, for the samples after the middle of a window, the
// outermost first: TERMS for E, then TERMS for O.
std::vector<double> power_table(std::size_t chip_len) {
    std::vector<double> powers;
    powers.reserve(chip_len / 2 * 2 * TERMS);
    for (std::size_t k = 0; k < chip_len / 2; k++) {
        const double u = static_cast<double>(chip_len - 1 - 2 * k) / static_cast<double>(chip_len);
        for (const double first : {1.0, u}) {
            double term = first;
            for (std::size_t q = 0; q < TERMS; q++) {
                powers.push_back(term);
                const double n = first == 1.0 ? 2.0 * static_cast<double>(q) : 2.0 * static_cast<double>(q) + 1;
                term *= -u * u / ((n + 1) * (n + 2));
            }
        }
    }
    return powers;
}

// Terms of the cosine series that matter for angles up to theta, at most TERMS.
std::size_t terms_for(double theta) {
    std::size_t n = 1;
    double term = 1;
    while (n < TERMS) {
        const double two_n = 2.0 * static_cast<double>(n);
        term *= theta * theta / ((two_n - 1) * two_n);
        if (term < NEGLIGIBLE) break;
        n++;
    }
    return n;
}

struct Moments {
    std::array<double, TERMS> even_re, even_im, odd_re, odd_im;
};

// E and O of the mixed-down samples of a window.
ORVEL_MULTIVERSION void sum_moments(const double* powers, const double* re, const double* im, std::size_t chip_len,
                                    Moments& out) {
    constexpr std::size_t VECTORS = TERMS / DOUBLES;
    Doubles8 even_re[VECTORS] = {};
    Doubles8 even_im[VECTORS] = {};
    Doubles8 odd_re[VECTORS] = {};
    Doubles8 odd_im[VECTORS] = {};
    for (std::size_t k = 0; k < chip_len / 2; k++, powers += 2 * TERMS) {
        const std::size_t mirror = chip_len - 1 - k;
        const double sum_re = re[mirror] + re[k];
        const double sum_im = im[mirror] + im[k];
        const double difference_re = re[mirror] - re[k];
        const double difference_im = im[mirror] - im[k];
        for (std::size_t v = 0; v < VECTORS; v++) {
            Doubles8 even;
            Doubles8 odd;
            load(even, powers + v * DOUBLES);
            load(odd, powers + TERMS + v * DOUBLES);
            even_re[v] += even * sum_re;
            even_im[v] += even * sum_im;
            odd_re[v] += odd * difference_re;
            odd_im[v] += odd * difference_im;
        }
    }
    std::memcpy(out.even_re.data(), even_re, sizeof even_re);
    std::memcpy(out.even_im.data(), even_im, sizeof even_im);
    std::memcpy(out.odd_re.data(), odd_re, sizeof odd_re);
    std::memcpy(out.odd_im.data(), odd_im, sizeof odd_im);
    if (chip_len % 2 == 1) {
        out.even_re[0] += re[chip_len / 2];
        out.even_im[0] += im[chip_len / 2];
    }
}

// Energies at the angles θ and −θ; n is a multiple of LANES.
ORVEL_MULTIVERSION void sum_series(const Moments& moments, std::size_t terms, const double* theta, std::size_t n,
                                   float* plus, float* minus) {
    for (std::size_t first = 0; first < n; first += LANES) {
        Doubles8 turn[2];
        for (std::size_t v = 0; v < 2; v++) load(turn[v], theta + first + v * DOUBLES);
        const Doubles8 square[2] = {turn[0] * turn[0], turn[1] * turn[1]};
        Doubles8 even_re[2] = {};
        Doubles8 even_im[2] = {};
        Doubles8 odd_re[2] = {};
        Doubles8 odd_im[2] = {};
        for (std::size_t q = terms; q > 0; q--) {
            for (std::size_t v = 0; v < 2; v++) {
                even_re[v] = even_re[v] * square[v] + moments.even_re[q - 1];
                even_im[v] = even_im[v] * square[v] + moments.even_im[q - 1];
                odd_re[v] = odd_re[v] * square[v] + moments.odd_re[q - 1];
                odd_im[v] = odd_im[v] * square[v] + moments.odd_im[q - 1];
            }
        }
        for (std::size_t v = 0; v < 2; v++) {
            const Doubles8 plus_re = even_re[v] + turn[v] * odd_im[v];
            const Doubles8 plus_im = even_im[v] - turn[v] * odd_re[v];
            const Doubles8 minus_re = even_re[v] - turn[v] * odd_im[v];
            const Doubles8 minus_im = even_im[v] + turn[v] * odd_re[v];
            const Doubles8 plus_energy = plus_re * plus_re + plus_im * plus_im;
            const Doubles8 minus_energy = minus_re * minus_re + minus_im * minus_im;
            for (std::size_t i = 0; i < DOUBLES; i++) {
                plus[first + v * DOUBLES + i] = static_cast<float>(plus_energy[i]);
                minus[first + v * DOUBLES + i] = static_cast<float>(minus_energy[i]);
            }
        }
    }
}

}  // namespace

ChipMeter::ChipMeter(const ov_baseband& bb, int32_t chip_len, int32_t nchips)
    : bb_(bb), chip_len_(chip_len), nchips_(nchips) {}

void ChipMeter::measure(const StartGrid& starts, std::span<const double> freqs, double drift) {
    const auto nchips = static_cast<std::size_t>(nchips_);
    n_starts_ = static_cast<std::size_t>(starts.count);
    const Windows windows{static_cast<std::size_t>(chip_len_), n_starts_, static_cast<std::size_t>(starts.step)};
    width_ = windows.width();
    make_phasors(freqs, windows.reach());
    const Phasors phasors{phasor_re_.data(), phasor_im_.data(), edge_re_.data(), edge_im_.data()};
    common_.assign(2 * lanes_for(freqs.size()), 0);
    re_.resize(width_);
    im_.resize(width_);
    energies_.resize(n_starts_ * freqs.size() * nchips);
    measured_.assign(n_starts_, 0);

    const std::size_t frame = freqs.size() * nchips;  // floats of one start
    for (int32_t chip = 0; chip < nchips_; chip++) {
        const int64_t first = starts.first + static_cast<int64_t>(chip) * chip_len_;
        const double from_middle_s = (chip + 0.5 - nchips_ / 2.0) * chip_len_ / bb_.rate;
        load_chip(first, 2 * std::numbers::pi * drift * from_middle_s / bb_.rate);
        float* const out = energies_.data() + chip;
        sum_windows(re_.data(), im_.data(), phasors, windows, freqs.size(), common_.data(), {out, nchips, frame});
        for (std::size_t i = 0; i < n_starts_; i++) {
            const int64_t begin = first + static_cast<int64_t>(i * windows.step);
            if (begin >= 0 && begin + chip_len_ <= bb_.n) {
                measured_[i]++;
            } else {
                for (std::size_t f = 0; f < freqs.size(); f++) out[i * frame + f * nchips] = -1;
            }
        }
    }
}

const float* ChipMeter::energies(int32_t start_index, std::size_t freq_index) const {
    const std::size_t n_freqs = energies_.size() / (n_starts_ * static_cast<std::size_t>(nchips_));
    return energies_.data() +
           (static_cast<std::size_t>(start_index) * n_freqs + freq_index) * static_cast<std::size_t>(nchips_);
}

void ChipMeter::make_phasors(std::span<const double> freqs, std::size_t reach) {
    const std::size_t n_lanes = lanes_for(freqs.size());
    phasor_re_.resize(freqs.size() * width_);
    phasor_im_.resize(freqs.size() * width_);
    edge_re_.assign(2 * reach * n_lanes, 0);
    edge_im_.assign(2 * reach * n_lanes, 0);
    for (std::size_t f = 0; f < freqs.size(); f++) {
        double* const re = phasor_re_.data() + f * width_;
        double* const im = phasor_im_.data() + f * width_;
        turn_table(2 * std::numbers::pi * freqs[f] / bb_.rate, width_, re, im);
        for (std::size_t row = 0; row < 2 * reach; row++) {
            const std::size_t k = row < reach ? row : width_ - 2 * reach + row;
            edge_re_[row * n_lanes + f] = re[k];
            edge_im_[row * n_lanes + f] = im[k];
        }
    }
}

// Copies the samples from `first` on, with the rotation by the drift removed and zeros outside the baseband.
void ChipMeter::load_chip(int64_t first, double turn) {
    const auto width = static_cast<int64_t>(width_);
    const int64_t begin = std::clamp<int64_t>(-first, 0, width);
    const int64_t end = std::clamp<int64_t>(bb_.n - first, begin, width);
    std::fill_n(re_.begin(), begin, 0.0);
    std::fill_n(im_.begin(), begin, 0.0);
    for (int64_t k = begin; k < end; k++) {
        re_[static_cast<std::size_t>(k)] = bb_.samples[first + k].real();
        im_[static_cast<std::size_t>(k)] = bb_.samples[first + k].imag();
    }
    std::fill_n(re_.rbegin(), width - end, 0.0);
    std::fill_n(im_.rbegin(), width - end, 0.0);
    if (turn == 0) return;

    turn_re_.resize(width_);
    turn_im_.resize(width_);
    turn_table(turn, width_, turn_re_.data(), turn_im_.data());
    turn_samples(turn_re_.data(), turn_im_.data(), width_, re_.data(), im_.data());
}

DriftMeter::DriftMeter(const ov_baseband& bb, int32_t chip_len, int32_t nchips)
    : bb_(bb),
      chip_len_(chip_len),
      nchips_(nchips),
      phasor_re_(static_cast<std::size_t>(chip_len)),
      phasor_im_(phasor_re_.size()),
      re_(phasor_re_.size()),
      im_(phasor_re_.size()) {}

bool DriftMeter::measure(int32_t start, const DriftGrid& grid) {
    const auto chip_len = static_cast<std::size_t>(chip_len_);
    const double half_turn = std::numbers::pi * chip_len_ / bb_.rate;  // of a window, for 1 Hz
    const double to_edge_s = 0.5 * (nchips_ - 1) * chip_len_ / bb_.rate;
    const double furthest =
        half_turn * (grid.n_freqs * std::fabs(grid.step_hz) + grid.n_drifts * std::fabs(grid.unit) * to_edge_s);
    if (!(furthest <= MAX_TURN)) return false;
    const std::size_t terms = terms_for(furthest);
    if (powers_.empty()) powers_ = power_table(chip_len);

    grid_ = grid;
    measured_ = 0;
    const auto width = static_cast<std::size_t>(2 * grid.n_freqs + 1);
    const std::size_t pairs = width * static_cast<std::size_t>(grid.n_drifts);  // of hypotheses with opposite angles
    const auto nchips = static_cast<std::size_t>(nchips_);
    turns_.assign((pairs + LANES - 1) / LANES * LANES, 0);
    plus_.resize(turns_.size());
    minus_.resize(turns_.size());
    energies_.resize(2 * pairs * nchips);
    turn_table(2 * std::numbers::pi * grid.f / bb_.rate, chip_len, phasor_re_.data(), phasor_im_.data());

    for (int32_t chip = 0; chip < nchips_; chip++) {
        float* const out = energies_.data() + chip;
        const int64_t first = start + static_cast<int64_t>(chip) * chip_len_;
        if (first < 0 || first + chip_len_ > bb_.n) {
            for (std::size_t h = 0; h < 2 * pairs; h++) out[h * nchips] = -1;
            continue;
        }
        measured_++;
        const double from_middle_s = (chip + 0.5 - nchips_ / 2.0) * chip_len_ / bb_.rate;
        double* turn = turns_.data();
        for (int32_t j = 1; j <= grid.n_drifts; j++) {
            for (int32_t i = -grid.n_freqs; i <= grid.n_freqs; i++) {
                *turn++ = half_turn * (i * grid.step_hz + j * grid.unit * from_middle_s);
            }
        }
        load_chip(first);
        Moments moments;
        sum_moments(powers_.data(), re_.data(), im_.data(), chip_len, moments);
        sum_series(moments, terms, turns_.data(), turns_.size(), plus_.data(), minus_.data());
        for (std::size_t h = 0; h < pairs; h++) {
            out[(pairs + h) * nchips] = plus_[h];
            out[(pairs - 1 - h) * nchips] = minus_[h];
        }
    }
    return true;
}

const float* DriftMeter::energies(int32_t i, int32_t j) const {
    // In order of drift, then of frequency, without drift 0.
    const int32_t row = j < 0 ? grid_.n_drifts + j : grid_.n_drifts + j - 1;
    const int32_t hypothesis = row * (2 * grid_.n_freqs + 1) + grid_.n_freqs + i;
    return energies_.data() + static_cast<std::size_t>(hypothesis) * static_cast<std::size_t>(nchips_);
}

void DriftMeter::load_chip(int64_t first) {
    for (std::size_t k = 0; k < re_.size(); k++) {
        re_[k] = bb_.samples[first + static_cast<int64_t>(k)].real();
        im_[k] = bb_.samples[first + static_cast<int64_t>(k)].imag();
    }
    turn_samples(phasor_re_.data(), phasor_im_.data(), re_.size(), re_.data(), im_.data());
}
