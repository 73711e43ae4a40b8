// The spots of a sliding block: each of them once, in the order in which the frames ended.
#pragma once

#include <functional>
#include <vector>

#include "ovpipe.h"

// A frame is found again in every look at the block as long as it is recent, each time with values a little different.
// Spots are held back until no look can bring an earlier one, and remembered until none can bring them again.
class SpotLog {
  public:
    // Takes what one look found; times are UTC.
    void add(const std::vector<ov_spot>& found);

    // Hands out the spots of frames that ended up to `utc`, and forgets those that ended long before.
    void release(double utc, const std::function<void(const ov_spot&)>& take);

  private:
    struct Entry {
        ov_spot spot;
        bool released;
    };
    std::vector<Entry> entries_;
};
