// What is done when this process ends without having done it.
#pragma once

#include <functional>
#include <memory>

// A second process, which no signal to us reaches, that calls `last` when we end while it is armed. Make it before any
// thread. Windows has no such process: there nothing is called.
class Guard {
  public:
    // Throws IoError.
    explicit Guard(std::function<void()> last);
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    void arm(bool armed);

  private:
    struct Process;
    std::unique_ptr<Process> process_;
};
