// Capture and playback against plain models, on a PortAudio of the tests' own: its devices, answers and failures are
// set by a test, and the test calls back as the sound card would.
#include "ovaudio.h"

#include <gtest/gtest.h>
#include <portaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "failing_memory.h"
#include "liborvel.h"
#include "siggen.h"

// ---- A PortAudio to play with ----------------------------------------------------------------------------------

namespace {

struct Stream {
    std::optional<PaStreamParameters> input;
    std::optional<PaStreamParameters> output;
    double rate;
    unsigned long frames_per_buffer;
    PaStreamFlags flags;
    PaStreamCallback* callback;
    void* user;
    PaStreamInfo info;
    int32_t starts = 0;
    int32_t stops = 0;
    int32_t closes = 0;
};

struct SoundSystem {
    std::vector<std::optional<PaDeviceInfo>> devices;
    std::optional<int> device_count;  // instead of the number of devices
    std::vector<PaHostApiInfo> host_apis;
    PaDeviceIndex default_input = paNoDevice;
    PaDeviceIndex default_output = paNoDevice;
    PaError open_error = paNoError;
    PaError start_error = paNoError;
    bool has_stream_info = true;
    double input_latency = 0;
    double output_latency = 0;
    std::atomic<PaError> active = 1;  // of open streams
    std::string error_text;           // instead of the code's own
    std::vector<std::unique_ptr<Stream>> streams;
    int32_t misuses = 0;  // of streams that are closed or not ours
    Stream& last() { return *streams.back(); }
};

auto sound = std::make_unique<SoundSystem>();

// These live as long as the process, as PortAudio does.
PaError initialize_error = paNoError;
int32_t initializations = 0;
int32_t terminations = 0;
bool termination_is_wrong = false;

Stream* open_stream(PaStream* handle) {
    for (const auto& stream : sound->streams) {
        if (stream.get() == handle && stream->closes == 0) return stream.get();
    }
    sound->misuses++;
    return nullptr;
}

}  // namespace

extern "C" {

PaError Pa_Initialize() {
    initializations++;
    return initialize_error;
}

PaError Pa_Terminate() {
    if (termination_is_wrong || ++terminations > 1) std::_Exit(9);
    std::fprintf(stderr, "terminated\n");
    return paNoError;
}

PaDeviceIndex Pa_GetDeviceCount() {
    return sound->device_count.value_or(static_cast<int>(sound->devices.size()));
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex device) {
    if (device < 0 || device >= static_cast<int>(sound->devices.size())) return nullptr;
    const auto& info = sound->devices[static_cast<std::size_t>(device)];
    return info ? &*info : nullptr;
}

const PaHostApiInfo* Pa_GetHostApiInfo(PaHostApiIndex api) {
    if (api < 0 || api >= static_cast<int>(sound->host_apis.size())) return nullptr;
    return &sound->host_apis[static_cast<std::size_t>(api)];
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    return sound->default_input;
}

PaDeviceIndex Pa_GetDefaultOutputDevice() {
    return sound->default_output;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input, const PaStreamParameters* output, double rate,
                      unsigned long frames_per_buffer, PaStreamFlags flags, PaStreamCallback* callback, void* user) {
    if (sound->open_error != paNoError) return sound->open_error;
    auto made = std::make_unique<Stream>();
    if (input != nullptr) made->input = *input;
    if (output != nullptr) made->output = *output;
    made->rate = rate;
    made->frames_per_buffer = frames_per_buffer;
    made->flags = flags;
    made->callback = callback;
    made->user = user;
    made->info = {1, sound->input_latency, sound->output_latency, rate};
    *stream = made.get();
    sound->streams.push_back(std::move(made));
    return paNoError;
}

PaError Pa_StartStream(PaStream* handle) {
    Stream* stream = open_stream(handle);
    if (stream == nullptr) return paBadStreamPtr;
    if (sound->start_error == paNoError) stream->starts++;
    return sound->start_error;
}

PaError Pa_StopStream(PaStream* handle) {
    Stream* stream = open_stream(handle);
    if (stream == nullptr) return paBadStreamPtr;
    stream->stops++;
    return paNoError;
}

PaError Pa_CloseStream(PaStream* handle) {
    Stream* stream = open_stream(handle);
    if (stream == nullptr) return paBadStreamPtr;
    stream->closes++;
    return paNoError;
}

PaError Pa_IsStreamActive(PaStream* handle) {
    return open_stream(handle) != nullptr ? sound->active.load() : static_cast<PaError>(paBadStreamPtr);
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream* handle) {
    const Stream* stream = open_stream(handle);
    return stream != nullptr && sound->has_stream_info ? &stream->info : nullptr;
}

const char* Pa_GetErrorText(PaError error) {
    if (!sound->error_text.empty()) return sound->error_text.c_str();
    switch (error) {
        case paDeviceUnavailable:
            return "The device is out for lunch";
        case paInvalidSampleRate:
            return "Nobody plays that fast";
        default:
            return "Some error";
    }
}

}  // extern "C"

namespace {

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
constexpr int32_t HIGHEST = std::numeric_limits<int32_t>::max();

using Audio = std::unique_ptr<ovl_audio, decltype(&ovl_audio_destroy)>;
Audio make_audio() {
    return {ovl_audio_create(), ovl_audio_destroy};
}

using Transmitter = std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)>;
Transmitter make_transmitter() {
    return {ovl_tx_create(), ovl_tx_destroy};
}

ovl_audio_stats stats_of(const Audio& audio) {
    ovl_audio_stats stats;
    ovl_audio_input_stats(audio.get(), &stats);
    return stats;
}

// The newest n captured samples.
std::vector<float> last_of(const Audio& audio, int32_t n) {
    std::vector<float> samples(static_cast<std::size_t>(n) + 1, 7.0f);
    const int32_t copied = ovl_audio_last(audio.get(), samples.data(), n);
    EXPECT_GE(copied, 0);
    EXPECT_EQ(samples[static_cast<std::size_t>(copied)], 7.0f) << "written past the samples";
    samples.resize(static_cast<std::size_t>(copied));
    return samples;
}

void push(const Audio& audio, const std::vector<float>& samples, int32_t channels = 1) {
    const auto frames = static_cast<int32_t>(samples.size()) / channels;
    ASSERT_EQ(ovl_audio_push(audio.get(), samples.data(), frames, channels), frames);
}

// Pushes in chunks of random lengths, empty ones too.
void push_in_chunks(const Audio& audio, Random& random, const std::vector<float>& samples, int32_t channels,
                    int32_t longest) {
    const auto frames = static_cast<int32_t>(samples.size()) / channels;
    for (int32_t done = 0; done < frames;) {
        const int32_t chunk = std::min(random.integer(0, longest), frames - done);
        const float* next = samples.data() + static_cast<std::ptrdiff_t>(done) * channels;
        ASSERT_EQ(ovl_audio_push(audio.get(), next, chunk, channels), chunk);
        done += chunk;
    }
}

std::vector<float> random_samples(Random& random, int32_t n) {
    std::vector<float> samples(static_cast<std::size_t>(n));
    for (float& sample : samples) sample = static_cast<float>(random.uniform(-1, 1));
    return samples;
}

// first, first + 1, …: exact below 2^24.
std::vector<float> counting(int32_t first, int32_t n) {
    std::vector<float> samples;
    for (int32_t i = 0; i < n; i++) samples.push_back(static_cast<float>(first + i));
    return samples;
}

// ---- Plain model of the capture chain ----------------------------------------------------------------------------

struct Chain {
    int32_t decimation;
    int32_t rate;
    std::vector<double> taps;
};

Chain make_chain(int32_t device_rate) {
    Chain chain;
    chain.decimation = std::max(device_rate / 11025, 1);
    chain.rate = device_rate / chain.decimation;
    if (device_rate <= 22049) {
        chain.taps = {1};
        return chain;
    }
    constexpr long double PI = std::numbers::pi_v<long double>;
    const int32_t order = 16 * chain.decimation;
    const long double cutoff = 0.4L * chain.rate / device_rate;
    std::vector<long double> taps;
    long double sum = 0;
    for (int32_t i = 0; i <= order; i++) {
        const long double x = i - order / 2.0L;
        const long double sinc = x == 0 ? 2 * cutoff : std::sin(2 * PI * cutoff * x) / (PI * x);
        const long double window = 0.42L - 0.5L * std::cos(2 * PI * i / order) + 0.08L * std::cos(4 * PI * i / order);
        taps.push_back(sinc * window);
        sum += taps.back();
    }
    for (const long double tap : taps) chain.taps.push_back(static_cast<float>(tap / sum));
    return chain;
}

// Gain at a frequency, without the delay of half the taps.
double gain(const Chain& chain, double frequency, int32_t device_rate) {
    const double turn = 2 * std::numbers::pi * frequency / device_rate;
    const double middle = static_cast<double>(chain.taps.size() - 1) / 2;
    double sum = 0;
    for (std::size_t i = 0; i < chain.taps.size(); i++) {
        sum += chain.taps[i] * std::cos(turn * (static_cast<double>(i) - middle));
    }
    return sum;
}

std::vector<float> mono_of(const std::vector<float>& samples, int32_t channels) {
    std::vector<float> mono;
    for (std::size_t i = 0; i < samples.size(); i += static_cast<std::size_t>(channels)) {
        float sum = 0;
        for (int32_t c = 0; c < channels; c++) sum += samples[i + static_cast<std::size_t>(c)];
        mono.push_back(sum / static_cast<float>(channels));
    }
    return mono;
}

// Direct convolution of the whole signal, then every D-th sample of it.
std::vector<float> model_capture(const Chain& chain, const std::vector<float>& mono) {
    std::vector<float> captured;
    const auto step = static_cast<std::size_t>(chain.decimation);
    for (std::size_t newest = step - 1; newest < mono.size(); newest += step) {
        double sum = 0;
        for (std::size_t j = 0; j < chain.taps.size() && j <= newest; j++) sum += chain.taps[j] * mono[newest - j];
        captured.push_back(static_cast<float>(sum));
    }
    return captured;
}

// Equal up to one unit in the last place, and to what rounding leaves of numbers of size 1 that cancel.
::testing::AssertionResult same_samples(const std::vector<float>& samples, const std::vector<float>& model) {
    if (samples.size() != model.size()) {
        return ::testing::AssertionFailure() << samples.size() << " samples instead of " << model.size();
    }
    for (std::size_t i = 0; i < model.size(); i++) {
        const float size = std::fabs(model[i]);
        const double ulp = std::nextafter(size, std::numeric_limits<float>::max()) - size;
        if (!(std::fabs(static_cast<double>(samples[i]) - model[i]) <= std::max(ulp, 1e-14))) {
            return ::testing::AssertionFailure() << "sample " << i << ": " << samples[i] << " instead of " << model[i];
        }
    }
    return ::testing::AssertionSuccess();
}

std::vector<float> newest_of(const std::vector<float>& samples, std::size_t n) {
    return {samples.end() - static_cast<std::ptrdiff_t>(std::min(n, samples.size())), samples.end()};
}

struct Levels {
    double peak_db = -120;
    double rms_db = -120;
};

// Of the last whole tenth of a second.
Levels model_levels(const std::vector<float>& captured, int32_t rate) {
    const auto length = static_cast<std::size_t>(rate / 10);
    const std::size_t end = captured.size() / length * length;
    if (end == 0) return {};
    double peak = 0;
    double squares = 0;
    for (std::size_t i = end - length; i < end; i++) {
        peak = std::max(peak, std::fabs(static_cast<double>(captured[i])));
        squares += static_cast<double>(captured[i]) * captured[i];
    }
    const auto db = [](double x) { return x <= 1e-6 ? -120 : 20 * std::log10(x); };
    return {db(peak), db(std::sqrt(squares / static_cast<double>(length)))};
}

