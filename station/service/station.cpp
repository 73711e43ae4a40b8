#include "service/station.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "config/config.h"
#include "outputs/outbox.h"
#include "receivers/receiver_process.h"
#include "service/notify.h"
#include "store/store.h"
#include "web/server.h"

namespace {

constexpr int POLL_MS = 200;
constexpr double FORGET_EVERY_S = 3600;
constexpr double RETRY_S = 1;                  // the store, when it does not take spots
constexpr std::size_t MOST_WAITING = 100'000;  // spots that the store does not take
constexpr double MEGABYTE_BYTES = 1e6;
constexpr double STORE_PATIENCE_S = 1800;  // before a new start is worth the spots that wait
constexpr double TELL_EVERY_S = 1;         // viewers how all is doing
constexpr double STOP_S = 25;              // that receivers may take to end

volatile std::sig_atomic_t reload_flag = 0;

extern "C" void note_reload(int) {
    reload_flag = 1;
}

const char* name_of(ReceiverProcess::State state) {
    constexpr std::array NAMES = {"off", "waiting", "running", "ending"};
    return NAMES.at(static_cast<std::size_t>(state));
}

class Station {
  public:
    Station(std::string config_path, std::string program)
        : config_path_(std::move(config_path)),
          program_(std::move(program)),
          config_(read_or_refuse(config_path_)),
          store_(config_.store.text("path"), Database::Access::WRITE) {
        for (const OutputConfig& output : config_.outputs) add_output(output);
        open_web();
        for (const ReceiverConfig& receiver : config_.receivers) add_receiver(receiver);
    }

    int run() {
        notify_service("READY=1");
        while (!interrupted()) {
            if (std::exchange(reload_flag, 0) != 0) reload();
            turn(utc_now());
            feed_watchdog();
        }
        notify_service("STOPPING=1");
        stop();
        return waiting_.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
    }

  private:
    // Waits for the receivers, and brings what they heard into the store.
    void turn(double utc) {
        for (const auto& receiver : receivers_) receiver->step(monotonic_now(), utc, is_source_free(*receiver));
        wait_for_receivers();
        read_receivers();
        commit();
        if (web_ && monotonic_now() >= tell_at_) tell_viewers();
        if (monotonic_now() >= forget_at_) forget(utc);
    }

    // Two receivers may take turns with a source, and one may follow another that has other options.
    bool is_source_free(const ReceiverProcess& receiver) const {
        const auto holds = [&](const auto& other) {
            return other.get() != &receiver && !other->stopped() && other->config().source == receiver.config().source;
        };
        return std::ranges::none_of(ending_, holds) &&
               (receiver.config().hours.empty() || std::ranges::none_of(receivers_, holds));
    }

    void wait_for_receivers() {
        std::vector<pollfd> all;
        for (const auto* const group : {&receivers_, &ending_}) {
            for (const auto& receiver : *group) {
                const std::vector<pollfd> some = receiver->descriptors();
                all.insert(all.end(), some.begin(), some.end());
            }
        }
        poll(all.data(), all.size(), POLL_MS);
    }

    void read_receivers() {
        const ReceiverProcess::Takers takers{[&](const Spot& spot) { take(spot); },
                                             [&](const ReceiverMinute& minute) { minutes_.push_back(minute); },
                                             [&](const SpectrumRow& row) { hub_.tell(row); }};
        const double now = monotonic_now();
        for (const auto* const group : {&receivers_, &ending_}) {
            for (const auto& receiver : *group) receiver->read(takers, now);
        }
        for (const auto& receiver : ending_) receiver->step(now, utc_now());
        std::erase_if(ending_, [](const auto& receiver) { return receiver->stopped(); });
    }

    void take(const Spot& spot) {
        if (spot.standing && *spot.standing != Standing::CONFIRMED) return;
        if (waiting_.size() == MOST_WAITING) {
            waiting_.pop_front();
            dropped_++;
        }
        waiting_.push_back(spot);
    }

