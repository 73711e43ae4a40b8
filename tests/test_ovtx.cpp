// The transmitter against a plain model that computes every sample from the closed form of the envelope, and its
// promises about validation, blocks, stops, levels and progress.
#include "ovtx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <string>
#include <vector>

#include "liborvel.h"
#include "siggen.h"

namespace {

using Transmitter = std::unique_ptr<ovl_transmitter, decltype(&ovl_tx_destroy)>;
Transmitter make_transmitter() {
    return {ovl_tx_create(), ovl_tx_destroy};
}

ovl_tx_settings default_settings() {
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    return settings;
}

ovl_tx_step carrier(double seconds) {
    ovl_tx_step step{};
    step.kind = OVL_TX_CARRIER;
    step.seconds = seconds;
    return step;
}

ovl_tx_step pause(double seconds, bool keep_keyed = false) {
    ovl_tx_step step{};
    step.kind = OVL_TX_PAUSE;
    step.seconds = seconds;
    step.keep_keyed = keep_keyed ? 1 : 0;
    return step;
}

ovl_tx_step frame(int32_t protocol, const char* call, const char* locator = "") {
    ovl_tx_step step{};
    step.kind = OVL_TX_FRAME;
    step.protocol = protocol;
    std::strncpy(step.call, call, sizeof step.call - 1);
    std::strncpy(step.locator, locator, sizeof step.locator - 1);
    return step;
}

// ---- Plain model -----------------------------------------------------------------------------------------------

struct Segment {
    int64_t start;
    double amplitude;
};

struct Plan {
    std::vector<Segment> segments;
    int64_t length = 0;
    int64_t ramp = 0;
};

Plan make_plan(const ovl_tx_settings& settings, const std::vector<ovl_tx_step>& steps) {
    Plan plan;
    double t = 0;
    const auto add = [&](double time, bool on) {
        plan.segments.push_back({static_cast<int64_t>(std::floor(settings.sample_rate * time + 0.5)), on ? 1.0 : 0.0});
    };
    for (const ovl_tx_step& step : steps) {
        if (step.kind == OVL_TX_FRAME) {
            std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(static_cast<uint32_t>(step.protocol))));
            EXPECT_GT(ovl_encode(static_cast<uint32_t>(step.protocol), step.call, step.locator, chips.data(),
                                 static_cast<int32_t>(chips.size())),
                      0);
            for (std::size_t j = 0; j < chips.size(); j++) add(t + static_cast<double>(j) * 0.128, chips[j] != 0);
            t += static_cast<double>(chips.size()) * 0.128;
        } else {
            add(t, step.kind == OVL_TX_CARRIER);
            t += step.seconds;
        }
    }
    plan.length = static_cast<int64_t>(std::floor(t * settings.sample_rate + 0.5));
    plan.ramp = std::max<int64_t>(1, static_cast<int64_t>(std::floor(settings.sample_rate * settings.ramp_s + 0.5)));
    return plan;
}

double raised_cosine(double x) {
    return x >= 1 ? 1 : (1 - std::cos(std::numbers::pi * x)) / 2;
}

double plan_amplitude(const Plan& plan, int64_t p) {
    const auto ramp = static_cast<double>(plan.ramp);
    if (p >= plan.length) {
        return plan.segments.back().amplitude * (1 - raised_cosine(static_cast<double>(p - plan.length) / ramp));
    }
    const auto after = std::upper_bound(plan.segments.begin(), plan.segments.end(), p,
                                        [](int64_t sample, const Segment& segment) { return sample < segment.start; });
    const auto k = static_cast<std::size_t>(after - plan.segments.begin()) - 1;
    const double before = k == 0 ? 0 : plan.segments[k - 1].amplitude;
    return before + (plan.segments[k].amplitude - before) *
                        raised_cosine(static_cast<double>(p - plan.segments[k].start) / ramp);
}

std::vector<double> model_samples(const ovl_tx_settings& settings, const std::vector<ovl_tx_step>& steps) {
    const Plan plan = make_plan(settings, steps);
    std::vector<double> samples;
    for (int64_t p = 0; p < plan.length + plan.ramp; p++) {
        const double angle = std::fmod(static_cast<double>(p) * settings.tone_hz / settings.sample_rate, 1.0);
        samples.push_back(settings.level * plan_amplitude(plan, p) * std::sin(2 * std::numbers::pi * angle));
    }
    return samples;
}

