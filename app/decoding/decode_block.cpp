#include "decoding/decode_block.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "base/error.h"
#include "coherent/coherent.h"
#include "decoding/bands.h"
#include "decoding/coherent_block.h"
#include "decoding/decimation.h"
#include "decoding/finds.h"
#include "ovbb.h"
#include "ovpassband.h"
#include "owners.h"

namespace {

constexpr double CANDIDATES_PER_MINUTE = 120;
constexpr double SPOTS_PER_MINUTE = 64;  // as the library reports from a block
constexpr double MOST = 1e6;             // of either
constexpr int32_t MOST_ROUNDS = 4;       // over a band from which what was found has been taken out

int32_t at_most(double count) {
    return static_cast<int32_t>(std::min(count, MOST));
}

std::size_t room_for(double minutes) {
    return static_cast<std::size_t>(at_most(SPOTS_PER_MINUTE * minutes));
}

// False when the baseband that the search takes cannot be made of the block.
bool transform(const Block& block, const ov_params& params, ov_spectrum& spectrum) {
    const auto n = static_cast<int32_t>(block.x.size());
    const auto rate = baseband_rate(params, n, block.rate);
    if (!rate) return false;
    const int failed = block.q.empty() ? ov_spectrum_real(block.x.data(), n, block.rate, *rate, spectrum)
                                       : ov_spectrum_iq(block.x.data(), block.q.data(), n, block.rate, *rate, spectrum);
    return failed == 0;
}

std::vector<Found> measured(const ov_baseband& baseband, const ov_params& params, std::span<ov_spot> spots) {
    ov_measure_within_passband(baseband, params, spots);
    std::vector<Found> found;
    found.reserve(spots.size());
    for (const ov_spot& spot : spots) found.push_back({spot});
    return found;
}

std::optional<std::vector<Found>> decode_baseband(const ov_baseband& baseband, const ov_params& params,
                                                  double minutes) {
    std::vector<ov_spot> spots(room_for(minutes));
    const int32_t count = run(baseband, params, spots.data(), static_cast<int32_t>(spots.size()));
    if (count < 0) return std::nullopt;
    return measured(baseband, params, std::span(spots).first(static_cast<std::size_t>(count)));
}

bool is_among(std::span<const Found> all, const Found& spot) {
    return std::ranges::any_of(all, [&](const Found& other) { return is_same_frame(spot, other); });
}

// One protocol after the other, until the standard search finds a frame that is not among those taken out.
std::optional<std::vector<Found>> decode_in_turn(const ov_baseband& baseband, const ov_params& params, double minutes,
                                                 std::span<const Found> taken_out) {
    static constexpr int32_t TURNS[] = {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L};
    const auto is_enough = [&](std::span<const ov_spot> spots) {
        return std::ranges::any_of(spots,
                                   [&](const ov_spot& spot) { return spot.deep == 0 && !is_among(taken_out, {spot}); });
    };
    std::vector<ov_spot> spots(room_for(minutes));
    const int32_t count =
        run_in_turn(baseband, params, TURNS, is_enough, spots.data(), static_cast<int32_t>(spots.size()));
    if (count < 0) return std::nullopt;
    return measured(baseband, params, std::span(spots).first(static_cast<std::size_t>(count)));
}

std::optional<std::vector<Found>> decode_at_once(const ov_baseband& baseband, const ov_params& params, double minutes,
                                                 std::span<const Found> /*taken_out*/) {
    return decode_baseband(baseband, params, minutes);
}

using Decode = decltype(&decode_in_turn);
using IsKeyed = std::function<bool(const ov_baseband&)>;

// Adds what a baseband holds. Weaker stations show when the stronger ones are taken out: next to a frame the decoder
// takes all others of its time for its shadows. Later searches go without the deep one. False when memory is short.
bool add_all(Finds& finds, ov_baseband& baseband, const Search& search, ov_params params, double minutes, Decode decode,
             const IsKeyed& is_keyed) {
    auto found = decode(baseband, params, minutes, {});
    if (!found) return false;
    finds.add(*found);
    const std::size_t first = found->size();
    ov_params plain = params;
    plain.deep_search = 0;
    std::size_t taken = 0;
    for (int32_t round = 0; round < MOST_ROUNDS && taken < found->size(); round++) {
        for (; taken < found->size(); taken++) ov_take_out(baseband, (*found)[taken]);
        if (!is_keyed(baseband)) break;
        const auto more = decode(baseband, plain, minutes, *found);
        if (!more) return false;
        for (const Found& spot : *more) {
            if (!is_among(*found, spot)) found->push_back(spot);
        }
    }
    finds.add_rest({found->begin() + static_cast<std::ptrdiff_t>(first), found->end()});
    if (!search.coherent) return true;
    add_coherent(baseband, params, *found);
    std::erase_if(*found, [](const Found& spot) { return spot.deep < OV_COHERENT; });
    finds.add(*found);
    return true;
}

// As the library does it, but for more candidates and the passband.
std::optional<std::vector<Found>> decode_whole(const Block& block, const Search& search, ov_params params) {
    params.center_hz = center_of(search);
    params.search_hz = search.search_hz;
    const auto rate = baseband_rate(params, static_cast<int32_t>(block.x.size()), block.rate);
    BasebandOwner baseband;
    if (!rate || baseband_around(block, params.center_hz, *rate, baseband) != 0) return std::nullopt;
    auto found = decode_baseband(baseband, params, block.minutes());
    if (found && search.coherent) add_coherent(block, params, *found);
    return found;
}

ov_params params_for(double minutes, const Search& search, std::size_t shares, double end_max) {
    ov_params params = decode_params(search);
    params.end_max = end_max;
    params.deep_pfa /= static_cast<double>(std::max<std::size_t>(1, shares));
    params.max_cands = at_most(CANDIDATES_PER_MINUTE * minutes);
    return params;
}

}  // namespace

