#include "base/interrupts.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

constexpr double TICK_S = 0.02;

volatile std::sig_atomic_t interrupt_flag = 0;

extern "C" void note_interrupt(int signal) {
    interrupt_flag = 1;
    std::signal(signal, SIG_DFL);
}

}  // namespace

// A signal ends a call that waits: output that nobody reads would otherwise block the end for good.
void watch_interrupts() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler == SIG_IGN) continue;  // as under nohup
        action = {};
        action.sa_handler = note_interrupt;
        action.sa_flags = 0;  // no SA_RESTART
        sigaction(signal, &action, nullptr);
    }
}

bool interrupted() {
    return interrupt_flag != 0;
}

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