std::vector<float> render_all(ovl_transmitter* tx, int32_t block) {
    std::vector<float> samples;
    std::vector<float> buffer(static_cast<std::size_t>(block));
    for (;;) {
        const int32_t n = ovl_tx_render(tx, buffer.data(), block);
        samples.insert(samples.end(), buffer.begin(), buffer.begin() + n);
        if (n < block) {
            EXPECT_TRUE(std::all_of(buffer.begin() + n, buffer.end(), [](float x) { return x == 0; }));
            return samples;
        }
    }
}

void expect_equal(const std::vector<float>& rendered, const std::vector<double>& model) {
    ASSERT_EQ(rendered.size(), model.size());
    double worst = 0;
    for (std::size_t i = 0; i < model.size(); i++) worst = std::max(worst, std::fabs(rendered[i] - model[i]));
    EXPECT_LT(worst, 1e-6);
}

std::vector<ovl_tx_step> random_steps(Random& random, int32_t n) {
    std::vector<ovl_tx_step> steps;
    for (int32_t i = 0; i < n; i++) {
        switch (random.integer(0, 4)) {
            case 0:
                steps.push_back(carrier(random.uniform(0.05, 1.5)));
                break;
            case 1:
                steps.push_back(pause(random.uniform(0.05, 1.5)));
                break;
            case 2:
                steps.push_back(frame(OVL_OPERA, "K1ABC"));
                break;
            case 3:
                steps.push_back(frame(OVL_ORVEL_S, "DL2XYZ"));
                break;
            default:
                steps.push_back(frame(OVL_ORVEL_L, "SM5QRP", "JO89"));
        }
    }
    return steps;
}

std::string start_error(const ovl_tx_settings* settings, const std::vector<ovl_tx_step>& steps) {
    const Transmitter tx = make_transmitter();
    EXPECT_EQ(ovl_tx_start(tx.get(), settings, steps.data(), static_cast<int32_t>(steps.size())), -1);
    std::vector<float> buffer(8, 1.0f);
    EXPECT_EQ(ovl_tx_render(tx.get(), buffer.data(), 8), 0);
    EXPECT_EQ(buffer, std::vector<float>(8, 0.0f));
    ovl_tx_progress progress;
    ovl_tx_status(tx.get(), &progress);
    EXPECT_EQ(progress.done, 1);
    return ovl_tx_last_error(tx.get());
}

std::string start_error(const ovl_tx_settings& settings, const ovl_tx_step& step) {
    return start_error(&settings, std::vector{step});
}

ovl_tx_progress status_of(ovl_transmitter* tx) {
    ovl_tx_progress progress;
    std::memset(&progress, 0x55, sizeof progress);
    ovl_tx_status(tx, &progress);
    return progress;
}

void render(ovl_transmitter* tx, int32_t n) {
    std::vector<float> buffer(static_cast<std::size_t>(n));
    ovl_tx_render(tx, buffer.data(), n);
}

}  // namespace

// ---- Audio -----------------------------------------------------------------------------------------------------

TEST(Transmitter, SamplesEqualTheClosedFormOverRandomSequences) {
    Random random(1);
    for (int32_t round = 0; round < 12; round++) {
        ovl_tx_settings settings = default_settings();
        settings.sample_rate = round % 3 == 0 ? 8000 : random.integer(8000, 24000);
        settings.tone_hz = random.uniform(300, 3000);
        settings.level = random.uniform(0.01, 1);
        settings.ramp_s = round % 4 == 0 ? 0 : random.uniform(0, 0.05);
        const std::vector<ovl_tx_step> steps = random_steps(random, random.integer(1, 3));
        const Transmitter tx = make_transmitter();
        ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), static_cast<int32_t>(steps.size())), 0);
        SCOPED_TRACE(round);
        expect_equal(render_all(tx.get(), random.integer(1, 5000)), model_samples(settings, steps));
    }
}

