// The colours of a waterfall.
#pragma once

#include <cstdint>

// 0xRRGGBB of a value from 0 (dark) to 1 (bright), clamped: viridis, by Stéfan van der Walt and Nathaniel Smith (2015,
// released under CC0). Equal steps look equal, also in grey and to the colour-blind.
uint32_t viridis(double value);