// ---- Capture -----------------------------------------------------------------------------------------------------

TEST(Capture, EqualsDirectConvolutionForEveryRateAndChannelCount) {
    Random random(1);
    for (const int32_t rate : {8000, 11025, 12000, 22049, 22050, 44100, 48000, 96000, 192000, 384000}) {
        const Chain chain = make_chain(rate);
        for (int32_t channels = 1; channels <= 16; channels++) {
            SCOPED_TRACE(std::to_string(rate) + " Hz, channels " + std::to_string(channels));
            const Audio audio = make_audio();
            ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 1), 0);
            const std::vector<float> samples = random_samples(random, (rate / 4 + 7) * channels);
            push_in_chunks(audio, random, samples, channels, 997);

            const std::vector<float> model = model_capture(chain, mono_of(samples, channels));
            const std::vector<float> captured = last_of(audio, chain.rate);
            ASSERT_TRUE(same_samples(captured, model));
            const ovl_audio_stats stats = stats_of(audio);
            EXPECT_EQ(stats.rate, chain.rate);
            EXPECT_EQ(ova_input_rate(audio.get()), chain.rate);
            EXPECT_EQ(stats.captured_s, static_cast<double>(model.size()) / chain.rate);
            EXPECT_EQ(stats.latency_s, 0);
            EXPECT_EQ(stats.overflows, 0);
            const Levels levels = model_levels(captured, chain.rate);
            EXPECT_NEAR(stats.peak_db, levels.peak_db, 1e-9);
            EXPECT_NEAR(stats.rms_db, levels.rms_db, 1e-9);
        }
    }
}

TEST(Capture, RateAndFilterLengthFollowFromTheDeviceRate) {
    struct Expected {
        int32_t device_rate, decimation, rate, taps;
    };
    for (const Expected& expected :
         {Expected{8000, 1, 8000, 1}, Expected{11025, 1, 11025, 1}, Expected{12000, 1, 12000, 1},
          Expected{22049, 1, 22049, 1}, Expected{22050, 2, 11025, 33}, Expected{44100, 4, 11025, 65},
          Expected{48000, 4, 12000, 65}, Expected{96000, 8, 12000, 129}, Expected{192000, 17, 11294, 273},
          Expected{384000, 34, 11294, 545}}) {
        SCOPED_TRACE(expected.device_rate);
        const Audio audio = make_audio();
        ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, expected.device_rate, 1), 0);
        EXPECT_EQ(audio->device_rate, expected.device_rate);
        EXPECT_EQ(audio->decimation, expected.decimation);
        EXPECT_EQ(audio->capture_rate, expected.rate);
        EXPECT_EQ(audio->n_taps, expected.taps);
        EXPECT_EQ(audio->block_length, expected.rate / 10);
        double sum = 0;
        for (int32_t i = 0; i < audio->n_taps; i++) sum += audio->taps[static_cast<std::size_t>(i)];
        EXPECT_NEAR(sum, 1, 1e-6);
    }
}

TEST(Capture, AnImpulseComesBackAsTheTaps) {
    for (const int32_t rate : {22050, 48000, 384000}) {
        const Chain chain = make_chain(rate);
        const auto step = static_cast<std::size_t>(chain.decimation);
        for (std::size_t at = 0; at < step; at++) {
            const Audio audio = make_audio();
            ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 1), 0);
            std::vector<float> impulse(chain.taps.size() + 2 * step);
            impulse[at] = 1;
            push(audio, impulse);
            const std::vector<float> captured = last_of(audio, chain.rate);
            for (std::size_t m = 0; m < captured.size(); m++) {
                const std::size_t tap = step * (m + 1) - 1 - at;
                const double expected = tap < chain.taps.size() ? chain.taps[tap] : 0;
                ASSERT_NEAR(captured[m], expected, 1e-9) << rate << " Hz, tap " << tap;
            }
        }
    }
}

TEST(Capture, TheMeanOfTheChannelsIsKept) {
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    push(audio, {1, 0.5f, -0.25f, -0.25f, 0, 1}, 2);
    push(audio, {1, 2, 3, 4, -8, 0}, 3);
    EXPECT_EQ(last_of(audio, 100), (std::vector<float>{0.75f, -0.25f, 0.5f, 2, -4.0f / 3}));
}

TEST(Capture, ARingKeepsTheSecondsAskedForAndAtLeastOne) {
    struct Expected {
        double seconds;
        int32_t kept;
    };
    for (const Expected& expected :
         {Expected{0.5, 8000}, Expected{1, 8000}, Expected{1e-300, 8000}, Expected{1.99999, 15999}, Expected{2, 16000},
          Expected{2.5, 20000}, Expected{0, 480000}, Expected{-0.0, 480000}, Expected{-3, 480000},
          Expected{-1e300, 480000}, Expected{-INF, 480000}}) {
        SCOPED_TRACE(expected.seconds);
        const Audio audio = make_audio();
        ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, expected.seconds), 0);
        push(audio, counting(0, expected.kept + 123));
        EXPECT_EQ(last_of(audio, expected.kept + 100), counting(123, expected.kept));
    }
}

TEST(Capture, MoreThanMemoryHoldsIsRefused) {
    for (const double seconds :
         {NOT_A_NUMBER, -NOT_A_NUMBER, INF, 1e12, 1e15, 1e18, 1e19, 1e300, std::numeric_limits<double>::max()}) {
        for (const int32_t rate : {8000, 48000, 384000}) {
            SCOPED_TRACE(seconds);
            const Audio audio = make_audio();
            EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, seconds), -1);
            EXPECT_STREQ(ovl_audio_last_error(audio.get()), "out of memory");
            EXPECT_EQ(ova_input_rate(audio.get()), 0);
            EXPECT_EQ(stats_of(audio).rate, 0);
            const float sample = 1;
            EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), -1);
            EXPECT_TRUE(last_of(audio, 10).empty());
            EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 1), 0);
            EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
        }
    }
}

TEST(Capture, TheNewestSamplesComeOldestFirstOverManyTurnsOfTheRing) {
    Random random(2);
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1.3), 0);
    constexpr int32_t KEPT = 10400;
    int32_t total = 0;
    for (int32_t round = 0; round < 400; round++) {
        const int32_t chunk = random.integer(0, 10) == 0 ? random.integer(0, 3 * KEPT) : random.integer(0, 700);
        push(audio, counting(total, chunk));
        total += chunk;
        const int32_t n = random.integer(1, KEPT + 500);
        const int32_t count = std::min({n, total, KEPT});
        ASSERT_EQ(last_of(audio, n), counting(total - count, count)) << "round " << round;
        ASSERT_EQ(stats_of(audio).captured_s, total / 8000.0);
    }
    EXPECT_GT(total, 20 * KEPT);
}

TEST(Capture, TheFilteredRingTurnsAsWell) {
    Random random(3);
    const Chain chain = make_chain(48000);
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 48000, 1.25), 0);
    const std::vector<float> samples = random_samples(random, 48000 * 5 + 11);
    push_in_chunks(audio, random, samples, 1, 5000);
    const std::vector<float> model = model_capture(chain, samples);
    EXPECT_TRUE(same_samples(last_of(audio, 60000), newest_of(model, 15000)));
    EXPECT_TRUE(same_samples(last_of(audio, 1), newest_of(model, 1)));
    const Levels levels = model_levels(model, 12000);
    EXPECT_NEAR(stats_of(audio).peak_db, levels.peak_db, 1e-6);
    EXPECT_NEAR(stats_of(audio).rms_db, levels.rms_db, 1e-6);
}

TEST(Capture, ThereIsNothingToCopyBeforeTheFirstSample) {
    const Audio audio = make_audio();
    EXPECT_TRUE(last_of(audio, 10).empty());
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 48000, 1), 0);
    EXPECT_TRUE(last_of(audio, 10).empty());
    push(audio, {1, 1, 1});
    EXPECT_TRUE(last_of(audio, 10).empty());
    push(audio, {1});
    EXPECT_EQ(last_of(audio, 10).size(), 1u);
}

TEST(Capture, HostileCopiesTakeNothing) {
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    push(audio, counting(0, 100));
    float out = 7;
    EXPECT_EQ(ovl_audio_last(nullptr, &out, 1), 0);
    EXPECT_EQ(ovl_audio_last(audio.get(), nullptr, 1), 0);
    EXPECT_EQ(ovl_audio_last(audio.get(), &out, 0), 0);
    EXPECT_EQ(ovl_audio_last(audio.get(), &out, -1), 0);
    EXPECT_EQ(ovl_audio_last(audio.get(), &out, LOWEST), 0);
    EXPECT_EQ(out, 7);
    std::vector<float> all(100);
    EXPECT_EQ(ovl_audio_last(audio.get(), all.data(), HIGHEST), 100);
    EXPECT_EQ(all, counting(0, 100));
}

TEST(Capture, ANewStartForgetsTheOldCapture) {
    Random random(4);
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 48000, 3), 0);
    push(audio, random_samples(random, 100003));
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 22050, 1), 0);
    const ovl_audio_stats stats = stats_of(audio);
    EXPECT_EQ(stats.peak_db, -120);
    EXPECT_EQ(stats.rms_db, -120);
    EXPECT_EQ(stats.captured_s, 0);
    EXPECT_EQ(stats.rate, 11025);
    EXPECT_TRUE(last_of(audio, 10).empty());

    // Neither the delay line nor the phase of the decimation nor the level block is left from before.
    const std::vector<float> samples = random_samples(random, 22050);
    push(audio, samples);
    const std::vector<float> model = model_capture(make_chain(22050), samples);
    EXPECT_TRUE(same_samples(last_of(audio, 11025), model));
    EXPECT_NEAR(stats_of(audio).rms_db, model_levels(model, 11025).rms_db, 1e-6);
}

TEST(Capture, AStopEndsIt) {
    const Audio audio = make_audio();
    ovl_audio_stop_input(audio.get());
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    push(audio, counting(1, 4000));
    for (int32_t i = 0; i < 2; i++) {
        ovl_audio_stop_input(audio.get());
        EXPECT_FALSE(audio->taps || audio->delay || audio->ring) << "memory is still held";
        EXPECT_EQ(ova_input_rate(audio.get()), 0);
        EXPECT_TRUE(last_of(audio, 10).empty());
        const float sample = 1;
        EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), -1);
        const ovl_audio_stats stats = stats_of(audio);
        EXPECT_EQ(stats.peak_db, -120);
        EXPECT_EQ(stats.rms_db, -120);
        EXPECT_EQ(stats.captured_s, 0);
        EXPECT_EQ(stats.latency_s, 0);
        EXPECT_EQ(stats.overflows, 0);
        EXPECT_EQ(stats.rate, 0);
    }
    ovl_audio_stop_input(nullptr);
}

TEST(Capture, RatesOutOfRangeAreRefusedBeforeAnythingElse) {
    for (const int32_t rate : {LOWEST, -48000, -1, 0, 1, 7999, 384001, HIGHEST}) {
        for (const double seconds : {1.0, NOT_A_NUMBER, 1e12}) {
            const Audio audio = make_audio();
            ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
            EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, seconds), -1);
            EXPECT_STREQ(ovl_audio_last_error(audio.get()), "rate out of range (8000-384000 Hz)");
            EXPECT_EQ(ova_input_rate(audio.get()), 0) << "the capture before goes on";
        }
    }
    for (const int32_t rate : {8000, 8001, 383999, 384000}) {
        const Audio audio = make_audio();
        EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 1), 0);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
        EXPECT_EQ(ova_input_rate(audio.get()), rate / std::max(1, rate / 11025));
    }
}

