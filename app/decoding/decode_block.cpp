#include "decoding/decode_block.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "decoding/bands.h"
#include "decoding/coherent_block.h"
#include "decoding/finds.h"
#include "ovbb.h"
#include "ovpassband.h"
#include "owners.h"

namespace {

constexpr double CANDIDATES_PER_MINUTE = 120;
constexpr double SPOTS_PER_MINUTE = 64;  // as the library reports from a block
constexpr double MOST = 1e6;             // of either

int32_t at_most(double count) {
    return static_cast<int32_t>(std::min(count, MOST));
}

int transform(const Block& block, int32_t out_rate, ov_spectrum& spectrum) {
    const auto n = static_cast<int32_t>(block.x.size());
    return block.q.empty() ? ov_spectrum_real(block.x.data(), n, block.rate, out_rate, spectrum)
                           : ov_spectrum_iq(block.x.data(), block.q.data(), n, block.rate, out_rate, spectrum);
}

std::optional<std::vector<Found>> decode_baseband(const ov_baseband& baseband, const ov_params& params,
                                                  double minutes) {
    std::vector<ov_spot> spots(static_cast<std::size_t>(at_most(SPOTS_PER_MINUTE * minutes)));
    const int32_t count = run(baseband, params, spots.data(), static_cast<int32_t>(spots.size()));
    if (count < 0) return std::nullopt;
    spots.resize(static_cast<std::size_t>(count));
    ov_measure_within_passband(baseband, params, spots);
    std::vector<Found> found;
    found.reserve(spots.size());
    for (const ov_spot& spot : spots) found.push_back({spot});
    return found;
}

// The decodes of several bands of one block, which share its transform.
class Bands {
  public:
    Bands(const Block& block, const Search& search, const ov_params& params, const ov_spectrum& spectrum)
        : block_(block), search_(search), params_(params), spectrum_(spectrum) {}

    // False when memory is short.
    bool add(const Band& band) {
        auto found = decode(band, params_, search_.coherent);
        if (!found) return false;
        finds_.add(*found);
        for (const Found& spot : *found) {
            if (spot.deep == 0 && !add_beside(spot)) return false;
        }
        return true;
    }

    std::vector<Found> in_order_of_time() { return finds_.in_order_of_time(); }

  private:
    // Next to a frame the decoder takes all others of the time for its shadows: the bands to its sides do not hold it.
    bool add_beside(const Found& spot) {
        ov_params params = params_;
        params.deep_search = 0;
        for (const double offset_hz : {-24.0, -20.0, -16.0, -12.0, 12.0, 16.0, 20.0, 24.0}) {
            auto found = decode({spot.freq + offset_hz, 4}, params, false);
            if (!found) return false;
            finds_.add_beside(std::move(*found));
        }
        return true;
    }

    std::optional<std::vector<Found>> decode(const Band& band, ov_params params, bool coherent) const {
        BasebandOwner baseband;
        if (ov_baseband_extract(spectrum_, band.center_hz, baseband) != 0) return std::nullopt;
        params.center_hz = band.center_hz;
        params.search_hz = band.half_hz;
        auto found = decode_baseband(baseband, params, block_.minutes());
        if (found && coherent) add_coherent(baseband, params, *found);
        return found;
    }

    const Block& block_;
    const Search& search_;
    const ov_params& params_;
    const ov_spectrum& spectrum_;
    Finds finds_;
};

// As the library does it, but for more candidates and the passband.
std::optional<std::vector<Found>> decode_whole(const Block& block, const Search& search, ov_params params) {
    params.center_hz = center_of(search);
    params.search_hz = search.search_hz;
    const auto n = static_cast<int32_t>(block.x.size());
    const auto rate = baseband_rate(params, n, block.rate);
    BasebandOwner baseband;
    if (!rate) return std::nullopt;
    const int failed =
        block.q.empty()
            ? ov_baseband_real(block.x.data(), n, block.rate, params.center_hz, *rate, baseband)
            : ov_baseband_iq(block.x.data(), block.q.data(), n, block.rate, params.center_hz, *rate, baseband);
    if (failed != 0) return std::nullopt;
    auto found = decode_baseband(baseband, params, block.minutes());
    if (found && search.coherent) add_coherent(block, params, *found);
    return found;
}

}  // namespace

std::optional<std::vector<Found>> decode_block(const Block& block, const Search& search, double end_max) {
    ov_params params = decode_params(search);
    params.end_max = end_max;
    params.max_cands = at_most(CANDIDATES_PER_MINUTE * block.minutes());
    if (is_one_band(search)) return decode_whole(block, search, params);

    const auto bands = bands_of(block, search);
    if (!bands) return std::nullopt;
    params.deep_pfa /= static_cast<double>(std::max<std::size_t>(1, bands->size()));
    params.search_hz = MOST_BAND_HZ / 2;
    const auto rate = baseband_rate(params, static_cast<int32_t>(block.x.size()), block.rate);
    SpectrumOwner spectrum;
    if (!rate || transform(block, *rate, spectrum) != 0) return std::nullopt;
    Bands decoded(block, search, params, spectrum);
    for (const Band& band : *bands) {
        if (!decoded.add(band)) return std::nullopt;
    }
    return decoded.in_order_of_time();
}
