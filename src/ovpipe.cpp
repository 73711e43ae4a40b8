// One run takes a baseband from score map to spots: the searches of all protocols on one map, and then the removal of
// spots that overlap across protocols.
#include "ovpipe.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "liborvel.h"
#include "orvel.h"
#include "ovpipe_search.h"
#include "owners.h"

namespace {

constexpr double NO_LIMIT_S = 1e9;
constexpr ov_protocol OPERA = *ov_protocol_by_id(OVL_OPERA);

constexpr int64_t MIN_BASEBAND_RATE = 125;
constexpr double MIN_CHIP_SAMPLES = 15.999999999;
// A careless search width or sample rate would take all memory there is. Baseband, map and scores of a search of
// 125 kHz take 70 MB per second; a rate below 8 kHz is not that of audio, and the baseband alone may then be as large.
constexpr double WIDEST_HZ = 125e3;    // on each side, or twice the input rate where that is more
constexpr double MARGIN_HZ = 1e3;      // for the width of the signals themselves
constexpr int64_t FAR_FASTER = 32;     // times the input rate
constexpr int64_t HARMLESS = 1 << 22;  // samples of any baseband

constexpr int64_t CANDIDATES_LISTED = 50;  // for each candidate examined: most are shadows of stronger ones
constexpr int32_t SHIFTS[] = {-6, -4, -2, 0, 2, 4, 6};
constexpr double SHADOW_Z = 0.75;          // a candidate this much weaker than its neighbour is its shadow
constexpr double OFF_PER_CONTRAST = 0.05;  // keying leaks this share of the ON energy into OFF chips

int32_t cmp_spot_dt(const ov_spot& a, const ov_spot& b) {
    return (a.t > b.t) - (a.t < b.t);
}

// Whether two spots of different protocols overlap in time and frequency.
bool overlap(const Search& search, const ov_spot& a, const ov_spot& b) {
    if (a.protocol == b.protocol || !(std::fabs(a.freq - b.freq) < search.same_place_hz())) return false;
    const double length_a = frame_seconds(search.params, a.protocol);
    const double length_b = frame_seconds(search.params, b.protocol);
    return share_half(a.t, length_a, b.t, length_b);
}

// Where two protocols decoded something at the same place, the one with less contrast was a phantom of the other. It is
// marked by a protocol id that does not exist: allocating marks could fail, and the phantom would stay.
void remove_overlaps(const Search& search, SpotList& spots) {
    constexpr int32_t DROPPED = 0;
    const std::span<ov_spot> found = spots.found();
    for (std::size_t i = 0; i < found.size(); i++) {
        for (std::size_t j = i + 1; j < found.size(); j++) {
            ov_spot& a = found[i];
            ov_spot& b = found[j];
            if (a.protocol == DROPPED || b.protocol == DROPPED || !overlap(search, a, b)) continue;
            (a.contrast < b.contrast ? a : b).protocol = DROPPED;
        }
    }
    const auto end =
        std::remove_if(found.begin(), found.end(), [](const ov_spot& spot) { return spot.protocol == DROPPED; });
    spots.shrink(static_cast<std::size_t>(end - found.begin()));
}

// Runs all requested searches. False when memory for the lists of candidates is short.
bool search_all(const Search& search, SpotList& found) {
    const ov_params& params = search.params;
    {
        auto lists = make_lists(params);
        if (!lists) return false;
        const bool opera = (params.protocols & OVL_OPERA) != 0;
        if (opera) search_opera(search, *lists, found);
        if (opera && params.deep_search != 0 && params.n_known > 0 && !found.is_full()) search_known(search, found);
    }
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const bool wanted = protocol.mode != OV_NO_MODE && (params.protocols & protocol.id) != 0;
        if (!wanted || found.is_full()) continue;
        search_orvel(search.bb, search.map, params, protocol, search.drift_range, found);
    }
    return true;
}

}  // namespace

void ov_params_default(ov_params& params) {
    params = {
        .op = 0.5,
        .center_hz = 1500.0,
        .search_hz = 200.0,
        .start_min = -NO_LIMIT_S,
        .start_max = -1.0,
        .end_min = -NO_LIMIT_S,
        .end_max = -1.0,
        .drift_max = -1.0,
        .spread_hz = 0.0,
        .chip_guard = 0.2,
        .z_min = 7.0,
        .max_cands = 30,
        .max_frames = 32,
        .check_plausible = 1,
        .twin_min = 10.0,
        .off_max = 0.6,
        .known = nullptr,
        .n_known = 0,
        .known_only = 0,
        .deep_search = 1,
        .deep_pfa = 0.0001,
        .snr_adjust = 1,
        .verbose = 0,
        .protocols = OV_ALL_PROTOCOLS,
    };
}