TEST(Transmitter, BlockSizesMakeNoDifference) {
    Random random(2);
    const ovl_tx_settings settings = default_settings();
    const std::vector<ovl_tx_step> steps = {carrier(0.3), pause(0.1), frame(OVL_OPERA, "K1ABC"), carrier(0.05)};
    const Transmitter tx = make_transmitter();
    std::vector<float> reference;
    for (const int32_t block : {65536, 1, 7, 480}) {
        ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 4), 0);
        const std::vector<float> samples = render_all(tx.get(), block);
        if (reference.empty()) reference = samples;
        EXPECT_TRUE(samples == reference) << block;
    }
    EXPECT_EQ(reference.size(), static_cast<std::size_t>(std::floor(48000 * (0.45 + 30.592) + 0.5)) + 240);
}

TEST(Transmitter, BeginsWithExactlyZero) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = carrier(1);
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    float first = 1;
    ASSERT_EQ(ovl_tx_render(tx.get(), &first, 1), 1);
    EXPECT_EQ(first, 0.0f);
}

TEST(Transmitter, WithoutARampTheFirstSampleOfASegmentCarriesTheOldAmplitude) {
    ovl_tx_settings settings = default_settings();
    settings.sample_rate = 8000;
    settings.tone_hz = 2000;  // a quarter period a sample: odd samples are at the peak
    settings.level = 1;
    settings.ramp_s = 0;
    const std::vector<ovl_tx_step> steps = {carrier(0.050125), pause(0.05)};  // 401 samples, then silence
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 2), 0);
    const std::vector<float> samples = render_all(tx.get(), 4096);
    ASSERT_EQ(samples.size(), 401u + 400u + 1u);
    EXPECT_NEAR(samples[399], -1, 1e-6);
    EXPECT_NEAR(samples[401], 1, 1e-6);  // the pause has begun
    EXPECT_EQ(samples[403], 0.0f);
}

TEST(Transmitter, AfterTheEndThereIsSilence) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = carrier(0.05);
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    EXPECT_EQ(render_all(tx.get(), 1000).size(), 2400u + 240u);
    std::vector<float> buffer(100, 1.0f);
    EXPECT_EQ(ovl_tx_render(tx.get(), buffer.data(), 100), 0);
    EXPECT_EQ(buffer, std::vector<float>(100, 0.0f));
}

TEST(Transmitter, CanBeStartedAgainInTheMiddle) {
    const ovl_tx_settings settings = default_settings();
    const std::vector<ovl_tx_step> steps = {pause(0.1), carrier(0.2)};
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 2), 0);
    const std::vector<float> whole = render_all(tx.get(), 1000);
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 2), 0);
    render(tx.get(), 7000);
    ovl_tx_stop(tx.get());
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 2), 0);
    EXPECT_TRUE(render_all(tx.get(), 1000) == whole);
}

// ---- Stop and level --------------------------------------------------------------------------------------------

TEST(Transmitter, AStopRampsDownFromWhereTheEnvelopeIs) {
    const ovl_tx_settings settings = default_settings();
    const std::vector<ovl_tx_step> steps = {carrier(1)};
    const std::vector<double> model = model_samples(settings, steps);
    for (const int32_t before : {100, 240, 20000, 48100}) {  // in the first edge, at its end, amid, in the closing ramp
        const Transmitter tx = make_transmitter();
        ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 1), 0);
        render(tx.get(), before);
        ovl_tx_stop(tx.get());
        const std::vector<float> tail = render_all(tx.get(), 50);
        ASSERT_EQ(tail.size(), 240u) << before;
        const double last = plan_amplitude(make_plan(settings, steps), before - 1);
        for (int32_t d = 0; d < 240; d++) {
            const double angle = 2 * std::numbers::pi * 1500 * (before + d) / 48000;
            EXPECT_NEAR(tail[static_cast<std::size_t>(d)],
                        0.5 * last * (1 - raised_cosine(d / 240.0)) * std::sin(angle), 1e-6);
        }
        EXPECT_EQ(status_of(tx.get()).done, 1);
        // A stop in the closing ramp runs its own ramp: more than planned may have been rendered.
        EXPECT_EQ(status_of(tx.get()).elapsed_s, (before + 240) / 48000.0);
    }
}

TEST(Transmitter, AStopBeforeAnyRenderIsARampOfSilence) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = carrier(1);
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    ovl_tx_stop(tx.get());
    const std::vector<float> samples = render_all(tx.get(), 100);
    EXPECT_EQ(samples, std::vector<float>(240, 0.0f));
    EXPECT_EQ(status_of(tx.get()).done, 1);
}

