// One run takes a baseband from score map to spots. Every candidate passes the same gates: refined, measured at seven
// chip shifts, its frames listed and checked, the winner held against CRC twins, rival callsigns and energy in its OFF
// chips. What was rejected and why is told when verbose is set.
#include "ovpipe.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "orvel.h"
#include "ovcdec.h"
#include "ovcdeep.h"
#include "ovscan.h"
#include "protocol.h"

namespace {

constexpr double CHIP_PER_OP = 0.256;    // chip length in seconds for each unit of the speed number
constexpr double FRAME_PER_OP = 61.184;  // the same for an OPERA frame: 239 chips
constexpr double NO_LIMIT_S = 1e9;
constexpr const ov_protocol& OPERA = *ov_protocol_by_id(OVL_OPERA);
constexpr double NO_SNR = -99.0;

constexpr int64_t MIN_BASEBAND_RATE = 125;
constexpr double MIN_CHIP_SAMPLES = 15.999999999;
// A baseband far faster than the input is mostly empty band: its length is limited, or a careless search width or
// sample rate would ask for all memory there is.
constexpr int64_t FAR_FASTER = 4;       // times the input rate
constexpr int64_t MAX_EMPTY = 1 << 22;  // samples

constexpr int64_t CANDIDATES_LISTED = 50;  // for each candidate examined: most are shadows of stronger ones
constexpr int32_t MAX_DEEP_HITS = 64;
constexpr int32_t LDPC_PASSES = 50;
constexpr int32_t LDPC_ORDER = 2;
constexpr std::array<int32_t, 7> SHIFTS = {-6, -4, -2, 0, 2, 4, 6};

constexpr double SAME_PLACE_CHIP_HZ = 3.0;  // two signals closer than this many 1/chip share their energy
constexpr double SAME_PLACE_FRAMES = 0.9;
constexpr double SHADOW_Z = 0.75;  // a candidate this much weaker than its neighbour is its shadow
constexpr double DUPLICATE_FRAMES = 0.5;
constexpr double OVERLAP_FRAMES = 0.5;
constexpr double TILE_SEARCH_HZ = 20;  // of a wide decode, on each side
constexpr double TILE_SEPARATION_HZ = 30;
constexpr int32_t MAX_TILE_SPOTS = 16;
constexpr double OFF_PER_CONTRAST = 0.05;  // keying leaks this share of the ON energy into OFF chips

double chip_seconds(const ov_params& params) {
    return CHIP_PER_OP * params.op;
}

// ---- Samples to baseband ---------------------------------------------------------------------------------------

// The lowest rate that holds the search band with room beside it and 16 samples a chip; nothing when the parameters
// are no numbers or ask for far more than the n samples of input hold.
std::optional<int32_t> baseband_rate(const ov_params& params, int32_t n, int32_t input_rate) {
    const double chip = chip_seconds(params);
    const double need = 2.0 * (3.0 / chip + params.search_hz + 0.5 * params.spread_hz) + 40.0;
    if (!(chip > 0) || !std::isfinite(chip) || !std::isfinite(need) || input_rate < 1) return std::nullopt;

    int64_t rate = MIN_BASEBAND_RATE;
    while (static_cast<double>(rate) < need || static_cast<double>(rate) * chip < MIN_CHIP_SAMPLES) {
        rate *= 2;
        if (rate > std::numeric_limits<int32_t>::max()) return std::nullopt;
    }
    const bool mostly_empty = rate > FAR_FASTER * input_rate;
    if (mostly_empty && rate * n / input_rate > MAX_EMPTY) return std::nullopt;
    return static_cast<int32_t>(rate);
}

int32_t run_and_free(ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots) {
    const int32_t count = run(bb, params, spots, max_spots);
    ov_baseband_free(bb);
    return count;
}

// ---- What both kinds of search share ----------------------------------------------------------------------------

// The spots found so far, in the caller's array.
class SpotList {
  public:
    SpotList(ov_spot* spots, int32_t n, int32_t max_spots)
        : room_(spots, static_cast<std::size_t>(std::max(0, max_spots))), count_(static_cast<std::size_t>(n)) {}

