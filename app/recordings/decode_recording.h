// The frames in a recording of any length:
//     recording → blocks → samples → frames of a block → each frame once, in order of time
#pragma once

#include <functional>
#include <optional>

#include "decoding/search.h"
#include "recordings/piped_recording.h"
#include "recordings/recording.h"
#include "spots/found.h"

struct DecodingOptions {
    Search search;
    std::optional<double> block_s;  // length of a block [by the sample rate]
    unsigned jobs = 0;              // blocks decoded at once, 0 = as many as cores and memory allow
};

// The receiver of what a decode finds. All calls come from the thread that decodes the recording.
struct SpotTaker {
    std::function<void()> begin;             // before the first spot, once anything could be decoded
    std::function<void(const Found&)> take;  // each spot once, in order of time; t counts from the start of the file
    std::function<void(double done_s, std::size_t spots)> progress;  // after each block
    std::function<bool()> go_on;                                     // after some spots; false ends the decode early
};

// Decodes a recording between two times, block by block. When a block cannot be decoded the others still are, and
// IoError is thrown at the end.
void decode_recording(Recording& recording, const DecodingOptions& options, double from_s, double to_s,
                      const SpotTaker& taker);

// The same of all that comes through a pipe, as it comes, with the same blocks and spots. Two blocks are held at most.
void decode_piped(PipedRecording& recording, const DecodingOptions& options, const SpotTaker& taker);
