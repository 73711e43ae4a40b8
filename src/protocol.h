// The protocols: every fact about them that more than one unit needs.
//
// A frame is one leading chip that is ON and then pairs of chips, of which exactly one is ON. Constant data; any
// thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "ascii.h"
#include "liborvel.h"

struct ov_protocol {
    int32_t id;          // OVL_ id
    const char* name;    // as shown to people: "ORVEL S"
    const char* option;  // as typed: "orvel-s"
    const char* label;   // in the diagnostics of a decode
    int32_t mode;        // ORVEL mode, OV_NO_MODE for OPERA
    int32_t pairs;       // chip pairs of a frame
    double on_share_db;  // share of ON chips in a frame, dB

    constexpr int32_t chips() const { return 2 * pairs + 1; }
};

inline constexpr int32_t OV_NO_MODE = -1;

inline constexpr double OV_CHIP_SECONDS = 0.128;  // length of a chip on the air, of all protocols
inline constexpr double OV_CHIP_PER_OP = 0.256;   // the same for each unit of OPERA's speed number

// The shares of OPERA and ORVEL S differ only in the rounding of their last bit, which shows in results.
inline constexpr std::array OV_PROTOCOLS = {
    ov_protocol{OVL_OPERA, "OPERA 05", "opera", "Classic", OV_NO_MODE, 119, -2.9921665490051286},
    ov_protocol{OVL_ORVEL_S, "ORVEL S", "orvel-s", "ORVEL-S", 0, 119, -2.992166549005129},
    ov_protocol{OVL_ORVEL_L, "ORVEL L", "orvel-l", "ORVEL-L", 1, 160, -2.9967915637302238},
};

// Size of the longest frame.
inline constexpr int32_t OV_MAX_PAIRS = std::ranges::max(OV_PROTOCOLS, {}, &ov_protocol::pairs).pairs;
inline constexpr int32_t OV_MAX_CHIPS = 2 * OV_MAX_PAIRS + 1;

// The mask of all protocols.
inline constexpr int32_t OV_ALL_PROTOCOLS = [] {
    int32_t mask = 0;
    for (const ov_protocol& protocol : OV_PROTOCOLS) mask |= protocol.id;
    return mask;
}();

constexpr bool ov_same_text(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, {}, ascii_upper, ascii_upper);
}

// The protocol with that id, that is typed so (its option or its name, in any case), or of that name; null when there
// is none.
constexpr const ov_protocol* ov_protocol_by_id(uint32_t id) {
    const auto found = std::ranges::find(
        OV_PROTOCOLS, id, [](const ov_protocol& protocol) { return static_cast<uint32_t>(protocol.id); });
    return found == OV_PROTOCOLS.end() ? nullptr : &*found;
}
constexpr const ov_protocol* ov_protocol_by_option(std::string_view option) {
    const auto found = std::ranges::find_if(OV_PROTOCOLS, [&](const ov_protocol& protocol) {
        return ov_same_text(option, protocol.option) || ov_same_text(option, protocol.name);
    });
    return found == OV_PROTOCOLS.end() ? nullptr : &*found;
}

constexpr const ov_protocol* ov_protocol_by_name(std::string_view name) {
    const auto found = std::ranges::find(OV_PROTOCOLS, name, &ov_protocol::name);
    return found == OV_PROTOCOLS.end() ? nullptr : &*found;
}

// The protocol of an ORVEL mode: 0 is S, anything else counts as L.
constexpr const ov_protocol& ov_protocol_by_mode(int32_t mode) {
    return *std::ranges::find(OV_PROTOCOLS, mode != 0 ? 1 : 0, &ov_protocol::mode);
}

// "opera, orvel-s, orvel-l"
std::string ov_protocol_options();

// Chips in one frame of a protocol, 0 for an unknown id.
int32_t frame_chips(uint32_t proto);

// Encodes a frame of any protocol.
//
//   call      as typed
//   locator   as typed; ORVEL L needs one, the others ignore it; may be null
//   chips     protocol.chips() bytes, left alone on failure
// Returns 0, or -1 when the callsign or locator is refused.
int encode_frame(const ov_protocol& protocol, const char* call, const char* locator, uint8_t* chips);
