// A sound device as a source.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sources/capture.h"
#include "sources/devices.h"
#include "sources/source.h"

// The samples are mono, at the rate to which the library brings those of the device. One that stalls is reopened; one
// that hangs is given up, and what it holds is never freed.
class SoundDevice final : public Source {
  public:
    // `text` as find_device() takes it. Throws UsageError or IoError.
    SoundDevice(const std::string& text, const SourceOptions& options);
    ~SoundDevice() override;

    State read(Piece& piece) override;
    SourceFormat format() const override;
    void close() override;

  private:
    void take_new(const ovl_audio_stats& stats, Piece& piece);
    void give_up();

    AudioObject audio_;
    Capture capture_;
    OverflowReport overflows_;
    int64_t taken_ = 0;  // samples of the stream
    bool closed_ = false;
};
