#include "search.h"

#include <fstream>
#include <string_view>

#include "console.h"
#include "liborvel.h"
#include "protocols.h"

namespace {

constexpr std::size_t MAX_KNOWN = 256;  // as the library's own list
constexpr int32_t ALL_PROTOCOLS = OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L;

void add_known(const std::string& option, std::string_view list, std::vector<ovc_known>& known) {
    for (const std::string& call : split_list(list)) {
        if (known.size() == MAX_KNOWN) throw CLI::ValidationError("too many known callsigns (max 256)");
        if (ovc_known_init(call.c_str(), &known.emplace_back()) != 0) {
            throw CLI::ValidationError(
                format("%s: '%s' is not a callsign that a frame can carry", option.c_str(), call.c_str()));
        }
    }
}

// A known-callsign file holds callsigns between blanks, commas and line ends; "#" starts a comment.
void add_known_file(const std::string& path, std::vector<ovc_known>& known) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) add_known("--known-file", line.substr(0, line.find('#')), known);
    if (!file.eof()) throw CLI::ValidationError("--known-file: cannot read '" + path + "'");
}

}  // namespace

void add_search_options(CLI::App& sub, SearchOptions& options, const std::string& center) {
    sub.add_option("--center", options.center_hz, "Centre of the search [" + center + "]")
        ->type_name("HZ")
        ->check(finite_number());
    sub.add_option("--search", options.search_hz, "Half-width of the search [200]")->type_name("HZ")->check(width());
    sub.add_option("--spread", options.spread_hz, "Width over which the energy of a spread signal is summed [0]")
        ->type_name("HZ")
        ->check(width());
    sub.add_option("--protocols", options.protocols, "Comma-separated: opera, orvel-s, orvel-l, all [all]")
        ->type_name("LIST");
    sub.add_option("--known", options.known_list,
                   "Known callsigns, comma-separated: their OPERA frames are also found below the ordinary threshold")
        ->type_name("LIST");
    sub.add_option("--known-file", options.known_file, "File of known callsigns; # starts a comment")
        ->type_name("FILE");
    sub.add_flag("--known-only", options.known_only, "Accept known callsigns only");
}

int32_t protocol_mask(const SearchOptions& options) {
    int32_t mask = 0;
    for (const std::string& name : split_list(options.protocols)) {
        if (name == "all") {
            mask |= ALL_PROTOCOLS;
            continue;
        }
        const Protocol* found = find_protocol(name);
        if (found == nullptr) {
            throw CLI::ValidationError("--protocols: '" + name + "' is not one of " + protocol_names() + ", all");
        }
        mask |= found->id;
    }
    if (mask == 0) throw CLI::ValidationError("--protocols: the list is empty");
    return mask;
}

std::vector<ovc_known> known_callsigns(const SearchOptions& options) {
    std::vector<ovc_known> known;
    add_known("--known", options.known_list, known);
    if (!options.known_file.empty()) add_known_file(options.known_file, known);
    if (options.known_only && known.empty()) {
        throw CLI::ValidationError("--known-only needs known callsigns (--known or --known-file)");
    }
    return known;
}

Band parse_band(const std::string& text) {
    const std::size_t colon = text.find(':');
    const auto low = parse_finite(text.substr(0, colon));
    const auto high = colon == std::string::npos ? std::nullopt : parse_finite(text.substr(colon + 1));
    if (!low || !high || !(*low < *high)) {
        throw CLI::ValidationError("--band: '" + text + "' is not LO:HI with LO below HI");
    }
    return {*low, *high};
}
