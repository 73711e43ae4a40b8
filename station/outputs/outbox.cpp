#include "outputs/outbox.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/utc.h"

namespace {

constexpr double TICK_S = 1;
constexpr double FRESH_S = 180;      // of a receiver's minute
constexpr double FIRST_PAUSE_S = 1;  // after a failure; it doubles

}  // namespace

Outbox::Outbox(const std::string& store_path, const OutputConfig& config, const Keeper& keeper)
    : store_path_(store_path), config_(config), output_(make_output(config, keeper)), thread_([this] { run(); }) {}

Outbox::~Outbox() {
    {
        const std::lock_guard guard(lock_);
        ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void Outbox::notify() {
    {
        const std::lock_guard guard(lock_);
        news_ = true;
    }
    changed_.notify_all();
}

Outbox::State Outbox::state() const {
    const std::lock_guard guard(lock_);
    return state_;
}

// Until the end; false then, or when the time has passed.
bool Outbox::wait(double seconds) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::duration<double>(seconds), [&] { return news_ || ended_; });
    return !ended_;
}

void Outbox::run() {
    double pause_s = FIRST_PAUSE_S;
    std::unique_ptr<Store> store;
    while (true) {
        try {
            if (!store) {
                store = std::make_unique<Store>(store_path_, Database::Access::WRITE);
                const int64_t position = store->position_or_last(config_.name);
                const std::lock_guard guard(lock_);
                state_.position = position;
            }
            output_->tick();
            if (output_->wants_minutes()) pass_minutes(*store);
            while (deliver(*store)) {
            }
            pause_s = FIRST_PAUSE_S;
            complain("");
            if (!wait(TICK_S)) return;
        } catch (const IoError& error) {
            complain(error.what());
            {
                std::unique_lock guard(lock_);
                changed_.wait_for(guard, std::chrono::duration<double>(pause_s), [&] { return ended_; });
                if (ended_) return;
            }
            pause_s = std::min(2 * pause_s, output_->longest_pause_s());
        }
    }
}

// Whether there may be more.
bool Outbox::deliver(Store& store) {
    int64_t position = 0;
    {
        const std::lock_guard guard(lock_);
        if (ended_) return false;
        news_ = false;
        position = state_.position;
    }
    const int64_t resumed = output_->resume(store, config_.name, position);
    if (resumed != position) move(store, resumed);
    position = resumed;
    std::vector<StoredSpot> spots;
    int64_t last = position;
    store.query({.after = position}, [&](const StoredSpot& stored) {
        last = stored.number;
        if (is_wanted(stored, config_.values)) spots.push_back(stored);
        return spots.size() < output_->most_at_once();
    });
    if (last == position) return false;
    const std::size_t arrived = spots.empty() ? 0 : output_->send(spots);
    if (arrived < spots.size()) last = arrived > 0 ? spots[arrived - 1].number : position;
    if (last == position) return false;
    move(store, last);
    return true;
}

void Outbox::move(Store& store, int64_t position) {
    store.set_position(config_.name, position);
    const std::lock_guard guard(lock_);
    state_.position = position;
}

// Only the latest: what has passed is of no use to those who watch.
void Outbox::pass_minutes(Store& store) {
    for (const ReceiverMinute& minute : store.last_minutes(utc_now() - FRESH_S)) {
        double& passed = minutes_[minute.receiver];
        if (passed == minute.end) continue;
        output_->take(minute);
        passed = minute.end;
    }
}

// Once, until it is over.
void Outbox::complain(const std::string& problem) {
    std::unique_lock guard(lock_);
    if (problem == state_.problem) return;
    state_ = {state_.position, problem, utc_now()};
    guard.unlock();
    if (problem.empty()) {
        print_error("output '" + config_.name + "': works again", Level::NOTICE);
    } else {
        print_error("output '" + config_.name + "': " + problem, Level::WARNING);
    }
}
