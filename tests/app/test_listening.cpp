// Listening, piece by piece: overlapping decodes, the clock of captured samples.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/interrupts.h"
#include "base/utc.h"
#include "listening/clock_check.h"
#include "listening/confirmation.h"
#include "listening/history.h"
#include "listening/level.h"
#include "listening/line_queue.h"
#include "listening/receiver.h"
#include "listening/recorder.h"
#include "listening/sample_clock.h"
#include "listening/spectrum.h"
#include "siggen.h"
#include "sound_server.h"
#include "sources/source.h"

namespace {

// ---- Overlapping decodes -------------------------------------------------------------------------------------------

// How far a time is past a multiple of a step; 0 for one that, but for rounding, is a multiple itself.
double remainder_s(double time_s, double step_s) {
    const double rest_s = time_s - step_s * std::floor(time_s / step_s + 1e-6);
    return std::max(rest_s, 0.0);
}

TEST(OverlappingDecodes, BeginAtFourPositionsOfTheGridInTurn) {
    std::mt19937_64 random(6);
    Confirmation confirmation(4, 48);
    double earliest_s = 0;
    for (int round = 0; round < 500; round++) {
        for (const double phase_s : {0.0, 0.0025, 0.005, 0.0075}) {
            const double begin_s = confirmation.next_begin_s(earliest_s);
            EXPECT_GE(begin_s, earliest_s - 1e-9);
            EXPECT_LE(begin_s, earliest_s + 0.008 + 1e-9);
            EXPECT_NEAR(remainder_s(begin_s, 0.008), phase_s, 1e-8);
            earliest_s += std::uniform_real_distribution<double>(1, 400)(random);
        }
    }
    EXPECT_EQ(Confirmation(4, 48).next_begin_s(0), 0) << "as a recording";
}

// A listener whose decodes come every four seconds sharp always has the same rest of the 2 ms between samples of the
// baseband before them, which decides over weak frames, too.
TEST(OverlappingDecodes, BeginBetweenTheSamplesOfTheBaseband) {
    Confirmation confirmation(4, 48);
    std::vector<double> rests_s;
    for (int k = 0; k < 4; k++) rests_s.push_back(remainder_s(confirmation.next_begin_s(4 * k), 0.002));
    std::sort(rests_s.begin(), rests_s.end());
    for (std::size_t k = 0; k < 4; k++) EXPECT_NEAR(rests_s[k], 0.0005 * static_cast<double>(k), 1e-8);
}

TEST(OverlappingDecodes, TakeTwoOfTheLongestFramesBesidesTheHoldOff) {
    EXPECT_NEAR(Confirmation(4, 0).block_s(), 90, 1e-9);
    EXPECT_NEAR(Confirmation(1, 60).block_s(), 150, 1e-9);
}

TEST(OverlappingDecodes, OneFindOfFourIsNotBelieved) {
    Confirmation confirmation(4, 48);
    for (int k = 1; k <= 20; k++) confirmation.add(4 * k);
    EXPECT_TRUE(confirmation.confirm(68.5, 1));  // of three
    EXPECT_TRUE(confirmation.confirm(68.5, 2));
    EXPECT_FALSE(confirmation.confirm(68, 1));
    EXPECT_TRUE(confirmation.confirm(68, 2));
    EXPECT_FALSE(confirmation.confirm(20, 1));
    EXPECT_TRUE(confirmation.confirm(20, 2));
    confirmation.clear();
    EXPECT_TRUE(confirmation.confirm(68, 1));
}

// Whatever their pace: every decode between the end of a frame and its decision counts for it, the one after which it
// is decided included.
TEST(OverlappingDecodes, NoneIsLostBetweenTheEndOfAFrameAndItsDecision) {
    std::mt19937_64 random(5);
    const auto uniform = [&](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    for (int round = 0; round < 2000; round++) {
        const double every_s = uniform(1, 15);
        const double hold_off_s = round % 3 == 0 ? 0 : uniform(0, 60);
        Confirmation confirmation(every_s, hold_off_s);
        const double end_s = uniform(20, 400);
        int32_t possible = 0;
        bool decided = false;
        double decided_s = -HUGE_VAL;
        for (double decode_s = 20; !decided; decode_s += every_s + (round % 2 == 0 ? 0.25 : uniform(-0.9, 20))) {
            const double earliest_s = confirmation.add(decode_s);
            EXPECT_GE(earliest_s, decided_s) << "that has been printed";
            decided_s = confirmation.decided_s(decode_s);
            decided = decided_s >= end_s;
            if (decode_s < end_s) continue;
            possible++;
            EXPECT_LE(earliest_s, end_s);
        }
        ASSERT_GE(possible, 1);
        EXPECT_EQ(confirmation.confirm(end_s, 1), possible < 4);
        EXPECT_TRUE(confirmation.confirm(end_s, 2));
    }
}

constexpr double DAY = 86400;
constexpr double MARCH_1 = 20513 * DAY;  // 2026-03-01

// ---- The clock of captured samples ----------------------------------------------------------------------------------

// Audio that comes in buffers of a tenth of a second, each late by up to a quarter.
class TheSampleClock : public ::testing::Test {
  protected:
    // Captures `seconds` more, as if without interruption since `begin`.
    void capture(double seconds, double begin, double rate_error = 0) {
        const double end_s = captured_s_ + seconds;
        for (; captured_s_ < end_s; captured_s_ += 0.1) {
            clock_.observe(captured_s_, begin + captured_s_ * (1 + rate_error) + late_(random_));
        }
    }

    SampleClock clock_;
    double captured_s_ = 0.1;

  private:
    std::mt19937_64 random_{9};
    std::uniform_real_distribution<double> late_{0, 0.25};
};

constexpr double NEAR_S = 0.02;  // the soonest of fifty buffers

TEST_F(TheSampleClock, GoesByTheBuffersThatCameSoonest) {
    EXPECT_TRUE(std::isnan(clock_.utc(3)));
    clock_.observe(0, MARCH_1);
    EXPECT_TRUE(std::isnan(clock_.utc(3))) << "no audio, no time";
    capture(100, MARCH_1);
    for (const double at_s : {-5.0, 0.0, 1.0, 50.0, 77.7, 99.9}) {
        EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + at_s, NEAR_S) << at_s;
    }
}

TEST_F(TheSampleClock, WhatWasCapturedBeforeALossKeepsItsTime) {
    capture(100, MARCH_1);
    capture(60, MARCH_1 + 3);  // three seconds are missing
    for (const double at_s : {0.0, 50.0, 90.0}) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + at_s, NEAR_S) << at_s;
    for (const double at_s : {112.0, 150.0}) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + 3 + at_s, NEAR_S) << at_s;
}

