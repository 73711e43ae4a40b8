// Raw samples from standard input as a source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sources/source.h"

// Of what is not a number, or beyond any scale, silence remains. The input ends at its end, or when it cannot be read.
class StandardInput final : public Source {
  public:
    static constexpr int32_t USUAL_RATE = 48000;

    // The rate, else the usual one; the samples, and of several channels the mean.
    explicit StandardInput(const SourceOptions& options);

    // Throws IoError when the input is a sound file rather than samples.
    State read(Piece& piece) override;
    SourceFormat format() const override { return format_; }
    bool failed() const override { return failed_; }

  private:
    void require_raw() const;
    void convert(std::vector<float>& samples);

    std::string name_;
    SampleFormat sample_format_;
    std::size_t channels_;
    SourceFormat format_;
    std::vector<uint8_t> bytes_;
    std::size_t held_ = 0;
    bool begun_ = false;
    bool failed_ = false;
};
