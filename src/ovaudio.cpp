// Captured audio is reduced to a rate near 11025 Hz by a windowed-sinc low-pass. The writer of the ring publishes the
// count of samples after the samples; a reader takes the count first, so it never sees a slot that is not yet filled. A
// reader that the writer laps sees newer samples at its oldest end.
#include "ovaudio.h"

#include <portaudio.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <mutex>
#include <new>
#include <numbers>

#include "platform.h"
#include "sound_systems.h"

namespace {

constexpr int32_t TARGET_RATE = 11025;         // Hz
constexpr int32_t HIGHEST_UNFILTERED = 22049;  // Hz, device rate
constexpr int32_t TAPS_PER_STEP = 16;          // of decimation
constexpr double CUTOFF = 0.4;                 // of the capture rate
constexpr double DEFAULT_SECONDS = 60;
constexpr int32_t MIN_PUSH_RATE = 8000;
constexpr int32_t MAX_PUSH_RATE = 384000;
constexpr int32_t MAX_PUSH_CHANNELS = 16;
constexpr double SILENCE_DB = -120;
constexpr double SILENCE = 1e-6;
constexpr double MAX_LATENCY = 5;       // s; a sound system that reports more is wrong
constexpr int64_t RENDER_CHUNK = 1024;  // samples

// ---- PortAudio -------------------------------------------------------------------------------------------------

int32_t pa_state = 0;  // 0 = not initialised, 1 = initialised, -1 = failed for good

void pa_atexit() {
    Pa_Terminate();
}

// Initialises PortAudio at the first call.
bool pa_ready() {
    static std::mutex lock;
    const std::lock_guard guard(lock);
    if (pa_state == 0) {
        const QuietSoundSystems quiet;
        pa_state = prepare_alsa_names() && Pa_Initialize() == paNoError ? 1 : -1;
        if (pa_state == 1) platform_at_exit(pa_atexit);
    }
    return pa_state == 1;
}

int32_t fail(ova_state& a, const char* message, const char* separator = "", const char* detail = "") {
    std::snprintf(a.error, sizeof a.error, "%s%s%s", message, separator, detail);
    return -1;
}

// The device's description, or null.
const PaDeviceInfo* find_device(int32_t device) {
    return device >= 0 && device < Pa_GetDeviceCount() ? Pa_GetDeviceInfo(device) : nullptr;
}

// ---- Capture ---------------------------------------------------------------------------------------------------

std::unique_ptr<float[], OvaFree> zeroed_floats(int64_t n) {
    return std::unique_ptr<float[], OvaFree>(
        static_cast<float*>(std::calloc(static_cast<std::size_t>(n), sizeof(float))));
}

// Low-pass of order n_steps · 16 at CUTOFF: sinc under a Blackman window, gain 1 at 0 Hz.
bool make_taps(ova_state& a) {
    const int32_t order = a.device_rate > HIGHEST_UNFILTERED ? TAPS_PER_STEP * a.decimation : 0;
    a.n_taps = order + 1;
    a.taps = zeroed_floats(a.n_taps);
    const std::unique_ptr<double[]> ideal(new (std::nothrow) double[static_cast<std::size_t>(a.n_taps)]);
    if (!a.taps || !ideal) return false;
    if (order == 0) {
        a.taps[0] = 1;
        return true;
    }

    constexpr double PI = std::numbers::pi;
    const double cutoff = CUTOFF * a.capture_rate / a.device_rate;
    const int32_t middle = order / 2;
    double sum = 0;
    for (int32_t i = 0; i <= order; i++) {
        const double x = i - middle;
        const double sinc = x == 0 ? 2 * cutoff : std::sin(2 * PI * cutoff * x) / (PI * x);
        const double turn = 2 * PI * i / order;
        ideal[static_cast<std::size_t>(i)] = sinc * (0.42 - 0.5 * std::cos(turn) + 0.08 * std::cos(2 * turn));
        sum += ideal[static_cast<std::size_t>(i)];
    }
    std::transform(ideal.get(), ideal.get() + a.n_taps, a.taps.get(),
                   [sum](double tap) { return static_cast<float>(tap / sum); });
    return true;
}

void free_capture(ova_state& a) {
    a.taps.reset();
    a.delay.reset();
    a.ring.reset();
    a.started = 0;
}

// False when memory is short.
bool setup_capture(ova_state& a, int32_t rate, double seconds) {
    a.device_rate = rate;
    a.decimation = std::max(rate / TARGET_RATE, 1);
    a.capture_rate = rate / a.decimation;

    // A reader can ask for this many samples at most.
    const double length = std::max(std::floor(seconds * a.capture_rate), static_cast<double>(a.capture_rate));
    if (std::isnan(seconds) || length > std::numeric_limits<int32_t>::max()) return false;
    a.ring_length = static_cast<int64_t>(length);
    if (!make_taps(a)) return false;
    a.delay = zeroed_floats(a.n_taps);
    a.ring = zeroed_floats(a.ring_length);
    if (!a.delay || !a.ring) return false;

    a.delay_index = 0;
    a.decimation_count = 0;
    a.total = 0;
    a.block_peak = 0;
    a.block_squares = 0;
    a.block_samples = 0;
    a.block_length = a.capture_rate / 10;
    a.peak_db = SILENCE_DB;
    a.rms_db = SILENCE_DB;
    a.overflows = 0;
    return true;
}

double level_db(double amplitude) {
    return amplitude > SILENCE ? 20 * std::log10(amplitude) : SILENCE_DB;
}

void measure_level(ova_state& a, float y) {
    a.block_peak = std::fmax(a.block_peak, std::fabs(y));
    a.block_squares += static_cast<double>(y) * y;
    if (++a.block_samples < a.block_length) return;

    a.peak_db.store(level_db(a.block_peak), std::memory_order_relaxed);
    a.rms_db.store(level_db(std::sqrt(a.block_squares / a.block_samples)), std::memory_order_relaxed);
    a.block_peak = 0;
    a.block_squares = 0;
    a.block_samples = 0;
}

float filtered(const ova_state& a) {
    const float* const delay = a.delay.get();
    const float* tap = a.taps.get() + a.n_taps;
    double sum = 0;
    for (int32_t i = a.delay_index; i < a.n_taps; i++) sum += static_cast<double>(delay[i]) * *--tap;
    for (int32_t i = 0; i < a.delay_index; i++) sum += static_cast<double>(delay[i]) * *--tap;
    return static_cast<float>(sum);
}

// The one writer of the ring.
void feed(ova_state& a, const float* samples, int64_t frames, int32_t channels) {
    float* const delay = a.delay.get();
    float* const ring = a.ring.get();
    int64_t total = a.total.load(std::memory_order_relaxed);
    for (int64_t frame = 0; frame < frames; frame++) {
        float sum = 0;
        for (int32_t channel = 0; channel < channels; channel++) sum += *samples++;
        delay[a.delay_index] = sum / static_cast<float>(channels);
        if (++a.delay_index == a.n_taps) a.delay_index = 0;
        if (++a.decimation_count < a.decimation) continue;

        a.decimation_count = 0;
        const float y = filtered(a);
        std::atomic_ref(ring[total % a.ring_length]).store(y, std::memory_order_relaxed);
        total++;
        measure_level(a, y);
    }
    a.total.store(total, std::memory_order_release);
}

int in_cb(const void* input, void*, unsigned long frames, const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags flags,
          void* user) {
    ova_state& a = *static_cast<ova_state*>(user);
    if ((flags & paInputOverflow) != 0) a.overflows.fetch_add(1, std::memory_order_relaxed);
    if (input != nullptr) {
        feed(a, static_cast<const float*>(input), static_cast<int64_t>(frames), a.input_channels);
    }
    return paContinue;
}

// ---- Playback --------------------------------------------------------------------------------------------------

int out_cb(const void*, void* output, unsigned long frames, const PaStreamCallbackTimeInfo* time,
           PaStreamCallbackFlags flags, void* user) {
    ova_state& a = *static_cast<ova_state*>(user);
    const bool begun = a.output_started.load(std::memory_order_relaxed) != 0;
    const auto n = static_cast<int64_t>(frames);
    int64_t first = 0;
    if (!begun) {
        const double dac_s = time != nullptr ? time->outputBufferDacTime : 0;
        const double stream_s = time != nullptr ? time->currentTime : 0;
        first = ova_place_start(a, n, dac_s, stream_s, platform_now());
    }
    if (ova_fill_output(a, static_cast<float*>(output), n, first)) {
        if (begun && (flags & paOutputUnderflow) != 0) a.underflows.fetch_add(1, std::memory_order_relaxed);
        return paContinue;
    }
    a.drain -= n;
    return a.drain >= 0 ? paContinue : paComplete;
}

// Frames by which a stream must outlast the transmission. With ALSA, PortAudio drops what is still queued when a stream
// completes: the closing ramp and some of the last chip.
int64_t frames_to_drain(const PaDeviceInfo& device, double latency_s, int32_t rate) {
    const PaHostApiInfo* api = Pa_GetHostApiInfo(device.hostApi);
    if (api == nullptr || api->type != paALSA || !(latency_s >= 0 && latency_s < MAX_LATENCY)) return 0;
    return static_cast<int64_t>(std::ceil(latency_s * rate)) * 2;
}

}  // namespace

