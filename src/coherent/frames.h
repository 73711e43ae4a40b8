// From a place where something is keyed to the frame that was sent there, if one was.
//
// The best word of each start near the place is found; the best of all is measured again with its own pattern known,
// and decoded again. What is accepted, and how surely, is for acceptance.h.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "coherent/code.h"
#include "coherent/search.h"
#include "coherent/strip.h"

namespace coherent {

// A frame that was read, and what speaks for it and against it. Logarithms are natural.
struct Frame {
    const AffineCode* code;
    Word word;
    Message message;
    Hypothesis at;
    float amplitude;                   // of the carrier, in noise amplitudes of a chip
    std::size_t walk;                  // of its phase, index of WALKS
    double likelihood;                 // of the word, against noise
    double evidence;                   // of being keyed in any pattern, against noise
    double doubt;                      // log odds of all other words at this start against this one
    double rival;                      // likelihood of the best other word at other starts
    double measured;                   // share of its chips that lie in the block
    double off, on;                    // mean energy of OFF and ON chips above noise, in noise energies
    double off_sigma;                  // of `off` in noise
    double off_segments, on_segments;  // the same for coherent sums over eight chips
};

// The best frame near a place; nothing when none of the codes, which have frames of the same length, has a word there.
std::optional<Frame> read_frame(const Whitened& block, const Place& place, std::span<const AffineCode* const> codes);

// The highest evidence of being keyed in any pattern for all starts of frames of any protocol that overlap this one, at
// its frequency: what another protocol sends is keyed in another place or for another time.
double evidence_around(const Whitened& block, const Frame& frame);

// The frame of a word that is known, measured from where it is thought to be. Its rival is the best other word at the
// same start.
Frame read_known(const Whitened& block, const Hypothesis& at, const AffineCode& code, const Word& word,
                 const Message& message);

}  // namespace coherent
