// Mixing samples down by a frequency, given as its `turn` in rad per sample.
#pragma once

#include <cstddef>

// e^(−jk·turn) for k = 0 … n − 1.
void turn_table(double turn, std::size_t n, double* re, double* im);

// Multiplies n samples by a table.
void turn_samples(const double* turn_re, const double* turn_im, std::size_t n, double* re, double* im);
