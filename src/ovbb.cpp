// Resampling in the frequency domain: one transform of the whole block, a rectangular cut of whole bins, one transform
// back. Lengths are products of 2, 3, 5 and 7, for which FFTW is fast.
#include "ovbb.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <span>

#include "ovfft.h"

namespace {

using Complex = std::complex<double>;

constexpr std::array<int64_t, 4> FAST_PRIMES = {2, 3, 5, 7};
constexpr int32_t SIZE_TRIES = 100000;
constexpr double MAX_CENTRE_BIN = 0x1p52;  // a double cannot tell bins beyond this apart

bool is_fast_length(int64_t n) {
    if (n < 1) return false;
    for (const int64_t prime : FAST_PRIMES) {
        while (n % prime == 0) n /= prime;
    }
    return n == 1;
}

bool all_finite(const double* x, int32_t n) {
    return std::all_of(x, x + std::max(n, 0), [](double v) { return std::isfinite(v); });
}

// Copies samples; false when one of them is not finite.
bool copy_finite(const double* x, int32_t n, double* out) {
    double zero = 0;  // stays 0 as long as all are finite
    for (int32_t k = 0; k < n; k++) {
        out[k] = x[k];
        zero += x[k] * 0.0;
    }
    return zero == 0;
}

// Everything in the record but the bins themselves.
int describe(int32_t n, int32_t rate, int32_t out_rate, bool is_complex, ov_spectrum& out) {
    ov_spectrum spectrum{};
    if (choose_sizes(n, rate, out_rate, spectrum.nfft, spectrum.nout) != 0) return -1;
    spectrum.nbins = is_complex ? spectrum.nfft : spectrum.nfft / 2 + 1;
    spectrum.is_complex = is_complex ? 1 : 0;
    spectrum.rate = rate;
    spectrum.out_rate = out_rate;
    spectrum.nsamp_out =
        static_cast<int32_t>(std::floor(static_cast<double>(std::max(n, 0)) * out_rate / static_cast<double>(rate)));
    out = spectrum;
    return 0;
}

}  // namespace

int choose_sizes(int32_t n, int32_t rate, int32_t out_rate, int32_t& nfft, int32_t& nout) {
    if (rate < 1 || out_rate < 1) return -1;
    const int64_t divisor = std::gcd(rate, out_rate);
    const int64_t a = rate / divisor;
    const int64_t b = out_rate / divisor;
    if (!is_fast_length(a) || !is_fast_length(b)) return -1;  // then no multiple is fast either

    int64_t k = std::max<int64_t>((static_cast<int64_t>(n) + a - 1) / a, 1);
    for (int32_t tries = 0; tries < SIZE_TRIES; tries++, k++) {
        if (std::max(k * a, k * b) > std::numeric_limits<int32_t>::max()) return -1;
        if (!is_fast_length(k)) continue;
        nfft = static_cast<int32_t>(k * a);
        nout = static_cast<int32_t>(k * b);
        return 0;
    }
    return -1;
}

int ov_spectrum_real(const double* x, int32_t n, int32_t rate, int32_t out_rate, ov_spectrum& out) {
    out = {};
    ov_spectrum spectrum;
    if (describe(n, rate, out_rate, false, spectrum) != 0) return -1;

    // In place: touching as much memory again would take longer than the transform.
    auto bins = fftw_array<Complex>(spectrum.nbins);
    if (!bins) return -1;
    auto* const samples = reinterpret_cast<double*>(bins.get());
    if (!copy_finite(x, n, samples)) return -1;
    std::fill(samples + std::max(n, 0), samples + spectrum.nfft, 0.0);

    const FftwPlan plan = plan_real_forward(spectrum.nfft, samples, bins.get());
    if (!plan) return -1;
    fftw_execute(plan.get());

    out = spectrum;
    out.bins = bins.release();
    return 0;
}

int ov_spectrum_iq(const double* i, const double* q, int32_t n, int32_t rate, int32_t out_rate, ov_spectrum& out) {
    out = {};
    ov_spectrum spectrum;
    if (describe(n, rate, out_rate, true, spectrum) != 0 || !all_finite(i, n) || !all_finite(q, n)) return -1;

    auto bins = fftw_array<Complex>(spectrum.nfft);
    if (!bins) return -1;
    Complex* const end =
        std::transform(i, i + std::max(n, 0), q, bins.get(), [](double re, double im) { return Complex(re, im); });
    std::fill(end, bins.get() + spectrum.nfft, Complex{});

    const FftwPlan plan = plan_complex(spectrum.nfft, bins.get(), bins.get(), FFTW_FORWARD);
    if (!plan) return -1;
    fftw_execute(plan.get());

    out = spectrum;
    out.bins = bins.release();
    return 0;
}

void ov_spectrum_free(ov_spectrum& spectrum) {
    fftw_free(spectrum.bins);
    spectrum = {};
}

int ov_baseband_extract(const ov_spectrum& spectrum, double centre_hz, ov_baseband& out) {
    out = {};
    const double bin = centre_hz * spectrum.nfft / spectrum.rate;
    if (!(std::fabs(bin) <= MAX_CENTRE_BIN)) return -1;
    const int64_t centre = std::llround(bin);

    auto band = fftw_array<Complex>(spectrum.nout);
    if (!band) return -1;
    std::fill(band.get(), band.get() + spectrum.nout, Complex{});

    const std::span<const Complex> bins(spectrum.bins, static_cast<std::size_t>(spectrum.nbins));
    const double scale = 1.0 / spectrum.nfft;
    const int32_t below = spectrum.nout / 2;  // bins below the centre; they go to the top of the buffer
    for (int32_t j = -below; j < spectrum.nout - below; j++) {
        int64_t source = centre + j;
        if (spectrum.is_complex != 0) {
            source %= spectrum.nfft;
            if (source < 0) source += spectrum.nfft;
        } else if (source < 0 || source >= spectrum.nbins) {
            continue;
        }
        band[static_cast<std::size_t>(j < 0 ? j + spectrum.nout : j)] = bins[static_cast<std::size_t>(source)] * scale;
    }

    const FftwPlan plan = plan_complex(spectrum.nout, band.get(), band.get(), FFTW_BACKWARD);
    if (!plan) return -1;
    fftw_execute(plan.get());

    out.samples = band.release();
    out.n = std::min(spectrum.nout, spectrum.nsamp_out);
    out.rate = spectrum.out_rate;
    out.centre = static_cast<double>(centre) * spectrum.rate / spectrum.nfft;
    return 0;
}

void ov_baseband_free(ov_baseband& baseband) {
    fftw_free(baseband.samples);
    baseband = {};
}

int ov_baseband_real(const double* x, int32_t n, int32_t rate, double centre_hz, int32_t out_rate, ov_baseband& out) {
    out = {};
    ov_spectrum spectrum;
    if (ov_spectrum_real(x, n, rate, out_rate, spectrum) != 0) return -1;
    const int result = ov_baseband_extract(spectrum, centre_hz, out);
    ov_spectrum_free(spectrum);
    return result;
}

int ov_baseband_iq(const double* i, const double* q, int32_t n, int32_t rate, double centre_hz, int32_t out_rate,
                   ov_baseband& out) {
    out = {};
    ov_spectrum spectrum;
    if (ov_spectrum_iq(i, q, n, rate, out_rate, spectrum) != 0) return -1;
    const int result = ov_baseband_extract(spectrum, centre_hz, out);
    ov_spectrum_free(spectrum);
    return result;
}
