// When captured samples were on the air.
#pragma once

#include <vector>

// Follows the machine's clock and the count of captured seconds. Buffers arrive more or less late; the earliest one is
// right. What was captured before input was lost, the clock was stepped or the machine was suspended keeps its time.
class SampleClock {
  public:
    // captured_s seconds of audio have arrived by `now`, UTC in seconds since 1970. 0 seconds are ignored.
    void observe(double captured_s, double now);

    // UTC of the moment at which captured_s seconds had been captured; NaN before the first observation.
    double utc(double captured_s) const;

  private:
    // A stretch of the audio, and the UTC at which capture would have begun for it to arrive as it did.
    struct Window {
        double from_s;
        double begin;
        bool fresh;  // it does not continue the stretch before
    };
    std::vector<Window> windows_;
};
