#include "decoding/coherent_block.h"

#include <algorithm>
#include <complex>
#include <cstddef>
#include <span>

#include "coherent/coherent.h"
#include "ovbb.h"
#include "ovscan.h"
#include "owners.h"

namespace {

constexpr int32_t BASEBAND_RATE = 500;  // Hz
constexpr double MOST_BAND_HZ = 400;    // that one baseband serves
constexpr double TILE_HZ = 20;          // on each side of a keyed frequency
constexpr double TILE_SEPARATION_HZ = 30;

const double* q_of(const Block& block) {
    return block.q.empty() ? nullptr : block.q.data();
}

int32_t samples_of(const Block& block) {
    return static_cast<int32_t>(block.x.size());
}

// Searches a block whose 0 Hz lies at `offset_hz` of the spots.
void search_block(const Block& block, const ov_params& params, double offset_hz, std::vector<Found>& spots) {
    std::vector<ov_spot> found(spots.begin(), spots.end());
    for (ov_spot& spot : found) spot.freq -= offset_hz;
    ov_coherent settings;
    ov_coherent_default(settings);
    const ov_block samples = {block.x.data(), q_of(block), samples_of(block), block.rate};
    for (const auto& [spot, odds] : ov_decode_coherent(samples, params, settings, found)) {
        spots.push_back({spot, odds});
        spots.back().freq += offset_hz;
    }
}

std::vector<ov_hit> keyed_frequencies(const Block& block, const Search& search, const ov_params& params) {
    std::vector<ov_hit> hits(MAX_TILES);
    const int32_t n = ov_scan(block.x.data(), q_of(block), samples_of(block), block.rate, OV_CHIP_SECONDS,
                              params.center_hz - params.search_hz, params.center_hz + params.search_hz, search.scan_z,
                              TILE_SEPARATION_HZ, MAX_TILES, hits.data(), nullptr, 0);
    hits.resize(static_cast<std::size_t>(std::max(n, 0)));
    return hits;
}

// The tiles around keyed frequencies, neighbours joined as far as a baseband goes.
std::vector<Range> bands_around(std::vector<ov_hit> keyed) {
    std::ranges::sort(keyed, {}, &ov_hit::freq_hz);
    std::vector<Range> bands;
    for (const ov_hit& hit : keyed) {
        const Range tile = {hit.freq_hz - TILE_HZ, hit.freq_hz + TILE_HZ};
        if (!bands.empty() && tile.high - bands.back().low <= MOST_BAND_HZ) {
            bands.back().high = tile.high;
        } else {
            bands.push_back(tile);
        }
    }
    return bands;
}

void search_band(const ov_spectrum& spectrum, const Range& band, ov_params params, std::vector<Found>& spots) {
    BasebandOwner cut;
    if (ov_baseband_extract(spectrum, 0.5 * (band.low + band.high), cut) != 0) return;
    std::vector<double> i;
    std::vector<double> q;
    for (const std::complex<double>& sample : std::span(cut.samples, static_cast<std::size_t>(cut.n))) {
        i.push_back(sample.real());
        q.push_back(sample.imag());
    }
    params.center_hz = 0;
    params.search_hz = 0.5 * (band.high - band.low);
    search_block({i, q, BASEBAND_RATE}, params, cut.centre, spots);
}

// The whole band is transformed once; each of its parts is cut out of that spectrum.
void search_wide(const Block& block, const Search& search, const ov_params& params, std::vector<Found>& spots) {
    const std::vector<Range> bands = bands_around(keyed_frequencies(block, search, params));
    if (bands.empty()) return;
    SpectrumOwner spectrum;
    const int failed =
        block.q.empty()
            ? ov_spectrum_real(block.x.data(), samples_of(block), block.rate, BASEBAND_RATE, spectrum)
            : ov_spectrum_iq(block.x.data(), q_of(block), samples_of(block), block.rate, BASEBAND_RATE, spectrum);
    if (failed != 0) return;
    for (const Range& band : bands) search_band(spectrum, band, params, spots);
}

}  // namespace

void add_coherent(const Block& block, const Search& search, const ov_params& params, std::vector<Found>& spots) {
    if (search.wide) {
        search_wide(block, search, params, spots);
    } else {
        search_block(block, params, 0, spots);
    }
    std::ranges::stable_sort(spots, {}, &Found::t);
}
