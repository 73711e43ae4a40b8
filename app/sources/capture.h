// Capture from a sound device that may stall, disappear, or hang.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/background.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "sources/sound_stream.h"

// A call into the sound system does not return. There is no way out of it: the stream may never be touched again.
class DeviceHangs : public IoError {
  public:
    using IoError::IoError;
};

// A device that stalls, as some do for good while they claim to be active, is closed and reopened on a separate thread:
// either call may hang. The stream must outlive the capture.
class Capture {
  public:
    enum class State {
        RUNNING,
        STALLED,  // to be reopened; the stream still holds what was captured
        OPENING
    };

    // `name` is the receiver's.
    Capture(SoundStream& stream, std::string name) : stream_(stream), name_(std::move(name)) {}

    // Throws IoError.
    void open();

    // How capture is doing; what goes wrong is reported as a line on standard error. Throws DeviceHangs when the device
    // does not open within a minute.
    State watch();

    // Begins to reopen the device.
    void reopen();

    // Ends capture. Throws DeviceHangs when that takes too long.
    void close();

  private:
    SoundStream& stream_;
    std::string name_;
    double seen_s_ = 0;
    double progress_at_ = monotonic_now();
    double retry_at_ = 0;
    bool stalled_ = false;  // and reported
    std::string reason_;    // why the device did not open, told last
    std::optional<Background> reopening_;
    std::shared_ptr<std::string> problem_;  // of the reopening
};

// Reports lost input, now and then.
class LossReport {
  public:
    explicit LossReport(std::string name) : name_(std::move(name)) {}

    void see(int32_t losses, double now);

  private:
    std::string name_;
    int32_t reported_ = 0;
    double reported_at_ = 0;
};
