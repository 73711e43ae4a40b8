// A buffer is late at worst, never early, and lost input moves the begin of capture later for good. So the begin that
// holds for a sample is the earliest that its own buffer or any later one tells; those of an instant before it count
// too, lest a loss right behind a sample leave it few.
#include "listening/sample_clock.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace {

constexpr double STEP_S = 0.1;      // arrivals this close together are one
constexpr double BEFORE_S = 0.3;    // an instant
constexpr double ENOUGH_S = 5;      // of arrivals, for the soonest to be on time
constexpr double JUMP_S = 10;       // no buffer is this late: the machine was suspended, or its clock stepped
constexpr double REMEMBER_S = 300;  // more than a frame and its hold-off

}  // namespace

void SampleClock::observe(double captured_s, double now) {
    if (captured_s <= captured_s_) return;  // a device may take seconds to begin, and stall
    captured_s_ = captured_s;
    const double begin = now - captured_s;
    const bool fresh = arrivals_.empty() || std::fabs(begin - arrivals_.back().begin) > JUMP_S;
    if (fresh || captured_s > arrivals_.back().from_s + STEP_S) {
        arrivals_.push_back({captured_s, begin, fresh});
    }
    arrivals_.back().begin = std::min(arrivals_.back().begin, begin);
    while (arrivals_.front().from_s < captured_s - REMEMBER_S) arrivals_.pop_front();
}

double SampleClock::utc(double captured_s) const {
    if (arrivals_.empty()) return std::numeric_limits<double>::quiet_NaN();
    auto at = std::upper_bound(arrivals_.begin(), arrivals_.end(), captured_s,
                               [](double at_s, const Arrivals& a) { return at_s < a.from_s; });
    const auto is_fresh = [](const Arrivals& a) { return a.fresh; };
    const auto end = std::find_if(std::max(at, arrivals_.begin() + 1), arrivals_.end(), is_fresh);
    const double from_s = std::min(captured_s - BEFORE_S, std::prev(end)->from_s - ENOUGH_S);
    double begin = HUGE_VAL;
    for (at = std::prev(end);; --at) {
        begin = std::min(begin, at->begin);
        if (at == arrivals_.begin() || at->fresh || std::prev(at)->from_s <= from_s) break;
    }
    return begin + captured_s;
}
