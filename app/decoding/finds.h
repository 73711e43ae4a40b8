// What the bands of one block hold, each frame once.
#pragma once

#include <span>
#include <vector>

#include "spots/found.h"

// Several bands may hold a frame: of two finds of one the plainer stays, then the better fit.
class Finds {
  public:
    void add(std::span<const Found> found);

    // Adds what shows when the frames so far are taken out, without what is left of them.
    void add_rest(std::vector<Found> found);

    // By start. None are left here.
    std::vector<Found> in_order_of_time();

  private:
    std::vector<Found> all_;
};

// Whether two finds are of one transmission.
bool is_same_frame(const Found& a, const Found& b);

// Whether what was found beside a frame is what the frame leaks to there, read as another protocol.
bool is_phantom(const Found& beside, const Found& frame);
