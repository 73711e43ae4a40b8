// The frames of a protocol as the words of a code: the bit patterns that a frame can show, and those of them that fit
// measured soft bits best.
//
// The checksum is part of the code here. Its words then form an affine space over GF(2) of no more dimensions than the
// message has bits, 28 (OPERA, ORVEL S) or 53 (ORVEL L), and ordered statistics of order 3 search it nearly like a
// complete search would. Pure functions and constant data; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "protocol.h"

namespace coherent {

// The coded bits of a frame: bit k is the k-th chip pair, 1 when its second chip is ON.
using Word = std::array<uint64_t, (OV_MAX_PAIRS + 63) / 64>;

inline bool bit_of(const Word& word, std::size_t k) {
    return (word[k / 64] >> (k % 64) & 1) != 0;
}

inline Word sum_of(Word a, const Word& b) {
    for (std::size_t i = 0; i < a.size(); i++) a[i] ^= b[i];
    return a;
}

// What a word says.
struct Message {
    char call[8];     // without blanks
    char locator[8];  // ORVEL L, else ""
    bool plausible;   // the callsign looks like one that an administration could issue
};

// A protocol's words: the sums of some generator rows and one offset. OPERA replaces checksum bytes that are zero, so
// about 1 callsign in 85 lies beside the space of the others: it has six offsets.
struct AffineCode {
    int32_t length;
    double log_words;  // natural logarithm of the number of words
    std::vector<Word> rows;
    std::vector<Word> offsets;
    const ov_protocol* protocol;

    // The message of a word; nothing when the word is none that a station sends.
    std::optional<Message> read(const Word& word) const;
};

// The code of a protocol, made at the first call. Throws std::bad_alloc.
const AffineCode& code_of(const ov_protocol& protocol);

// The word of a frame's chips.
Word word_of(std::span<const uint8_t> chips);

// A word and by how much its correlation with the soft bits falls short of the largest that any pattern has.
struct RankedWord {
    Word word;
    float cost;
};

// The words that differ from the hard decisions in few of the most reliable bits: up to `order` (3 at most) of a basis
// of them. The cheapest `most` of them, in no order.
//
//   soft   length soft bits, positive for a 1, finite
std::vector<RankedWord> ordered_statistics(const AffineCode& code, std::span<const float> soft, int32_t order,
                                           std::size_t most);

}  // namespace coherent
