#include "looks.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double CONTEXT_S = 90;  // decoded before what counts: two of the longest frames, and some
constexpr double GRID_S = 0.008;  // between positions on the decoder's grid, a sixteenth of a chip
constexpr int32_t PHASES = 4;
constexpr double PHASE_S = 0.0025;   // steps through the grid, and through the 2 ms between samples of the baseband
constexpr int32_t ENOUGH_LOOKS = 4;  // from so many on one find is too few

}  // namespace

double Looks::block_s() const {
    return CONTEXT_S + settle_s_;
}

double Looks::next_begin_s(double earliest_s) {
    const double phase_s = PHASE_S * phase_;
    phase_ = (phase_ + 1) % PHASES;
    return phase_s + GRID_S * std::ceil((earliest_s - phase_s) / GRID_S);
}

double Looks::add(double captured_s) {
    // All that had not settled at the last look.
    const double earliest_end_s = settled_s(looks_.empty() ? 0 : looks_.back());
    looks_.push_back(captured_s);
    std::erase_if(looks_, [&](double look_s) { return look_s < captured_s - block_s(); });
    return earliest_end_s;
}

bool Looks::confirm(double end_s, int32_t finds) const {
    const auto looks = std::count_if(looks_.begin(), looks_.end(), [&](double look_s) { return look_s >= end_s; });
    return finds > 1 || looks < ENOUGH_LOOKS;
}

void Looks::clear() {
    looks_.clear();
}
