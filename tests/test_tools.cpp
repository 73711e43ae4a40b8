// What the orvel command is made of, piece by piece: times, steps, the log of spots, looks at the newest audio, the
// clock of captured samples, checks of options, progress.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "console.h"
#include "liborvel.h"
#include "looks.h"
#include "progress.h"
#include "sampleclock.h"
#include "spotlog.h"
#include "spots.h"
#include "steps.h"
#include "utc.h"

namespace {

// ---- Times as text --------------------------------------------------------------------------------------------------

constexpr double DAY = 86400;
constexpr double MARCH_1 = 20513 * DAY;  // 2026-03-01

TEST(UtcText, ShowsUpToSixDecimals) {
    const double utc = MARCH_1 + 12 * 3600 + 2.5;
    EXPECT_EQ(utc_text(utc, 0), "2026-03-01T12:00:03Z");
    EXPECT_EQ(utc_text(utc, 1), "2026-03-01T12:00:02.5Z");
    EXPECT_EQ(utc_text(utc, 2), "2026-03-01T12:00:02.50Z");
    EXPECT_EQ(utc_text(utc, 3), "2026-03-01T12:00:02.500Z");
    EXPECT_EQ(utc_text(utc, 4), "2026-03-01T12:00:02.5000Z");
    EXPECT_EQ(utc_text(utc, 5), "2026-03-01T12:00:02.50000Z");
    EXPECT_EQ(utc_text(utc, 6), "2026-03-01T12:00:02.500000Z");
    EXPECT_EQ(utc_text(MARCH_1 + 0.015625, 6), "2026-03-01T00:00:00.015625Z");
    EXPECT_EQ(utc_text(0, 0), "1970-01-01T00:00:00Z");
}

TEST(UtcText, RoundsUpOverEveryBorder) {
    EXPECT_EQ(utc_text(MARCH_1 + 59.96, 1), "2026-03-01T00:01:00.0Z");
    EXPECT_EQ(utc_text(MARCH_1 + 59.94, 1), "2026-03-01T00:00:59.9Z");
    EXPECT_EQ(utc_text(MARCH_1 + 3599.6, 0), "2026-03-01T01:00:00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 0.001, 2), "2026-03-01T00:00:00.00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 0.01, 2), "2026-02-28T23:59:59.99Z");
    constexpr double YEAR_2027 = 20819 * DAY;
    EXPECT_EQ(utc_text(YEAR_2027 - 0.0001, 3), "2027-01-01T00:00:00.000Z");
    EXPECT_EQ(utc_text(YEAR_2027 - 0.4, 0), "2027-01-01T00:00:00Z");
    EXPECT_EQ(utc_text(YEAR_2027 - 0.6, 0), "2026-12-31T23:59:59Z");
}

TEST(UtcText, KnowsLeapYears) {
    EXPECT_EQ(utc_text(19782 * DAY, 0), "2024-02-29T00:00:00Z");
    EXPECT_EQ(utc_text(MARCH_1 - 1, 0), "2026-02-28T23:59:59Z");
}

TEST(UtcText, IsReadBackAsTheSameTime) {
    uint64_t state = 1;
    for (int k = 0; k < 1000; k++) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const double utc = static_cast<double>(state >> 20) / 1e3;  // milliseconds up to the year 2527
        const auto back = parse_utc(utc_text(utc, 3), 0);
        ASSERT_TRUE(back) << utc_text(utc, 3);
        EXPECT_NEAR(*back, utc, 1e-5);
    }
}

TEST(UtcClock, IsTheWallClock) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(utc_now(), std::chrono::duration<double>(now).count(), 1);
}

// ---- Texts as times -------------------------------------------------------------------------------------------------

TEST(ParseUtc, TakesDateAndTimeInEveryLength) {
    const double noon = MARCH_1 + 12 * 3600;
    const std::vector<std::pair<std::string, double>> times = {
        {"2026-03-01T12:00", noon},
        {"2026-03-01T12:00:02", noon + 2},
        {"2026-03-01T12:00:02.5", noon + 2.5},
        {"2026-03-01T00:00", MARCH_1},
        {"2026-02-28T23:59:59", MARCH_1 - 1},
        {"1970-01-01T00:00", 0},
        {"2024-02-29T00:00", 19782 * DAY},
        {"2026-03-01T12:00:02.000001", noon + 2.000001},
    };
    for (const auto& [text, utc] : times) {
        for (const double now : {0.0, 1e9, 4e9}) {  // whenever it is asked
            for (const char* zone : {"", "Z"}) {
                const auto parsed = parse_utc(text + zone, now);
                ASSERT_TRUE(parsed) << text << zone;
                EXPECT_NEAR(*parsed, utc, 1e-6) << text << zone;
            }
        }
    }
}

