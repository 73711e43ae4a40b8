// The signal generator keeps its word: powers, frequencies, edges, places.
#include "siggen.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "ovcdec.h"
#include "ovcenc.h"

namespace {

using Complex = std::complex<double>;

double mean_power(const std::vector<double>& x) {
    return std::inner_product(x.begin(), x.end(), x.begin(), 0.0) / static_cast<double>(x.size());
}

double decibel(double ratio) {
    return 10 * std::log10(ratio);
}

// Energy of the whole block, whether real or I/Q.
double energy(const std::vector<double>& x) {
    return mean_power(x) * static_cast<double>(x.size());
}

// The line of a block at one frequency, normalised so that a phasor of magnitude 1 throughout gives 1.
Complex line(const std::vector<double>& i, const std::vector<double>& q, double freq_hz, double rate, std::size_t first,
             std::size_t count) {
    Complex sum = 0;
    for (std::size_t k = first; k < first + count; ++k) {
        const double angle = -2 * std::numbers::pi * freq_hz * static_cast<double>(k) / rate;
        sum += Complex(i[k], q.empty() ? 0 : q[k]) * std::polar(1.0, angle);
    }
    return sum / static_cast<double>(count);
}

// Frequency at which the line of samples first … first + count is strongest, searched in steps of 0.01 Hz.
double strongest(const std::vector<double>& i, const std::vector<double>& q, double around_hz, double rate,
                 std::size_t first, std::size_t count) {
    double best = 0;
    double where = 0;
    for (int step = -100; step <= 100; ++step) {
        const double freq = around_hz + 0.01 * step;
        const double level = std::abs(line(i, q, freq, rate, first, count));
        if (level > best) {
            best = level;
            where = freq;
        }
    }
    return where;
}

Scene silent(int32_t rate, double seconds) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.noise = false;
    return scene;
}

}  // namespace

TEST(SignalGenerator, BlocksHaveTheAskedLength) {
    Scene scene = silent(8000, 1.25);
    EXPECT_EQ(render_real(scene).size(), 10000u);
    EXPECT_EQ(render_iq(scene).i.size(), 10000u);
    EXPECT_EQ(render_iq(scene).q.size(), 10000u);
    scene.seconds = 0;
    EXPECT_TRUE(render_real(scene).empty());
    EXPECT_EQ(to_float({0.5, -1.0}), (std::vector<float>{0.5F, -1.0F}));
}

TEST(SignalGenerator, NoiseIsWhiteWithTheAskedPower) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 50;
    scene.noise_rms = 0.2;
    const auto real = render_real(scene);
    EXPECT_NEAR(mean_power(real) / 0.04, 1, 0.01);

    const auto iq = render_iq(scene);
    EXPECT_NEAR((mean_power(iq.i) + mean_power(iq.q)) / 0.04, 1, 0.01);
    EXPECT_NEAR(mean_power(iq.i) / mean_power(iq.q), 1, 0.02);

    // No memory between samples, none between the channels.
    const auto n = static_cast<double>(real.size());
    for (const std::ptrdiff_t lag : {1, 2, 3, 10}) {
        const double product = std::inner_product(real.begin(), real.end() - lag, real.begin() + lag, 0.0);
        EXPECT_LT(std::abs(product / n / 0.04), 5 / std::sqrt(n)) << "lag " << lag;
    }
    EXPECT_LT(std::abs(std::inner_product(iq.i.begin(), iq.i.end(), iq.q.begin(), 0.0) / n / 0.02), 5 / std::sqrt(n));
}

TEST(SignalGenerator, SnrIsMeanFramePowerInTwoAndAHalfKilohertz) {
    const auto chips = opera_chips("K1ABC");
    Scene scene = silent(12000, 40);
    scene.noise_rms = 0.1;
    Station station;
    station.chips = chips;
    station.t_start = 3;
    station.snr_db = -17;
    scene.stations = {station};

    const double frame_samples = static_cast<double>(chips.size()) * CHIP_SECONDS * scene.rate;
    const double real_power = energy(render_real(scene)) / frame_samples;
    const double real_noise = 0.01 * 2500 / 6000;
    EXPECT_NEAR(decibel(real_power / real_noise), -17, 0.04);
    // What the header says of the edges: 5/8 of one edge's length is lost in every pair of edges, some 0.03 dB.
    EXPECT_NEAR(decibel(real_power / real_noise), -17 - 0.032, 0.004);

    scene.stations[0].freq_hz = -1234;
    const auto iq = render_iq(scene);
    const double iq_power = (energy(iq.i) + energy(iq.q)) / frame_samples;
    const double iq_noise = 0.01 * 2500 / 12000;
    EXPECT_NEAR(decibel(iq_power / iq_noise), -17 - 0.032, 0.004);
}

