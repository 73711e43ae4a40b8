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

// Takes CALL or CALL,LOCATOR apart. Only the lengths are checked: whether a frame can carry them is the coder's to say.
// Throws UsageError.
//
//   text       all that the user typed, for the error
//   protocol   the one that `value` stood behind
FrameText parse_frame(const std::string& text, const ov_protocol& protocol, std::string_view value);