TEST(Transmitter, TheLevelGlidesInSinglePrecision) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = carrier(1);
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    render(tx.get(), 1000);
    ASSERT_EQ(ovl_tx_set_level(tx.get(), 0.9), 0);
    const auto glide = static_cast<float>(1 - std::exp(-1 / (0.01 * 48000)));
    float level = 0.5f;
    std::vector<float> buffer(20000);
    ASSERT_EQ(ovl_tx_render(tx.get(), buffer.data(), 20000), 20000);
    for (int32_t i = 0; i < 20000; i++) {
        level = level + (0.9f - level) * glide;
        const double angle = 2 * std::numbers::pi * 1500 * (1000 + i) / 48000;
        ASSERT_NEAR(buffer[static_cast<std::size_t>(i)], level * std::sin(angle), 1e-6);
    }
    EXPECT_GT(level, 0.8999f);
}

TEST(Transmitter, RefusesLevelsOutsideZeroToOne) {
    const Transmitter tx = make_transmitter();
    for (const double level : {0.0, -0.1, 1.0001, std::nan(""), std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(ovl_tx_set_level(tx.get(), level), -1);
    }
    EXPECT_EQ(ovl_tx_set_level(tx.get(), 1), 0);
    EXPECT_EQ(ovl_tx_set_level(nullptr, 0.5), -1);
}

// ---- Progress --------------------------------------------------------------------------------------------------

TEST(TransmitProgress, WithNothingPreparedIsDone) {
    const Transmitter tx = make_transmitter();
    for (ovl_transmitter* any : {tx.get(), static_cast<ovl_transmitter*>(nullptr)}) {
        const ovl_tx_progress progress = status_of(any);
        EXPECT_EQ(progress.step, -1);
        EXPECT_EQ(progress.kind, 0);
        EXPECT_EQ(progress.chip, -1);
        EXPECT_EQ(progress.chips, 0);
        EXPECT_EQ(progress.elapsed_s, 0);
        EXPECT_EQ(progress.total_s, 0);
        EXPECT_EQ(progress.keyed, 0);
        EXPECT_EQ(progress.done, 1);
    }
    ovl_tx_status(tx.get(), nullptr);
}

TEST(TransmitProgress, FollowsTheSteps) {
    const ovl_tx_settings settings = default_settings();
    const std::vector<ovl_tx_step> steps = {carrier(0.5), pause(0.5), pause(0.5, true),
                                            frame(OVL_ORVEL_L, "K1ABC", "FN42")};
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 4), 0);
    EXPECT_EQ(ovtx_rate(tx.get()), 48000);

    const ovl_tx_progress start = status_of(tx.get());
    EXPECT_EQ(start.step, 0);
    EXPECT_EQ(start.kind, OVL_TX_CARRIER);
    EXPECT_EQ(start.chip, -1);
    EXPECT_EQ(start.keyed, 1);
    EXPECT_EQ(start.done, 0);
    EXPECT_EQ(start.total_s, (48000 * 1.5 + 321 * 6144 + 240) / 48000);

    render(tx.get(), 24000 - 1);
    EXPECT_EQ(status_of(tx.get()).step, 0);
    render(tx.get(), 1);  // the position now lies on the first sample of the pause
    const ovl_tx_progress dropped = status_of(tx.get());
    EXPECT_EQ(dropped.step, 1);
    EXPECT_EQ(dropped.kind, OVL_TX_PAUSE);
    EXPECT_EQ(dropped.keyed, 0);
    EXPECT_EQ(dropped.elapsed_s, 0.5);

    render(tx.get(), 24000);
    EXPECT_EQ(status_of(tx.get()).step, 2);
    EXPECT_EQ(status_of(tx.get()).keyed, 1);

    render(tx.get(), 24000 + 5 * 6144);
    const ovl_tx_progress in_frame = status_of(tx.get());
    EXPECT_EQ(in_frame.step, 3);
    EXPECT_EQ(in_frame.kind, OVL_TX_FRAME);
    EXPECT_EQ(in_frame.chip, 5);
    EXPECT_EQ(in_frame.chips, 321);
    EXPECT_EQ(in_frame.keyed, 1);

    render(tx.get(), 316 * 6144);
    const ovl_tx_progress closing = status_of(tx.get());
    EXPECT_EQ(closing.step, 3);
    EXPECT_EQ(closing.chip, -1);
    EXPECT_EQ(closing.chips, 321);
    EXPECT_EQ(closing.keyed, 1);
    EXPECT_EQ(closing.done, 0);

    render(tx.get(), 240);
    EXPECT_EQ(status_of(tx.get()).done, 0);  // nothing has found the end yet
    render(tx.get(), 1);
    const ovl_tx_progress done = status_of(tx.get());
    EXPECT_EQ(done.done, 1);
    EXPECT_EQ(done.step, -1);
    EXPECT_EQ(done.elapsed_s, done.total_s);
}

