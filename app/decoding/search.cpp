#include "decoding/search.h"

#include <fstream>

#include "base/error.h"
#include "base/text.h"

namespace {

constexpr std::size_t MAX_KNOWN = 256;  // as the library's own list

}  // namespace

int32_t parse_protocols(const std::string& where, std::string_view list) {
    int32_t mask = 0;
    for (const std::string& name : split_list(list)) {
        if (name == "all") {
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
        if (ovc_known_init(call.c_str(), &known.emplace_back()) != 0) {
            throw UsageError(format("%s: '%s' is not a callsign that a frame can carry", where.c_str(), call.c_str()));
        }
    }
}

void add_known_file(const std::string& where, const std::string& path, std::vector<ovc_known>& known) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) add_known(where, line.substr(0, line.find('#')), known);
    if (!file.eof()) throw UsageError(where + ": cannot read '" + path + "'");
}

Range whole_band(bool iq, int32_t rate) {
    return {iq ? -0.5 * rate : 0.0, 0.5 * rate};
}

ov_params decode_params(const Search& search, int32_t rate) {
    ov_params params;
    ov_params_default(params);
    if (search.wide) {
        const Range band = search.band.value_or(whole_band(search.iq, rate));
        params.center_hz = 0.5 * (band.low + band.high);
        params.search_hz = 0.5 * (band.high - band.low);
    } else {
        params.center_hz = search.center_hz.value_or(search.iq ? 0.0 : params.center_hz);
        params.search_hz = search.search_hz;
    }
    params.spread_hz = search.spread_hz;
    params.protocols = search.protocols;
    params.known = search.known.empty() ? nullptr : search.known.data();
    params.n_known = static_cast<int32_t>(search.known.size());
    params.known_only = search.known_only ? 1 : 0;
    params.verbose = search.verbose ? 1 : 0;
    return params;
}
