// The LDPC codes of ORVEL: a (119, 44) code for ORVEL S and a (160, 69) code for ORVEL L.
//
//     check lists → generator → ldpc_code → encode: message → codeword
//                                         → decode: bit metrics → codeword and message
//
// A code is given by its parity checks alone; the generator follows from them by elimination. Codewords are systematic,
// with the message bits scattered: message bit i is codeword bit pivot[i].
//
// Codewords and messages are vectors of bytes, one bit (0 or 1) in each. Nothing here keeps state: a filled ldpc_code
// may be shared by any number of threads, and every function may run in several threads at once. No heap memory is
// used.
#pragma once

#include <array>
#include <cstdint>

inline constexpr int32_t LDPC_MAX_N = 256;            // codeword bits
inline constexpr int32_t LDPC_MAX_CHECK_DEGREE = 32;  // variables in a check
inline constexpr int32_t LDPC_MAX_VAR_DEGREE = 8;     // checks of a variable
inline constexpr int32_t LDPC_NO_CYCLE = 1 << 30;     // girth of a graph without cycles

// A vector over GF(2): codeword bit j is bit j % 64 of word j / 64.
using ldpc_bits = std::array<uint64_t, LDPC_MAX_N / 64>;

// A code. Variables are codeword bits, checks are sets of variables with even parity.
struct ldpc_code {
    int32_t n;              // codeword bits
    int32_t k;              // message bits
    int32_t m;              // checks, n - k
    int32_t column_weight;  // checks of each variable
    int32_t check_degree[LDPC_MAX_N];
    int32_t check_vars[LDPC_MAX_N][LDPC_MAX_CHECK_DEGREE];
    int32_t var_degree[LDPC_MAX_N];
    int32_t var_checks[LDPC_MAX_N][LDPC_MAX_VAR_DEGREE];  // in increasing order
    ldpc_bits generator[LDPC_MAX_N];                      // one row for each message bit
    int32_t pivot[LDPC_MAX_N];                            // codeword bit that carries each message bit
    int32_t girth;  // edges in the shortest cycle, LDPC_NO_CYCLE when there is none; 0 in a loaded code
};

// Fills a code from tables like those in ldpc_tables.h.
//
//   n, k           k < n ≤ 192; k is trusted not to be negative
//   check_degree   n - k degrees of at most 32, trusted
//   check_vars     their variables, each in 0 … n-1, trusted
//   generator      k rows of 3 words, bits from n up zero
//   pivot          k codeword bits
// Returns 0, or -1 when n is not above k or above 192 (the code is left alone) or a variable is in more than 8 checks
// (the code is then unusable).
int ldpc_load(ldpc_code& code, int32_t n, int32_t k, const uint8_t* check_degree, const uint8_t* check_vars,
              const uint64_t* generator, const uint8_t* pivot);

// Encodes k message bits into n codeword bits.
void ldpc_encode(const ldpc_code& code, const uint8_t* message, uint8_t* codeword);

// Constructs a new code by progressive edge growth: edge by edge, a variable is joined to one of the checks that are
// farthest from it, so that short cycles come late. Equal arguments give equal codes on every machine. Meant for
// designing codes; takes milliseconds for codes like the two above.
//
//   n, k            0 ≤ k < n ≤ 256
//   column_weight   checks of each variable, 1 … 8 and at most n - k. Even weights never succeed: their checks depend
//                   on each other.
//   seed            of the random choices; 50 attempts are made with numbers derived from it
// Returns 0, or -1 when an argument is out of range (the code is left alone) or no attempt gave n - k independent
// checks, full at 31 variables and for the first check of a variable at 32 (the code is then unusable).
int ldpc_build(ldpc_code& code, int32_t n, int32_t k, int32_t column_weight, uint32_t seed);

// Finds the codeword behind noisy bits: sum-product belief propagation, and where that does not converge to a codeword,
// ordered-statistics decoding, which starts from the most reliable bits and tries to flip up to `order` of them.
//
//   metrics          n soft bits, positive for a 1. 0 means unknown, an infinity is certain. A NaN spoils its own
//                    checks in belief propagation and is the least reliable bit in ordered statistics.
//   max_iterations   passes of belief propagation; 0 or less: none
//   order            bits that ordered statistics may flip, 2 at most; below 0: no ordered statistics
//   span             of order 2: only the `span` least reliable of the bits it may flip are paired; below 1 or at
//                    least k: all
//   codeword         n bits out
//   message          k bits out, the codeword's at the pivots
//   cost             sum of |metric| over the bits in which the codeword differs from the metrics' signs
//   status           1: by belief propagation, 2: by ordered statistics
// Returns 0, or -1 when belief propagation failed and order is below 0 (the outputs are then undefined). Noise alone
// decodes to something, too: the caller has to check the message and may look at the cost.
int ldpc_decode(const ldpc_code& code, const float* metrics, int32_t max_iterations, int32_t order, int32_t span,
                uint8_t* codeword, uint8_t* message, double* cost, int32_t* status);

// Number of checks that n bits violate; 0 for a codeword.
int32_t ldpc_syndrome_weight(const ldpc_code& code, const uint8_t* bits);