// ---- Samples to baseband ---------------------------------------------------------------------------------------

std::optional<int32_t> baseband_rate(const ov_params& params, int32_t n, int32_t input_rate) {
    const double chip = chip_seconds(params);
    const double half = 3.0 / chip + params.search_hz + 0.5 * params.spread_hz;
    const double need = 2.0 * half + 40.0;
    if (!(chip > 0) || !std::isfinite(chip) || !std::isfinite(need) || input_rate < 1) return std::nullopt;

    int64_t rate = MIN_BASEBAND_RATE;
    while (static_cast<double>(rate) < need || static_cast<double>(rate) * chip < MIN_CHIP_SAMPLES) {
        rate *= 2;
        if (rate > std::numeric_limits<int32_t>::max()) return std::nullopt;
    }
    const bool careless = half > std::fmax(WIDEST_HZ, 2.0 * input_rate) + MARGIN_HZ || rate > FAR_FASTER * input_rate;
    if (careless && rate * n / input_rate > HARMLESS) return std::nullopt;
    return static_cast<int32_t>(rate);
}

// Baseband rates are 125 Hz times a power of two, so the lowest decides whether an input rate fits any of them.
bool ov_rate_served(uint32_t rate) {
    int32_t nfft = 0;
    int32_t nout = 0;
    return rate >= 1 && rate <= static_cast<uint32_t>(std::numeric_limits<int32_t>::max()) &&
           choose_sizes(1, static_cast<int32_t>(rate), static_cast<int32_t>(MIN_BASEBAND_RATE), nfft, nout) == 0;
}