TEST(TransmitProgress, APauseCountsAsKeyedWhileAStopIsUnderWay) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = pause(1);
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    render(tx.get(), 100);
    EXPECT_EQ(status_of(tx.get()).keyed, 0);
    ovl_tx_stop(tx.get());
    EXPECT_EQ(status_of(tx.get()).keyed, 0);  // only the next sample acts on it
    render(tx.get(), 1);
    EXPECT_EQ(status_of(tx.get()).keyed, 1);
}

// ---- Refusals --------------------------------------------------------------------------------------------------

TEST(TransmitStart, NamesWhatIsWrongWithTheSettings) {
    const ovl_tx_step step = carrier(1);
    const auto with = [&](auto change) {
        ovl_tx_settings settings = default_settings();
        change(settings);
        return start_error(settings, step);
    };
    const double nan = std::nan("");
    for (const int32_t rate : {7999, 384001, 0, -1}) {
        EXPECT_EQ(with([&](auto& s) { s.sample_rate = rate; }), "sample rate out of range (8000-384000 Hz)");
    }
    for (const double tone : {0.0, -1.0, 21600.0, 1e300, nan}) {
        EXPECT_EQ(with([&](auto& s) { s.tone_hz = tone; }), "tone frequency out of range");
    }
    for (const double level : {0.0, -1.0, 1.001, nan}) {
        EXPECT_EQ(with([&](auto& s) { s.level = level; }), "level out of range (0 < level <= 1)");
    }
    for (const double ramp : {-1e-9, 0.0501, nan}) {
        EXPECT_EQ(with([&](auto& s) { s.ramp_s = ramp; }), "ramp out of range (0-50 ms)");
    }
    // The first check that fails names the error.
    EXPECT_EQ(with([&](auto& s) { s = {7999, -1, -1, -1}; }), "sample rate out of range (8000-384000 Hz)");
    EXPECT_EQ(with([&](auto& s) { s = {8000, -1, -1, -1}; }), "tone frequency out of range");
}

TEST(TransmitStart, NamesWhatIsWrongWithTheSequence) {
    const ovl_tx_settings settings = default_settings();
    const ovl_tx_step step = carrier(1);
    const Transmitter tx = make_transmitter();
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, nullptr, 1), -1);
    EXPECT_STREQ(ovl_tx_last_error(tx.get()), "empty sequence");
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, &step, 0), -1);
    EXPECT_STREQ(ovl_tx_last_error(tx.get()), "empty sequence");
    EXPECT_EQ(ovl_tx_start(tx.get(), nullptr, &step, 1), -1);
    EXPECT_STREQ(ovl_tx_last_error(tx.get()), "empty sequence");
    EXPECT_EQ(ovl_tx_start(nullptr, &settings, &step, 1), -1);
    EXPECT_STREQ(ovl_tx_last_error(nullptr), "no transmitter");

    EXPECT_EQ(start_error(&settings, std::vector(65, step)), "too many steps (max 64)");
    ovl_tx_step odd = step;
    for (const int32_t kind : {0, 4, -1}) {
        odd.kind = kind;
        EXPECT_EQ(start_error(settings, odd), "unknown step kind");
    }
    for (const int32_t protocol : {0, 3, 7, 8}) {
        EXPECT_EQ(start_error(settings, frame(protocol, "K1ABC", "FN42")), "unknown protocol in a frame step");
    }
    for (const double seconds : {0.049, 3600.1, -1.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(start_error(settings, carrier(seconds)), "carrier or pause duration out of range (0.05-3600 s)");
        EXPECT_EQ(start_error(settings, pause(seconds)), "carrier or pause duration out of range (0.05-3600 s)");
    }
    EXPECT_EQ(start_error(settings, frame(OVL_OPERA, "K/1ABC")), "cannot encode K/1ABC ");
    EXPECT_EQ(start_error(settings, frame(OVL_ORVEL_S, "")), "cannot encode  ");
    EXPECT_EQ(start_error(settings, frame(OVL_ORVEL_L, "K1ABC")), "cannot encode K1ABC ");
    EXPECT_EQ(start_error(settings, frame(OVL_ORVEL_L, "K1ABC", "AS00")), "cannot encode K1ABC AS00");
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);
    EXPECT_STREQ(ovl_tx_last_error(tx.get()), "");
}

