// Recordings with SigMF metadata as our programs write them. The same samples always make the same files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "recordings/sample_writer.h"
#include "recordings/sigmf.h"

// A pair NAME.sigmf-meta and NAME.sigmf-data. The metadata is written first and replaced whole with every take and
// annotation, and does not hold the length: after a crash the pair is readable up to what was flushed. One thread.
class SigmfWriter final : public SampleWriter {
  public:
    struct Format {
        int32_t rate;  // Hz
        bool iq;
        bool s16;               // else 32-bit floating-point samples
        std::string text = {};  // of the recording
    };

    // Opens both files; `path` is the name of either, or their base. `first` is what is known of the first sample.
    // close() reports once whether that and everything after it worked.
    SigmfWriter(const std::string& path, const Format& format, const Take& first);

    bool write(std::span<const float> samples) override;

    // What is known of the next sample: after a gap its time, after tuning its frequency. False as for write().
    bool begin_take(const std::optional<double>& utc, const std::optional<Tuning>& tuning);

    // Marks samples, which count from the first. Written with the next take or flush, also one after close().
    void annotate(const SigmfAnnotation& annotation);

    // Brings what was written so far to the disk's file system. False as for write().
    bool flush();

    void close() override;
    int64_t clipped() const override { return clipped_; }

    int64_t frames() const { return frames_; }               // written
    uint64_t bytes() const;                                  // that they take
    const std::string& problem() const { return problem_; }  // why nothing more is taken, or ""

  private:
    struct CloseFile {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    bool write_metadata();

    std::string base_;
    SigmfDescription description_;
    std::vector<Take> takes_;
    std::vector<SigmfAnnotation> annotations_;
    bool metadata_old_ = false;
    std::unique_ptr<std::FILE, CloseFile> data_;
    std::string problem_;
    int64_t frames_ = 0;
    int64_t clipped_ = 0;
    std::vector<int16_t> rounded_;
    std::vector<uint8_t> bytes_;
};

// An archive NAME.sigmf of as many frames as were said at the start.
class SigmfArchiveWriter final : public SampleWriter {
  public:
    SigmfArchiveWriter(const std::string& path, const SigmfWriter::Format& format, const Take& first, int64_t frames);

    bool write(std::span<const float> samples) override;
    void close() override;
    int64_t clipped() const override { return clipped_; }

  private:
    bool put(std::span<const char> bytes);

    struct CloseFile {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    std::string path_;
    bool s16_;
    std::unique_ptr<std::FILE, CloseFile> file_;
    std::string problem_;
    uint64_t data_bytes_ = 0;
    int64_t clipped_ = 0;
    std::vector<int16_t> rounded_;
    std::vector<uint8_t> bytes_;
};