TEST(ParseUtc, ATimeOfDayIsTheNextSuchTime) {
    const double now = MARCH_1 + 12 * 3600;  // noon
    const std::vector<std::pair<std::string, double>> times = {
        {"12:00", now},
        {"12:00:00", now},
        {"12:00:00.25", now + 0.25},
        {"12:01", now + 60},
        {"23:59:59", MARCH_1 + DAY - 1},
        {"00:00", MARCH_1 + DAY},
        {"11:59:59", now + DAY - 1},
        {"11:59:59.5", now + DAY - 0.5},
    };
    for (const auto& [text, utc] : times) {
        for (const char* zone : {"", "Z"}) {
            const auto parsed = parse_utc(text + zone, now);
            ASSERT_TRUE(parsed) << text << zone;
            EXPECT_NEAR(*parsed, utc, 1e-6) << text << zone;
        }
    }
    EXPECT_NEAR(*parse_utc("12:00", now + 0.001), now + DAY, 1e-6);
    EXPECT_NEAR(*parse_utc("12:00", now - 0.001), now, 1e-6);
}

TEST(ParseUtc, RefusesWhatIsNoTime) {
    for (const char* text : {"",
                             " ",
                             "Z",
                             "now",
                             "12",
                             "1200",
                             "12:0",
                             "1:00",
                             "12:00:",
                             "12:00:0",
                             "12:00:000",
                             "12:00:00.",
                             "12:00:00.x",
                             "12:00.5",
                             "24:00",
                             "12:60",
                             "12:00:60",
                             "-1:00",
                             "+1:00",
                             "12:-1",
                             "12:00:-1",
                             "12:00:00.-5",
                             "12:00:00.5e3",
                             " 12:00",
                             "12:00 ",
                             "12 :00",
                             "12:00 Z",
                             "12:00ZZ",
                             "12:00z",
                             "12:00+01",
                             "12:00\n",
                             "12:00:00,5",
                             "12.00",
                             "1e:00",
                             "0x:00",
                             "nan",
                             "inf",
                             "12:00:inf",
                             "2026-02-30T12:00",
                             "2026-02-29T12:00",
                             "2026-13-01T12:00",
                             "2026-00-01T12:00",
                             "2026-01-00T12:00",
                             "2026-01-32T12:00",
                             "2026-03-01",
                             "2026-03-01T",
                             "2026-03-01Z",
                             "2026-03-01 12:00",
                             "2026-03-01t12:00",
                             "2026-3-1T12:00",
                             "26-03-01T12:00",
                             "-026-03-01T12:00",
                             "12026-03-01T12:00",
                             "2026-03-01T24:00",
                             "2026-03-01T12:60",
                             "2026-03-01T12:00:00.5x",
                             "2026-03-01T12:00Zx",
                             "2026-03-01T-1:00",
                             "2026/03/01T12:00",
                             " 2026-03-01T12:00",
                             "2026-03-01T12:00 ",
                             "2026-03-01T 2:00",
                             "2026-03-01T12:00-01:00"}) {
        EXPECT_FALSE(parse_utc(text, MARCH_1)) << "'" << text << "'";
    }
    EXPECT_FALSE(parse_utc(std::string("12:00\0", 6), MARCH_1));
}

// ---- Lengths --------------------------------------------------------------------------------------------------------

TEST(ParseDuration, TakesSecondsMinutesAndHours) {
    const std::vector<std::pair<std::string, double>> lengths = {
        {"90", 90},   {"90s", 90}, {"10m", 600},  {"1h", 3600},   {"1.5h", 5400}, {"0.25", 0.25},
        {"0.5m", 30}, {".5", 0.5}, {"1e3", 1000}, {"1e3s", 1000}, {"1e9", 1e9},   {"24h", DAY},
    };
    for (const auto& [text, seconds] : lengths) {
        const auto parsed = parse_duration(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_DOUBLE_EQ(*parsed, seconds) << text;
    }
}

TEST(ParseDuration, RefusesWhatIsNoLength) {
    for (const char* text :
         {"",     " ",    "s",   "m",    "h",    "0",    "0s",    "0m",     "0.0h", "-0",   "-1",  "-1m",
          "nan",  "nans", "inf", "infh", "-inf", "1e10", "1e999", "1e-999", "1e8m", "1e9h", "1d",  "10ms",
          "10mm", "10 m", " 10", "10 ",  "10m ", "+10",  "0x10",  "1,5",    "1:30", "ten",  "10M", "10H"}) {
        EXPECT_FALSE(parse_duration(text)) << "'" << text << "'";
    }
}

TEST(NextSlot, IsTheFirstOneNotBefore) {
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 0), 1200);
    EXPECT_DOUBLE_EQ(next_slot(1200.001, 600, 0), 1800);
    EXPECT_DOUBLE_EQ(next_slot(1199.999, 600, 0), 1200);
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 30), 1230);
    EXPECT_DOUBLE_EQ(next_slot(1231, 600, 30), 1830);
    EXPECT_DOUBLE_EQ(next_slot(1200, 600, 630), 1230);  // a longer offset names the same slots
    EXPECT_DOUBLE_EQ(next_slot(0, 600, 30), 30);
    for (const double period : {0.5, 7.0, 90.0, 600.0, 86400.0}) {
        for (const double offset : {0.0, 0.25, 3.0, 100.0}) {
            for (double earliest = MARCH_1; earliest < MARCH_1 + 100; earliest += 9.7) {
                const double slot = next_slot(earliest, period, offset);
                EXPECT_GE(slot, earliest);
                EXPECT_LT(slot, earliest + period);
                EXPECT_NEAR(std::remainder(slot - offset, period), 0, 1e-6);
            }
        }
    }
}

