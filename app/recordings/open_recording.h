// Opening recordings of any kind.
#pragma once

#include <memory>
#include <string>

#include "recordings/recording.h"

// Opens a recording: bare samples where the options or the name say so, SigMF by its names; of the others the library's
// own readers take what they can of small WAV files, libsndfile all the rest. What comes only once, through a pipe or
// from a live source, is first kept on disk, up to its end. Throws IoError, whose text names the file and the reason,
// when it cannot be used. A reader's warnings become lines on standard error.
std::unique_ptr<Recording> open_recording(const std::string& path, const RecordingOptions& options);

// The size of a recording that is a file, or behind a URL. Throws IoError when it cannot be read, Unreachable when that
// may be another time.
RecordingSize size_of_recording(const std::string& path, const RecordingOptions& options);
