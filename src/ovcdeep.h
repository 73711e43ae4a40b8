// Deep search: frames of known callsigns, far below the threshold of the ordinary search.
//
// With d_k the power difference of chip pair k and s_k = ±1 the sign that the known frame gives it,
//     Z = (Σ s_k·d_k) / sqrt(Σ d_k²)
// is close to a standard normal variable under noise alone, whatever its level, and grows with the frame. The
// threshold follows from the number of positions tried and the required false-alarm probability.
//
// Working memory is a few map rows for each known callsign, however long the block. No state; any thread.
#pragma once

#include <cstdint>

#include "ovbb.h"
#include "ovcenc.h"
#include "ovsync.h"

// A position where a known frame stands out.
struct ovc_deep_hit {
    int32_t known;   // index of the known callsign
    int32_t pos;     // start, map rows, may be negative
    int32_t column;  // map column
    double t;        // start, s
    double f;        // frequency offset, Hz
    double z;        // the statistic
};

// Z that `trials` independent normal variables exceed with probability pfa (1e-6 where pfa is not positive).
double ovc_deep_threshold(double trials, double pfa);

// Searches a map in OPERA's layout for n_known frames.
//
//   t_min, t_max, search_hz, guard   as t_min, t_max, search_hz and edge of ov_find_candidates
//   pfa                              probability of any false hit in the whole search
//   max_hits, hits                   room for the result, strongest first; one hit for each callsign, half frame and
//                                    three chip bandwidths
//   threshold                        the Z a hit must reach, or null; unwritten when there is nothing to search
// Returns the number of hits, or -1 when memory is short.
int32_t ovc_deep_search(const ov_specmap* map, const ovc_known* known, int32_t n_known, double t_min, double t_max,
                        double search_hz, double guard, double pfa, int32_t max_hits, ovc_deep_hit* hits,
                        double* threshold);

// Measures one hypothesis of a known frame and replaces best if at least min_chips chips were measured and its Z is
// strictly higher. The metric of best is Z; its chip count stays 0.
void try_deep(const ov_baseband& bb, const ov_specmap& map, const ovc_known& known, int32_t start, double f,
              double drift, int32_t min_chips, ov_hyp& best);

// Refines a hit in start, frequency and drift, as ov_refine does a candidate. Returns 0, or -1 with hyp untouched when
// too few chips lie inside the baseband everywhere.
int ovc_deep_refine(const ov_baseband& bb, const ov_specmap* map, const ovc_known* known, const ovc_deep_hit* hit,
                    double drift_range, double guard, ov_hyp& hyp);
