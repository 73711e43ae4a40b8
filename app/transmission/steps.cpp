#include "transmission/steps.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <new>
#include <string_view>

#include "base/callsign.h"
#include "base/error.h"
#include "base/frame_text.h"

namespace {

constexpr std::size_t MAX_STEPS = 64;

[[noreturn]] void refuse(const std::string& text, const std::string& reason) {
    throw UsageError("'" + text + "': " + reason);
}

double parse_seconds(const std::string& step, std::string_view text) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(seconds)) {
        refuse(step, "expected seconds after the '='");
    }
    return seconds;
}

}  // namespace

ovl_tx_step parse_step(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) refuse(text, "a step is NAME=VALUE");
    const std::string name = text.substr(0, equals);
    const std::string_view value = std::string_view(text).substr(equals + 1);

    ovl_tx_step step{};
    if (name == "carrier" || name == "pause") {
        step.kind = name == "carrier" ? OVL_TX_CARRIER : OVL_TX_PAUSE;
        step.seconds = parse_seconds(text, value);
        return step;
    }
    const ov_protocol* const protocol = ov_protocol_by_option(name);
    if (protocol == nullptr) refuse(text, "a step is one of " + ov_protocol_options() + ", carrier, pause");
    const FrameText frame = parse_frame(text, *protocol, value);
    warn_of_doubtful(frame.call);
    step.kind = OVL_TX_FRAME;
    step.protocol = protocol->id;
    frame.call.copy(step.call, sizeof step.call - 1);
    frame.locator.copy(step.locator, sizeof step.locator - 1);
    return step;
}

void start_transmitter(ovl_transmitter* tx, const Transmission& transmission) {
    if (transmission.steps.size() > MAX_STEPS) throw UsageError("too many steps (max 64)");
    std::vector<ovl_tx_step> steps;
    std::transform(transmission.steps.begin(), transmission.steps.end(), std::back_inserter(steps), parse_step);
    const ovl_tx_settings settings = {transmission.rate, transmission.tone_hz, transmission.level, transmission.ramp_s};
    if (ovl_tx_start(tx, &settings, steps.data(), static_cast<int32_t>(steps.size())) == 0) return;
    std::string reason = ovl_tx_last_error(tx);
    while (reason.ends_with(' ')) reason.pop_back();  // where there is no locator
    if (reason == "out of memory") throw std::bad_alloc();
    throw UsageError(reason);
}

TransmitterPtr make_transmitter() {
    TransmitterPtr tx(ovl_tx_create());
    if (!tx) throw std::bad_alloc();
    return tx;
}

double total_seconds(const ovl_transmitter* tx) {
    ovl_tx_progress progress;
    ovl_tx_status(tx, &progress);
    return progress.total_s;
}