TEST(Capture, HostilePushesAreRefusedWithoutAText) {
    const Audio audio = make_audio();
    const std::vector<float> samples(64, 1.0f);
    EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), 1, 1), -1) << "not started";
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);

    EXPECT_EQ(ovl_audio_push(nullptr, samples.data(), 1, 1), -1);
    EXPECT_EQ(ovl_audio_push(audio.get(), nullptr, 1, 1), -1);
    EXPECT_EQ(ovl_audio_push(audio.get(), nullptr, 0, 1), -1);
    for (const int32_t frames : {-1, -1000, LOWEST}) {
        EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), frames, 1), -1);
    }
    for (const int32_t channels : {LOWEST, -1, 0, 17, 1000, HIGHEST}) {
        EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), 1, channels), -1);
        EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), 0, channels), -1);
    }
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
    EXPECT_EQ(stats_of(audio).captured_s, 0);

    EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), 0, 1), 0);
    EXPECT_EQ(ovl_audio_push(audio.get(), samples.data(), 4, 16), 4);
    EXPECT_EQ(last_of(audio, 10).size(), 4u);
}

TEST(Capture, ARefusedPushLeavesTheTextOfTheFailedStart) {
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 1, 1), -1);
    const float sample = 1;
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 17), -1);
    EXPECT_TRUE(last_of(audio, 1).empty());
    stats_of(audio);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "rate out of range (8000-384000 Hz)");
    EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
}

TEST(Capture, NullObjectsSaySo) {
    EXPECT_EQ(ovl_audio_available(), 1);
    EXPECT_STREQ(ovl_audio_last_error(nullptr), "no audio");
    EXPECT_EQ(ovl_audio_start_input(nullptr, OVL_AUDIO_NONE, 8000, 1), -1);
    EXPECT_EQ(ova_input_rate(nullptr), 0);
    ovl_audio_destroy(nullptr);

    ovl_audio_stats stats{1, 2, 3, 4, 5, 6};
    ovl_audio_input_stats(nullptr, &stats);
    EXPECT_EQ(stats.peak_db, -120);
    EXPECT_EQ(stats.rms_db, -120);
    EXPECT_EQ(stats.captured_s, 0);
    EXPECT_EQ(stats.latency_s, 0);
    EXPECT_EQ(stats.overflows, 0);
    EXPECT_EQ(stats.rate, 0);
    const Audio audio = make_audio();
    ovl_audio_input_stats(audio.get(), nullptr);
    ovl_audio_input_stats(nullptr, nullptr);
}

TEST(Capture, LevelsChangeEveryTenthOfASecond) {
    Random random(5);
    for (const int32_t rate : {8000, 11025, 12007}) {
        const Audio audio = make_audio();
        ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 4), 0);
        std::vector<float> all;
        for (int32_t i = 0; i < 60; i++) {
            std::vector<float> samples = random_samples(random, random.integer(1, rate / 17));
            const auto volume = static_cast<float>(std::pow(10, random.uniform(-7, 1)));
            for (float& sample : samples) sample *= volume;
            push(audio, samples);
            all.insert(all.end(), samples.begin(), samples.end());
            const Levels levels = model_levels(all, rate);
            ASSERT_NEAR(stats_of(audio).peak_db, levels.peak_db, 1e-9) << all.size();
            ASSERT_NEAR(stats_of(audio).rms_db, levels.rms_db, 1e-9) << all.size();
        }
    }
}

TEST(Capture, LevelsEndAtMinus120) {
    const float at = 1e-6f;  // a little below one millionth
    const float above = std::nextafter(at, 1.0f);
    const auto levels_of = [](float amplitude) {
        const Audio audio = make_audio();
        EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
        push(audio, std::vector<float>(799, amplitude));
        EXPECT_EQ(stats_of(audio).peak_db, -120) << "before the tenth of a second is full";
        push(audio, {-amplitude});
        return stats_of(audio);
    };
    EXPECT_EQ(levels_of(0).peak_db, -120);
    EXPECT_EQ(levels_of(at).peak_db, -120);
    EXPECT_EQ(levels_of(at).rms_db, -120);
    EXPECT_NEAR(levels_of(above).peak_db, 20 * std::log10(static_cast<double>(above)), 1e-9);
    EXPECT_GT(levels_of(above).peak_db, -120);
    EXPECT_GT(levels_of(above).rms_db, -120);
    EXPECT_NEAR(levels_of(1).peak_db, 0, 1e-9);
    EXPECT_NEAR(levels_of(1).rms_db, 0, 1e-9);
    EXPECT_NEAR(levels_of(0.5f).rms_db, -6.0206, 1e-4);
    EXPECT_NEAR(levels_of(-2).peak_db, 6.0206, 1e-4);
}

TEST(Capture, SamplesThatAreNoNumbersPassAndLeaveAgain) {
    Random random(6);
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity()}) {
        for (const int32_t rate : {8000, 48000}) {
            const Chain chain = make_chain(rate);
            const auto step = static_cast<std::size_t>(chain.decimation);
            for (const std::size_t at : {12000u, 12001u, 12002u, 12003u}) {
                const Audio audio = make_audio();
                ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, rate, 4), 0);
                std::vector<float> samples = random_samples(random, rate + 15000);
                samples[at] = 0;
                const std::vector<float> model = model_capture(chain, samples);
                samples[at] = bad;
                push(audio, samples);
                const std::vector<float> captured = last_of(audio, 4 * chain.rate);
                ASSERT_EQ(captured.size(), model.size());
                for (std::size_t m = 0; m < model.size(); m++) {
                    const std::size_t newest = step * (m + 1) - 1;
                    const bool holds_it = newest >= at && newest < at + chain.taps.size();
                    if (holds_it) {
                        ASSERT_FALSE(std::isfinite(captured[m])) << m;
                    } else {
                        ASSERT_NEAR(captured[m], model[m], 1e-6) << m;
                    }
                }
                const Levels levels = model_levels(model, chain.rate);
                EXPECT_NEAR(stats_of(audio).peak_db, levels.peak_db, 1e-4);
                EXPECT_NEAR(stats_of(audio).rms_db, levels.rms_db, 1e-4);
            }
        }
    }
}

// ---- Frequency response ------------------------------------------------------------------------------------------

// What the chain makes of a tone of amplitude 1: everything that is captured in a second, after the filter has filled.
std::vector<float> capture_tone(int32_t device_rate, double frequency) {
    const Audio audio = make_audio();
    EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, device_rate, 1), 0);
    std::vector<float> samples;
    for (int64_t i = 0; i < device_rate + device_rate / 8; i++) {
        const double turns = std::fmod(static_cast<double>(i) * frequency / device_rate, 1.0);
        samples.push_back(static_cast<float>(std::cos(2 * std::numbers::pi * turns)));
    }
    push(audio, samples);
    return last_of(audio, ova_input_rate(audio.get()));
}

double rms_db(const std::vector<float>& samples) {
    double squares = 0;
    for (const float sample : samples) squares += static_cast<double>(sample) * sample;
    return 10 * std::log10(2 * squares / static_cast<double>(samples.size()) + 1e-30);
}

// Amplitude of one frequency in a second of samples, dB.
double tone_db(const std::vector<float>& samples, double frequency) {
    std::complex<double> sum = 0;
    for (std::size_t i = 0; i < samples.size(); i++) {
        sum += static_cast<double>(samples[i]) *
               std::polar(1.0, -2 * std::numbers::pi * frequency * static_cast<double>(i) /
                                   static_cast<double>(samples.size()));
    }
    return 20 * std::log10(2 * std::abs(sum) / static_cast<double>(samples.size()) + 1e-30);
}

TEST(CaptureFilter, TonesComeThroughAsTheTapsSayUpToTheirPhase) {
    for (const int32_t device_rate : {22050, 48000, 192000}) {
        const Chain chain = make_chain(device_rate);
        for (const double part : {0.0, 0.01, 0.1, 0.2, 0.3, 0.4, 0.5, 0.55, 0.6, 0.75, 0.9, 1.0}) {
            const double frequency = part * chain.rate;
            const double amplitude = gain(chain, frequency, device_rate);
            const std::vector<float> captured = capture_tone(device_rate, frequency);
            const int64_t total = (device_rate + device_rate / 8) / chain.decimation;
            const double delay = static_cast<double>(chain.taps.size() - 1) / 2;
            for (std::size_t i = 0; i < captured.size(); i++) {
                const auto m =
                    static_cast<double>(total) - static_cast<double>(captured.size()) + static_cast<double>(i);
                const double at = chain.decimation * (m + 1) - 1 - delay;
                const double angle = 2 * std::numbers::pi * std::fmod(at * frequency / device_rate, 1.0);
                ASSERT_NEAR(captured[i], amplitude * std::cos(angle), 2e-6) << device_rate << " " << part;
            }
        }
    }
}

TEST(CaptureFilter, IsFlatToAQuarterOfTheCaptureRate) {
    for (const int32_t device_rate : {22050, 48000, 192000, 384000}) {
        const Chain chain = make_chain(device_rate);
        for (const double part : {0.005, 0.05, 0.1, 0.15, 0.2, 0.24}) {
            const double frequency = std::floor(part * chain.rate);
            EXPECT_NEAR(rms_db(capture_tone(device_rate, frequency)), 0, 0.01) << device_rate << " " << frequency;
        }
        EXPECT_NEAR(rms_db(capture_tone(device_rate, std::floor(0.27 * chain.rate))), 0, 0.1) << device_rate;
        EXPECT_NEAR(rms_db(capture_tone(device_rate, 0.4 * chain.rate)), -6.02, 0.01) << device_rate;
    }
}

TEST(CaptureFilter, WhatWouldFoldIntoThePassBandIsGone) {
    for (const int32_t device_rate : {22050, 48000, 192000}) {
        const Chain chain = make_chain(device_rate);
        for (int32_t frequency = static_cast<int32_t>(0.58 * chain.rate); frequency < device_rate / 2;
             frequency += device_rate / 40) {
            EXPECT_LT(rms_db(capture_tone(device_rate, frequency)), -74.9) << device_rate << " " << frequency;
        }
    }
}

TEST(CaptureFilter, HalfTheCaptureRateFoldsDown) {
    // 6300 Hz lies 300 Hz above half of 12000 Hz and comes out 300 Hz below, already weak.
    const double expected = 20 * std::log10(gain(make_chain(48000), 6300, 48000));
    EXPECT_LT(expected, -35);
    const std::vector<float> captured = capture_tone(48000, 6300);
    EXPECT_NEAR(tone_db(captured, 5700), expected, 0.01);
    EXPECT_NEAR(rms_db(captured), expected, 0.01) << "and nowhere else";
    // 10500 Hz folds to the frequency where stations are: nothing of it is left.
    EXPECT_LT(tone_db(capture_tone(48000, 10500), 1500), -75);
    EXPECT_LT(tone_db(capture_tone(48000, 13500), 1500), -75);
    EXPECT_NEAR(tone_db(capture_tone(48000, 1500), 1500), 0, 0.001);
}

// ---- Devices -----------------------------------------------------------------------------------------------------

PaDeviceInfo device(const char* name, PaHostApiIndex api, int inputs, int outputs, double rate) {
    PaDeviceInfo info{};
    info.structVersion = 2;
    info.name = name;
    info.hostApi = api;
    info.maxInputChannels = inputs;
    info.maxOutputChannels = outputs;
    info.defaultLowInputLatency = 0.001;
    info.defaultLowOutputLatency = 0.002;
    info.defaultHighInputLatency = 0.031;
    info.defaultHighOutputLatency = 0.042;
    info.defaultSampleRate = rate;
    return info;
}

PaHostApiInfo host_api(const char* name) {
    PaHostApiInfo info{};
    info.structVersion = 1;
    info.name = name;
    return info;
}

