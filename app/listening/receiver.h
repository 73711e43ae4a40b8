// One receiver: a source, the clock of its samples, and what decodes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/tuning.h"
#include "decoding/search.h"
#include "listening/clock_check.h"
#include "listening/ear.h"
#include "listening/level.h"
#include "listening/listener.h"
#include "listening/recorder.h"
#include "listening/sample_clock.h"
#include "listening/spectrum.h"
#include "sources/source.h"
#include "spots/status.h"

struct ReceiverOptions {
    std::string name;  // "" for the only one
    Search search;     // whether of audio or I/Q, the source says
    ListenerOptions listener;
    SaidTuning tuning;
    std::optional<double> start;  // UTC of the first sample; else samples have just come
    double silent_s = 10;         // without samples: then those that came are decoded to the end
    double status_s = 0;          // between statuses; 0 = none
    double spectrum_s = 0;        // between rows of a spectrum, of samples; 0 = none
    std::optional<RecorderOptions> record;
};

// What a receiver has to say, on its own thread.
struct ReceiverTakers {
    std::function<void(const Found&, Standing, const std::optional<Tuning>&)> spot;
    std::function<void(const Status&)> status;
    std::function<void(const SpectrumRow&)> row;
};

// run() keeps one thread busy; the other functions may be called from any.
class Receiver {
  public:
    // Throws IoError when what the source brings cannot be decoded.
    Receiver(const ReceiverOptions& options, std::unique_ptr<Source> source, ReceiverTakers takers);

    // Listens until the source ends, or the user or halt() ends it. What goes wrong is told on standard error.
    void run();

    // Ends it without decoding what is left.
    void halt() { halted_ = true; }

    // Something could not be used to the end.
    bool failed() const { return failed_; }

    // The last samples: their level, and when they were on the air.
    struct Level {
        double rms_db = -120, peak_db = -120;
        double utc = 0;  // 0 before the first
    };
    Level level() const;

    int64_t spots() const { return spots_; }
    const std::optional<Tuning>& tuning() const { return tuning_; }  // before run()
    const std::string& name() const { return options_.name; }

  private:
    void attempt(const std::function<void()>& step);
    void listen();
    void take(const Piece& piece);
    void wait();
    void fill(double seconds);
    void begin();
    Spot spot_on_air(const Found& found) const;
    void end();
    void measure(const Piece& piece);
    void give_row(double captured_s);
    void record(const Piece& piece);
    void tell_status_in_time();
    void tell_status();
    double utc(double captured_s) const;

    ReceiverOptions options_;
    std::unique_ptr<Source> source_;
    ReceiverTakers takers_;
    SourceFormat format_;
    std::optional<Tuning> tuning_;
    std::unique_ptr<Ear> ear_;  // none between a break and what follows
    double taken_at_ = 0;       // the last samples, on the monotonic clock
    SampleClock clock_;
    ClockCheck check_;
    std::optional<Recorder> recorder_;
    bool fresh_ = true;      // nothing was recorded since the ear began
    double captured_s_ = 0;  // before this ear
    double lost_s_ = 0;
    double unheard_s_ = 0;  // of it, before this ear, what no silence was put for
    double decode_s_ = 0;   // before this ear
    LevelMeter meter_;      // since the last status
    std::optional<Spectrum> spectrum_;
    MeanSpectrum row_;    // since the last one
    MeanSpectrum noise_;  // since the last status
    double row_at_s_ = 0;
    double status_at_ = 0;
    double told_decode_s_ = 0;
    bool decode_failed_ = false;  // the last one
    mutable std::mutex level_lock_;
    Level level_;
    std::atomic<int64_t> spots_ = 0;
    std::atomic<bool> halted_ = false;
    std::atomic<bool> failed_ = false;
};
