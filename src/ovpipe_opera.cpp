// Every OPERA candidate passes the same gates: refined, measured at seven chip shifts, its frames listed and checked,
// the winner compared with its CRC twins, with rival callsigns and with the energy in its OFF chips. Then the deep
// search looks for frames of known callsigns where nothing was decoded.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "ovcdec.h"
#include "ovcdeep.h"
#include "ovpipe_search.h"

namespace {

constexpr int32_t MAX_DEEP_HITS = 64;
constexpr double SAME_PLACE_FRAMES = 0.9;

// A frame of the pool, with the fit that it was listed for.
struct Pooled {
    double metric;
    std::size_t fit;
    ovc_frame frame;
};

int32_t cmp_pooled(const Pooled& a, const Pooled& b) {
    return (b.metric > a.metric) - (b.metric < a.metric);
}

// The frame that a candidate decodes to.
struct Decision {
    std::array<char, 7> call;  // six characters
    std::size_t fit;
    int32_t rank;
    double gap;
};

// The frames of all fits, best metric first; only as many as will be tried.
std::vector<Pooled> pool_frames(const ov_params& params, std::span<const Fit> fits) {
    const int32_t tries = std::max(1, params.max_frames);
    const int32_t most = std::min(tries, OVC_MAX_LISTED);
    std::vector<ovc_frame> frames(static_cast<std::size_t>(most));
    std::vector<Pooled> pool;
    for (std::size_t k = 0; k < fits.size(); k++) {
        const int32_t listed = ovc_list_frames(fits[k].hyp.soft, most, frames.data());
        for (const ovc_frame& frame : std::span(frames).first(static_cast<std::size_t>(listed))) {
            pool.push_back({frame.metric, k, frame});
        }
    }
    std::stable_sort(pool.begin(), pool.end(), [](const Pooled& a, const Pooled& b) { return cmp_pooled(a, b) < 0; });
    if (pool.size() > static_cast<std::size_t>(tries)) pool.resize(static_cast<std::size_t>(tries));
    return pool;
}

bool is_valid(const ov_params& params, const ovc_frame& frame, std::array<char, 7>& call) {
    uint32_t value = 0;
    if (ovc_check_frame(&frame, call.data(), &value) != 0) return false;
    if (params.check_plausible != 0 && ov_call_plausible(call.data()) == 0) return false;
    if (params.known_only == 0) return true;
    std::array<char, 7> text;
    trim_call(call.data(), text.data());
    return is_known(params, text.data());
}

// The one callsign that the tried frames agree on, safe against CRC twins. walked counts the frames tried.
std::optional<Decision> decide(const Search& search, std::span<const Fit> fits, std::span<const Pooled> pool,
                               int32_t number, int32_t& walked) {
    std::optional<Decision> chosen;
    for (const Pooled& candidate : pool) {
        walked++;
        std::array<char, 7> call;
        if (!is_valid(search.params, candidate.frame, call)) continue;
        if (!chosen) {
            std::array<char, 7> twin;
            const double margin = ovc_twin_margin(fits[candidate.fit].hyp.soft, &candidate.frame,
                                                  search.params.check_plausible, twin.data());
            if (!(margin >= search.params.twin_min)) {
                search.verbose().crc_twin(number, call.data(), twin.data(), margin);
                return std::nullopt;
            }
            chosen = Decision{call, candidate.fit, walked - 1, pool.front().metric - candidate.metric};
        } else if (call != chosen->call) {
            search.verbose().ambiguous(number, chosen->call.data(), call.data());
            return std::nullopt;
        }
    }
    return chosen;
}

ov_spot opera_spot(const Search& search, const ov_cand& cand, const Fit& fit, const Decision& decision) {
    ov_spot spot = measured_spot(search, cand.z, fit.hyp);
    trim_call(decision.call.data(), spot.call);
    spot.rank = decision.rank;
    spot.gap = decision.gap;
    spot.shift = fit.shift;

    std::array<uint8_t, OVC_CHIPS> chips;
    if (ovc_encode(decision.call.data(), chips.data(), nullptr) == 0) {
        compare_with_chips(search, fit.hyp, chips.data(), spot);
    } else {
        spot.snr = OV_NO_SNR;
    }
    return spot;
}

void accept_opera(const Search& search, const ov_spot& spot, const ov_cand& cand, int32_t number, SpotList& spots) {
    if (!off_chips_empty(search.params, spot.contrast, spot.off_excess)) {
        search.verbose().other_signal(number, spot);
        return;
    }
    const bool duplicate = spots.has_call_near(spot.call, spot.t, DUPLICATE_FRAMES * search.frame_s);
    search.verbose().opera_frame(number, cand, search.bb.centre, spot, duplicate);
    if (!duplicate) spots.push_back(spot);
}

void examine_opera(const Search& search, const ov_cand& cand, int32_t number, SpotList& spots) {
    ov_hyp hyp;
    if (ov_refine(search.bb, search.map, cand, search.drift_range, search.params.chip_guard, hyp) != 0) return;

    const std::vector<Fit> fits = fit_shifts(search, hyp);
    const std::vector<Pooled> pool = pool_frames(search.params, fits);
    int32_t walked = 0;
    if (const auto decision = decide(search, fits, pool, number, walked)) {
        accept_opera(search, opera_spot(search, cand, fits[decision->fit], *decision), cand, number, spots);
    } else {
        search.verbose().no_opera_frame(number, cand, hyp, search.bb, walked);
    }
}

// Whether an earlier spot is at this place.
bool is_decoded(const Search& search, const SpotList& spots, double t, double f) {
    return std::ranges::any_of(spots.found(), [&](const ov_spot& spot) {
        return std::fabs(search.absolute(f) - spot.freq) < search.same_place_hz() &&
               std::fabs(t - spot.t) < SAME_PLACE_FRAMES * search.frame_s;
    });
}

ov_spot known_spot(const Search& search, const ovc_known& known, const ovc_deep_hit& hit, const ov_hyp& hyp) {
    ov_spot spot = measured_spot(search, hit.z, hyp);
    std::copy(std::begin(known.display), std::end(known.display), spot.call);
    spot.rank = -1;
    spot.deep = 1;
    compare_with_chips(search, hyp, known.chips, spot);
    return spot;
}

void examine_deep(const Search& search, const ovc_deep_hit& hit, SpotList& spots) {
    const ovc_known& known = search.params.known[hit.known];
    if (is_decoded(search, spots, hit.t, hit.f) ||
        spots.has_call_near(known.display, hit.t, DUPLICATE_FRAMES * search.frame_s)) {
        search.verbose().deep_hit_decoded(known.display, hit, search.bb.centre);
        return;
    }
    ov_hyp hyp;
    if (ovc_deep_refine(search.bb, &search.map, &known, &hit, search.drift_range, search.params.chip_guard, hyp) != 0) {
        return;
    }
    const ov_spot spot = known_spot(search, known, hit, hyp);
    search.verbose().deep_frame(hit, spot);
    spots.push_back(spot);
}

}  // namespace

void search_opera(const Search& search, CandidateLists& lists, SpotList& spots) {
    search_candidates(
        search, lists, spots, [&](const ov_cand& cand) { return is_decoded(search, spots, cand.t, cand.f); },
        [&](const ov_cand& cand, int32_t number) { examine_opera(search, cand, number, spots); });
}

void search_known(const Search& search, SpotList& spots) {
    const ov_params& params = search.params;
    const StartWindow window = start_window(params, search.frame_s);
    std::array<ovc_deep_hit, MAX_DEEP_HITS> hits;
    double threshold = 0;
    const int32_t count = std::max(
        0, ovc_deep_search(&search.map, params.known, params.n_known, window.first, window.last, params.search_hz,
                           params.chip_guard, params.deep_pfa, MAX_DEEP_HITS, hits.data(), &threshold));
    search.verbose().deep_search(params.n_known, threshold, count);
    for (const ovc_deep_hit& hit : std::span(hits).first(static_cast<std::size_t>(count))) {
        if (spots.is_full()) return;
        examine_deep(search, hit, spots);
    }
}
