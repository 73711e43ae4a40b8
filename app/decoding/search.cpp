#include "decoding/search.h"

#include <algorithm>
#include <fstream>

#include "base/callsign.h"
#include "base/error.h"
#include "base/text.h"
#include "system/files.h"

namespace {

constexpr std::size_t MAX_KNOWN = 256;  // as the library's own list

constexpr double DEFAULT_CENTER_HZ = 1500;

// The items between commas; one that is no protocol may be several between blanks.
std::vector<std::string> protocol_names(std::string_view list) {
    std::vector<std::string> names;
    while (!list.empty()) {
        const std::string item(list.substr(0, list.find(',')));
        list.remove_prefix(std::min(item.size() + 1, list.size()));
        const std::vector<std::string> words = split_list(item);
        std::string joined;
        for (const std::string& word : words) {
            if (!joined.empty()) joined += ' ';
            joined += word;
        }
        if (ov_protocol_by_option(joined) != nullptr) {
            names.push_back(joined);
        } else {
            names.insert(names.end(), words.begin(), words.end());
        }
    }
    return names;
}

}  // namespace

int32_t parse_protocols(const std::string& where, std::string_view list) {
    int32_t mask = 0;
    for (const std::string& name : protocol_names(list)) {
        if (ov_same_text(name, "all")) {
            mask |= OV_ALL_PROTOCOLS;
            continue;
        }
        const ov_protocol* const found = ov_protocol_by_option(name);
        if (found == nullptr) {
            throw UsageError(
                format("%s: '%s' is not one of %s, all", where.c_str(), name.c_str(), ov_protocol_options().c_str()));
        }
        mask |= found->id;
    }
    if (mask == 0) throw UsageError(where + ": the list is empty");
    return mask;
}

void add_known(const std::string& where, std::string_view list, std::vector<ovc_known>& known) {
    for (const std::string& call : split_list(list)) {
        if (known.size() == MAX_KNOWN) throw UsageError("too many known callsigns (max 256)");
        if (const std::string problem = callsign_problem(call); !problem.empty()) {
            throw UsageError(format("%s: '%s': %s", where.c_str(), call.c_str(), problem.c_str()));
        }
        ovc_known_init(call.c_str(), &known.emplace_back());
    }
}

void add_known_file(const std::string& where, const std::string& path, std::vector<ovc_known>& known) {
    std::ifstream file(native_path(path), std::ios::binary);
    std::string line;
    while (std::getline(file, line)) add_known(where, line.substr(0, line.find('#')), known);
    if (!file.eof()) throw UsageError(where + ": cannot read '" + path + "'");
}

Range whole_band(bool iq, int32_t rate) {
    return {iq ? -0.5 * rate : 0.0, 0.5 * rate};
}

double center_of(const Search& search) {
    return search.center_hz.value_or(search.iq ? 0.0 : DEFAULT_CENTER_HZ);
}

void require_within(const std::string& what, const Search& search, int32_t rate) {
    const Range whole = whole_band(search.iq, rate);
    const double center = center_of(search);
    const Range asked = search.wide ? search.band.value_or(whole) : Range{center, center};
    if (asked.high >= whole.low && asked.low <= whole.high) return;
    throw IoError(format("%s holds %g to %g Hz, and nothing at %g Hz", what.c_str(), whole.low, whole.high,
                         search.wide ? 0.5 * (asked.low + asked.high) : center));
}

ov_params decode_params(const Search& search) {
    ov_params params;
    ov_params_default(params);
    params.spread_hz = search.spread_hz;
    params.protocols = search.protocols;
    params.known = search.known.empty() ? nullptr : search.known.data();
    params.n_known = static_cast<int32_t>(search.known.size());
    params.known_only = search.known_only ? 1 : 0;
    params.verbose = search.verbose ? 1 : 0;
    return params;
}
