// Spots: their log, their line of JSON, their row of a table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "liborvel.h"
#include "spots/spectrum_row.h"
#include "spots/spot.h"
#include "spots/spot_log.h"
#include "spots/spot_table.h"
#include "spots/status.h"

namespace {

// ---- The log of spots -----------------------------------------------------------------------------------------------

Found spot(const char* call, double end, double freq = 1500, int32_t protocol = OVL_OPERA, const char* locator = "") {
    Found result{};
    std::strcpy(result.call, call);
    std::strcpy(result.locator, locator);
    result.protocol = protocol;
    result.t = end - ovl_chip_seconds() * ovl_frame_chips(static_cast<uint32_t>(protocol));
    result.freq = freq;
    return result;
}

std::vector<Found> released(SpotLog& log, double utc) {
    std::vector<Found> spots;
    log.release(utc, [&](const Found& s, int32_t) { spots.push_back(s); });
    return spots;
}

std::vector<std::string> calls(const std::vector<Found>& spots) {
    std::vector<std::string> names;
    for (const Found& s : spots) names.emplace_back(s.call);
    return names;
}

using Calls = std::vector<std::string>;

TEST(TheLogOfSpots, GivesEachFrameOnceThoughItIsFoundAgainAndAgain) {
    SpotLog log(SpotLog::Order::END);
    Calls all;
    for (int block = 0; block < 8; block++) {  // both before and after it was given
        log.add({spot("K2QRX", 1000 + 0.3 * block, 1500 - 0.5 * block)});
        for (const std::string& call : calls(released(log, 1000 + 4 * block - 8))) all.push_back(call);
    }
    EXPECT_EQ(all, Calls{"K2QRX"});
}

TEST(TheLogOfSpots, CountsTheBlocksInWhichAFrameWasFound) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("K2QRX", 1000), spot("DL1QXA", 1001)});
    log.add({});
    log.add({spot("K2QRX", 1000.1), spot("K2QRX", 1000.2), spot("G4QZB", 1002)});  // twice in one block
    log.add({spot("K2QRX", 1000), spot("G4QZB", 1002)});
    std::map<std::string, int32_t> finds;
    log.release(1003, [&](const Found& s, int32_t n) { finds[s.call] = n; });
    EXPECT_EQ(finds, (std::map<std::string, int32_t>{{"K2QRX", 3}, {"DL1QXA", 1}, {"G4QZB", 2}}));
}

TEST(TheLogOfSpots, GivesNothingTwiceWhenOneBlockHoldsItTwice) {
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
    log.add({spot("G4QZB", 1000.95)});  // a block brings an earlier one
    EXPECT_EQ(calls(released(log, 1001.1)), (Calls{"G4QZB", "K2QRX"}));
    EXPECT_TRUE(released(log, 1004.9).empty());
    EXPECT_EQ(calls(released(log, HUGE_VAL)), Calls{"DL1QXA"});
    EXPECT_TRUE(released(log, HUGE_VAL).empty());
}

