#include "subcommands.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/callsign.h"
#include "base/console.h"
#include "base/error.h"
#include "base/json.h"
#include "base/text.h"
#include "exit_status.h"
#include "protocol.h"

namespace {

constexpr std::size_t CHIPS_PER_LINE = 64;  // with the time in front a line fits 80 columns

// The command line, as typed.
struct EncodeOptions {
    std::string protocol;  // "": ORVEL L when there is a locator, else OPERA
    std::string call;
    std::string locator;
    bool draw = false;
    bool json = false;
};

uint32_t chosen_protocol(const EncodeOptions& options) {
    if (options.protocol.empty()) return options.locator.empty() ? OVL_OPERA : OVL_ORVEL_L;
    const ov_protocol* const protocol = ov_protocol_by_option(options.protocol);
    if (protocol == nullptr) {
        throw UsageError("--protocol: '" + options.protocol + "' is not one of " + ov_protocol_options());
    }
    return static_cast<uint32_t>(protocol->id);
}

std::vector<uint8_t> chips_of(uint32_t proto, const EncodeOptions& options) {
    if (proto == OVL_ORVEL_L && options.locator.empty()) {
        throw UsageError("an ORVEL L frame needs a locator");
    }
    if (proto != OVL_ORVEL_L && !options.locator.empty()) {
        throw UsageError(std::string(ovl_proto_name(proto)) + " frames carry no locator");
    }
    if (const std::string problem = callsign_problem(options.call); !problem.empty()) {
        throw UsageError("'" + options.call + "': " + problem);
    }
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(proto)));
    if (ovl_encode(proto, options.call.c_str(), options.locator.c_str(), chips.data(), ovl_frame_chips(proto)) < 0) {
        throw UsageError("'" + options.locator + "': expected a locator of 4 or 6 characters, as JO62 or JO62qm");
    }
    warn_of_doubtful(options.call);
    return chips;
}

std::string chip_text(const std::vector<uint8_t>& chips) {
    std::string text;
    for (const uint8_t chip : chips) text += chip != 0 ? '1' : '0';
    return text;
}

// Whether the terminal can be expected to draw block characters.
bool is_utf8_terminal() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const std::string_view locale(value);
        return locale.find("UTF-8") != std::string_view::npos || locale.find("utf8") != std::string_view::npos;
    }
    return false;
}

void draw_frame(uint32_t proto, const EncodeOptions& options, const std::vector<uint8_t>& chips) {
    const auto count = static_cast<int>(chips.size());
    const auto on = static_cast<int>(std::count(chips.begin(), chips.end(), 1));
    print(format("%s  %s%s%s: %d chips of %.3f s, %.3f s, %d on\n", ovl_proto_name(proto), options.call.c_str(),
                 options.locator.empty() ? "" : " ", options.locator.c_str(), count, ovl_chip_seconds(),
                 count * ovl_chip_seconds(), on));
    const bool blocks = is_utf8_terminal();
    for (std::size_t first = 0; first < chips.size(); first += CHIPS_PER_LINE) {
        std::string line = format("%8.3f s  ", static_cast<double>(first) * ovl_chip_seconds());
        for (std::size_t i = first; i < std::min(first + CHIPS_PER_LINE, chips.size()); i++) {
            line += chips[i] != 0 ? (blocks ? "█" : "#") : (blocks ? "·" : ".");
        }
        print(line + "\n");
    }
}

int encode(const EncodeOptions& options) {
    const uint32_t proto = chosen_protocol(options);
    const std::vector<uint8_t> chips = chips_of(proto, options);
    if (options.json) {
        nlohmann::ordered_json object;
        object["protocol"] = ovl_proto_name(proto);
        object["call"] = options.call;
        object["locator"] = options.locator;
        object["chip_seconds"] = ovl_chip_seconds();
        object["chips"] = chip_text(chips);
        print(json_line(object));
    } else if (options.draw) {
        draw_frame(proto, options, chips);
    } else {
        print(chip_text(chips) + "\n");
    }
    return flush_output() ? EXIT_DONE : EXIT_FAILED;
}

}  // namespace

void add_encode(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("encode", "Show the chips of one frame");
    const auto options = std::make_shared<EncodeOptions>();
    sub->add_option("CALL", options->call, "Callsign")->required();
    sub->add_option("LOCATOR", options->locator, "Grid locator of 4 or 6 characters, for ORVEL L");
    sub->add_option("--protocol", options->protocol, ov_protocol_options() + " [opera, or orvel-l with a locator]")
        ->type_name("NAME");
    CLI::Option* draw = sub->add_flag("--draw", options->draw, "Draw the frame, a block for each chip that is on");
    sub->add_flag("--json", options->json, "Print one JSON object")->excludes(draw);
    sub->footer("Without --draw or --json the chips are printed as one line of 1 (carrier on) and 0.");
    sub->callback([options, &status] { status = encode(*options); });
}
