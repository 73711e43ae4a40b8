// The table of protocols against the coders, and the look-ups in it.
#include "protocol.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

#include "orvel.h"
#include "ovcenc.h"

namespace {

TEST(Protocols, HaveTheIdsAndNamesOfTheInterface) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        EXPECT_STREQ(ovl_proto_name(static_cast<uint32_t>(protocol.id)), protocol.name);
        EXPECT_EQ(ovl_frame_chips(static_cast<uint32_t>(protocol.id)), protocol.chips());
    }
    EXPECT_EQ(OV_ALL_PROTOCOLS, OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L);
}

TEST(Protocols, AreFoundByIdOptionAndMode) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        EXPECT_EQ(ov_protocol_by_id(static_cast<uint32_t>(protocol.id)), &protocol);
        EXPECT_EQ(ov_protocol_by_option(protocol.option), &protocol);
        EXPECT_EQ(ov_protocol_by_option(protocol.name), &protocol);
        if (protocol.mode != OV_NO_MODE) {
            EXPECT_EQ(&ov_protocol_by_mode(protocol.mode), &protocol);
        }
    }
    for (const uint32_t id : {0U, 3U, 5U, 6U, 7U, 8U, 0x80000001U}) EXPECT_EQ(ov_protocol_by_id(id), nullptr) << id;
    EXPECT_EQ(ov_protocol_by_option("Orvel-S"), ov_protocol_by_id(OVL_ORVEL_S));
    for (const char* option : {"", "opera ", "orvel", "Classic"}) {
        EXPECT_EQ(ov_protocol_by_option(option), nullptr) << option;
    }
    EXPECT_EQ(ov_protocol_by_mode(2).id, OVL_ORVEL_L);
    EXPECT_EQ(ov_protocol_by_mode(OV_NO_MODE).id, OVL_ORVEL_L);
    EXPECT_EQ(ov_protocol_options(), "opera, orvel-s, orvel-l");
}

TEST(Protocols, FramesAreWhatTheirCodersMakeAndHoldTheStatedShareOfOnChips) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        std::vector<uint8_t> frame(static_cast<std::size_t>(protocol.chips()), 7);
        std::vector<uint8_t> expected(frame.size(), 8);
        ASSERT_EQ(encode_frame(protocol, "OH2XYZ", "KP20", frame.data()), 0) << protocol.name;
        ASSERT_EQ(protocol.mode == OV_NO_MODE ? ovc_encode("OH2XYZ", expected.data(), nullptr)
                                              : ov_encode(protocol.mode, "OH2XYZ", "KP20", expected.data()),
                  0);
        EXPECT_EQ(frame, expected);
        const double on = std::accumulate(frame.begin(), frame.end(), 0);
        EXPECT_DOUBLE_EQ(protocol.on_share_db, 10 * std::log10(on / protocol.chips())) << protocol.name;
    }
}

TEST(Protocols, SharesOfOnChipsAreTheSameToTheLastBit) {
    EXPECT_EQ(ov_protocol_by_id(OVL_OPERA)->on_share_db, -0x1.7eff504014c34p+1);
    EXPECT_EQ(ov_protocol_by_mode(0).on_share_db, -0x1.7eff504014c35p+1);
    EXPECT_EQ(ov_protocol_by_mode(1).on_share_db, -0x1.7f96ddaf93339p+1);
}

TEST(Protocols, RefusedFramesLeaveTheChipsAlone) {
    const std::vector<uint8_t> before(OV_MAX_CHIPS, 7);
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        std::vector<uint8_t> frame = before;
        EXPECT_EQ(encode_frame(protocol, "OH2/XYZ", "KP20", frame.data()), -1);
        EXPECT_EQ(frame, before);
        const bool wants_locator = protocol.id == OVL_ORVEL_L;
        for (const char* locator : {static_cast<const char*>(nullptr), ""}) {
            frame = before;
            EXPECT_EQ(encode_frame(protocol, "OH2XYZ", locator, frame.data()), wants_locator ? -1 : 0);
            EXPECT_EQ(frame == before, wants_locator);
        }
    }
}

TEST(Protocols, TheLongestFrameIsThatOfOrvelL) {
    EXPECT_EQ(OV_MAX_PAIRS, 160);
    EXPECT_EQ(OV_MAX_CHIPS, 321);
}

}  // namespace