std::optional<std::vector<Found>> decode_bands(const Block& block, const Search& search, std::span<const Band> bands,
                                               std::size_t shares, double end_max) {
    ov_params params = params_for(block.minutes(), search, shares, end_max);
    params.search_hz = MOST_BAND_HZ / 2;
    SpectrumOwner spectrum;
    if (!transform(block, params, spectrum)) return std::nullopt;
    Finds finds;
    for (const Band& band : bands) {
        BasebandOwner baseband;
        if (ov_baseband_extract(spectrum, band.center_hz, baseband) != 0) return std::nullopt;
        params.center_hz = band.center_hz;
        params.search_hz = band.half_hz;
        if (!add_all(finds, baseband, search, params, block.minutes(), decode_at_once,
                     [](const ov_baseband&) { return true; })) {
            return std::nullopt;
        }
    }
    return finds.in_order_of_time();
}

int32_t keyed_rate(const Search& search, double half_hz) {
    ov_params params = decode_params(search);
    params.search_hz = search.coherent ? MOST_BAND_HZ / 2 : half_hz;
    const auto rate = baseband_rate(params, 1, std::numeric_limits<int32_t>::max());
    if (!rate) throw UsageError("the band is too wide for the search");
    return *rate;
}

std::optional<std::vector<Found>> decode_keyed(ov_baseband& baseband, const Search& search, const Band& band,
                                               const IsKeyed& is_keyed, std::size_t shares) {
    const double minutes = minutes_begun(baseband.n / baseband.rate);
    ov_params params = params_for(minutes, search, shares, -1);
    params.center_hz = band.center_hz;
    params.search_hz = band.half_hz;
    Finds finds;
    if (!add_all(finds, baseband, search, params, minutes, decode_in_turn, is_keyed)) return std::nullopt;
    return finds.in_order_of_time();
}

std::optional<std::vector<Found>> decode_block(const Block& block, const Search& search, double end_max) {
    if (is_one_band(search)) return decode_whole(block, search, params_for(block.minutes(), search, 1, end_max));
    const auto bands = bands_of(block, search);
    if (!bands) return std::nullopt;
    return decode_bands(block, search, *bands, bands->size(), end_max);
}
