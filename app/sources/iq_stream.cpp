// PortAudio as the library has initialised it: with a stream of two channels, and without its filter.
#include <portaudio.h>

#include <atomic>
#include <cmath>
#include <cstddef>
#include <memory>
#include <string>

#include "base/error.h"
#include "sources/sample_ring.h"
#include "sources/sound_stream.h"

namespace {

constexpr std::size_t CHANNELS = 2;

struct CloseStream {
    void operator()(PaStream* stream) const noexcept {
        Pa_StopStream(stream);
        Pa_CloseStream(stream);
    }
};

class IqStream final : public SoundStream {
  public:
    IqStream(int32_t device, int32_t rate, double keep_s) : device_(device), asked_rate_(rate), keep_s_(keep_s) {}

    void open() override {
        close();
        const PaDeviceIndex device = device_ < 0 ? Pa_GetDefaultInputDevice() : device_;
        const PaDeviceInfo* const info = device < 0 ? nullptr : Pa_GetDeviceInfo(device);
        if (info == nullptr) throw IoError("no such input device");
        if (info->maxInputChannels < static_cast<int>(CHANNELS))
            throw IoError("--iq: the device has one channel, I/Q needs two");
        rate_ = asked_rate_ > 0 ? asked_rate_ : static_cast<int32_t>(std::lround(info->defaultSampleRate));
        ring_ = std::make_unique<SampleRing>(CHANNELS * static_cast<std::size_t>(std::ceil(keep_s_ * rate_)));
        captured_ = 0;
        losses_ = 0;
        whole_ = true;
        start({device, static_cast<int>(CHANNELS), paFloat32, info->defaultHighInputLatency, nullptr});
    }
    void close() override { stream_.reset(); }

    Stats stats() const override {
        const double captured_s = rate_ > 0 ? static_cast<double>(captured_) / rate_ : 0;
        return {.captured_s = captured_s, .losses = losses_, .rate = rate_};
    }

    void take(Piece& piece) override {
        if (!ring_) return;
        const uint64_t missing = ring_->take(piece.samples) / CHANNELS;  // pairs
        piece.lost_s = static_cast<double>(missing) / rate_;
        for (float& sample : piece.samples) sample = std::isfinite(sample) ? sample : 0;
    }

  private:
    void start(const PaStreamParameters& parameters) {
        PaStream* stream = nullptr;
        PaError error =
            Pa_OpenStream(&stream, &parameters, nullptr, rate_, paFramesPerBufferUnspecified, paNoFlag, receive, this);
        if (error == paNoError) {
            stream_.reset(stream);
            error = Pa_StartStream(stream);
        }
        if (error == paNoError) return;
        stream_.reset();
        throw IoError(std::string("cannot open the input device: ") + Pa_GetErrorText(error));
    }

    static int receive(const void* input, void*, unsigned long frames, const PaStreamCallbackTimeInfo*,
                       PaStreamCallbackFlags flags, void* user) {
        IqStream& self = *static_cast<IqStream*>(user);
        if ((flags & paInputOverflow) != 0) self.losses_++;
        if (input == nullptr) return paContinue;
        self.captured_ += static_cast<int64_t>(frames);
        const bool whole = self.ring_->push({static_cast<const float*>(input), CHANNELS * frames});
        if (self.whole_ && !whole) self.losses_++;
        self.whole_ = whole;
        return paContinue;
    }

    int32_t device_;
    int32_t asked_rate_;
    double keep_s_;
    int32_t rate_ = 0;
    std::unique_ptr<SampleRing> ring_;
    std::atomic<int64_t> captured_ = 0;  // pairs
    std::atomic<int32_t> losses_ = 0;
    bool whole_ = true;                              // the last buffer found room
    std::unique_ptr<PaStream, CloseStream> stream_;  // ends before what it writes to
};

}  // namespace

std::unique_ptr<SoundStream> make_iq_stream(int32_t device, int32_t rate, double keep_s) {
    return std::make_unique<IqStream>(device, rate, keep_s);
}
