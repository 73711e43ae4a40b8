// The spots of blocks that overlap: each of them once, in order of time.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "spots/found.h"

// A frame is found again in every block that holds it, each time with values a little different. Spots are held back
// until no block can bring an earlier one, and remembered until none can bring them again.
class SpotLog {
  public:
    enum class Order { START, END };  // of the frames
    explicit SpotLog(Order order) : order_(order) {}

    // Takes what was found in one block. Of a frame found before, the better find stays, unless by its time it
    // should already have been handed out.
    void add(const std::vector<Found>& found);

    // Shows the spots that are held back and have not been shown yet.
    void show_new(const std::function<void(const Found&)>& take);

    // Hands out the spots of frames that started (or ended) up to `time`, each with the number of blocks that it was
    // found in, whatever the caller makes of them, and forgets much older ones.
    void release(double time, const std::function<void(const Found&, int32_t finds)>& take);

  private:
    struct Entry {
        Found spot;
        bool shown, released;
        int32_t finds;
        int64_t block;  // the last that it was found in
    };
    double time_of(const ov_spot& spot) const;

    Order order_;
    std::vector<Entry> entries_;
    int64_t blocks_ = 0;
    double released_ = -HUGE_VAL;  // what started (or ended) until then
};