// A machine with sound, the same for every test. Every stream that a test opens is closed when its audio object is
// gone.
class WithSound : public ::testing::Test {
  protected:
    static constexpr int32_t SPEAKER = 0;     // no inputs
    static constexpr int32_t HEADSET = 1;     // one input, two outputs; the default for both
    static constexpr int32_t STUDIO = 2;      // eight inputs and outputs
    static constexpr int32_t VANISHED = 3;    // PortAudio no longer knows it
    static constexpr int32_t MICROPHONE = 4;  // no outputs

    WithSound() {
        sound = std::make_unique<SoundSystem>();
        sound->host_apis = {host_api("First"), host_api("Second")};
        sound->devices = {device("Speaker", 0, 0, 1, 44100), device("Headset", 1, 1, 2, 48000.9),
                          device("Studio", 0, 8, 8, 96000), std::nullopt, device("Microphone", 1, 2, 0, 192000)};
        sound->default_input = HEADSET;
        sound->default_output = HEADSET;
        sound->input_latency = 0.125;
        sound->output_latency = 0.25;
    }

    void TearDown() override {
        audio.reset();
        for (const auto& stream : sound->streams) {
            EXPECT_EQ(stream->closes, 1);
            EXPECT_GE(stream->stops, stream->starts) << "closed without a stop";
        }
        EXPECT_EQ(sound->misuses, 0);
        EXPECT_LE(initializations, 1);
        EXPECT_EQ(terminations, 0);
        sound = std::make_unique<SoundSystem>();
    }

    // Buffers as the sound card delivers them.
    static int deliver(const std::vector<float>& samples, int channels, PaStreamCallbackFlags flags = 0) {
        const PaStreamCallbackTimeInfo time{1, 1, 0};
        return sound->last().callback(samples.data(), nullptr, samples.size() / static_cast<std::size_t>(channels),
                                      &time, flags, sound->last().user);
    }

    Audio audio = make_audio();
};

using AudioDevices = WithSound;

TEST_F(AudioDevices, AreCountedAndNeverNegative) {
    EXPECT_EQ(ovl_audio_device_count(), 5);
    sound->device_count = 0;
    EXPECT_EQ(ovl_audio_device_count(), 0);
    sound->device_count = -1;
    EXPECT_EQ(ovl_audio_device_count(), 0);
    sound->device_count = paNotInitialized;
    EXPECT_EQ(ovl_audio_device_count(), 0);
    ovl_audio_device info{};
    EXPECT_EQ(ovl_audio_device_info(0, &info), -1);
    EXPECT_EQ(ovl_audio_start_input(audio.get(), 0, 48000, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such input device");
}

TEST_F(AudioDevices, AreDescribedInEveryField) {
    sound->default_output = STUDIO;
    ovl_audio_device info;
    std::memset(&info, 0x55, sizeof info);
    ASSERT_EQ(ovl_audio_device_info(HEADSET, &info), 0);
    EXPECT_STREQ(info.name, "Headset");
    EXPECT_STREQ(info.host_api, "Second");
    EXPECT_EQ(info.input_channels, 1);
    EXPECT_EQ(info.output_channels, 2);
    EXPECT_EQ(info.default_rate, 48000.9);
    EXPECT_EQ(info.is_default_input, 1);
    EXPECT_EQ(info.is_default_output, 0);
    EXPECT_EQ(info.name[sizeof info.name - 1], 0) << "the record is cleared first";
    EXPECT_EQ(info.host_api[sizeof info.host_api - 1], 0);

    ASSERT_EQ(ovl_audio_device_info(STUDIO, &info), 0);
    EXPECT_STREQ(info.name, "Studio");
    EXPECT_STREQ(info.host_api, "First");
    EXPECT_EQ(info.input_channels, 8);
    EXPECT_EQ(info.output_channels, 8);
    EXPECT_EQ(info.default_rate, 96000);
    EXPECT_EQ(info.is_default_input, 0);
    EXPECT_EQ(info.is_default_output, 1);
}

TEST_F(AudioDevices, MayLackNamesOrHaveLongOnes) {
    sound->devices[SPEAKER]->name = nullptr;
    sound->devices[HEADSET]->hostApi = 17;
    ovl_audio_device info;
    std::memset(&info, 0x55, sizeof info);
    ASSERT_EQ(ovl_audio_device_info(SPEAKER, &info), 0);
    EXPECT_STREQ(info.name, "");
    EXPECT_STREQ(info.host_api, "First");
    sound->host_apis[0].name = nullptr;
    ASSERT_EQ(ovl_audio_device_info(SPEAKER, &info), 0);
    EXPECT_STREQ(info.host_api, "");
    ASSERT_EQ(ovl_audio_device_info(HEADSET, &info), 0);
    EXPECT_STREQ(info.name, "Headset");
    EXPECT_STREQ(info.host_api, "");

    for (const std::size_t length : {31u, 32u, 127u, 128u, 129u, 5000u}) {
        const std::string name(length, '%');
        sound->devices[STUDIO]->name = name.c_str();
        sound->host_apis[0].name = name.c_str();
        ASSERT_EQ(ovl_audio_device_info(STUDIO, &info), 0);
        EXPECT_EQ(std::string(info.name), name.substr(0, 127));
        EXPECT_EQ(std::string(info.host_api), name.substr(0, 31));
        EXPECT_EQ(info.input_channels, 8);
    }
}

TEST_F(AudioDevices, ThatDoNotExistAreNotDescribed) {
    ovl_audio_device info;
    for (const int32_t index : {LOWEST, -2, -1, 5, 6, HIGHEST, VANISHED}) {
        EXPECT_EQ(ovl_audio_device_info(index, &info), -1) << index;
    }
    EXPECT_EQ(ovl_audio_device_info(HEADSET, nullptr), -1);
    // An index within the list but beyond the count does not exist either.
    sound->device_count = 2;
    EXPECT_EQ(ovl_audio_device_info(HEADSET, &info), 0);
    EXPECT_EQ(ovl_audio_device_info(STUDIO, &info), -1);
}

// ---- PortAudio itself: decided once in a process, so these run in separate processes -------------------------------

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::_Exit(1);
}

bool error_is(const ovl_audio* audio, const char* text) {
    return std::strcmp(ovl_audio_last_error(audio), text) == 0;
}

Transmitter prepared(int32_t samples, int32_t rate = 8000, double tone_hz = 1500);

[[noreturn]] void live_without_portaudio() {
    termination_is_wrong = true;
    initialize_error = paInternalError;
    sound->devices = {device("Device", 0, 2, 2, 48000)};
    sound->default_input = sound->default_output = 0;
    require(ovl_audio_device_count() == 0, "no devices");
    require(initializations == 1, "tried once");
    initialize_error = paNoError;
    ovl_audio_device info;
    require(ovl_audio_device_count() == 0, "still no devices");
    require(ovl_audio_device_info(0, &info) == -1, "no description");

    ovl_audio* audio = ovl_audio_create();
    require(ovl_audio_start_input(audio, 0, 48000, 1) == -1, "no capture");
    require(error_is(audio, "PortAudio initialization failed"), "text of capture");
    require(ovl_audio_start_input(audio, 77, 48000, NOT_A_NUMBER) == -1, "no capture from nowhere");
    require(error_is(audio, "PortAudio initialization failed"), "before the device and the memory");
    const Transmitter tx = prepared(1000);
    require(ovl_audio_start_output(audio, 0, nullptr) == -1, "no playback of nothing");
    require(error_is(audio, "no transmit sequence prepared"), "before PortAudio");
    require(ovl_audio_start_output(audio, 77, tx.get()) == -1, "no playback");
    require(error_is(audio, "PortAudio initialization failed"), "text of playback");
    require(ovl_audio_output_active(audio) == 0, "not active");

    const float sample = 1;
    require(ovl_audio_start_input(audio, OVL_AUDIO_NONE, 8000, 1) == 0, "pushing works");
    require(error_is(audio, ""), "text cleared");
    require(ovl_audio_push(audio, &sample, 1, 1) == 1, "pushed");
    ovl_audio_destroy(audio);
    require(initializations == 1, "never tried again");
    std::exit(0);
}

TEST(PortAudio, AFailureToInitialiseIsFinal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(live_without_portaudio(), ::testing::ExitedWithCode(0), "");
}

[[noreturn]] void count_initialisations() {
    sound->devices = {device("Device", 0, 2, 2, 48000)};
    sound->default_input = sound->default_output = 0;
    const float sample = 1;
    float out = 0;
    ovl_audio* audio = ovl_audio_create();
    require(ovl_audio_available() == 1, "available");
    require(ovl_audio_start_input(audio, OVL_AUDIO_NONE, 8000, 1) == 0, "pushing");
    require(ovl_audio_push(audio, &sample, 1, 1) == 1, "pushed");
    require(ovl_audio_last(audio, &out, 1) == 1, "copied");
    require(ovl_audio_start_output(audio, 0, nullptr) == -1, "nothing to play");
    require(ovl_audio_output_active(audio) == 0, "not active");
    require(initializations == 0, "nothing yet needs PortAudio");

    require(ovl_audio_start_input(audio, 0, 48000, 1) == 0, "capture");
    require(initializations == 1, "now it does");
    const Transmitter tx = prepared(1000);
    require(ovl_audio_start_output(audio, 0, tx.get()) == 0, "playback");
    require(ovl_audio_device_count() == 1, "count");
    ovl_audio_destroy(audio);
    require(initializations == 1 && terminations == 0, "once, and kept to the end");
    std::exit(0);
}

TEST(PortAudio, IsInitialisedWhenFirstNeededAndTerminatedAtTheEnd) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(count_initialisations(), ::testing::ExitedWithCode(0), "terminated");
}

// ---- Capture from a sound card -----------------------------------------------------------------------------------

using CaptureStream = WithSound;

TEST_F(CaptureStream, IsOpenedAsTheDeviceCan) {
    struct Expected {
        int32_t asked, device, channels;
    };
    for (const Expected& expected : {Expected{-1, HEADSET, 1}, Expected{HEADSET, HEADSET, 1},
                                     Expected{STUDIO, STUDIO, 2}, Expected{MICROPHONE, MICROPHONE, 2}}) {
        SCOPED_TRACE(expected.asked);
        ASSERT_EQ(ovl_audio_start_input(audio.get(), expected.asked, 44100, 2), 0);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
        const Stream& stream = sound->last();
        EXPECT_FALSE(stream.output.has_value());
        ASSERT_TRUE(stream.input.has_value());
        EXPECT_EQ(stream.input->device, expected.device);
        EXPECT_EQ(stream.input->channelCount, expected.channels);
        EXPECT_EQ(stream.input->sampleFormat, paFloat32);
        EXPECT_EQ(stream.input->suggestedLatency, 0.031);
        EXPECT_EQ(stream.input->hostApiSpecificStreamInfo, nullptr);
        EXPECT_EQ(stream.rate, 44100);
        EXPECT_EQ(stream.frames_per_buffer, 0u);
        EXPECT_EQ(stream.flags, paNoFlag);
        EXPECT_EQ(stream.user, audio.get());
        EXPECT_EQ(stream.starts, 1);
        EXPECT_EQ(stream.stops, 0);
        EXPECT_EQ(ova_input_rate(audio.get()), 11025);
        EXPECT_EQ(stats_of(audio).latency_s, 0.125);
        EXPECT_EQ(stats_of(audio).rate, 11025);
    }
}

TEST_F(CaptureStream, WithoutARateTakesThatOfTheDevice) {
    for (const int32_t rate : {0, -1, LOWEST}) {
        ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, rate, 1), 0);
        EXPECT_EQ(sound->last().rate, 48000) << "48000.9 is cut";
        EXPECT_EQ(ova_input_rate(audio.get()), 12000);
        ASSERT_EQ(ovl_audio_start_input(audio.get(), STUDIO, rate, 1), 0);
        EXPECT_EQ(sound->last().rate, 96000);
    }
}

