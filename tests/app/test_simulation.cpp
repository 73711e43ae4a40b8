// Simulated recordings: the fading channel, the levels of all that is in them, and the orvel simulate command.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <numbers>
#include <string>
#include <vector>

#include "command.h"
#include "json_value.h"
#include "liborvel.h"
#include "siggen.h"
#include "simulation/channel.h"
#include "simulation/scene.h"

namespace {

using Complex = std::complex<double>;

// Values of a path's gain, so far apart that neighbours have next to nothing in common.
std::vector<Complex> sparse_gains(double spread_hz, uint64_t seed, int count) {
    PathGain gain(spread_hz, seed, 7);
    std::vector<Complex> values;
    for (int k = 0; k < count; k++) values.push_back(gain.at(k * 1.5 / spread_hz));
    return values;
}

TEST(FadingPath, HasAMeanPowerOfOneAndNoSteadyPart) {
    const auto gains = sparse_gains(10, 1, 20000);
    double power = 0;
    Complex mean = 0;
    double cross = 0;
    for (const Complex& gain : gains) {
        power += std::norm(gain) / 20000;
        mean += gain / 20000.0;
        cross += gain.real() * gain.imag() / 20000;
    }
    EXPECT_NEAR(power, 1, 0.03);
    EXPECT_LT(std::abs(mean), 0.03);
    EXPECT_NEAR(cross, 0, 0.02);
}

TEST(FadingPath, FadesByRayleighsLaw) {
    const auto gains = sparse_gains(10, 2, 20000);
    for (const double power : {0.01, 0.1, 0.5, 1.0, 2.0, 4.0}) {
        const auto below =
            std::count_if(gains.begin(), gains.end(), [&](const Complex& gain) { return std::norm(gain) < power; });
        EXPECT_NEAR(static_cast<double>(below) / 20000, 1 - std::exp(-power), 0.015) << power;
    }
}

// The autocorrelation of a Gaussian spectrum of standard deviation s is exp(-2 pi^2 s^2 t^2).
TEST(FadingPath, HasAGaussianDopplerSpectrumWhoseSpreadIsTwoStandardDeviations) {
    for (const double spread_hz : {0.5, 8.0}) {
        for (const double turns : {0.1, 0.2, 0.4}) {  // of a standard deviation
            const double lag = turns / (spread_hz / 2);
            PathGain gain(spread_hz, 3, 0);
            Complex sum = 0;
            constexpr int COUNT = 10000;
            for (int k = 0; k < COUNT; k++) {
                const double t = k * (lag + 1.5 / spread_hz);
                const Complex first = gain.at(t);
                sum += std::conj(first) * gain.at(t + lag) / static_cast<double>(COUNT);
            }
            const double expected = std::exp(-2 * std::pow(std::numbers::pi * turns, 2));
            EXPECT_NEAR(sum.real(), expected, 0.035) << spread_hz << " Hz, " << turns;
            EXPECT_NEAR(sum.imag(), 0, 0.035) << spread_hz << " Hz, " << turns;
        }
    }
}

TEST(FadingChannel, SplitsThePowerOverTwoIndependentPaths) {
    WattersonChannel channel({2, 1}, 4, 0);
    double direct = 0;
    double delayed = 0;
    Complex cross = 0;
    constexpr int COUNT = 10000;
    for (int k = 0; k < COUNT; k++) {
        const auto gains = channel.at(k * 0.75);
        direct += std::norm(gains.direct) / COUNT;
        delayed += std::norm(gains.delayed) / COUNT;
        cross += gains.direct * std::conj(gains.delayed) / static_cast<double>(COUNT);
    }
    EXPECT_NEAR(direct, 0.5, 0.02);
    EXPECT_NEAR(delayed, 0.5, 0.02);
    EXPECT_LT(std::abs(cross), 0.02);
    EXPECT_DOUBLE_EQ(channel.delay_s(), 0.001);
}

// The variance grows with time, and steps apart know nothing of each other.
TEST(PhaseWalk, DriftsByItsRootMeanSquareInASecond) {
    constexpr int32_t SECONDS = 4000;
    PhaseWalk walk(0.7, 5, 1);
    std::vector<double> rad;
    for (int32_t s = 0; s <= SECONDS; s++) rad.push_back(2 * std::numbers::pi * walk.at(s));
    EXPECT_EQ(rad[0], 0);
    const auto mean_square = [&](std::size_t lag) {
        double sum = 0;
        for (std::size_t k = 0; k + lag < rad.size(); k += lag) sum += std::pow(rad[k + lag] - rad[k], 2);
        return sum / (SECONDS / static_cast<double>(lag));
    };
    EXPECT_NEAR(mean_square(1) / (0.7 * 0.7), 1, 0.08);
    EXPECT_NEAR(mean_square(4) / (4 * 0.7 * 0.7), 1, 0.16);
}

TEST(FadingChannel, KnowsTheUsualChannelsByName) {
    EXPECT_DOUBLE_EQ(find_fading("good")->spread_hz, 0.1);
    EXPECT_DOUBLE_EQ(find_fading("moderate")->delay_ms, 1);
    EXPECT_DOUBLE_EQ(find_fading("poor")->spread_hz, 1);
    EXPECT_FALSE(find_fading("bad"));
}

// ---- Scenes ---------------------------------------------------------------------------------------------------------

std::vector<float> all_samples(const SimScene& scene) {
    SceneSource source(scene);
    std::vector<float> samples;
    for (auto block = source.next(); !block.empty(); block = source.next()) {
        samples.insert(samples.end(), block.begin(), block.end());
    }
    return samples;
}

std::vector<Complex> all_pairs(const SimScene& scene) {
    const auto samples = all_samples(scene);
    std::vector<Complex> pairs;
    for (std::size_t k = 0; k + 1 < samples.size(); k += 2) pairs.emplace_back(samples[k], samples[k + 1]);
    return pairs;
}

double mean_power(const std::vector<Complex>& pairs, double from_s, double to_s, double rate) {
    const auto first = static_cast<std::size_t>(from_s * rate);
    const auto end = static_cast<std::size_t>(to_s * rate);
    double sum = 0;
    for (std::size_t k = first; k < end; k++) sum += std::norm(pairs[k]);
    return sum / static_cast<double>(end - first);
}

SimStation station(const std::vector<uint8_t>& chips) {
    SimStation made;
    made.call = "K2QRX";
    made.protocol = OVL_OPERA;
    made.chips = chips;
    return made;
}

SimScene quiet_scene(bool iq) {
    SimScene scene;
    scene.rate = 4000;
    scene.seconds = 34;
    scene.iq = iq;
    scene.noise = false;
    return scene;
}

// The tests' own generator, made apart from this one, has the same keying, frequency and level; the phase is free.
TEST(SimulatedStation, EqualsTheTestsGenerator) {
    Scene reference{4000, 34, 1, 0.05, false, {{opera_chips("K2QRX"), 1.7, 812.5, 0.03, -7, 0}}};
    SimScene scene = quiet_scene(false);
    scene.stations = {station(opera_chips("K2QRX"))};
    scene.stations[0].t_start = 1.7;
    scene.stations[0].freq_hz = 812.5;
    scene.stations[0].drift_hz_s = 0.03;
    scene.stations[0].snr_db = -7;
    const auto made = all_samples(scene);
    const auto cosine = render_real(reference);
    reference.stations[0].phase = std::numbers::pi / 2;
    const auto sine = render_real(reference);
    ASSERT_EQ(made.size(), cosine.size());

    double power = 0;
    double a = 0;
    double b = 0;
    for (std::size_t k = 0; k < made.size(); k++) {
        power += cosine[k] * cosine[k];
        a += made[k] * cosine[k];
        b += made[k] * sine[k];
    }
    EXPECT_NEAR(std::hypot(a, b) / power, 1, 1e-3);
    double worst = 0;
    for (std::size_t k = 0; k < made.size(); k++) {
        worst = std::max(worst, std::abs(made[k] - (a * cosine[k] + b * sine[k]) / power));
    }
    EXPECT_LT(worst, 1e-4);
}

TEST(SimulatedStation, HasItsSnrByPlainPowers) {
    for (const bool iq : {false, true}) {
        SimScene scene = quiet_scene(iq);
        scene.rate = 8000;
        const auto power = [&] {
            const auto samples = all_samples(scene);
            const std::size_t channels = iq ? 2 : 1;
            double sum = 0;
            for (std::size_t k = 0; k < samples.size(); k++) sum += static_cast<double>(samples[k]) * samples[k];
            return sum / static_cast<double>(samples.size() / channels);
        };
        scene.noise = true;
        const double noise = power();
        EXPECT_NEAR(noise, 0.05 * 0.05, 0.0001);
        scene.noise = false;
        scene.stations = {station(opera_chips("DL1QXA"))};
        scene.stations[0].snr_db = -11;
        const double frame = power() * scene.seconds / scene.stations[0].length_s();
        const double bandwidth = iq ? 8000 : 4000;
        EXPECT_NEAR(10 * std::log10(frame / (noise * 2500 / bandwidth)), -11, 0.15) << iq;

        scene.stations.clear();
        scene.carriers = {{1234, -20}};
        EXPECT_NEAR(10 * std::log10(power() / (noise * 2500 / bandwidth)), -20, 0.15) << iq;
    }
}

TEST(SimulatedStation, DriftsLinearlyThroughItsFrequencyInTheMiddle) {
    SimScene scene = quiet_scene(true);
    scene.stations = {station(std::vector<uint8_t>(240, 1))};  // 30.72 s of carrier
    scene.stations[0].freq_hz = -700;
    scene.stations[0].drift_hz_s = 0.5;
    const auto pairs = all_pairs(scene);
    for (const double t : {1.0, 15.36, 30.0}) {
        const auto k = static_cast<std::size_t>(t * scene.rate);
        const double freq = std::arg(pairs[k + 1] * std::conj(pairs[k])) / (2 * std::numbers::pi) * scene.rate;
        EXPECT_NEAR(freq, -700 + 0.5 * (t - 15.36), 0.05) << t;
    }
}

// Beside the same station on a steady carrier: equal levels, and phases that part as the walk says.
TEST(SimulatedStation, WalksThroughItsPhase) {
    SimScene scene = quiet_scene(true);
    scene.stations = {station(std::vector<uint8_t>(240, 1))};
    const auto steady = all_pairs(scene);
    scene.stations[0].walk_rad = 0.5;
    const auto walking = all_pairs(scene);
    double sum = 0;
    Complex last = 1;
    for (int32_t t = 1; t <= 30; t++) {
        const auto k = static_cast<std::size_t>(t * scene.rate);
        EXPECT_NEAR(std::abs(walking[k]) / std::abs(steady[k]), 1, 1e-4);
        const Complex turned = walking[k] / steady[k];
        sum += std::pow(std::arg(turned / last), 2);
        last = turned;
    }
    EXPECT_GT(sum / 30, 0.25 * 0.4);
    EXPECT_LT(sum / 30, 0.25 * 2);
}

TEST(SimulatedStation, ArrivesAgainAfterTheDelay) {
    SimScene scene = quiet_scene(true);
    scene.seconds = 1;
    scene.stations = {station({1})};
    scene.stations[0].t_start = 0.2;
    scene.stations[0].fading = {0.01, 50};
    const auto pairs = all_pairs(scene);
    const double whole = mean_power(pairs, 0.26, 0.32, scene.rate);
    EXPECT_EQ(mean_power(pairs, 0, 0.19, scene.rate), 0);
    EXPECT_GT(mean_power(pairs, 0.21, 0.24, scene.rate), 1e-4 * whole);    // the first path alone
    EXPECT_GT(mean_power(pairs, 0.334, 0.374, scene.rate), 1e-4 * whole);  // the second alone
    EXPECT_EQ(mean_power(pairs, 0.39, 1, scene.rate), 0);
}

TEST(SimulatedStation, KeepsItsPowerInTheMeanOfManyFades) {
    SimScene scene = quiet_scene(true);
    scene.rate = 1000;
    scene.seconds = 4;
    scene.stations = {station(std::vector<uint8_t>(31, 1))};
    scene.stations[0].freq_hz = 100;
    const double steady = mean_power(all_pairs(scene), 0, 4, scene.rate);
    scene.stations[0].fading = {5, 2};
    double faded = 0;
    constexpr int COUNT = 200;
    for (uint64_t seed = 1; seed <= COUNT; seed++) {
        scene.seed = seed;
        faded += mean_power(all_pairs(scene), 0, 4, scene.rate) / COUNT;
    }
    EXPECT_NEAR(faded / steady, 1, 0.08);
}

TEST(SimulatedScene, StationsLeaveNoiseAndEachOtherAlone) {
    SimScene scene = quiet_scene(true);
    scene.noise = true;
    const auto empty = all_samples(scene);
    scene.stations = {station(opera_chips("K2QRX"))};
    scene.stations[0].t_start = 2;
    scene.stations[0].fading = {1, 0};
    const auto one = all_samples(scene);
    scene.stations.push_back(station(opera_chips("DL1QXA")));
    scene.stations[1].t_start = 20;
    const auto two = all_samples(scene);
    const std::size_t second = 2 * 4000;
    EXPECT_TRUE(std::equal(empty.begin(), empty.begin() + static_cast<std::ptrdiff_t>(1.9 * second), one.begin()));
    EXPECT_TRUE(std::equal(one.begin(), one.begin() + static_cast<std::ptrdiff_t>(19.9 * second), two.begin()));
    EXPECT_NE(one, empty);
    EXPECT_NE(two, one);
}

TEST(SimulatedScene, ClicksComeAsOftenAndAsLoudAsAsked) {
    SimScene scene = quiet_scene(true);
    scene.rate = 8000;
    scene.seconds = 200;
    scene.impulses = SimImpulses{5, 30};
    const auto pairs = all_pairs(scene);
    // Onsets: sound after 10 ms of nothing loud.
    int onsets = 0;
    double loud = 0;
    int quiet = 1000;
    for (const Complex& pair : pairs) {
        if (std::abs(pair) > 0.05) {
            if (quiet > 80) {
                onsets++;
                loud += std::norm(pair);
            }
            quiet = 0;
        } else {
            quiet++;
        }
    }
    EXPECT_NEAR(onsets, 950, 100);  // some of 1000 come together
    EXPECT_NEAR(10 * std::log10(loud / onsets / (0.05 * 0.05)), 30, 1);
}

// ---- The command ----------------------------------------------------------------------------------------------------

std::string bytes_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

class SimulateCommand : public TestWithFiles {};

TEST_F(SimulateCommand, WritesEqualFilesForEqualSeeds) {
    const Arguments scene = {"opera=K2QRX,snr=-10,fading=poor", "--impulses", "3,6", "--seconds", "5", "--no-noise"};
    for (const std::string kind : {"s16.wav", "float.wav", "s16.flac"}) {
        const auto written = [&](const std::string& name, const std::string& seed) {
            Arguments arguments = {"simulate", "-o", path(name + kind), "--seed", seed};
            if (kind.starts_with("float")) arguments.insert(arguments.end(), {"--format", "float"});
            arguments.insert(arguments.end(), scene.begin(), scene.end());
            const auto result = orvel(arguments);
            EXPECT_EQ(result.status, 0) << result.err;
            EXPECT_EQ(result.err, "");
            return bytes_of(path(name + kind));
        };
        const std::string first = written("a", "9");
        EXPECT_EQ(first, written("b", "9")) << kind;
        EXPECT_NE(first, written("c", "10")) << kind;
        EXPECT_EQ(first.find("PEAK"), std::string::npos) << "holds the time of writing";
    }
}

TEST_F(SimulateCommand, WritesTheTruthThatDecodeFinds) {
    const auto made = orvel({"simulate", "-o", path("x.wav"), "opera=K2QRX,freq=1400,snr=-14,start=3.5,drift=0.03",
                             "orvel-l=DL1QXA,JO20,freq=1500,snr=-15,start=1.25",
                             "orvel-s=G4QZB,freq=1600,snr=-15,start=6", "--carrier", "1550,-25"});
    ASSERT_EQ(made.status, 0) << made.err;
    const auto truth = lines_of(bytes_of(path("x.jsonl")));
    const auto found = lines_of(orvel({"decode", "--json", path("x.wav")}).out);
    ASSERT_EQ(truth.size(), 3u);
    ASSERT_EQ(found.size(), 3u);
    for (const std::string& line : truth) {
        const auto sent = nlohmann::json::parse(line);
        bool heard = false;
        for (const std::string& row : found) {
            const auto spot = nlohmann::json::parse(row);
            if (spot["call"] != sent["call"]) continue;
            heard = true;
            EXPECT_EQ(spot["protocol"], sent["protocol"]);
            EXPECT_EQ(spot["locator"], sent["locator"]);
            EXPECT_NEAR(spot["t_start"].get<double>(), sent["t_start"].get<double>(), 0.02);
            EXPECT_NEAR(spot["freq_hz"].get<double>(), sent["freq_hz"].get<double>(), 0.5);
            EXPECT_NEAR(spot["drift_hz_s"].get<double>(), sent["drift_hz_s"].get<double>(), 0.02);
            // The decoder reads a little too little.
            EXPECT_NEAR(spot["snr_db"].get<double>(), sent["snr_db"].get<double>() - 0.5, 1.2);
        }
        EXPECT_TRUE(heard) << line;
    }
}

TEST_F(SimulateCommand, TakesATruthFileForItsStations) {
    const auto made = orvel({"simulate", "-o", path("a.wav"), "--iq", "--rate", "4000", "opera=K2QRX,freq=-900,start=1",
                             "orvel-l=DL1QXA,JO20,freq=40,fading=moderate"});
    ASSERT_EQ(made.status, 0) << made.err;
    const auto again = orvel({"simulate", "-o", path("b.wav"), "--iq", "--rate", "4000", "--stations", path("a.jsonl"),
                              "--truth", path("truth")});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(bytes_of(path("a.wav")), bytes_of(path("b.wav")));
    EXPECT_EQ(bytes_of(path("a.jsonl")), bytes_of(path("truth")));
    EXPECT_FALSE(std::filesystem::exists(path("b.jsonl")));

    const std::string array = write("array.json", R"([{"call": "K2QRX", "freq_hz": 12, "fading": "good"}])");
    const auto listed = orvel({"simulate", "-o", path("c.wav"), "--iq", "--stations", array, "--seconds", "1"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto truth = nlohmann::json::parse(bytes_of(path("c.jsonl")));
    EXPECT_EQ(truth["protocol"], "OPERA 05");
    EXPECT_EQ(truth["spread_hz"], 0.1);
}

TEST_F(SimulateCommand, TellsTimeAndFrequencyInSigmf) {
    for (const std::string name : {"pair.sigmf-data", "archive.sigmf"}) {
        const auto made = orvel({"simulate", "-o", path(name), "opera=K2QRX,snr=0,start=3", "--dial", "137000",
                                 "--sideband=lsb", "--start=2026-03-01T12:00Z"});
        EXPECT_EQ(made.status, 0) << made.err;
        const auto decoded = orvel({"decode", "--json", "--protocols=opera", path(name)});
        ASSERT_EQ(lines_of(decoded.out).size(), 1u) << decoded.err;
        const auto spot = JsonValue::parse(decoded.out);
        EXPECT_NEAR(spot.at("rf_hz").number(), 135500, 0.1);
        EXPECT_TRUE(spot.at("utc_start").text().starts_with("2026-03-01T12:00:03.0")) << spot;
    }
}

TEST_F(SimulateCommand, SaysWhatItRefuses) {
    const std::string out = path("x.wav");
    const auto refused = [&](const Arguments& more, const Arguments& texts) {
        Arguments arguments = {"simulate", "-o", out};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return usage_error_with(arguments, texts);
    };
    EXPECT_TRUE(refused({"opera=K2QRX,freq=nan"}, {"freq"}));
    EXPECT_TRUE(refused({"opera=K2QRX,freq=6001"}, {"K2QRX", "does not fit", "12000"}));
    EXPECT_TRUE(refused({"opera=K2QRX,freq=-100"}, {"does not fit"}));
    EXPECT_TRUE(refused({"opera=K2QRX,loud=3"}, {"'loud'"}));
    EXPECT_TRUE(refused({"opera=K2QRX,snr=-10,7"}, {"'7'"}));
    EXPECT_TRUE(refused({"opera=K2QRX,delay=2"}, {"spread"}));
    EXPECT_TRUE(refused({"opera=K2QRX,fading=bad"}, {"good, moderate, poor"}));
    EXPECT_TRUE(refused({"opera=,"}, {"callsign"}));
    EXPECT_TRUE(refused({"carrier=3"}, {"opera, orvel-s, orvel-l"}));
    EXPECT_TRUE(refused({}, {"--seconds"}));
    EXPECT_TRUE(refused({"--seconds", "1e9"}, {"week"}));
    EXPECT_TRUE(refused({"--seconds", "1", "--impulses", "1"}, {"RATE,DB"}));
    EXPECT_TRUE(refused({"--seconds", "1", "--impulses", "0,1"}, {"RATE"}));
    EXPECT_TRUE(refused({"--seconds", "1", "--carrier", "9000,1"}, {"does not fit"}));
    EXPECT_TRUE(refused({"--seconds", "1", "--carrier", "900,inf"}, {"HZ,DB"}));
    EXPECT_TRUE(refused({"--stations", path("none")}, {"cannot read", "none"}));
    EXPECT_TRUE(refused({"--stations", path("")}, {"cannot read", path("")})) << "a directory";
    EXPECT_TRUE(refused({"--stations", write("a", "{\"call\": 3}\n")}, {"line 1", "'call'"}));
    EXPECT_TRUE(refused({"--stations", write("b", "\n[3]x\n")}, {"JSON"}));
    EXPECT_TRUE(refused({"--stations", write("c", "{\"freq_hz\": 3}\n")}, {"'call' is missing"}));
    EXPECT_TRUE(usage_error_with({"simulate", "-o", path("x.mp3"), "opera=K2QRX"}, {".wav or .flac"}));
    EXPECT_TRUE(
        usage_error_with({"simulate", "-o", path("x.wav"), "opera=K2QRX", "--dial=137000"}, {"--dial", "SigMF"}));
    EXPECT_TRUE(
        usage_error_with({"simulate", "-o", path("x.wav"), "opera=K2QRX", "--start=12:00"}, {"--start", "SigMF"}));
    EXPECT_TRUE(
        usage_error_with({"simulate", "-o", path("x.sigmf"), "opera=K2QRX", "--start=noon"}, {"--start", "'noon'"}));
    EXPECT_TRUE(usage_error_with({"simulate", "-o", path("x.flac"), "--format", "float", "opera=K2QRX"}, {"FLAC"}));
    EXPECT_FALSE(std::filesystem::exists(out));

    const auto unwritable = orvel({"simulate", "-o", path("no/x.wav"), "opera=K2QRX"});
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_TRUE(one_line_with(unwritable, {"cannot write", "no/x.wav"}));
    const auto no_truth = orvel({"simulate", "-o", out, "--truth", path("no/x"), "opera=K2QRX"});
    EXPECT_EQ(no_truth.status, 1);
    EXPECT_TRUE(one_line_with(no_truth, {"cannot write", "no/x"}));
    const auto clipped = orvel({"simulate", "-o", out, "--noise", "-6", "--seconds", "1", "--impulses", "50,20"});
    EXPECT_EQ(clipped.status, 0);
    EXPECT_TRUE(one_line_with(clipped, {"clipped"}));
}

}  // namespace
