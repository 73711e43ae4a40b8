// LDPC decoding, code construction and elimination written down as they are defined: a byte for each bit, every message
// kept, every sum in full, nothing cut short. Slow, and plain enough to be checked by reading.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ldpc.h"

namespace ldpc_model {

using Bits = std::vector<uint8_t>;
using Matrix = std::vector<Bits>;

inline size_t index(int32_t i) {
    return static_cast<size_t>(i);
}

Bits sum(Bits a, const Bits& b);

// Brings rows into reduced form over the columns in the given order; returns the basis column of each row that has one.
std::vector<size_t> eliminate(Matrix& rows, const std::vector<size_t>& columns);

struct Generator {
    Matrix rows;
    std::vector<size_t> pivots;
};

// The generator that follows from checks, nothing when they depend on each other.
std::optional<Generator> generator_of(Matrix checks, size_t n);

// The checks of a code, a row of n bits each.
Matrix checks_of(const ldpc_code& code);

// The generator of a code, a row of n bits for each message bit.
Matrix generator_rows(const ldpc_code& code);

int32_t violated(const Matrix& checks, const Bits& bits);

struct Decoded {
    int result = -1;
    Bits codeword;
    Bits message;
    double cost = 0;
    int32_t status = 0;
};

// Sum of |metric| over the bits in which the codeword differs from the signs.
double cost_of(const Bits& codeword, const std::vector<float>& metrics);

Decoded decode(const ldpc_code& code, const std::vector<float>& metrics, int32_t passes, int32_t order, int32_t span);

// Progressive edge growth, with distances found by relaxing all edges until nothing changes.
std::optional<Matrix> construct(int32_t n, int32_t k, int32_t weight, uint32_t seed);

}  // namespace ldpc_model
