// The library's capture ring is read as a queue: its count of captured samples says how many of its newest are new.
#include "sources/sound_device.h"

#include <algorithm>
#include <cmath>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/utc.h"

namespace {

constexpr double POLL_S = 0.05;

int64_t captured_samples(const ovl_audio_stats& stats) {
    return std::llround(stats.captured_s * stats.rate);
}

}  // namespace

SoundDevice::SoundDevice(const std::string& text, const SourceOptions& options)
    : audio_(make_audio()),
      capture_(audio_.get(), find_device(text, Direction::INPUT), options.rate.value_or(0), options.keep_s,
               options.name),
      overflows_(options.name) {
    capture_.open();
}

SoundDevice::~SoundDevice() {
    try {
        close();
    } catch (const IoError&) {  // it has been given up
    }
}

Source::State SoundDevice::read(Piece& piece) {
    piece = {};
    nap(POLL_S);
    ovl_audio_stats stats{};
    Capture::State state = Capture::State::RUNNING;
    try {
        state = capture_.watch(stats);
    } catch (const DeviceHangs&) {
        give_up();
        throw;
    }
    if (state == Capture::State::STALLED) {
        capture_.reopen();
        return State::BROKEN;
    }
    if (state == Capture::State::OPENING) return State::NONE_YET;
    if (state == Capture::State::RESTARTED) taken_ = 0;
    overflows_.see(stats, utc_now());
    take_new(stats, piece);
    return piece.samples.empty() ? State::NONE_YET : State::SAMPLES;
}

// A buffer may arrive while the ring is copied: then what was copied ends later than `stats` say.
void SoundDevice::take_new(const ovl_audio_stats& stats, Piece& piece) {
    ovl_audio_stats after = stats;
    int64_t captured = 0;
    do {
        captured = captured_samples(after);
        piece.samples.resize(static_cast<std::size_t>(std::max<int64_t>(captured - taken_, 0)));
        const auto wanted = static_cast<int32_t>(std::min<std::size_t>(piece.samples.size(), INT32_MAX));
        piece.samples.resize(
            static_cast<std::size_t>(std::max(ovl_audio_last(audio_.get(), piece.samples.data(), wanted), 0)));
        ovl_audio_input_stats(audio_.get(), &after);
    } while (captured_samples(after) != captured);
    const auto missing = static_cast<double>(captured - taken_ - std::ssize(piece.samples));
    piece.lost_s = stats.rate > 0 ? std::max(missing, 0.0) / stats.rate : 0;
    taken_ = captured;
}

SourceFormat SoundDevice::format() const {
    ovl_audio_stats stats{};
    ovl_audio_input_stats(audio_.get(), &stats);
    return {.iq = false, .rate = stats.rate, .tuning = {}};
}

void SoundDevice::close() {
    if (closed_) return;
    closed_ = true;
    try {
        capture_.close();
    } catch (const DeviceHangs&) {
        give_up();
        throw;
    }
}

void SoundDevice::give_up() {
    closed_ = true;
    note_hang();
    (void)audio_.release();  // the call that hangs may still use it
}
