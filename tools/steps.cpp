#include "steps.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <new>
#include <string_view>

#include "console.h"
#include "protocols.h"

namespace {

constexpr std::size_t MAX_STEPS = 64;

[[noreturn]] void refuse(const std::string& text, const std::string& reason) {
    throw CLI::ValidationError("'" + text + "': " + reason);
}

// Copies a text into a field of a step, which must hold all of it.
template <std::size_t Size>
bool fill(char (&field)[Size], std::string_view text) {
    if (text.empty() || text.size() >= Size) return false;
    std::copy(text.begin(), text.end(), field);
    return true;
}

double parse_seconds(const std::string& step, std::string_view text) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(seconds)) {
        refuse(step, "seconds expected behind the '='");
    }
    return seconds;
}

}  // namespace

void add_step_options(CLI::App& sub, StepOptions& options) {
    sub.add_option("STEP", options.steps, "What to send, one step after another")->required();
    sub.add_option("--rate", options.rate, "Sample rate, 8000 to 384000 [48000]")->type_name("HZ");
    sub.add_option("--tone", options.tone_hz, "Frequency of the carrier [1500]")
        ->type_name("HZ")
        ->check(finite_number());
    sub.add_option("--level", options.level, "Peak amplitude, above 0, at most 1 [0.5]")
        ->type_name("LEVEL")
        ->check(finite_number());
    sub.add_option("--ramp", options.ramp_s, "Length of a key transition, 0 to 0.05 [0.005]")
        ->type_name("SECONDS")
        ->check(finite_number());
}

std::string step_help() {
    return "Steps, up to 64 of them:\n"
           "  opera=CALL            an OPERA frame\n"
           "  orvel-s=CALL          an ORVEL S frame\n"
           "  orvel-l=CALL,LOCATOR  an ORVEL L frame\n"
           "  carrier=SECONDS       a steady carrier, 0.05 to 3600 s\n"
           "  pause=SECONDS         silence";
}

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
    const Protocol* protocol = find_protocol(name);
    if (protocol == nullptr) refuse(text, "a step is one of " + protocol_names() + ", carrier, pause");
    step.kind = OVL_TX_FRAME;
    step.protocol = protocol->id;
    const std::size_t comma = value.find(',');
    if (!fill(step.call, value.substr(0, comma))) refuse(text, "a callsign of 1 to 15 characters expected");
    if (protocol->id == OVL_ORVEL_L) {
        if (comma == std::string_view::npos) refuse(text, "an ORVEL L frame needs a locator: orvel-l=CALL,LOCATOR");
        if (!fill(step.locator, value.substr(comma + 1))) refuse(text, "a locator of 4 or 6 characters expected");
    } else if (comma != std::string_view::npos) {
        refuse(text, std::string(ovl_proto_name(static_cast<uint32_t>(protocol->id))) + " frames carry no locator");
    }
    return step;
}

void start_transmitter(ovl_transmitter* tx, const StepOptions& options) {
    if (options.steps.size() > MAX_STEPS) throw CLI::ValidationError("too many steps (max 64)");
    std::vector<ovl_tx_step> steps;
    std::transform(options.steps.begin(), options.steps.end(), std::back_inserter(steps), parse_step);
    const ovl_tx_settings settings = {options.rate, options.tone_hz, options.level, options.ramp_s};
    if (ovl_tx_start(tx, &settings, steps.data(), static_cast<int32_t>(steps.size())) == 0) return;
    std::string reason = ovl_tx_last_error(tx);
    while (reason.ends_with(' ')) reason.pop_back();  // of a locator that is not there
    if (reason == "out of memory") throw std::bad_alloc();
    throw CLI::ValidationError(reason);
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
