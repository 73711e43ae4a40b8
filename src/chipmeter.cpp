// The windows of one chip at neighbouring starts have most of their samples in common. With one phase reference for all
// of them each sum is
//     samples before the common part + common part + samples behind it,
// so that the common part is summed once for each frequency. Nothing is ever subtracted. A drift turns all frequencies
// of a chip by the same angle a sample, which is taken out of the samples beforehand.
#include "chipmeter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>

#include "multiversion.h"

namespace {

inline double total(const Doubles8& x) {
    return ((x[0] + x[4]) + (x[2] + x[6])) + ((x[1] + x[5]) + (x[3] + x[7]));
}

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
    Sum sum{total(sum_re), total(sum_im)};
    for (; k < n; k++) {
        sum.re += re[k] * phasor_re[k] - im[k] * phasor_im[k];
        sum.im += re[k] * phasor_im[k] + im[k] * phasor_re[k];
    }
    return sum;
}

constexpr std::size_t MAX_STARTS = 16;

// Where the energies of one chip go: by frequency, then by start.
struct Output {
    float* energy;
    std::size_t freq_stride, start_stride;
};

// Energies of one chip at all starts and frequencies. A row of phasors for each frequency spans all the windows.
ORVEL_MULTIVERSION void sum_windows(const double* re, const double* im, const double* phasor_re,
                                    const double* phasor_im, std::size_t chip_len, std::size_t n_freqs,
                                    std::size_t n_starts, std::size_t step, const Output& out) {
    const std::size_t reach = (n_starts - 1) * step;  // from the first start to the last
    for (std::size_t f = 0; f < n_freqs; f++, phasor_re += chip_len + reach, phasor_im += chip_len + reach) {
        const Sum common = dot(re + reach, im + reach, phasor_re + reach, phasor_im + reach, chip_len - reach);
        const auto add = [&](Sum& sum, std::size_t k) {
            sum.re += re[k] * phasor_re[k] - im[k] * phasor_im[k];
            sum.im += re[k] * phasor_im[k] + im[k] * phasor_re[k];
        };

        // The earlier a window starts, the more samples it has before the common part, and the fewer behind it.
        std::array<Sum, MAX_STARTS> before;
        Sum sum{0, 0};
        for (std::size_t i = n_starts, k = reach; i-- > 0;) {
            while (k > i * step) add(sum, --k);
            before[i] = sum;
        }
        Sum behind{0, 0};
        for (std::size_t i = 0, k = 0; i < n_starts; i++) {
            for (; k < i * step; k++) add(behind, chip_len + k);
            const double total_re = before[i].re + common.re + behind.re;
            const double total_im = before[i].im + common.im + behind.im;
            out.energy[f * out.freq_stride + i * out.start_stride] =
                static_cast<float>(total_re * total_re + total_im * total_im);
        }
    }
}

// e^(−jk·turn) for k = 0 … n − 1. Four at a time: each is the fourth before it, turned.
ORVEL_MULTIVERSION void turn_table(double turn, std::size_t n, double* re, double* im) {
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

ORVEL_MULTIVERSION void turn_samples(const double* turn_re, const double* turn_im, std::size_t n, double* re,
                                     double* im) {
    for (std::size_t k = 0; k < n; k++) {
        const double turned = re[k] * turn_re[k] - im[k] * turn_im[k];
        im[k] = re[k] * turn_im[k] + im[k] * turn_re[k];
        re[k] = turned;
    }
}

}  // namespace

ChipMeter::ChipMeter(const ov_baseband& bb, int32_t chip_len, int32_t nchips)
    : bb_(bb), chip_len_(chip_len), nchips_(nchips) {}

void ChipMeter::measure(const StartGrid& starts, std::span<const double> freqs, double drift) {
    const auto chip_len = static_cast<std::size_t>(chip_len_);
    const auto nchips = static_cast<std::size_t>(nchips_);
    const auto step = static_cast<std::size_t>(starts.step);
    n_starts_ = static_cast<std::size_t>(starts.count);
    width_ = chip_len + (n_starts_ - 1) * step;
    make_phasors(freqs);
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
        sum_windows(re_.data(), im_.data(), phasor_re_.data(), phasor_im_.data(), chip_len, freqs.size(), n_starts_,
                    step, {out, nchips, frame});
        for (std::size_t i = 0; i < n_starts_; i++) {
            const int64_t begin = first + static_cast<int64_t>(i * step);
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

void ChipMeter::make_phasors(std::span<const double> freqs) {
    phasor_re_.resize(freqs.size() * width_);
    phasor_im_.resize(freqs.size() * width_);
    for (std::size_t f = 0; f < freqs.size(); f++) {
        turn_table(2 * std::numbers::pi * freqs[f] / bb_.rate, width_, phasor_re_.data() + f * width_,
                   phasor_im_.data() + f * width_);
    }
}

// Copies the samples from `first` on, each turned back by what the drift turned it, with zeros outside the baseband.
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
    std::fill(re_.begin() + end, re_.end(), 0.0);
    std::fill(im_.begin() + end, im_.end(), 0.0);
    if (turn == 0) return;

    turn_re_.resize(width_);
    turn_im_.resize(width_);
    turn_table(turn, width_, turn_re_.data(), turn_im_.data());
    turn_samples(turn_re_.data(), turn_im_.data(), width_, re_.data(), im_.data());
}
