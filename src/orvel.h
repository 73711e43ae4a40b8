// Frame layouts of the ORVEL modes: 0 = ORVEL S (a callsign), 1 = ORVEL L (a callsign and a locator).
#pragma once

#include <cstdint>

// Message bits of a mode (44 and 69) and coded bits, one chip pair each (119 and 160). Any nonzero mode counts as L.
int32_t ov_kbits(int32_t mode);
int32_t ov_ncoded(int32_t mode);

// Chips in one frame of a protocol (an OVL_ id), 0 for anything else.
int32_t frame_chips(uint32_t proto);
