#include "listening/clock_check.h"

#include <algorithm>
#include <utility>

namespace {

constexpr double STRETCH_S = 10;
constexpr double LOSS_S = 0.1;   // less is a late stretch, or a clock that is out by less than a hundredth
constexpr double KNOWN_S = 300;  // after which a stretch that is 5 ms late is an error of some 20 millionths

}  // namespace

double ClockCheck::observe(double captured_s, double now) {
    const double begin = now - captured_s;
    if (!soonest_) {
        soonest_ = begin;
        stretch_from_ = now;
    }
    if (now < stretch_from_ + STRETCH_S) {
        soonest_ = std::min(*soonest_, begin);
        return 0;
    }
    const double ended = *soonest_;
    soonest_ = begin;
    return end_stretch(ended, std::exchange(stretch_from_, now));
}

double ClockCheck::end_stretch(double begin, double now) {
    const double step_s = before_ ? begin - *before_ : 0;
    const bool fresh = !before_ || step_s > LOSS_S || step_s < -LOSS_S;
    if (fresh) {
        first_ = begin;
        first_at_ = now;
    }
    before_ = begin;
    last_at_ = now;
    return std::max(fresh ? step_s : 0.0, 0.0);
}

std::optional<double> ClockCheck::error_ppm() const {
    const double seconds = last_at_ - first_at_;
    if (!before_ || seconds < KNOWN_S) return std::nullopt;
    return 1e6 * (first_ - *before_) / seconds;
}
