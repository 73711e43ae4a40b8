// Piece by piece: samples are shifted in frequency by a table of phasors, the same for all pieces; a filter takes those
// around each sample that is left; and the phase that the table began with is put right in what is left.
#include "decoding/decimation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <numbers>
#include <numeric>
#include <span>
#include <vector>

#include "multiversion.h"

namespace {

using Complex = std::complex<double>;

// The filter: a sinc in a Kaiser window. Length and shape of the window for a ripple: J. F. Kaiser, "Nonrecursive
// digital filter design using the I0-sinh window function", 1974.
constexpr double RIPPLE_DB = 240;
constexpr double BETA = 0.1102 * (RIPPLE_DB - 8.7);
constexpr double TAPS_PER_PERIOD = (RIPPLE_DB - 7.95) / 14.36;  // of the width of a slope

constexpr double LEAST_ROOM = 3;      // of the rate that is left, times the band
constexpr int32_t LEAST_FACTOR = 12;  // below, the transform of the whole block takes no longer
constexpr std::size_t AT_ONCE = 4;    // samples filtered together
constexpr std::size_t PIECE = 64 * AT_ONCE;
constexpr std::size_t LANES = 4;

std::size_t at(int64_t index) {
    return static_cast<std::size_t>(index);
}

std::size_t padded(std::size_t count) {
    return (count + LANES - 1) / LANES * LANES;
}

struct Numbers {
    explicit Numbers(std::size_t count) : re(count), im(count) {}
    std::vector<double> re, im;
};

// By its power series: std::cyl_bessel_i is not for several threads.
double bessel_i0(double x) {
    double sum = 1;
    double term = 1;
    for (int k = 1; term > 1e-17 * sum; k++) {
        term *= x / (2 * k) * (x / (2 * k));
        sum += term;
    }
    return sum;
}

// Symmetric, padded by zeros. Their middle is tap `reach`.
std::vector<double> filter_taps(double pass, double stop, std::size_t reach) {
    const double cut = pass + stop;  // twice the middle of the slope, cycles per sample
    const auto at_most = static_cast<double>(reach + 1);
    std::vector<double> half(reach + 1);
    for (std::size_t n = 0; n <= reach; n++) {
        const auto t = static_cast<double>(n);
        const double angle = std::numbers::pi * cut * t;
        const double x = t / at_most;
        half[n] = (n == 0 ? 1 : std::sin(angle) / angle) * bessel_i0(BETA * std::sqrt(1 - x * x));
    }
    const double sum = half[0] + 2 * std::accumulate(half.begin() + 1, half.end(), 0.0);
    std::vector<double> taps(padded(2 * reach + 1));
    for (std::size_t n = 0; n <= reach; n++) taps[reach - n] = taps[reach + n] = half[n] / sum;
    return taps;
}

ORVEL_MULTIVERSION void shift_real(const double* x, const double* re, const double* im, std::size_t n, double* out_re,
                                   double* out_im) {
    for (std::size_t k = 0; k < n; k++) {
        out_re[k] = x[k] * re[k];
        out_im[k] = x[k] * im[k];
    }
}

ORVEL_MULTIVERSION void shift_iq(const double* i, const double* q, const double* re, const double* im, std::size_t n,
                                 double* out_re, double* out_im) {
    for (std::size_t k = 0; k < n; k++) {
        out_re[k] = i[k] * re[k] - q[k] * im[k];
        out_im[k] = i[k] * im[k] + q[k] * re[k];
    }
}

inline double sum_of(const Doubles4& x) {
    return (x[0] + x[2]) + (x[1] + x[3]);
}

// Σ taps[k]·samples[j·factor + k] for each j.
ORVEL_MULTIVERSION void filter_some(const double* re, const double* im, std::size_t factor, const double* taps,
                                    std::size_t n, Complex* out) {
    Doubles4 sum_re[AT_ONCE] = {};
    Doubles4 sum_im[AT_ONCE] = {};
    for (std::size_t k = 0; k < n; k += LANES) {
        Doubles4 tap;
        load(tap, taps + k);
        for (std::size_t j = 0; j < AT_ONCE; j++) {
            Doubles4 sample_re;
            Doubles4 sample_im;
            load(sample_re, re + j * factor + k);
            load(sample_im, im + j * factor + k);
            sum_re[j] += tap * sample_re;
            sum_im[j] += tap * sample_im;
        }
    }
    for (std::size_t j = 0; j < AT_ONCE; j++) out[j] = {sum_of(sum_re[j]), sum_of(sum_im[j])};
}

class Decimator {
  public:
    Decimator(const Block& block, const Decimation& decimation)
        : block_(block),
          decimation_(decimation),
          factor_(static_cast<std::size_t>(decimation.factor)),
          reach_(reach_of(block, decimation)),
          taps_(filter_taps(decimation.half_hz / block.rate, 1.0 / decimation.factor - decimation.half_hz / block.rate,
                            reach_)),
          shifted_((PIECE - 1) * factor_ + taps_.size()),
          phasors_(shifted_.re.size()) {
        for (std::size_t k = 0; k < phasors_.re.size(); k++) {
            const Complex phasor = phasor_at(static_cast<int64_t>(k));
            phasors_.re[k] = phasor.real();
            phasors_.im[k] = phasor.imag();
        }
    }

    // Samples [first, first + count) of what is left.
    void filter(std::size_t first, std::size_t count, Complex* out) {
        const int64_t begin = static_cast<int64_t>(first * factor_) - static_cast<int64_t>(reach_);
        shift(begin);
        const Complex phasor = phasor_at(begin);
        std::array<Complex, AT_ONCE> some;
        for (std::size_t j = 0; j < count; j += AT_ONCE) {
            filter_some(&shifted_.re[j * factor_], &shifted_.im[j * factor_], factor_, taps_.data(), taps_.size(),
                        some.data());
            const std::size_t wanted = std::min(AT_ONCE, count - j);
            for (std::size_t k = 0; k < wanted; k++) out[j + k] = some[k] * phasor;
        }
    }

