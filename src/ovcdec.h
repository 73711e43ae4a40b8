// OPERA frame decision: which message do the 119 soft bits of a frame carry?
//
// Every Walsh group is scored separately; the best rows of all groups and their cheapest variations make a ranked list
// of frames, each checked against CRC and callsign packing. How far an accepted frame lies from its nearest CRC twin
// (another valid frame a few groups away) shows how safe the decision is.
//
// Soft bits are OVC_PAIRS floats in order of transmission, positive for a 1. Pair 17·j + g carries position j of group
// g. Soft bits that are not finite list no frames. Pure functions, any thread.
#pragma once

#include <array>
#include <cstdint>

#include "ovcenc.h"

// A frame hypothesis: one Walsh row for each group.
struct ovc_frame {
    double metric;             // sum of the rows' group metrics
    double deficit;            // metric of the best frame minus this one's, never negative
    uint8_t rows[OVC_GROUPS];  // chosen row of each group
};

// What ovc_decode_soft did.
struct ovc_soft_info {
    int32_t tried;   // frames checked
    int32_t index;   // rank of the accepted frame, -1 when none was
    double metric;   // of the accepted frame, else of the best one
    double deficit;  // of the accepted frame, else 0
};

// Where every search for the greatest metric begins.
inline constexpr double OVC_NO_METRIC = -1e300;

// More frames than this are never listed: the best, 108 single changes, 120 pairs and 56 triples of the cheapest.
inline constexpr int32_t OVC_MAX_LISTED = 1 + 108 + 120 + 56;

// Rows that a group may take: the four leading zero bits of every message leave group 0 only row 7 and group 1 only
// rows 0 to 3.
struct ovc_row_range {
    int32_t first, last;
};
constexpr ovc_row_range ovc_allowed_rows(int32_t group) {
    return group == 0 ? ovc_row_range{7, 7} : group == 1 ? ovc_row_range{0, 3} : ovc_row_range{0, 7};
}

// Correlation of group g with each of the 8 Walsh rows.
void group_metrics(const float* soft, int32_t g, double* out);

// Metric of the best frame, whether or not it passes the checks.
double ovc_frame_metric(const float* soft);

// Lists up to maxn frames, best first; returns their number.
int32_t ovc_list_frames(const float* soft, int32_t maxn, ovc_frame* out);

// Accepts a frame whose message is valid and gives its normalised callsign (7 bytes) and packed value; -1 otherwise,
// the outputs possibly written.
int ovc_check_frame(const ovc_frame* frame, char* call, uint32_t* value);

// Lists up to max(1, maxn) frames and takes the first that checks: 0, or -1 when none does or memory is short.
// info may be null and is left alone when memory is short.
int ovc_decode_soft(const float* soft, int32_t maxn, char* call, uint32_t* value, ovc_soft_info* info);

// 1 when a normalised callsign looks like one that an administration could issue, 0 when not. A filter against
// chance decodes, narrower than what the frame can carry.
int ov_call_plausible(const char* call);

// How far the metric of an accepted frame exceeds that of its nearest CRC twin; 1e30 when it has no twin.
//
//   plausible   nonzero: twins with implausible callsigns do not count
//   twin_call   7 bytes for the twin's callsign ("" when there is none), or null
double ovc_twin_margin(const float* soft, const ovc_frame* frame, int32_t plausible, char* twin_call);
