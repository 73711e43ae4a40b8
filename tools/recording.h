// Recordings as the subcommands take them from the command line: opened once, read piece by piece.
#pragma once

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// A stretch of a recording: audio, or I/Q when q is not empty. All samples are finite.
struct Stretch {
    double begin_s = 0;  // from the start of the file
    std::vector<double> x, q;
};

// How a file is to be read.
struct RecordingOptions {
    bool iq = false;
    int32_t channel = 0;  // audio: the one channel to take; I/Q: the channel of I, with Q behind it. 0 = the mean of
                          // all channels; with I/Q the first two of two
};

void add_recording_options(CLI::App& sub, RecordingOptions& options);

// Whether the library can decode audio of a sample rate.
bool rate_served(uint32_t rate);

// An open recording. The library's own readers take what they can of small WAV files, libsndfile all the rest; a sample
// rate that the library cannot work with is converted.
class Recording {
  public:
    virtual ~Recording() = default;

    // Of the samples handed out, Hz; 0 when the file's cannot be used.
    int32_t rate() const { return rate_; }
    uint32_t file_rate() const { return file_rate_; }
    double seconds() const { return static_cast<double>(frames_) / file_rate_; }

    // Reads from begin_s on, at most length_s. Nothing, with a line on standard error, when that fails. Any thread.
    std::optional<Stretch> read(double begin_s, double length_s);

  protected:
    Recording(std::string path, const RecordingOptions& options, uint32_t file_rate, int64_t frames);

    // Appends frames [first, first + count) to x and q; fewer when the file ends before. One thread at a time.
    virtual void read_frames(int64_t first, int64_t count, Stretch& out) = 0;

    std::string path_;
    RecordingOptions options_;

  private:
    void silence_wrong_samples(Stretch& stretch);
    bool convert(std::vector<double>& samples) const;

    uint32_t file_rate_;
    int64_t frames_;
    int32_t rate_;
    std::mutex lock_;  // of the file
    std::atomic<bool> told_wrong_samples_ = false;
    std::atomic<bool> told_short_ = false;
};

// Opens a recording. An empty owner, with one line on standard error that names the file and the reason, when it cannot
// be used. What a reader merely warns of comes as a line of its own.
std::unique_ptr<Recording> open_recording(const std::string& path, const RecordingOptions& options);