  private:
    static std::size_t reach_of(const Block& block, const Decimation& decimation) {
        const double slope = 1.0 / decimation.factor - 2 * decimation.half_hz / block.rate;
        return at(static_cast<int64_t>(std::ceil(0.5 * TAPS_PER_PERIOD / slope)));
    }

    Complex phasor_at(int64_t sample) const {
        const int64_t turned =
            decimation_.turns % decimation_.period * (sample % decimation_.period) % decimation_.period;
        return std::polar(
            1.0, -2 * std::numbers::pi * static_cast<double>(turned) / static_cast<double>(decimation_.period));
    }

    // Samples of the block, from any place on.
    void shift(int64_t begin) {
        const auto held = static_cast<int64_t>(block_.x.size());
        const std::size_t length = shifted_.re.size();
        for (std::size_t done = 0; done < length;) {
            const int64_t place =
                ((begin + static_cast<int64_t>(done)) % decimation_.period + decimation_.period) % decimation_.period;
            const bool is_held = place < held;
            const std::size_t n = std::min(length - done, at((is_held ? held : decimation_.period) - place));
            double* const re = &shifted_.re[done];
            double* const im = &shifted_.im[done];
            if (!is_held) {
                std::fill_n(re, n, 0.0);
                std::fill_n(im, n, 0.0);
            } else if (block_.q.empty()) {
                shift_real(&block_.x[at(place)], &phasors_.re[done], &phasors_.im[done], n, re, im);
            } else {
                shift_iq(&block_.x[at(place)], &block_.q[at(place)], &phasors_.re[done], &phasors_.im[done], n, re, im);
            }
            done += n;
        }
    }

    const Block& block_;
    Decimation decimation_;
    std::size_t factor_;
    std::size_t reach_;  // of the filter, samples each side
    std::vector<double> taps_;
    Numbers shifted_;
    Numbers phasors_;
};

bool are_finite(std::span<const Complex> samples) {
    return std::ranges::all_of(samples, [](Complex z) { return std::isfinite(z.real()) && std::isfinite(z.imag()); });
}

int whole_baseband(const Block& block, double center_hz, int32_t rate, ov_baseband& out) {
    const auto n = static_cast<int32_t>(block.x.size());
    return block.q.empty() ? ov_baseband_real(block.x.data(), n, block.rate, center_hz, rate, out)
                           : ov_baseband_iq(block.x.data(), block.q.data(), n, block.rate, center_hz, rate, out);
}

}  // namespace

int32_t decimation_factor(int64_t length, int64_t samples, int32_t rate, double half_hz) {
    const auto held = static_cast<double>(samples) / (LANES * PIECE);  // the tables take no more than the block
    const double most = std::min({rate / (2 * LEAST_ROOM * half_hz), static_cast<double>(length), held});
    if (!(most >= LEAST_FACTOR)) return 1;
    auto factor = static_cast<int32_t>(most);
    while (length % factor != 0) factor--;
    return factor >= LEAST_FACTOR ? factor : 1;
}

FftwArray<Complex> decimate(const Block& block, const Decimation& decimation) {
    const std::size_t count = at(decimation.period / decimation.factor);
    auto left = fftw_array<Complex>(static_cast<int64_t>(count));
    if (!left) throw std::bad_alloc();
    Decimator decimator(block, decimation);
    for (std::size_t first = 0; first < count; first += PIECE) {
        decimator.filter(first, std::min(PIECE, count - first), left.get() + first);
    }
    return left;
}

int baseband_around(const Block& block, double center_hz, int32_t out_rate, ov_baseband& out) {
    const auto n = static_cast<int32_t>(block.x.size());
    const double half_hz = 0.5 * out_rate;
    ov_spectrum spectrum{};
    const bool sized = choose_sizes(n, block.rate, out_rate, spectrum.nfft, spectrum.nout) == 0;
    const int32_t factor =
        sized ? decimation_factor(block.rate / std::gcd(block.rate, out_rate), n, block.rate, half_hz) : 1;
    const double lowest = block.q.empty() ? half_hz : -block.rate;
    const double highest = block.q.empty() ? 0.5 * block.rate - half_hz : block.rate;
    const bool holds_band = center_hz >= lowest && center_hz <= highest;  // all of it, of real samples
    if (factor == 1 || !holds_band) return whole_baseband(block, center_hz, out_rate, out);

    out = {};
    const int64_t period = spectrum.nfft;
    const int64_t turns = std::llround(center_hz * static_cast<double>(period) / block.rate);
    auto left = decimate(block, {period, turns, factor, half_hz});
    if (!are_finite({left.get(), at(period / factor)})) return -1;  // every sample has its share in some of these
    spectrum.nfft = spectrum.nbins = static_cast<int32_t>(period / factor);
    spectrum.is_complex = 1;
    spectrum.rate = block.rate / factor;
    spectrum.out_rate = out_rate;
    spectrum.nsamp_out = static_cast<int32_t>(std::floor(static_cast<double>(n) * out_rate / block.rate));
    {
        const FftwPlan plan = plan_complex(spectrum.nfft, left.get(), left.get(), FFTW_FORWARD);
        if (!plan) return -1;
        fftw_execute(plan.get());
    }
    spectrum.bins = left.get();
    if (ov_baseband_extract(spectrum, 0, out) != 0) return -1;
    out.centre = static_cast<double>(turns) * block.rate / static_cast<double>(period);
    return 0;
}