TEST(SignalGenerator, KeyDownPowerIsHigherByTheShareOfOnChips) {
    Scene scene = silent(8000, 1);
    Station station;
    station.chips = {1, 0, 0, 0, 1};
    station.freq_hz = 1000;
    scene.stations = {station};
    const auto samples = render_real(scene);
    // The middle of chip 0, away from its edges: 100 ms = 100 periods.
    const std::vector<double> middle(samples.begin() + 112, samples.begin() + 912);
    const double noise = scene.noise_rms * scene.noise_rms * 2500 / 4000;
    EXPECT_NEAR(mean_power(middle) / noise, 2.5, 1e-9);
}

TEST(SignalGenerator, NoChipsOrNoneOnAreSilence) {
    Scene scene = silent(1000, 1);
    scene.stations.resize(2);
    scene.stations[1].chips = {0, 0, 0};
    EXPECT_EQ(energy(render_real(scene)), 0);
}

TEST(SignalGenerator, CarrierHasTheAskedFrequencyAndPhaseInTheMiddleOfTheFrame) {
    Scene scene = silent(8000, 2);
    Station station;
    station.chips = std::vector<uint8_t>(10, 1);
    station.t_start = 0.25;
    station.freq_hz = 1500.25;
    station.phase = 0.7;
    scene.stations = {station};
    const auto iq = render_iq(scene);
    const auto middle = static_cast<std::size_t>((0.25 + 0.64) * 8000);
    EXPECT_NEAR(std::arg(Complex(iq.i[middle], iq.q[middle])), 0.7, 1e-6);
    EXPECT_NEAR(strongest(iq.i, iq.q, 1500, 8000, 2200, 9600), 1500.25, 0.011);

    const auto real = render_real(scene);
    EXPECT_NEAR(real[middle], std::sqrt(2 * 0.0025 * 2500 / 4000) * std::cos(0.7), 1e-7);
    EXPECT_NEAR(strongest(real, {}, 1500, 8000, 2200, 9600), 1500.25, 0.011);
}

TEST(SignalGenerator, PositiveOffsetsTurnCounterclockwise) {
    for (const double freq : {400.0, -400.0}) {
        Scene scene = silent(8000, 0.2);
        Station station;
        station.chips = {1};
        station.freq_hz = freq;
        scene.stations = {station};
        const auto iq = render_iq(scene);
        const Complex turn = Complex(iq.i[501], iq.q[501]) / Complex(iq.i[500], iq.q[500]);
        EXPECT_NEAR(std::arg(turn), 2 * std::numbers::pi * freq / 8000, 1e-9);
        EXPECT_NEAR(std::abs(turn), 1, 1e-9);
        EXPECT_GT(std::abs(line(iq.i, iq.q, freq, 8000, 100, 800)), 0);
        EXPECT_LT(std::abs(line(iq.i, iq.q, -freq, 8000, 100, 800)),
                  1e-6 * std::abs(line(iq.i, iq.q, freq, 8000, 100, 800)));
    }
}

TEST(SignalGenerator, DriftIsLinearAroundTheMiddleOfTheFrame) {
    Scene scene = silent(2000, 40);
    Station station;
    station.chips = std::vector<uint8_t>(239, 1);
    station.t_start = 2;
    station.freq_hz = 300;
    station.drift_hz_s = 0.05;
    scene.stations = {station};
    const auto iq = render_iq(scene);
    const double middle = 2 + 239 * CHIP_SECONDS / 2;
    for (const double t : {4.0, 10.0, middle, 25.0, 30.0}) {
        const auto first = static_cast<std::size_t>((t - 1) * 2000);
        EXPECT_NEAR(strongest(iq.i, iq.q, 300, 2000, first, 4000), 300 + 0.05 * (t - middle), 0.0101) << t;
    }
}

