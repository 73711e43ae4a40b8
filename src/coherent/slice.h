// One band of a block: searched for frames, these taken out, and searched again, until nothing more shows.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "coherent/code.h"
#include "coherent/coherent.h"
#include "coherent/known.h"

namespace coherent {

// Protocols whose frames have the same length share a search.
struct Group {
    int32_t pairs;
    std::vector<const AffineCode*> codes;
    std::vector<KnownWord> known;
};

// The groups of the protocols asked for. Protocols of one length compete even where only one of them is.
std::vector<Group> make_groups(const ov_params& params, bool with_known);

inline double frame_length_s(const ov_protocol& protocol) {
    return protocol.chips() * OV_CHIP_SECONDS;
}

// Two frames closer than this share their energy.
inline constexpr double SAME_HZ = 8;

// What a baseband holds besides the frames found before, which are taken out first.
std::vector<ov_coherent_spot> search_slice(const ov_baseband& baseband, double half_width, const ov_params& params,
                                           const ov_coherent& settings, std::span<const Group> groups,
                                           std::span<const ov_spot> found);

}  // namespace coherent
