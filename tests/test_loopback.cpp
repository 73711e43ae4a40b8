// The real thing over a real sound server: what is played on its sink is captured from that sink's monitor, by the
// same process, and decoded. A server that stops, dies or was never there must do no harm.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "liborvel.h"
#include "process.h"
#include "sound_server.h"

namespace {

constexpr int32_t DEVICE_RATE = 48000;
constexpr int32_t CAPTURE_RATE = 12000;

using Audio = std::unique_ptr<ovl_audio, decltype(&ovl_audio_destroy)>;
Audio make_audio() {
    return {ovl_audio_create(), ovl_audio_destroy};
}

// Goes before the audio object that plays it, so that it outlives that.
using Transmitter = std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)>;
Transmitter make_transmitter() {
    return {ovl_tx_create(), ovl_tx_destroy};
}

double wall_clock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double steady_clock() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void sleep_s(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Whether the condition becomes true within a time, by polling.
template <typename Condition>
bool holds_within(double seconds, Condition condition) {
    for (const double end = steady_clock() + seconds; !condition(); sleep_s(0.005)) {
        if (steady_clock() > end) return false;
    }
    return true;
}

ovl_audio_stats stats_of(const Audio& audio) {
    ovl_audio_stats stats;
    ovl_audio_input_stats(audio.get(), &stats);
    return stats;
}

ovl_tx_progress progress_of(const Transmitter& tx) {
    ovl_tx_progress progress;
    ovl_tx_status(tx.get(), &progress);
    return progress;
}

// Everything captured, as long as that is no more than is kept.
std::vector<float> captured(const Audio& audio) {
    std::vector<float> samples(static_cast<std::size_t>(120 * CAPTURE_RATE));
    const int32_t n = ovl_audio_last(audio.get(), samples.data(), static_cast<int32_t>(samples.size()));
    samples.resize(static_cast<std::size_t>(n));
    return samples;
}

// A monitor may be silent for two seconds after it has been opened on an idle sink.
void start_capture(const Audio& audio) {
    ASSERT_EQ(ovl_audio_start_input(audio.get(), -1, DEVICE_RATE, 90), 0) << ovl_audio_last_error(audio.get());
    ASSERT_STREQ(ovl_audio_last_error(audio.get()), "");
    ASSERT_TRUE(holds_within(10, [&] { return stats_of(audio).captured_s > 0; }));
    ASSERT_EQ(stats_of(audio).rate, CAPTURE_RATE);
}

// A carrier after half a second of silence: a sink that wakes up may lose the first milliseconds of what it is given.
void prepare_carrier(const Transmitter& tx, double seconds, double tone_hz, double level, double ramp_s = 0.005) {
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = DEVICE_RATE;
    settings.tone_hz = tone_hz;
    settings.level = level;
    settings.ramp_s = ramp_s;
    std::array<ovl_tx_step, 2> steps{};
    steps[0].kind = OVL_TX_PAUSE;
    steps[0].seconds = 0.5;
    steps[1].kind = OVL_TX_CARRIER;
    steps[1].seconds = seconds;
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 2), 0) << ovl_tx_last_error(tx.get());
}

// When the first captured sample was recorded, by the wall clock: blocks arrive more or less late, never early, so the
// least delay seen is the best estimate.
class CaptureClock {
  public:
    explicit CaptureClock(const Audio& audio) : audio_(audio) {}
    void look() {
        const ovl_audio_stats stats = stats_of(audio_);
        first_sample_ = std::min(first_sample_, wall_clock() - stats.captured_s - stats.latency_s);
    }
    double first_sample() const { return first_sample_; }

  private:
    const Audio& audio_;
    double first_sample_ = std::numeric_limits<double>::infinity();
};

// Peak over every millisecond: the envelope of a tone of 1000 Hz, a little too low.
std::vector<double> envelope(const std::vector<float>& samples) {
    constexpr std::ptrdiff_t MS = CAPTURE_RATE / 1000;
    std::vector<double> peaks;
    for (auto next = samples.begin(); samples.end() - next >= MS; next += MS) {
        const auto [lowest, highest] = std::minmax_element(next, next + MS);
        peaks.push_back(std::max(-*lowest, *highest));
    }
    return peaks;
}

