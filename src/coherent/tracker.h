// Likelihoods of keyed chips whose carrier keeps its phase from chip to chip, more or less.
//
// The phase is one of 24 and takes a random walk from pair to pair. Forward and backward sums over all of its paths (a
// hidden Markov model) give the likelihood of any pattern, of no pattern in particular, and soft bits. All likelihoods
// are relative to noise alone, in natural logarithms. Nothing is stored in common; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "coherent/code.h"
#include "coherent/strip.h"

namespace coherent {

inline constexpr std::size_t PHASES = 24;

// Standard deviations of the walk, rad per chip pair: from a good oscillator to a path that flutters.
inline constexpr std::array WALKS = {0.03f, 0.1f, 0.3f, 0.8f};

// Likelihood ratios of the chips of a frame, for every phase.
class PhaseTable {
  public:
    // amplitude: of the carrier, in units of the noise amplitude of a chip.
    PhaseTable(std::span<const ChipSum> chips, float amplitude);

    std::size_t pairs() const { return pairs_; }

    // Log likelihood when any pattern is as likely as any other.
    double evidence(std::size_t walk) const;

    // The same, and the log likelihood ratios of the bits, positive for a 1.
    double soft_bits(std::size_t walk, std::span<float> soft) const;

    // Log likelihood of one pattern.
    double likelihood(std::size_t walk, const Word& word) const;

  private:
    using Row = std::array<float, PHASES>;

    std::size_t pairs_;
    double log_scale_ = 0;                // what the rows were divided by
    std::array<Row, OV_MAX_CHIPS> rows_;  // of the chips
};

}  // namespace coherent
