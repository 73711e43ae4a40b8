// Calls that may never return.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

// A call into the sound system on its own thread: one that never returns blocks nothing else.
class Background {
  public:
    Background() = default;
    explicit Background(std::function<void()> call);

    bool done() const { return !done_ || *done_; }

    // Waits for the end of the call, whatever the user does. False when it did not come in time.
    bool wait(double seconds) const;

  private:
    std::shared_ptr<std::atomic<bool>> done_;
};
