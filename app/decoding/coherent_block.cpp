#include "decoding/coherent_block.h"

#include <algorithm>
#include <complex>
#include <cstdint>
#include <span>

#include "coherent/coherent.h"

namespace {

// Searches a block whose 0 Hz lies at `offset_hz` of the spots.
void search_block(const Block& block, const ov_params& params, double offset_hz, std::vector<Found>& spots) {
    std::vector<ov_spot> found(spots.begin(), spots.end());
    for (ov_spot& spot : found) spot.freq -= offset_hz;
    ov_coherent settings;
    ov_coherent_default(settings);
    const ov_block samples = {block.x.data(), block.q.empty() ? nullptr : block.q.data(),
                              static_cast<int32_t>(block.x.size()), block.rate};
    for (const auto& [spot, odds] : ov_decode_coherent(samples, params, settings, found)) {
        spots.push_back({spot, odds});
        spots.back().freq += offset_hz;
    }
    std::ranges::stable_sort(spots, {}, &Found::t);
}

}  // namespace

void add_coherent(const Block& block, const ov_params& params, std::vector<Found>& spots) {
    search_block(block, params, 0, spots);
}

void add_coherent(const ov_baseband& baseband, const ov_params& params, std::vector<Found>& spots) {
    std::vector<double> i;
    std::vector<double> q;
    for (const std::complex<double>& sample : std::span(baseband.samples, static_cast<std::size_t>(baseband.n))) {
        i.push_back(sample.real());
        q.push_back(sample.imag());
    }
    ov_params around = params;
    around.center_hz -= baseband.centre;
    search_block({i, q, static_cast<int32_t>(baseband.rate)}, around, baseband.centre, spots);
}
