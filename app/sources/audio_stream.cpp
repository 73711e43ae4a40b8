// The library's capture ring is read as a queue: its count of captured samples says how many of its newest are new.
#include <algorithm>
#include <cmath>
#include <cstddef>

#include "base/error.h"
#include "liborvel.h"
#include "sources/devices.h"
#include "sources/sound_stream.h"

namespace {

int64_t captured_samples(const ovl_audio_stats& stats) {
    return std::llround(stats.captured_s * stats.rate);
}

class AudioStream final : public SoundStream {
  public:
    AudioStream(int32_t device, int32_t rate, double keep_s)
        : audio_(make_audio()), device_(device), rate_(rate), keep_s_(keep_s) {}

    void open() override {
        taken_ = 0;
        if (ovl_audio_start_input(audio_.get(), device_, rate_, keep_s_) != 0) {
            throw IoError(ovl_audio_last_error(audio_.get()));
        }
    }
    void close() override { ovl_audio_stop_input(audio_.get()); }

    Stats stats() const override {
        const ovl_audio_stats stats = library_stats();
        return {.captured_s = stats.captured_s, .losses = stats.overflows, .rate = stats.rate};
    }

    // A buffer may arrive while the ring is copied: then what was copied ends later than the stats say.
    void take(Piece& piece) override {
        ovl_audio_stats stats = library_stats();
        int64_t captured = 0;
        do {
            captured = captured_samples(stats);
            piece.samples.resize(static_cast<std::size_t>(std::max<int64_t>(captured - taken_, 0)));
            const auto wanted = static_cast<int32_t>(std::min<std::size_t>(piece.samples.size(), INT32_MAX));
            piece.samples.resize(
                static_cast<std::size_t>(std::max(ovl_audio_last(audio_.get(), piece.samples.data(), wanted), 0)));
            stats = library_stats();
        } while (captured_samples(stats) != captured);
        const auto missing = static_cast<double>(captured - taken_ - std::ssize(piece.samples));
        piece.lost_s = stats.rate > 0 ? std::max(missing, 0.0) / stats.rate : 0;
        taken_ = captured;
    }

  private:
    ovl_audio_stats library_stats() const {
        ovl_audio_stats stats{};
        ovl_audio_input_stats(audio_.get(), &stats);
        return stats;
    }

    AudioObject audio_;
    int32_t device_;
    int32_t rate_;
    double keep_s_;
    int64_t taken_ = 0;  // samples of the stream
};

}  // namespace

std::unique_ptr<SoundStream> make_audio_stream(int32_t device, int32_t rate, double keep_s) {
    return std::make_unique<AudioStream>(device, rate, keep_s);
}