TEST(TheLogOfSpots, TheLaterBlockIsRight) {
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
TEST(TheLogOfSpots, ALaterBlockDoesNotMoveAFrameBeforeWhatWasHandedOut) {
    SpotLog log(SpotLog::Order::END);
    log.add({spot("DL1QXA", 1000), spot("K2QRX", 1000.5, 1500)});
    EXPECT_EQ(calls(released(log, 1000.2)), Calls{"DL1QXA"});
    log.add({spot("K2QRX", 999.9, 1501)});
    const auto given = released(log, 1001);
    ASSERT_EQ(given.size(), 1U);
    EXPECT_NEAR(spot_end(given[0]), 1000.5, 1e-9);
}

TEST(TheLogOfSpots, WhatSawMoreOfAFrameStays) {
    Found much = spot("K2QRX", 1000, 1500);
    much.chips_ok = 239;
    Found little = spot("K2QRX", 1000, 1501);
    little.chips_ok = 200;
    Found deep = spot("K2QRX", 1000, 1502);
    deep.chips_ok = 239;
    deep.deep = 1;
    for (const std::vector<Found>& order : std::vector<std::vector<Found>>{
             {much, little, deep}, {deep, little, much}, {little, much, deep}, {little, deep, much}}) {
        SpotLog log(SpotLog::Order::END);
        for (const Found& s : order) log.add({s});
        const auto given = released(log, HUGE_VAL);
        ASSERT_EQ(given.size(), 1U);
        EXPECT_EQ(given[0].freq, 1500);
    }
}

TEST(TheLogOfSpots, WhatTheStandardSearchFoundStaysAndOfCoherentFindsTheSurest) {
    const auto find = [](int32_t method, double odds) {
        Found result = spot("K2QRX", 1000, 1500 + method);
        result.deep = method;
        result.odds = odds;
        return result;
    };
    const std::vector<Found> worse_to_better = {find(OVL_COHERENT_KNOWN, 30), find(OVL_COHERENT, 12),
                                                find(OVL_COHERENT, 20), find(OVL_DEEP, NAN), find(OVL_STANDARD, NAN)};
    for (std::size_t best = 1; best < worse_to_better.size(); best++) {
        for (std::size_t other = 0; other < best; other++) {
            for (const auto& [first, second] : {std::pair(best, other), std::pair(other, best)}) {
                SpotLog log(SpotLog::Order::END);
                log.add({worse_to_better[first]});
                log.add({worse_to_better[second]});
                const auto given = released(log, HUGE_VAL);
                ASSERT_EQ(given.size(), 1U);
                EXPECT_EQ(given[0].deep, worse_to_better[best].deep);
                if (given[0].deep >= OVL_COHERENT) {
                    EXPECT_EQ(given[0].odds, worse_to_better[best].odds);
                }
            }
        }
    }
}

TEST(TheLogOfSpots, MayGoByTheBeginningOfFrames) {
    SpotLog log(SpotLog::Order::START);
    const Found large = spot("G4QZB", 1041, 1500, OVL_ORVEL_L, "IO91");  // begins before the other and ends after it
    const Found small = spot("K2QRX", 1032);
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
    log.add({spot("F5QXY", 1003 + 30.592)});               // one directly after another
    EXPECT_EQ(released(log, HUGE_VAL).size(), 9U);
}

TEST(TheLogOfSpots, AStationIsReportedAgainLater) {
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

// ---- Spots as lines -------------------------------------------------------------------------------------------------

void expect_equal(const Spot& a, const Spot& b) {
    EXPECT_EQ(a.file, b.file);
    EXPECT_NEAR(a.start, b.start, 0.006);  // UTC is written in hundredths
    EXPECT_NEAR(a.end, b.end, 0.006);
    EXPECT_EQ(a.freq_hz, b.freq_hz);
    EXPECT_EQ(a.rf_hz, b.rf_hz);
    EXPECT_EQ(a.drift_hz_s, b.drift_hz_s);
    EXPECT_EQ(a.snr_db, b.snr_db);
    EXPECT_EQ(a.protocol, b.protocol);
    EXPECT_EQ(a.call, b.call);
    EXPECT_EQ(a.locator, b.locator);
    EXPECT_EQ(a.deep, b.deep);
    ASSERT_EQ(a.finding.has_value(), b.finding.has_value());
    if (!a.finding) return;
    EXPECT_EQ(a.finding->method, b.finding->method);
    if (std::isnan(b.finding->odds)) {
        EXPECT_TRUE(std::isnan(a.finding->odds));
    } else {
        EXPECT_EQ(a.finding->odds, b.finding->odds);
    }
}

TEST(SpotLine, IsReadBackAsTheSameSpot) {
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        for (const char* file : {"", "a \"b\"\n.wav"}) {
            for (const double snr : {-99.0, -20.25, HUGE_VAL}) {
                ov_spot found = spot("K2QRX", 1.7e9, 1500.125, protocol, protocol == OVL_ORVEL_L ? "FN31" : "");
                found.drift = -0.0625;
                found.snr = snr;
                found.deep = protocol == OVL_OPERA ? 1 : 0;
                const Spot written = spot_of(found, file);
                const std::string line = spot_line(written);
                EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line";
                const auto read = parse_spot_line(line);
                ASSERT_TRUE(read) << line;
                expect_equal(*read, written);
            }
        }
    }
}

TEST(SpotLine, SaysHowTheFrameWasFoundWhereThatWasAsked) {
    const std::vector<std::pair<int32_t, std::string>> methods = {
        {OVL_STANDARD, R"("deep":false,"method":"standard")"},
        {OVL_DEEP, R"("deep":true,"method":"deep")"},
        {OVL_COHERENT, R"("deep":false,"method":"coherent")"},
        {OVL_COHERENT_KNOWN, R"("deep":true,"method":"coherent-known")"}};
    for (const auto& [method, text] : methods) {
        Found found = spot("K2QRX", 1.7e9);
        found.deep = method;
        if (method >= OVL_COHERENT) found.odds = 12.25;
        Spot written = spot_of(found, "x.wav");
        EXPECT_EQ(spot_line(written).find("method"), std::string::npos);
        EXPECT_EQ(spot_line(written).find("odds"), std::string::npos);
        written.finding = finding_of(found);
        const std::string line = spot_line(written);
        EXPECT_NE(line.find(text + (method >= OVL_COHERENT ? R"(,"odds":12.25})" : R"(,"odds":null})")),
                  std::string::npos)
            << line;
        const auto read = parse_spot_line(line);
        ASSERT_TRUE(read) << line;
        expect_equal(*read, written);
    }
}

TEST(SpotLine, OfARecordingHasItsFileAndSecondsAndOfAReceiverTheTime) {
    const ov_spot found = spot("K2QRX", 1e9);
    const std::string heard = spot_line(spot_of(found));
    EXPECT_NE(heard.find("\"utc_end\":\"2001-09-09T01:46:40.00Z\""), std::string::npos) << heard;
    EXPECT_EQ(heard.find("file"), std::string::npos);
    const std::string read = spot_line(spot_of(found, "x.wav"));
    EXPECT_EQ(read.rfind("{\"file\":\"x.wav\",\"t_start\":", 0), 0u) << read;
    EXPECT_EQ(read.find("utc"), std::string::npos);
}

TEST(SpotLine, OfADatedRecordingHasBoth) {
    Spot dated = spot_of(spot("K2QRX", 40), "x.wav");
    dated.file_utc = 1e9;
    const std::string line = spot_line(dated);
    EXPECT_NE(line.find("\"utc_end\":\"2001-09-09T01:47:20.00Z\""), std::string::npos) << line;
    const auto read = parse_spot_line(line);
    ASSERT_TRUE(read) << line;
    expect_equal(*read, dated);
    ASSERT_TRUE(read->file_utc);
    EXPECT_NEAR(*read->file_utc, 1e9, 0.006);
}

TEST(SpotLine, HasTheFrequencyOnTheAirWhereItIsKnown) {
    Spot tuned = spot_of(spot("K2QRX", 40), "x.wav");
    EXPECT_EQ(spot_line(tuned).find("rf_hz"), std::string::npos);
    tuned.rf_hz = 137500.25;
    const std::string line = spot_line(tuned);
    EXPECT_NE(line.find("\"freq_hz\":1500.0,\"rf_hz\":137500.25,\"drift_hz_s\""), std::string::npos) << line;
    const auto read = parse_spot_line(line);
    ASSERT_TRUE(read) << line;
    expect_equal(*read, tuned);
}

TEST(SpotCsv, HasColumnsForWhatOtherSpotsKnow) {
    const Spot plain = spot_of(spot("K2QRX", 40), "x.wav");
    EXPECT_EQ(spot_csv_names(plain, {true, true}),
              "file,utc_start,utc_end,t_start,t_end,freq_hz,rf_hz,drift_hz_s,snr_db,protocol,call,locator,deep\n");
    EXPECT_EQ(spot_csv(plain, {true, true}).rfind("x.wav,,,9.408,40.0,1500.0,,0.0,", 0), 0u)
        << spot_csv(plain, {true, true});
    Spot known = plain;
    known.file_utc = 1e9;
    known.rf_hz = 137500.25;
    EXPECT_EQ(spot_csv_names(known), spot_csv_names(plain, {true, true}));
}

TEST(SpotLine, NumbersHaveNoMoreThanSixDecimals) {
    ov_spot found = spot("K2QRX", 1.0 / 3, 1500 + 1.0 / 3);
    found.drift = -1.0 / 3;
    const std::string line = spot_line(spot_of(found, "x.wav"));
    EXPECT_NE(line.find("\"freq_hz\":1500.333333,"), std::string::npos) << line;
    EXPECT_NE(line.find("\"drift_hz_s\":-0.333333,"), std::string::npos) << line;
}

TEST(SpotLine, AFileWhoseNameIsNotUtf8IsFoundByItsUrl) {
    const std::string line = spot_line(spot_of(spot("K2QRX", 40), "/tmp/a\xff b.wav"));
    EXPECT_NE(line.find("\"file_url\":\"file:///tmp/a%FF%20b.wav\""), std::string::npos) << line;
    EXPECT_EQ(spot_csv(spot_of(spot("K2QRX", 40), "/tmp/a\xff.wav")).rfind("file:///tmp/a%FF.wav,", 0), 0u);
    EXPECT_EQ(spot_line(spot_of(spot("K2QRX", 40), "/tmp/\xc3\xa4.wav")).find("file_url"), std::string::npos);
}

TEST(SpotCsv, HasTheFieldsOfJsonInEveryCase) {
    for (const char* file : {"", "x.wav", "/tmp/a\xff.wav", "a,\"b\"\n.wav"}) {
        for (const bool with_finding : {false, true}) {
            Spot written = spot_of(spot("K2QRX", 40), file);
            if (*file != '\0') written.file_utc = 1e9;
            if (with_finding) written.finding = {.method = OVL_STANDARD, .odds = NAN};
            std::string names = spot_csv_names(written);
            const std::string line = spot_csv(written);
            EXPECT_EQ(line.find('\n'), line.size() - 1);
            const auto object = nlohmann::ordered_json::parse(spot_line(written));
            std::string expected;
            for (const auto& [name, value] : object.items()) {
                if (name != "file_url") expected += (expected.empty() ? "" : ",") + name;
            }
            EXPECT_EQ(names, expected + "\n");
            EXPECT_EQ(line.ends_with(",\n"), with_finding) << line;  // odds that were not measured
        }
    }
    EXPECT_EQ(spot_csv(spot_of(spot("K2QRX", 40), "a,\"b\".wav")).rfind("\"a,\"\"b\"\".wav\",", 0), 0u);
}

TEST(SpotLine, WithoutAFieldOrWithOneOfTheWrongKindIsNone) {
    Spot written = spot_of(spot("K2QRX", 1e9, 1500, OVL_ORVEL_L, "FN31"), "x.wav");
    written.finding = ovl_finding{.method = OVL_COHERENT, .odds = 12};
    const std::string line = spot_line(written);
    ASSERT_TRUE(parse_spot_line(line));
    const auto whole = nlohmann::json::parse(line);
    for (const auto& [name, value] : whole.items()) {
        auto broken = whole;
        broken.erase(name);
        EXPECT_FALSE(parse_spot_line(broken.dump())) << name;
        for (const nlohmann::json& other : {nlohmann::json::array(), nlohmann::json::object()}) {
            broken[name] = other;
            EXPECT_FALSE(parse_spot_line(broken.dump())) << name;
        }
    }
    auto more = whole;
    more["note"] = "passed over";
    EXPECT_TRUE(parse_spot_line(more.dump()));
    for (const char* text : {"", "null", "[]", "{}", "{", "7", "\xff", "{\"file\":\"x\"}"}) {
        EXPECT_FALSE(parse_spot_line(text)) << text;
    }
    auto protocol = whole;
    protocol["protocol"] = "MORSE";
    EXPECT_FALSE(parse_spot_line(protocol.dump()));
    auto method = whole;
    method["method"] = "guess";
    EXPECT_FALSE(parse_spot_line(method.dump()));
    EXPECT_FALSE(parse_spot_line(line.substr(0, line.size() / 2)));
}

TEST(SpotLine, OfAReceiverNeedsTimesWithTheirDates) {
    auto object = nlohmann::json::parse(spot_line(spot_of(spot("K2QRX", 1e9))));
    for (const char* time : {"", "12:00:00Z", "2026-02-30T12:00:00Z", "now"}) {
        object["utc_start"] = time;
        EXPECT_FALSE(parse_spot_line(object.dump())) << time;
    }
}

// ---- Spots as rows --------------------------------------------------------------------------------------------------

TEST(SpotText, AnUnmeasuredSnrIsADashOrNull) {
    ov_spot s = spot("K2QRX", 1000);
    s.snr = -99;
    const std::string row = spot_row("t", spot_of(s));
    EXPECT_NE(row.find("       -  OPERA 05"), std::string::npos) << row;
    EXPECT_NE(spot_line(spot_of(s)).find("\"snr_db\":null"), std::string::npos);
    s.snr = -20.5;
    EXPECT_NE(spot_line(spot_of(s)).find("\"snr_db\":-20.5"), std::string::npos);
}

TEST(SpotText, AColumnBesideTheFrequencyHasThatOnTheAir) {
    Spot s = spot_of(spot("K2QRX", 1000));
    EXPECT_NE(spot_row("t", s, true).find("     1500.00              -      "), std::string::npos)
        << spot_row("t", s, true);
    s.rf_hz = 14097100.25;
    EXPECT_NE(spot_row("t", s, true).find("     1500.00    14097100.25  "), std::string::npos)
        << spot_row("t", s, true);
    EXPECT_EQ(spot_row("t", s).find("14097100"), std::string::npos);
    EXPECT_EQ(spot_header("t", false, true).find("radio Hz") + 8, spot_row("t", s, true).find("100.25") + 6);
}

TEST(SpotText, ALastColumnSaysHowTheFrameWasFoundWhereThatWasAsked) {
    Spot s = spot_of(spot("K2QRX", 1000));
    EXPECT_TRUE(spot_row("t", s).ends_with("  K2QRX     -\n")) << spot_row("t", s);
    EXPECT_TRUE(spot_header("t", false).ends_with("  locator\n"));
    s.finding = ovl_finding{.method = OVL_COHERENT, .odds = 12};
    EXPECT_TRUE(spot_row("t", s).ends_with("  K2QRX     -        coherent\n")) << spot_row("t", s);
    EXPECT_TRUE(spot_header("t", true).ends_with("  locator  method\n"));
}

TEST(StatusLine, ReadsBackWhatItSays) {
    const Status status{"lf", 1.7724e9, 250000, -30.5, -10.25, -112.5, 3, 3600.5, 1.25, -0.75, 2.5, 17};
    const auto read = parse_status_line(status_line(status));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->receiver, "lf");
    EXPECT_EQ(read->utc, status.utc);
    EXPECT_EQ(read->rate, 250000);
    EXPECT_EQ(read->level_db, -30.5);
    EXPECT_EQ(read->peak_db, -10.25);
    EXPECT_EQ(read->noise_db, -112.5);
    EXPECT_EQ(read->clipped, 3);
    EXPECT_EQ(read->captured_s, 3600.5);
    EXPECT_EQ(read->lost_s, 1.25);
    EXPECT_EQ(read->clock_error_ppm, -0.75);
    EXPECT_EQ(read->decode_s, 2.5);
    EXPECT_EQ(read->spots, 17);
    const auto least = parse_status_line(status_line({}));
    ASSERT_TRUE(least);
    EXPECT_FALSE(least->noise_db || least->clock_error_ppm);
    for (const char* const line : {"", "[]", "{}", R"({"type":"spot"})", R"({"type":"status"})",
                                   R"({"type":["status"]})", R"({"type":"status","utc":5})"}) {
        EXPECT_FALSE(parse_status_line(line)) << line;
    }
    const auto wrong =
        parse_status_line(R"({"type":"status","utc":"2026-03-01T12:00:00Z","rate":1e300,"clipped":"x","spots":-4})");
    ASSERT_TRUE(wrong);
    EXPECT_EQ(wrong->rate, INT32_MAX);
    EXPECT_EQ(wrong->clipped, 0);
    EXPECT_EQ(wrong->spots, 0);
}

