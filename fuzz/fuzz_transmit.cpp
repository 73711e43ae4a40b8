// A transmitter used in any order: it never gives a sample above 1, reports its progress, and ends.
#include <cmath>
#include <memory>
#include <numeric>
#include <vector>

#include "input.h"
#include "liborvel.h"

namespace {

constexpr int32_t MAX_CALLS = 64;
constexpr int64_t MAX_RENDERED = 400000;  // samples of one input; a frame at 8000 Hz has 244736
constexpr int32_t MAX_BLOCK = 65535;
constexpr int32_t MAX_STEPS = 64;

struct Destroy {
    void operator()(ovl_transmitter* tx) const { ovl_tx_destroy(tx); }
};

void copy_text(const std::string& text, char* field, std::size_t room) {
    std::copy_n(text.begin(), std::min(text.size(), room), field);  // no NUL where it fills the field
}

ovl_tx_step draw_step(Input& input) {
    ovl_tx_step step{};
    step.kind = input.int32(0, 15) == 15 ? input.raw<int32_t>() : input.int32(1, 3);
    step.protocol = input.int32(0, 15) == 15 ? input.raw<int32_t>() : 1 << input.int32(0, 2);
    if (step.kind == OVL_TX_FRAME) {
        copy_text(input.text(sizeof step.call), step.call, sizeof step.call);
        copy_text(input.text(sizeof step.locator), step.locator, sizeof step.locator);
    }
    step.seconds = input.mostly(0.05, 4);
    step.keep_keyed = input.int32(0, 1);
    return step;
}

ovl_tx_settings draw_settings(Input& input) {
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = input.int32(0, 7) == 7 ? input.raw<int32_t>() : input.int32(8000, 12000);
    settings.tone_hz = input.mostly(1, 5400);
    settings.level = input.mostly(0.01, 1);
    settings.ramp_s = input.mostly(0, 0.05);
    return settings;
}

class Model {
  public:
    explicit Model(ovl_transmitter* tx) : tx_(tx) {}

    void start(Input& input) {
        settings_ = draw_settings(input);
        const int32_t n = input.int32(0, 15) == 15 ? input.int32(-1, MAX_STEPS + 1) : input.int32(1, 4);
        std::vector<ovl_tx_step> steps(static_cast<std::size_t>(std::max(n, 1)));
        for (ovl_tx_step& step : steps) step = draw_step(input);
        prepared_ = ovl_tx_start(tx_, &settings_, steps.data(), n) == 0;
        expect(prepared_ == (ovl_tx_last_error(tx_)[0] == '\0'));
        steps_ = prepared_ ? n : 0;
        rendered_ = 0;
        ended_ = !prepared_;
        if (!prepared_) return;
        // As long as its steps, and the closing ramp.
        const double steps_s = std::accumulate(steps.begin(), steps.end(), 0.0, [](double sum, const auto& step) {
            return sum + (step.kind == OVL_TX_FRAME
                              ? ovl_frame_chips(static_cast<uint32_t>(step.protocol)) * ovl_chip_seconds()
                              : step.seconds);
        });
        const double ramp_s = std::max(settings_.ramp_s, 1.0 / settings_.sample_rate);
        expect(std::fabs(status().total_s - steps_s - ramp_s) <= 2.0 / settings_.sample_rate);
        expect(status().done == 0 && status().step == 0);
    }

    void render(int32_t n) {
        std::vector<float> samples(static_cast<std::size_t>(std::max(n, 0)) + 1, 2.0f);
        const int32_t got = ovl_tx_render(tx_, samples.data(), n);
        expect(got >= 0 && got <= std::max(n, 0));
        expect(samples.back() == 2.0f);
        samples.pop_back();
        expect(std::all_of(samples.begin(), samples.end(), [](float x) { return std::fabs(x) <= 1; }));
        expect(std::all_of(samples.begin() + got, samples.end(), [](float x) { return x == 0; }));
        expect(!ended_ || got == 0);
        rendered_ += got;
        if (got < n) ended_ = true;
    }

    void set_level(double level) { expect((ovl_tx_set_level(tx_, level) == 0) == (level > 0 && level <= 1)); }

    ovl_tx_progress status() const {
        ovl_tx_progress progress;
        ovl_tx_status(tx_, &progress);
        expect(progress.done == (ended_ ? 1 : 0));
        expect(progress.keyed == 0 || progress.keyed == 1);
        if (!prepared_) {
            expect(progress.elapsed_s == 0 && progress.total_s == 0);
        } else {
            expect(progress.elapsed_s == static_cast<double>(rendered_) / settings_.sample_rate);
            expect(progress.elapsed_s <= progress.total_s + 0.0501);  // with a stop in the closing ramp
        }
        if (ended_) {
            expect(progress.step == -1 && progress.kind == 0 && progress.chip == -1 && progress.chips == 0);
        } else {
            expect(progress.step >= 0 && progress.step < steps_);
            expect(progress.kind >= OVL_TX_FRAME && progress.kind <= OVL_TX_PAUSE);
            expect((progress.chips > 0) == (progress.kind == OVL_TX_FRAME));
            expect(progress.chip >= -1 && progress.chip < std::max(progress.chips, 0));
        }
        return progress;
    }

    // After a stop little is left.
    void stop_and_wait() {
        ovl_tx_stop(tx_);
        if (!prepared_ || settings_.sample_rate > 48000) return;
        for (int32_t k = 0; k < 2; k++) render(48000 / 20 + 1);
        expect(ended_);
    }

    int64_t rendered() const { return rendered_; }

  private:
    ovl_transmitter* tx_;
    ovl_tx_settings settings_{};
    bool prepared_ = false;
    bool ended_ = true;
    int32_t steps_ = 0;
    int64_t rendered_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::unique_ptr<ovl_transmitter, Destroy> tx(ovl_tx_create());
    expect(tx != nullptr);
    Model model(tx.get());
    int64_t budget = MAX_RENDERED;
    for (int32_t calls = 0; calls < MAX_CALLS && input.left() > 0; calls++) {
        switch (input.int32(0, 6)) {
            case 0:
                model.start(input);
                break;
            case 1:
            case 2: {
                const int32_t n = input.flag() ? input.int32(-1, 300) : input.int32(0, MAX_BLOCK);
                if (n > budget) return 0;
                budget -= n;
                model.render(n);
                break;
            }
            case 3:
                ovl_tx_stop(tx.get());
                break;
            case 4:
                model.set_level(input.mostly(0, 1.1));
                break;
            case 5:
                model.status();
                break;
            default:
                model.stop_and_wait();
        }
    }
    model.status();
    return 0;
}