void OvaCloseStream::operator()(void* stream) const noexcept {
    Pa_StopStream(stream);
    Pa_CloseStream(stream);
}

int32_t ova_available() {
    return 1;
}

int32_t ova_device_count() {
    return pa_ready() ? std::max(Pa_GetDeviceCount(), 0) : 0;
}

int32_t ova_device_info(int32_t index, ovl_audio_device* info) {
    if (info == nullptr || !pa_ready()) return -1;
    const PaDeviceInfo* device = find_device(index);
    if (device == nullptr) return -1;

    *info = {};
    const PaHostApiInfo* api = Pa_GetHostApiInfo(device->hostApi);
    const auto copy = [](auto& field, const char* text) {
        std::snprintf(field, sizeof field, "%s", text != nullptr ? text : "");
    };
    copy(info->name, device->name);
    copy(info->host_api, api != nullptr ? api->name : nullptr);
    info->input_channels = device->maxInputChannels;
    info->output_channels = device->maxOutputChannels;
    info->default_rate = device->defaultSampleRate;
    info->is_default_input = index == Pa_GetDefaultInputDevice() ? 1 : 0;
    info->is_default_output = index == Pa_GetDefaultOutputDevice() ? 1 : 0;
    return 0;
}

ova_state* ova_create() {
    return new (std::nothrow) ova_state{};
}

