// The records that synchronisation fills and passes on: score map, candidate, hypothesis.
//
// Frequencies are offsets in Hz from the baseband's centre, times are seconds from its first sample, start positions
// may be negative (a frame that began before the block).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "protocol.h"

// The score map.
struct ov_specmap {
    double chip_s;           // chip length, s
    double rate;             // baseband rate, Hz
    int32_t chip_len;        // samples in a chip, N
    int32_t steps_per_chip;  // map rows in a chip: 16, or N where 16 does not divide N
    int32_t hop;             // samples between rows
    int32_t nfft;            // transform length, N zero-padded 4 times (2 times above N = 512)
    double bin_hz;           // column spacing, Hz
    int32_t nbins;           // columns, 2·half + 1
    int32_t half;            // columns on each side of the centre
    int32_t npos;            // rows
    float* power;            // npos × nbins, row by row, noise has mean 1; owned
    float* noise;            // nbins noise powers by which the columns were divided; owned
    int32_t spread;          // half-width of the spread sum, bins; 0 = off
    double noise_rescale;    // 1
    double spread_factor;    // bins summed in units of unpadded bins; 1 with spread off
    int32_t pairs;           // frame layout: chip pairs,
    int32_t frame_chips;     // chips,
    int32_t pair_mode;       // 0: scored by Walsh groups (OPERA), 1: by Manchester pairs (ORVEL)

    // Start of a row, s, and frequency of a column, Hz.
    double row_s(int32_t r) const { return static_cast<double>(hop) * r / rate; }
    double column_hz(int32_t column) const { return (column - half) * bin_hz; }

    // The powers of one row, which must exist.
    std::span<const float> row(int64_t r) const { return {power + r * nbins, static_cast<std::size_t>(nbins)}; }
};

// A likely frame.
struct ov_cand {
    int32_t pos;   // start, map rows
    int32_t bin;   // map column
    double t;      // start, s
    double f;      // frequency offset, Hz
    double score;  // correlation with the frame structure
    double z;      // the same in sigma above the median of all scores
};

// A measured frame hypothesis.
struct ov_hyp {
    int32_t start;               // first sample of the frame in the baseband
    double f;                    // frequency offset in the middle of the frame, Hz
    double drift;                // Hz/s
    double metric;               // score, higher is better
    double noise;                // noise power at f, on the scale of the energies
    int32_t n_in;                // chips that lie wholly inside the baseband
    double noise_rescale;        // the map's
    double spread_factor;        // the map's
    int32_t nchips;              // chips of the frame
    float energy[OV_MAX_CHIPS];  // chip energies, -1 outside the baseband
    float soft[OV_MAX_PAIRS];    // soft bits of the chip pairs
};
