#include <pthread.h>

#include <csignal>

#include "system/interrupts.h"

namespace {

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

void ignore_broken_outputs() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

struct SignalsElsewhere::Before {
    sigset_t signals{};
};

SignalsElsewhere::SignalsElsewhere() : before_(std::make_unique<Before>()) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_->signals);
}

SignalsElsewhere::~SignalsElsewhere() {
    pthread_sigmask(SIG_SETMASK, &before_->signals, nullptr);
}
