#include "decoding/bands.h"

#include <algorithm>
#include <cmath>

#include "ovscan.h"

namespace {

constexpr double WIDEST_ALONE_HZ = 250;  // half-width
constexpr double OVERLAP_HZ = 4;
constexpr double SEPARATION_HZ = 30;             // of keyed frequencies
constexpr double AROUND_HZ = SEPARATION_HZ + 3;  // reaches every station whose stronger neighbour was taken instead

std::vector<Band> neighbours(const Range& whole) {
    const double width = whole.high - whole.low;
    const double least = std::ceil((width - OVERLAP_HZ) / (MOST_BAND_HZ - OVERLAP_HZ));
    const auto count = static_cast<int32_t>(std::max(1.0, least));
    const double step = (width - OVERLAP_HZ) / count;
    const double half = 0.5 * (step + OVERLAP_HZ);
    std::vector<Band> bands;
    bands.reserve(static_cast<std::size_t>(count));
    for (int32_t k = 0; k < count; k++) bands.push_back({whole.low + k * step + half, half});
    return bands;
}

// In order of frequency.
std::optional<std::vector<ov_hit>> keyed_frequencies(const Block& block, const Range& band, double least_z) {
    std::vector<ov_hit> hits(MAX_TILES);
    const double* const q = block.q.empty() ? nullptr : block.q.data();
    const int32_t n = ov_scan(block.x.data(), q, static_cast<int32_t>(block.x.size()), block.rate, OV_CHIP_SECONDS,
                              band.low, band.high, least_z, SEPARATION_HZ, MAX_TILES, hits.data(), nullptr, 0);
    if (n < 0) return std::nullopt;
    hits.resize(static_cast<std::size_t>(n));
    std::ranges::sort(hits, {}, &ov_hit::freq_hz);
    return hits;
}

std::vector<Band> bands_around(const std::vector<ov_hit>& keyed, const Range& limits) {
    std::vector<Band> bands;
    for (std::size_t first = 0, next = 0; first < keyed.size(); first = next) {
        double low = keyed[first].freq_hz - AROUND_HZ;
        double high = keyed[first].freq_hz + AROUND_HZ;
        for (next = first + 1; next < keyed.size(); next++) {
            const double further = keyed[next].freq_hz + AROUND_HZ;
            if (further - 2 * AROUND_HZ > high || further - low > MOST_BAND_HZ) break;
            high = further;
        }
        low = std::max(low, limits.low);
        high = std::min(high, limits.high);
        bands.push_back({0.5 * (low + high), 0.5 * (high - low)});
    }
    return bands;
}

}  // namespace

bool is_one_band(const Search& search) {
    return !search.wide && search.search_hz <= WIDEST_ALONE_HZ;
}

std::optional<std::vector<Band>> bands_of(const Block& block, const Search& search) {
    const Range whole = whole_band(search.iq, block.rate);
    if (search.wide) {
        const Range band = search.band.value_or(whole);
        const auto keyed = keyed_frequencies(block, band, search.scan_z);
        if (!keyed) return std::nullopt;
        return bands_around(*keyed, band);
    }
    const double center = center_of(search);
    const Range within = {std::max(center - search.search_hz, whole.low),
                          std::min(center + search.search_hz, whole.high)};
    return within.low < within.high ? neighbours(within) : std::vector<Band>{};
}
