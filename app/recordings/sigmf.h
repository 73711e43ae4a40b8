// Recordings with SigMF metadata: NAME.sigmf-meta (JSON) beside NAME.sigmf-data (samples), or both in NAME.sigmf, a tar
// archive.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sample_format.h"
#include "recordings/recording.h"
#include "spots/spot.h"

// Whether a file's name is that of such a recording: of its metadata, its data or its archive.
bool is_sigmf(const std::string& path);

// The base of such a name: what comes before .sigmf-meta, .sigmf-data or .sigmf.
std::string sigmf_base(const std::string& path);

// Opens a recording. Its captures become takes: their times, and their frequencies as tuning. What a capture does not
// say goes on from the one before. Throws IoError; for what can be passed over there is a line on standard error.
std::unique_ptr<Recording> open_sigmf(const std::string& path, const RecordingOptions& options);

// The metadata of a recording, as it stands in its file. Throws IoError.
std::string sigmf_metadata(const std::string& path);

// The size of its data. Throws IoError.
RecordingSize sigmf_size(const std::string& path, const RecordingOptions& options);

// ---- Metadata -------------------------------------------------------------------------------------------------------

// Numbers of samples and bytes are at most 2^53, which JSON's numbers hold exactly.
struct SigmfCapture {
    uint64_t sample_start = 0;  // counts from that of the whole recording, of which a file may be a part
    uint64_t header_bytes = 0;  // before the capture's first sample
    std::optional<double> utc, frequency_hz;
    std::optional<Sideband> sideband;
};

struct SigmfMetadata {
    SampleFormat format;
    bool iq = false;
    int32_t channels = 1;                  // I/Q counts as one
    std::optional<double> rate;            // Hz, above 0
    uint64_t offset = 0;                   // sample_start of the file's first sample
    uint64_t trailing_bytes = 0;           // after the last sample
    std::string dataset;                   // the data's file, when its name is another
    bool metadata_only = false;            // there is no data
    std::vector<SigmfCapture> captures;    // in order
    std::vector<std::string> passed_over;  // what could not be understood, as lines for the user
};

// Reads metadata, whoever wrote it. Throws IoError, whose text is the reason alone.
SigmfMetadata parse_sigmf(std::string_view json);

// ---- Writing --------------------------------------------------------------------------------------------------------

// What is marked in a recording.
struct SigmfAnnotation {
    uint64_t sample_start, sample_count;
    double low_hz, high_hz;
    std::string label, comment;
};

// A decoded frame as an annotation; where it hangs over the start of the recording its part from there on.
//
//   offset   sample_start of the recording's first sample
SigmfAnnotation annotation_of(const Spot& spot, double rate, uint64_t offset);

// The name of a data type: "ci16_le".
std::string sigmf_datatype(const SampleFormat& format, bool iq);

// Metadata of a recording from its first sample on. Takes in order of time; their begin_s is rounded to whole samples.
struct SigmfDescription {
    SampleFormat format;
    bool iq = false;
    int32_t rate = 0;  // Hz
    std::string text;  // of the recording, "" for none
};
std::string sigmf_text(const SigmfDescription& description, const std::vector<Take>& takes,
                       const std::vector<SigmfAnnotation>& annotations);

// Metadata with annotations added, all in order; the rest stays as it is. Throws IoError, whose text is the reason
// alone.
std::string sigmf_annotated(std::string_view json, const std::vector<SigmfAnnotation>& annotations);

// Writes a file whole or not at all: whoever reads it meanwhile, or after a crash, finds the old or the new. Throws
// IoError.
void replace_file(const std::string& path, std::string_view text);
