// What stations and collectors say to each other.
#include <gtest/gtest.h>

#include <string>

#include "network/messages.h"

namespace {

constexpr double NOW = 1.78e9;
const std::string ID = "c6f4c1a2-0000-4000-8000-000000000001";
const std::string EPOCH = "c6f4c1a2-0000-4000-8000-000000000002";
const std::string LINE =
    R"({"id":"c6f4c1a2-0000-4000-8000-000000000001","station":"N0CALL","utc_start":"2026-03-01T12:00:02.13Z",)"
    R"("utc_end":"2026-03-01T12:00:32.72Z","freq_hz":1500.4,"drift_hz_s":0.0,"snr_db":-20.6,"protocol":"OPERA 05",)"
    R"("call":"K2QRX","locator":"","deep":false,"receiver":"lf"})";

std::string with(std::string line, const std::string& old, const std::string& replacement) {
    const std::size_t at = line.find(old);
    EXPECT_NE(at, std::string::npos) << old;
    return line.replace(at, old.size(), replacement);
}

TEST(NetworkMessages, APlacedLineReadsAsItsSpotAndPlace) {
    const SpotMessage message = read_spot_message(placed_line(LINE, {EPOCH, 17, 12}, "JO62QM"), NOW);
    ASSERT_TRUE(message.spot);
    EXPECT_EQ(message.spot->id, ID);
    EXPECT_EQ(message.spot->station, "N0CALL");
    EXPECT_EQ(message.spot->station_locator, "JO62QM");
    EXPECT_EQ(message.spot->spot.call, "K2QRX");
    EXPECT_EQ(message.spot->spot.receiver, "lf");
    EXPECT_EQ(message.place, (Place{EPOCH, 17, 12}));
}

TEST(NetworkMessages, ALineOfAStationThatWaitsForNobodyHasNoPlace) {
    const SpotMessage message = read_spot_message(LINE, NOW);
    EXPECT_TRUE(message.spot);
    EXPECT_FALSE(message.place);
}

// The collector passes over what is no spot, or it would wait for it for ever.
TEST(NetworkMessages, WhatIsNoSpotMayStillHaveAPlace) {
    const std::string placed = placed_line(LINE, {EPOCH, 17, 12}, "JO62");
    const auto refused = [&](const std::string& old, const std::string& replacement) {
        const SpotMessage message = read_spot_message(with(placed, old, replacement), NOW);
        EXPECT_FALSE(message.spot) << replacement;
        EXPECT_EQ(message.place, (Place{EPOCH, 17, 12})) << replacement;
    };
    refused(ID, "1");
    refused("K2QRX", "");
    refused("K2QRX", "K2 QRX");
    refused("K2QRX", R"(K2\u0000X)");
    refused("K2QRX", std::string(17, 'K'));
    refused("N0CALL", std::string(65, 'N'));
    refused("JO62", "JO6");
    refused("JO62", "SO62");
    refused(R"("locator":"")", R"("locator":"JO62YM")");
    refused("2026-03-01T12:00:02", "1999-03-01T12:00:02");
    refused("2026-03-01T12:00:32", "2026-03-01T13:00:32");
    refused("2026-03-01T12:00:32", "2026-03-01T11:00:32");
    EXPECT_FALSE(read_spot_message(LINE, 1.7e9).spot) << "of the future";
}

TEST(NetworkMessages, APlaceThatMakesNoSenseIsNone) {
    const std::string placed = placed_line(LINE, {EPOCH, 17, 12}, "JO62");
    for (const auto& [old, replacement] :
         {std::pair{R"("after":12)", R"("after":17)"}, std::pair{R"("after":12)", R"("after":-1)"},
          std::pair{R"("number":17)", R"("number":1e3)"},
          std::pair{R"("number":17)", R"("number":18446744073709551615)"},
          std::pair{R"("epoch":"c6)", R"("epoch":"C6)"}, std::pair{R"("epoch":"c6)", R"("epoch":"6)"}}) {
        EXPECT_FALSE(read_spot_message(with(placed, old, replacement), NOW).place) << replacement;
    }
}

TEST(NetworkMessages, AnyTextIsReadWithoutHarm) {
    for (const std::string text : {"", "{", "[]", "null", "\xff\xfe", "{\"number\":1}", "17"}) {
        const SpotMessage message = read_spot_message(text, NOW);
        EXPECT_FALSE(message.spot || message.place) << text;
        EXPECT_FALSE(read_mark(text)) << text;
    }
    EXPECT_FALSE(read_mark(std::string(5000, '[')));
}

TEST(NetworkMessages, AMarkReadsAsItWasWritten) {
    const Mark mark{EPOCH, 250, ID, 3};
    EXPECT_EQ(read_mark(mark_line(mark)), mark);
    EXPECT_FALSE(read_mark(with(mark_line(mark), EPOCH, "x")));
    EXPECT_FALSE(read_mark(with(mark_line(mark), "250", "-250")));
}

TEST(NetworkMessages, NamesArePrintableAndShort) {
    EXPECT_TRUE(is_name("DL1QXA-4"));
    EXPECT_TRUE(is_name(std::string(64, 'x')));
    for (const std::string& name : {std::string(), std::string("a b"), std::string("\xc3\xa4"), std::string(65, 'x')}) {
        EXPECT_FALSE(is_name(name)) << name;
    }
}

}  // namespace
