// Incoming audio, decoded as it arrives:
//     history → a decode of its newest block every few seconds → each frame once, confirmed
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "decoding/search.h"
#include "listening/confirmation.h"
#include "listening/history.h"
#include "spots/spot_log.h"

struct ListenerOptions {
    double every_s = 4;        // between decodes
    double hold_off_s = 48;    // after the end of a frame: the longest frame, and a little more
    bool provisional = false;  // frames are shown at once, too
};

class Listener {
  public:
    // Called with each frame that is confirmed, in the order in which they ended; t is UTC. Of provisional frames as
    // soon as they are found, and again when they are confirmed or withdrawn.
    using Taker = std::function<void(const Found&, Standing)>;

    // Called with what goes wrong.
    using Teller = std::function<void(const std::string&)>;

    // When the sample at this many captured seconds was on the air, UTC.
    using Clock = std::function<double(double captured_s)>;

    // Search and history must outlive the listener.
    Listener(const Search& search, const ListenerOptions& options, const History& history, Taker take, Teller tell);

    // How long the history has to be, s.
    static double history_seconds(const ListenerOptions& options);

    // Decodes the history if it is time. A decode that fails is told; the next one may succeed.
    void update(const Clock& utc);

    // The same at the end of the audio: there is nothing left to wait for, and frames may extend past it.
    void finish(const Clock& utc);

    bool last_decode_failed() const { return !complaint_.empty(); }

    // How long the decodes have taken so far, s.
    double decode_seconds() const { return decode_s_; }

  private:
    double copy_block();
    double block_seconds() const;
    void skip(double seconds);
    void decode(bool last);
    bool decode_history(bool last);
    Search next_search(bool last);
    void complain(const std::string& text);
    void show_new(const Clock& utc);
    void release(double captured_s, const Clock& utc);

    const Search& search_;
    double every_s_;
    int64_t coherent_every_;  // which decode has a coherent search
    bool provisional_;
    const History& history_;
    Taker take_;
    Teller tell_;
    Confirmation confirmation_;
    std::vector<double> x_, q_;  // of the block
    SpotLog log_{SpotLog::Order::END};
    std::string complaint_;
    double next_decode_s_;
    int64_t decodes_ = 0;
    double decode_s_ = 0;
};

// Throws IoError when the decoder cannot work with samples of a rate, or they hold nothing of the search. `what` names
// them.
void require_served(const std::string& what, const Search& search, int32_t rate);