// ---- Steps ----------------------------------------------------------------------------------------------------------

TEST(Steps, EveryKindIsRead) {
    const ovl_tx_step opera = parse_step("opera=K2QRX");
    EXPECT_EQ(opera.kind, OVL_TX_FRAME);
    EXPECT_EQ(opera.protocol, OVL_OPERA);
    EXPECT_STREQ(opera.call, "K2QRX");
    EXPECT_STREQ(opera.locator, "");
    const ovl_tx_step small = parse_step("orvel-s=g4qzb");
    EXPECT_EQ(small.kind, OVL_TX_FRAME);
    EXPECT_EQ(small.protocol, OVL_ORVEL_S);
    EXPECT_STREQ(small.call, "g4qzb");
    const ovl_tx_step large = parse_step("orvel-l=DL1QXA,JO31AB");
    EXPECT_EQ(large.kind, OVL_TX_FRAME);
    EXPECT_EQ(large.protocol, OVL_ORVEL_L);
    EXPECT_STREQ(large.call, "DL1QXA");
    EXPECT_STREQ(large.locator, "JO31AB");
    const ovl_tx_step carrier = parse_step("carrier=2.5");
    EXPECT_EQ(carrier.kind, OVL_TX_CARRIER);
    EXPECT_EQ(carrier.seconds, 2.5);
    const ovl_tx_step pause = parse_step("pause=1e1");
    EXPECT_EQ(pause.kind, OVL_TX_PAUSE);
    EXPECT_EQ(pause.seconds, 10);
    EXPECT_EQ(pause.keep_keyed, 0);
    EXPECT_STREQ(parse_step("opera=ABCDEFGHIJKLMNO").call, "ABCDEFGHIJKLMNO");  // 15 characters: the library judges
    EXPECT_STREQ(parse_step("orvel-l=DL1QXA,ABCDEFG").locator, "ABCDEFG");
}

// What the function threw as wrong usage.
std::string usage_error(const std::function<void()>& function) {
    try {
        function();
    } catch (const CLI::ValidationError& error) {
        return error.what();
    }
    return "nothing thrown";
}

std::string step_error(const std::string& text) {
    return usage_error([&] { parse_step(text); });
}

