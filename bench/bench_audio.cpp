// Samples per second of what runs in the sound card's callbacks at 48 kHz: the transmitter, and the capture chain from
// one and two channels. x_real_time says how much faster than the sound card that is.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "liborvel.h"
#include "ovaudio.h"
#include "siggen.h"

namespace {

constexpr int32_t RATE = 48000;
constexpr int32_t BUFFER = 480;  // frames, 10 ms

void report(benchmark::State& state) {
    const double frames = static_cast<double>(state.iterations()) * BUFFER;
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["x_real_time"] = benchmark::Counter(frames / RATE, benchmark::Counter::kIsRate);
}

// OPERA frames, restarted when they have ended.
void render(benchmark::State& state) {
    const std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)> tx(ovl_tx_create(), ovl_tx_destroy);
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = RATE;
    ovl_tx_step step{};
    step.kind = OVL_TX_FRAME;
    step.protocol = OVL_OPERA;
    std::strcpy(step.call, "K1ABC");
    const std::vector<ovl_tx_step> steps(60, step);
    std::vector<float> buffer(BUFFER);
    for (auto _ : state) {
        if (ovl_tx_render(tx.get(), buffer.data(), BUFFER) < BUFFER) {
            state.PauseTiming();
            if (ovl_tx_start(tx.get(), &settings, steps.data(), static_cast<int32_t>(steps.size())) != 0) {
                state.SkipWithError(ovl_tx_last_error(tx.get()));
                break;
            }
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    report(state);
}
BENCHMARK(render);

void capture(benchmark::State& state) {
    const auto channels = static_cast<int32_t>(state.range(0));
    const std::unique_ptr<ova_state, decltype(&ova_destroy)> audio(ova_create(), ova_destroy);
    if (ova_start_input(audio.get(), OVL_AUDIO_NONE, RATE, 60) != 0) {
        state.SkipWithError(ova_error(audio.get()));
        return;
    }
    Random random(1);
    std::vector<float> samples(static_cast<std::size_t>(BUFFER * channels));
    for (float& sample : samples) sample = static_cast<float>(random.uniform(-1, 1));
    for (auto _ : state) benchmark::DoNotOptimize(ova_push(audio.get(), samples.data(), BUFFER, channels));
    report(state);
}
BENCHMARK(capture)->Arg(1)->Arg(2)->ArgName("channels");

}  // namespace

BENCHMARK_MAIN();
