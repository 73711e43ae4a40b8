#include "base/frame_text.h"

#include "base/callsign.h"
#include "base/error.h"

namespace {

constexpr std::size_t MOST_OF_LOCATOR = 7;

bool fits(std::string_view text, std::size_t most) {
    return !text.empty() && text.size() <= most;
}

}  // namespace

FrameText parse_frame(const std::string& text, const ov_protocol& protocol, std::string_view value) {
    const auto refuse = [&](const std::string& reason) { throw UsageError("'" + text + "': " + reason); };
    const std::size_t comma = value.find(',');
    FrameText frame{&protocol, std::string(value.substr(0, comma)), ""};
    if (const std::string problem = callsign_problem(frame.call); !problem.empty()) refuse(problem);
    if (protocol.id == OVL_ORVEL_L) {
        if (comma == std::string_view::npos) refuse("an ORVEL L frame needs a locator: orvel-l=CALL,LOCATOR");
        frame.locator = value.substr(comma + 1);
        if (!fits(frame.locator, MOST_OF_LOCATOR)) refuse("expected a locator of 4 or 6 characters");
    } else if (comma != std::string_view::npos) {
        refuse(std::string(protocol.name) + " frames carry no locator");
    }
    return frame;
}
