// Noise is measured in the windows in which the carrier is continuous, after removing it, and otherwise in the chips in
// which it is off.
#include "ovsnr.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <new>
#include <numbers>
#include <span>
#include <vector>

#include "ovfft.h"
#include "ovhypothesis.h"
#include "robust.h"

namespace {

using Complex = std::complex<double>;

constexpr int32_t MIN_SNR_CHIP_SAMPLES = 16;
constexpr int32_t SNR_GUARD_BINS = 15;    // bins each side of the carrier that are not noise
constexpr int32_t NARROW_GUARD_BINS = 4;  // where the passband leaves no other
constexpr std::size_t MIN_SNR_SAMPLES = 200;

double snr_from_ratio(double ratio, double chip_s) {
    return 10.0 * std::log10(std::fmax(ratio, 0.0001) / (chip_s * 2500.0));
}

double snr_above(double on_mean, std::span<float> noise_powers, double chip_s) {
    // The upper middle value for an even count, not the mean of two.
    const double noise = upper_median(noise_powers) / LN2;
    return snr_from_ratio((on_mean - noise) / noise, chip_s);
}

// Mean energy of the measured chips that are ON (or OFF); false when there is none.
bool mean_energy(const ov_hyp& hyp, const uint8_t* on, bool wanted, double& mean) {
    double sum = 0;
    int32_t count = 0;
    for (int32_t c = 0; c < hyp.nchips; c++) {
        if (hyp.energy[c] < 0 || (on[c] != 0) != wanted) continue;
        sum += hyp.energy[c];
        count++;
    }
    if (count == 0) return false;
    mean = sum / count;
    return true;
}

// Removes the carrier, a constant amplitude at theta rad per sample, from a window.
void remove_carrier(std::span<const Complex> x, double theta, Complex* out) {
    const Complex rotation(std::cos(theta), std::sin(theta));
    Complex amplitude;
    Complex phasor(1, 0);
    for (const Complex& sample : x) {
        amplitude += sample * std::conj(phasor);
        phasor *= rotation;
    }
    amplitude /= static_cast<double>(x.size());

    phasor = 1;
    for (const Complex& sample : x) {
        *out++ = sample - amplitude * phasor;
        phasor *= rotation;
    }
}

// Powers of the bins more than `guard` from the carrier in every window from the middle of an ON chip to the middle of
// the next ON chip, of those bins that are filled where that is given. Empty when there is none or no memory.
std::vector<float> noise_powers(const ov_baseband& bb, int32_t chip_len, const ov_hyp& hyp, const uint8_t* on,
                                int32_t guard, std::span<const uint8_t> filled) {
    const auto window = fftw_array<Complex>(chip_len);
    const auto bins = fftw_array<Complex>(chip_len);
    if (!window || !bins) return {};
    const FftwPlan plan = plan_complex(chip_len, window.get(), bins.get(), FFTW_FORWARD);
    if (!plan) return {};

    std::vector<float> powers;
    const DriftLine line(bb.rate, hyp.start, hyp.nchips, chip_len, hyp.f, hyp.drift);
    for (int32_t c = 1; c < hyp.nchips; c++) {
        const bool keyed_through = on[c - 1] != 0 && on[c] != 0;
        if (!keyed_through || hyp.energy[c - 1] < 0 || hyp.energy[c] < 0) continue;
        const int64_t start = hyp.start + int64_t{c - 1} * chip_len + chip_len / 2;
        if (start < 0 || start + chip_len > bb.n) continue;

        const double f = line.at(static_cast<double>(start));
        remove_carrier({bb.samples + start, static_cast<std::size_t>(chip_len)}, 2 * std::numbers::pi * f / bb.rate,
                       window.get());
        fftw_execute(plan.get());

        const double carrier_bin = std::round(f / bb.rate * chip_len);
        for (int32_t j = 0; j < chip_len; j++) {
            double distance = std::fmod(j - carrier_bin, chip_len);
            if (distance < 0) distance += chip_len;
            const bool has_noise = filled.empty() || filled[static_cast<std::size_t>(j)] != 0;
            if (has_noise && std::fmin(distance, chip_len - distance) > guard) {
                powers.push_back(static_cast<float>(std::norm(bins.get()[j])));
            }
        }
    }
    return powers;
}

}  // namespace

double ov_estimate_snr(const ov_hyp& hyp, const uint8_t* on, double chip_s) {
    double on_mean = 0;
    double off_mean = 0;
    if (!mean_energy(hyp, on, true, on_mean) || !mean_energy(hyp, on, false, off_mean)) return OV_NO_SNR;
    double ratio = (on_mean - off_mean) / off_mean;
    if (hyp.spread_factor > 0) ratio *= hyp.spread_factor;
    return snr_from_ratio(ratio, chip_s);
}

double ov_estimate_snr_bb(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, const uint8_t* on,
                          double chip_s) {
    if (map.spread != 0 || map.chip_len < MIN_SNR_CHIP_SAMPLES) return ov_estimate_snr(hyp, on, chip_s);
    double on_mean = 0;
    if (!mean_energy(hyp, on, true, on_mean)) return OV_NO_SNR;

    std::vector<float> powers;
    try {
        powers = noise_powers(bb, map.chip_len, hyp, on, SNR_GUARD_BINS, {});
    } catch (const std::bad_alloc&) {
        powers.clear();
    }
    if (powers.size() < MIN_SNR_SAMPLES) return ov_estimate_snr(hyp, on, chip_s);
    return snr_above(on_mean, powers, chip_s);
}

double ov_estimate_snr_filled(const ov_baseband& bb, int32_t chip_len, const ov_hyp& hyp, const uint8_t* on,
                              double chip_s, std::span<const uint8_t> filled) {
    double on_mean = 0;
    if (!mean_energy(hyp, on, true, on_mean)) return OV_NO_SNR;
    for (const int32_t guard : {SNR_GUARD_BINS, NARROW_GUARD_BINS}) {
        std::vector<float> powers = noise_powers(bb, chip_len, hyp, on, guard, filled);
        if (powers.size() >= MIN_SNR_SAMPLES) return snr_above(on_mean, powers, chip_s);
    }
    return OV_NO_SNR;
}
