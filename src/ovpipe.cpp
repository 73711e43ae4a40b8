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

#include "liborvel.h"
#include "ovcdec.h"

namespace {

constexpr double CHIP_PER_OP = 0.256;    // chip length in seconds for each unit of the speed number
constexpr double FRAME_PER_OP = 61.184;  // the same for an OPERA frame: 239 chips
constexpr double NO_LIMIT_S = 1e9;
constexpr double OPERA_SNR_ADJUST = -2.9921665490051286;  // 10·log10(120/239): share of ON chips in a frame
constexpr double NO_SNR = -99.0;

constexpr int64_t MIN_BASEBAND_RATE = 125;
constexpr double MIN_CHIP_SAMPLES = 15.999999999;
constexpr int64_t MAX_OVERSAMPLING = 4;       // baseband rate over input rate; a wider band would be empty
constexpr int64_t OVERSAMPLING_FLOOR = 1000;  // Hz; below this the input rate sets no limit

constexpr int64_t CANDIDATES_LISTED = 50;  // for each candidate examined: most are shadows of stronger ones
constexpr std::array<int32_t, 7> SHIFTS = {-6, -4, -2, 0, 2, 4, 6};

constexpr double SAME_PLACE_CHIP_HZ = 3.0;  // two signals closer than this many 1/chip share their energy
constexpr double SAME_PLACE_FRAMES = 0.9;
constexpr double SHADOW_Z = 0.75;  // a candidate this much weaker than its neighbour is its shadow
constexpr double DUPLICATE_FRAMES = 0.5;
constexpr double OFF_PER_CONTRAST = 0.05;  // keying leaks this share of the ON energy into OFF chips

double chip_seconds(const ov_params& params) {
    return CHIP_PER_OP * params.op;
}

// ---- Samples to baseband ---------------------------------------------------------------------------------------

// The lowest rate that holds the search band with room beside it and 16 samples a chip; nothing when the parameters
// are no numbers or ask for far more than the input holds.
std::optional<int32_t> baseband_rate(const ov_params& params, int32_t input_rate) {
    const double chip = chip_seconds(params);
    const double need = 2.0 * (3.0 / chip + params.search_hz + 0.5 * params.spread_hz) + 40.0;
    if (!(chip > 0) || !std::isfinite(chip) || !std::isfinite(need)) return std::nullopt;

    const int64_t limit = MAX_OVERSAMPLING * std::max<int64_t>(input_rate, OVERSAMPLING_FLOOR);
    int64_t rate = MIN_BASEBAND_RATE;
    while (static_cast<double>(rate) < need || static_cast<double>(rate) * chip < MIN_CHIP_SAMPLES) {
        rate *= 2;
        if (rate > std::min<int64_t>(limit, std::numeric_limits<int32_t>::max())) return std::nullopt;
    }
    return static_cast<int32_t>(rate);
}

int32_t run_and_free(ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots) {
    const int32_t count = run(bb, params, spots, max_spots);
    ov_baseband_free(bb);
    return count;
}

// ---- One decode run --------------------------------------------------------------------------------------------

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

// A frame of the pool, with the shift that it was listed for.
struct Pooled {
    double metric;
    std::size_t fit;
    int32_t position;
    ovc_frame frame;
};

int32_t cmp_pooled(const Pooled& a, const Pooled& b) {
    return (b.metric > a.metric) - (b.metric < a.metric);
}
int32_t cmp_spot_dt(const ov_spot& a, const ov_spot& b) {
    return (a.t > b.t) - (a.t < b.t);
}

// A hypothesis measured at one shift.
struct Fit {
    int32_t shift;
    ov_hyp hyp;
};

// The frame that a candidate decodes to.
struct Decision {
    std::array<char, 7> call;  // six characters
    std::size_t fit;
    int32_t rank;
    double gap;
};

// State of one run: the spots found so far and what all steps of it need.
class Run {
  public:
    Run(const ov_baseband& bb, const ov_params& params, std::span<ov_spot> spots)
        : bb_(bb), params_(params), spots_(spots), chip_s_(chip_seconds(params)), frame_s_(FRAME_PER_OP * params.op) {}

    int32_t decode();