int32_t ov_decode_real(const double* x, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                       int32_t max_spots) {
    const auto out_rate = baseband_rate(params, n, rate);
    BasebandOwner bb;
    if (!out_rate || ov_baseband_real(x, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run(bb, params, spots, max_spots);
}

int32_t ov_decode_iq(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                     int32_t max_spots) {
    const auto out_rate = baseband_rate(params, n, rate);
    BasebandOwner bb;
    if (!out_rate || ov_baseband_iq(i, q, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run(bb, params, spots, max_spots);
}

// ---- Baseband to spots -----------------------------------------------------------------------------------------

int32_t run(const ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots) {
    return run_in_turn(bb, params, std::span(&params.protocols, 1), nullptr, spots, max_spots);
}

int32_t run_in_turn(const ov_baseband& bb, const ov_params& params, std::span<const int32_t> turns,
                    const std::function<bool(std::span<const ov_spot>)>& is_enough, ov_spot* spots, int32_t max_spots) {
    MapOwner map;
    const double chip_s = chip_seconds(params);
    if (ov_spectrogram(bb, chip_s, params.search_hz, params.spread_hz, map) != 0) {
        VerboseLines{params.verbose != 0}.block_refused(params.op);
        return -1;
    }
    const double frame_s = FRAME_PER_OP * params.op;
    const double drift_range = params.drift_max >= 0 ? params.drift_max : 2 * map.bin_hz / frame_s;
    VerboseLines{params.verbose != 0}.block(bb, map, drift_range);

    int32_t count = 0;
    for (const int32_t protocols : turns) {
        ov_params own = params;
        own.protocols &= protocols;
        const Search search{bb, map, own, OPERA, chip_s, frame_s, drift_range};
        SpotList found(spots + count, 0, max_spots - count);
        if (!search_all(search, found)) return -1;
        remove_overlaps(search, found);
        found.sort_by_time();
        count += found.count();
        if (is_enough && is_enough(found.found())) break;
    }
    return count;
}

void trim_call(const char* in, char* out) {
    std::string_view text(in, 6);
    while (text.starts_with(' ')) text.remove_prefix(1);
    while (text.ends_with(' ')) text.remove_suffix(1);
    *std::copy(text.begin(), text.end(), out) = '\0';
}

void frame_consistency(const ov_hyp& hyp, const uint8_t* chips, double& contrast, double& off_excess) {
    double on_sum = 0;
    double off_sum = 0;
    int32_t n_on = 0;
    int32_t n_off = 0;
    for (int32_t c = 0; c < hyp.nchips; c++) {
        if (hyp.energy[c] < 0) continue;
        (chips[c] != 0 ? on_sum : off_sum) += hyp.energy[c];
        (chips[c] != 0 ? n_on : n_off)++;
    }
    contrast = 0;
    off_excess = 0;
    if (n_on == 0 || n_off == 0) return;
    const double noise = hyp.noise > 0 ? hyp.noise : 1e-30;
    contrast = (on_sum / n_on - off_sum / n_off) / noise;
    off_excess = off_sum / n_off / noise - 1;
}

// ---- What the searches share -----------------------------------------------------------------------------------

SpotList::SpotList(ov_spot* spots, int32_t n, int32_t max_spots)
    : room_(spots, static_cast<std::size_t>(std::max(0, max_spots))), count_(static_cast<std::size_t>(n)) {}

bool SpotList::has_call_near(const char* call, double t, double within_s) const {
    return std::ranges::any_of(found(), [&](const ov_spot& spot) {
        return std::strcmp(spot.call, call) == 0 && std::fabs(t - spot.t) < within_s;
    });
}

void SpotList::sort_by_time() const {
    const std::span<ov_spot> all = found();
    std::stable_sort(all.begin(), all.end(), [](const ov_spot& a, const ov_spot& b) { return cmp_spot_dt(a, b) < 0; });
}

bool share_half(double t1, double length1, double t2, double length2) {
    const double shared = std::fmin(t1 + length1, t2 + length2) - std::fmax(t1, t2);
    return shared > 0.5 * std::fmin(length1, length2);
}

double frame_seconds(const ov_params& params, int32_t protocol) {
    return frame_chips(static_cast<uint32_t>(protocol)) * chip_seconds(params);
}

StartWindow start_window(const ov_params& params, double frame_s) {
    const auto limit = [](double t) { return t < 0 ? NO_LIMIT_S : t; };
    return {std::fmax(params.end_min - frame_s, params.start_min),
            std::fmin(limit(params.end_max) - frame_s, limit(params.start_max))};
}

std::optional<CandidateLists> make_lists(const ov_params& params) {
    const int64_t capacity = CANDIDATES_LISTED * std::max(1, params.max_cands);
    if (capacity > std::numeric_limits<int32_t>::max()) return std::nullopt;
    try {
        CandidateLists lists;
        lists.found = std::make_unique_for_overwrite<ov_cand[]>(static_cast<std::size_t>(capacity));
        lists.capacity = static_cast<int32_t>(capacity);
        lists.examined.reserve(static_cast<std::size_t>(capacity));
        return lists;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::span<const ov_cand> list_candidates(const Search& search, const CandidateLists& lists) {
    const ov_params& params = search.params;
    const StartWindow window = start_window(params, search.frame_s);
    double median = 0;
    double sigma = 0;
    const int32_t listed =
        std::max(0, ov_find_candidates(search.map, window.first, window.last, params.search_hz, params.chip_guard,
                                       params.z_min, lists.capacity, lists.found.get(), &median, &sigma));
    search.verbose().score_map(search.protocol.label, median, sigma, listed, params.z_min);
    return {lists.found.get(), static_cast<std::size_t>(listed)};
}

bool is_shadowed(const Search& search, std::span<const ov_cand> examined, const ov_cand& cand) {
    return std::any_of(examined.begin(), examined.end(), [&](const ov_cand& other) {
        return std::fabs(cand.f - other.f) < search.same_place_hz() && std::fabs(cand.t - other.t) < search.frame_s &&
               other.z * SHADOW_Z > cand.z;
    });
}

std::vector<Fit> fit_shifts(const Search& search, const ov_hyp& hyp) {
    std::vector<Fit> fits;
    fits.reserve(std::size(SHIFTS));
    for (const int32_t shift : SHIFTS) {
        Fit fit{shift, {}};
        if (ov_fit_shift(search.bb, search.map, hyp, shift, search.params.chip_guard, fit.hyp) == 0) {
            fits.push_back(fit);
        }
    }
    return fits;
}

bool is_known(const ov_params& params, std::string_view call) {
    if (params.known == nullptr || params.n_known < 1) return false;
    const std::span known(params.known, static_cast<std::size_t>(params.n_known));
    return std::any_of(known.begin(), known.end(), [&](const ovc_known& entry) { return call == entry.display; });
}

bool off_chips_empty(const ov_params& params, double contrast, double off_excess) {
    if (params.off_max <= 0) return true;
    return off_excess <= OFF_PER_CONTRAST * contrast + params.off_max;
}

ov_spot measured_spot(const Search& search, double z, const ov_hyp& hyp) {
    ov_spot spot{};
    spot.t = hyp.start / search.bb.rate;
    spot.freq = search.absolute(hyp.f);
    spot.drift = hyp.drift;
    spot.z = z;
    spot.score = hyp.metric;
    spot.chips_ok = hyp.n_in;
    spot.protocol = search.protocol.id;
    return spot;
}

void compare_with_chips(const Search& search, const ov_hyp& hyp, const uint8_t* chips, ov_spot& spot) {
    spot.snr = ov_estimate_snr_bb(search.bb, search.map, hyp, chips, search.chip_s) +
               (search.params.snr_adjust != 0 ? search.protocol.on_share_db : 0);
    frame_consistency(hyp, chips, spot.contrast, spot.off_excess);
}