    bool is_full() const { return count_ >= room_.size(); }
    void push_back(const ov_spot& spot) { room_[count_++] = spot; }
    void shrink(std::size_t count) { count_ = count; }
    std::span<ov_spot> found() const { return room_.first(std::min(count_, room_.size())); }
    int32_t count() const { return static_cast<int32_t>(count_); }

    // Nothing else is read of a frame than its callsign and start when it is found twice.
    bool has_call_near(const char* call, double t, double within_s) const {
        const auto spots = found();
        return std::any_of(spots.begin(), spots.end(), [&](const ov_spot& spot) {
            return std::strcmp(spot.call, call) == 0 && std::fabs(t - spot.t) < within_s;
        });
    }

  private:
    std::span<ov_spot> room_;
    std::size_t count_;
};

// One protocol's search in one block.
struct Search {
    const ov_baseband& bb;
    const ov_specmap& map;  // in the protocol's layout
    const ov_params& params;
    double chip_s;
    double frame_s;
    double drift_range;

    double absolute(double f) const { return f + bb.centre; }
    double same_place_hz() const { return SAME_PLACE_CHIP_HZ / chip_s; }
    bool verbose() const { return params.verbose != 0; }
};

struct MapOwner {
    ov_specmap map{};
    MapOwner() = default;
    MapOwner(const MapOwner&) = delete;
    MapOwner& operator=(const MapOwner&) = delete;
    ~MapOwner() { ov_spectrogram_free(map); }
};

// Start times that the limits on start and end of a frame leave.
struct StartWindow {
    double first, last;
};
StartWindow start_window(const ov_params& params, double frame_s) {
    const auto limit = [](double t) { return t < 0 ? NO_LIMIT_S : t; };
    return {std::fmax(params.end_min - frame_s, params.start_min),
            std::fmin(limit(params.end_max) - frame_s, limit(params.start_max))};
}

// Candidates as found, and those of them that were examined.
struct CandidateLists {
    std::unique_ptr<ov_cand[]> found;
    int32_t capacity = 0;
    std::vector<ov_cand> examined;
};

// False when memory is short.
bool make_lists(const ov_params& params, CandidateLists& lists) {
    const int64_t capacity = CANDIDATES_LISTED * std::max(1, params.max_cands);
    if (capacity > std::numeric_limits<int32_t>::max()) return false;
    try {
        lists.found = std::make_unique_for_overwrite<ov_cand[]>(static_cast<std::size_t>(capacity));
        lists.capacity = static_cast<int32_t>(capacity);
        lists.examined.reserve(static_cast<std::size_t>(capacity));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// A candidate close to a much stronger one is its shadow.
bool is_shadowed(const Search& search, std::span<const ov_cand> examined, const ov_cand& cand) {
    return std::any_of(examined.begin(), examined.end(), [&](const ov_cand& other) {
        return std::fabs(cand.f - other.f) < search.same_place_hz() && std::fabs(cand.t - other.t) < search.frame_s &&
               other.z * SHADOW_Z > cand.z;
    });
}

// Finds candidates and examines them from the strongest down: examine(candidate, number) for each that is_taken does
// not rule out. Numbers count from 1, skipped candidates included.
template <class IsTaken, class Examine>
void search_candidates(const Search& search, const char* name, CandidateLists& lists, const SpotList& spots,
                       IsTaken is_taken, Examine examine) {
    const ov_params& params = search.params;
    const StartWindow window = start_window(params, search.frame_s);
    double median = 0;
    double sigma = 0;
    const int32_t listed =
        std::max(0, ov_find_candidates(search.map, window.first, window.last, params.search_hz, params.chip_guard,
                                       params.z_min, lists.capacity, lists.found.get(), &median, &sigma));
    if (search.verbose()) {
        std::fprintf(stderr, "%s score map: median %.1f, sigma %.1f; %d candidate(s) above %.1f sigma\n", name, median,
                     sigma, listed, params.z_min);
    }
    const auto limit = static_cast<std::size_t>(std::max(0, params.max_cands));
    for (int32_t i = 0; i < listed && lists.examined.size() < limit && !spots.is_full(); i++) {
        const ov_cand& cand = lists.found[static_cast<std::size_t>(i)];
        if (is_taken(cand) || is_shadowed(search, lists.examined, cand)) continue;
        lists.examined.push_back(cand);
        try {
            examine(cand, i + 1);
        } catch (const std::bad_alloc&) {
            continue;  // the other candidates may need less
        }
    }
}

// A hypothesis measured at one shift.
struct Fit {
    int32_t shift;
    ov_hyp hyp;
};

// The map tells a frame from itself moved by a chip or two only by a little: all shifts get their chance.
std::vector<Fit> fit_shifts(const Search& search, const ov_hyp& hyp) {
    std::vector<Fit> fits;
    fits.reserve(SHIFTS.size());
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

// False when the OFF chips hold more than noise and what keying leaks into them: another signal lies there.
bool off_chips_empty(const ov_params& params, double contrast, double off_excess) {
    if (params.off_max <= 0) return true;
    return off_excess <= OFF_PER_CONTRAST * contrast + params.off_max;
}

// What a fit says about the spot.
ov_spot measured_spot(const Search& search, double z, const ov_hyp& hyp, const ov_protocol& protocol) {
    ov_spot spot{};
    spot.t = hyp.start / search.bb.rate;
    spot.freq = search.absolute(hyp.f);
    spot.drift = hyp.drift;
    spot.z = z;
    spot.score = hyp.metric;
    spot.chips_ok = hyp.n_in;
    spot.protocol = protocol.id;
    return spot;
}

// Held against the chips that the frame should show.
void compare_with_chips(const Search& search, const ov_hyp& hyp, const uint8_t* chips, const ov_protocol& protocol,
                        ov_spot& spot) {
    spot.snr = ov_estimate_snr_bb(search.bb, search.map, hyp, chips, search.chip_s) +
               (search.params.snr_adjust != 0 ? protocol.on_share_db : 0);
    frame_consistency(hyp, chips, spot.contrast, spot.off_excess);
}

double frame_seconds(const ov_params& params, int32_t protocol) {
    return frame_chips(static_cast<uint32_t>(protocol)) * chip_seconds(params);
}

double time_overlap(double t1, double length1, double t2, double length2) {
    return std::fmin(t1 + length1, t2 + length2) - std::fmax(t1, t2);
}

int32_t cmp_spot_dt(const ov_spot& a, const ov_spot& b) {
    return (a.t > b.t) - (a.t < b.t);
}

void sort_by_time(const SpotList& found) {
    const std::span<ov_spot> all = found.found();
    std::stable_sort(all.begin(), all.end(), [](const ov_spot& a, const ov_spot& b) { return cmp_spot_dt(a, b) < 0; });
}

// ---- OPERA -----------------------------------------------------------------------------------------------------

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
    if (ovc_check_frame(frame, call.data(), &value) != 0) return false;
    if (params.check_plausible != 0 && ov_call_plausible(call.data()) == 0) return false;
    if (params.known_only == 0) return true;
    std::array<char, 7> text;
    trim_call(call.data(), text.data());
    return is_known(params, text.data());
}

// The one callsign that the tried frames agree on, safe against CRC twins. walked counts the frames looked at.
std::optional<Decision> decide(const Search& search, std::span<const Fit> fits, std::span<const Pooled> pool,
                               int32_t number, int32_t& walked) {
    std::optional<Decision> chosen;
    for (const Pooled& candidate : pool) {
        walked++;
        std::array<char, 7> call;
        if (!is_valid(search.params, candidate.frame, call)) continue;
        if (!chosen) {
            std::array<char, 7> twin;
            const double margin = ovc_twin_margin(fits[candidate.fit].hyp.soft, candidate.frame,
                                                  search.params.check_plausible, twin.data());
            if (!(margin >= search.params.twin_min)) {
                if (search.verbose()) {
                    std::fprintf(stderr, "Candidate %d: %s rejected, CRC twin %s only %.1f behind\n", number,
                                 call.data(), twin.data(), margin);
                }
                return std::nullopt;
            }
            chosen = Decision{call, candidate.fit, walked - 1, pool.front().metric - candidate.metric};
        } else if (call != chosen->call) {
            if (search.verbose()) {
                std::fprintf(stderr, "Candidate %d: ambiguous (%s / %s both valid), rejected\n", number,
                             chosen->call.data(), call.data());
            }
            return std::nullopt;
        }
    }
    return chosen;
}

ov_spot opera_spot(const Search& search, const ov_cand& cand, const Fit& fit, const Decision& decision) {
    ov_spot spot = measured_spot(search, cand.z, fit.hyp, OPERA);
    trim_call(decision.call.data(), spot.call);
    spot.rank = decision.rank;
    spot.gap = decision.gap;
    spot.shift = fit.shift;

    std::array<uint8_t, OVC_CHIPS> chips;
    if (ovc_encode(decision.call.data(), chips.data(), nullptr) == 0) {
        compare_with_chips(search, fit.hyp, chips.data(), OPERA, spot);
    } else {
        spot.snr = NO_SNR;
    }
    return spot;
}

void accept_opera(const Search& search, const ov_spot& spot, const ov_cand& cand, int32_t number, SpotList& spots) {
    if (!off_chips_empty(search.params, spot.contrast, spot.off_excess)) {
        if (search.verbose()) {
            std::fprintf(stderr,
                         "Candidate %d: %s rejected, OFF chips not empty (excess %.2f, contrast %.2f, SNR %.1f dB): "
                         "another signal\n",
                         number, spot.call, spot.off_excess, spot.contrast, spot.snr);
        }
        return;
    }
    const bool duplicate = spots.has_call_near(spot.call, spot.t, DUPLICATE_FRAMES * search.frame_s);
    if (search.verbose()) {
        std::fprintf(stderr,
                     "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s "
                     "score=%.1f chips=%d/239 : %s (rank %d, SNR %.1f dB, contrast %.2f, OFF excess %.2f)%s\n",
                     number, cand.z, cand.t, search.absolute(cand.f), spot.t, spot.freq, spot.drift, spot.score,
                     spot.chips_ok, spot.call, spot.rank, spot.snr, spot.contrast, spot.off_excess,
                     duplicate ? " [duplicate]" : "");
    }
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
    } else if (search.verbose()) {
        std::fprintf(stderr,
                     "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz score=%.1f : no valid "
                     "frame (%d tried)\n",
                     number, cand.z, cand.t, search.absolute(cand.f), hyp.start / search.bb.rate,
                     search.absolute(hyp.f), hyp.metric, walked);
    }
}

// Whether an earlier spot lies on this place.
bool is_decoded(const Search& search, const SpotList& spots, double t, double f) {
    const auto found = spots.found();
    return std::any_of(found.begin(), found.end(), [&](const ov_spot& spot) {
        return std::fabs(search.absolute(f) - spot.freq) < search.same_place_hz() &&
               std::fabs(t - spot.t) < SAME_PLACE_FRAMES * search.frame_s;
    });
}

void search_opera(const Search& search, CandidateLists& lists, SpotList& spots) {
    search_candidates(
        search, OPERA.label, lists, spots,
        [&](const ov_cand& cand) { return is_decoded(search, spots, cand.t, cand.f); },
        [&](const ov_cand& cand, int32_t number) { examine_opera(search, cand, number, spots); });
}

// ---- Known callsigns -------------------------------------------------------------------------------------------

void examine_deep(const Search& search, const ovc_deep_hit& hit, SpotList& spots) {
    const ovc_known& known = search.params.known[hit.known];
    const double f = search.absolute(hit.f);
    if (is_decoded(search, spots, hit.t, hit.f) ||
        spots.has_call_near(known.display, hit.t, DUPLICATE_FRAMES * search.frame_s)) {
        if (search.verbose()) {
            std::fprintf(stderr, "Deep hit %s Z=%.1f t=%.3f s f=%.2f Hz: already decoded there\n", known.display, hit.z,
                         hit.t, f);
        }
        return;
    }
    ov_hyp hyp;
    if (ovc_deep_refine(search.bb, search.map, known, hit, search.drift_range, search.params.chip_guard, hyp) != 0) {
        return;
    }
    ov_spot spot = measured_spot(search, hit.z, hyp, OPERA);
    std::copy(std::begin(known.display), std::end(known.display), spot.call);
    spot.rank = -1;
    spot.deep = 1;
    compare_with_chips(search, hyp, known.chips, OPERA, spot);
    if (search.verbose()) {
        std::fprintf(stderr,
                     "Deep hit %s: Z=%.1f (map) -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s Z=%.1f chips=%d/239 "
                     "SNR %.1f dB\n",
                     spot.call, hit.z, spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok, spot.snr);
    }
    spots.push_back(spot);
}

void search_known(const Search& search, SpotList& spots) {
    const ov_params& params = search.params;
    const StartWindow window = start_window(params, search.frame_s);
    std::array<ovc_deep_hit, MAX_DEEP_HITS> hits;
    double threshold = 0;
    const int32_t count = std::max(
        0, ovc_deep_search(search.map, params.known, params.n_known, window.first, window.last, params.search_hz,
                           params.chip_guard, params.deep_pfa, MAX_DEEP_HITS, hits.data(), &threshold));
    if (search.verbose()) {
        std::fprintf(stderr, "Deep search: %d known callsign(s), threshold Z=%.2f, %d hit(s)\n", params.n_known,
                     threshold, count);
    }
    for (int32_t i = 0; i < count && !spots.is_full(); i++) {
        examine_deep(search, hits[static_cast<std::size_t>(i)], spots);
    }
}

// ---- ORVEL -----------------------------------------------------------------------------------------------------

// Why a fit was not accepted; the lowest value of a candidate's fits is reported.
enum class Verdict { OTHER_SIGNAL = -3, IMPLAUSIBLE = -2, NO_FRAME = -1, ACCEPTED = 0 };

const char* reason(Verdict verdict) {
    switch (verdict) {
        case Verdict::OTHER_SIGNAL:
            return "valid CRC but OFF chips not empty (another signal)";
        case Verdict::IMPLAUSIBLE:
            return "valid CRC but implausible callsign";
        default:
            return "no valid frame";
    }
}

bool is_acceptable_call(const ov_params& params, const char* call) {
    if (params.check_plausible != 0) {
        std::array<char, 7> normalised;
        if (ov_normalize_call(call, normalised.data()) != 0 || ov_call_plausible(normalised.data()) == 0) return false;
    }
    return params.known_only == 0 || is_known(params, call);
}

// Tries to read one fit; the spot is complete when it is accepted.
Verdict read_fit(const Search& search, const ov_protocol& protocol, const ov_cand& cand, const Fit& fit,
                 ov_spot& spot) {
    const auto nbits = static_cast<std::size_t>(search.map.pairs);
    std::array<float, OV_MAX_PAIRS> first;
    std::array<float, OV_MAX_PAIRS> second;
    for (std::size_t i = 0; i < nbits; i++) {
        first[i] = fit.hyp.energy[2 * i + 1];
        second[i] = fit.hyp.energy[2 * i + 2];
    }
    std::array<float, OV_MAX_PAIRS> llr;
    ov_llr(first.data(), second.data(), search.map.pairs, fit.hyp.noise, llr.data(), 0);

    std::array<uint8_t, OV_MAX_PAIRS> coded;
    std::array<uint8_t, OV_MAX_PAIRS> message;
    double cost = 0;
    int32_t stage = 0;
    if (ldpc_decode(ov_code(protocol.mode), llr.data(), LDPC_PASSES, LDPC_ORDER, 0, coded.data(), message.data(), &cost,
                    &stage) != 0) {
        return Verdict::NO_FRAME;
    }
    spot = measured_spot(search, cand.z, fit.hyp, protocol);
    if (ov_check(protocol.mode, message.data(), spot.call, spot.locator) != 0) return Verdict::NO_FRAME;
    if (!is_acceptable_call(search.params, spot.call)) return Verdict::IMPLAUSIBLE;

    std::array<uint8_t, OV_MAX_CHIPS> chips;
    chips[0] = 1;
    for (std::size_t i = 0; i < nbits; i++) {
        chips[2 * i + 1] = static_cast<uint8_t>(1 - coded[i]);
        chips[2 * i + 2] = coded[i];
    }
    frame_consistency(fit.hyp, chips.data(), spot.contrast, spot.off_excess);
    if (!off_chips_empty(search.params, spot.contrast, spot.off_excess)) return Verdict::OTHER_SIGNAL;

    compare_with_chips(search, fit.hyp, chips.data(), protocol, spot);
    spot.rank = stage;
    spot.shift = fit.shift;
    return Verdict::ACCEPTED;
}

void accept_orvel(const Search& search, const ov_protocol& protocol, const ov_spot& spot, int32_t number,
                  SpotList& spots) {
    const bool duplicate = spots.has_call_near(spot.call, spot.t, DUPLICATE_FRAMES * search.frame_s);
    if (search.verbose()) {
        std::fprintf(stderr,
                     "%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz drift=%+.4f Hz/s chips=%d/%d : %s %s (%s, SNR %.1f "
                     "dB, contrast %.2f, OFF excess %.2f)%s\n",
                     protocol.label, number, spot.z, spot.t, spot.freq, spot.drift, spot.chips_ok,
                     search.map.frame_chips, spot.call, spot.locator, spot.rank == 1 ? "BP" : "OSD", spot.snr,
                     spot.contrast, spot.off_excess, duplicate ? " [duplicate]" : "");
    }
    if (!duplicate) spots.push_back(spot);
}

// Fits that were read in vain. Candidates of one frame are often whole chips apart, and then share most of their fits.
class ReadInVain {
  public:
    void add(const ov_hyp& hyp, Verdict verdict) {
        newest_[count_++ % newest_.size()] = {hyp.start, hyp.f, hyp.drift, verdict};
    }
    std::optional<Verdict> find(const ov_hyp& hyp) const {
        const auto end = newest_.begin() + static_cast<std::ptrdiff_t>(std::min(count_, newest_.size()));
        const auto same = std::find_if(newest_.begin(), end, [&](const Entry& entry) {
            return entry.start == hyp.start && entry.f == hyp.f && entry.drift == hyp.drift;
        });
        return same == end ? std::nullopt : std::optional(same->verdict);
    }

  private:
    // All that the measurement of a fit depends on, and so all that reading it depends on.
    struct Entry {
        int32_t start;
        double f, drift;
        Verdict verdict;
    };
    std::array<Entry, 512> newest_;
    std::size_t count_ = 0;
};

void examine_orvel(const Search& search, const ov_protocol& protocol, const ov_cand& cand, int32_t number,
                   ReadInVain& in_vain, SpotList& spots) {
    ov_hyp hyp;
    if (ov_refine(search.bb, search.map, cand, search.drift_range, search.params.chip_guard, hyp) != 0) return;
    std::vector<Fit> fits = fit_shifts(search, hyp);
    std::stable_sort(fits.begin(), fits.end(), [](const Fit& a, const Fit& b) { return a.hyp.metric > b.hyp.metric; });

    Verdict lowest = Verdict::NO_FRAME;
    for (const Fit& fit : fits) {
        std::optional<Verdict> verdict = in_vain.find(fit.hyp);
        if (!verdict) {
            ov_spot spot;
            verdict = read_fit(search, protocol, cand, fit, spot);
            if (*verdict == Verdict::ACCEPTED) {
                accept_orvel(search, protocol, spot, number, spots);
                return;
            }
            in_vain.add(fit.hyp, *verdict);
        }
        lowest = std::min(lowest, *verdict);
    }
    if (search.verbose()) {
        std::fprintf(stderr, "%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz : %s\n", protocol.label, number, cand.z,
                     cand.t, search.absolute(cand.f), reason(lowest));
    }
}

// Whether an earlier spot of the same protocol takes more than half of the shorter frame at this place.
bool overlaps_spot(const Search& search, int32_t protocol, const SpotList& spots, const ov_cand& cand) {
    const auto found = spots.found();
    return std::any_of(found.begin(), found.end(), [&](const ov_spot& spot) {
        if (spot.protocol != protocol) return false;
        const double length = frame_seconds(search.params, spot.protocol);
        return std::fabs(search.absolute(cand.f) - spot.freq) < search.same_place_hz() &&
               time_overlap(spot.t, length, cand.t, search.frame_s) >
                   OVERLAP_FRAMES * std::fmin(search.frame_s, length);
    });
}

// ---- The whole run ---------------------------------------------------------------------------------------------

void print_map(const Search& search) {
    const ov_specmap& map = search.map;
    std::fprintf(stderr,
                 "Baseband: %.0f Hz around %.2f Hz, chip %.3f s = %d samples, bins %.3f Hz, %ld positions x %d bins, "
                 "drift search +/-%.3f Hz/s%s\n",
                 search.bb.rate, search.bb.centre, search.chip_s, map.chip_len, map.bin_hz, static_cast<long>(map.npos),
                 map.nbins, search.drift_range, "");
    if (map.spread > 0) {
        std::fprintf(stderr, "Spread mode: energy summed over %d bins = %.1f Hz, noise rescale %.2f\n",
                     2 * map.spread + 1, (2 * map.spread + 1) * map.bin_hz, map.noise_rescale);
    }
}

// Where two protocols decoded something at the same place, the one with less contrast was a phantom of the other. It is
// marked by a protocol that does not exist: memory for marks might be short, and the phantom would stay.
void remove_overlaps(const Search& search, SpotList& spots) {
    constexpr int32_t DROPPED = 0;
    const std::span<ov_spot> found = spots.found();
    for (std::size_t i = 0; i < found.size(); i++) {
        for (std::size_t j = i + 1; j < found.size(); j++) {
            const ov_spot& a = found[i];
            const ov_spot& b = found[j];
            if (a.protocol == DROPPED || b.protocol == DROPPED || a.protocol == b.protocol) continue;
            if (!(std::fabs(a.freq - b.freq) < search.same_place_hz())) continue;
            const double length_a = frame_seconds(search.params, a.protocol);
            const double length_b = frame_seconds(search.params, b.protocol);
            if (!(time_overlap(a.t, length_a, b.t, length_b) > OVERLAP_FRAMES * std::fmin(length_a, length_b))) {
                continue;
            }
            found[a.contrast < b.contrast ? i : j].protocol = DROPPED;
        }
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < found.size(); i++) {
        if (found[i].protocol != DROPPED) found[kept++] = found[i];
    }
    spots.shrink(kept);
}

// ---- Wide decode -----------------------------------------------------------------------------------------------

struct SpectrumOwner {
    ov_spectrum spectrum{};
    SpectrumOwner() = default;
    SpectrumOwner(const SpectrumOwner&) = delete;
    SpectrumOwner& operator=(const SpectrumOwner&) = delete;
    ~SpectrumOwner() { ov_spectrum_free(spectrum); }
};

// A copy of the parameters for one of several tiles.
ov_params tile_params(const ov_params& params, int32_t tiles) {
    ov_params tile = params;
    tile.search_hz = TILE_SEARCH_HZ + 0.5 * params.spread_hz;
    tile.deep_pfa = params.deep_pfa / tiles;
    return tile;
}

// Adds the spots of a tile. A station may show in two of them: of the same frame an ordinary decode stays rather than a
// deep one, and of two ordinary ones the stronger.
void merge_spots(std::span<const ov_spot> tile, double op, SpotList& found) {
    for (const ov_spot& spot : tile) {
        if (found.is_full()) return;
        const std::span<ov_spot> known = found.found();
        const auto same = std::find_if(known.begin(), known.end(), [&](const ov_spot& other) {
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

// Baseband rates are 125 Hz times a power of two, so that the lowest tells whether an input rate fits any of them.
bool ov_rate_served(uint32_t rate) {
    int32_t nfft = 0;
    int32_t nout = 0;
    return rate >= 1 && rate <= static_cast<uint32_t>(std::numeric_limits<int32_t>::max()) &&
           choose_sizes(1, static_cast<int32_t>(rate), static_cast<int32_t>(MIN_BASEBAND_RATE), nfft, nout) == 0;
}

int32_t ov_decode_real(const double* x, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                       int32_t max_spots) {
    const auto out_rate = baseband_rate(params, n, rate);
    ov_baseband bb;
    if (!out_rate || ov_baseband_real(x, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run_and_free(bb, params, spots, max_spots);
}

int32_t ov_decode_iq(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                     int32_t max_spots) {
    const auto out_rate = baseband_rate(params, n, rate);
    ov_baseband bb;
    if (!out_rate || ov_baseband_iq(i, q, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run_and_free(bb, params, spots, max_spots);
}

int32_t ov_decode_wide(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params,
                       double z_scan, int32_t max_tiles, ov_spot* spots, int32_t max_spots) {
    const std::unique_ptr<ov_hit[]> tiles(new (std::nothrow) ov_hit[static_cast<std::size_t>(std::max(1, max_tiles))]);
    if (!tiles) return -1;
    const int32_t n_tiles = ov_scan(i, q, n, rate, chip_seconds(params), params.center_hz - params.search_hz,
                                    params.center_hz + params.search_hz, z_scan, TILE_SEPARATION_HZ, max_tiles,
                                    tiles.get(), nullptr, params.verbose);
    if (n_tiles < 0) return -1;
    if (params.verbose != 0) {
        std::fprintf(stderr, "Scan: %d frequenc%s above %.1f sigma\n", n_tiles, n_tiles == 1 ? "y" : "ies", z_scan);
    }
    if (n_tiles == 0) return 0;

    const ov_params tile = tile_params(params, n_tiles);
    const auto out_rate = baseband_rate(tile, n, rate);
    SpectrumOwner owner;
    if (!out_rate) return -1;
    if ((q != nullptr ? ov_spectrum_iq(i, q, n, rate, *out_rate, owner.spectrum)
                      : ov_spectrum_real(i, n, rate, *out_rate, owner.spectrum)) != 0) {
        return -1;
    }

    SpotList found(spots, 0, max_spots);
    for (int32_t k = 0; k < n_tiles && !found.is_full(); k++) {
        const ov_hit& hit = tiles[static_cast<std::size_t>(k)];
        if (params.verbose != 0) {
            std::fprintf(stderr, "--- tile %d/%d: %.1f Hz (scan z=%.1f)\n", k + 1, n_tiles, hit.freq_hz, hit.z);
        }
        ov_baseband bb;
        if (ov_baseband_extract(owner.spectrum, hit.freq_hz, bb) != 0) continue;
        std::array<ov_spot, MAX_TILE_SPOTS> local;
        const int32_t count = run_and_free(bb, tile, local.data(), MAX_TILE_SPOTS);
        merge_spots({local.data(), static_cast<std::size_t>(std::max(0, count))}, params.op, found);
    }
    sort_by_time(found);
    return found.count();
}

int32_t run(const ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots) {
    MapOwner owner;
    const double chip_s = chip_seconds(params);
    if (ov_spectrogram(bb, chip_s, params.search_hz, params.spread_hz, owner.map) != 0) {
        if (params.verbose != 0) {
            std::fprintf(stderr, "orveld: recording too short or invalid for Op%g\n", params.op);
        }
        return -1;
    }
    const double frame_s = FRAME_PER_OP * params.op;
    const double drift_range = params.drift_max >= 0 ? params.drift_max : 2 * owner.map.bin_hz / frame_s;
    const Search search{bb, owner.map, params, chip_s, frame_s, drift_range};
    if (search.verbose()) print_map(search);

    SpotList found(spots, 0, max_spots);
    {
        CandidateLists lists;
        if (!make_lists(params, lists)) return -1;
        const bool opera = (params.protocols & OVL_OPERA) != 0;
        if (opera) search_opera(search, lists, found);
        if (opera && params.deep_search != 0 && params.n_known > 0 && !found.is_full()) search_known(search, found);
    }
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const bool wanted = protocol.mode != OV_NO_MODE && (params.protocols & protocol.id) != 0;
        if (!wanted || found.is_full()) continue;
        const int32_t count =
            run_orvel(bb, owner.map, params, protocol.mode, drift_range, spots, found.count(), max_spots);
        found = SpotList(spots, count, max_spots);
    }
    remove_overlaps(search, found);

    sort_by_time(found);
    return found.count();
}

int32_t run_orvel(const ov_baseband& bb, const ov_specmap& map, const ov_params& params, int32_t mode,
                  double drift_range, ov_spot* spots, int32_t n, int32_t max_spots) {
    const ov_protocol& protocol = ov_protocol_by_mode(mode);
    ov_specmap layout = map;  // the powers are shared, the frame layout is this mode's
    ov_spec_frame(layout, protocol.pairs, 1);
    const double chip_s = chip_seconds(params);
    const double frame_s = layout.frame_chips * chip_s;
    if (drift_range > 0 && params.drift_max < 0) drift_range = 2 * layout.bin_hz / frame_s;
    const Search search{bb, layout, params, chip_s, frame_s, drift_range};

    SpotList found(spots, n, max_spots);
    CandidateLists lists;
    if (!make_lists(params, lists)) return n;
    ReadInVain in_vain;
    search_candidates(
        search, protocol.label, lists, found,
        [&](const ov_cand& cand) { return overlaps_spot(search, protocol.id, found, cand); },
        [&](const ov_cand& cand, int32_t number) { examine_orvel(search, protocol, cand, number, in_vain, found); });
    return found.count();
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