TEST(SignalGenerator, PhaseRunsOnThroughPauses) {
    Scene scene = silent(8000, 0.4);
    Station station;
    station.chips = {1, 0, 1};
    station.freq_hz = 777.7;
    scene.stations = {station};
    const auto iq = render_iq(scene);
    const Complex turn = Complex(iq.i[2500], iq.q[2500]) / Complex(iq.i[500], iq.q[500]);
    const double angle = 2 * std::numbers::pi * 777.7 * 2000 / 8000;
    EXPECT_NEAR(std::abs(turn - std::polar(1.0, angle)), 0, 1e-9);
}

TEST(SignalGenerator, EdgesAreRaisedCosinesCentredOnTheBordersWhereKeyingChanges) {
    const int32_t rate = 100000;
    Scene scene = silent(rate, 0.7);
    Station station;
    station.chips = {1, 1, 0, 1};
    station.t_start = 0.1;
    station.freq_hz = 0;
    scene.stations = {station};
    const auto level = render_iq(scene).i;  // phase 0 at 0 Hz: the envelope itself
    const double down = level[static_cast<std::size_t>(0.15 * rate)];
    ASSERT_GT(down, 0);
    const auto border = [&](int chip) { return std::llround((0.1 + chip * CHIP_SECONDS) * rate); };
    const auto at = [&](long long sample) { return level[static_cast<std::size_t>(sample)] / down; };
    const long long half = std::llround(EDGE_SECONDS / 2 * rate);
    for (const auto& [chip, rises] : {std::pair{0, true}, {2, false}, {3, true}, {4, false}}) {
        EXPECT_NEAR(at(border(chip)), 0.5, 1e-9) << chip;
        EXPECT_NEAR(at(border(chip) - half), rises ? 0 : 1, 1e-9) << chip;
        EXPECT_NEAR(at(border(chip) + half), rises ? 1 : 0, 1e-9) << chip;
        for (long long d = -half; d <= half; ++d) {
            const double swing = 0.5 * std::sin(std::numbers::pi * static_cast<double>(d) / rate / EDGE_SECONDS);
            ASSERT_NEAR(at(border(chip) + d), rises ? 0.5 + swing : 0.5 - swing, 1e-9) << chip << ' ' << d;
        }
    }
    for (long long d = -half; d <= half; ++d) ASSERT_NEAR(at(border(1) + d), 1, 1e-12);
    for (long long k = 0; k < border(0) - half; ++k) ASSERT_EQ(at(k), 0);
    for (long long k = border(2) + half; k <= border(3) - half; ++k) ASSERT_NEAR(at(k), 0, 1e-12);
    for (long long k = border(4) + half + 1; k < 70000; ++k) ASSERT_EQ(at(k), 0);
}

TEST(SignalGenerator, FramesMayHangOverBothEndsOfTheBlock) {
    Scene wide = silent(4000, 3);
    Station station;
    station.chips = {1, 0, 1, 1, 0, 1, 0, 1};
    station.t_start = 1;
    station.freq_hz = 600;
    station.drift_hz_s = 2;
    wide.stations = {station};
    const auto whole = render_real(wide);

    // The same frame in a block of 0.5 s that begins 1.25 s later: before its start and past its end.
    Scene narrow = wide;
    narrow.seconds = 0.5;
    narrow.stations[0].t_start = 1 - 1.25;
    const auto part = render_real(narrow);
    ASSERT_EQ(part.size(), 2000u);
    for (std::size_t k = 0; k < part.size(); ++k) ASSERT_NEAR(part[k], whole[k + 5000], 1e-9) << k;

    narrow.stations[0].t_start = -100;
    EXPECT_EQ(energy(render_real(narrow)), 0);
    narrow.stations[0].t_start = 100;
    EXPECT_EQ(energy(render_real(narrow)), 0);
}

TEST(SignalGenerator, StationsAndNoiseAdd) {
    Scene scene;
    scene.rate = 2000;
    scene.seconds = 2;
    Station first;
    first.chips = {1, 0, 1};
    first.freq_hz = 500;
    Station second = first;
    second.freq_hz = 700;
    second.t_start = 0.3;
    const auto noise = render_iq(scene);
    scene.noise = false;
    scene.stations = {first};
    const auto a = render_iq(scene);
    scene.stations = {second};
    const auto b = render_iq(scene);
    scene.noise = true;
    scene.stations = {first, second};
    const auto all = render_iq(scene);
    ASSERT_GT(energy(b.q), 0);
    for (std::size_t k = 0; k < all.i.size(); ++k) {
        ASSERT_NEAR(all.i[k], noise.i[k] + a.i[k] + b.i[k], 1e-12);
        ASSERT_NEAR(all.q[k], noise.q[k] + a.q[k] + b.q[k], 1e-12);
    }
}

