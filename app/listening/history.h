// The newest samples of what is listened to.
#pragma once

#include <complex>
#include <cstdint>
#include <span>
#include <vector>

#include "liborvel.h"
#include "sources/devices.h"

class History {
  public:
    History() = default;
    History(const History&) = delete;
    History& operator=(const History&) = delete;
    virtual ~History() = default;

    virtual int32_t rate() const = 0;       // Hz
    virtual double captured_s() const = 0;  // with the newest sample

    // Copies the newest samples, or as many as there are, oldest first; q stays empty of audio.
    virtual void newest(std::size_t count, std::vector<double>& x, std::vector<double>& q) const = 0;
};

// Of audio, in the library's capture ring: at a rate that it chooses.
class AudioHistory : public History {
  public:
    // Throws IoError when it cannot be made for that rate.
    AudioHistory(int32_t rate, double keep_s);

    void push(std::span<const float> samples);
    ovl_audio_stats stats() const;

    int32_t rate() const override { return stats().rate; }
    double captured_s() const override { return stats().captured_s; }
    void newest(std::size_t count, std::vector<double>& x, std::vector<double>& q) const override;

  private:
    AudioObject audio_;
};

// Of I/Q, as it is.
class IqHistory : public History {
  public:
    IqHistory(int32_t rate, double keep_s);

    void push(std::span<const std::complex<float>> samples);

    int32_t rate() const override { return rate_; }
    double captured_s() const override { return static_cast<double>(pushed_) / rate_; }
    void newest(std::size_t count, std::vector<double>& x, std::vector<double>& q) const override;

  private:
    int32_t rate_;
    std::vector<std::complex<float>> ring_;
    int64_t pushed_ = 0;
};
