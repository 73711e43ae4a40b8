// A sound device as a source.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sources/capture.h"
#include "sources/sound_stream.h"
#include "sources/source.h"

// Mono, or with I/Q two channels. A device that stalls is reopened; one that hangs is given up, and what it holds is
// never freed.
class SoundDevice final : public Source {
  public:
    // `text` as find_device() takes it. Throws UsageError or IoError.
    SoundDevice(const std::string& text, const SourceOptions& options);
    ~SoundDevice() override;

    State read(Piece& piece) override;
    SourceFormat format() const override;
    void close() override;

  private:
    void give_up();

    bool iq_;
    std::unique_ptr<SoundStream> stream_;
    Capture capture_;
    LossReport losses_;
    bool closed_ = false;
};