// How long a tone of level 0.5 is received, to a few milliseconds.
double loud_seconds(const std::vector<float>& samples) {
    const std::vector<double> peaks = envelope(samples);
    return 0.001 * static_cast<double>(std::count_if(peaks.begin(), peaks.end(), [](double p) { return p > 0.25; }));
}

// Frequency of a clean tone, from its rising passes through zero.
double measured_tone(const std::vector<float>& samples) {
    double first = 0;
    double last = 0;
    int32_t count = 0;
    for (std::size_t i = 1; i < samples.size(); i++) {
        if (!(samples[i - 1] < 0 && samples[i] >= 0)) continue;
        last = static_cast<double>(i) - samples[i] / (samples[i] - samples[i - 1]);
        if (count++ == 0) first = last;
    }
    return count > 1 ? CAPTURE_RATE * (count - 1) / (last - first) : 0;
}

// One server for all tests of a process, since PortAudio looks for its devices once.
class Loopback : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (!SoundServer::installed()) return;
        server_ = std::make_unique<SoundServer>();
        enter(server_->environment());
    }
    static void TearDownTestSuite() { server_.reset(); }

    // A call that never returns ends the process instead of the patience of who waits for it.
    void SetUp() override {
        if (!server_) GTEST_SKIP() << "the program pulseaudio is not installed";
        alarm(150);
    }
    void TearDown() override { alarm(0); }

    static SoundServer& server() { return *server_; }

  private:
    static inline std::unique_ptr<SoundServer> server_;
};

// ---- Devices ---------------------------------------------------------------------------------------------------

TEST_F(Loopback, DevicesAreListedAndOneIsTheDefaultOfBothDirections) {
    const int32_t count = ovl_audio_device_count();
    ASSERT_GE(count, 1);
    int32_t default_inputs = 0;
    int32_t default_outputs = 0;
    for (int32_t i = 0; i < count; i++) {
        ovl_audio_device device;
        ASSERT_EQ(ovl_audio_device_info(i, &device), 0);
        EXPECT_STRNE(device.name, "");
        EXPECT_STREQ(device.host_api, "ALSA");
        EXPECT_GE(device.default_rate, 8000);
        default_inputs += device.is_default_input;
        default_outputs += device.is_default_output;
        if (device.is_default_input != 0) {
            EXPECT_STREQ(device.name, "default");
            EXPECT_EQ(device.is_default_output, 1);
            EXPECT_GE(device.input_channels, 2);
            EXPECT_GE(device.output_channels, 2);
        }
    }
    EXPECT_EQ(default_inputs, 1);
    EXPECT_EQ(default_outputs, 1);
}

TEST_F(Loopback, DevicesOutsideTheListAreRefused) {
    const int32_t count = ovl_audio_device_count();
    ovl_audio_device device;
    std::memset(&device, 0x5a, sizeof device);
    const ovl_audio_device before = device;
    for (const int32_t index : {count, -1, OVL_AUDIO_NONE, std::numeric_limits<int32_t>::max()}) {
        EXPECT_EQ(ovl_audio_device_info(index, &device), -1) << index;
    }
    EXPECT_EQ(std::memcmp(&device, &before, sizeof device), 0);

    const Transmitter tx = make_transmitter();
    const Audio audio = make_audio();
    prepare_carrier(tx, 1, 1000, 0.5);
    for (const int32_t index : {count, -3}) {
        EXPECT_EQ(ovl_audio_start_input(audio.get(), index, 0, 0), -1);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such input device");
        EXPECT_EQ(ovl_audio_start_output(audio.get(), index, tx.get()), -1);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such output device");
    }
}

TEST_F(Loopback, ARateThatTheDeviceRefusesIsAnError) {
    const Audio audio = make_audio();
    EXPECT_EQ(ovl_audio_start_input(audio.get(), -1, 2000000, 1), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "cannot open the input device: Invalid sample rate");
    EXPECT_EQ(stats_of(audio).rate, 0);
}

