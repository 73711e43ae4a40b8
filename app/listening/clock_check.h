// The clock of a stream of samples against that of the machine.
#pragma once

#include <optional>

// Counts the samples that arrive. Buffers are late at worst, so each stretch of some seconds goes by the one that came
// soonest; a step later from one stretch to the next is a loss.
class ClockCheck {
  public:
    // captured_s seconds of samples have arrived by now, seconds of any clock. Returns the seconds that turn out to
    // have been lost since the call before, mostly none.
    double observe(double captured_s, double now);

    // How much faster than their rate says samples come, in millionths; nothing before it is known to some 20.
    std::optional<double> error_ppm() const;

  private:
    double end_stretch(double begin, double now);

    std::optional<double> soonest_;  // of this stretch: the begin of capture that it tells
    double stretch_from_ = 0;
    std::optional<double> before_;  // of the stretch before
    double first_ = 0, first_at_ = 0;
    double last_at_ = 0;
};
