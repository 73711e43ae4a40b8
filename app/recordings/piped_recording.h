// Recordings that come through a pipe: read once, from the first sample to the last.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "recordings/recording.h"
#include "recordings/spool.h"

// seconds() are those that came so far. Only read() may be called from any thread.
class PipedRecording : public Recording {
  public:
    // Waits for more. False at the end. Throws IoError.
    bool read_on();

    bool ended() const { return ended_; }

    // Gives up what lies before a time, s from the first sample: reading there is no longer allowed.
    void forget(double before_s);

    // Waits for all of it and keeps it on disk: from then on it is a recording like any other. Throws IoError.
    void keep_all();

  protected:
    // The samples that are kept have this format, in frames of so many channels.
    PipedRecording(const std::string& path, const RecordingOptions& options, uint32_t rate, const SampleFormat& format,
                   int32_t channels);

    // Appends bytes to `bytes`, not always whole frames, when they have come. False at the end. Throws IoError.
    virtual bool receive(std::vector<uint8_t>& bytes) = 0;

  private:
    void read_frames(int64_t first, int64_t count, Stretch& out) override;
    void end_in_time();
    std::span<const uint8_t> bytes_at(int64_t first, std::size_t count, std::vector<uint8_t>& room) const;

    SampleFormat format_;
    std::size_t channels_;
    std::size_t frame_bytes_;
    std::vector<uint8_t> bytes_;  // kept
    int64_t first_ = 0;           // frame that they begin with
    bool ended_ = false;
    std::optional<Spool> spool_;  // of all before them
};

// Whether a path stands for what can be read only once: "-", standard input, or a named pipe.
bool is_pipe(const std::string& path);

// Opens it: bare samples where the options or the name say so, else whatever libsndfile reads without going back. Waits
// for the writer of a named pipe. Throws IoError.
std::unique_ptr<PipedRecording> open_pipe(const std::string& path, const RecordingOptions& options);