// ---- Capture and playback --------------------------------------------------------------------------------------

TEST_F(Loopback, CapturedSecondsGoByAsTheClockDoes) {
    const Audio audio = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(audio));
    sleep_s(0.5);
    const double captured_before = stats_of(audio).captured_s;
    const double before = steady_clock();
    sleep_s(4);
    const double elapsed = steady_clock() - before;
    EXPECT_NEAR(stats_of(audio).captured_s - captured_before, elapsed, 0.1);
    EXPECT_EQ(stats_of(audio).overflows, 0);
    EXPECT_GE(stats_of(audio).latency_s, 0);
    EXPECT_LT(stats_of(audio).latency_s, 1);
    EXPECT_EQ(stats_of(audio).peak_db, -120);
    EXPECT_EQ(stats_of(audio).rms_db, -120);

    ovl_audio_stop_input(audio.get());
    EXPECT_EQ(stats_of(audio).rate, 0);
    EXPECT_TRUE(captured(audio).empty());
}

TEST_F(Loopback, ACarrierIsHeardWithItsToneLevelAndLength) {
    constexpr double TONE_HZ = 1003.7;  // so that samples fall everywhere on its wave
    const Transmitter tx = make_transmitter();
    const Audio in = make_audio();
    const Audio out = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(in));
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 2, TONE_HZ, 0.5));
    ASSERT_EQ(ovl_audio_start_output(out.get(), -1, tx.get()), 0) << ovl_audio_last_error(out.get());
    EXPECT_EQ(ovl_audio_output_active(out.get()), 1);
    EXPECT_GT(ovl_audio_output_latency(out.get()), 0);
    ASSERT_TRUE(holds_within(3, [&] { return progress_of(tx).elapsed_s > 1.5; }));
    EXPECT_NEAR(stats_of(in).peak_db, -6.02, 0.1);
    EXPECT_NEAR(stats_of(in).rms_db, -9.03, 0.1);
    ASSERT_TRUE(holds_within(5, [&] { return ovl_audio_output_active(out.get()) == 0; }));
    EXPECT_EQ(progress_of(tx).done, 1);
    sleep_s(0.5);

    const std::vector<float> samples = captured(in);
    EXPECT_NEAR(loud_seconds(samples), 2, 0.003);
    const auto first =
        std::find_if(samples.begin(), samples.end(), [](float x) { return x > 0.4F; }) + CAPTURE_RATE / 20;
    ASSERT_GT(samples.end() - first, 2 * CAPTURE_RATE);
    EXPECT_NEAR(measured_tone({first, first + 19 * CAPTURE_RATE / 10}), TONE_HZ, 0.01);
    EXPECT_EQ(samples.back(), 0);
}

struct Sent {
    uint32_t protocol;
    const char* call;
    const char* locator;
    double tone_hz;
    double delay_s;  // after the first of them
};