TEST(Steps, WhatIsNoStepIsRefusedWithTheReason) {
    for (const char* text : {"", "opera", "K2QRX", "carrier 2"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a step is NAME=VALUE");
    }
    for (const char* text : {"morse=K2QRX", "=K2QRX", "OPERA=K2QRX", " opera=K2QRX", "opera =K2QRX", "orvel=K2QRX"}) {
        EXPECT_EQ(step_error(text),
                  "'" + std::string(text) + "': a step is one of opera, orvel-s, orvel-l, carrier, pause");
    }
    for (const char* text : {"opera=", "orvel-s=", "orvel-l=", "orvel-l=,JO31", "opera=ABCDEFGHIJKLMNOP", "opera=,"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a callsign of 1 to 15 characters expected");
    }
    EXPECT_EQ(step_error("orvel-l=DL1QXA"), "'orvel-l=DL1QXA': an ORVEL L frame needs a locator: orvel-l=CALL,LOCATOR");
    for (const char* text : {"orvel-l=DL1QXA,", "orvel-l=DL1QXA,ABCDEFGH"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a locator of 4 or 6 characters expected");
    }
    EXPECT_EQ(step_error("opera=K2QRX,JO31"), "'opera=K2QRX,JO31': OPERA 05 frames carry no locator");
    EXPECT_EQ(step_error("orvel-s=K2QRX,JO31"), "'orvel-s=K2QRX,JO31': ORVEL S frames carry no locator");
    EXPECT_EQ(step_error("orvel-s=K2QRX,"), "'orvel-s=K2QRX,': ORVEL S frames carry no locator");
}

TEST(Steps, SecondsAreAFiniteNumberAndNothingElse) {
    for (const char* value :
         {"", " ", "x", "2s", " 2", "2 ", "1,5", "0x10", "inf", "-inf", "nan", "infinity", "1e999", "+2", "2=2"}) {
        for (const char* name : {"carrier=", "pause="}) {
            const std::string text = std::string(name) + value;
            EXPECT_EQ(step_error(text), "'" + text + "': seconds expected behind the '='");
        }
    }
}

std::string start_error(const StepOptions& options) {
    const TransmitterPtr tx = make_transmitter();
    return usage_error([&] { start_transmitter(tx.get(), options); });
}

TEST(Steps, ATransmitterTakesUpToSixtyFourOfThem) {
    StepOptions options;
    options.steps.assign(64, "pause=0.5");
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options);
    EXPECT_NEAR(total_seconds(tx.get()), 32, 0.1);
    options.steps.emplace_back("pause=0.5");
    EXPECT_EQ(start_error(options), "too many steps (max 64)");
}

TEST(Steps, ATransmitterIsStartedWithAllOfTheOptions) {
    const StepOptions options = {{"carrier=1", "pause=0.5", "opera=K2QRX"}, 12000, 1000, 0.25, 0.01};
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options);
    std::vector<float> samples(12000 * 40);
    const int32_t n = ovl_tx_render(tx.get(), samples.data(), static_cast<int32_t>(samples.size()));

    const TransmitterPtr model = make_transmitter();
    const ovl_tx_settings settings = {12000, 1000, 0.25, 0.01};
    std::vector<ovl_tx_step> steps(3);
    steps[0].kind = OVL_TX_CARRIER;
    steps[0].seconds = 1;
    steps[1].kind = OVL_TX_PAUSE;
    steps[1].seconds = 0.5;
    steps[2].kind = OVL_TX_FRAME;
    steps[2].protocol = OVL_OPERA;
    std::strcpy(steps[2].call, "K2QRX");
    ASSERT_EQ(ovl_tx_start(model.get(), &settings, steps.data(), 3), 0);
    std::vector<float> expected(samples.size());
    EXPECT_EQ(n, ovl_tx_render(model.get(), expected.data(), static_cast<int32_t>(expected.size())));
    EXPECT_EQ(samples, expected);
    EXPECT_NEAR(total_seconds(tx.get()), n / 12000.0, 1e-3);
}

TEST(Steps, WhatTheLibraryRefusesIsWrongUsageInItsWords) {
    const StepOptions good = {{"carrier=1"}, 48000, 1500, 0.5, 0.005};
    EXPECT_EQ(start_error(good), "nothing thrown");
    const auto with = [&](const std::function<void(StepOptions&)>& change) {
        StepOptions options = good;
        change(options);
        return start_error(options);
    };
    EXPECT_EQ(with([](StepOptions& o) { o.steps.clear(); }), "empty sequence");
    for (const int32_t rate : {7999, 384001, 0, -48000}) {
        EXPECT_EQ(with([=](StepOptions& o) { o.rate = rate; }), "sample rate out of range (8000-384000 Hz)");
    }
    for (const double tone : {0.0, -1500.0, 21600.0, 1e300}) {
        EXPECT_EQ(with([=](StepOptions& o) { o.tone_hz = tone; }), "tone frequency out of range");
    }
    for (const double level : {0.0, -0.5, 1.001}) {
        EXPECT_EQ(with([=](StepOptions& o) { o.level = level; }), "level out of range (0 < level <= 1)");
    }
    for (const double ramp : {-0.001, 0.0501}) {
        EXPECT_EQ(with([=](StepOptions& o) { o.ramp_s = ramp; }), "ramp out of range (0-50 ms)");
    }
    for (const char* step : {"carrier=0.049", "pause=3600.1", "carrier=0", "pause=-1"}) {
        EXPECT_EQ(with([=](StepOptions& o) { o.steps = {step}; }),
                  "carrier or pause duration out of range (0.05-3600 s)");
    }
    EXPECT_EQ(with([](StepOptions& o) { o.steps = {"opera=G4/QZB"}; }), "cannot encode G4/QZB");
    EXPECT_EQ(with([](StepOptions& o) { o.steps = {"orvel-l=G4QZB,ZZ99"}; }), "cannot encode G4QZB ZZ99");
}

// ---- The log of spots -----------------------------------------------------------------------------------------------

ov_spot spot(const char* call, double end, double freq = 1500, int32_t protocol = OVL_OPERA, const char* locator = "") {
    ov_spot result{};
    std::strcpy(result.call, call);
    std::strcpy(result.locator, locator);
    result.protocol = protocol;
    result.t = end - ovl_chip_seconds() * ovl_frame_chips(static_cast<uint32_t>(protocol));
    result.freq = freq;
    return result;
}

std::vector<ov_spot> released(SpotLog& log, double utc) {
    std::vector<ov_spot> spots;
    log.release(utc, [&](const ov_spot& s, int32_t) { spots.push_back(s); });
    return spots;
}

std::vector<std::string> calls(const std::vector<ov_spot>& spots) {
    std::vector<std::string> names;
    for (const ov_spot& s : spots) names.emplace_back(s.call);
    return names;
}

using Calls = std::vector<std::string>;

TEST(TheLogOfSpots, GivesEachFrameOnceThoughItIsFoundAgainAndAgain) {
    SpotLog log(SpotLog::Order::END);
    Calls all;
    for (int look = 0; look < 8; look++) {  // both before and after it was given
        log.add({spot("K2QRX", 1000 + 0.3 * look, 1500 - 0.5 * look)});
        for (const std::string& call : calls(released(log, 1000 + 4 * look - 8))) all.push_back(call);
    }
    EXPECT_EQ(all, Calls{"K2QRX"});
}

TEST(TheLogOfSpots, TellsInHowManyLooksAFrameWasFound) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000), spot("DL1QXA", 1001)});
    log.add({});
    log.add({spot("K2QRX", 1000.1), spot("K2QRX", 1000.2), spot("G4QZB", 1002)});  // twice in one look
    log.add({spot("K2QRX", 1000), spot("G4QZB", 1002)});
    std::map<std::string, int32_t> finds;
    log.release(1003, [&](const ov_spot& s, int32_t n) { finds[s.call] = n; });
    EXPECT_EQ(finds, (std::map<std::string, int32_t>{{"K2QRX", 3}, {"DL1QXA", 1}, {"G4QZB", 2}}));
}

