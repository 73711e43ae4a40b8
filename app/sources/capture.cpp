#include "sources/capture.h"

#include <exception>
#include <mutex>

#include "base/text.h"
#include "sources/source.h"

namespace {

constexpr double STALL_S = 5;      // without a captured sample: the device has stalled
constexpr double RETRY_S = 5;      // between attempts to reopen it
constexpr double STUCK_S = 60;     // a device that takes longer to open never will
constexpr double CLOSE_S = 3;      // time that a device gets to close
constexpr double COMPLAIN_S = 60;  // between reports of lost input

// PortAudio opens and closes one stream at a time.
std::mutex sound_lock;

}  // namespace

void Capture::open() {
    const std::lock_guard guard(sound_lock);
    stream_.open();
}

Capture::State Capture::watch() {
    const double now = monotonic_now();
    if (reopening_) {
        if (!reopening_->done()) {
            if (now > retry_at_ + STUCK_S) throw DeviceHangs("the input device does not answer");
            return State::OPENING;
        }
        if (!problem_->empty()) {
            if (std::exchange(reason_, *problem_) != *problem_) tell(name_, *problem_);
            if (now >= retry_at_) reopen();
            return State::OPENING;
        }
        reason_.clear();
        reopening_.reset();
        progress_at_ = now;
        seen_s_ = 0;
    }
    const double captured_s = stream_.stats().captured_s;
    if (captured_s != seen_s_) {
        seen_s_ = captured_s;
        progress_at_ = now;
        if (std::exchange(stalled_, false)) tell(name_, "audio is back");
    }
    if (now - progress_at_ > STALL_S) {
        if (!std::exchange(stalled_, true)) {
            tell(name_, format("no audio for %.0f s, reopening the device", STALL_S));
        }
        return State::STALLED;
    }
    return State::RUNNING;
}

void Capture::reopen() {
    retry_at_ = monotonic_now() + RETRY_S;
    problem_ = std::make_shared<std::string>();
    reopening_ = Background([&stream = stream_, problem = problem_] {
        const std::lock_guard guard(sound_lock);
        try {
            stream.open();
        } catch (const std::exception& error) {
            *problem = error.what();
        }
    });
}

void Capture::close() {
    const bool idle = !reopening_ || reopening_->wait(CLOSE_S);
    if (idle && Background([&stream = stream_] {
                    const std::lock_guard guard(sound_lock);
                    stream.close();
                }).wait(CLOSE_S))
        return;
    throw DeviceHangs("the input device does not close");
}

void LossReport::see(int32_t losses, double now) {
    if (losses < reported_) reported_ = 0;  // capture has restarted
    if (losses == reported_ || now - reported_at_ < COMPLAIN_S) return;
    tell(name_, format("input was lost (%d more times)", losses - reported_));
    reported_ = losses;
    reported_at_ = now;
}
