// Incoming audio, decoded as it arrives:
//     capture ring → a decode of its newest block every few seconds → each frame once, confirmed
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "decoding/search.h"
#include "listening/confirmation.h"
#include "spots/spot_log.h"

struct ListenerOptions {
    double every_s = 4;      // between decodes
    double hold_off_s = 48;  // after the end of a frame: the longest frame, and a little more
};

class Listener {
  public:
    // Called with each frame that is confirmed, in the order in which they ended; t is UTC.
    using Taker = std::function<void(const Found&)>;

    // When the sample at this many captured seconds was on the air, UTC.
    using Clock = std::function<double(double captured_s)>;

    // Both must outlive the listener.
    Listener(const Search& search, const ListenerOptions& options, ovl_audio* audio, Taker take);

    // How long the capture ring has to be, s.
    static double ring_seconds(const ListenerOptions& options);

    // Decodes the ring if it is time. A decode that fails is reported as a line on standard error; the next one may
    // succeed.
    void update(const ovl_audio_stats& stats, const Clock& utc);

    // The same at the end of the audio: there is nothing left to wait for, and frames may extend past it.
    void finish(const Clock& utc);

    // Capture has restarted.
    void restart();

    bool last_decode_failed() const { return !complaint_.empty(); }

  private:
    double copy_block();
    double block_seconds() const;
    void skip(double seconds);
    void decode(bool last);
    bool decode_ring(bool last);
    Search next_search(bool last);
    void complain(const std::string& text);
    void release(double captured_s, const Clock& utc);

    const Search& search_;
    double every_s_;
    int64_t coherent_every_;  // which decode has a coherent search
    ovl_audio* audio_;
    Taker take_;
    Confirmation confirmation_;
    std::vector<float> block_;
    std::vector<double> samples_;  // of the block, as the decoder takes them
    int32_t rate_ = 0;
    SpotLog log_{SpotLog::Order::END};
    std::string complaint_;
    double next_decode_s_;
    int64_t decodes_ = 0;
};

// Throws IoError when the decoder cannot work with the rate of the captured audio, or the audio holds nothing of the
// search.
void require_served(const ovl_audio* audio, const Search& search);
