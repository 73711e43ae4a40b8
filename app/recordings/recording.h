// Recordings: opened once, read stretch by stretch.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/sample_format.h"
#include "base/tuning.h"

// A stretch of a recording: audio, or I/Q when q is not empty. All samples are finite.
struct Stretch {
    double begin_s = 0;  // from the start of the file
    std::vector<double> x, q;
};

// Of a block to read at once: it may be a quarter longer, and the decoder counts samples in 32 bits.
inline constexpr double MOST_BLOCK_SAMPLES = 1.5e9;

// What the headers of a recording say.
struct RecordingSize {
    uint64_t bytes = 0;  // of its samples, or of all of its file
    uint32_t rate = 0;   // Hz; 0 where headers do not tell how long it is
    double seconds = 0;
    bool iq = false;
};

// How a file is to be read.
struct RecordingOptions {
    bool iq = false;
    int32_t channel = 0;  // audio: the one channel to take; I/Q: the channel of I, with Q after it. 0 = the mean of
                          // all channels; with I/Q the first two of two
    std::optional<SampleFormat> raw = {};   // the file is bare samples, whatever its name says
    std::optional<uint32_t> raw_rate = {};  // of bare samples, Hz
    std::optional<double> start_utc = {};   // of the first sample
    std::optional<double> most_s = {};      // to take of what comes live or through a pipe
    SaidTuning tuning = {};                 // of the receiver
};

inline constexpr double MOST_RAW_RATE = 100e6;  // Hz, of samples that do not say themselves

// Throws IoError when a file of so many channels does not have those that the options ask for.
void require_channels(const std::string& path, const RecordingOptions& options, int32_t channels);

// What is known of the samples from one on, up to the next such.
struct Take {
    double begin_s = 0;         // from the start of the file
    std::optional<double> utc;  // of its first sample
    std::optional<Tuning> tuning;

    // The UTC from which times in the file count.
    std::optional<double> utc_zero() const { return utc ? std::optional(*utc - begin_s) : std::nullopt; }
};

// The take at a time, s from the start of the file; `takes` as Recording has them.
const Take& take_at(std::span<const Take> takes, double at_s);

// An open recording. A sample rate that the decoder cannot work with is converted.
class Recording {
  public:
    virtual ~Recording() = default;

    const std::string& path() const { return path_; }
    bool iq() const { return options_.iq; }
    int32_t rate() const { return rate_; }  // of the samples handed out, Hz; 0 when the file's cannot be used
    uint32_t file_rate() const { return file_rate_; }
    double seconds() const { return static_cast<double>(frames_) / file_rate_; }

    // Of the take at a time, s from the start of the file: the UTC from which such times count there, and how the
    // receiver was tuned, where that is known.
    std::optional<double> utc_zero(double at_s) const;
    std::optional<Tuning> tuning(double at_s) const;

    // In order of time, at least one; the first counts from the start of the file.
    const std::vector<Take>& takes() const { return takes_; }

    // Reads from begin_s on, at most length_s; less, with a line on standard error, where the file ends before its
    // header says. Throws IoError and std::bad_alloc. Any thread.
    //
    //   used   a stretch that is no longer needed: its memory is used again
    Stretch read(double begin_s, double length_s, Stretch used = {});

  protected:
    // `takes` in order of time; the first counts from the start of the file. What the options say goes before it.
    Recording(std::string path, const RecordingOptions& options, uint32_t file_rate, int64_t frames,
              std::vector<Take> takes = {});

    // Appends frames [first, first + count) to x and q; fewer when the file ends before. One thread at a time.
    virtual void read_frames(int64_t first, int64_t count, Stretch& out) = 0;

    // Of a recording whose length and time are not known from the start.
    void set_frames(int64_t frames) { frames_ = frames; }
    void set_take(const Take& take);

    // Appends whole frames of so many channels as the options ask.
    void append(std::span<const double> samples, std::size_t channels, Stretch& out);

    // For samples that did not come through append().
    void silence_wrong_samples(std::span<double> samples);

    std::string path_;
    RecordingOptions options_;

  private:
    bool convert(std::vector<double>& samples) const;

    uint32_t file_rate_;
    int64_t frames_;
    int32_t rate_;
    std::vector<Take> takes_;
    std::mutex lock_;  // of the file
    std::atomic<bool> told_wrong_samples_ = false;
    std::atomic<bool> told_short_ = false;
};