TEST_F(CaptureStream, LeavesTheRangeOfRatesToTheSoundCard) {
    for (const int32_t rate : {1, 9, 4000, 7999, 384001, 768000}) {
        ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, rate, 1), 0) << rate;
        EXPECT_EQ(sound->last().rate, rate);
        EXPECT_EQ(deliver(std::vector<float>(2000, 0.5f), 1), paContinue);
        EXPECT_GT(stats_of(audio).captured_s, 0);
    }
}

TEST_F(CaptureStream, NeedsADeviceWithInputs) {
    const auto refused = [&](int32_t index) {
        EXPECT_EQ(ovl_audio_start_input(audio.get(), index, 48000, 1), -1) << index;
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such input device");
        EXPECT_EQ(ova_input_rate(audio.get()), 0);
    };
    for (const int32_t index : {LOWEST, -3, SPEAKER, VANISHED, 5, 6, HIGHEST}) refused(index);
    sound->device_count = 1;
    refused(HEADSET);
    sound->device_count = -1;
    refused(HEADSET);
    sound->device_count.reset();
    sound->default_input = paNoDevice;
    refused(-1);
    sound->default_input = SPEAKER;
    refused(-1);
    sound->devices[HEADSET]->maxInputChannels = -1;
    refused(HEADSET);
    EXPECT_TRUE(sound->streams.empty());
    // The device is checked before memory.
    EXPECT_EQ(ovl_audio_start_input(audio.get(), 77, 48000, NOT_A_NUMBER), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such input device");
}

TEST_F(CaptureStream, NeedsMemory) {
    for (const double seconds : {NOT_A_NUMBER, INF, 1e12, 1e300}) {
        sound->open_error = paDeviceUnavailable;  // which is never reported
        EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, seconds), -1);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "out of memory");
        EXPECT_TRUE(sound->streams.empty());
        EXPECT_FALSE(audio->taps || audio->delay || audio->ring);
    }
}

TEST_F(CaptureStream, WithoutMemoryOpensNothingAndWorksAfterwards) {
    sound->open_error = paDeviceUnavailable;  // asks for no memory
    EXPECT_EQ(refuse_each_request([&](FailingMemory& memory) {
                  const int32_t result =
                      memory.watch([&] { return ovl_audio_start_input(audio.get(), HEADSET, 48000, 1); });
                  EXPECT_EQ(result, -1);
                  EXPECT_STREQ(ovl_audio_last_error(audio.get()),
                               memory.has_refused() ? "out of memory"
                                                    : "cannot open the input device: The device is out for lunch");
                  EXPECT_TRUE(sound->streams.empty());
              }),
              4);
    sound->open_error = paNoError;
    EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), 0);
    EXPECT_EQ(ova_input_rate(audio.get()), 12000);
}

TEST_F(CaptureStream, AsksForNoMemoryToExamineDevices) {
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    ovl_audio_device info;
    EXPECT_GT(memory.watch([] { return ovl_audio_device_count(); }), 0);
    EXPECT_EQ(memory.watch([&] { return ovl_audio_device_info(HEADSET, &info); }), 0);
    EXPECT_EQ(memory.requests(), 0);
}

TEST_F(CaptureStream, ThatCannotBeOpenedSaysWhy) {
    sound->open_error = paDeviceUnavailable;
    EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the input device: The device is out for lunch");
    EXPECT_TRUE(sound->streams.empty());
    EXPECT_FALSE(audio->taps || audio->delay || audio->ring);
    EXPECT_EQ(ova_input_rate(audio.get()), 0);
    const float sample = 1;
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the input device: The device is out for lunch");

    sound->open_error = paNoError;
    EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), 0);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
}

TEST_F(CaptureStream, ThatCannotBeStartedIsClosedAndSaysWhy) {
    sound->start_error = paInvalidSampleRate;
    EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the input device: Nobody plays that fast");
    ASSERT_EQ(sound->streams.size(), 1u);
    EXPECT_EQ(sound->last().closes, 1);
    EXPECT_FALSE(audio->taps || audio->delay || audio->ring);
    EXPECT_EQ(ova_input_rate(audio.get()), 0);
    const float sample = 1;
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), -1);
    EXPECT_TRUE(last_of(audio, 1).empty());
}

TEST_F(CaptureStream, LongReasonsAreCut) {
    sound->open_error = paInternalError;
    for (const std::size_t length : {168u, 169u, 170u, 171u, 172u, 1000u}) {
        sound->error_text = std::string(length, '%');
        EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), -1);
        const std::string whole = "cannot open the input device: " + sound->error_text;
        EXPECT_EQ(std::string(ovl_audio_last_error(audio.get())), whole.substr(0, 199));
    }
}

TEST_F(CaptureStream, LatencyIsZeroWhenTheStreamDoesNotTell) {
    sound->has_stream_info = false;
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), 0);
    EXPECT_EQ(stats_of(audio).latency_s, 0);
    sound->has_stream_info = true;
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), 0);
    EXPECT_EQ(stats_of(audio).latency_s, 0.125);
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 48000, 1), 0);
    EXPECT_EQ(stats_of(audio).latency_s, 0) << "pushed samples have none";
}

TEST_F(CaptureStream, DeliversWhatTheChainMakesOfIt) {
    Random random(7);
    for (const int32_t index : {HEADSET, STUDIO}) {
        const int32_t channels = index == STUDIO ? 2 : 1;
        ASSERT_EQ(ovl_audio_start_input(audio.get(), index, 48000, 2), 0);
        std::vector<float> all;
        for (int32_t i = 0; i < 150; i++) {
            const std::vector<float> samples = random_samples(random, channels * random.integer(0, 1000));
            ASSERT_EQ(deliver(samples, channels), paContinue);
            all.insert(all.end(), samples.begin(), samples.end());
        }
        const std::vector<float> model = model_capture(make_chain(48000), mono_of(all, channels));
        EXPECT_TRUE(same_samples(last_of(audio, 24000), newest_of(model, 24000)));
        EXPECT_EQ(stats_of(audio).captured_s, static_cast<double>(model.size()) / 12000);
    }
}

TEST_F(CaptureStream, CountsOverflowsAndBearsEmptyBuffers) {
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    EXPECT_EQ(deliver({1, 2}, 1, paInputOverflow), paContinue);
    EXPECT_EQ(stats_of(audio).overflows, 1);
    EXPECT_EQ(deliver({3}, 1, paInputUnderflow | paOutputOverflow | paOutputUnderflow | paPrimingOutput), paContinue);
    EXPECT_EQ(stats_of(audio).overflows, 1) << "only input overflows count";
    EXPECT_EQ(deliver({}, 1), paContinue);
    const Stream& stream = sound->last();
    EXPECT_EQ(stream.callback(nullptr, nullptr, 480, nullptr, paInputOverflow | paInputUnderflow, stream.user),
              paContinue);
    EXPECT_EQ(stats_of(audio).overflows, 2);
    EXPECT_EQ(last_of(audio, 10), (std::vector<float>{1, 2, 3}));
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    EXPECT_EQ(stats_of(audio).overflows, 0);
}

TEST_F(CaptureStream, TakesNoPushedSamples) {
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    const float sample = 1;
    // Bad arguments are refused before, without a text.
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 17), -1);
    EXPECT_EQ(ovl_audio_push(audio.get(), nullptr, 1, 1), -1);
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, -1, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "push needs device OVL_AUDIO_NONE");
    EXPECT_EQ(stats_of(audio).captured_s, 0);

    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
    EXPECT_EQ(ovl_audio_push(audio.get(), &sample, 1, 1), 1);
}

TEST_F(CaptureStream, IsStoppedAndClosedByAStopAStartAndTheEnd) {
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    const Stream& first = sound->last();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), STUDIO, 8000, 1), 0);
    EXPECT_EQ(first.stops, 1);
    EXPECT_EQ(first.closes, 1);
    const Stream& second = sound->last();
    EXPECT_EQ(ovl_audio_start_input(audio.get(), SPEAKER, 8000, 1), -1) << "even a refused one";
    EXPECT_EQ(second.closes, 1);
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    const Stream& third = sound->last();
    ovl_audio_stop_input(audio.get());
    EXPECT_EQ(third.stops, 1);
    EXPECT_EQ(third.closes, 1);
    ovl_audio_stop_input(audio.get());
    EXPECT_EQ(third.closes, 1);
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    audio.reset();
    EXPECT_EQ(sound->last().stops, 1);
    EXPECT_EQ(sound->last().closes, 1);
}

// ---- Playback ----------------------------------------------------------------------------------------------------

constexpr float UNTOUCHED = 7;  // louder than anything played

// A carrier of that many samples, the closing ramp included; at 8000 Hz 440 at least.
Transmitter prepared(int32_t samples, int32_t rate, double tone_hz) {
    Transmitter tx = make_transmitter();
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = rate;
    settings.tone_hz = tone_hz;
    ovl_tx_step step{};
    step.kind = OVL_TX_CARRIER;
    step.seconds = (samples - std::floor(rate * settings.ramp_s + 0.5)) / rate;
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0) << ovl_tx_last_error(tx.get());
    return tx;
}

// What such a transmitter renders.
std::vector<float> transmission(int32_t samples, int32_t rate = 8000) {
    const Transmitter tx = prepared(samples, rate);
    std::vector<float> all(static_cast<std::size_t>(samples) + 1);
    EXPECT_EQ(ovl_tx_render(tx.get(), all.data(), samples + 1), samples);
    all.pop_back();
    return all;
}

double wall_clock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool silent(const std::vector<float>& samples) {
    return std::all_of(samples.begin(), samples.end(), [](float sample) { return sample == 0; });
}

// n samples from there on, silence after the last.
std::vector<float> part(const std::vector<float>& samples, std::size_t from, std::size_t n) {
    std::vector<float> out(n);
    for (std::size_t i = 0; i < n && from + i < samples.size(); i++) out[i] = samples[from + i];
    return out;
}

struct Heard {
    std::vector<float> samples;  // of one channel
    int result;
};

class Playback : public WithSound {
  protected:
    void start(int32_t index, ovl_transmitter* tx, double start_time = 0) {
        ASSERT_EQ(ovl_audio_start_output_at(audio.get(), index, tx, start_time), 0)
            << ovl_audio_last_error(audio.get());
    }

    // The next buffer of n frames; all its channels must be the same.
    static Heard next(std::size_t n, double dac_s = 0, double stream_s = 0) {
        const PaStreamCallbackTimeInfo time{0, stream_s, dac_s};
        return next(n, &time);
    }

    static Heard next(std::size_t n, const PaStreamCallbackTimeInfo* time) {
        const Stream& stream = sound->last();
        const auto channels = static_cast<std::size_t>(stream.output->channelCount);
        std::vector<float> buffer(n * channels + 1, UNTOUCHED);
        Heard heard;
        heard.result = stream.callback(nullptr, buffer.data(), n, time, 0, stream.user);
        EXPECT_EQ(buffer.back(), UNTOUCHED) << "written past the buffer";
        for (std::size_t i = 0; i < n; i++) {
            heard.samples.push_back(buffer[i * channels]);
            for (std::size_t c = 0; c < channels; c++) EXPECT_EQ(buffer[i * channels + c], heard.samples.back());
        }
        return heard;
    }

    double started() const { return ovl_audio_output_started(audio.get()); }
};

