// One output's way through the store: every spot that it wants, in order, until it has arrived.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "outputs/output.h"

class Outbox {
  public:
    struct State {
        int64_t position = -1;  // number of the last spot that arrived, or is not wanted; -1 until the store is open
        std::string problem;    // why it does not work now; "" while it does
        double since = 0;       // UTC of that
    };

    // Starts a thread. An output that the store does not know begins with what comes next. Throws UsageError.
    Outbox(const std::string& store_path, const OutputConfig& config, const Keeper& keeper);
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;
    ~Outbox();  // waits for a delivery that is on its way

    // The store has new spots.
    void notify();

    State state() const;
    const OutputConfig& config() const { return config_; }

  private:
    void run();
    bool deliver(Store& store);
    void move(Store& store, int64_t position);
    void pass_minutes(Store& store);
    bool wait(double seconds);
    void complain(const std::string& problem);

    std::string store_path_;
    OutputConfig config_;
    std::unique_ptr<Output> output_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    bool news_ = true;
    bool ended_ = false;
    std::map<std::string, double> minutes_;  // that were passed on, by receiver
    State state_;
    std::thread thread_;
};
