#include "base/background.h"

#include <thread>
#include <utility>

#include "base/interrupts.h"

namespace {

constexpr double POLL_S = 0.02;

}  // namespace

Background::Background(std::function<void()> call) : done_(std::make_shared<std::atomic<bool>>(false)) {
    std::thread([done = done_, call = std::move(call)] {
        call();
        *done = true;
    }).detach();
}

bool Background::wait(double seconds) const {
    const double end = monotonic_now() + seconds;
    while (!done() && monotonic_now() < end) sleep_seconds(POLL_S);
    return done();
}
