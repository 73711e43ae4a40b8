#include "listening/sample_clock.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double WINDOW_S = 5;
constexpr double JUMP_S = 10;       // no buffer is this late: the machine was suspended, or its clock stepped
constexpr double REMEMBER_S = 300;  // more than a frame and its hold-off

}  // namespace

void SampleClock::observe(double captured_s, double now) {
    if (captured_s <= 0) return;  // a device may take seconds to begin
    const double begin = now - captured_s;
    if (windows_.empty()) {
        windows_.push_back({0, begin, true});
    } else if (std::fabs(begin - windows_.back().begin) > JUMP_S) {
        windows_.push_back({captured_s, begin, true});
    } else if (captured_s > windows_.back().from_s + WINDOW_S) {
        windows_.push_back({captured_s, begin, false});
    }
    windows_.back().begin = std::min(windows_.back().begin, begin);
    std::erase_if(windows_, [&](const Window& window) { return window.from_s < captured_s - REMEMBER_S; });
}

double SampleClock::utc(double captured_s) const {
    if (windows_.empty()) return std::numeric_limits<double>::quiet_NaN();
    auto window = std::upper_bound(windows_.begin(), windows_.end(), captured_s,
                                   [](double at_s, const Window& w) { return at_s < w.from_s; });
    if (window != windows_.begin()) --window;
    // From the window before, as one that has only begun has seen few buffers, to the latest of the same stretch.
    if (window != windows_.begin() && !window->fresh) --window;
    double begin = window->begin;
    while (++window != windows_.end() && !window->fresh) begin = std::min(begin, window->begin);
    return begin + captured_s;
}