// ---- Rows of a waterfall --------------------------------------------------------------------------------------------

TEST(SpectrumLine, IsReadBackAsTheSameRow) {
    for (std::size_t points = 1; points < 9; points++) {
        SpectrumRow row{"lf", 1.7724e9, {-1, 2}, {}};
        for (std::size_t k = 0; k < points; k++)
            row.levels_db.push_back(LEAST_LEVEL_DB + 0.6 * (255 - 31.0 * static_cast<double>(k)));
        const auto again = parse_spectrum_line(spectrum_line(row));
        ASSERT_TRUE(again) << points;
        EXPECT_EQ(again->receiver, "lf");
        EXPECT_EQ(again->utc, row.utc);
        EXPECT_EQ(again->band.low, -1);
        EXPECT_EQ(again->band.high, 2);
        ASSERT_EQ(again->levels_db.size(), points);
        for (std::size_t k = 0; k < points; k++) EXPECT_NEAR(again->levels_db[k], row.levels_db[k], 1e-9);
    }
}

TEST(SpectrumLine, WithoutAFieldOrWithOneOfTheWrongKindIsNone) {
    const std::string line = spectrum_line({"", 1.7724e9, {-1, 2}, {-140, -20}});
    ASSERT_TRUE(parse_spectrum_line(line));
    const auto with = [&](const std::string& what, const std::string& instead) {
        std::string other = line;
        other.replace(other.find(what), what.size(), instead);
        return parse_spectrum_line(other).has_value();
    };
    EXPECT_FALSE(with("spectrum", "status"));
    EXPECT_FALSE(with("2026", "x"));
    EXPECT_FALSE(with("-1.0", "2.0")) << "a band from high to low";
    EXPECT_FALSE(with("\"low_hz\"", "\"low\""));
    EXPECT_FALSE(with("0.6", "null"));
    for (const char* const levels : {"", "AMg", "A===", "AM=g", "A*g="}) EXPECT_FALSE(with("AMg=", levels)) << levels;
    EXPECT_FALSE(parse_spectrum_line("[1]"));
    EXPECT_FALSE(parse_spectrum_line("{"));
}

}  // namespace