TEST_F(TheSampleClock, FollowsAClockThatIsSetAndAMachineThatSlept) {
    for (const double step_s : {3600.0, -3600.0, 11.0, -11.0}) {
        clock_ = {};
        captured_s_ = 0.1;
        capture(100, MARCH_1);
        capture(60, MARCH_1 + step_s);
        for (const double at_s : {0.0, 50.0, 99.0}) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + at_s, NEAR_S) << step_s;
        for (const double at_s : {101.0, 150.0}) {
            EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + step_s + at_s, 0.25) << step_s;
        }
    }
}

TEST_F(TheSampleClock, FollowsASoundCardWhoseClockIsWrongForADay) {
    for (const double error : {200e-6, -200e-6}) {
        clock_ = {};
        captured_s_ = 0.1;
        capture(DAY, MARCH_1, error);
        for (const double ago_s : {0.0, 10.0, 60.0, 120.0, 290.0}) {
            const double at_s = captured_s_ - ago_s;
            EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + at_s * (1 + error), NEAR_S + ago_s * 200e-6) << ago_s;
        }
    }
}

// How far the clock is out, at worst, for frames that begin at times behind a loss of gap_s, asked when they have
// ended.
struct Arrival {
    double every_s;   // between buffers
    double late_s;    // at most
    double stuck_s;   // every fourth second nothing is read for so long, and then all at once
    bool told_empty;  // there are observations between the buffers too
};
double worst_error_behind(double gap_s, const Arrival& arrival, double lost_at_s, uint64_t seed) {
    constexpr double SHORTEST_FRAME_S = 20;
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> late(0, arrival.late_s);
    SampleClock clock;
    double worst = 0;
    double captured_s = 0;
    double next_frame_s = lost_at_s + 0.5;
    double free_at = 0;
    while (captured_s < lost_at_s + 35) {
        captured_s += arrival.every_s;
        const double truth = MARCH_1 + captured_s + (captured_s > lost_at_s ? gap_s : 0);
        double seen = std::max(truth + late(random), free_at);
        if (arrival.stuck_s > 0 && std::fmod(captured_s, 4) < arrival.every_s) free_at = seen + arrival.stuck_s;
        clock.observe(captured_s, seen);
        for (int k = 1; arrival.told_empty && k < 100 * gap_s; k++) clock.observe(captured_s, seen + k * 0.01);
        while (next_frame_s + SHORTEST_FRAME_S < captured_s) {
            worst = std::max(worst, std::fabs(clock.utc(next_frame_s) - (MARCH_1 + next_frame_s + gap_s)));
            next_frame_s += 0.173;
        }
    }
    for (double before_s = lost_at_s - 15; before_s < lost_at_s - arrival.every_s - 0.1; before_s += 0.191) {
        worst =
            std::max(worst, std::fabs(clock.utc(before_s) - (MARCH_1 + before_s)) - arrival.late_s - arrival.stuck_s);
    }
    return worst;
}

