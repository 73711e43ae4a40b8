#include "sources/capture.h"

#include <mutex>
#include <utility>

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

Capture::Capture(ovl_audio* audio, int32_t device, int32_t rate, double ring_s, std::string name)
    : audio_(audio), device_(device), rate_(rate), ring_s_(ring_s), name_(std::move(name)) {}

void Capture::open() {
    const std::lock_guard guard(sound_lock);
    if (ovl_audio_start_input(audio_, device_, rate_, ring_s_) != 0) throw IoError(ovl_audio_last_error(audio_));
}

Capture::State Capture::watch(ovl_audio_stats& stats) {
    const double now = monotonic_now();
    State state = State::RUNNING;
    if (reopening_) {
        if (!reopening_->done()) {
            if (now > retry_at_ + STUCK_S) throw DeviceHangs("the input device does not answer");
            return State::OPENING;
        }
        if (!*opened_) {
            const std::string reason = ovl_audio_last_error(audio_);
            if (std::exchange(reason_, reason) != reason) tell(name_, reason);
            if (now >= retry_at_) reopen();
            return State::OPENING;
        }
        reason_.clear();
        reopening_.reset();
        state = State::RESTARTED;
        progress_at_ = now;
        seen_s_ = 0;
    }
    ovl_audio_input_stats(audio_, &stats);
    if (stats.captured_s != seen_s_) {
        seen_s_ = stats.captured_s;
        progress_at_ = now;
        if (std::exchange(stalled_, false)) tell(name_, "audio is back");
    }
    if (now - progress_at_ > STALL_S) {
        if (!std::exchange(stalled_, true)) {
            tell(name_, format("no audio for %.0f s, reopening the device", STALL_S));
        }
        return State::STALLED;
    }
    return state;
}

void Capture::reopen() {
    retry_at_ = monotonic_now() + RETRY_S;
    opened_ = std::make_shared<std::atomic<bool>>(false);
    reopening_ = Background([audio = audio_, device = device_, rate = rate_, ring_s = ring_s_, opened = opened_] {
        const std::lock_guard guard(sound_lock);
        *opened = ovl_audio_start_input(audio, device, rate, ring_s) == 0;
    });
}

void Capture::close() {
    const bool idle = !reopening_ || reopening_->wait(CLOSE_S);
    if (idle && Background([audio = audio_] {
                    const std::lock_guard guard(sound_lock);
                    ovl_audio_stop_input(audio);
                }).wait(CLOSE_S))
        return;
    throw DeviceHangs("the input device does not close");
}

void OverflowReport::see(const ovl_audio_stats& stats, double now) {
    if (stats.overflows < reported_) reported_ = 0;  // capture has restarted
    if (stats.overflows == reported_ || now - reported_at_ < COMPLAIN_S) return;
    tell(name_, format("input was lost (%d more times)", stats.overflows - reported_));
    reported_ = stats.overflows;
    reported_at_ = now;
}