    // What cannot be kept now waits: nothing is acknowledged before it is on the disk.
    void commit() {
        if ((waiting_.empty() && minutes_.empty()) || monotonic_now() < retry_at_) return;
        try {
            const std::vector<Spot> spots(waiting_.begin(), waiting_.end());
            const std::vector<StoredSpot> added = store_.add(spots);
            waiting_.clear();
            for (const ReceiverMinute& minute : std::exchange(minutes_, {})) store_.add(minute);
            hub_.tell(added);
            if (!added.empty()) {
                for (const auto& outbox : outboxes_) outbox->notify();
            }
            complain("");
        } catch (const IoError& error) {
            retry_at_ = monotonic_now() + RETRY_S;
            minutes_.clear();
            complain(error.what());
        }
        if (dropped_ > 0)
            print_error(format("%zu spots are lost, as the store takes none", std::exchange(dropped_, 0)));
    }

    // Once, until it is over.
    void complain(const std::string& problem) {
        if (problem == std::exchange(problem_, problem)) return;
        failing_since_ = monotonic_now();
        if (problem.empty()) {
            print_error("the store works again", Level::NOTICE);
        } else {
            print_error(problem);
        }
    }

    void open_web() {
        web_.reset();
        if (config_.web) web_ = std::make_unique<WebServer>(*config_.web, hub_, config_.store.text("path"));
    }

    void tell_viewers() {
        tell_at_ = monotonic_now() + TELL_EVERY_S;
        StationState state{config_.station.text("callsign"),
                           config_.station.text("locator"),
                           config_.station.text("antenna"),
                           {},
                           {},
                           problem_};
        for (const auto& receiver : receivers_) {
            state.receivers.push_back({receiver->config().name, name_of(receiver->state()), receiver->status()});
        }
        for (const auto& outbox : outboxes_) {
            const Outbox::State now = outbox->state();
            state.outputs.push_back(
                {outbox->config().name, outbox->config().type, now.position, now.problem, now.since});
        }
        hub_.tell(std::move(state));
    }

    void forget(double utc) {
        forget_at_ = monotonic_now() + FORGET_EVERY_S;
        const double days = config_.store.number("keep_days", HUGE_VAL);
        std::optional<int64_t> most_bytes;
        if (config_.store.has("most_megabytes")) {
            most_bytes = static_cast<int64_t>(config_.store.number("most_megabytes", 0) * MEGABYTE_BYTES);
        }
        try {
            const int64_t spots = store_.forget(utc - days * DAY_S, most_bytes);
            if (spots > 0) {
                print_error(format("%lld old spots are forgotten", static_cast<long long>(spots)), Level::NOTICE);
            }
        } catch (const IoError& error) {
            complain(error.what());
        }
    }

    // Only while samples come, or what keeps them back is being dealt with, and the store takes them.
    void feed_watchdog() {
        static const double period_s = watchdog_seconds();
        const double now = monotonic_now();
        if (period_s <= 0 || now < watchdog_at_) return;
        watchdog_at_ = now + period_s / 4;
        const bool keeps = problem_.empty() || now - failing_since_ < STORE_PATIENCE_S;
        const auto is_well = [&](const auto& receiver) { return receiver->is_looked_after(now); };
        if (keeps && std::ranges::all_of(receivers_, is_well)) notify_service("WATCHDOG=1");
    }

    // Takes over what differs; receivers and outputs that stay the same go on.
    void reload() {
        notify_service("RELOADING=1");
        try {
            Config config = read_or_refuse(config_path_);
            if (config.store.text("path") != config_.store.text("path")) {
                throw UsageError("another store needs a new start");
            }
            const Config old = std::exchange(config_, std::move(config));
            const Values& before = old.station;
            if (old.web != config_.web) open_web();
            std::erase_if(outboxes_, [&](const auto& outbox) {
                return before != config_.station ||
                       std::ranges::find(config_.outputs, outbox->config()) == config_.outputs.end();
            });
            for (const OutputConfig& output : config_.outputs) {
                const auto is_there = [&](const auto& outbox) { return outbox->config() == output; };
                if (std::ranges::none_of(outboxes_, is_there)) add_output(output);
            }
            reload_receivers();
            print_error("'" + config_path_ + "' is in force", Level::NOTICE);
        } catch (const std::runtime_error& error) {
            print_error(std::string(error.what()) + "; all goes on as before");
        }
        notify_service("READY=1");
    }

