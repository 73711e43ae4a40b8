// The beacons in a recording: what several subcommands do with the options of a search.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ovcenc.h"
#include "ovpipe.h"
#include "recording.h"
#include "search.h"

inline constexpr double DEFAULT_SCAN_Z = 6;  // noise alone seldom reaches it

// The options, as typed.
struct DecodingOptions {
    RecordingOptions recording;
    SearchOptions search;
    bool wide = false;
    std::optional<std::string> band;
    double scan_z = DEFAULT_SCAN_Z;
    std::optional<double> block_s;
    unsigned jobs = 0;
    bool verbose = false;
};

// `known` must outlive the result. Throws CLI::ValidationError.
ov_params decode_params(const DecodingOptions& options, const std::vector<ovc_known>& known);

// How many candidates of each protocol to examine in a block of so many seconds. A strong frame comes with a dozen
// others at its sides; the library's 30, for a minute, are used up by three such frames.
int32_t candidates_to_examine(double seconds);

// All that the sample rate of a recording holds.
Band whole_band(const DecodingOptions& options, const Recording& recording);

// Who takes what a decode finds.
struct SpotTaker {
    std::function<void()> begin;               // before the first spot, once anything could be decoded
    std::function<void(const ov_spot&)> take;  // each spot once, in order of time; t counts from the start of the file
    std::function<void(double done_s, std::size_t spots)> progress;  // after each block
    std::function<bool()> go_on;                                     // after some spots; false ends the decode early
};

// Decodes what lies between two times of a recording, block by block. False, with a line on standard error, when some
// of it could not be decoded.
bool decode_recording(Recording& recording, const std::string& path, const DecodingOptions& options, ov_params params,
                      double from_s, double to_s, const SpotTaker& taker);