TEST(TheLogOfSpots, GivesNothingTwiceWhenOneLookFindsItTwice) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000), spot("K2QRX", 1000.01, 1500.1)});
    EXPECT_EQ(calls(released(log, 1001)), Calls{"K2QRX"});
    EXPECT_TRUE(released(log, 1002).empty());
}

TEST(TheLogOfSpots, GivesFramesInTheOrderInWhichTheyEnded) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("G4QZB", 1003, 1500, OVL_ORVEL_L, "IO91"), spot("K2QRX", 1001), spot("DL1QXA", 1005)});
    log.add({spot("OK2QJB", 1000), spot("F5QXY", 1002, 1400, OVL_ORVEL_S)});
    EXPECT_EQ(calls(released(log, 1010)), (Calls{"OK2QJB", "K2QRX", "F5QXY", "G4QZB", "DL1QXA"}));
}

TEST(TheLogOfSpots, HoldsFramesBackUntilTheyAreOldEnough) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1001), spot("DL1QXA", 1005)});
    EXPECT_TRUE(released(log, 1000.9).empty());
    log.add({spot("G4QZB", 1000.95)});  // a look brings an earlier one
    EXPECT_EQ(calls(released(log, 1001.1)), (Calls{"G4QZB", "K2QRX"}));
    EXPECT_TRUE(released(log, 1004.9).empty());
    EXPECT_EQ(calls(released(log, HUGE_VAL)), Calls{"DL1QXA"});
    EXPECT_TRUE(released(log, HUGE_VAL).empty());
}

TEST(TheLogOfSpots, TheLaterLookIsRight) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000, 1500)});
    log.add({spot("K2QRX", 1000.2, 1500.7)});
    const auto given = released(log, 1001);
    ASSERT_EQ(given.size(), 1U);
    EXPECT_EQ(given[0].freq, 1500.7);
    EXPECT_NEAR(spot_end(given[0]), 1000.2, 1e-9);
    log.add({spot("K2QRX", 1000.3, 1499)});
    EXPECT_TRUE(released(log, 1002).empty());
}

// Between two others that were handed out in order.
TEST(TheLogOfSpots, ALaterLookDoesNotTakeAFrameBehindWhatWasGiven) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("DL1QXA", 1000), spot("K2QRX", 1000.5, 1500)});
    EXPECT_EQ(calls(released(log, 1000.2)), Calls{"DL1QXA"});
    log.add({spot("K2QRX", 999.9, 1501)});
    const auto given = released(log, 1001);
    ASSERT_EQ(given.size(), 1U);
    EXPECT_NEAR(spot_end(given[0]), 1000.5, 1e-9);
}

TEST(TheLogOfSpots, WhatSawMoreOfAFrameStays) {
    ov_spot much = spot("K2QRX", 1000, 1500);
    much.chips_ok = 239;
    ov_spot little = spot("K2QRX", 1000, 1501);
    little.chips_ok = 200;
    ov_spot deep = spot("K2QRX", 1000, 1502);
    deep.chips_ok = 239;
    deep.deep = 1;
    for (const std::vector<ov_spot>& order : std::vector<std::vector<ov_spot>>{
             {much, little, deep}, {deep, little, much}, {little, much, deep}, {little, deep, much}}) {
        SpotLog log(SpotLog::Order::END);
        for (const ov_spot& s : order) log.add({s});
        const auto given = released(log, HUGE_VAL);
        ASSERT_EQ(given.size(), 1U);
        EXPECT_EQ(given[0].freq, 1500);
    }
}

