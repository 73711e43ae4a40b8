// The constant tables of the two ORVEL codes, and the elimination over GF(2) that derives them from check lists.
//
// ORVEL S is a (119, 44) code, ORVEL L a (160, 69) code, every variable in three checks. Only the check lists are
// written down; generators and pivots are derived from them at compile time.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <span>
#include <utility>

#include "ldpc.h"

// CHECK_DEG holds the degree of each check, CHECK_VAR the variables of check 0, then of check 1, and so on.
// G holds the generator, three words per row; PIVOT the codeword bit of each message bit.
extern const std::array<uint8_t, 75> OVS_CHECK_DEG;
extern const std::array<uint8_t, 357> OVS_CHECK_VAR;
extern const std::array<uint64_t, 44 * 3> OVS_G;
extern const std::array<uint8_t, 44> OVS_PIVOT;
extern const std::array<uint8_t, 91> OVL_CHECK_DEG;
extern const std::array<uint8_t, 480> OVL_CHECK_VAR;
extern const std::array<uint64_t, 69 * 3> OVL_G;
extern const std::array<uint8_t, 69> OVL_PIVOT;

namespace gf2 {

constexpr bool get_bit(const ldpc_bits& bits, int32_t j) {
    return (bits[static_cast<size_t>(j / 64)] >> (j % 64) & 1) != 0;
}

constexpr void set_bit(ldpc_bits& bits, int32_t j) {
    bits[static_cast<size_t>(j / 64)] |= uint64_t{1} << (j % 64);
}

constexpr void add_to(ldpc_bits& sum, const ldpc_bits& other) {
    for (size_t w = 0; w < sum.size(); ++w) sum[w] ^= other[w];
}

constexpr ldpc_bits sum_of(ldpc_bits a, const ldpc_bits& b) {
    add_to(a, b);
    return a;
}

// Eliminates over the columns in the given order, skipping those that depend on earlier ones, until every row has a
// basis column: row r is then the only one with a 1 in column basis[r]. Returns the number of rows that got one.
constexpr size_t reduce_rows(std::span<ldpc_bits> rows, std::span<const uint8_t> columns, std::span<uint8_t> basis) {
    size_t rank = 0;
    for (const uint8_t column : columns) {
        if (rank == rows.size()) break;
        size_t found = rank;
        while (found < rows.size() && !get_bit(rows[found], column)) ++found;
        if (found == rows.size()) continue;

        std::swap(rows[found], rows[rank]);
        for (size_t r = 0; r < rows.size(); ++r) {
            if (r != rank && get_bit(rows[r], column)) add_to(rows[r], rows[rank]);
        }
        basis[rank++] = column;
    }
    return rank;
}

// Columns in their own order.
inline constexpr auto ALL_COLUMNS = [] {
    std::array<uint8_t, LDPC_MAX_N> columns{};
    std::iota(columns.begin(), columns.end(), uint8_t{0});
    return columns;
}();

// Solves the checks for their generator: columns outside the basis carry the message, in increasing order, and the
// basis columns follow from them. Overwrites the checks. generator and pivot have room for columns - checks.
// False when the checks depend on each other.
constexpr bool solve_checks(std::span<ldpc_bits> checks, int32_t n, std::span<ldpc_bits> generator,
                            std::span<int32_t> pivot) {
    std::array<uint8_t, LDPC_MAX_N> basis{};
    const auto columns = std::span(ALL_COLUMNS).first(static_cast<size_t>(n));
    if (reduce_rows(checks, columns, basis) < checks.size()) return false;

    ldpc_bits in_basis{};
    for (size_t r = 0; r < checks.size(); ++r) set_bit(in_basis, basis[r]);
    size_t i = 0;
    for (int32_t column = 0; column < n; ++column) {
        if (get_bit(in_basis, column)) continue;
        ldpc_bits row{};
        set_bit(row, column);
        for (size_t r = 0; r < checks.size(); ++r) {
            if (get_bit(checks[r], column)) set_bit(row, basis[r]);
        }
        generator[i] = row;
        pivot[i] = column;
        ++i;
    }
    return true;
}

}  // namespace gf2