// Of every length, and for every start half a second or more behind it; what began before it is at most as late as its
// buffers were.
TEST(TheSampleClockBehindALoss, IsRightAtOnce) {
    const std::vector<Arrival> arrivals = {{0.05, 0, 0, false},     {0.1, 0.1, 0, true},  {0.02, 0.25, 0, false},
                                           {0.1, 0.25, 0, false},   {0.25, 0.3, 0, true}, {0.68, 0.2, 0, false},
                                           {0.25, 0.1, 1.5, false}, {0.05, 0.1, 3, false}};
    for (std::size_t k = 0; k < arrivals.size(); k++) {
        for (int tenths = 1; tenths <= 90; tenths++) {
            const double lost_at_s = 20 + 0.37 * (tenths % 7);
            const auto seed = static_cast<uint64_t>(tenths);
            EXPECT_LT(worst_error_behind(0.1 * tenths, arrivals[k], lost_at_s, seed), 0.1) << k << ", " << tenths;
        }
    }
}

TEST_F(TheSampleClock, KeepsUpWithOneLossAfterTheOther) {
    double begin = MARCH_1;
    std::vector<std::pair<double, double>> truth;  // where to look, and what capture began at
    for (int k = 0; k < 30; k++) {
        truth.emplace_back(captured_s_ + 0.6, begin);
        capture(3 + k % 5, begin);
        begin += 0.1 + 0.3 * k;
    }
    capture(30, begin);
    for (const auto& [at_s, expected] : truth) EXPECT_NEAR(clock_.utc(at_s), expected + at_s, 0.1) << at_s;
}

TEST_F(TheSampleClock, WhatIsLateForSecondsIsNotTakenForALoss) {
    capture(50, MARCH_1);
    capture(2, MARCH_1 + 4);
    capture(2, MARCH_1 + 2);
    capture(30, MARCH_1);
    for (double at_s = 40; at_s < 60; at_s += 0.1) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 + at_s, NEAR_S) << at_s;
}

TEST_F(TheSampleClock, OfWhatComesAllAtOnceTheNewestSampleHasJustCome) {
    for (double captured_s = 0.25; captured_s <= 200; captured_s += 0.25) clock_.observe(captured_s, MARCH_1);
    for (const double at_s : {0.0, 100.0, 200.0}) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 - 200 + at_s, 1e-6) << at_s;
}

// ---- The clock of a stream ------------------------------------------------------------------------------------------

