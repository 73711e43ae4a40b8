#include "decoding/decode_block.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "decoding/bands.h"
#include "decoding/coherent_block.h"
#include "ovbb.h"
#include "ovpassband.h"
#include "owners.h"
#include "spots/spot.h"

namespace {

constexpr double CANDIDATES_PER_MINUTE = 120;
constexpr double SPOTS_PER_MINUTE = 64;  // as the library reports from a block
constexpr double MOST = 1e6;             // of either
constexpr double LEAK_HZ = 30;
constexpr double LEAK_CONTRAST = 0.1;  // of the frame's
constexpr double BESIDE_HZ = 4;        // half-width of a band beside a frame
constexpr double CENTRAL_HZ = 12;
constexpr double SAME_S = 15.3;  // two frames of a callsign this close are one, as for the library

int32_t at_most(double count) {
    return static_cast<int32_t>(std::min(count, MOST));
}

int transform(const Block& block, int32_t out_rate, ov_spectrum& spectrum) {
    const auto n = static_cast<int32_t>(block.x.size());
    return block.q.empty() ? ov_spectrum_real(block.x.data(), n, block.rate, out_rate, spectrum)
                           : ov_spectrum_iq(block.x.data(), block.q.data(), n, block.rate, out_rate, spectrum);
}

// The same spectrum, for basebands at a multiple of its rate.
ov_spectrum faster(const ov_spectrum& spectrum, int32_t rate) {
    const int32_t times = rate / spectrum.out_rate;
    ov_spectrum out = spectrum;
    out.out_rate *= times;
    out.nout *= times;
    out.nsamp_out *= times;
    return out;
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

// One protocol after the other, until the standard search finds one in the middle.
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

// The decodes of several bands of one block, which share its transform.
class Bands {
  public:
    Bands(const Block& block, const Search& search, const ov_params& params, const ov_spectrum& spectrum, int32_t rate,
          Protocols protocols)
        : block_(block), search_(search), params_(params), spectrum_(spectrum), rate_(rate), protocols_(protocols) {}

    // False when memory is short.
    bool add(const Band& band) {
        auto found = decode(band);
        if (!found) return false;
        merge(*found);
        for (const Found& spot : *found) {
            if (spot.deep == 0 && !add_beside(spot)) return false;
        }
        return true;
    }

    std::vector<Found> in_order_of_time() {
        std::ranges::stable_sort(all_, {}, &Found::t);
        return std::move(all_);
    }

  private:
    // Next to a frame the decoder takes all others of the time for its shadows: the bands to its sides do not hold it.
    bool add_beside(const Found& spot) {
        ov_params params = params_;
        params.deep_search = 0;
        for (const double offset_hz : {-24.0, -20.0, -16.0, -12.0, 12.0, 16.0, 20.0, 24.0}) {
            auto found = decode({spot.freq + offset_hz, BESIDE_HZ}, params);
            if (!found) return false;
            std::erase_if(*found, [&](const Found& beside) {
                return std::ranges::any_of(all_, [&](const Found& frame) { return is_phantom(beside, frame); });
            });
            merge(*found);
        }
        return true;
    }

    std::optional<std::vector<Found>> decode(const Band& band) const {
        BasebandOwner baseband;
        if (ov_baseband_extract(faster(spectrum_, rate_), band.center_hz, baseband) != 0) return std::nullopt;
        const ov_params params = params_of(band, params_);
        auto found = protocols_ == Protocols::TOGETHER ? decode_baseband(baseband, params, block_.minutes())
                                                       : decode_in_turn(baseband, params, block_.minutes());
        if (found && search_.coherent) add_coherent(baseband, params, *found);
        return found;
    }

    // At the lowest rate: that is the transform's.
    std::optional<std::vector<Found>> decode(const Band& band, const ov_params& params) const {
        BasebandOwner baseband;
        if (ov_baseband_extract(spectrum_, band.center_hz, baseband) != 0) return std::nullopt;
        return decode_baseband(baseband, params_of(band, params), block_.minutes());
    }

    static ov_params params_of(const Band& band, ov_params params) {
        params.center_hz = band.center_hz;
        params.search_hz = band.half_hz;
        return params;
    }

    // Several bands may hold a frame: of two finds the plainer stays, then the better fit.
    void merge(const std::vector<Found>& found) {
        for (const Found& spot : found) {
            const auto same = std::ranges::find_if(all_, [&](const Found& other) {
                return std::strcmp(other.call, spot.call) == 0 && std::fabs(other.t - spot.t) < SAME_S;
            });
            if (same == all_.end()) {
                all_.push_back(spot);
            } else if (spot.deep != same->deep ? spot.deep < same->deep : spot.score > same->score) {
                *same = spot;
            }
        }
    }

    const Block& block_;
    const Search& search_;
    const ov_params& params_;
    const ov_spectrum& spectrum_;
    int32_t rate_;  // of a band's baseband, a multiple of the spectrum's
    Protocols protocols_;
    std::vector<Found> all_;
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

bool is_phantom(const Found& beside, const Found& frame) {
    if (beside.protocol == frame.protocol || std::fabs(beside.freq - frame.freq) > LEAK_HZ) return false;
    const double shared = std::min(spot_end(beside), spot_end(frame)) - std::max(beside.t, frame.t);
    const double shorter = std::min(spot_end(beside) - beside.t, spot_end(frame) - frame.t);
    return shared > 0.5 * shorter && beside.contrast < LEAK_CONTRAST * frame.contrast;
}

std::optional<std::vector<Found>> decode_bands(const Block& block, const Search& search, std::span<const Band> bands,
                                               Protocols protocols, std::size_t shares, double end_max) {
    ov_params params = params_for(block, search, end_max);
    params.deep_pfa /= static_cast<double>(std::max<std::size_t>(1, shares));
    const auto rate_for = [&](double half_hz) {
        params.search_hz = half_hz;
        return baseband_rate(params, static_cast<int32_t>(block.x.size()), block.rate);
    };
    const bool narrow = protocols == Protocols::IN_TURN && !search.coherent;
    const auto rate = rate_for(narrow ? std::ranges::max(bands, {}, &Band::half_hz).half_hz : MOST_BAND_HZ / 2);
    const auto beside = narrow ? rate_for(BESIDE_HZ) : rate;
    SpectrumOwner spectrum;
    if (!rate || !beside || transform(block, *beside, spectrum) != 0) return std::nullopt;
    Bands decoded(block, search, params, spectrum, *rate, protocols);
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
