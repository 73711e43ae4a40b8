// What our programs look for, as the decoder takes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/parse.h"
#include "ovpipe.h"
#include "protocol.h"

inline constexpr double DEFAULT_SCAN_Z = 6;  // noise alone seldom reaches it

struct Search {
    bool iq = false;                  // the samples are I/Q, frequencies count from the receiver's centre
    std::optional<double> center_hz;  // 1500 of audio, 0 of I/Q
    double search_hz = 200;           // half-width
    double spread_hz = 0;
    int32_t protocols = OV_ALL_PROTOCOLS;
    std::vector<ovc_known> known;
    bool known_only = false;
    bool wide = false;          // the whole band of the samples instead, or `band`
    std::optional<Range> band;  // Hz
    double scan_z = DEFAULT_SCAN_Z;
    bool coherent = false;  // also look for what only its carrier's phase gives away
    bool verbose = false;
};

// A mask of protocols, given by their option names between commas and blanks, or "all". Throws UsageError, whose text
// begins with `where`, here and in the next two.
int32_t parse_protocols(const std::string& where, std::string_view list);

// Adds the callsigns between commas, blanks and line ends, 256 in all.
void add_known(const std::string& where, std::string_view list, std::vector<ovc_known>& known);

// The same with those of a file, in which "#" starts a comment.
void add_known_file(const std::string& where, const std::string& path, std::vector<ovc_known>& known);

// The band that samples of a rate hold, Hz.
Range whole_band(bool iq, int32_t rate);

// The centre of a search that is not wide, Hz.
double center_of(const Search& search);

// Throws IoError when samples of a rate hold nothing of the search: its centre, or all of a wide one's band, lies
// outside theirs. `what` names them.
void require_within(const std::string& what, const Search& search, int32_t rate);

// The decoder's parameters but for the band ; they point into `search`.
ov_params decode_params(const Search& search);
