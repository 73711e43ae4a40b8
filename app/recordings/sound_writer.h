// Sound files as our programs write them: the same samples always make the same file, and errors come as one line.
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "recordings/sample_writer.h"

class SoundWriter final : public SampleWriter {
  public:
    enum class Container { WAV, FLAC };
    struct Format {
        Container container;
        int32_t rate, channels;
        bool s16;        // else floating-point samples, which only WAV files hold
        int64_t frames;  // that will be written: a WAV file of more than 4 GB is RF64
    };

    // Opens a file for samples of full scale 1. close() reports once whether that and everything after it worked.
    SoundWriter(const std::string& path, const Format& format);

    bool write(std::span<const float> samples) override;
    void close() override;
    int64_t clipped() const override { return clipped_; }

  private:
    struct CloseSound {
        void operator()(SNDFILE* file) const noexcept { sf_close(file); }
    };

    std::string path_;
    std::unique_ptr<SNDFILE, CloseSound> file_;
    bool s16_;
    std::string problem_;
    int64_t clipped_ = 0;
    std::vector<int16_t> rounded_;
};
