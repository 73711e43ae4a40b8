#include "decoding/decode_block.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "coherent/coherent.h"
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
constexpr int32_t MOST_ROUNDS = 4;       // over a band from which what was found has been taken out
constexpr double CENTRAL_HZ = 12;

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

// One protocol after the other, until the standard search finds a frame in the middle.
std::optional<std::vector<Found>> decode_in_turn(const ov_baseband& baseband, const ov_params& params, double minutes) {
    std::vector<Found> all;
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        ov_params one = params;
        one.protocols &= protocol;
        if (one.protocols == 0) continue;
        const auto found = decode_baseband(baseband, one, minutes);
        if (!found) return std::nullopt;
        all.insert(all.end(), found->begin(), found->end());
        if (std::ranges::any_of(*found, [&](const Found& spot) {
                return spot.deep == 0 && std::fabs(spot.freq - params.center_hz) < CENTRAL_HZ;
            })) {
            break;
        }
    }
    return all;
}

// Weaker stations show when the stronger ones are taken out: next to a frame the decoder takes all others of its time
// for its shadows. Later searches go without the deep one.
std::optional<std::vector<Found>> decode_rest(ov_baseband& baseband, const ov_params& params, double minutes,
                                              std::span<const Found> found) {
    ov_params plain = params;
    plain.deep_search = 0;
    std::vector<Found> all(found.begin(), found.end());
    std::size_t taken = 0;
    for (int32_t round = 0; round < MOST_ROUNDS && taken < all.size(); round++) {
        for (; taken < all.size(); taken++) ov_take_out(baseband, all[taken]);
        const auto more = decode_baseband(baseband, plain, minutes);
        if (!more) return std::nullopt;
        for (const Found& spot : *more) {
            const auto is_same = [&](const Found& other) { return is_same_frame(spot, other); };
            if (std::ranges::none_of(all, is_same)) all.push_back(spot);
        }
    }
    all.erase(all.begin(), all.begin() + std::ssize(found));
    return all;
}

// The decodes of several bands of one block, which share its transform.
class Bands {
  public:
    Bands(const Block& block, const Search& search, const ov_params& params, const ov_spectrum& spectrum,
          Protocols protocols)
        : block_(block), search_(search), params_(params), spectrum_(spectrum), protocols_(protocols) {}

    // False when memory is short.
    bool add(const Band& band) {
        BasebandOwner baseband;
        if (ov_baseband_extract(spectrum_, band.center_hz, baseband) != 0) return false;
        ov_params params = params_;
        params.center_hz = band.center_hz;
        params.search_hz = band.half_hz;
        auto found = protocols_ == Protocols::TOGETHER ? decode_baseband(baseband, params, block_.minutes())
                                                       : decode_in_turn(baseband, params, block_.minutes());
        if (!found) return false;
        auto rest = decode_rest(baseband, params, block_.minutes(), *found);
        if (!rest) return false;
        finds_.add(*found);
        finds_.add_rest(*rest);
        if (!search_.coherent) return true;
        found->insert(found->end(), rest->begin(), rest->end());
        add_coherent(baseband, params, *found);
        finds_.add(*found);
        return true;
    }

    std::vector<Found> in_order_of_time() { return finds_.in_order_of_time(); }

  private:
    const Block& block_;
    const Search& search_;
    const ov_params& params_;
    const ov_spectrum& spectrum_;
    Protocols protocols_;
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

ov_params params_for(const Block& block, const Search& search, double end_max) {
    ov_params params = decode_params(search);
    params.end_max = end_max;
    params.max_cands = at_most(CANDIDATES_PER_MINUTE * block.minutes());
    return params;
}

}  // namespace

std::optional<std::vector<Found>> decode_bands(const Block& block, const Search& search, std::span<const Band> bands,
                                               Protocols protocols, std::size_t shares, double end_max) {
    ov_params params = params_for(block, search, end_max);
    params.deep_pfa /= static_cast<double>(std::max<std::size_t>(1, shares));
    const bool narrow = protocols == Protocols::IN_TURN && !search.coherent;
    params.search_hz = narrow ? std::ranges::max(bands, {}, &Band::half_hz).half_hz : MOST_BAND_HZ / 2;
    const auto rate = baseband_rate(params, static_cast<int32_t>(block.x.size()), block.rate);
    SpectrumOwner spectrum;
    if (!rate || transform(block, *rate, spectrum) != 0) return std::nullopt;
    Bands decoded(block, search, params, spectrum, protocols);
    for (const Band& band : bands) {
        if (!decoded.add(band)) return std::nullopt;
    }
    return decoded.in_order_of_time();
}

std::optional<std::vector<Found>> decode_block(const Block& block, const Search& search, double end_max) {
    if (is_one_band(search)) return decode_whole(block, search, params_for(block, search, end_max));
    const auto bands = bands_of(block, search);
    if (!bands) return std::nullopt;
    return decode_bands(block, search, *bands, Protocols::TOGETHER, bands->size(), end_max);
}