  private:
    bool make_map();
    void search_opera();
    void examine(const ov_cand& cand, int32_t number);
    std::vector<Fit> fit_shifts(const ov_hyp& hyp) const;
    std::vector<Pooled> pool_frames(std::span<const Fit> fits) const;
    bool is_valid(const ovc_frame& frame, std::array<char, 7>& call) const;
    std::optional<Decision> decide(std::span<const Fit> fits, std::span<const Pooled> pool, int32_t number,
                                   int32_t& walked) const;
    ov_spot make_spot(const ov_cand& cand, const Fit& fit, const Decision& decision) const;
    void accept(const ov_spot& spot, const ov_cand& cand, int32_t number);

    bool is_known(std::string_view call) const;
    bool is_decoded(double t, double f) const;
    bool is_shadowed(const ov_cand& cand) const;
    bool is_full() const { return count_ >= spots_.size(); }
    std::span<ov_spot> found() const { return spots_.first(count_); }
    double absolute(double f) const { return f + bb_.centre; }
    bool verbose() const { return params_.verbose != 0; }

    const ov_baseband& bb_;
    const ov_params& params_;
    std::span<ov_spot> spots_;
    std::size_t count_ = 0;
    double chip_s_;
    double frame_s_;
    double drift_range_ = 0;
    MapOwner owner_;
    const ov_specmap& map_ = owner_.map;
    std::vector<ov_cand> candidates_;
    std::vector<ov_cand> examined_;
};

bool Run::make_map() {
    if (ov_spectrogram(bb_, chip_s_, params_.search_hz, params_.spread_hz, owner_.map) != 0) {
        if (verbose()) std::fprintf(stderr, "orveld: recording too short or invalid for Op%g\n", params_.op);
        return false;
    }
    drift_range_ = params_.drift_max >= 0 ? params_.drift_max : 2 * map_.bin_hz / frame_s_;
    if (verbose()) {
        std::fprintf(stderr,
                     "Baseband: %.0f Hz around %.2f Hz, chip %.3f s = %d samples, bins %.3f Hz, %ld positions x %d "
                     "bins, drift search +/-%.3f Hz/s%s\n",
                     bb_.rate, bb_.centre, chip_s_, map_.chip_len, map_.bin_hz, static_cast<long>(map_.npos),
                     map_.nbins, drift_range_, "");
        if (map_.spread > 0) {
            std::fprintf(stderr, "Spread mode: energy summed over %d bins = %.1f Hz, noise rescale %.2f\n",
                         2 * map_.spread + 1, (2 * map_.spread + 1) * map_.bin_hz, map_.noise_rescale);
        }
    }
    return true;
}

int32_t Run::decode() {
    if (!make_map()) return -1;

    const int64_t capacity = CANDIDATES_LISTED * std::max(1, params_.max_cands);
    if (capacity > std::numeric_limits<int32_t>::max()) return -1;
    try {
        candidates_.resize(static_cast<std::size_t>(capacity));
        examined_.reserve(static_cast<std::size_t>(capacity));
    } catch (const std::bad_alloc&) {
        return -1;
    }

    if ((params_.protocols & OVL_OPERA) != 0) search_opera();

    std::stable_sort(found().begin(), found().end(),
                     [](const ov_spot& a, const ov_spot& b) { return cmp_spot_dt(a, b) < 0; });
    return static_cast<int32_t>(count_);
}

void Run::search_opera() {
    const StartWindow window = start_window(params_, frame_s_);
    double median = 0;
    double sigma = 0;
    const int32_t listed = std::max(
        0, ov_find_candidates(map_, window.first, window.last, params_.search_hz, params_.chip_guard, params_.z_min,
                              static_cast<int32_t>(candidates_.size()), candidates_.data(), &median, &sigma));
    if (verbose()) {
        std::fprintf(stderr, "Classic score map: median %.1f, sigma %.1f; %d candidate(s) above %.1f sigma\n", median,
                     sigma, listed, params_.z_min);
    }
    const auto examined_limit = static_cast<std::size_t>(std::max(0, params_.max_cands));
    for (int32_t i = 0; i < listed && examined_.size() < examined_limit && !is_full(); i++) {
        const ov_cand& cand = candidates_[static_cast<std::size_t>(i)];
        if (is_decoded(cand.t, cand.f) || is_shadowed(cand)) continue;
        examined_.push_back(cand);
        try {
            examine(cand, i + 1);
        } catch (const std::bad_alloc&) {
            continue;  // the other candidates may need less
        }
    }
}

void Run::examine(const ov_cand& cand, int32_t number) {
    ov_hyp hyp;
    if (ov_refine(bb_, map_, cand, drift_range_, params_.chip_guard, hyp) != 0) return;

    const std::vector<Fit> fits = fit_shifts(hyp);
    const std::vector<Pooled> pool = pool_frames(fits);
    int32_t walked = 0;
    if (const auto decision = decide(fits, pool, number, walked)) {
        accept(make_spot(cand, fits[decision->fit], *decision), cand, number);
    } else if (verbose()) {
        std::fprintf(stderr,
                     "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz score=%.1f : no valid "
                     "frame (%d tried)\n",
                     number, cand.z, cand.t, absolute(cand.f), hyp.start / bb_.rate, absolute(hyp.f), hyp.metric,
                     walked);
    }
}

std::vector<Fit> Run::fit_shifts(const ov_hyp& hyp) const {
    std::vector<Fit> fits;
    fits.reserve(SHIFTS.size());
    for (const int32_t shift : SHIFTS) {
        Fit fit{shift, {}};
        if (ov_fit_shift(bb_, map_, hyp, shift, params_.chip_guard, fit.hyp) == 0) fits.push_back(fit);
    }
    return fits;
}

// The frames of all fits, best metric first; only as many as will be tried.
std::vector<Pooled> Run::pool_frames(std::span<const Fit> fits) const {
    const int32_t tries = std::clamp(params_.max_frames, 1, OVC_MAX_LISTED);
    std::vector<ovc_frame> frames(static_cast<std::size_t>(tries));
    std::vector<Pooled> pool;
    for (std::size_t k = 0; k < fits.size(); k++) {
        const int32_t listed = ovc_list_frames(fits[k].hyp.soft, tries, frames.data());
        for (int32_t i = 0; i < listed; i++) {
            const ovc_frame& frame = frames[static_cast<std::size_t>(i)];
            pool.push_back({frame.metric, k, i, frame});
        }
    }
    std::stable_sort(pool.begin(), pool.end(), [](const Pooled& a, const Pooled& b) { return cmp_pooled(a, b) < 0; });
    const auto tried = static_cast<std::size_t>(std::max(1, params_.max_frames));
    if (pool.size() > tried) pool.resize(tried);
    return pool;
}

bool Run::is_valid(const ovc_frame& frame, std::array<char, 7>& call) const {
    uint32_t value = 0;
    if (ovc_check_frame(frame, call.data(), &value) != 0) return false;
    if (params_.check_plausible != 0 && ov_call_plausible(call.data()) == 0) return false;
    if (params_.known_only == 0) return true;
    std::array<char, 7> text;
    trim_call(call.data(), text.data());
    return is_known(text.data());
}

// The one callsign that the tried frames agree on, safe against CRC twins. walked counts the frames looked at.
std::optional<Decision> Run::decide(std::span<const Fit> fits, std::span<const Pooled> pool, int32_t number,
                                    int32_t& walked) const {
    std::optional<Decision> chosen;
    for (const Pooled& candidate : pool) {
        walked++;
        std::array<char, 7> call;
        if (!is_valid(candidate.frame, call)) continue;
        if (!chosen) {
            std::array<char, 7> twin;
            const double margin =
                ovc_twin_margin(fits[candidate.fit].hyp.soft, candidate.frame, params_.check_plausible, twin.data());
            if (!(margin >= params_.twin_min)) {
                if (verbose()) {
                    std::fprintf(stderr, "Candidate %d: %s rejected, CRC twin %s only %.1f behind\n", number,
                                 call.data(), twin.data(), margin);
                }
                return std::nullopt;
            }
            chosen = Decision{call, candidate.fit, walked - 1, pool.front().metric - candidate.metric};
        } else if (call != chosen->call) {
            if (verbose()) {
                std::fprintf(stderr, "Candidate %d: ambiguous (%s / %s both valid), rejected\n", number,
                             chosen->call.data(), call.data());
            }
            return std::nullopt;
        }
    }
    return chosen;
}

ov_spot Run::make_spot(const ov_cand& cand, const Fit& fit, const Decision& decision) const {
    ov_spot spot{};
    trim_call(decision.call.data(), spot.call);
    spot.t = fit.hyp.start / bb_.rate;
    spot.freq = absolute(fit.hyp.f);
    spot.drift = fit.hyp.drift;
    spot.z = cand.z;
    spot.score = fit.hyp.metric;
    spot.rank = decision.rank;
    spot.gap = decision.gap;
    spot.shift = fit.shift;
    spot.chips_ok = fit.hyp.n_in;
    spot.protocol = OVL_OPERA;

    std::array<uint8_t, OVC_CHIPS> chips;
    if (ovc_encode(decision.call.data(), chips.data(), nullptr) != 0) {
        spot.snr = NO_SNR;
        return spot;
    }
    spot.snr = ov_estimate_snr_bb(bb_, map_, fit.hyp, chips.data(), chip_s_) +
               (params_.snr_adjust != 0 ? OPERA_SNR_ADJUST : 0);
    frame_consistency(fit.hyp, chips.data(), spot.contrast, spot.off_excess);
    return spot;
}

void Run::accept(const ov_spot& spot, const ov_cand& cand, int32_t number) {
    const double off_limit = OFF_PER_CONTRAST * spot.contrast + params_.off_max;
    if (!(params_.off_max <= 0) && !(spot.off_excess <= off_limit)) {
        if (verbose()) {
            std::fprintf(stderr,
                         "Candidate %d: %s rejected, OFF chips not empty (excess %.2f, contrast %.2f, SNR %.1f dB): "
                         "another signal\n",
                         number, spot.call, spot.off_excess, spot.contrast, spot.snr);
        }
        return;
    }
    const bool duplicate = std::any_of(found().begin(), found().end(), [&](const ov_spot& earlier) {
        return std::strcmp(earlier.call, spot.call) == 0 && std::fabs(spot.t - earlier.t) < DUPLICATE_FRAMES * frame_s_;
    });
    if (verbose()) {
        std::fprintf(stderr,
                     "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s "
                     "score=%.1f chips=%d/239 : %s (rank %d, SNR %.1f dB, contrast %.2f, OFF excess %.2f)%s\n",
                     number, cand.z, cand.t, absolute(cand.f), spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok,
                     spot.call, spot.rank, spot.snr, spot.contrast, spot.off_excess, duplicate ? " [duplicate]" : "");
    }
    if (!duplicate) spots_[count_++] = spot;
}

bool Run::is_known(std::string_view call) const {
    const std::span known(params_.known, static_cast<std::size_t>(std::max(0, params_.n_known)));
    return std::any_of(known.begin(), known.end(), [&](const ovc_known& entry) { return call == entry.display; });
}

bool Run::is_decoded(double t, double f) const {
    return std::any_of(found().begin(), found().end(), [&](const ov_spot& spot) {
        return std::fabs(absolute(f) - spot.freq) < SAME_PLACE_CHIP_HZ / chip_s_ &&
               std::fabs(t - spot.t) < SAME_PLACE_FRAMES * frame_s_;
    });
}

bool Run::is_shadowed(const ov_cand& cand) const {
    return std::any_of(examined_.begin(), examined_.end(), [&](const ov_cand& other) {
        return std::fabs(cand.f - other.f) < SAME_PLACE_CHIP_HZ / chip_s_ && std::fabs(cand.t - other.t) < frame_s_ &&
               other.z * SHADOW_Z > cand.z;
    });
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
        .protocols = OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L,
    };
}

int32_t ov_decode_real(const double* x, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                       int32_t max_spots) {
    const auto out_rate = baseband_rate(params, rate);
    ov_baseband bb;
    if (!out_rate || ov_baseband_real(x, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run_and_free(bb, params, spots, max_spots);
}

int32_t ov_decode_iq(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                     int32_t max_spots) {
    const auto out_rate = baseband_rate(params, rate);
    ov_baseband bb;
    if (!out_rate || ov_baseband_iq(i, q, n, rate, params.center_hz, *out_rate, bb) != 0) return -1;
    return run_and_free(bb, params, spots, max_spots);
}

int32_t run(const ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots) {
    return Run(bb, params, {spots, static_cast<std::size_t>(std::max(0, max_spots))}).decode();
}

void trim_call(const char* in, char* out) {
    std::string_view text(in, 6);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    text = text.substr(0, text.find_last_not_of(' ') + 1);
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
