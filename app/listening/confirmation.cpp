#include "listening/confirmation.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double CONTEXT_S = 90;  // decoded before what counts: two of the longest frames, and a little more
constexpr double GRID_S = 0.008;  // between positions on the decoder's grid, a sixteenth of a chip
constexpr int32_t PHASES = 4;
constexpr double PHASE_S = 0.0025;     // steps through the grid, and through the 2 ms between samples of the baseband
constexpr int32_t ENOUGH_DECODES = 4;  // from this many on a single find is too few

}  // namespace

double Confirmation::block_s() const {
    return CONTEXT_S + hold_off_s_;
}

double Confirmation::next_begin_s(double earliest_s) {
    const double phase_s = PHASE_S * phase_;
    phase_ = (phase_ + 1) % PHASES;
    return phase_s + GRID_S * std::ceil((earliest_s - phase_s) / GRID_S);
}

double Confirmation::add(double captured_s) {
    // All that was undecided at the last decode.
    const double earliest_end_s = decided_s(decodes_.empty() ? 0 : decodes_.back());
    decodes_.push_back(captured_s);
    std::erase_if(decodes_, [&](double decode_s) { return decode_s < captured_s - block_s(); });
    return earliest_end_s;
}

bool Confirmation::confirm(double end_s, int32_t finds) const {
    const auto decodes =
        std::count_if(decodes_.begin(), decodes_.end(), [&](double decode_s) { return decode_s >= end_s; });
    return finds > 1 || decodes < ENOUGH_DECODES;
}

void Confirmation::clear() {
    decodes_.clear();
}
