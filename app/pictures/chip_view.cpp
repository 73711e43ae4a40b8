#include "pictures/chip_view.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "liborvel.h"
#include "ovbb.h"
#include "ovsync.h"
#include "owners.h"

namespace {

constexpr int32_t BASEBAND_RATE = 500;  // Hz; a chip is 64 samples
constexpr double MARGIN_S = 1;          // of samples around the frame
constexpr int FIRST_BESIDE = 3;         // chip bandwidths from the carrier at which noise is measured
constexpr int LAST_BESIDE = 10;

class ChipEnergies {
  public:
    ChipEnergies(const ov_baseband& baseband, const ov_spot& spot, int32_t start, int32_t nchips)
        : baseband_(baseband),
          chip_len_(static_cast<int32_t>(std::lround(ovl_chip_seconds() * BASEBAND_RATE))),
          start_(start),
          offset_hz_(spot.freq - baseband.centre),
          drift_(spot.drift),
          energies_(static_cast<std::size_t>(nchips)) {}

    // This far from the carrier.
    const std::vector<float>& beside(double hz) {
        ov_chip_energies(baseband_, chip_len_, static_cast<int32_t>(energies_.size()), start_, offset_hz_ + hz, drift_,
                         energies_.data());
        return energies_;
    }

  private:
    const ov_baseband& baseband_;
    int32_t chip_len_, start_;
    double offset_hz_, drift_;
    std::vector<float> energies_;
};

// Mean energy of a chip of noise alone, by the median of its exponential distribution.
double noise_energy(ChipEnergies& energies) {
    const double chip_hz = 1 / ovl_chip_seconds();
    std::vector<float> beside;
    for (int step = FIRST_BESIDE; step <= LAST_BESIDE; step++) {
        for (const double hz : {-step * chip_hz, step * chip_hz}) {
            const std::vector<float>& found = energies.beside(hz);
            std::copy_if(found.begin(), found.end(), std::back_inserter(beside), [](float x) { return x >= 0; });
        }
    }
    if (beside.empty()) return 0;
    std::vector<float> scratch(beside.size());
    return median_of(beside.data(), static_cast<int32_t>(beside.size()), scratch.data()) / std::numbers::ln2;
}

double threshold_energy(const ChipView& view) {
    double sums[2] = {0, 0};
    int32_t counts[2] = {0, 0};
    for (std::size_t chip = 0; chip < view.chips.size(); chip++) {
        if (!view.measured(chip)) continue;
        const std::size_t on = view.chips[chip] != 0 ? 1 : 0;
        sums[on] += view.energy[chip];
        counts[on]++;
    }
    const auto amplitude = [&](int on) { return counts[on] > 0 ? std::sqrt(sums[on] / counts[on]) : 1; };
    const double middle = (amplitude(0) + amplitude(1)) / 2;
    return middle * middle;
}

}  // namespace

int32_t ChipView::measured_count() const {
    return static_cast<int32_t>(std::count_if(energy.begin(), energy.end(), [](double x) { return x >= 0; }));
}

int32_t ChipView::wrong_count() const {
    int32_t count = 0;
    for (std::size_t chip = 0; chip < chips.size(); chip++) count += wrong(chip) ? 1 : 0;
    return count;
}

std::optional<ChipView> measure_chips(Recording& recording, const ov_spot& spot) {
    const int32_t nchips = ovl_frame_chips(static_cast<uint32_t>(spot.protocol));
    ChipView view{spot, std::vector<uint8_t>(static_cast<std::size_t>(nchips)), {}, 0};
    if (ovl_encode(static_cast<uint32_t>(spot.protocol), spot.call, spot.locator, view.chips.data(), nchips) < 0) {
        return std::nullopt;
    }

    const double from_s = std::max(spot.t - MARGIN_S, 0.0);
    const double to_s = spot.t + nchips * ovl_chip_seconds() + MARGIN_S;
    const Stretch stretch = recording.read(from_s, std::max(to_s - from_s, 0.0));
    if (stretch.x.empty()) return std::nullopt;
    BasebandOwner cut;
    const auto n = static_cast<int32_t>(stretch.x.size());
    const int failed =
        stretch.q.empty()
            ? ov_baseband_real(stretch.x.data(), n, recording.rate(), spot.freq, BASEBAND_RATE, cut)
            : ov_baseband_iq(stretch.x.data(), stretch.q.data(), n, recording.rate(), spot.freq, BASEBAND_RATE, cut);
    if (failed != 0) return std::nullopt;

    const auto start = static_cast<int32_t>(std::lround((spot.t - stretch.begin_s) * BASEBAND_RATE));
    ChipEnergies energies(cut, spot, start, nchips);
    const double noise = noise_energy(energies);
    for (const float energy : energies.beside(0)) {
        view.energy.push_back(energy < 0 ? -1 : noise > 0 ? energy / noise : energy);
    }
    view.threshold = threshold_energy(view);
    return view;
}