void ova_destroy(ova_state* a) {
    if (a == nullptr) return;
    ova_stop_output(a);
    ova_stop_input(a);
    delete a;
}

int32_t ova_start_input(ova_state* a, int32_t device, int32_t rate, double seconds) {
    if (a == nullptr) return -1;
    a->error[0] = '\0';
    ova_stop_input(a);
    if (seconds <= 0) seconds = DEFAULT_SECONDS;

    if (device == OVL_AUDIO_NONE) {
        if (rate < MIN_PUSH_RATE || rate > MAX_PUSH_RATE) return fail(*a, "rate out of range (8000-384000 Hz)");
        if (!setup_capture(*a, rate, seconds)) {
            free_capture(*a);
            return fail(*a, "out of memory");
        }
        a->input_latency = 0;
        a->started = 1;
        return 0;
    }

    if (!pa_ready()) return fail(*a, "PortAudio initialization failed");
    if (device == -1) device = Pa_GetDefaultInputDevice();
    const PaDeviceInfo* info = find_device(device);
    if (info == nullptr || info->maxInputChannels < 1) return fail(*a, "no such input device");

    if (rate <= 0) {
        const double usual = info->defaultSampleRate;
        if (!(usual >= 1 && usual <= std::numeric_limits<int32_t>::max())) return fail(*a, "no such input device");
        rate = static_cast<int32_t>(usual);
    }
    a->input_channels = info->maxInputChannels >= 2 ? 2 : 1;
    if (!setup_capture(*a, rate, seconds)) {
        free_capture(*a);
        return fail(*a, "out of memory");
    }
    const PaStreamParameters parameters = {device, a->input_channels, paFloat32, info->defaultHighInputLatency,
                                           nullptr};
    PaStream* stream = nullptr;
    PaError error =
        Pa_OpenStream(&stream, &parameters, nullptr, rate, paFramesPerBufferUnspecified, paNoFlag, in_cb, a);
    if (error == paNoError) {
        a->input.reset(stream);
        error = Pa_StartStream(stream);
    }
    if (error != paNoError) {
        a->input.reset();
        free_capture(*a);
        return fail(*a, "cannot open the input device", ": ", Pa_GetErrorText(error));
    }
    const PaStreamInfo* opened = Pa_GetStreamInfo(stream);
    a->input_latency = opened != nullptr ? opened->inputLatency : 0;
    a->started = 1;
    return 0;
}

