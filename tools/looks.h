// What is made of a frame that is found again in one look at the newest audio after the other.
#pragma once

#include <cstdint>
#include <vector>

// Each look decodes a block of the newest audio, `every_s` after the one before. Of a strong frame that has begun but
// not ended a look sees only a part, which hides a weaker frame just before it, or passes for a frame of somebody else.
// So a frame is decided on when it has settled, `settle_s` after its end, from all looks until then. All times are in
// captured seconds.
class Looks {
  public:
    Looks(double every_s, double settle_s) : every_s_(every_s), settle_s_(settle_s) {}

    // How much of the newest audio a look decodes.
    double block_s() const;

    // Where the block of the next look begins when there is audio from `earliest_s` on: at most 8 ms later. The decoder
    // looks for frames on a grid of positions that counts from the beginning of the block, and of those that are hard
    // to find each phase of the grid finds others. The looks take four phases in turns; the first is the one in which
    // a decode of all that was captured looks.
    double next_begin_s(double earliest_s);

    // A look has decoded what was captured until then. Returns the earliest end of a frame that it counts for.
    double add(double captured_s);

    // The latest end of a frame that has settled, once so much is captured.
    double settled_s(double captured_s) const { return captured_s - settle_s_ - every_s_; }

    // Whether a frame is to be believed that so many looks have found: one is too few where more could have.
    bool confirm(double end_s, int32_t finds) const;

    void clear();

  private:
    double every_s_;
    double settle_s_;
    std::vector<double> looks_;  // those that may still confirm something
    int32_t phase_ = 0;
};