// Buffers of a quarter of a second, each late by up to a fifth, that a clock of this error counts.
class TheClockCheck : public ::testing::Test {
  protected:
    // Returns the losses that are told meanwhile.
    std::vector<double> capture(double seconds, double late_s = 0, double error = 0) {
        std::vector<double> losses;
        for (const double end_s = captured_s_ + seconds; captured_s_ < end_s; captured_s_ += 0.25) {
            now_ += 0.25 * (1 - error);
            const double lost_s = check_.observe(captured_s_, now_ + late_s + late_(random_));
            if (lost_s > 0) losses.push_back(lost_s);
        }
        return losses;
    }
    void lose(double seconds) { now_ += seconds; }

    ClockCheck check_;
    double captured_s_ = 0, now_ = 1000;

  private:
    std::mt19937_64 random_{4};
    std::uniform_real_distribution<double> late_{0, 0.2};
};

TEST_F(TheClockCheck, TellsWhatWasLostOnce) {
    EXPECT_TRUE(capture(100).empty());
    lose(2.5);
    const std::vector<double> losses = capture(100);
    ASSERT_EQ(losses.size(), 1u);
    EXPECT_NEAR(losses[0], 2.5, 0.05);
}

TEST_F(TheClockCheck, DoesNotTakeWhatIsLateForLost) {
    capture(60);
    EXPECT_TRUE(capture(3, 5).empty());
    EXPECT_TRUE(capture(60).empty());
}

TEST_F(TheClockCheck, KnowsTheErrorOfTheClockAfterSomeMinutes) {
    for (const double error : {0.0, 150e-6, -150e-6}) {
        check_ = {};
        capture(60, 0, error);
        EXPECT_FALSE(check_.error_ppm()) << "too early";
        capture(1000, 0, error);
        ASSERT_TRUE(check_.error_ppm());
        EXPECT_NEAR(*check_.error_ppm(), 1e6 * error, 20);
    }
}

// ---- Lines on their way ---------------------------------------------------------------------------------------------

TEST(TheLineQueue, PassesLinesOnInOrderAndDropsWhatItHasNoRoomFor) {
    LineQueue queue(2);
    EXPECT_TRUE(queue.push("a"));
    EXPECT_TRUE(queue.push("b"));
    EXPECT_FALSE(queue.push("c"));
    EXPECT_EQ(queue.pop(0), "a");
    EXPECT_TRUE(queue.push("d"));
    EXPECT_EQ(queue.pop(0), "b");
    EXPECT_EQ(queue.pop(0), "d");
    EXPECT_FALSE(queue.pop(0));
}

TEST(TheLineQueue, TakesLinesFromSeveralThreads) {
    LineQueue queue(1000);
    std::vector<std::jthread> threads;
    threads.reserve(4);
    for (int k = 0; k < 4; k++) {
        threads.emplace_back([&queue] {
            for (int line = 0; line < 100; line++) queue.push(std::to_string(line));
        });
    }
    int lines = 0;
    while (lines < 400 && queue.pop(10)) lines++;
    EXPECT_EQ(lines, 400);
}

// ---- What is kept ---------------------------------------------------------------------------------------------------

TEST(TheHistoryOfIq, HoldsTheNewestSamples) {
    IqHistory history(10, 2.5);
    std::vector<std::complex<float>> all;
    std::vector<double> x;
    std::vector<double> q;
    for (int round = 0; round < 20; round++) {
        std::vector<std::complex<float>> samples;
        for (int k = 0; k < round % 7; k++) {
            samples.emplace_back(static_cast<float>(round), static_cast<float>(k));
            all.push_back(samples.back());
        }
        history.push(samples);
        EXPECT_NEAR(history.captured_s(), static_cast<double>(all.size()) / 10, 1e-9);
        for (const std::size_t count : {0U, 1U, 24U, 25U, 99U}) {
            history.newest(count, x, q);
            const std::size_t n = std::min({count, all.size(), std::size_t{25}});
            ASSERT_EQ(x.size(), n);
            ASSERT_EQ(q.size(), n);
            for (std::size_t k = 0; k < n; k++) {
                EXPECT_EQ(static_cast<float>(x[k]), all[all.size() - n + k].real());
                EXPECT_EQ(static_cast<float>(q[k]), all[all.size() - n + k].imag());
            }
        }
    }
}

