// Writes docs/ldpc-s.txt and docs/ldpc-l.txt from the tables that the library itself encodes and decodes with:
//
//     write_codes s|l >FILE
#include <cstdio>
#include <span>
#include <string_view>

#include "ldpc_tables.h"

namespace {

void write_code(std::string_view name, std::span<const uint8_t> degrees, std::span<const uint8_t> variables,
                std::span<const uint8_t> pivots) {
    const std::size_t bits = degrees.size() + pivots.size();
    std::printf("# The LDPC code of ORVEL %.*s. Code word bits count from 0.\n", static_cast<int>(name.size()),
                name.data());
    std::printf("# bits:    bits of a code word\n");
    std::printf("# message: the code word bits that are the message bits, from message bit 0\n");
    std::printf("# check:   code word bits whose sum is even\n");
    std::printf("bits %zu\nmessage", bits);
    for (const uint8_t pivot : pivots) std::printf(" %d", pivot);
    std::printf("\n");
    for (const uint8_t degree : degrees) {
        std::printf("check");
        for (const uint8_t variable : variables.first(degree)) std::printf(" %d", variable);
        std::printf("\n");
        variables = variables.subspan(degree);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view code = argc == 2 ? argv[1] : "";
    if (code == "s") {
        write_code("S", OVS_CHECK_DEG, OVS_CHECK_VAR, OVS_PIVOT);
    } else if (code == "l") {
        write_code("L", OVL_CHECK_DEG, OVL_CHECK_VAR, OVL_PIVOT);
    } else {
        std::fprintf(stderr, "usage: write_codes s|l >FILE\n");
        return 2;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
