// The spots of blocks that overlap: each of them once, in order of time.
#pragma once

#include <functional>
#include <vector>

#include "ovpipe.h"

// A frame is found again in every block that holds it, each time with values a little different. Spots are held back
// until no block can bring an earlier one, and remembered until none can bring them again.
class SpotLog {
  public:
    enum class Order { START, END };  // of the frames
    explicit SpotLog(Order order) : order_(order) {}

    // Takes what was found in one block. Of a frame found before, what saw more of it stays.
    void add(const std::vector<ov_spot>& found);

    // Hands out the spots of frames that started (or ended) up to `time`, and forgets those from long before.
    void release(double time, const std::function<void(const ov_spot&)>& take);

  private:
    struct Entry {
        ov_spot spot;
        bool released;
    };
    double time_of(const ov_spot& spot) const;

    Order order_;
    std::vector<Entry> entries_;
};
