#include "sources/sound_device.h"

#include <algorithm>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/utc.h"
#include "sources/devices.h"

namespace {

constexpr double POLL_S = 0.05;
constexpr double MOST_IQ_S = 20;  // that wait: longer than any decode, and 30 MB at 192 kHz

std::unique_ptr<SoundStream> make_stream(const std::string& text, const SourceOptions& options) {
    const int32_t device = find_device(text, Direction::INPUT);
    const int32_t rate = options.rate.value_or(0);
    return options.iq ? make_iq_stream(device, rate, std::min(options.keep_s, MOST_IQ_S))
                      : make_audio_stream(device, rate, options.keep_s);
}

}  // namespace

SoundDevice::SoundDevice(const std::string& text, const SourceOptions& options)
    : iq_(options.iq), stream_(make_stream(text, options)), capture_(*stream_, options.name), losses_(options.name) {
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
    Capture::State state = Capture::State::RUNNING;
    try {
        state = capture_.watch();
    } catch (const DeviceHangs&) {
        give_up();
        throw;
    }
    if (state == Capture::State::STALLED) {
        capture_.reopen();
        return State::BROKEN;
    }
    if (state == Capture::State::OPENING) return State::NONE_YET;
    losses_.see(stream_->stats().losses, utc_now());
    stream_->take(piece);
    return piece.samples.empty() ? State::NONE_YET : State::SAMPLES;
}

SourceFormat SoundDevice::format() const {
    return {.iq = iq_, .rate = stream_->stats().rate, .tuning = {}};
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
    (void)stream_.release();  // the call that hangs may still use it
}
