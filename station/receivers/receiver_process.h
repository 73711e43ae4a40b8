// One receiver: a child process `orvel listen`, started, watched, and started again when it ends or hangs. A sound
// system or a driver that takes its process down costs this receiver, and no other.
#pragma once

#include <poll.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/config.h"
#include "spots/spectrum_row.h"
#include "spots/spot.h"
#include "spots/status.h"
#include "store/store.h"
#include "system/child.h"

class ReceiverProcess {
  public:
    enum class State { OFF, WAITING, RUNNING, ENDING };

    struct Takers {
        std::function<void(const Spot&)> spot;
        std::function<void(const ReceiverMinute&)> minute;
        std::function<void(const SpectrumRow&)> row;
    };

    struct Limits {
        double silence_s = 150;  // without a new sample: it hangs
        double ending_s = 20;    // that it may take to end
        double first_pause_s = 1, longest_pause_s = 60;
        double steady_s = 120;  // a child that ran as long is started again at once
    };

    // `program` is the orvel command. Nothing starts before the first step().
    ReceiverProcess(ReceiverConfig config, std::string program, const Limits& limits);
    ReceiverProcess(ReceiverConfig config, std::string program);

    // Starts and ends the child as its hours, its end and its silence ask for. It goes on after its hours for as long
    // as a frame that began within them may last. `now` is monotonic; a source that is not free is waited for.
    void step(double now, double utc, bool source_is_free = true);

    // Takes what the child printed; the lines that it prints for people go to standard error.
    void read(const Takers& takers, double now);

    // Whether children that start from now on print rows of a waterfall.
    void show_spectrum(bool show) { spectrum_ = show; }

    // Asks the child to end: it decodes what it has first.
    void stop(double now);
    bool stopped() const { return !child_; }

    // False when it is past all limits: neither samples come, nor has it been ended for that.
    bool is_looked_after(double now) const;

    // To be waited for.
    std::vector<pollfd> descriptors() const;

    State state() const { return state_; }
    const std::optional<Status>& status() const { return status_; }  // the last of the child that runs
    const ReceiverConfig& config() const { return config_; }

  private:
    void start(double now);
    void look_after(double now);
    void restart_later(double now);
    void take_line(const std::string& line, const Takers& takers, double now);
    void say(const std::string& text) const;
    bool is_its_time(double utc) const;

    ReceiverConfig config_;
    std::string program_;
    Limits limits_;
    State state_ = State::OFF;
    std::unique_ptr<Child> child_;
    std::string output_, errors_;  // lines that have not ended
    double started_at_ = 0;
    double heard_at_ = 0;           // of a status with more samples than before
    std::optional<Status> status_;  // the last one
    bool spectrum_ = false;
    double start_at_ = 0;
    double pause_s_;
    double kill_at_ = 0;
    bool has_told_ = false;  // that it waits for its source
};
