#include "decoding/decode_block.h"

#include <algorithm>
#include <cmath>

#include "decoding/coherent_block.h"

namespace {

constexpr double CANDIDATES_PER_MINUTE = 120;
constexpr double SPOTS_PER_MINUTE = 64;  // as the library reports from a block
constexpr double MOST = 1e6;             // of either

}  // namespace

std::optional<std::vector<Found>> decode_block(const Block& block, const Search& search, double end_max) {
    ov_params params = decode_params(search, block.rate);
    params.end_max = end_max;
    params.max_cands = static_cast<int32_t>(std::min(CANDIDATES_PER_MINUTE * block.minutes(), MOST));
    const double room = SPOTS_PER_MINUTE * block.minutes() + (search.wide ? MAX_TILES : 0);
    std::vector<ov_spot> spots(static_cast<std::size_t>(std::min(room, MOST)));

    const double* const q = block.q.empty() ? nullptr : block.q.data();
    const auto n = static_cast<int32_t>(block.x.size());
    const auto most = static_cast<int32_t>(spots.size());
    int32_t count = 0;
    if (search.wide) {
        count = ov_decode_wide(block.x.data(), q, n, block.rate, params, search.scan_z, MAX_TILES, spots.data(), most);
    } else if (q != nullptr) {
        count = ov_decode_iq(block.x.data(), q, n, block.rate, params, spots.data(), most);
    } else {
        count = ov_decode_real(block.x.data(), n, block.rate, params, spots.data(), most);
    }
    if (count < 0) return std::nullopt;
    spots.resize(static_cast<std::size_t>(count));
    std::vector<Found> found;
    found.reserve(spots.size());
    for (const ov_spot& spot : spots) found.push_back({spot});
    if (search.coherent) add_coherent(block, search, params, found);
    return found;
}
