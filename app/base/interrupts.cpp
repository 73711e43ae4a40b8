#include "base/interrupts.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

constexpr double TICK_S = 0.02;

}  // namespace

double monotonic_now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void sleep_seconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void nap(double seconds) {
    const double end = monotonic_now() + seconds;
    double left = seconds;
    while (left > 0 && !interrupted()) {
        sleep_seconds(std::min(left, TICK_S));
        left = end - monotonic_now();
    }
}
