// The stations of a simulated recording as text: a single one, or a file of them; and the truth about them.
#pragma once

#include <string>
#include <vector>

#include "simulation/scene.h"

// A station as opera=CALL or another frame step, and after it in any order freq=, snr=, start=, drift=, fading=,
// spread= and delay=. Throws UsageError.
SimStation parse_station(const std::string& text, double default_freq_hz);

// The stations of a file: one JSON object per line, or an array of them, with the fields that truth_line writes; the
// callsign is the only one that must be there. Throws UsageError.
std::vector<SimStation> read_stations(const std::string& path, double default_freq_hz);

// A station as one JSON object: call, protocol, locator, t_start, freq_hz, drift_hz_s and snr_db; of one that fades
// also spread_hz and delay_ms.
std::string truth_line(const SimStation& station);
