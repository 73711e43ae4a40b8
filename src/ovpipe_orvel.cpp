// The fits of an ORVEL candidate are decoded from the best down: energies to soft bits, LDPC decoder, CRC, and then the
// same tests as for an OPERA frame.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "orvel.h"
#include "ovcdec.h"
#include "ovpipe_search.h"

namespace {

constexpr int32_t LDPC_PASSES = 50;
constexpr int32_t LDPC_ORDER = 2;

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

// A decoded code word and its message, still whitened.
struct CodeWord {
    std::array<uint8_t, OV_MAX_PAIRS> coded;
    std::array<uint8_t, OV_MAX_PAIRS> message;
    int32_t stage;  // of the decoder
};

std::optional<CodeWord> decode_fit(const Search& search, const Fit& fit) {
    std::array<float, OV_MAX_PAIRS> first;
    std::array<float, OV_MAX_PAIRS> second;
    const float* energy = fit.hyp.energy + 1;  // after the leading chip
    for (int32_t i = 0; i < search.map.pairs; i++) {
        first.data()[i] = *energy++;
        second.data()[i] = *energy++;
    }
    std::array<float, OV_MAX_PAIRS> llr;
    ov_llr(first.data(), second.data(), search.map.pairs, fit.hyp.noise, llr.data(), 0);

    CodeWord word;
    double cost = 0;
    if (ldpc_decode(ov_code(search.protocol.mode), llr.data(), LDPC_PASSES, LDPC_ORDER, 0, word.coded.data(),
                    word.message.data(), &cost, &word.stage) != 0) {
        return std::nullopt;
    }
    return word;
}

// The chips that coded bits are sent as.
std::array<uint8_t, OV_MAX_CHIPS> chips_of(std::span<const uint8_t> coded) {
    std::array<uint8_t, OV_MAX_CHIPS> chips;
    uint8_t* next = chips.data();
    *next++ = 1;
    for (const uint8_t bit : coded) {
        *next++ = static_cast<uint8_t>(1 - bit);
        *next++ = bit;
    }
    return chips;
}

// Tries to decode one fit; the spot is complete when it is accepted.
Verdict read_fit(const Search& search, const ov_cand& cand, const Fit& fit, ov_spot& spot) {
    const auto word = decode_fit(search, fit);
    if (!word) return Verdict::NO_FRAME;
    spot = measured_spot(search, cand.z, fit.hyp);
    if (ov_check(search.protocol.mode, word->message.data(), spot.call, spot.locator) != 0) return Verdict::NO_FRAME;
    if (!is_acceptable_call(search.params, spot.call)) return Verdict::IMPLAUSIBLE;

    const auto chips = chips_of(std::span(word->coded).first(static_cast<std::size_t>(search.map.pairs)));
    frame_consistency(fit.hyp, chips.data(), spot.contrast, spot.off_excess);
    if (!off_chips_empty(search.params, spot.contrast, spot.off_excess)) return Verdict::OTHER_SIGNAL;

    compare_with_chips(search, fit.hyp, chips.data(), spot);
    spot.rank = word->stage;
    spot.shift = fit.shift;
    return Verdict::ACCEPTED;
}

void accept_orvel(const Search& search, const ov_spot& spot, int32_t number, SpotList& spots) {
    const bool duplicate = spots.has_call_near(spot.call, spot.t, DUPLICATE_FRAMES * search.frame_s);
    search.verbose().orvel_frame(search.protocol.label, number, spot, search.map.frame_chips, duplicate);
    if (!duplicate) spots.push_back(spot);
}

// Fits that were rejected. Candidates of one frame are often whole chips apart, and then share most of their fits.
class RejectedFits {
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
    // All that the measurement of a fit depends on, and therefore its verdict.
    struct Entry {
        int32_t start;
        double f, drift;
        Verdict verdict;
    };
    std::array<Entry, 512> newest_;
    std::size_t count_ = 0;
};

// The verdict about a fit; an accepted one is added to the spots.
Verdict judge_fit(const Search& search, const ov_cand& cand, const Fit& fit, int32_t number, RejectedFits& rejected,
                  SpotList& spots) {
    if (const auto known = rejected.find(fit.hyp)) return *known;
    ov_spot spot;
    const Verdict verdict = read_fit(search, cand, fit, spot);
    if (verdict == Verdict::ACCEPTED) {
        accept_orvel(search, spot, number, spots);
    } else {
        rejected.add(fit.hyp, verdict);
    }
    return verdict;
}

void examine_orvel(const Search& search, const ov_cand& cand, int32_t number, RejectedFits& rejected, SpotList& spots) {
    ov_hyp hyp;
    if (ov_refine(search.bb, search.map, cand, search.drift_range, search.params.chip_guard, hyp) != 0) return;
    std::vector<Fit> fits = fit_shifts(search, hyp);
    std::stable_sort(fits.begin(), fits.end(), [](const Fit& a, const Fit& b) { return a.hyp.metric > b.hyp.metric; });

    Verdict lowest = Verdict::NO_FRAME;
    for (const Fit& fit : fits) {
        const Verdict verdict = judge_fit(search, cand, fit, number, rejected, spots);
        if (verdict == Verdict::ACCEPTED) return;
        lowest = std::min(lowest, verdict);
    }
    search.verbose().no_orvel_frame(search.protocol.label, number, cand, search.bb.centre, reason(lowest));
}

// Whether an earlier spot of the same protocol covers more than half of the shorter frame at this place.
bool overlaps_spot(const Search& search, const SpotList& spots, const ov_cand& cand) {
    return std::ranges::any_of(spots.found(), [&](const ov_spot& spot) {
        if (spot.protocol != search.protocol.id) return false;
        return std::fabs(search.absolute(cand.f) - spot.freq) < search.same_place_hz() &&
               share_half(spot.t, frame_seconds(search.params, spot.protocol), cand.t, search.frame_s);
    });
}

}  // namespace

void search_orvel(const ov_baseband& bb, const ov_specmap& map, const ov_params& params, const ov_protocol& protocol,
                  double drift_range, SpotList& spots) {
    ov_specmap layout = map;  // the powers are shared, the frame layout is this mode's
    ov_spec_frame(layout, protocol.pairs, 1);
    const double chip_s = chip_seconds(params);
    const double frame_s = layout.frame_chips * chip_s;
    if (drift_range > 0 && params.drift_max < 0) drift_range = 2 * layout.bin_hz / frame_s;
    const Search search{bb, layout, params, protocol, chip_s, frame_s, drift_range};

    auto lists = make_lists(params);
    if (!lists) return;
    RejectedFits rejected;
    search_candidates(
        search, *lists, spots, [&](const ov_cand& cand) { return overlaps_spot(search, spots, cand); },
        [&](const ov_cand& cand, int32_t number) { examine_orvel(search, cand, number, rejected, spots); });
}

int32_t run_orvel(const ov_baseband& bb, const ov_specmap& map, const ov_params& params, int32_t mode,
                  double drift_range, ov_spot* spots, int32_t n, int32_t max_spots) {
    SpotList found(spots, n, max_spots);
    search_orvel(bb, map, params, ov_protocol_by_mode(mode), drift_range, found);
    return found.count();
}