void ova_stop_input(ova_state* a) {
    if (a == nullptr) return;
    a->input.reset();
    free_capture(*a);
}

int32_t ova_push(ova_state* a, const float* samples, int32_t frames, int32_t channels) {
    if (a == nullptr || a->started == 0 || samples == nullptr || frames < 0 || channels < 1 ||
        channels > MAX_PUSH_CHANNELS) {
        return -1;
    }
    if (a->input) return fail(*a, "push needs device OVL_AUDIO_NONE");
    feed(*a, samples, frames, channels);
    return frames;
}

int32_t ova_last(ova_state* a, float* out, int32_t n) {
    if (a == nullptr || a->started == 0 || out == nullptr || n < 1) return 0;
    const int64_t total = a->total.load(std::memory_order_acquire);
    const int64_t count = std::min({static_cast<int64_t>(n), total, a->ring_length});
    float* const ring = a->ring.get();
    int64_t slot = (total - count) % a->ring_length;
    for (int64_t i = 0; i < count; i++) {
        out[i] = std::atomic_ref(ring[slot]).load(std::memory_order_relaxed);
        if (++slot == a->ring_length) slot = 0;
    }
    return static_cast<int32_t>(count);
}

void ova_input_stats(const ova_state* a, ovl_audio_stats* stats) {
    if (stats == nullptr) return;
    *stats = {.peak_db = SILENCE_DB, .rms_db = SILENCE_DB, .captured_s = 0, .latency_s = 0, .overflows = 0, .rate = 0};
    if (a == nullptr || a->started == 0) return;
    stats->peak_db = a->peak_db.load(std::memory_order_relaxed);
    stats->rms_db = a->rms_db.load(std::memory_order_relaxed);
    stats->captured_s = static_cast<double>(a->total.load(std::memory_order_relaxed)) / a->capture_rate;
    stats->latency_s = a->input_latency;
    stats->overflows = a->overflows.load(std::memory_order_relaxed);
    stats->rate = a->capture_rate;
}

int32_t ova_input_rate(const ova_state* a) {
    return a != nullptr && a->started != 0 ? a->capture_rate : 0;
}

