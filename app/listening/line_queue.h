// Lines on their way from several threads to one output.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

// An output that is slower than its lines, or stands still, delays nobody: lines for which there is no room are
// dropped.
class LineQueue {
  public:
    explicit LineQueue(std::size_t room) : room_(room) {}

    bool push(std::string line);                     // false when it was dropped
    std::optional<std::string> pop(double seconds);  // nothing when none comes in time

  private:
    std::size_t room_;
    std::mutex lock_;
    std::condition_variable came_;
    std::deque<std::string> lines_;
};
