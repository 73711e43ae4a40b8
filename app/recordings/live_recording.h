// What a receiver hears, as a recording.
#pragma once

#include <memory>
#include <string>

#include "recordings/piped_recording.h"

// Opens a live source (sources/source.h) and waits for its first samples. The recording lasts as long as the options
// say, or until Ctrl-C; it knows its time, and its frequency where the source does. Silence stands for what was lost.
// Throws UsageError and IoError.
std::unique_ptr<PipedRecording> open_live(const std::string& text, const RecordingOptions& options);
