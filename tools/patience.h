// Waiting: for the user's Ctrl-C, for the clock, for calls that may never return.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

// Lets Ctrl-C (and termination, and the end of the terminal) raise a flag instead of ending the process; the second one
// ends it.
void watch_interrupts();
bool interrupted();

// Seconds of a clock that nobody sets.
double monotonic_now();

// Sleep: whatever the user does, or at most until an interrupt.
void sleep_seconds(double seconds);
void nap(double seconds);

// A call into the sound system on a thread of its own: one that never returns holds up nobody.
class Background {
  public:
    Background() = default;
    explicit Background(std::function<void()> call);

    bool done() const { return !done_ || *done_; }

    // Waits for the end of the call, whatever the user does. False when it did not come in time.
    bool wait(double seconds) const;

  private:
    std::shared_ptr<std::atomic<bool>> done_;
};
