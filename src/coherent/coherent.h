// The coherent search: frames below what the chips' energies alone can show, found by the phase that their carrier
// keeps from chip to chip.
//
//     baseband → even noise (whiten) → places (search) → words (frames, by strip, tracker, code) → acceptance
//          ↑                                                                                    │
//          └───────────────── what was found is taken out (subtraction) ←───────────────────────┘
//
// It runs after another decode of the same block, looks beside what that found and knows nothing of how it was found.
// No state; separate calls may run in separate threads.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "ovpipe.h"

// Audio, or I/Q when q is not null.
struct ov_block {
    const double *x, *q;
    int32_t n;     // samples
    int32_t rate;  // Hz
};

// How far to go.
struct ov_coherent {
    int32_t places;   // examined for each length of frames and pass
    int32_t passes;   // over a block from which what was found has been taken out, at most
    int32_t threads;  // 1 or 2
    int32_t known;    // nonzero: also for the known callsigns, further down

    // For measurements, or null: raised to the highest fit of any word, its log likelihood against noise less the
    // logarithm of the number of words; and of any known one, its log likelihood. One thread only.
    double* highest_fit = nullptr;
    double* highest_known_fit = nullptr;
};

void ov_coherent_default(ov_coherent& settings);

// Further values of `deep` of a spot: by this search, by the one for known callsigns.
inline constexpr int32_t OV_COHERENT = 2;
inline constexpr int32_t OV_COHERENT_KNOWN = 3;

// A frame that the search found.
struct ov_coherent_spot {
    ov_spot spot;
    double odds;  // natural logarithm of the odds that it was sent so
};

// Finds what `found` lacks, in order of start time. A block that cannot be searched has nothing. Throws std::bad_alloc.
//
//   params   protocols, band, limits of start and end, drift (no more than some 0.06 Hz/s is searched)
//
// A block of more than two minutes is searched in stretches, each with so many places and passes.
std::vector<ov_coherent_spot> ov_decode_coherent(const ov_block& block, const ov_params& params,
                                                 const ov_coherent& settings, std::span<const ov_spot> found);

// The same, added to the `n` spots found and in their order, as far as there is room. What it cannot do for lack of
// memory or threads is left out.
//
//   odds   of each spot, filled for those that are added
int32_t ov_add_coherent(const ov_block& block, const ov_params& params, const ov_coherent& settings,
                        std::span<ov_spot> spots, std::span<double> odds, int32_t n) noexcept;

// Takes the frame of a spot out of a baseband that holds it, as the coherent search does. Nothing happens where the
// baseband does not reach, or when the spot is no frame.
void ov_take_out(ov_baseband& baseband, const ov_spot& spot);