TEST(TheLogOfSpots, MayGoByTheBeginningOfFrames) {
    SpotLog log(SpotLog::Order::START);
    const ov_spot large = spot("G4QZB", 1041, 1500, OVL_ORVEL_L, "IO91");  // begins before the other and ends behind it
    const ov_spot small = spot("K2QRX", 1032);
    ASSERT_LT(large.t, small.t);
    log.add({small, large});
    EXPECT_EQ(calls(released(log, large.t + 0.01)), Calls{"G4QZB"});
    EXPECT_TRUE(released(log, small.t - 0.01).empty());
    EXPECT_EQ(calls(released(log, small.t + 0.01)), Calls{"K2QRX"});
}

TEST(TheLogOfSpots, TellsFramesApart) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000, 1400), spot("K2QRX", 1000, 1500)});         // on two frequencies
    log.add({spot("G4QZB", 1001), spot("G4QZB", 1001, 1500, OVL_ORVEL_S)});  // in two protocols
    log.add({spot("DL1QXA", 1002, 1500, OVL_ORVEL_L, "JO31"), spot("DL1QXA", 1002, 1500, OVL_ORVEL_L, "JO32")});
    log.add({spot("F5QXY", 1003), spot("OK2QJB", 1003)});  // of two stations
    log.add({spot("F5QXY", 1003 + 30.592)});               // one right behind another
    EXPECT_EQ(released(log, HUGE_VAL).size(), 9U);
}

TEST(TheLogOfSpots, AStationIsHeardAgainLater) {
    SpotLog log(SpotLog::Order::END);
    for (int k = 0; k < 200; k++) {
        const double end = 1000 + 600 * k;
        log.add({spot("K2QRX", end)});
        EXPECT_EQ(calls(released(log, end + 4)), Calls{"K2QRX"});
        log.add({spot("K2QRX", end)});
        EXPECT_TRUE(released(log, end + 8).empty());
    }
}

TEST(TheLogOfSpots, AFrameIsRememberedForAsLongAsABlockCanShowIt) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000)});
    EXPECT_EQ(released(log, 1004).size(), 1U);
    for (double utc = 1005; utc < 1100; utc += 1) {
        log.add({spot("K2QRX", 1000)});
        EXPECT_TRUE(released(log, utc).empty()) << utc;
    }
}

// ---- Looks at the newest audio --------------------------------------------------------------------------------------

// How far behind a multiple of a step a time is; a time that but for a rounding is one itself is 0 behind.
double remainder_s(double time_s, double step_s) {
    const double rest_s = time_s - step_s * std::floor(time_s / step_s + 1e-6);
    return std::max(rest_s, 0.0);
}

TEST(TheLooks, BeginAtFourPositionsOfTheGridInTurns) {
    std::mt19937_64 random(6);
    Looks looks(4, 48);
    double earliest_s = 0;
    for (int round = 0; round < 500; round++) {
        for (const double phase_s : {0.0, 0.0025, 0.005, 0.0075}) {
            const double begin_s = looks.next_begin_s(earliest_s);
            EXPECT_GE(begin_s, earliest_s - 1e-9);
            EXPECT_LE(begin_s, earliest_s + 0.008 + 1e-9);
            EXPECT_NEAR(remainder_s(begin_s, 0.008), phase_s, 1e-8);
            earliest_s += std::uniform_real_distribution<double>(1, 400)(random);
        }
    }
    EXPECT_EQ(Looks(4, 48).next_begin_s(0), 0) << "as a recording";
}

// A listener whose looks come every four seconds sharp always has the same rest of the 2 ms between samples of the
// baseband before them, which decides over weak frames, too.
TEST(TheLooks, BeginBetweenTheSamplesOfTheBaseband) {
    Looks looks(4, 48);
    std::vector<double> rests_s;
    for (int k = 0; k < 4; k++) rests_s.push_back(remainder_s(looks.next_begin_s(4 * k), 0.002));
    std::sort(rests_s.begin(), rests_s.end());
    for (std::size_t k = 0; k < 4; k++) EXPECT_NEAR(rests_s[k], 0.0005 * static_cast<double>(k), 1e-8);
}

TEST(TheLooks, DecodeTwoOfTheLongestFramesBesidesWhatSettles) {
    EXPECT_NEAR(Looks(4, 0).block_s(), 90, 1e-9);
    EXPECT_NEAR(Looks(1, 60).block_s(), 150, 1e-9);
}

