// A receiver that SoapySDR knows as a source: I/Q from any of its drivers. The library is loaded when the first such
// receiver is asked for.
#pragma once

#include <complex>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/background.h"
#include "sources/source.h"
#include "sources/tuner.h"

// One that is not there, or fails, is opened again after growing waits.
class SoapyReceiver final : public Source {
  public:
    // "driver=NAME[,KEY=VALUE...][?SETTINGS]", these as parse_tuner() has them. Throws UsageError, and IoError when
    // SoapySDR is not installed.
    SoapyReceiver(const std::string& text, const SourceOptions& options);
    ~SoapyReceiver() override;

    State read(Piece& piece) override;
    SourceFormat format() const override;
    void close() override;

  private:
    struct Api;
    class Stream;
    struct Opening;
    State wait_for_stream();
    State read_stream(Piece& piece);
    void give_up_stream(const std::string& reason);

    const Api& api_;
    std::string arguments_;
    TunerSettings tuner_;
    std::string name_;
    int32_t rate_;  // that the driver has chosen
    std::shared_ptr<Opening> opening_;
    Background opens_;
    std::shared_ptr<Stream> stream_;
    std::string complaint_;  // told last
    double wait_s_ = 1;      // before the next attempt
    double retry_at_ = 0;
    double came_at_ = 0;  // the last samples; 0 before the first
    bool fresh_ = true;   // no samples since the stream was opened
    std::optional<int64_t> expected_ns_;
    std::vector<std::complex<float>> block_;
};