// All at the same time, since a frame takes as long as it takes.
TEST_F(Loopback, AFrameOfEachProtocolIsDecodedAsSentWhenAndWhereItWasAskedFor) {
    const std::vector<Sent> sent = {{OVL_OPERA, "DL1ABC", "", 1400.25, 0},
                                    {OVL_ORVEL_S, "G4XYZ", "", 1500, 0.6183},
                                    {OVL_ORVEL_L, "SM5QQ", "JO99AB", 1620.5, 1.2371}};
    const Audio in = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(in));
    CaptureClock clock(in);
    enter(deep_buffers());

    const double first_start = wall_clock() + 2;
    std::vector<Transmitter> transmitters;
    std::vector<Audio> outs;
    for (const Sent& s : sent) {
        ovl_tx_settings settings;
        ovl_tx_settings_default(&settings);
        settings.sample_rate = DEVICE_RATE;
        settings.tone_hz = s.tone_hz;
        settings.level = 0.2;
        ovl_tx_step step{};
        step.kind = OVL_TX_FRAME;
        step.protocol = static_cast<int32_t>(s.protocol);
        std::strncpy(step.call, s.call, sizeof step.call - 1);
        std::strncpy(step.locator, s.locator, sizeof step.locator - 1);
        transmitters.push_back(make_transmitter());
        outs.push_back(make_audio());
        ASSERT_EQ(ovl_tx_start(transmitters.back().get(), &settings, &step, 1), 0);
        ASSERT_EQ(ovl_audio_start_output_at(outs.back().get(), -1, transmitters.back().get(), first_start + s.delay_s),
                  0)
            << ovl_audio_last_error(outs.back().get());
        EXPECT_EQ(ovl_audio_output_started(outs.back().get()), 0);
    }

    double highest_peak_db = -120;
    const auto all_ended = [&] {
        clock.look();
        highest_peak_db = std::max(highest_peak_db, stats_of(in).peak_db);
        return std::all_of(outs.begin(), outs.end(),
                           [](const Audio& out) { return ovl_audio_output_active(out.get()) == 0; });
    };
    ASSERT_TRUE(holds_within(2 + 1.3 + 321 * ovl_chip_seconds() + 10, all_ended));
    EXPECT_GT(wall_clock(), first_start + 1.2371 + 321 * ovl_chip_seconds() - 0.5);
    for (std::size_t i = 0; i < sent.size(); i++) {
        EXPECT_EQ(progress_of(transmitters[i]).done, 1);
        EXPECT_NEAR(ovl_audio_output_started(outs[i].get()), first_start + sent[i].delay_s, 0.5 / DEVICE_RATE + 1e-6);
    }
    sleep_s(0.5);
    EXPECT_EQ(stats_of(in).overflows, 0);
    EXPECT_GT(highest_peak_db, 20 * std::log10(0.55));
    EXPECT_LT(highest_peak_db, 20 * std::log10(0.61));

    // Around each tone by itself: strong stations without any noise between them hide each other from a wide search.
    const std::vector<float> samples = captured(in);
    const std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)> decoder(ovl_create(), ovl_destroy);
    for (std::size_t i = 0; i < sent.size(); i++) {
        ovl_settings settings;
        ovl_settings_default(&settings);
        settings.center_hz = sent[i].tone_hz;
        settings.search_hz = 40;
        std::vector<ovl_result> results(64);
        ASSERT_EQ(ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), CAPTURE_RATE,
                             &settings, results.data(), 64),
                  1)
            << sent[i].call << " " << ovl_last_error(decoder.get());
        const ovl_result& result = results[0];
        EXPECT_EQ(result.protocol, static_cast<int32_t>(sent[i].protocol));
        EXPECT_STREQ(result.call, sent[i].call);
        EXPECT_STREQ(result.locator, sent[i].locator);
        EXPECT_NEAR(result.freq_hz, sent[i].tone_hz, 1);
        const double heard = clock.first_sample() + result.t_start;
        // Some 50 ms earlier still: a monitor gets a sink's sound while that is on its way.
        EXPECT_NEAR(heard, first_start + sent[i].delay_s - DEEP_BUFFER_S, 0.15);
    }
    unsetenv("PULSE_LATENCY_MSEC");
}

TEST_F(Loopback, AStartTimeThatHasPassedIsLateAndWhole) {
    const Transmitter tx = make_transmitter();
    const Audio in = make_audio();
    const Audio out = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(in));
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 0.5, 1000, 0.5));
    const double now = wall_clock();
    ASSERT_EQ(ovl_audio_start_output_at(out.get(), -1, tx.get(), now - 1000), 0);
    ASSERT_TRUE(holds_within(5, [&] { return ovl_audio_output_active(out.get()) == 0; }));
    EXPECT_GE(ovl_audio_output_started(out.get()), now);
    EXPECT_LT(ovl_audio_output_started(out.get()), now + 1);
    sleep_s(0.5);
    EXPECT_NEAR(loud_seconds(captured(in)), 0.5, 0.003);
}

