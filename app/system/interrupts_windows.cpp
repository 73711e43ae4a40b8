// Ctrl-C and Ctrl-Break come on a thread of their own. So does the end of the console, whose processes have some
// seconds left: the first event of any kind asks us to end, the second one ends us.
#include "system/interrupts.h"

#include <windows.h>

#include <atomic>

namespace {

std::atomic<bool> interrupt_flag = false;
constexpr DWORD GRACE_MS = 10000;  // Windows ends us sooner

BOOL WINAPI note_interrupt(DWORD event) {
    const bool first = !interrupt_flag.exchange(true);
    if (!first) return FALSE;
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        Sleep(GRACE_MS);  // the process ends when this returns
    }
    return TRUE;
}

}  // namespace

void watch_interrupts() {
    SetConsoleCtrlHandler(note_interrupt, TRUE);
}

bool interrupted() {
    return interrupt_flag;
}

void ignore_broken_outputs() {}

struct SignalsElsewhere::Before {};
SignalsElsewhere::SignalsElsewhere() = default;
SignalsElsewhere::~SignalsElsewhere() = default;
