// The frames in a recording of any length:
//     recording → blocks → samples → frames of a block → each frame once, in order of time
#pragma once

#include <cmath>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "decoding/search.h"
#include "recordings/piped_recording.h"
#include "recordings/recording.h"
#include "spots/found.h"
#include "spots/spot.h"
#include "spots/spot_log.h"

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

// A find in a recording, whose takes say when it was on the air and where.
Spot recorded_spot(const Found& found, const std::string& path, std::span<const Take> takes, bool coherent);

// Decodes a recording between two times, block by block. When a block cannot be decoded the others still are, and
// IoError is thrown at the end.
void decode_recording(Recording& recording, const DecodingOptions& options, double from_s, double to_s,
                      const SpotTaker& taker);

// The same of all that comes through a pipe, as it comes, with the same blocks and spots. Two blocks are held at most.
void decode_piped(PipedRecording& recording, const DecodingOptions& options, const SpotTaker& taker);

// ---- In parts, on several machines ----------------------------------------------------------------------------------

// The outcome of a block: its frames, a reason why there are none, or neither, past the end of the file.
struct DecodedBlock {
    std::optional<std::vector<Found>> spots;  // t counts from the start of the file
    std::string problem;
    double until_s = HUGE_VAL;  // no later block changes what starts before
};

// Seconds that one core works for all of a recording, more or less.
double expected_work_s(const RecordingSize& size, const DecodingOptions& options);

// How many blocks decode_recording() cuts all of a recording into, or steps where its band is split into slices. Throws
// IoError when it holds nothing of the search.
std::size_t count_blocks(const Recording& recording, const DecodingOptions& options);

// Decodes some of these blocks, [first, end), and hands them out in order; use() returns false to end it early. Reads
// these only, and what they overlap.
void decode_blocks(Recording& recording, const DecodingOptions& options, std::size_t first, std::size_t end,
                   const std::function<bool(DecodedBlock block, std::size_t k)>& use);

// Frames of all blocks, one after the other → each frame once, in order of time.
class BlockMerger {
  public:
    explicit BlockMerger(const SpotTaker& taker) : taker_(taker) {}

    // Takes the outcome of the next block and hands out the frames that no later one changes. False when the taker
    // wants no more.
    bool add(DecodedBlock block);

    std::size_t taken() const { return taken_; }
    const std::string& problem() const { return problem_; }  // the first, or ""

  private:
    const SpotTaker& taker_;
    SpotLog log_{SpotLog::Order::START};
    std::string problem_;
    std::size_t taken_ = 0;
    bool begun_ = false;
};
