// ORVEL messages: from a callsign (and a locator) to the chips of a frame, and back from measured chip energies.
//
//     callsign, locator → message bits with CRC → whitening → LDPC code word → chips
//     chip energies → soft bits → (LDPC decoder) → message bits → CRC → callsign, locator
//
// Mode 0 is ORVEL S (a callsign, 44 message bits in 119 coded bits), mode 1 is ORVEL L (a callsign and a locator, 69
// in 160); any other mode counts as L without a locator. Bits and chips are one byte each, 0 or 1, first at index 0.
// Functions return 0, or -1 when something is refused, unless stated otherwise. All may run in any thread.
#pragma once

#include <array>
#include <cstdint>

#include "ldpc.h"
#include "protocol.h"

inline constexpr uint32_t OV_MAX_LOC = 18694799;  // RR99XX, the largest packed locator

// Message bits and coded bits of a mode; each coded bit is one chip pair after the leading chip.
int32_t ov_kbits(int32_t mode);
int32_t ov_ncoded(int32_t mode);

// The code of a mode. The first call, from whichever thread, loads both.
const ldpc_code& ov_code(int32_t mode);

// The tables that a code is loaded from, as ldpc_load takes them.
struct ov_code_tables {
    int32_t n, k;
    const uint8_t* check_degree;
    const uint8_t* check_vars;
    const uint64_t* generator;
    const uint8_t* pivot;
};

// Loads the codes of both modes. Tables that do not load mean a broken build: the process ends with a message on
// standard error and exit status 3.
void ov_load_codes(const ov_code_tables& s, const ov_code_tables& l, std::array<ldpc_code, 2>& codes);

// Packs a locator of 4 or 6 characters, in either case, into at most OV_MAX_LOC.
int ov_pack_loc(const char* text, uint32_t* value);

// Unpacks a locator into 4 or 6 characters and NUL; nothing is written for a value above OV_MAX_LOC.
int ov_unpack_loc(uint32_t value, char* text);

// Encodes a frame.
//
//   call      as typed
//   locator   for mode 1 only, otherwise ignored
//   chips     2·ov_ncoded(mode) + 1 bytes, left alone on failure
int ov_encode(int32_t mode, const char* call, const char* locator, uint8_t* chips);

// The ov_ncoded(mode) coded bits of a packed callsign and, in mode 1, a packed locator.
void ov_encode_values(int32_t mode, uint32_t call, uint32_t locator, uint8_t* coded);

// Soft bits of chip pairs by the likelihood of noncoherent detection: the energies of a pair are a known amplitude in
// noise in one chip and noise alone in the other.
//
//   first, second   n energies of the pairs' first and second chips, negative where not measured
//   noise           noise energy of a chip
//   llr             n soft bits, positive for a 1, 0 where not measured
//   method          1: linear in the energies, otherwise the Bessel metric
// Returns the estimated signal amplitude, 0 when no pair was measured.
double ov_llr(const float* first, const float* second, int32_t n, double noise, float* llr, int32_t method);

// Checks the CRC of decoded message bits and unpacks them.
//
//   bits      ov_kbits(mode) bits, still whitened
//   call      7 bytes for the callsign without blanks around it
//   locator   7 bytes for the locator; "" except in mode 1
int ov_check(int32_t mode, const uint8_t* bits, char* call, char* locator);
