// When captured samples were on the air.
#pragma once

#include <vector>

// Follows the machine's clock and the count of captured seconds. Buffers arrive late by more or less, the one that came
// soonest is right. What was captured before input was lost, the clock was set or the machine slept keeps its time.
class SampleClock {
  public:
    // So many seconds of audio have arrived by now, UTC in seconds since 1970. Nothing to learn where there are none.
    void observe(double captured_s, double now);

    // UTC of the moment at which so many seconds had been captured; before the first observation that is not known, and
    // NaN.
    double utc(double captured_s) const;

  private:
    // A stretch of the audio, and the UTC at which capture would have begun for it to arrive as it did.
    struct Window {
        double from_s;
        double begin;
        bool anew;  // it has nothing to do with what was before
    };
    std::vector<Window> windows_;
};
