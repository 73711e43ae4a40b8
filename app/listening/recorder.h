// What a receiver hears, on disk: SigMF recordings of 16-bit samples, one after the other.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "base/tuning.h"
#include "recordings/sigmf_writer.h"
#include "sources/source.h"
#include "spots/spot.h"

struct RecorderOptions {
    std::string directory = {};
    std::string name = {};  // of the receiver, which begins the names of its files; "" for the only one
    double file_s = 3600;   // each
    double keep_s = 86400;  // what was recorded earlier is not on disk; at least file_s and the overlap
    std::optional<double> around_spots_s = {};  // only files with a spot, or so close to one, are kept
};

// Neighbouring files overlap by more than the longest frame, so that each frame lies whole in one. A crash loses the
// last second. A disk that is full, or a directory that is not there, is told once and tried again from time to time.
// Times are UTC.
class Recorder {
  public:
    static constexpr double OVERLAP_S = 45;  // more than the longest frame

    using Teller = std::function<void(const std::string&)>;
    Recorder(const RecorderOptions& options, Teller tell);
    ~Recorder();

    // The next samples, of which the first was on the air at `utc`. `broken`: they do not continue those before.
    void take(std::span<const float> samples, double utc, const SourceFormat& format,
              const std::optional<Tuning>& tuning, bool broken);

    // A frame was heard: its files are kept, and those that hold all of it get an annotation.
    void mark(const Spot& spot);

    // Ends the recording: no more spots will come either.
    void close();

  private:
    struct File;
    void open(double utc, const SourceFormat& format, const std::optional<Tuning>& tuning);
    void write(File& file, std::span<const float> samples, bool flush);
    void fail(File& file);
    void end(File& file);
    void clean_up(double utc);
    void expire(double utc);
    void complain(const std::string& text);
    std::string prefix() const;

    RecorderOptions options_;
    Teller tell_;
    std::list<File> files_;  // being written, and those of which it is not known yet whether they are kept
    double next_file_at_ = 0;
    double expire_at_ = 0;  // the next file has to go
    double flush_at_ = 0;
    double end_ = 0;        // of the samples so far
    bool failing_ = false;  // and told
};
