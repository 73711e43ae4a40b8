// The power of a recording by time and frequency, as a picture shows it.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "recordings/recording.h"

// The part of a recording that is shown: s from the start of the file, Hz.
struct View {
    double from_s, to_s;
    double low_hz, high_hz;
};

// One value per pixel, the highest frequency in the first row. dB of an arbitrary reference; NaN where there are no
// samples, or nothing but zeros.
struct PowerGrid {
    int32_t columns = 0, rows = 0;
    std::vector<float> db;  // row by row

    float at(int32_t column, int32_t row) const {
        return db[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) + static_cast<std::size_t>(column)];
    }
};

// Length of the spectra for a view, s: long enough to resolve frequencies as far as the keying allows.
inline constexpr double WINDOW_S = 0.256;

// Measures a view with Hann windows of window_s. A column is the mean of as many spectra as it is long, half
// overlapping, or one at its centre; a row is the strongest of the bins that it holds, so that a narrow signal in a
// wide band is not lost, or lies between two bins. Memory is bounded: the recording is read piece by piece. Throws
// IoError when it cannot be read, and std::bad_alloc.
//
//   progress   called with the seconds done
PowerGrid measure_power(Recording& recording, const View& view, int32_t columns, int32_t rows, double window_s,
                        const std::function<void(double)>& progress);

// Levels between which colours run, and the one in the middle of the noise.
struct LevelRange {
    double median_db, low_db, high_db;
};

// A range that a few strong or empty pixels do not move. A grid without numbers gives one around 0.
LevelRange robust_range(const PowerGrid& grid);
