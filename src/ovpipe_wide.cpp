// A wide band is transformed once; each frequency that the scan finds costs a narrow cut of that spectrum and a run.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "ovpipe_search.h"
#include "ovscan.h"
#include "owners.h"

namespace {

constexpr double TILE_SEARCH_HZ = 20;  // on each side
constexpr double TILE_SEPARATION_HZ = 30;
constexpr int32_t MAX_TILE_SPOTS = 16;

// A copy of the parameters for one of several tiles.
ov_params tile_params(const ov_params& params, int32_t tiles) {
    ov_params tile = params;
    tile.search_hz = TILE_SEARCH_HZ + 0.5 * params.spread_hz;
    tile.deep_pfa = params.deep_pfa / tiles;
    return tile;
}

// Adds the spots of a tile. A station may appear in two of them: of two decodes of the same frame, an ordinary one is
// kept rather than a deep one, and of two ordinary ones the stronger.
void merge_spots(std::span<const ov_spot> tile, double op, SpotList& found) {
    for (const ov_spot& spot : tile) {
        if (found.is_full()) return;
        const std::span<ov_spot> known = found.found();
        const auto same = std::ranges::find_if(known, [&](const ov_spot& other) {
            return std::strcmp(other.call, spot.call) == 0 &&
                   std::fabs(other.t - spot.t) < DUPLICATE_FRAMES * FRAME_PER_OP * op;
        });
        if (same == known.end()) {
            found.push_back(spot);
        } else if (spot.deep == 0 && (same->deep != 0 || spot.snr > same->snr)) {
            *same = spot;
        }
    }
}

int make_spectrum(const double* i, const double* q, int32_t n, int32_t rate, int32_t out_rate, ov_spectrum& out) {
    return q != nullptr ? ov_spectrum_iq(i, q, n, rate, out_rate, out) : ov_spectrum_real(i, n, rate, out_rate, out);
}

// Decodes around one frequency; a tile that cannot be cut or decoded adds nothing.
void decode_tile(const ov_spectrum& spectrum, double freq_hz, const ov_params& tile, SpotList& found) {
    BasebandOwner bb;
    if (ov_baseband_extract(spectrum, freq_hz, bb) != 0) return;
    std::array<ov_spot, MAX_TILE_SPOTS> spots;
    const int32_t count = run(bb, tile, spots.data(), MAX_TILE_SPOTS);
    merge_spots(std::span(spots).first(static_cast<std::size_t>(std::max(0, count))), tile.op, found);
}

}  // namespace

int32_t ov_decode_wide(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params,
                       double z_scan, int32_t max_tiles, ov_spot* spots, int32_t max_spots) {
    const VerboseLines lines{params.verbose != 0};
    const std::unique_ptr<ov_hit[]> tiles(new (std::nothrow) ov_hit[static_cast<std::size_t>(std::max(1, max_tiles))]);
    if (!tiles) return -1;
    const int32_t n_tiles = ov_scan(i, q, n, rate, chip_seconds(params), params.center_hz - params.search_hz,
                                    params.center_hz + params.search_hz, z_scan, TILE_SEPARATION_HZ, max_tiles,
                                    tiles.get(), nullptr, params.verbose);
    if (n_tiles < 0) return -1;
    lines.wide_scan(n_tiles, z_scan);
    if (n_tiles == 0) return 0;

    const ov_params tile = tile_params(params, n_tiles);
    const auto out_rate = baseband_rate(tile, n, rate);
    SpectrumOwner spectrum;
    if (!out_rate || make_spectrum(i, q, n, rate, *out_rate, spectrum) != 0) return -1;

    SpotList found(spots, 0, max_spots);
    for (int32_t k = 0; k < n_tiles && !found.is_full(); k++) {
        lines.tile(k + 1, n_tiles, tiles.get()[k]);
        decode_tile(spectrum, tiles.get()[k].freq_hz, tile, found);
    }
    found.sort_by_time();
    return found.count();
}