TEST_F(Playback, IsOpenedAsTheDeviceCan) {
    const Transmitter tx = prepared(1000, 12345);
    struct Expected {
        int32_t asked, device, channels;
    };
    for (const Expected& expected : {Expected{-1, HEADSET, 2}, Expected{HEADSET, HEADSET, 2},
                                     Expected{STUDIO, STUDIO, 2}, Expected{SPEAKER, SPEAKER, 1}}) {
        SCOPED_TRACE(expected.asked);
        start(expected.asked, tx.get());
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
        const Stream& stream = sound->last();
        EXPECT_FALSE(stream.input.has_value());
        ASSERT_TRUE(stream.output.has_value());
        EXPECT_EQ(stream.output->device, expected.device);
        EXPECT_EQ(stream.output->channelCount, expected.channels);
        EXPECT_EQ(stream.output->sampleFormat, paFloat32);
        EXPECT_EQ(stream.output->suggestedLatency, 0.042);
        EXPECT_EQ(stream.output->hostApiSpecificStreamInfo, nullptr);
        EXPECT_EQ(stream.rate, 12345);
        EXPECT_EQ(stream.frames_per_buffer, 0u);
        EXPECT_EQ(stream.flags, paClipOff);
        EXPECT_EQ(stream.user, audio.get());
        EXPECT_EQ(stream.starts, 1);
        EXPECT_EQ(stream.stops, 0);
        EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0.25);
        EXPECT_EQ(started(), 0);
    }
}

TEST_F(Playback, NeedsAPreparedTransmitterBeforeAnythingElse) {
    const Transmitter fresh = make_transmitter();
    const Transmitter refused = prepared(1000);
    EXPECT_EQ(ovl_tx_start(refused.get(), nullptr, nullptr, 0), -1);
    for (ovl_transmitter* tx : {static_cast<ovl_transmitter*>(nullptr), fresh.get(), refused.get()}) {
        for (const int32_t index : {-1, HEADSET, 77}) {
            EXPECT_EQ(ovl_audio_start_output_at(audio.get(), index, tx, 1e9), -1);
            EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no transmit sequence prepared");
            EXPECT_EQ(ovl_audio_start_output(audio.get(), index, tx), -1);
            EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no transmit sequence prepared");
        }
    }
    EXPECT_TRUE(sound->streams.empty());
}

TEST_F(Playback, AsksForNoMemoryButThatOfPortAudio) {
    const Transmitter tx = prepared(1000);
    sound->streams.reserve(4);
    for (const double start_time : {0.0, wall_clock() + 1000}) {
        FailingMemory memory;
        EXPECT_EQ(memory.watch([&] { return ovl_audio_start_output_at(audio.get(), HEADSET, tx.get(), start_time); }),
                  0);
        EXPECT_EQ(memory.requests(), 1) << "the stream";
        FailingMemory rest(1, Refuses::ALL_FURTHER);
        rest.watch([&] {
            std::array<float, 200> buffer{};
            const Stream& stream = sound->last();
            stream.callback(nullptr, buffer.data(), 100, nullptr, 0, stream.user);
            ovl_audio_output_started(audio.get());
            ovl_audio_output_active(audio.get());
            ovl_audio_output_latency(audio.get());
            ovl_audio_last_error(audio.get());
            ovl_audio_stop_output(audio.get());
        });
        EXPECT_EQ(rest.requests(), 0);
        sound->open_error = paDeviceUnavailable;
        FailingMemory failing(1, Refuses::ALL_FURTHER);
        EXPECT_EQ(failing.watch([&] { return ovl_audio_start_output(audio.get(), HEADSET, tx.get()); }), -1);
        EXPECT_EQ(failing.requests(), 0);
        sound->open_error = paNoError;
    }
}

TEST_F(Playback, NeedsADeviceWithOutputs) {
    const Transmitter tx = prepared(1000);
    const auto refused = [&](int32_t index) {
        EXPECT_EQ(ovl_audio_start_output(audio.get(), index, tx.get()), -1) << index;
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such output device");
        EXPECT_EQ(audio->tx, nullptr);
    };
    for (const int32_t index : {LOWEST, -3, OVL_AUDIO_NONE, MICROPHONE, VANISHED, 5, 6, HIGHEST}) refused(index);
    sound->device_count = 1;
    refused(HEADSET);
    sound->device_count = -1;
    refused(HEADSET);
    sound->device_count.reset();
    sound->default_output = paNoDevice;
    refused(-1);
    sound->default_output = MICROPHONE;
    refused(-1);
    sound->devices[HEADSET]->maxOutputChannels = -1;
    refused(HEADSET);
    EXPECT_TRUE(sound->streams.empty());
    start(SPEAKER, tx.get());
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
}

TEST_F(Playback, ThatCannotBeOpenedOrStartedSaysWhyAndForgets) {
    const Transmitter tx = prepared(1000);
    sound->open_error = paDeviceUnavailable;
    EXPECT_EQ(ovl_audio_start_output(audio.get(), HEADSET, tx.get()), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the output device: The device is out for lunch");
    EXPECT_TRUE(sound->streams.empty());
    EXPECT_EQ(audio->tx, nullptr);
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);

    sound->open_error = paNoError;
    sound->start_error = paInvalidSampleRate;
    EXPECT_EQ(ovl_audio_start_output_at(audio.get(), HEADSET, tx.get(), 5), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the output device: Nobody plays that fast");
    ASSERT_EQ(sound->streams.size(), 1u);
    EXPECT_EQ(sound->last().closes, 1);
    EXPECT_EQ(audio->tx, nullptr);
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
    EXPECT_EQ(started(), 0);

    sound->start_error = paNoError;
    start(HEADSET, tx.get());
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 1);
}

TEST_F(Playback, NullObjectsSaySo) {
    const Transmitter tx = prepared(1000);
    EXPECT_EQ(ovl_audio_start_output_at(nullptr, HEADSET, tx.get(), 0), -1);
    EXPECT_EQ(ovl_audio_start_output(nullptr, HEADSET, tx.get()), -1);
    EXPECT_EQ(ovl_audio_output_latency(nullptr), 0);
    EXPECT_EQ(ovl_audio_output_started(nullptr), 0);
    EXPECT_EQ(ovl_audio_output_active(nullptr), 0);
    ovl_audio_stop_output(nullptr);
    EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0);
    EXPECT_EQ(started(), 0);
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
    ovl_audio_stop_output(audio.get());
}

TEST_F(Playback, IsActiveAsLongAsPortAudioSaysSo) {
    const Transmitter tx = prepared(1000);
    start(HEADSET, tx.get());
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 1);
    for (const PaError answer : {0, static_cast<int>(paBadStreamPtr), static_cast<int>(paInternalError)}) {
        sound->active = answer;
        EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
    }
    sound->active = 1;
    ovl_audio_stop_output(audio.get());
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
}

TEST_F(Playback, LatencyIsThatOfTheStream) {
    const Transmitter tx = prepared(1000);
    sound->has_stream_info = false;
    start(HEADSET, tx.get());
    EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0);
    sound->has_stream_info = true;
    start(HEADSET, tx.get());
    EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0.25);
    EXPECT_EQ(ovl_audio_start_output(audio.get(), 77, tx.get()), -1);
    EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0) << "a new start forgets it";
}

TEST_F(Playback, TheStreamsOwnTimesTellTheLatencyUnlessTheyCannotBeTrue) {
    const Transmitter tx = prepared(1000);
    const auto latency_used = [&](double dac_s, double stream_s) {
        start(HEADSET, tx.get());
        EXPECT_EQ(ova_place_start(*audio, 480, dac_s, stream_s, 1000), 0);
        return started() - 1000;
    };
    EXPECT_EQ(latency_used(3.5, 3), 0.5);
    EXPECT_EQ(latency_used(7.75, 3), 4.75);
    EXPECT_EQ(latency_used(3, 3), 0);
    EXPECT_EQ(latency_used(3, 3.125), 0.25) << "played before it was asked for";
    EXPECT_EQ(latency_used(8, 3), 0.25) << "five seconds";
    EXPECT_EQ(latency_used(10, 3), 0.25) << "seven seconds";
    EXPECT_EQ(latency_used(INF, 3), 0.25);
    EXPECT_EQ(latency_used(NOT_A_NUMBER, 3), 0.25);
    EXPECT_EQ(latency_used(3, NOT_A_NUMBER), 0.25);
    EXPECT_EQ(latency_used(INF, INF), 0.25);
    // Either time missing.
    EXPECT_EQ(latency_used(0, 0), 0.25);
    EXPECT_EQ(latency_used(0.5, 0), 0.25);
    EXPECT_EQ(latency_used(0, 0.5), 0.25);
    EXPECT_EQ(latency_used(0.5, -0.5), 0.25);
    EXPECT_EQ(latency_used(-0.5, -1), 0.25);
}

TEST_F(Playback, TheCallbackPassesTheTimesOn) {
    const Transmitter tx = prepared(100000);
    struct Expected {
        double dac_s, stream_s, latency_s;
    };
    for (const Expected& expected : {Expected{13.5, 10, 3.5}, Expected{10, 10, 0}, Expected{17, 10, 0.25},
                                     Expected{10, 11, 0.25}, Expected{0, 10, 0.25}, Expected{1, 0, 0.25}}) {
        start(HEADSET, tx.get());
        const double before = wall_clock();
        next(480, expected.dac_s, expected.stream_s);
        const double after = wall_clock();
        EXPECT_GE(started(), before + expected.latency_s - 1e-6);
        EXPECT_LE(started(), after + expected.latency_s + 1e-6);
    }
    start(HEADSET, tx.get());
    const double before = wall_clock();
    next(480, nullptr);
    EXPECT_GE(started(), before + 0.25 - 1e-6);
    EXPECT_LE(started(), wall_clock() + 0.25 + 1e-6);
}

TEST_F(Playback, GapsAreCountedWhileTheTransmissionIsHeard) {
    const auto buffer = [](PaStreamCallbackFlags flags) {
        const Stream& stream = sound->last();
        const PaStreamCallbackTimeInfo time{0, 0, 0};
        std::vector<float> samples(100 * static_cast<std::size_t>(stream.output->channelCount));
        stream.callback(nullptr, samples.data(), 100, &time, flags, stream.user);
    };
    EXPECT_EQ(ova_output_underflows(nullptr), 0);
    const Transmitter tx = prepared(1000);
    for (int round = 0; round < 2; round++) {
        start(HEADSET, tx.get());
        EXPECT_EQ(ova_output_underflows(audio.get()), 0) << "those of the transmission before";
        buffer(paOutputUnderflow);
        EXPECT_EQ(ova_output_underflows(audio.get()), 0) << "before the first sample";
        buffer(0);
        buffer(paOutputOverflow);
        EXPECT_EQ(ova_output_underflows(audio.get()), 0);
        buffer(paOutputUnderflow);
        buffer(paOutputUnderflow | paOutputOverflow);
        EXPECT_EQ(ova_output_underflows(audio.get()), 2);
    }
    for (int k = 0; k < 10; k++) buffer(0);
    buffer(paOutputUnderflow);
    EXPECT_EQ(ova_output_underflows(audio.get()), 2) << "after the last sample";
}

