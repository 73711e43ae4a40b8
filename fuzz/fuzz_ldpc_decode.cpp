// The LDPC decoder on any metrics, with the codes on the air and with new ones: what comes out is a codeword, and what
// is reported about it is true.
#include "ldpc.h"

#include <cmath>

#include "input.h"
#include "orvel.h"

namespace {

constexpr int32_t MAX_PASSES = 50;
constexpr int32_t MAX_NEW_BITS = 48;  // building longer codes takes too long for a fuzzer

// A code drawn from the input, or null.
const ldpc_code* draw_code(Input& input, ldpc_code& built) {
    const int32_t choice = input.int32(0, 7);
    if (choice < 7) return &ov_code(choice % 2);
    const int32_t n = input.int32(-1, MAX_NEW_BITS);
    const int32_t k = input.int32(-1, MAX_NEW_BITS);
    const int32_t column_weight = input.int32(-1, 9);
    return ldpc_build(built, n, k, column_weight, input.raw<uint32_t>()) == 0 ? &built : nullptr;
}

void draw_metrics(Input& input, const ldpc_code& code, float* metrics) {
    std::array<uint8_t, LDPC_MAX_N> message{};
    std::array<uint8_t, LDPC_MAX_N> codeword{};
    const int32_t kind = input.int32(0, 2);
    if (kind == 2) {  // a codeword, disturbed below
        for (int32_t i = 0; i < code.k; i++) message[static_cast<std::size_t>(i)] = input.raw<uint8_t>() & 1;
        ldpc_encode(code, message.data(), codeword.data());
    }
    for (int32_t v = 0; v < code.n; v++) {
        switch (kind) {
            case 0:
                metrics[v] = input.raw<float>();
                break;
            case 1:
                metrics[v] = static_cast<float>(input.raw<int8_t>()) / 16;
                break;
            default:
                metrics[v] = (codeword[static_cast<std::size_t>(v)] != 0 ? 2.0f : -2.0f) +
                             static_cast<float>(input.raw<int8_t>()) / 32;
        }
    }
    for (int32_t n = input.int32(0, 15); n > 0; n--) {
        metrics[input.int32(0, code.n - 1)] = static_cast<float>(std::clamp(input.any_double(), -1e38, 1e38));
    }
    if (input.flag()) metrics[input.int32(0, code.n - 1)] = std::numeric_limits<float>::infinity();
    if (input.flag()) metrics[input.int32(0, code.n - 1)] = std::numeric_limits<float>::quiet_NaN();
}

double difference_cost(const ldpc_code& code, const float* metrics, const uint8_t* codeword) {
    double cost = 0;
    for (int32_t v = 0; v < code.n; v++) {
        if ((codeword[v] != 0) != (metrics[v] > 0)) cost += std::fabs(static_cast<double>(metrics[v]));
    }
    return cost;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    ldpc_code built;
    const ldpc_code* code = draw_code(input, built);
    if (code == nullptr) return 0;
    const int32_t passes = input.int32(-1, MAX_PASSES);
    const int32_t order = input.int32(-1, 3);
    const int32_t span = input.int32(-1, 80);
    std::array<float, LDPC_MAX_N> metrics{};
    draw_metrics(input, *code, metrics.data());

    std::array<uint8_t, LDPC_MAX_N> codeword;
    std::array<uint8_t, LDPC_MAX_N> message;
    double cost = 0;
    int32_t status = 0;
    if (ldpc_decode(*code, metrics.data(), passes, order, span, codeword.data(), message.data(), &cost, &status) != 0) {
        expect(order < 0);
        return 0;
    }
    expect(status == 1 ? passes > 0 : status == 2 && order >= 0);
    expect(ldpc_syndrome_weight(*code, codeword.data()) == 0);
    std::array<uint8_t, LDPC_MAX_N> again;
    ldpc_encode(*code, message.data(), again.data());
    expect(std::equal(again.begin(), again.begin() + code->n, codeword.begin()));
    const double expected = difference_cost(*code, metrics.data(), codeword.data());
    expect(cost == expected || (std::isnan(cost) && std::isnan(expected)));
    return 0;
}
