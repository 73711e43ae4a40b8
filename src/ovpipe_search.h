// What the searches of a decode run share: the block that they search, the spots that they add to, and the way from a
// score map to the candidates and fits of one protocol.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "ovpipe.h"
#include "ovsync.h"
#include "protocol.h"
#include "verbose_lines.h"

inline constexpr double FRAME_PER_OP = 61.184;   // length of an OPERA frame per unit of the speed number, s
inline constexpr double DUPLICATE_FRAMES = 0.5;  // spots of one callsign this close count as one

inline double chip_seconds(const ov_params& params) {
    return OV_CHIP_PER_OP * params.op;
}

// The spots found so far, in the caller's array.
class SpotList {
  public:
    SpotList(ov_spot* spots, int32_t n, int32_t max_spots);

    bool is_full() const { return count_ >= room_.size(); }
    void push_back(const ov_spot& spot) { room_[count_++] = spot; }
    void shrink(std::size_t count) { count_ = count; }
    std::span<ov_spot> found() const { return room_.first(std::min(count_, room_.size())); }
    int32_t count() const { return static_cast<int32_t>(count_); }

    // Duplicates are recognised by callsign and start alone.
    bool has_call_near(const char* call, double t, double within_s) const;
    void sort_by_time() const;

  private:
    std::span<ov_spot> room_;
    std::size_t count_;
};

// One protocol's search in one block.
struct Search {
    const ov_baseband& bb;
    const ov_specmap& map;  // in the protocol's layout
    const ov_params& params;
    const ov_protocol& protocol;
    double chip_s;
    double frame_s;
    double drift_range;  // Hz/s, each side

    VerboseLines verbose() const { return {params.verbose != 0}; }
    double absolute(double f) const { return f + bb.centre; }

    // Two signals closer than this share their energy.
    double same_place_hz() const { return 3.0 / chip_s; }
};

// Whether two frames have more than half of the shorter one in common. All in s.
bool share_half(double t1, double length1, double t2, double length2);

// Length of a frame of the protocol with that id.
double frame_seconds(const ov_params& params, int32_t protocol);

// Start times that the limits on the start and end of a frame allow.
struct StartWindow {
    double first, last;
};
StartWindow start_window(const ov_params& params, double frame_s);

// The candidates found, and those of them that were examined.
struct CandidateLists {
    std::unique_ptr<ov_cand[]> found;
    int32_t capacity = 0;
    std::vector<ov_cand> examined;
};

// Nothing when memory is short.
std::optional<CandidateLists> make_lists(const ov_params& params);

// Finds the search's candidates, strongest first.
std::span<const ov_cand> list_candidates(const Search& search, const CandidateLists& lists);

// A candidate close to a much stronger one is its shadow.
bool is_shadowed(const Search& search, std::span<const ov_cand> examined, const ov_cand& cand);

// Finds candidates and examines them from the strongest down: examine(candidate, number) for each that is_taken does
// not rule out. Numbers count from 1, skipped candidates included.
template <class IsTaken, class Examine>
void search_candidates(const Search& search, CandidateLists& lists, const SpotList& spots, IsTaken is_taken,
                       Examine examine) {
    const auto limit = static_cast<std::size_t>(std::max(0, search.params.max_cands));
    int32_t number = 0;
    for (const ov_cand& cand : list_candidates(search, lists)) {
        if (lists.examined.size() >= limit || spots.is_full()) return;
        number++;
        if (is_taken(cand) || is_shadowed(search, lists.examined, cand)) continue;
        lists.examined.push_back(cand);
        try {
            examine(cand, number);
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

// On the map a frame differs little from itself shifted by a chip or two, so every shift is measured.
std::vector<Fit> fit_shifts(const Search& search, const ov_hyp& hyp);

// Whether a callsign without blanks is on the list of known ones.
bool is_known(const ov_params& params, std::string_view call);

// False when the OFF chips hold more than noise and what keying leaks into them: another signal lies there.
bool off_chips_empty(const ov_params& params, double contrast, double off_excess);

// The spot with what a fit measured.
ov_spot measured_spot(const Search& search, double z, const ov_hyp& hyp);

// Adds SNR, contrast and OFF excess, by comparison with the chips that the frame should show.
void compare_with_chips(const Search& search, const ov_hyp& hyp, const uint8_t* chips, ov_spot& spot);

// The searches of a run. Each adds to the spots.
void search_opera(const Search& search, CandidateLists& lists, SpotList& spots);
void search_known(const Search& search, SpotList& spots);
void search_orvel(const ov_baseband& bb, const ov_specmap& map, const ov_params& params, const ov_protocol& protocol,
                  double drift_range, SpotList& spots);