// Times of this test are exact binary fractions.
TEST_F(Playback, TheStartFallsOnTheNearestFrame) {
    constexpr double FRAME = 1.0 / 8192;
    const Transmitter tx = prepared(1000, 8192);
    struct Expected {
        double ahead;  // frames
        int64_t n, first;
        double frames_late;  // start against the start wanted
    };
    for (const Expected& expected :
         {Expected{0, 480, 0, 0}, Expected{0.25, 480, 0, -0.25}, Expected{0.5, 480, 1, 0.5}, Expected{1, 480, 1, 0},
          Expected{1.25, 480, 1, -0.25}, Expected{1.5, 480, 2, 0.5}, Expected{100.75, 480, 101, 0.25},
          Expected{478, 480, 478, 0}, Expected{479, 480, 479, 0}, Expected{479.25, 480, 479, -0.25},
          Expected{0.25, 1, 0, -0.25}, Expected{-0.25, 480, 0, 0.25}, Expected{-0.5, 480, 0, 0.5},
          Expected{-1, 480, 0, 1}, Expected{-8192, 480, 0, 8192}, Expected{-8192 * 600.0, 480, 0, 8192 * 600.0}}) {
        SCOPED_TRACE(expected.ahead);
        start(HEADSET, tx.get(), 1000);
        const double now = 1000 - 0.5 - expected.ahead * FRAME;
        EXPECT_EQ(ova_place_start(*audio, expected.n, 3.5, 3, now), expected.first);
        EXPECT_EQ(started(), 1000 + expected.frames_late * FRAME);
    }
    struct Later {
        double ahead;
        int64_t n;
    };
    for (const Later& later : {Later{479.5, 480}, Later{479.75, 480}, Later{480, 480}, Later{481, 480}, Later{0.5, 1},
                               Later{1, 1}, Later{8192, 480}, Later{0, 0}}) {
        SCOPED_TRACE(later.ahead);
        start(HEADSET, tx.get(), 1000);
        const double now = 1000 - 0.5 - later.ahead * FRAME;
        EXPECT_EQ(ova_place_start(*audio, later.n, 3.5, 3, now), later.n);
        EXPECT_EQ(started(), 0);
    }
}

TEST_F(Playback, AStartSomeBuffersAheadIsHeardWithinHalfASample) {
    Random random(8);
    int32_t in_time = 0;
    for (const int32_t rate : {8000, 44100, 48000, 384000}) {
        const auto n = static_cast<std::size_t>(rate / 100);
        const int32_t length = rate / 10;
        const std::vector<float> reference = transmission(length, rate);
        const auto silent_head = static_cast<std::size_t>(
            std::find_if(reference.begin(), reference.end(), [](float x) { return x != 0; }) - reference.begin());
        for (const int32_t index : {SPEAKER, HEADSET}) {
            SCOPED_TRACE(rate);
            const Transmitter tx = prepared(length, rate);
            const double wanted = wall_clock() + 2.1 + random.uniform(0, 0.01);
            start(index, tx.get(), wanted);
            std::vector<float> all;
            std::size_t silent_buffers = 0;
            bool placed = false;
            for (double ahead = 0.1; all.size() < 230 * n; ahead += 0.01) {
                // The latency grows as it does when all buffers are asked for at once.
                const double before = wall_clock() + ahead;
                const Heard heard = next(n, 100 + ahead, 100);
                const double after = wall_clock() + ahead;
                if (!placed && started() != 0) {
                    placed = true;
                    // When this test had to wait for a processor the buffer may have been asked for too late.
                    if (after <= wanted) {
                        in_time++;
                        EXPECT_LE(std::fabs(started() - wanted), 0.5 / rate + 1e-6);
                    }
                    const auto first =
                        std::find_if(heard.samples.begin(), heard.samples.end(), [](float x) { return x != 0; }) -
                        heard.samples.begin();
                    // A start at the end of the buffer may leave only the silent head of the tone in it.
                    if (first < static_cast<std::ptrdiff_t>(n)) {
                        const double k = static_cast<double>(first) - static_cast<double>(silent_head);
                        EXPECT_GE(started() - k / rate, before - 1e-6);
                        EXPECT_LE(started() - k / rate, after + 1e-6);
                    }
                } else if (!placed) {
                    silent_buffers++;
                    ASSERT_TRUE(silent(heard.samples));
                    ASSERT_EQ(heard.result, paContinue);
                }
                all.insert(all.end(), heard.samples.begin(), heard.samples.end());
            }
            EXPECT_TRUE(placed);
            EXPECT_LE(silent_buffers, 202u);
            EXPECT_GE(started(), wanted - 0.5 / rate - 1e-6);
            const auto begin = static_cast<std::size_t>(
                                   std::find_if(all.begin(), all.end(), [](float x) { return x != 0; }) - all.begin()) -
                               silent_head;
            EXPECT_EQ(begin / n, silent_buffers);
            EXPECT_EQ(part(all, begin, reference.size()), reference);
            EXPECT_TRUE(silent(part(all, begin + reference.size(), all.size())));
        }
    }
    EXPECT_GT(in_time, 0);
}

TEST_F(Playback, AStartInThePastIsLateAndNotCut) {
    const std::vector<float> reference = transmission(1000);
    for (const double late : {0.5, 3600.0, 1e9}) {
        const Transmitter tx = prepared(1000);
        const double before = wall_clock();
        start(SPEAKER, tx.get(), before - late);
        const Heard heard = next(480);
        EXPECT_EQ(heard.samples, part(reference, 0, 480));
        EXPECT_EQ(heard.result, paContinue);
        EXPECT_GE(started(), before + 0.25 - 1e-6);
        EXPECT_LE(started(), wall_clock() + 0.25 + 1e-6);
    }
}

TEST_F(Playback, WithoutAStartTimeItBeginsAtOnce) {
    const std::vector<float> reference = transmission(1000);
    for (const double start_time : {0.0, -0.0, -1.0, -1e300, -INF, NOT_A_NUMBER}) {
        const Transmitter tx = prepared(1000);
        const double before = wall_clock();
        start(HEADSET, tx.get(), start_time);
        EXPECT_EQ(next(480).samples, part(reference, 0, 480));
        EXPECT_GE(started(), before + 0.25 - 1e-6);
        EXPECT_LE(started(), wall_clock() + 0.25 + 1e-6);
    }
    const Transmitter tx = prepared(1000);
    start(HEADSET, tx.get(), 1e300);
    ASSERT_EQ(ovl_audio_start_output(audio.get(), HEADSET, tx.get()), 0);
    EXPECT_EQ(next(480).samples, part(reference, 0, 480)) << "the start time of before is forgotten";
}

TEST_F(Playback, AStartFarAheadIsWaitedForInSilence) {
    const double now = wall_clock();
    for (const double start_time : {now + 60, now + 3600, now + 44740, now + 86400, now + 1e6, now + 1e9, 1e15, 1e19,
                                    1e300, std::numeric_limits<double>::max(), INF}) {
        SCOPED_TRACE(start_time);
        const Transmitter tx = prepared(100000, 384000);
        start(HEADSET, tx.get(), start_time);
        for (const std::size_t n : {480u, 1u, 4096u, 100000u}) {
            const Heard heard = next(n, 10.1, 10);
            EXPECT_TRUE(silent(heard.samples));
            EXPECT_EQ(heard.result, paContinue);
            EXPECT_EQ(started(), 0);
        }
        ovl_tx_progress progress;
        ovl_tx_status(tx.get(), &progress);
        EXPECT_EQ(progress.elapsed_s, 0);
        EXPECT_EQ(progress.done, 0);
    }
}

TEST_F(Playback, TheStartIsReportedOnce) {
    const Transmitter tx = prepared(8000);
    start(HEADSET, tx.get());
    next(480, 10.5, 10);
    const double first = started();
    for (int32_t i = 0; i < 30; i++) {
        next(480, 10 + 0.1 * i, 10);
        ASSERT_EQ(started(), first);
    }
    start(HEADSET, tx.get());
    EXPECT_EQ(started(), 0) << "a restart clears it";
    EXPECT_EQ(ovl_audio_start_output(audio.get(), 77, tx.get()), -1);
    EXPECT_EQ(started(), 0);
}

TEST_F(Playback, TheBufferAfterTheEndEndsTheStream) {
    const std::vector<float> reference = transmission(1000);
    const Transmitter tx = prepared(1000);
    start(HEADSET, tx.get());
    for (std::size_t i = 0; i < 3; i++) {
        const Heard heard = next(480);
        EXPECT_EQ(heard.samples, part(reference, 480 * i, 480));
        EXPECT_EQ(heard.result, paContinue) << i;
    }
    for (int32_t i = 0; i < 3; i++) {
        const Heard heard = next(480);
        EXPECT_TRUE(silent(heard.samples));
        EXPECT_EQ(heard.result, paComplete);
    }
}

// PortAudio drops what an ALSA stream still has queued when the stream completes.
TEST_F(Playback, AnAlsaStreamGoesOnUntilAllHasBeenHeard) {
    constexpr std::size_t N = 480;
    sound->host_apis[1].type = paALSA;  // the headset's
    for (const double latency : {0.0, 0.035, 0.25, -1.0, 7.0, static_cast<double>(NAN)}) {
        SCOPED_TRACE(latency);
        sound->output_latency = latency;
        const Transmitter tx = prepared(1000);
        start(HEADSET, tx.get());
        const std::size_t ends_in = transmission(1000).size() / N + 1;  // buffers
        for (std::size_t i = 0; i < ends_in; i++) EXPECT_EQ(next(N).result, paContinue);
        std::size_t silence = 0;
        for (Heard heard = next(N); heard.result == paContinue && silence < 1000000; heard = next(N)) {
            EXPECT_TRUE(silent(heard.samples));
            silence += N;
        }
        const bool believed = latency >= 0 && latency < 5;
        const double queued = believed ? latency * 8000 : 0;
        EXPECT_GE(static_cast<double>(silence + N), queued);
        EXPECT_LE(static_cast<double>(silence), 2 * queued + N);
    }
}

// Chunks of 1024 are rendered until one comes back short; none at all in the last ends the stream.
TEST_F(Playback, EndsEqualThePlainModelForAllLengthsAndBuffers) {
    for (const int32_t length :
         {440, 479, 480, 481, 512, 960, 1000, 1023, 1024, 1025, 1536, 2047, 2048, 2049, 2560, 3072, 4096, 5000}) {
        const std::vector<float> reference = transmission(length);
        for (const std::size_t n : {1u, 64u, 480u, 1000u, 1023u, 1024u, 1025u, 2048u, 3000u, 4096u, 10000u}) {
            SCOPED_TRACE(std::to_string(length) + " samples in buffers of " + std::to_string(n));
            const Transmitter tx = prepared(length);
            start(n % 2 == 0 ? HEADSET : SPEAKER, tx.get());
            std::size_t left = reference.size();
            bool complete = false;
            for (std::size_t at = 0; !complete; at += n) {
                for (std::size_t done = 0; done < n;) {
                    const std::size_t wanted = std::min<std::size_t>(n - done, 1024);
                    const std::size_t rendered = std::min(wanted, left);
                    left -= rendered;
                    done += rendered;
                    complete = rendered == 0;
                    if (rendered < wanted) break;
                }
                const Heard heard = next(n);
                ASSERT_EQ(heard.samples, part(reference, at, n));
                ASSERT_EQ(heard.result, complete ? paComplete : paContinue) << "at " << at;
            }
        }
    }
}

TEST_F(Playback, AnEndOnTheEdgeOfABufferIsFoundByTheNextOne) {
    for (const std::size_t n : {480u, 1024u, 2048u, 4096u}) {
        const auto length = static_cast<int32_t>(2 * n);
        const std::vector<float> reference = transmission(length);
        const Transmitter tx = prepared(length);
        start(HEADSET, tx.get());
        for (std::size_t i = 0; i < 2; i++) {
            const Heard heard = next(n);
            EXPECT_EQ(heard.samples, part(reference, i * n, n));
            EXPECT_EQ(heard.result, paContinue);
        }
        const Heard heard = next(n);
        EXPECT_TRUE(silent(heard.samples));
        EXPECT_EQ(heard.result, paComplete);
    }
}

TEST_F(Playback, ASoftStopEndsTheStreamAsWell) {
    const Transmitter tx = prepared(80000);
    start(HEADSET, tx.get());
    next(480);
    ovl_tx_stop(tx.get());
    const Heard ending = next(480);
    EXPECT_EQ(ending.result, paContinue);
    EXPECT_FALSE(silent(ending.samples));
    EXPECT_TRUE(silent(part(ending.samples, 41, 439)));
    const Heard after = next(480);
    EXPECT_EQ(after.result, paComplete);
    EXPECT_TRUE(silent(after.samples));
}