TEST_F(Loopback, AStoppedTransmitterIsHeardToFadeAndPlaybackEnds) {
    constexpr double RAMP_S = 0.05;
    constexpr double FADE_MS = 590 * RAMP_S;  // a raised cosine takes 59 % of its length from 0.9 to 0.1
    double fade_ms = 0;
    // A sound server that gets no processor for a moment stretches what it plays: that may happen to one fade, not to
    // all of three.
    for (int32_t attempt = 0; attempt < 3 && !(std::fabs(fade_ms - FADE_MS) <= 2); attempt++) {
        const Transmitter tx = make_transmitter();
        const Audio in = make_audio();
        const Audio out = make_audio();
        ASSERT_NO_FATAL_FAILURE(start_capture(in));
        ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 60, 1000, 0.5, RAMP_S));
        ASSERT_EQ(ovl_audio_start_output(out.get(), -1, tx.get()), 0);
        ASSERT_TRUE(holds_within(5, [&] { return progress_of(tx).elapsed_s > 1; }));
        ovl_tx_stop(tx.get());
        ASSERT_TRUE(holds_within(2, [&] { return ovl_audio_output_active(out.get()) == 0; }));
        EXPECT_EQ(progress_of(tx).done, 1);
        EXPECT_LT(progress_of(tx).elapsed_s, 3);
        ovl_audio_stop_output(out.get());
        sleep_s(0.5);

        const std::vector<double> peaks = envelope(captured(in));
        const auto above = [&](double level) {
            return std::find_if(peaks.rbegin(), peaks.rend(), [level](double p) { return p > level; }) - peaks.rbegin();
        };
        fade_ms = static_cast<double>(above(0.45) - above(0.05));
        EXPECT_EQ(peaks.back(), 0);
    }
    EXPECT_NEAR(fade_ms, FADE_MS, 2);
}

// ---- A server in trouble ---------------------------------------------------------------------------------------

TEST_F(Loopback, CaptureStallsWithTheServerAndResumesWithIt) {
    const Audio audio = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(audio));
    server().pause();
    sleep_s(0.3);
    const double standing = stats_of(audio).captured_s;
    sleep_s(1);
    EXPECT_EQ(stats_of(audio).captured_s, standing);
    server().resume();
    EXPECT_TRUE(holds_within(5, [&] { return stats_of(audio).captured_s > standing + 2; }));
}

TEST_F(Loopback, AServerThatDiesEndsBothDirectionsAndANewOneServesThemAgain) {
    const Transmitter tx = make_transmitter();
    const Transmitter other = make_transmitter();
    const Audio in = make_audio();
    const Audio out = make_audio();
    const Audio both = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(in));
    ASSERT_NO_FATAL_FAILURE(start_capture(both));
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 60, 1000, 0.2));
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(other, 60, 1200, 0.2));
    ASSERT_EQ(ovl_audio_start_output(out.get(), -1, tx.get()), 0);
    ASSERT_EQ(ovl_audio_start_output(both.get(), -1, other.get()), 0);
    ASSERT_TRUE(holds_within(5, [&] { return progress_of(tx).elapsed_s > 1; }));

    server().crash();
    EXPECT_TRUE(holds_within(5, [&] { return ovl_audio_output_active(out.get()) == 0; }));
    sleep_s(0.3);
    const double standing = stats_of(in).captured_s;
    EXPECT_GT(standing, 0.2);
    sleep_s(0.5);
    EXPECT_EQ(stats_of(in).captured_s, standing);

    const double before = steady_clock();
    ovl_audio_stop_input(in.get());
    ovl_audio_stop_output(out.get());
    EXPECT_LT(steady_clock() - before, 5);

    const std::string no_input = "cannot open the input device: ";
    EXPECT_EQ(ovl_audio_start_input(in.get(), -1, DEVICE_RATE, 60), -1);
    EXPECT_EQ(std::string(ovl_audio_last_error(in.get())).substr(0, no_input.size()), no_input);
    EXPECT_GT(std::strlen(ovl_audio_last_error(in.get())), no_input.size());
    const std::string no_output = "cannot open the output device: ";
    EXPECT_EQ(ovl_audio_start_output(out.get(), -1, tx.get()), -1);
    EXPECT_EQ(std::string(ovl_audio_last_error(out.get())).substr(0, no_output.size()), no_output);
    EXPECT_GT(std::strlen(ovl_audio_last_error(out.get())), no_output.size());
    EXPECT_EQ(ovl_audio_output_active(out.get()), 0);
    EXPECT_EQ(stats_of(in).rate, 0);

    server().restart();
    ASSERT_NO_FATAL_FAILURE(start_capture(in));
    ASSERT_EQ(ovl_audio_start_output(out.get(), -1, tx.get()), 0) << ovl_audio_last_error(out.get());
    EXPECT_TRUE(holds_within(5, [&] { return stats_of(in).peak_db > -20; }));
    // `both` is still what the first server left of it.
}

