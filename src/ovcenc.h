// OPERA frames: from a callsign to the 239 chips of a frame, and the callsign codec that all protocols share.
//
//     callsign text → normalised callsign → 28-bit number → 51-bit vector → 17 Walsh words → interleave → chips
//
// A normalised callsign has 6 characters: a space, letter or digit; a letter or digit; a digit; three letters or
// spaces. Bits and chips are one byte each, 0 or 1, the first at index 0; a chip of 1 is carrier on. Functions return
// 0, or -1 when the callsign, number or vector is refused. Everything here is pure and may run in any thread.
#pragma once

#include <array>
#include <cstdint>

inline constexpr int32_t OVC_VECTOR_BITS = 51;                    // message vector, before coding
inline constexpr int32_t OVC_GROUPS = 17;                         // Walsh words in a frame
inline constexpr int32_t OVC_WORD_BITS = 7;                       // bits of a Walsh word
inline constexpr int32_t OVC_PAIRS = OVC_GROUPS * OVC_WORD_BITS;  // coded bits of a frame, one chip pair each
inline constexpr int32_t OVC_CHIPS = 2 * OVC_PAIRS + 1;           // chips of a frame: one leading chip, then the pairs
inline constexpr uint32_t OVC_MAX_CALL = 262177559;               // 999ZZZ, the largest packed callsign

using OvcWalshTable = std::array<std::array<uint8_t, OVC_WORD_BITS>, 8>;

// The [7,3] simplex code (a punctured Walsh-Hadamard code): bit j of word r is the parity of r AND (j + 1).
inline constexpr OvcWalshTable OVC_WALSH = [] {
    OvcWalshTable words{};
    for (uint32_t r = 0; r < 8; r++) {
        for (uint32_t j = 0; j < OVC_WORD_BITS; j++) {
            const uint32_t common = r & (j + 1);
            words[r][j] = static_cast<uint8_t>((common ^ common >> 1 ^ common >> 2) & 1);
        }
    }
    return words;
}();

// The whitening sequence of the message vector.
inline constexpr std::array<uint8_t, OVC_VECTOR_BITS> OVC_PSEUDO = {
    1, 1, 1, 0, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 1, 1, 1, 1, 1, 0, 0, 1, 1, 0, 1, 1,
    0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 1,
};

// Brings a typed callsign into its normalised form: one space in front where the digit comes second, upper case,
// padded with spaces. Text after the first space that follows the callsign is ignored.
//
//   in    NUL-terminated text
//   out   7 bytes; left alone when the text is empty or cannot fit, written also when its form cannot be packed
// Returns 0 when the normalised form can be packed.
int ov_normalize_call(const char* in, char* out);

// Packs the 6 characters of a normalised callsign into a number of at most OVC_MAX_CALL, written on success only.
int ov_pack_call(const char* call, uint32_t* value);

// Unpacks a number into 6 characters and NUL. Above OVC_MAX_CALL nothing is written; a suffix with a letter after a
// space is written and refused.
int ov_unpack_call(uint32_t value, char* out);

// The 16 checksum bits over `count` bits: CRC-16 (reflected polynomial 0xA001) of their text "0" and "1", with a zero
// low byte replaced by 27 and a zero high byte by 43.
void ovc_crc(const uint8_t* bits, int32_t count, uint8_t* out);

// Fills the 51-bit message vector of a packed callsign: 4 zeros, 28 callsign bits, 16 and 3 checksum bits.
void ovc_build_vector(uint32_t value, uint8_t* vec);

// Accepts exactly the vectors that ovc_build_vector makes and gives their packed callsign.
int ovc_check_vector(const uint8_t* vec, uint32_t* value);

// Encodes a frame.
//
//   call         callsign as typed
//   chips        OVC_CHIPS bytes
//   normalised   7 bytes for the normalised callsign, or null
// Neither output is written on failure.
int ovc_encode(const char* call, uint8_t* chips, char* normalised);

// A known callsign with its frame, ready for comparison and for the deep search.
struct ovc_known {
    char call[7];              // normalised
    char display[7];           // the same without its spaces
    uint8_t chips[OVC_CHIPS];  // its frame
    int8_t signs[OVC_PAIRS];   // +1 where the second chip of a pair is on, else -1
};

// Fills an entry; -1 (and a zeroed entry) when the callsign cannot be encoded.
int ovc_known_init(const char* call, ovc_known* entry);
