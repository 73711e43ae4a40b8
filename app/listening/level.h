// How loud samples are.
#pragma once

#include <cstdint>
#include <span>

class LevelMeter {
  public:
    void add(std::span<const float> samples);

    double rms_db() const;  // of full scale; -120 of silence
    double peak_db() const;
    int64_t clipped() const { return clipped_; }  // samples at full scale

  private:
    double squares_ = 0;
    float peak_ = 0;
    int64_t count_ = 0;
    int64_t clipped_ = 0;
};