    void reload_receivers() {
        for (auto& receiver : receivers_) receiver->show_spectrum(config_.web.has_value());
        for (auto& receiver : receivers_) {
            if (std::ranges::find(config_.receivers, receiver->config()) != config_.receivers.end()) continue;
            receiver->stop(monotonic_now());
            ending_.push_back(std::move(receiver));
        }
        std::erase(receivers_, nullptr);
        for (const ReceiverConfig& config : config_.receivers) {
            const auto is_there = [&](const auto& receiver) { return receiver->config() == config; };
            if (std::ranges::none_of(receivers_, is_there)) add_receiver(config);
        }
    }

    void add_output(const OutputConfig& output) {
        outboxes_.push_back(std::make_unique<Outbox>(config_.store.text("path"), output, keeper_of(config_)));
    }

    void add_receiver(const ReceiverConfig& receiver) {
        receivers_.push_back(std::make_unique<ReceiverProcess>(receiver, program_));
        receivers_.back()->show_spectrum(config_.web.has_value());
    }

    // The receivers decode what they have; all of it is kept before the end.
    void stop() {
        const double end = monotonic_now() + STOP_S;
        for (auto& receiver : receivers_) {
            receiver->stop(monotonic_now());
            ending_.push_back(std::move(receiver));
        }
        receivers_.clear();
        while (!ending_.empty() && monotonic_now() < end) {
            wait_for_receivers();
            read_receivers();
            commit();
        }
        retry_at_ = 0;
        commit();
        outboxes_.clear();
    }

    std::string config_path_, program_;
    Config config_;
    Store store_;
    std::vector<std::unique_ptr<Outbox>> outboxes_;
    std::vector<std::unique_ptr<ReceiverProcess>> receivers_;
    std::vector<std::unique_ptr<ReceiverProcess>> ending_;  // no longer wanted
    std::deque<Spot> waiting_;
    std::vector<ReceiverMinute> minutes_;
    std::size_t dropped_ = 0;
    std::string problem_;
    double failing_since_ = 0;
    Hub hub_;
    std::unique_ptr<WebServer> web_;
    double tell_at_ = 0;
    double retry_at_ = 0;
    double forget_at_ = 0;
    double watchdog_at_ = 0;
};

}  // namespace

Config read_or_refuse(const std::string& path) {
    std::vector<Mistake> mistakes;
    const std::vector<OutputKind> kinds = output_kinds();
    Config config = read_config(path, kinds, mistakes);
    for (const Mistake& mistake : mistakes) {
        print_error(format("%s:%u:%u: %s", path.c_str(), mistake.line, mistake.column, mistake.text.c_str()));
    }
    if (!mistakes.empty()) throw UsageError("'" + path + "' has mistakes");
    return config;
}

Keeper keeper_of(const Config& config) {
    return {config.station.text("callsign"), config.station.text("locator"), config.station.text("antenna")};
}

int run_station(const std::string& config_path, const std::string& program) {
    watch_interrupts();
    struct sigaction action {};
    action.sa_handler = note_reload;
    sigaction(SIGHUP, &action, nullptr);
    return Station(config_path, program).run();
}

bool check_station(const std::string& config_path) {
    try {
        const Config config = read_or_refuse(config_path);
        for (const OutputConfig& output : config.outputs) make_output(output, keeper_of(config));
    } catch (const UsageError& error) {
        print_error(error.what());
        return false;
    }
    return true;
}
