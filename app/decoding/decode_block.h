// One block of samples decoded.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "decoding/search.h"
#include "ovbb.h"
#include "spots/found.h"

inline constexpr int32_t MAX_TILES = 1000;  // of a wide search, in a block

inline double minutes_begun(double seconds) {
    return std::max(1.0, std::ceil(seconds / 60));
}

// Audio, or I/Q when q is not empty.
struct Block {
    std::span<const double> x, q;
    int32_t rate;  // Hz

    double seconds() const { return static_cast<double>(x.size()) / rate; }
    double minutes() const { return minutes_begun(seconds()); }
};

// Finds the frames in a block, in order of time; times are seconds from its first sample. More candidates are examined
// than the library's own entry does: a strong frame brings a dozen more to its sides, and three such frames use up 30
// per minute. Nothing when the decoder refuses the block: it is too short, the search band does not fit it, or memory
// is short. Throws std::bad_alloc. Any thread. The coherent search, where it is asked for, adds to what the others
// find.
//
//   end_max   latest end of a frame, s; negative = no limit
std::optional<std::vector<Found>> decode_block(const Block& block, const Search& search, double end_max = -1);

struct Band {
    double center_hz, half_hz;
};

// Decodes some bands of a block, at least one, as decode_block() does; what is found is taken out and the rest searched
// again, so that weaker stations beside show.
//
//   shares   that the false-alarm probability of the deep search is divided into
std::optional<std::vector<Found>> decode_bands(const Block& block, const Search& search, std::span<const Band> bands,
                                               std::size_t shares, double end_max = -1);

// The same for a baseband around something keyed, whose frames it loses: one protocol after the other until a frame is
// found, for its shadows would take the other protocols ten times as long as the frame.
//
//   baseband   at keyed_rate()
//   is_keyed   whether a baseband from which all frames were taken out is worth another search
std::optional<std::vector<Found>> decode_keyed(ov_baseband& baseband, const Search& search, const Band& band,
                                               const std::function<bool(const ov_baseband&)>& is_keyed,
                                               std::size_t shares);
// Throws UsageError when that is too wide.
int32_t keyed_rate(const Search& search, double half_hz);
