// What the station tells the web server, and so its viewers. The station never waits here: what nobody fetches in time
// is dropped, the oldest first.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "spots/spectrum_row.h"
#include "spots/status.h"
#include "store/store.h"

struct ReceiverState {
    std::string name;
    std::string state;             // "off", "waiting", "running" or "ending"
    std::optional<Status> status;  // its last, since it was started
};

struct OutputState {
    std::string name, type;
    int64_t position;     // number of the last spot that arrived
    std::string problem;  // "" while it works
    double since;         // UTC of that
};

struct StationState {
    std::string callsign, locator, antenna;
    std::vector<ReceiverState> receivers;
    std::vector<OutputState> outputs;
    std::string store_problem;  // "" while it works
};

// Any thread.
class Hub {
  public:
    static constexpr std::size_t MOST_NEWS = 1000;  // that wait for the server
    static constexpr std::size_t MOST_ROWS = 240;   // of each receiver's waterfall that are kept

    // A line of JSON for every viewer.
    using News = std::shared_ptr<const std::string>;

    // From the station: spots that are in the store, rows as they come, and how all of it is doing.
    void tell(std::span<const StoredSpot> spots);
    void tell(const SpectrumRow& row);
    void tell(StationState state);

    // To the server. `wake` is called, in the station's thread, when there is news for take().
    void on_news(std::function<void()> wake);
    std::vector<News> take();
    StationState state() const;
    std::vector<News> rows(const std::string& receiver) const;  // the oldest first

  private:
    void push(std::string line);

    mutable std::mutex lock_;
    std::function<void()> wake_;
    std::deque<News> news_;
    std::map<std::string, std::deque<News>> rows_;  // by receiver
    StationState state_;
    std::string state_line_;  // as viewers have it
};