// ---- Levels and spectra ---------------------------------------------------------------------------------------------

TEST(Levels, AreThoseOfFullScale) {
    LevelMeter meter;
    EXPECT_EQ(meter.rms_db(), -120);
    EXPECT_EQ(meter.peak_db(), -120);
    std::vector<float> samples;
    for (int k = 0; k < 1000; k++)
        samples.push_back(0.5f * std::sin(0.1f * std::numbers::pi_v<float> * static_cast<float>(k)));
    meter.add(samples);
    EXPECT_NEAR(meter.rms_db(), -9.03, 0.01);
    EXPECT_NEAR(meter.peak_db(), -6.02, 0.01);
    EXPECT_EQ(meter.clipped(), 0);
    meter.add(std::vector<float>{1, -1, 127.5f / 128, 126.5f / 128});
    EXPECT_EQ(meter.clipped(), 3);
}

// The mean power, in 1 Hz, of white noise and of a tone.
TEST(Spectra, HaveNoiseAtItsDensityAndATonesPowerWhereItIs) {
    std::mt19937_64 random(1);
    std::normal_distribution<double> noise(0, 0.1);
    for (const bool iq : {false, true}) {
        constexpr int32_t RATE = 8000;
        constexpr double TONE_HZ = 1012;
        Spectrum spectrum(RATE, iq, {900, 1100});
        MeanSpectrum mean;
        std::vector<float> samples;
        for (int k = 0; k < 60 * RATE; k++) {
            const double turn = 2 * std::numbers::pi * TONE_HZ * k / RATE;
            samples.push_back(static_cast<float>(noise(random) + 0.2 * std::cos(turn)));
            if (iq) samples.push_back(static_cast<float>(noise(random) + 0.2 * std::sin(turn)));
        }
        spectrum.push(samples, [&](std::span<const float> power) { mean.add(power); });
        ASSERT_FALSE(mean.empty());
        const std::vector<double> levels = mean.take_db();
        EXPECT_TRUE(mean.empty());
        ASSERT_EQ(levels.size(), spectrum.points());
        EXPECT_GE(levels.size(), 400u);
        EXPECT_LE(levels.size(), Spectrum::MOST_POINTS);
        const Range band = spectrum.band();
        EXPECT_NEAR(band.low, 900, 1);
        EXPECT_NEAR(band.high, 1100, 1);
        EXPECT_NEAR(median_db(levels), 10 * std::log10(iq ? 0.02 / RATE : 0.01 / (RATE / 2.0)), 0.5);

        const double point_hz = (band.high - band.low) / static_cast<double>(levels.size());
        double power = 0;
        for (const double level : levels) power += std::pow(10, level / 10) * point_hz;
        const double expected = (iq ? 0.04 : 0.02) + 200 * (iq ? 0.02 / RATE : 0.01 / (RATE / 2.0));
        EXPECT_NEAR(power, expected, 0.03 * expected);
        const auto peak = std::ranges::max_element(levels) - levels.begin();
        EXPECT_NEAR(band.low + (static_cast<double>(peak) + 0.5) * point_hz, TONE_HZ, point_hz);
    }
}

TEST(Spectra, AreALineOfBytesInBase64) {
    const std::string line = spectrum_line(
        {.receiver = "lf", .utc = MARCH_1, .band = {-1, 2}, .levels_db = {-140, -139.4, -200, 500, -140 + 0.6 * 77}});
    EXPECT_EQ(line, R"({"type":"spectrum","receiver":"lf","utc":"2026-03-01T00:00:00.00Z","low_hz":-1.0,"high_hz":2.0,)"
                    R"("zero_db":-140.0,"step_db":0.6,"levels":"AAEA/00="})"
                    "\n");
}

// ---- A recorder -----------------------------------------------------------------------------------------------------

class Recordings : public ::testing::Test {
  protected:
    static constexpr int32_t RATE = 1000;
    static constexpr double BEGIN = MARCH_1;

