// Listening, piece by piece: overlapping decodes, the clock of captured samples.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "listening/confirmation.h"
#include "listening/sample_clock.h"

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

}  // namespace