int32_t ova_start_output_at(ova_state* a, int32_t device, ovtx_state* tx, double t0) {
    if (a == nullptr) return -1;
    a->error[0] = '\0';
    ova_stop_output(a);
    a->output_started = 0;
    a->output_latency = 0;
    a->actual_start = 0;
    a->underflows = 0;
    a->drain = 0;
    a->start_time = t0;
    const int32_t rate = ovtx_rate(tx);
    if (rate <= 0) return fail(*a, "no transmit sequence prepared");

    if (!pa_ready()) return fail(*a, "PortAudio initialization failed");
    if (device == -1) device = Pa_GetDefaultOutputDevice();
    const PaDeviceInfo* info = find_device(device);
    if (info == nullptr || info->maxOutputChannels < 1) return fail(*a, "no such output device");

    a->tx = tx;
    a->output_channels = info->maxOutputChannels >= 2 ? 2 : 1;
    const PaStreamParameters parameters = {device, a->output_channels, paFloat32, info->defaultHighOutputLatency,
                                           nullptr};
    PaStream* stream = nullptr;
    PaError error =
        Pa_OpenStream(&stream, nullptr, &parameters, rate, paFramesPerBufferUnspecified, paClipOff, out_cb, a);
    if (error == paNoError) {
        a->output.reset(stream);
        const PaStreamInfo* opened = Pa_GetStreamInfo(stream);
        a->output_latency = opened != nullptr ? opened->outputLatency : 0;
        a->drain = frames_to_drain(*info, a->output_latency, rate);
        error = Pa_StartStream(stream);
    }
    if (error != paNoError) {
        ova_stop_output(a);
        return fail(*a, "cannot open the output device", ": ", Pa_GetErrorText(error));
    }
    return 0;
}

int32_t ova_start_output(ova_state* a, int32_t device, ovtx_state* tx) {
    return ova_start_output_at(a, device, tx, 0);
}

double ova_output_latency(const ova_state* a) {
    return a != nullptr ? a->output_latency : 0;
}

double ova_output_started(const ova_state* a) {
    return a != nullptr && a->output_started.load(std::memory_order_acquire) != 0 ? a->actual_start.load() : 0;
}

int32_t ova_output_active(const ova_state* a) {
    return a != nullptr && a->output && Pa_IsStreamActive(a->output.get()) == 1 ? 1 : 0;
}

void ova_stop_output(ova_state* a) {
    if (a == nullptr) return;
    a->output.reset();
    a->tx = nullptr;
}

const char* ova_error(const ova_state* a) {
    return a != nullptr ? a->error : "no audio";
}

int64_t ova_place_start(ova_state& a, int64_t n, double dac_s, double stream_s, double now_s) {
    double latency = dac_s > 0 && stream_s > 0 ? dac_s - stream_s : a.output_latency;
    if (!(latency >= 0 && latency < MAX_LATENCY)) latency = a.output_latency;
    const double heard_s = now_s + latency;  // when the buffer's first frame is

    const int32_t rate = ovtx_rate(a.tx);
    int64_t first = 0;
    if (a.start_time > 0) {
        const double ahead = std::floor(rate * (a.start_time - heard_s) + 0.5);
        if (ahead >= static_cast<double>(n)) return n;  // also days ahead, where no integer could hold the frames
        if (ahead >= 1) first = static_cast<int64_t>(ahead);
    }
    a.actual_start = heard_s + static_cast<double>(first) / rate;
    a.output_started.store(1, std::memory_order_release);
    return first;
}

bool ova_fill_output(ova_state& a, float* out, int64_t n, int64_t first) {
    std::fill_n(out, first * a.output_channels, 0.0f);
    float* next = out + first * a.output_channels;
    int32_t rendered = 0;
    for (int64_t frame = first; frame < n;) {
        std::array<float, RENDER_CHUNK> chunk;
        const auto wanted = static_cast<int32_t>(std::min(n - frame, RENDER_CHUNK));
        rendered = ovtx_render(a.tx, chunk.data(), wanted);
        for (int32_t i = 0; i < rendered; i++)
            next = std::fill_n(next, a.output_channels, chunk[static_cast<std::size_t>(i)]);
        frame += rendered;
        if (rendered == wanted) continue;
        std::fill(next, out + n * a.output_channels, 0.0f);
        return rendered > 0;
    }
    return true;
}

int32_t ova_output_underflows(const ova_state* a) {
    return a != nullptr ? a->underflows.load(std::memory_order_relaxed) : 0;
}
