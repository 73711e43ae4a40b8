// Decode pipeline: from a block of samples to decoded frames.
//
//     samples → baseband → score map → candidates → refined hypotheses → frames → spots
//
// No state; separate calls may run in separate threads.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "ovbb.h"
#include "ovcenc.h"
#include "ovsync.h"

// What steers a decode. Times are seconds from the first sample of the block, frequencies Hz.
struct ov_params {
    double op;                // OPERA speed number: chip = 0.256·op s, frame = 239 chips
    double center_hz;         // centre of the frequency search
    double search_hz;         // its half-width
    double start_min;         // earliest accepted frame start
    double start_max;         // latest accepted frame start, negative = no limit
    double end_min;           // earliest accepted frame end
    double end_max;           // latest accepted frame end, negative = no limit
    double drift_max;         // half-range of the drift search, Hz/s; negative = two map columns over a frame
    double spread_hz;         // width of the spread sum, 0 = off
    double chip_guard;        // fraction of a frame that may lie outside the block
    double z_min;             // candidate threshold, sigma
    int32_t max_cands;        // candidates examined in a block
    int32_t max_frames;       // frames tried for a candidate
    int32_t check_plausible;  // nonzero: callsigns must be plausible
    double twin_min;          // smallest accepted margin to a CRC twin
    double off_max;           // limit for energy in OFF chips, 0 or less = no test
    const ovc_known* known;   // known callsigns, not owned
    int32_t n_known;          // their number
    int32_t known_only;       // nonzero: accept known callsigns only
    int32_t deep_search;      // nonzero: search for known callsigns below the threshold
    double deep_pfa;          // false-alarm probability of that search
    int32_t snr_adjust;       // nonzero: refer the SNR to the mean power over the frame instead of key-down power
    int32_t verbose;          // nonzero: print diagnostics to standard error
    int32_t protocols;        // mask of OVL_ ids
};

void ov_params_default(ov_params& params);

// Whether a block of samples at a rate can be decoded: some baseband can be cut out of it.
bool ov_rate_served(uint32_t rate);

// One decoded frame.
struct ov_spot {
    char call[8];       // callsign without blanks around it
    double t;           // start of the frame, s
    double freq;        // frequency in the block, Hz
    double snr;         // dB in 2500 Hz, -99 when not measured
    double drift;       // Hz/s
    double z;           // strength of the candidate on the score map, sigma
    double score;       // metric of the hypothesis that gave the frame
    int32_t rank;       // OPERA: place of the frame among those tried, from 0, or -1 from the deep search;
                        // ORVEL: decoder stage, 1 = belief propagation, 2 = ordered statistics
    double gap;         // metric of the best frame tried minus this one's
    int32_t shift;      // shift of the frame start from the candidate's, chips
    int32_t chips_ok;   // chips measured
    int32_t deep;       // 1 when the deep search found it
    double contrast;    // ON chips minus OFF chips in units of noise
    int32_t protocol;   // OVL_ id
    char locator[12];   // grid locator (ORVEL L), else empty
    double off_excess;  // OFF chips above noise in units of noise
};

// Decodes a block of n samples (or I/Q pairs) at `rate` Hz into at most max_spots spots, ordered by start time.
// Returns their number, or -1 when no baseband or score map can be made of the block: too short, a sample that is not
// finite, a rate without fitting transform sizes, a search band that is not finite or far wider than the input, or
// memory is short.
int32_t ov_decode_real(const double* x, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                       int32_t max_spots);
int32_t ov_decode_iq(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params, ov_spot* spots,
                     int32_t max_spots);

// Decodes a band far wider than one search: scans it for keyed frequencies and decodes a narrow tile around each. q is
// null for real samples.
//
//   params      center_hz ± search_hz is the whole band; the false-alarm probability of the deep search is divided
//               among the tiles
//   z_scan      least z of a keyed frequency, sigma
//   max_tiles   most frequencies to decode, strongest first
// Returns the number of spots, ordered by start time; a callsign is reported once per half OPERA frame. -1 when the
// scan or the spectrum fails; a tile that cannot be decoded gives no spots.
int32_t ov_decode_wide(const double* i, const double* q, int32_t n, int32_t rate, const ov_params& params,
                       double z_scan, int32_t max_tiles, ov_spot* spots, int32_t max_spots);

// ov_decode_iq for a baseband that was already cut.
int32_t run(const ov_baseband& bb, const ov_params& params, ov_spot* spots, int32_t max_spots);

// The same for one mask of protocols after the other, on one score map, until what one of them found is enough. The
// spots of each are ordered by start time; those of different ones may overlap.
int32_t run_in_turn(const ov_baseband& bb, const ov_params& params, std::span<const int32_t> turns,
                    const std::function<bool(std::span<const ov_spot>)>& is_enough, ov_spot* spots, int32_t max_spots);

// The lowest baseband rate that holds the search band with a margin and 16 samples per chip; nothing when the
// parameters are invalid or would take excessive memory.
std::optional<int32_t> baseband_rate(const ov_params& params, int32_t n, int32_t input_rate);

// Decodes one ORVEL mode (0 = S, 1 = L) on the score map of a run and appends to its n spots; drift_range is the run's
// half-range, Hz/s. Returns the new number of spots.
int32_t run_orvel(const ov_baseband& bb, const ov_specmap& map, const ov_params& params, int32_t mode,
                  double drift_range, ov_spot* spots, int32_t n, int32_t max_spots);

// Copies a 6-character callsign without leading and trailing blanks (out: 7 bytes).
void trim_call(const char* in, char* out);

// Compares a hypothesis with the chips it should show: contrast = (mean ON − mean OFF)/noise, off_excess =
// mean OFF/noise − 1 over the measured chips; both 0 when there are no ON or no OFF chips among them.
void frame_consistency(const ov_hyp& hyp, const uint8_t* chips, double& contrast, double& off_excess);
