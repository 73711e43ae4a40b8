// Where in a block something is keyed like a frame, without knowing the pattern.
//
// Over all patterns of L chip pairs the mean of |sum of the ON chips|² is
//     |sum of all 2L chips|²/4 + Σ |second chip − first chip|²/4,
// a power in which the carrier is summed coherently over L pairs. A map holds it for segments that begin at any quarter
// of a chip, for frequencies closer than their width; sums over the segments of a frame, along straight drifts, are the
// statistic. Places are its peaks, in sigma above the median of all.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "coherent/whiten.h"

namespace coherent {

// A place where a frame may be. Frequencies are offsets in Hz from the baseband's centre.
struct Place {
    double start_s;  // start of the frame
    double f;        // in the middle of the frame
    double drift;    // Hz/s
    double z;        // sigma above the median of the map
};

// Whether the frames of two places would be one.
bool is_near(const Place& a, const Place& b, double chip_s);

struct SearchRange {
    double half_width;   // Hz, each side of the centre
    double drift;        // Hz/s, each side
    double guard;        // fraction of a frame that may lie outside the block
    double start_first;  // s, limits of the start
    double start_last;
};

// Powers of segments.
struct SegmentMap {
    int32_t pairs;  // of a segment, L
    int32_t hop;    // samples between rows
    int32_t rows;
    int32_t columns;  // of frequencies −half … half
    double column_hz;
    std::vector<float> power;

    std::span<const float> row(int32_t r) const {
        return std::span(power).subspan(static_cast<std::size_t>(r) * static_cast<std::size_t>(columns),
                                        static_cast<std::size_t>(columns));
    }
};

// The map of segments of that many pairs; nothing or std::bad_alloc when memory is short. The columns reach
// `half_width` and one frame's drift beyond.
std::optional<SegmentMap> segment_map(const Whitened& block, int32_t pairs, double half_width);

// The strongest places of frames with that many pairs, of at least that z, strongest first, each the only one within a
// few chips and hertz.
std::vector<Place> find_places(const Whitened& block, const SegmentMap& map, int32_t frame_pairs,
                               const SearchRange& range, std::size_t most, double least_z = 3);

}  // namespace coherent
