// Frames as a user types them: opera=CALL, orvel-s=CALL or orvel-l=CALL,LOCATOR.
#pragma once

#include <string>
#include <string_view>

#include "protocol.h"

struct FrameText {
    const ov_protocol* protocol;
    std::string call;
    std::string locator;  // "" where the protocol has none
};

// Splits CALL or CALL,LOCATOR. The callsign is one that a frame can carry; of the locator only the length is
// checked. Throws UsageError.
//
//   text       all that the user typed, for the error
//   protocol   the one named before `value`
FrameText parse_frame(const std::string& text, const ov_protocol& protocol, std::string_view value);