    Recorder recorder(double file_s, double keep_s) {
        RecorderOptions options;
        options.directory = path("kept");
        options.file_s = file_s;
        options.keep_s = keep_s;
        return Recorder(options, [this](const std::string& text) { told_.push_back(text); });
    }
    // The second that begins so long after the first.
    static void record(Recorder& recorder, int32_t second) {
        recorder.take(std::vector<float>(RATE, 0.1F), BEGIN + second, {.rate = RATE, .tuning = {}}, {}, second == 0);
    }
    std::map<std::string, std::uintmax_t> bytes_on_disk() const {
        std::map<std::string, std::uintmax_t> bytes;
        for (const auto& entry : std::filesystem::directory_iterator(path("kept"))) {
            if (entry.path().extension() == ".sigmf-data") bytes[entry.path().stem().string()] = entry.file_size();
        }
        return bytes;
    }

    std::string path(const std::string& name) const { return directory_.path() + "/" + name; }

    std::vector<std::string> told_;

  private:
    TemporaryDirectory directory_;
};

TEST_F(Recordings, AreNeverOlderThanIsAskedForAndSoBounded) {
    constexpr int32_t FILE_S = 60;
    constexpr int32_t KEEP_S = 300;
    Recorder all = recorder(FILE_S, KEEP_S);
    for (int32_t second = 0; second < 1000; second++) {
        record(all, second);
        std::uintmax_t sum = 0;
        double oldest = HUGE_VAL;
        for (const auto& [name, bytes] : bytes_on_disk()) {
            sum += bytes;
            oldest = std::min(oldest, *utc_in_name(name));
        }
        EXPECT_LE(sum, 2U * RATE * (KEEP_S + (KEEP_S / FILE_S) * Recorder::OVERLAP_S)) << second;
        EXPECT_GT(oldest, BEGIN + second + 1 - KEEP_S) << second;
        EXPECT_LE(oldest, BEGIN + std::max(second + 1 - KEEP_S + FILE_S, 0)) << second;
    }
    EXPECT_TRUE(told_.empty());
}

// Files beyond some size are refused, as all are by a full disk.
class FileLimit {
  public:
    explicit FileLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileLimit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;

  private:
    rlimit before_{};
    void (*handler_)(int);
};

TEST_F(Recordings, GoOnWhenADiskThatWasFullHasRoomAgain) {
    Recorder all = recorder(3600, 86400);
    int32_t second = 0;
    for (; second < 30; second++) record(all, second);
    {
        const FileLimit full(2000);
        for (; second < 95; second++) record(all, second);
    }
    ASSERT_EQ(told_.size(), 1u) << "once";
    EXPECT_TRUE(told_[0].starts_with("not recorded: cannot write '")) << told_[0];
    EXPECT_EQ(bytes_on_disk().size(), 1u) << "the attempts leave nothing behind";
    for (; second < 200; second++) record(all, second);
    ASSERT_EQ(told_.size(), 2u);
    EXPECT_EQ(told_[1], "recorded again");
    all.close();
    const auto kept = bytes_on_disk();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_GE(kept.begin()->second, 2U * RATE * 30);
    EXPECT_GE(kept.rbegin()->second, 2U * RATE * 95);
}

TEST_F(Recordings, MarkFramesInTheFilesThatHoldThemWhole) {
    Recorder all = recorder(60, 600);
    int32_t second = 0;
    const auto mark = [&](const char* call, double start) {
        Spot spot{};
        spot.call = call;
        spot.protocol = OVL_OPERA;
        spot.start = BEGIN + start;
        spot.end = spot.start + 30;
        spot.freq_hz = 100;
        spot.rf_hz = 137100;
        all.mark(spot);
    };
    for (; second < 100; second++) record(all, second);
    mark("K2QRX", 65);  // in both files
    for (; second < 140; second++) record(all, second);
    mark("G4QZB", 58);  // in the first, which has ended, and but for its first seconds in the second
    all.close();
    const auto text = [&](const std::string& name) {
        std::ifstream file(path("kept/" + name + ".sigmf-meta"));
        return std::string{std::istreambuf_iterator<char>(file), {}};
    };
    const std::string first = text("orvel_20260301_000000");
    EXPECT_NE(first.find("\"core:label\": \"K2QRX\""), std::string::npos) << first;
    EXPECT_NE(first.find("\"core:label\": \"G4QZB\""), std::string::npos) << first;
    EXPECT_NE(first.find("\"core:sample_start\": 58000"), std::string::npos) << first;
    EXPECT_NE(first.find("137100.000 Hz"), std::string::npos) << first;
    const std::string second_file = text("orvel_20260301_000100");
    EXPECT_NE(second_file.find("\"core:sample_start\": 5000"), std::string::npos) << second_file;
    EXPECT_EQ(second_file.find("G4QZB"), std::string::npos) << second_file;
}