TEST_F(Playback, BuffersWithoutFramesAreHarmless) {
    const std::vector<float> reference = transmission(1000);
    for (const double start_time : {0.0, 1.0}) {
        const Transmitter tx = prepared(1000);
        start(HEADSET, tx.get(), start_time);
        EXPECT_EQ(next(0).result, paContinue);
        EXPECT_EQ(next(480).samples, part(reference, 0, 480));
        EXPECT_EQ(next(0).result, paContinue);
        EXPECT_EQ(next(600).samples, part(reference, 480, 600));
        EXPECT_EQ(next(600).result, paComplete);
    }
}

TEST_F(Playback, SilenceComesBeforeTheTransmissionInABuffer) {
    const std::vector<float> reference = transmission(1000);
    for (const int32_t index : {SPEAKER, HEADSET}) {
        const auto channels = static_cast<std::size_t>(index == HEADSET ? 2 : 1);
        for (const std::size_t first : {0u, 1u, 479u, 480u, 1023u, 1024u, 1100u, 2000u}) {
            const Transmitter tx = prepared(1000);
            start(index, tx.get());
            std::vector<float> buffer(2000 * channels, UNTOUCHED);
            EXPECT_TRUE(ova_fill_output(*audio, buffer.data(), 2000, static_cast<int64_t>(first)));
            std::vector<float> expected(first);
            expected.insert(expected.end(), reference.begin(), reference.end());
            expected.resize(2000);
            for (std::size_t i = 0; i < buffer.size(); i++) ASSERT_EQ(buffer[i], expected[i / channels]) << i;
        }
    }
}

TEST_F(Playback, IsStoppedAndForgottenByAStopAStartAndTheEnd) {
    const Transmitter tx = prepared(1000);
    start(HEADSET, tx.get());
    const Stream& first = sound->last();
    start(STUDIO, tx.get());
    EXPECT_EQ(first.stops, 1);
    EXPECT_EQ(first.closes, 1);
    const Stream& second = sound->last();
    EXPECT_EQ(ovl_audio_start_output(audio.get(), HEADSET, nullptr), -1) << "even a refused one";
    EXPECT_EQ(second.stops, 1);
    EXPECT_EQ(second.closes, 1);
    EXPECT_EQ(audio->tx, nullptr);
    start(HEADSET, tx.get());
    const Stream& third = sound->last();
    EXPECT_EQ(audio->tx, tx.get());
    for (int32_t i = 0; i < 2; i++) {
        ovl_audio_stop_output(audio.get());
        EXPECT_EQ(third.stops, 1);
        EXPECT_EQ(third.closes, 1);
        EXPECT_EQ(audio->tx, nullptr);
        EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
    }
}

TEST_F(Playback, RunsAlongsideCaptureAndBothEndWithTheObject) {
    const Transmitter tx = prepared(1000);
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    const Stream& input = sound->last();
    start(HEADSET, tx.get());
    const Stream& output = sound->last();
    EXPECT_EQ(input.closes, 0);
    // Neither's end, failure or text is the other's.
    sound->open_error = paDeviceUnavailable;
    EXPECT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), -1);
    EXPECT_EQ(input.closes, 1);
    EXPECT_EQ(output.closes, 0);
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 1);
    sound->open_error = paNoError;
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 8000, 1), 0);
    const Stream& second_input = sound->last();
    ovl_audio_stop_output(audio.get());
    EXPECT_EQ(second_input.closes, 0);
    start(HEADSET, tx.get());
    const Stream& second_output = sound->last();
    audio.reset();
    EXPECT_EQ(second_input.stops, 1);
    EXPECT_EQ(second_input.closes, 1);
    EXPECT_EQ(second_output.stops, 1);
    EXPECT_EQ(second_output.closes, 1);
}

// ---- Several threads: also for the thread sanitizer ----------------------------------------------------------------

constexpr int32_t MODULUS = 1 << 23;  // counters stay exact

// Pushes a counter in random chunks until `end` is set, as long as `allowed` permits.
template <typename Allowed>
void push_counter(ovl_audio* audio, const std::atomic<bool>& end, std::atomic<int64_t>& pushed, Allowed allowed) {
    Random random(9);
    std::vector<float> chunk;
    for (int64_t next = 0; !end.load(std::memory_order_relaxed);) {
        const int32_t n = random.integer(1, 256);
        if (!allowed(next + n)) {
            std::this_thread::yield();
            continue;
        }
        chunk.clear();
        for (int32_t i = 0; i < n; i++) chunk.push_back(static_cast<float>(next++ % MODULUS));
        if (ovl_audio_push(audio, chunk.data(), n, 1) != n) std::abort();
        pushed.store(next, std::memory_order_relaxed);
    }
}

TEST(AudioThreads, WhatIsCopiedWhileItIsWrittenIsWhole) {
    constexpr int64_t RING = 8000;
    constexpr int32_t LONGEST = 2000;
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    // The writer never gets so far ahead of the reader that it would overwrite what is being copied. The reader orders
    // nothing that the writer does, so the ring must.
    std::atomic<int64_t> reader_at = 0;
    std::atomic<int64_t> pushed = 0;
    std::atomic<bool> end = false;
    std::thread writer([&] {
        push_counter(audio.get(), end, pushed, [&](int64_t total) {
            return total <= reader_at.load(std::memory_order_acquire) + RING - LONGEST;
        });
    });

    Random random(10);
    std::vector<float> copy(LONGEST);
    int64_t total = 0;
    int64_t newest = -1;
    int64_t copies = 0;
    bool whole = true;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (whole && std::chrono::steady_clock::now() < until) {
        const int64_t now = std::llround(stats_of(audio).captured_s * 8000);
        EXPECT_GE(now, total) << "the count of captured samples went back";
        total = now;
        reader_at.store(total, std::memory_order_release);
        const int32_t wanted = random.integer(1, LONGEST);
        const int32_t n = ovl_audio_last(audio.get(), copy.data(), wanted);
        whole = n >= std::min<int64_t>(wanted, total);
        for (int32_t i = 1; i < n && whole; i++) {
            const auto k = static_cast<std::size_t>(i);
            whole = static_cast<int32_t>(copy[k]) == (static_cast<int32_t>(copy[k - 1]) + 1) % MODULUS;
        }
        if (n == 0) continue;
        // The newest copied sample is at least as new as the count that was seen before.
        const int64_t last = static_cast<int64_t>(copy[static_cast<std::size_t>(n) - 1]);
        const int64_t step = ((last - (total - 1)) % MODULUS + MODULUS) % MODULUS;
        whole = whole && step < RING && total - 1 + step >= newest;
        newest = total - 1 + step;
        copies++;
    }
    end = true;
    writer.join();
    EXPECT_TRUE(whole) << "copy " << copies << " of " << total << " samples";
    EXPECT_GT(copies, 100);
    EXPECT_GT(pushed.load(), 10 * RING);
    EXPECT_EQ(stats_of(audio).captured_s, static_cast<double>(pushed) / 8000);
}

TEST(AudioThreads, ASlowReaderSeesNothingButSamples) {
    const Audio audio = make_audio();
    ASSERT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 8000, 1), 0);
    std::atomic<int64_t> pushed = 0;
    std::atomic<bool> end = false;
    std::thread writer([&] { push_counter(audio.get(), end, pushed, [](int64_t) { return true; }); });

    std::vector<float> copy(8000);
    std::optional<float> strange;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!strange && std::chrono::steady_clock::now() < until) {
        const int32_t n = ovl_audio_last(audio.get(), copy.data(), 8000);
        for (int32_t i = 0; i < n; i++) {
            const float sample = copy[static_cast<std::size_t>(i)];
            if (!(sample >= 0 && sample < MODULUS && sample == std::floor(sample))) strange = sample;
        }
    }
    end = true;
    writer.join();
    EXPECT_FALSE(strange) << *strange;
    EXPECT_GT(pushed.load(), 16000);
}

using AudioThreadsOnACard = WithSound;

// In a separate process, as ctest runs it, this is what initialises PortAudio.
TEST_F(AudioThreadsOnACard, FirstUseOfDevicesMayBeInSeveralAtOnce) {
    std::vector<std::jthread> threads;
    for (int32_t k = 0; k < 8; k++) {
        threads.emplace_back([k] {
            const Audio mine = make_audio();
            ovl_audio_device info;
            switch (k % 4) {
                case 0:
                    EXPECT_GT(ovl_audio_device_count(), 0);
                    break;
                case 1:
                    EXPECT_EQ(ovl_audio_device_info(HEADSET, &info), 0);
                    break;
                case 2:
                    EXPECT_EQ(ovl_audio_start_input(mine.get(), SPEAKER, 48000, 1), -1);
                    break;
                default:
                    EXPECT_EQ(ovl_audio_start_output(mine.get(), MICROPHONE, prepared(1000).get()), -1);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(initializations, 1);
}

TEST_F(AudioThreadsOnACard, CaptureIsWatchedWhileTheSoundCardDelivers) {
    ASSERT_EQ(ovl_audio_start_input(audio.get(), HEADSET, 48000, 1), 0);
    const Stream& stream = sound->last();
    std::jthread card([&] {
        const std::vector<float> half(480, 0.5f);
        for (int32_t i = 0; i < 5000; i++) {
            const PaStreamCallbackFlags flags = i % 5 == 0 ? paInputOverflow : 0;
            stream.callback(half.data(), nullptr, half.size(), nullptr, flags, stream.user);
        }
    });
    std::vector<float> copy(1000);
    ovl_audio_stats before = stats_of(audio);
    while (before.captured_s < 50) {
        const ovl_audio_stats now = stats_of(audio);
        ASSERT_GE(now.captured_s, before.captured_s);
        ASSERT_GE(now.overflows, before.overflows);
        ASSERT_TRUE(now.peak_db == -120 || std::fabs(now.peak_db + 6.02) < 0.5) << now.peak_db;
        ASSERT_TRUE(now.rms_db == -120 || std::fabs(now.rms_db + 6.02) < 0.5) << now.rms_db;
        ovl_audio_last(audio.get(), copy.data(), 1000);
        before = now;
    }
    card.join();
    EXPECT_EQ(stats_of(audio).overflows, 1000);
    EXPECT_EQ(stats_of(audio).captured_s, 50);
}

TEST_F(AudioThreadsOnACard, PlaybackIsWatchedAndStoppedWhileItRuns) {
    const Transmitter tx = prepared(100 * 48000, 48000);
    ASSERT_EQ(ovl_audio_start_output_at(audio.get(), HEADSET, tx.get(), wall_clock() + 0.3), 0);
    const Stream& stream = sound->last();
    std::atomic<bool> complete = false;
    std::thread card([&] {
        std::vector<float> buffer(960);
        while (stream.callback(nullptr, buffer.data(), 480, nullptr, 0, stream.user) == paContinue) {
        }
        complete = true;
    });
    while (ovl_audio_output_started(audio.get()) == 0) std::this_thread::yield();
    const double started = ovl_audio_output_started(audio.get());
    EXPECT_GT(started, wall_clock() - 60);
    for (int32_t i = 1; i <= 100; i++) {
        ovl_tx_progress progress;
        ovl_tx_status(tx.get(), &progress);
        EXPECT_EQ(ovl_audio_output_started(audio.get()), started);
        EXPECT_EQ(ovl_audio_output_active(audio.get()), 1);
        EXPECT_EQ(ovl_audio_output_latency(audio.get()), 0.25);
        EXPECT_EQ(ovl_tx_set_level(tx.get(), i / 100.0), 0);
    }
    ovl_tx_stop(tx.get());
    card.join();
    EXPECT_TRUE(complete);
    ovl_audio_stop_output(audio.get());
}

}  // namespace
