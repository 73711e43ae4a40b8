// One frame of a recording chip by chip: what was measured, and what the frame should show.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "ovpipe.h"
#include "recordings/recording.h"

struct ChipView {
    ov_spot spot;                // t counts from the start of the file
    std::vector<uint8_t> chips;  // decided: the frame re-encoded, 1 = carrier on
    std::vector<double> energy;  // of each chip in units of the mean noise energy; below 0 where not measured
    double threshold = 0;        // between the mean amplitudes of chips on and off, as an energy

    bool measured(std::size_t chip) const { return energy[chip] >= 0; }
    // Chips measured on the wrong side of the threshold for their decision.
    bool wrong(std::size_t chip) const { return measured(chip) && (energy[chip] > threshold) != (chips[chip] != 0); }
    int32_t measured_count() const;
    int32_t wrong_count() const;
};

// Measures the chips of a decoded frame where the spot says it is. The noise is the median of the energies some chip
// bandwidths from the carrier. Nothing when it has no samples there, or memory is short; throws IoError when it cannot
// be read.
std::optional<ChipView> measure_chips(Recording& recording, const ov_spot& spot);
