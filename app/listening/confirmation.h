// When a frame that overlapping decodes find again and again is reported, and whether it is to be believed.
#pragma once

#include <cstdint>
#include <vector>

// Each decode takes a block of the newest audio, `every_s` after the one before. Of a strong frame that has begun but
// not ended it sees only a part, which hides a weaker frame just before it, or passes for a frame of somebody else. So
// a frame is decided on only `hold_off_s` after its end, from all decodes until then. All times are in captured
// seconds.
class Confirmation {
  public:
    Confirmation(double every_s, double hold_off_s) : every_s_(every_s), hold_off_s_(hold_off_s) {}

    // How much of the newest audio a decode takes.
    double block_s() const;

    // Where the block of the next decode begins when there is audio from `earliest_s` on: at most 8 ms later. The
    // decoder looks for frames on a grid of positions that counts from the beginning of the block, and of those that
    // are hard to find each phase of the grid finds others. The decodes take four phases in turn; the first is the one
    // that a decode of all that was captured has.
    double next_begin_s(double earliest_s);

    // Notes a decode of what was captured until then. Returns the earliest end of a frame that it counts for.
    double add(double captured_s);

    // The latest end of a frame that can be decided on, once so much is captured.
    double decided_s(double captured_s) const { return captured_s - hold_off_s_ - every_s_; }

    // Whether to believe a frame that so many decodes have found: one is too few where more could have.
    bool confirm(double end_s, int32_t finds) const;

    void clear();

  private:
    double every_s_;
    double hold_off_s_;
    std::vector<double> decodes_;  // those that may still confirm something
    int32_t phase_ = 0;
};
