// When captured samples were on the air.
#pragma once

#include <deque>

// Follows the machine's clock and the count of captured seconds. Buffers arrive more or less late; the earliest one is
// right. What was captured before input was lost, the clock was stepped or the machine was suspended keeps its time;
// what follows has its own from 0.3 s behind that on.
class SampleClock {
  public:
    // captured_s seconds of audio have arrived by `now`, UTC in seconds since 1970. Ignored unless they are more than
    // at the call before.
    void observe(double captured_s, double now);

    // UTC of the moment at which captured_s seconds had been captured; NaN before the first observation. Of the
    // newest five seconds it does not know yet whether they are late or behind a loss; it takes them for late.
    double utc(double captured_s) const;

  private:
    // Some arrivals: UTC at which capture would have begun for the soonest of them.
    struct Arrivals {
        double from_s;
        double begin;
        bool fresh;  // they do not continue those before
    };
    std::deque<Arrivals> arrivals_;
    double captured_s_ = 0;
};
