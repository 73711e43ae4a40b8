// Recordings that are bare samples: raw files, and the data of SigMF.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "recordings/recording.h"

// Samples one after another in a file.
struct SampleRun {
    int64_t frames;
    uint64_t offset;  // of the first, bytes from the start of the file
};

// What bare samples do not say themselves.
struct RawLayout {
    SampleFormat format;
    bool iq = false;
    int32_t channels = 1;  // numbers in a frame, with I and Q two
    uint32_t rate = 0;     // Hz
    std::vector<SampleRun> runs;
    std::vector<Take> takes;

    // Of so many bytes. The layout's rate may still be 0.
    RecordingSize size_of(uint64_t bytes) const;

    std::size_t frame_bytes() const { return format.bytes * static_cast<std::size_t>(channels); }
};

// A recording whose samples lie in the file `data`; messages name it by `path`. Throws IoError.
std::unique_ptr<Recording> open_samples(const std::string& path, const std::string& data,
                                        const RecordingOptions& options, RawLayout layout);

// What the name of a raw file says: .s16, .f32be and the like hold real samples, with a c before it (.cu8, .cs16,
// .cf32) or as .cfile I/Q. Nothing for other names.
struct RawKind {
    SampleFormat format;
    bool iq;
};
std::optional<RawKind> raw_kind_of(const std::string& path);

// The layout of bare samples but for where they lie, as the options say, or else the name. Throws IoError without a
// rate.
RawLayout raw_layout(const std::string& path, const RecordingOptions& options);

// Opens a file of bare samples as the options say, or else its name. Throws IoError.
std::unique_ptr<Recording> open_raw(const std::string& path, const RecordingOptions& options);

// Its size. Throws IoError.
RecordingSize raw_size(const std::string& path, const RecordingOptions& options);