// ---- A receiver -----------------------------------------------------------------------------------------------------

// A source that does what a test says.
class Script : public Source {
  public:
    struct Act {
        State state;
        Piece piece;
        int32_t rate;
    };
    explicit Script(std::vector<Act> acts) : acts_(std::move(acts)) {}

    State read(Piece& piece) override {
        if (next_ == acts_.size()) return State::ENDED;
        piece = acts_[next_].piece;
        return acts_[next_++].state;
    }
    SourceFormat format() const override { return {.iq = false, .rate = acts_[next_ == 0 ? 0 : next_ - 1].rate}; }

  private:
    std::vector<Act> acts_;
    std::size_t next_ = 0;
};

// Audio with one OPERA frame, cut into seconds.
std::vector<Script::Act> seconds_with(const char* call, double start_s, int32_t rate) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = 50;
    scene.stations.push_back({.chips = opera_chips(call), .t_start = start_s, .freq_hz = 1500, .snr_db = -8});
    const std::vector<float> samples = to_float(render_real(scene));
    std::vector<Script::Act> acts;
    for (auto at = samples.begin(); at != samples.end(); at += rate) {
        acts.push_back({Source::State::SAMPLES, {.samples = {at, at + rate}}, rate});
    }
    return acts;
}

struct Told {
    std::vector<Found> spots;
    std::vector<Status> statuses;
};
Told heard_by_a_receiver(std::vector<Script::Act> acts) {
    Told told;
    ReceiverOptions options;
    options.search.protocols = OVL_OPERA;
    options.search.search_hz = 20;
    options.start = MARCH_1;
    options.status_s = 1e6;  // at the end
    Receiver receiver(
        options, std::make_unique<Script>(std::move(acts)),
        {.spot = [&](const Found& spot, Standing, const std::optional<Tuning>&) { told.spots.push_back(spot); },
         .status = [&](const Status& status) { told.statuses.push_back(status); },
         .row = {}});
    receiver.run();
    EXPECT_FALSE(receiver.failed());
    EXPECT_EQ(receiver.spots(), std::ssize(told.spots));
    return told;
}

TEST(AReceiver, HearsAFrameAcrossALossAndKnowsItsTime) {
    std::vector<Script::Act> acts = seconds_with("K2QRX", 10, 8000);
    acts.erase(acts.begin() + 20, acts.begin() + 22);
    acts[20].piece.lost_s = 2;
    const Told told = heard_by_a_receiver(acts);
    ASSERT_EQ(told.spots.size(), 1u);
    EXPECT_STREQ(told.spots[0].call, "K2QRX");
    EXPECT_NEAR(told.spots[0].t, MARCH_1 + 10, 0.1);
    ASSERT_EQ(told.statuses.size(), 1u);
    EXPECT_NEAR(told.statuses[0].captured_s, 50, 0.01);
    EXPECT_NEAR(told.statuses[0].lost_s, 2, 1e-9);
    EXPECT_EQ(told.statuses[0].spots, 1);
}

// Sends what it has and then nothing, until somebody has heard it.
class FallsSilent : public Source {
  public:
    struct Hearing {
        bool heard = false;
        bool before_the_end = false;
    };
    FallsSilent(std::vector<Script::Act> acts, Hearing& hearing) : acts_(std::move(acts)), hearing_(hearing) {}
    State read(Piece& piece) override {
        if (next_ < acts_.size()) {
            piece = acts_[next_++].piece;
            return State::SAMPLES;
        }
        hearing_.before_the_end = hearing_.heard;
        if (hearing_.heard || monotonic_now() > give_up_) return State::ENDED;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return State::NONE_YET;
    }
    SourceFormat format() const override { return {.iq = false, .rate = acts_[0].rate}; }