TEST(SignalGenerator, EqualScenesAreEqualAndSeedsDiffer) {
    Scene scene;
    scene.rate = 1000;
    scene.seconds = 1;
    EXPECT_EQ(render_real(scene), render_real(scene));
    EXPECT_EQ(render_iq(scene).q, render_iq(scene).q);
    const auto first = render_real(scene);
    scene.seed = 2;
    const auto second = render_real(scene);
    EXPECT_NE(first, second);
    // Neighbouring seeds share nothing.
    const double product = std::inner_product(first.begin(), first.end(), second.begin(), 0.0);
    EXPECT_LT(std::abs(product), 5 * 0.0025 * std::sqrt(1000.0));
}

TEST(SignalGenerator, RefusesCallsignsThatCannotBeEncoded) {
    EXPECT_THROW(opera_chips(""), std::invalid_argument);
    EXPECT_THROW(opera_chips("K1/AB"), std::invalid_argument);
    const auto chips = opera_chips("K1ABC");
    ASSERT_EQ(chips.size(), 239u);
    EXPECT_EQ(chips[0], 1);
    for (std::size_t pair = 0; pair < 119; ++pair) ASSERT_EQ(chips[2 * pair + 1] + chips[2 * pair + 2], 1) << pair;
}

TEST(RandomNumbers, FollowTheirPublishedSequence) {
    Random random(1234567);  // first outputs of splitmix64 for this seed
    EXPECT_EQ(random.next(), 6457827717110365317u);
    EXPECT_EQ(random.next(), 3203168211198807973u);
    EXPECT_EQ(random.next(), 9817491932198370423u);
}

TEST(RandomNumbers, StayInTheirRangesAndReachBothEnds) {
    Random random(7);
    std::set<int32_t> seen;
    double sum = 0;
    for (int k = 0; k < 20000; ++k) {
        const double u = random.uniform(-2, 3);
        ASSERT_GE(u, -2);
        ASSERT_LT(u, 3);
        sum += u;
        seen.insert(random.integer(-3, 4));
    }
    EXPECT_NEAR(sum / 20000, 0.5, 0.05);
    EXPECT_EQ(seen, (std::set<int32_t>{-3, -2, -1, 0, 1, 2, 3, 4}));
    EXPECT_EQ(random.integer(5, 5), 5);
    const int32_t any = random.integer(INT32_MIN, INT32_MAX);
    EXPECT_LE(any, INT32_MAX);
}

TEST(RandomNumbers, NormalOnesHaveTheMomentsOfAGaussian) {
    Random random(3);
    double moments[5] = {};
    const int count = 200000;
    for (int k = 0; k < count; ++k) {
        const double x = random.normal();
        for (int power = 1; power <= 4; ++power) moments[power] += std::pow(x, power) / count;
    }
    EXPECT_NEAR(moments[1], 0, 0.012);
    EXPECT_NEAR(moments[2], 1, 0.016);
    EXPECT_NEAR(moments[3], 0, 0.05);
    EXPECT_NEAR(moments[4], 3, 0.11);
}

TEST(RandomNumbers, CallsignsArePlausibleOfEveryKindAndEncode) {
    Random random(11);
    std::set<std::string> calls;
    int singles = 0;
    int digit_first = 0;
    int digit_second = 0;
    for (int k = 0; k < 3000; ++k) {
        const std::string call = random.callsign();
        ASSERT_LE(call.size(), 6u);
        char normalised[7] = {};
        ASSERT_EQ(ov_normalize_call(call.c_str(), normalised), 0) << call;
        ASSERT_EQ(ov_call_plausible(normalised), 1) << call;
        ASSERT_NO_THROW(opera_chips(call));
        singles += normalised[0] == ' ';
        digit_first += normalised[0] >= '0' && normalised[0] <= '9';
        digit_second += normalised[1] >= '0' && normalised[1] <= '9';
        calls.insert(call);
    }
    EXPECT_GT(singles, 500);
    EXPECT_GT(digit_first, 200);
    EXPECT_GT(digit_second, 200);
    EXPECT_GT(calls.size(), 2000u);
}
