// Confirmation of frames by overlapping decodes: when a frame is decided on, and whether it is to be believed.
#pragma once

#include <cstdint>
#include <vector>

// Each decode takes a block of the newest audio, `every_s` after the one before. Of a strong frame that has begun but
// not ended it holds only a part, which hides a weaker frame just before it, or passes for a frame of another station.
// So a frame is decided on only after its hold-off, `hold_off_s` after its end, from all decodes until then. All times
// are in captured seconds.
class Confirmation {
  public:
    Confirmation(double every_s, double hold_off_s) : every_s_(every_s), hold_off_s_(hold_off_s) {}

    // How much of the newest audio a decode takes.
    double block_s() const;

    // Where the block of the next decode begins when there is audio from `earliest_s` on: at most 8 ms later. The
    // decoder searches a grid of positions that starts at the beginning of the block, and each phase of the grid finds
    // different ones among the weakest frames. The decodes take four phases in turn; the first is that of a decode of
    // everything captured.
    double next_begin_s(double earliest_s);

    // Records a decode of the audio up to captured_s. Returns the earliest end of a frame that it counts for.
    double add(double captured_s);

    // The latest end of a frame that can be decided on, once captured_s have been captured.
    double decided_s(double captured_s) const { return captured_s - hold_off_s_ - every_s_; }

    // Whether to believe a frame that `finds` decodes have found: one is too few where more could have found it.
    bool confirm(double end_s, int32_t finds) const;

    void clear();

  private:
    double every_s_;
    double hold_off_s_;
    std::vector<double> decodes_;  // those that may still confirm something
    int32_t phase_ = 0;
};
