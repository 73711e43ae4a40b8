// Capture fed by pushes, used in any order, against a plain model of what it keeps.
#include <cmath>
#include <memory>
#include <vector>

#include "input.h"
#include "liborvel.h"

namespace {

constexpr int32_t MAX_CALLS = 64;
constexpr int32_t MAX_FRAMES = 4000;         // of one push
constexpr double MAX_RING = 4e6;             // samples; longer rings only take memory
constexpr double REFUSED_RING = 2147483647;  // longer ones are refused
constexpr int32_t HIGHEST_UNFILTERED = 22049;

struct Destroy {
    void operator()(ovl_audio* audio) const { ovl_audio_destroy(audio); }
};

bool same(float a, float b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

class Model {
  public:
    explicit Model(ovl_audio* audio) : audio_(audio) {}

    void start(Input& input) {
        const int32_t rate = input.int32(0, 3) == 3 ? input.raw<int32_t>() : input.int32(8000, 48000);
        const double seconds = input.mostly(0, 3);
        const bool rate_ok = rate >= 8000 && rate <= 384000;
        const int32_t decimation = std::max(rate / 11025, 1);
        const double asked = (seconds <= 0 ? 60 : seconds) * (rate / decimation);
        if (rate_ok && asked > MAX_RING && asked < REFUSED_RING + 1e6) return;

        const bool started = ovl_audio_start_input(audio_, OVL_AUDIO_NONE, rate, seconds) == 0;
        expect(started == (ovl_audio_last_error(audio_)[0] == '\0'));
        expect(started == (rate_ok && asked < REFUSED_RING));
        rate_ = started ? rate / decimation : 0;
        decimation_ = decimation;
        unfiltered_ = rate <= HIGHEST_UNFILTERED;
        ring_ = std::max(static_cast<int64_t>(started ? asked : 0), static_cast<int64_t>(rate_));
        frames_ = 0;
        kept_.clear();
    }

    void stop() {
        ovl_audio_stop_input(audio_);
        rate_ = 0;
    }

    void push(Input& input) {
        const int32_t channels = input.int32(0, 7) == 7 ? input.int32(-1, 18) : input.int32(1, 3);
        const int32_t frames = input.int32(0, 15) == 15 ? -1 : input.int32(0, MAX_FRAMES);
        const auto width = static_cast<std::size_t>(std::max(channels, 1));
        std::vector<float> samples(static_cast<std::size_t>(std::max(frames, 0)) * width);
        // A few numbers, over and over: what matters is how many there are.
        std::array<float, 5> numbers;
        for (float& number : numbers) number = static_cast<float>(input.raw<int8_t>()) / 128;
        if (input.int32(0, 7) == 7) numbers[0] = input.raw<float>();
        for (std::size_t k = 0; k < samples.size(); k++) samples[k] = numbers[k % numbers.size()];
        samples.push_back(0);

        const int32_t pushed = ovl_audio_push(audio_, samples.data(), frames, channels);
        const bool taken = rate_ > 0 && frames >= 0 && channels >= 1 && channels <= 16;
        expect(pushed == (taken ? frames : -1));
        if (!taken) return;
        frames_ += frames;
        if (!unfiltered_ || decimation_ != 1) return;
        for (std::size_t k = 0; k < static_cast<std::size_t>(frames); k++) {
            float sum = 0;
            for (std::size_t channel = 0; channel < width; channel++) sum += samples[k * width + channel];
            kept_.push_back(sum / static_cast<float>(channels));
        }
    }

    void read(int32_t n) {
        std::vector<float> out(static_cast<std::size_t>(std::max(n, 0)) + 1, 3.5f);
        const int32_t got = ovl_audio_last(audio_, out.data(), n);
        expect(got == (rate_ > 0 && n > 0 ? std::min({static_cast<int64_t>(n), captured(), ring_}) : 0));
        expect(std::all_of(out.begin() + got, out.end(), [](float x) { return x == 3.5f; }));
        if (rate_ > 0 && unfiltered_ && decimation_ == 1) {
            expect(std::equal(out.begin(), out.begin() + got, kept_.end() - got, same));
        }
    }

    void stats() const {
        ovl_audio_stats stats;
        ovl_audio_input_stats(audio_, &stats);
        expect(stats.rate == rate_ && stats.overflows == 0 && stats.latency_s == 0);
        expect(stats.captured_s == (rate_ > 0 ? static_cast<double>(captured()) / rate_ : 0));
        expect(stats.peak_db >= -120 && stats.rms_db >= -120);
    }

  private:
    int64_t captured() const { return frames_ / decimation_; }

    ovl_audio* audio_;
    int32_t rate_ = 0;  // of what is kept, 0 when not capturing
    int32_t decimation_ = 1;
    bool unfiltered_ = false;
    int64_t ring_ = 0;
    int64_t frames_ = 0;
    std::vector<float> kept_;  // at rates that are neither filtered nor decimated
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::unique_ptr<ovl_audio, Destroy> audio(ovl_audio_create());
    expect(audio != nullptr);
    Model model(audio.get());
    for (int32_t calls = 0; calls < MAX_CALLS && input.left() > 0; calls++) {
        switch (input.int32(0, 7)) {
            case 0:
                model.start(input);
                break;
            case 1:
                model.stop();
                break;
            case 2:
            case 3:
            case 4:
                model.push(input);
                break;
            case 5:
                model.stats();
                break;
            default:
                model.read(input.flag() ? input.int32(-1, 300) : input.int32(0, 40000));
        }
    }
    model.stats();
    return 0;
}
