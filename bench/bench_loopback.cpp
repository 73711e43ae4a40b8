// How accurately a transmission starts at the requested time: carriers of half a second are played over our own sound
// server and captured from its monitor, where the key-down edge is timed.
//
// The error includes what the sound system misreports about its delays in both directions; the spread about its mean is
// what differs from start to start.
//
//     bench_loopback [starts]      default 10
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "liborvel.h"
#include "sound_server.h"

namespace {

constexpr int32_t DEVICE_RATE = 48000;
constexpr int32_t CAPTURE_RATE = 12000;
constexpr double TONE_HZ = CAPTURE_RATE / 4.0;  // two samples in a row are in quadrature
constexpr double LEVEL = 0.5;
constexpr double RAMP_S = 0.005;
constexpr double FILTER_DELAY_S = 32.0 / DEVICE_RATE;  // of the low-pass before the ring
constexpr double LEAD_S = 1;

using Audio = std::unique_ptr<ovl_audio, decltype(&ovl_audio_destroy)>;
using Transmitter = std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)>;

double wall_clock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Blocks arrive late by varying amounts, never early: the least delay counts.
void observe_clock(const Audio& in, double& first_sample_s) {
    ovl_audio_stats stats;
    ovl_audio_input_stats(in.get(), &stats);
    if (stats.captured_s > 0) {
        first_sample_s = std::min(first_sample_s, wall_clock() - stats.captured_s - stats.latency_s);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Starts of the carriers, s from the first sample: half a ramp before the envelope passes half the level.
std::vector<double> find_starts(const std::vector<float>& samples) {
    std::vector<double> starts;
    double before = 0;
    double last_loud = -CAPTURE_RATE;
    for (std::size_t i = 1; i < samples.size(); i++) {
        const double now = std::hypot(samples[i - 1], samples[i]);
        const auto at = static_cast<double>(i);
        if (now >= LEVEL / 2 && before < LEVEL / 2 && at - last_loud > 0.2 * CAPTURE_RATE) {
            const double crossing = at - 1.5 + (LEVEL / 2 - before) / (now - before);
            starts.push_back(crossing / CAPTURE_RATE - RAMP_S / 2 - FILTER_DELAY_S);
        }
        if (now >= LEVEL / 2) last_loud = at;
        before = now;
    }
    return starts;
}

int measure(int32_t n) {
    SoundServer server;
    enter(server.environment());
    const Audio in(ovl_audio_create(), ovl_audio_destroy);
    const Audio out(ovl_audio_create(), ovl_audio_destroy);
    const Transmitter tx(ovl_tx_create(), ovl_tx_destroy);
    const double seconds = 10 + 3.0 * n;
    if (ovl_audio_start_input(in.get(), -1, DEVICE_RATE, seconds) != 0) {
        throw std::runtime_error(ovl_audio_last_error(in.get()));
    }
    double first_sample_s = std::numeric_limits<double>::infinity();
    const double end = wall_clock() + 5;
    while (!(first_sample_s < end)) {
        if (wall_clock() > end) throw std::runtime_error("nothing is captured");
        observe_clock(in, first_sample_s);
    }

    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = DEVICE_RATE;
    settings.tone_hz = TONE_HZ;
    settings.level = LEVEL;
    settings.ramp_s = RAMP_S;
    ovl_tx_step carrier{};
    carrier.kind = OVL_TX_CARRIER;
    carrier.seconds = 0.5;
    std::vector<double> wanted;
    std::vector<double> first_samples;  // as observed at each start: the clocks of server and system drift apart
    for (int32_t i = 0; i < n; i++) {
        ovl_tx_start(tx.get(), &settings, &carrier, 1);
        wanted.push_back(wall_clock() + LEAD_S);
        if (ovl_audio_start_output_at(out.get(), -1, tx.get(), wanted.back()) != 0) {
            throw std::runtime_error(ovl_audio_last_error(out.get()));
        }
        first_sample_s = std::numeric_limits<double>::infinity();
        while (wall_clock() < wanted.back() + 0.8) observe_clock(in, first_sample_s);
        first_samples.push_back(first_sample_s);
        ovl_audio_stop_output(out.get());
    }

    std::vector<float> samples(static_cast<std::size_t>(seconds * CAPTURE_RATE));
    samples.resize(
        static_cast<std::size_t>(ovl_audio_last(in.get(), samples.data(), static_cast<int32_t>(samples.size()))));
    const std::vector<double> starts = find_starts(samples);
    if (starts.size() != wanted.size()) throw std::runtime_error("not every start has been captured");

    double sum = 0;
    double squares = 0;
    double worst = 0;
    for (std::size_t i = 0; i < starts.size(); i++) {
        const double error_ms = 1000 * (first_samples[i] + starts[i] - wanted[i]);
        std::printf("start %2zu %8.2f ms\n", i + 1, error_ms);
        sum += error_ms;
        squares += error_ms * error_ms;
        worst = std::max(worst, std::fabs(error_ms));
    }
    const double mean = sum / n;
    ovl_audio_stats stats;
    ovl_audio_input_stats(in.get(), &stats);
    std::printf("error: mean %.2f ms, rms %.2f ms, largest %.2f ms; spread about the mean %.2f ms rms\n", mean,
                std::sqrt(squares / n), worst, std::sqrt(std::max(squares / n - mean * mean, 0.0)));
    std::printf("stated delay: output %.1f ms, input %.1f ms\n", 1000 * ovl_audio_output_latency(out.get()),
                1000 * stats.latency_s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int32_t n = argc > 1 ? std::atoi(argv[1]) : 10;
    if (n < 1 || n > 1000) {
        std::fprintf(stderr, "usage: bench_loopback [starts, 1 to 1000]\n");
        return 2;
    }
    try {
        return measure(n);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_loopback: %s\n", error.what());
        return 1;
    }
}
