#include "ovpassband.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <new>
#include <numbers>

#include "ovfft.h"
#include "ovhypothesis.h"
#include "ovpipe_search.h"
#include "ovsnr.h"
#include "protocol.h"

namespace {

using Complex = std::complex<double>;

constexpr int64_t LEAST_WINDOWS = 50;
constexpr int64_t MOST_WINDOWS = 2000;
constexpr double FLOOR_SHARE = 0.1;   // of the windows: a keyed carrier is off for longer
constexpr double FILLED_SHARE = 0.9;  // the floor that so many bins do not exceed is that of noise, not of a carrier
constexpr float LEAST_OF_FLOOR = 1.0F / 8;
constexpr double NEARLY_ALL = 0.9;

// The value of the given rank, as a share of their number. Reorders the values.
float at_share(std::span<float> values, double share) {
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size()));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

// Powers of Hann windows of a chip's length half a chip apart, bin by bin; of a long block those of some windows. Empty
// when the block is too short.
std::vector<float> window_powers(const ov_baseband& bb, int32_t chip_len, std::size_t& windows) {
    const int64_t most = (int64_t{bb.n} - chip_len) / std::max(1, chip_len / 2) + 1;
    windows = static_cast<std::size_t>(std::clamp<int64_t>(most, 0, MOST_WINDOWS));
    if (most < LEAST_WINDOWS) return {};
    const auto window = fftw_array<Complex>(chip_len);
    const FftwPlan plan = window ? plan_complex(chip_len, window.get(), window.get(), FFTW_FORWARD) : FftwPlan{};
    if (!plan) throw std::bad_alloc();

    std::vector<double> shape(static_cast<std::size_t>(chip_len));
    for (std::size_t k = 0; k < shape.size(); k++) {
        shape[k] = 1 - std::cos(2 * std::numbers::pi * (static_cast<double>(k) + 0.5) / chip_len);
    }
    std::vector<float> powers(static_cast<std::size_t>(chip_len) * windows);
    for (std::size_t w = 0; w < windows; w++) {
        const auto first = static_cast<int64_t>(w) * (bb.n - chip_len) / static_cast<int64_t>(windows - 1);
        std::transform(shape.begin(), shape.end(), bb.samples + first, window.get(), std::multiplies<>());
        fftw_execute(plan.get());
        for (std::size_t bin = 0; bin < static_cast<std::size_t>(chip_len); bin++) {
            powers[bin * windows + w] = static_cast<float>(std::norm(window.get()[bin]));
        }
    }
    return powers;
}

// The hypothesis that a spot was, measured again.
ov_hyp measured_again(const ov_baseband& bb, int32_t chip_len, const ov_spot& spot, int32_t chips) {
    ov_hyp hyp{};
    hyp.start = static_cast<int32_t>(std::lround(spot.t * bb.rate));
    hyp.f = spot.freq - bb.centre;
    hyp.drift = spot.drift;
    hyp.nchips = chips;
    hyp.n_in = ov_chip_energies(bb, chip_len, chips, hyp.start, hyp.f, hyp.drift, hyp.energy);
    return hyp;
}

double snr_within(const ov_baseband& bb, const ov_params& params, std::span<const uint8_t> filled,
                  const ov_spot& spot) {
    const ov_protocol* const protocol = ov_protocol_by_id(static_cast<uint32_t>(spot.protocol));
    std::array<uint8_t, OV_MAX_CHIPS> on;
    if (protocol == nullptr || encode_frame(*protocol, spot.call, spot.locator, on.data()) != 0) return OV_NO_SNR;
    const auto chip_len = static_cast<int32_t>(filled.size());
    const ov_hyp hyp = measured_again(bb, chip_len, spot, protocol->chips());
    const double snr = ov_estimate_snr_filled(bb, chip_len, hyp, on.data(), chip_seconds(params), filled);
    return snr == OV_NO_SNR || params.snr_adjust == 0 ? snr : snr + protocol->on_share_db;
}

}  // namespace

std::vector<uint8_t> ov_filled_bins(const ov_baseband& bb, int32_t chip_len) {
    std::vector<uint8_t> filled(static_cast<std::size_t>(std::max(0, chip_len)), 1);
    std::size_t windows = 0;
    std::vector<float> powers = window_powers(bb, chip_len, windows);
    if (powers.empty()) return filled;
    std::vector<float> floors;
    floors.reserve(filled.size());
    for (std::size_t bin = 0; bin < filled.size(); bin++) {
        floors.push_back(at_share(std::span(powers).subspan(bin * windows, windows), FLOOR_SHARE));
    }
    std::vector<float> copy = floors;
    const float least = LEAST_OF_FLOOR * at_share(copy, FILLED_SHARE);
    std::ranges::transform(floors, filled.begin(), [&](float floor) { return floor >= least ? 1 : 0; });
    return filled;
}

void ov_measure_within_passband(const ov_baseband& bb, const ov_params& params, std::span<ov_spot> spots) {
    const auto chip_len = static_cast<int32_t>(std::lround(chip_seconds(params) * bb.rate));
    if (spots.empty() || params.spread_hz > 0 || chip_len < 1) return;
    const std::vector<uint8_t> filled = ov_filled_bins(bb, chip_len);
    if (static_cast<double>(std::ranges::count(filled, 1)) >= NEARLY_ALL * static_cast<double>(filled.size())) return;
    for (ov_spot& spot : spots) spot.snr = snr_within(bb, params, filled, spot);
}
