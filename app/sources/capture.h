// Capture from a sound device that may stall, disappear, or hang.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/background.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "liborvel.h"

// A call into the sound system does not return. There is no way out of it: the audio object may never be touched again.
class DeviceHangs : public IoError {
  public:
    using IoError::IoError;
};

// A device that stalls, as some do for good while they claim to be active, is closed and reopened on a separate thread:
// either call may hang. The audio object must outlive the capture.
class Capture {
  public:
    enum class State {
        RUNNING,
        RESTARTED,  // since the last call
        STALLED,    // to be reopened; the ring still holds what was captured
        OPENING
    };

    // device, rate and ring_s as ovl_audio_start_input() takes them; `name` is the receiver's.
    Capture(ovl_audio* audio, int32_t device, int32_t rate, double ring_s, std::string name);

    // Throws IoError.
    void open();

    // How capture is doing; what goes wrong is reported as a line on standard error. `stats` are filled in while it
    // runs. Throws DeviceHangs when the device does not open within a minute.
    State watch(ovl_audio_stats& stats);

    // Begins to reopen the device.
    void reopen();

    // Ends capture. Throws DeviceHangs when that takes too long.
    void close();

  private:
    ovl_audio* audio_;
    int32_t device_;
    int32_t rate_;
    double ring_s_;
    std::string name_;
    double seen_s_ = 0;
    double progress_at_ = monotonic_now();
    double retry_at_ = 0;
    bool stalled_ = false;  // and reported
    std::string reason_;    // why the device did not open
    std::optional<Background> reopening_;
    std::shared_ptr<std::atomic<bool>> opened_;
};

// Reports lost input, now and then.
class OverflowReport {
  public:
    explicit OverflowReport(std::string name) : name_(std::move(name)) {}

    void see(const ovl_audio_stats& stats, double now);

  private:
    std::string name_;
    int32_t reported_ = 0;
    double reported_at_ = 0;
};
