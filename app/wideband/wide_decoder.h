// All frames of a wide band, as its samples come:
//     samples → slices → the newest of each kept → every 26 s, slice by slice: what is keyed → a decode
//     around each → frames of all slices, each once, in order of time
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "decoding/search.h"
#include "spots/found.h"

inline constexpr int32_t MOST_WIDE_RATE = 3200000;  // of the input, Hz

struct WideOptions {
    unsigned jobs = 1;         // threads that decode, besides the one that pushes
    bool live = false;         // samples do not wait: slices that are not searched in time are skipped, with a line
    bool provisional = false;  // frames are shown as soon as they are found, too
};

// Steps [first, end) of a search alone. Of each `take` gets what was found in it, in order: frames that others may have
// found as well, for a SpotLog that takes those of all steps in turn and releases after each what is decided.
struct WidePart {
    int64_t first = 0, end = std::numeric_limits<int64_t>::max();
    std::function<void(std::vector<Found>)> take;
};

// Memory is about 1.7 MB for each slice of 3.4 kHz, and some 14 MB for each job. One thread at a time.
class WideDecoder {
  public:
    // Called by push() and finish() with each confirmed frame once, in order of their starts, with provisional ones
    // before: t counts from the first sample, freq from 0 Hz of the input.
    using Taker = std::function<void(const Found&, Standing)>;

    // Of a band wider than a slice, or not; `search.band`, or all that the rate holds.
    //
    //   rate   8 kHz to 3.2 MHz
    // Throws UsageError as Channeliser does, IoError when the input holds nothing of the band, std::bad_alloc here and
    // in push() and finish().
    WideDecoder(int32_t rate, const Search& search, const WideOptions& options, Taker take);

    // The same of a part, which is to the bit what the whole search finds in these steps.
    WideDecoder(int32_t rate, const Search& search, const WideOptions& options, WidePart part);
    ~WideDecoder();

    // The steps of so many seconds, or one more. Of too few for one it is one.
    static int64_t steps_in(double seconds);

    // Frames that start until then, s, are decided when so many steps were searched.
    static double decided_s(int64_t steps);

    // The sample to push first: 0 but for a part.
    int64_t first_sample() const;

    // Whether any more samples count: those of a part end where its last step does.
    bool takes_more() const;

    // Samples of full scale 1; I, Q in turn where the search is of I/Q.
    void push(std::span<const float> samples);

    // Decodes what is left. Nothing may be pushed afterwards.
    void finish();

    // Until when all was searched, s from the first sample.
    double done_s() const;

    // Why some of the slices could not be decoded, or "".
    std::string problem() const;

    // Seconds of slices that a live run had to skip, as a share of all.
    double skipped_share() const;

  private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};