TEST_F(Loopback, DestroyingWhatADeadServerServedDoesNotHang) {
    const Transmitter tx = make_transmitter();
    Audio audio = make_audio();
    ASSERT_NO_FATAL_FAILURE(start_capture(audio));
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 60, 1000, 0.2));
    ASSERT_EQ(ovl_audio_start_output(audio.get(), -1, tx.get()), 0);
    ASSERT_TRUE(holds_within(5, [&] { return progress_of(tx).elapsed_s > 0.7; }));
    server().stop();
    const double before = steady_clock();
    audio.reset();
    EXPECT_LT(steady_clock() - before, 5);
    server().restart();
}

// ---- No server -------------------------------------------------------------------------------------------------

// In a separate process, since this one may have found devices already.
TEST(SoundlessMachine, HasNoDevicesAndSaysSo) {
    constexpr const char* INSIDE = "ORVEL_TEST_SOUNDLESS";
    if (std::getenv(INSIDE) == nullptr) {
        const SoundlessMachine machine;
        for (const bool with_names : {true, false}) {
            ProcessInput input;
            input.environment = machine.environment();
            input.environment.emplace_back(INSIDE, "1");
            if (!with_names) input.environment.emplace_back("ALSA_CONFIG_PATH", "/nonexistent");
            const ProcessResult result =
                run_process({"/proc/self/exe", "--gtest_filter=SoundlessMachine.HasNoDevicesAndSaysSo"}, input);
            EXPECT_EQ(result.status, 0) << result.out;
            EXPECT_NE(result.out.find("[  PASSED  ] 1 test."), std::string::npos) << result.out;
            EXPECT_EQ(result.err, "") << "what the sound systems say";
        }
        return;
    }

    // A host's own handlers of JACK's messages stay.
    const auto info_handler = static_cast<void**>(dlsym(RTLD_DEFAULT, "jack_info_callback"));
    const auto error_handler = static_cast<void**>(dlsym(RTLD_DEFAULT, "jack_error_callback"));
    ASSERT_TRUE(info_handler != nullptr && error_handler != nullptr);
    const void* const info_before = *info_handler;
    const void* const error_before = *error_handler;
    EXPECT_EQ(ovl_audio_available(), 1);
    EXPECT_EQ(ovl_audio_device_count(), 0);
    EXPECT_EQ(*info_handler, info_before);
    EXPECT_EQ(*error_handler, error_before);
    ovl_audio_device device;
    EXPECT_EQ(ovl_audio_device_info(0, &device), -1);

    const Transmitter tx = make_transmitter();
    const Audio audio = make_audio();
    ASSERT_NO_FATAL_FAILURE(prepare_carrier(tx, 1, 1000, 0.5));
    for (const int32_t index : {-1, 0}) {
        EXPECT_EQ(ovl_audio_start_input(audio.get(), index, 0, 0), -1);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such input device");
        EXPECT_EQ(ovl_audio_start_output(audio.get(), index, tx.get()), -1);
        EXPECT_STREQ(ovl_audio_last_error(audio.get()), "no such output device");
    }
    EXPECT_EQ(ovl_audio_output_active(audio.get()), 0);
    EXPECT_EQ(stats_of(audio).rate, 0);

    // Samples of the host's own need no device.
    EXPECT_EQ(ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, DEVICE_RATE, 1), 0);
    EXPECT_STREQ(ovl_audio_last_error(audio.get()), "");
}

}  // namespace
