// Transmissions as a user types them.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/error.h"
#include "transmission/steps.h"

namespace {

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
    EXPECT_EQ(parse_step("ORVEL S=K2QRX").protocol, OVL_ORVEL_S);  // as results name it
    EXPECT_EQ(parse_step("Opera=K2QRX").protocol, OVL_OPERA);
    EXPECT_STREQ(parse_step("orvel-l=DL1QXA,ABCDEFG").locator, "ABCDEFG");
}

// What the function threw as wrong usage.
std::string usage_error(const std::function<void()>& function) {
    try {
        function();
    } catch (const UsageError& error) {
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
    for (const char* text : {"morse=K2QRX", "=K2QRX", " opera=K2QRX", "opera =K2QRX", "orvel=K2QRX"}) {
        EXPECT_EQ(step_error(text),
                  "'" + std::string(text) + "': a step is one of opera, orvel-s, orvel-l, carrier, pause");
    }
    for (const char* text : {"opera=", "orvel-s=", "orvel-l=", "orvel-l=,JO31", "opera=,"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': a callsign is missing");
    }
    EXPECT_EQ(step_error("opera=K2 QRX"), "'opera=K2 QRX': a callsign holds no blank");
    EXPECT_EQ(step_error("orvel-l=DL1QXA"), "'orvel-l=DL1QXA': an ORVEL L frame needs a locator: orvel-l=CALL,LOCATOR");
    for (const char* text : {"orvel-l=DL1QXA,", "orvel-l=DL1QXA,ABCDEFGH"}) {
        EXPECT_EQ(step_error(text), "'" + std::string(text) + "': expected a locator of 4 or 6 characters");
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
            EXPECT_EQ(step_error(text), "'" + text + "': expected seconds after the '='");
        }
    }
}

std::string start_error(const Transmission& options) {
    const TransmitterPtr tx = make_transmitter();
    return usage_error([&] { start_transmitter(tx.get(), options); });
}

TEST(Steps, ATransmitterTakesUpToSixtyFourOfThem) {
    Transmission options;
    options.steps.assign(64, "pause=0.5");
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options);
    EXPECT_NEAR(total_seconds(tx.get()), 32, 0.1);
    options.steps.emplace_back("pause=0.5");
    EXPECT_EQ(start_error(options), "too many steps (max 64)");
}

TEST(Steps, ATransmitterIsStartedWithAllOfTheOptions) {
    const Transmission options = {{"carrier=1", "pause=0.5", "opera=K2QRX"}, 12000, 1000, 0.25, 0.01};
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

TEST(Steps, WhatTheLibraryRefusesIsRefusedInItsWords) {
    const Transmission good = {{"carrier=1"}, 48000, 1500, 0.5, 0.005};
    EXPECT_EQ(start_error(good), "nothing thrown");
    const auto with = [&](const std::function<void(Transmission&)>& change) {
        Transmission options = good;
        change(options);
        return start_error(options);
    };
    EXPECT_EQ(with([](Transmission& o) { o.steps.clear(); }), "empty sequence");
    for (const int32_t rate : {7999, 384001, 0, -48000}) {
        EXPECT_EQ(with([=](Transmission& o) { o.rate = rate; }), "sample rate out of range (8000-384000 Hz)");
    }
    for (const double tone : {0.0, -1500.0, 21600.0, 1e300}) {
        EXPECT_EQ(with([=](Transmission& o) { o.tone_hz = tone; }), "tone frequency out of range");
    }
    for (const double level : {0.0, -0.5, 1.001}) {
        EXPECT_EQ(with([=](Transmission& o) { o.level = level; }), "level out of range (0 < level <= 1)");
    }
    for (const double ramp : {-0.001, 0.0501}) {
        EXPECT_EQ(with([=](Transmission& o) { o.ramp_s = ramp; }), "ramp out of range (0-50 ms)");
    }
    for (const char* step : {"carrier=0.049", "pause=3600.1", "carrier=0", "pause=-1"}) {
        EXPECT_EQ(with([=](Transmission& o) { o.steps = {step}; }),
                  "carrier or pause duration out of range (0.05-3600 s)");
    }
    EXPECT_EQ(with([](Transmission& o) { o.steps = {"opera=G4/QZB"}; }),
              "'opera=G4/QZB': a callsign holds letters and digits only");
    EXPECT_EQ(with([](Transmission& o) { o.steps = {"orvel-l=G4QZB,ZZ99"}; }), "cannot encode G4QZB ZZ99");
}

}  // namespace