  private:
    std::vector<Script::Act> acts_;
    Hearing& hearing_;
    std::size_t next_ = 0;
    double give_up_ = monotonic_now() + 20;
};

TEST(AReceiver, DecodesWhatCameWhenItsSourceFallsSilent) {
    for (const bool wide : {false, true}) {
        ReceiverOptions options;
        options.search.protocols = OVL_OPERA;
        options.search.search_hz = 20;
        options.search.wide = wide;
        options.silent_s = 0.05;
        FallsSilent::Hearing hearing;
        Receiver receiver(options, std::make_unique<FallsSilent>(seconds_with("K2QRX", 15, 8000), hearing),
                          {.spot = [&](const Found&, Standing, const std::optional<Tuning>&) { hearing.heard = true; },
                           .status = {},
                           .row = {}});
        receiver.run();
        EXPECT_TRUE(hearing.before_the_end) << wide;
    }
}

TEST(AReceiver, GivesARowOfItsSpectrumForEverySecondThatComesAtOnce) {
    std::vector<Script::Act> acts = seconds_with("K2QRX", 5, 8000);
    Piece all;
    for (const Script::Act& act : acts) {
        all.samples.insert(all.samples.end(), act.piece.samples.begin(), act.piece.samples.end());
    }
    ReceiverOptions options;
    options.search.protocols = OVL_OPERA;
    options.search.search_hz = 500;  // points of 1 Hz take a second
    options.start = MARCH_1;
    options.spectrum_s = 1;
    std::vector<double> times;
    Receiver receiver(options, std::make_unique<Script>(std::vector<Script::Act>{{Source::State::SAMPLES, all, 8000}}),
                      {.spot = [](const Found&, Standing, const std::optional<Tuning>&) {},
                       .status = {},
                       .row = [&](const SpectrumRow& row) { times.push_back(row.utc - MARCH_1); }});
    receiver.run();
    ASSERT_GE(times.size(), 40U);
    EXPECT_LE(times.size(), 50U);
    EXPECT_LE(times[0], 10);
    for (std::size_t k = 1; k < times.size(); k++) EXPECT_NEAR(times[k] - times[k - 1], 1.05, 0.1) << k;
}

TEST(AReceiver, TakesWhatFollowsABreakForAnotherStreamEvenAtAnotherRate) {
    std::vector<Script::Act> acts = seconds_with("K2QRX", 5, 8000);
    acts.push_back({Source::State::BROKEN, {}, 12000});
    for (Script::Act& act : seconds_with("G4QZB", 5, 12000)) acts.push_back(std::move(act));
    const Told told = heard_by_a_receiver(acts);
    ASSERT_EQ(told.spots.size(), 2u);
    EXPECT_STREQ(told.spots[0].call, "K2QRX");
    EXPECT_STREQ(told.spots[1].call, "G4QZB");
    EXPECT_NEAR(told.statuses[0].captured_s, 100, 0.01);
    EXPECT_EQ(told.statuses[0].rate, 12000);
}

TEST(AReceiver, BeginsAnewBehindALongLoss) {
    std::vector<Script::Act> acts = seconds_with("K2QRX", 5, 8000);
    for (Script::Act& act : seconds_with("G4QZB", 5, 8000)) acts.push_back(std::move(act));
    acts[50].piece.lost_s = 3600;
    const Told told = heard_by_a_receiver(acts);
    ASSERT_EQ(told.spots.size(), 2u);
    EXPECT_NEAR(told.statuses[0].captured_s, 100, 0.01);
    EXPECT_NEAR(told.statuses[0].lost_s, 3600, 1e-6);
    EXPECT_NEAR(told.spots[1].t, MARCH_1 + 3655, 0.1);
}

}  // namespace