TEST(TheLooks, OneFindOfFourIsNotBelieved) {
    Looks looks(4, 48);
    for (int k = 1; k <= 20; k++) looks.add(4 * k);
    EXPECT_TRUE(looks.confirm(68.5, 1));  // of three
    EXPECT_TRUE(looks.confirm(68.5, 2));
    EXPECT_FALSE(looks.confirm(68, 1));
    EXPECT_TRUE(looks.confirm(68, 2));
    EXPECT_FALSE(looks.confirm(20, 1));
    EXPECT_TRUE(looks.confirm(20, 2));
    looks.clear();
    EXPECT_TRUE(looks.confirm(68, 1));
}

// Whatever the looks' pace: every one between the end of a frame and the time it has settled counts for it, the one
// that finds it settled included.
TEST(TheLooks, NoneIsLostBetweenTheEndOfAFrameAndItsSettling) {
    std::mt19937_64 random(5);
    const auto uniform = [&](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    for (int round = 0; round < 2000; round++) {
        const double every_s = uniform(1, 15);
        const double settle_s = round % 3 == 0 ? 0 : uniform(0, 60);
        Looks looks(every_s, settle_s);
        const double end_s = uniform(20, 400);
        int32_t possible = 0;
        bool settled = false;
        double settled_s = -HUGE_VAL;
        for (double look_s = 20; !settled; look_s += every_s + (round % 2 == 0 ? 0.25 : uniform(-0.9, 20))) {
            const double earliest_s = looks.add(look_s);
            EXPECT_GE(earliest_s, settled_s) << "that has been printed";
            settled_s = looks.settled_s(look_s);
            settled = settled_s >= end_s;
            if (look_s < end_s) continue;
            possible++;
            EXPECT_LE(earliest_s, end_s);
        }
        ASSERT_GE(possible, 1);
        EXPECT_EQ(looks.confirm(end_s, 1), possible < 4);
        EXPECT_TRUE(looks.confirm(end_s, 2));
    }
}

// ---- The clock of captured samples ----------------------------------------------------------------------------------

// Audio that comes in buffers of a tenth of a second, each late by up to a quarter.
class TheSampleClock : public ::testing::Test {
  protected:
    // Captures so many seconds more, as if without interruption since `begin`.
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

TEST_F(TheSampleClock, OfWhatComesAllAtOnceTheNewestSampleHasJustCome) {
    for (double captured_s = 0.25; captured_s <= 200; captured_s += 0.25) clock_.observe(captured_s, MARCH_1);
    for (const double at_s : {0.0, 100.0, 200.0}) EXPECT_NEAR(clock_.utc(at_s), MARCH_1 - 200 + at_s, 1e-6) << at_s;
}

// ---- Spots as text --------------------------------------------------------------------------------------------------

TEST(SpotText, CellsHaveNoNegativeZeroAndNoNumbersThatAreNone) {
    EXPECT_EQ(cell(-0.04, 1), "0.0");
    EXPECT_EQ(cell(-0.04, 1, true), "+0.0");
    EXPECT_EQ(cell(-0.06, 1, true), "-0.1");
    EXPECT_EQ(cell(1.25, 2, true), "+1.25");
    EXPECT_EQ(cell(NAN, 1), "-");
    EXPECT_EQ(cell(HUGE_VAL, 1), "-");
}

TEST(SpotText, AnUnmeasuredSnrIsADashOrNull) {
    ov_spot s = spot("K2QRX", 1000);
    s.snr = -99;
    EXPECT_NE(spot_row("t", s).find("       -  OPERA 05"), std::string::npos) << spot_row("t", s);
    nlohmann::ordered_json object;
    add_spot(object, s);
    EXPECT_TRUE(object.at("snr_db").is_null());
    s.snr = -20.5;
    add_spot(object, s);
    EXPECT_EQ(object.at("snr_db"), -20.5);
}

// ---- Checks of option values ----------------------------------------------------------------------------------------

TEST(OptionChecks, NumbersAreFiniteAndFillTheText) {
    std::string value;
    for (const char* text : {"0", "-0", "1", "-1.5", "+2", "1e3", "1e-300", ".5", "5.", "1e308"}) {
        value = text;
        EXPECT_EQ(finite_number()(value), "") << text;
        EXPECT_EQ(value, text);
    }
    for (const char* text : {"",         " ",     "+",  "-",  "+-1", "--1", "++1", "nan",  "inf", "-inf",
                             "infinity", "1e309", "1x", "x1", " 1",  "1 ",  "1,5", "0x10", "1e",  "."}) {
        value = text;
        EXPECT_EQ(finite_number()(value), "'" + std::string(text) + "' is not a finite number");
        EXPECT_EQ(width()(value), "'" + std::string(text) + "' is not a finite number of 0 or more");
    }
}

TEST(OptionChecks, WidthsAreNotNegative) {
    std::string value;
    for (const char* text : {"0", "-0", "0.5", "1e9"}) {
        value = text;
        EXPECT_EQ(width()(value), "") << text;
    }
    for (const char* text : {"-1", "-1e-300"}) {
        value = text;
        EXPECT_EQ(width()(value), "'" + std::string(text) + "' is not a finite number of 0 or more");
    }
}

TEST(OptionChecks, ListsAreSplitAtCommasAndBlanks) {
    EXPECT_EQ(split_list("a,b c;d\te\r\nf"), (Calls{"a", "b", "c", "d", "e", "f"}));
    EXPECT_EQ(split_list(",, a ,;, b,"), (Calls{"a", "b"}));
    EXPECT_EQ(split_list("a/b-c"), Calls{"a/b-c"});
    EXPECT_TRUE(split_list("").empty());
    EXPECT_TRUE(split_list(" ,;\t\n\v\f").empty());
}

TEST(PrintableText, IsOneLineThatMovesNoCursor) {
    for (const char* const plain : {"", "a ~", "caf\xc3\xa9", "\xc2\xa0", "\xe2\x82\xac", "\xf0\x9f\x93\xbb", "\\x"}) {
        EXPECT_EQ(printable(plain), plain);
    }
    EXPECT_EQ(printable("a\nb\r\tc"), "a\\nb\\r\\tc");
    EXPECT_EQ(printable("\x1b[2J\x7f"), "\\x1b[2J\\x7f");
    EXPECT_EQ(printable(std::string(1, '\0')), "\\x00");
    EXPECT_EQ(printable("\xc2\x9b"
                        "2J"),
              "\\xc2\\x9b2J");                                         // U+009B, the same as ESC [
    EXPECT_EQ(printable("\xe9t\xe9"), "\\xe9t\\xe9");                  // Latin-1
    EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");                    // cut off
    EXPECT_EQ(printable("\xe2(\x82"), "\\xe2(\\x82");                  // in the middle
    EXPECT_EQ(printable("\xc0\x8a"), "\\xc0\\x8a");                    // a line feed, made longer
    EXPECT_EQ(printable("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");           // and U+009B
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // half a pair of UTF-16
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond the last
    EXPECT_EQ(printable("\xf0\x80\x82\x9b\xff"), "\\xf0\\x80\\x82\\x9b\\xff");
}

TEST(Format, HoldsTextsOfEveryLength) {
    EXPECT_EQ(format("%s", ""), "");
    EXPECT_EQ(format("%d %s %.2f%%", 3, "x", 1.5), "3 x 1.50%");
    for (const std::size_t length : {1U, 255U, 256U, 1000U, 100000U}) {
        const std::string text(length, 'a');
        EXPECT_EQ(format("<%s>", text.c_str()), "<" + text + ">");
    }
}

// ---- Progress -------------------------------------------------------------------------------------------------------

// With single blanks: how wide the columns are does not matter.
std::string progress(double done_s, double seconds, double elapsed_s, std::size_t spots) {
    return std::regex_replace(progress_text(done_s, seconds, elapsed_s, spots), std::regex(" +"), " ");
}

TEST(ProgressText, ShowsShareSpeedRestAndSpots) {
    EXPECT_EQ(progress(600, 1200, 600 / 38.5, 17), "##########.......... 50 % 38.5 x real time 0:16 left 17 spots");
    EXPECT_EQ(progress(300, 1200, 100, 2), "#####............... 25 % 3.0 x real time 5:00 left 2 spots");
    EXPECT_EQ(progress(36, 86400, 9, 0), ".................... 0 % 4.0 x real time 359:51 left 0 spots");
}

TEST(ProgressText, BeginsWithoutSpeedAndEndsWithNothingLeft) {
    EXPECT_EQ(progress(0, 1200, 0, 0), ".................... 0 % 0 spots");
    EXPECT_EQ(progress(0, 1200, 5, 0), ".................... 0 % 0 spots");
    EXPECT_EQ(progress(60, 1200, 0, 3), "#................... 5 % 3 spots");
    EXPECT_EQ(progress(1200, 1200, 48, 3), "#################### 100 % 25.0 x real time 0:00 left 3 spots");
    EXPECT_EQ(progress(1300, 1200, 52, 3), "#################### 100 % 25.0 x real time 0:00 left 3 spots");
}

TEST(ProgressText, OneSpotIsNoSpots) {
    EXPECT_EQ(progress(0, 1200, 0, 1), ".................... 0 % 1 spot");
    EXPECT_TRUE(progress(600, 1200, 10, 1).ends_with(" 1 spot"));
    EXPECT_TRUE(progress(600, 1200, 10, 21).ends_with(" 21 spots"));
}

TEST(ProgressText, AJobOfNoLengthIsDone) {
    EXPECT_EQ(progress(0, 0, 0, 0), "#################### 100 % 0 spots");
    EXPECT_EQ(progress(0, 0, 1, 0), "#################### 100 % 0 spots");
}

}  // namespace