TEST(TransmitStart, AcceptsTheLimits) {
    const Transmitter tx = make_transmitter();
    const ovl_tx_settings settings = {8000, 3599.9, 1, 0.05};
    for (const double seconds : {0.05, 3600.0}) {
        const ovl_tx_step step = carrier(seconds);
        EXPECT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0) << seconds;
    }
    const std::vector<ovl_tx_step> most(64, carrier(0.05));
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, most.data(), 64), 0);
}

TEST(TransmitStart, CutsTextsThatFillTheirFields) {
    ovl_tx_step step = frame(OVL_ORVEL_L, "");
    std::memset(step.call, 'A', sizeof step.call);
    std::memset(step.locator, 'B', sizeof step.locator);
    EXPECT_EQ(start_error(default_settings(), step), "cannot encode AAAAAAAAAAAAAAA BBBBBBB");
}

TEST(TransmitStart, RefusesSequencesLongerThanPositionsCanCount) {
    ovl_tx_settings settings = default_settings();
    settings.sample_rate = 384000;  // 2^31 - 1 samples are 5592.4 s
    const std::vector<ovl_tx_step> fits = {carrier(3600), pause(1992)};
    const Transmitter tx = make_transmitter();
    EXPECT_EQ(ovl_tx_start(tx.get(), &settings, fits.data(), 2), 0);
    EXPECT_EQ(start_error(&settings, {carrier(3600), pause(1993)}),
              "carrier or pause duration out of range (0.05-3600 s)");
    EXPECT_EQ(start_error(&settings, {carrier(3600), pause(1990), frame(OVL_OPERA, "K1ABC")}),
              "carrier or pause duration out of range (0.05-3600 s)");
}

TEST(TransmitRender, RefusesNullsAndCountsBelowOne) {
    const Transmitter tx = make_transmitter();
    float sample = 5;
    EXPECT_EQ(ovl_tx_render(nullptr, &sample, 1), 0);
    EXPECT_EQ(ovl_tx_render(tx.get(), nullptr, 1), 0);
    EXPECT_EQ(ovl_tx_render(tx.get(), &sample, 0), 0);
    EXPECT_EQ(ovl_tx_render(tx.get(), &sample, -5), 0);
    EXPECT_EQ(sample, 5);
    EXPECT_EQ(ovtx_rate(nullptr), 0);
    EXPECT_EQ(ovtx_rate(tx.get()), 0);
    ovl_tx_stop(nullptr);
    ovl_tx_destroy(nullptr);
    ovl_tx_settings_default(nullptr);
}

TEST(TransmitRender, AFrameDecodesToItsCallsign) {
    ovl_tx_settings settings = default_settings();
    settings.sample_rate = 12000;
    const std::vector<ovl_tx_step> steps = {pause(2), frame(OVL_ORVEL_L, "K1ABC", "FN42AA"), pause(1)};
    const Transmitter tx = make_transmitter();
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, steps.data(), 3), 0);
    std::vector<float> samples = render_all(tx.get(), 4096);
    Random random(3);
    for (float& sample : samples) sample += static_cast<float>(random.normal());

    const std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)> decoder(ovl_create(), ovl_destroy);
    ovl_settings search;
    ovl_settings_default(&search);
    ovl_result results[4];
    ASSERT_EQ(
        ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), 12000, &search, results, 4), 1);
    EXPECT_STREQ(results[0].call, "K1ABC");
    EXPECT_STREQ(results[0].locator, "FN42AA");
    EXPECT_NEAR(results[0].t_start, 2.0, 0.005);
    EXPECT_NEAR(results[0].freq_hz, 1500, 0.5);
}
