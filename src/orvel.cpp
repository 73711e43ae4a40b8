// A message consists of its fields, most significant bit first, and a CRC that differs between the modes so that
// neither passes for the other. A whitening sequence keeps the keying varied. The LDPC code does the rest.
#include "orvel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <span>
#include <string_view>

#include "ascii.h"
#include "ldpc_tables.h"
#include "ovcenc.h"

namespace {

constexpr int32_t MAX_KBITS = 69;
constexpr int32_t CALL_BITS = 28;
constexpr int32_t LOC_BITS = 25;
constexpr int32_t CRC_BITS = 16;
constexpr uint32_t SUBSQUARES = 24 * 24 + 1;  // + 1: no subsquare

using Message = std::array<uint8_t, MAX_KBITS>;

// Where the messages of the two modes differ.
struct ModeTraits {
    int32_t kbits;
    uint32_t crc_start;
    uint32_t whitening_seed;
};
constexpr ModeTraits S_MODE = {44, 0xFFFF, 370081};
constexpr ModeTraits L_MODE = {MAX_KBITS, 0x1D0F, 246727};
constexpr const ModeTraits& traits(int32_t mode) {
    return mode != 0 ? L_MODE : S_MODE;
}

std::size_t payload_bits(int32_t mode) {
    return static_cast<std::size_t>(traits(mode).kbits - CRC_BITS);
}

void write_field(uint32_t value, std::span<uint8_t> bits) {
    for (std::size_t i = 0; i < bits.size(); i++) bits[i] = static_cast<uint8_t>(value >> (bits.size() - 1 - i) & 1);
}

uint32_t read_field(std::span<const uint8_t> bits) {
    uint32_t value = 0;
    for (const uint8_t bit : bits) value = value << 1 | (bit & 1u);
    return value;
}

// CRC-16 with polynomial 0x1021, bit by bit.
uint32_t crc16(std::span<const uint8_t> bits, uint32_t start) {
    uint32_t crc = start;
    for (const uint8_t bit : bits) {
        const bool feedback = ((bit ^ crc >> 15) & 1) != 0;
        crc = crc << 1 & 0xFFFF;
        if (feedback) crc ^= 0x1021;
    }
    return crc;
}

// Adds the mode's whitening sequence, from a 20-bit shift register; applied twice, it cancels.
void whiten(int32_t mode, std::span<uint8_t> bits) {
    uint32_t s = traits(mode).whitening_seed;
    for (uint8_t& bit : bits) {
        bit = static_cast<uint8_t>(bit ^ (s & 1));
        const uint32_t feedback = (s ^ s >> 2 ^ s >> 3 ^ s >> 5) & 1;
        s = s >> 1 | feedback << 19;
    }
}

// Natural logarithm of the modified Bessel function I0, x ≥ 0 (Abramowitz and Stegun 9.8.1 and 9.8.2). The branch for
// large arguments stays in logarithms and cannot overflow.
double ln_i0(double x) {
    const auto polynomial = [](double t, std::span<const double> coefficients) {
        return std::accumulate(coefficients.rbegin(), coefficients.rend(), 0.0,
                               [t](double sum, double coefficient) { return sum * t + coefficient; });
    };
    if (x < 3.75) {
        static constexpr std::array SMALL = {1.0, 3.5156229, 3.0899424, 1.2067492, 0.2659732, 0.0360768, 0.0045813};
        return std::log(polynomial((x / 3.75) * (x / 3.75), SMALL));
    }
    static constexpr std::array LARGE = {0.39894228,  0.01328592, 0.00225319,  -0.00157565, 0.00916281,
                                         -0.02057706, 0.02635537, -0.01647633, 0.00392377};
    return x - 0.5 * std::log(x) + std::log(polynomial(3.75 / x, LARGE));
}

bool has_expected_size(const ldpc_code& code, int32_t mode) {
    return code.k == ov_kbits(mode);
}

}  // namespace

int32_t ov_kbits(int32_t mode) {
    return traits(mode).kbits;
}

int32_t ov_ncoded(int32_t mode) {
    return ov_protocol_by_mode(mode).pairs;
}

void ov_load_codes(const ov_code_tables& s, const ov_code_tables& l, std::array<ldpc_code, 2>& codes) {
    const auto load = [](const ov_code_tables& t, ldpc_code& code) {
        return ldpc_load(code, t.n, t.k, t.check_degree, t.check_vars, t.generator, t.pivot);
    };
    if (load(s, codes[0]) == 0 && load(l, codes[1]) == 0) return;
    std::fputs("orvel: invalid LDPC tables\n", stderr);
    std::exit(3);
}

const ldpc_code& ov_code(int32_t mode) {
    static const auto codes = [] {
        std::array<ldpc_code, 2> loaded;
        ov_load_codes(
            {ov_ncoded(0), S_MODE.kbits, OVS_CHECK_DEG.data(), OVS_CHECK_VAR.data(), OVS_G.data(), OVS_PIVOT.data()},
            {ov_ncoded(1), L_MODE.kbits, OVL_CHECK_DEG.data(), OVL_CHECK_VAR.data(), OVL_G.data(), OVL_PIVOT.data()},
            loaded);
        return loaded;
    }();
    return codes[mode != 0 ? 1 : 0];
}

int ov_pack_loc(const char* text, uint32_t* value) {
    const std::size_t length = std::strlen(text);
    if (length != 4 && length != 6) return -1;

    constexpr std::array<std::string_view, 3> ALPHABETS = {"ABCDEFGHIJKLMNOPQR", "0123456789",
                                                           "ABCDEFGHIJKLMNOPQRSTUVWX"};
    std::array<uint32_t, 6> place{};
    for (std::size_t i = 0; i < length; i++) {
        const std::size_t found = ALPHABETS[i / 2].find(ascii_upper(text[i]));
        if (found == std::string_view::npos) return -1;
        place[i] = static_cast<uint32_t>(found);
    }
    const uint32_t subsquare = length == 6 ? place[4] * 24 + place[5] + 1 : 0;
    *value = (((place[0] * 18 + place[1]) * 10 + place[2]) * 10 + place[3]) * SUBSQUARES + subsquare;
    return 0;
}

int ov_unpack_loc(uint32_t value, char* text) {
    if (value > OV_MAX_LOC) return -1;
    const uint32_t subsquare = value % SUBSQUARES;
    const uint32_t square = value / SUBSQUARES;
    *text++ = static_cast<char>('A' + square / 1800);
    *text++ = static_cast<char>('A' + square / 100 % 18);
    *text++ = static_cast<char>('0' + square / 10 % 10);
    *text++ = static_cast<char>('0' + square % 10);
    if (subsquare > 0) {
        *text++ = static_cast<char>('A' + (subsquare - 1) / 24);
        *text++ = static_cast<char>('A' + (subsquare - 1) % 24);
    }
    *text = '\0';
    return 0;
}

void ov_encode_values(int32_t mode, uint32_t call, uint32_t locator, uint8_t* coded) {
    Message message{};
    const auto bits = std::span(message).first(static_cast<std::size_t>(ov_kbits(mode)));
    const auto payload = bits.first(payload_bits(mode));
    write_field(call, payload.first(CALL_BITS));
    if (mode != 0) write_field(locator, payload.last(LOC_BITS));
    write_field(crc16(payload, traits(mode).crc_start), bits.last(CRC_BITS));
    whiten(mode, bits);
    ldpc_encode(ov_code(mode), bits.data(), coded);
}

int ov_encode(int32_t mode, const char* call, const char* locator, uint8_t* chips) {
    std::array<char, 7> normalised;
    uint32_t call_value = 0;
    if (!has_expected_size(ov_code(mode), mode) || ov_normalize_call(call, normalised.data()) != 0 ||
        ov_pack_call(normalised.data(), &call_value) != 0) {
        return -1;
    }
    uint32_t loc_value = 0;
    if (mode == 1 && (locator == nullptr || ov_pack_loc(locator, &loc_value) != 0)) return -1;

    std::array<uint8_t, OV_MAX_PAIRS> coded;
    ov_encode_values(mode, call_value, loc_value, coded.data());
    *chips++ = 1;
    for (const uint8_t bit : std::span(coded).first(static_cast<std::size_t>(ov_ncoded(mode)))) {
        *chips++ = static_cast<uint8_t>(1 - bit);
        *chips++ = bit;
    }
    return 0;
}

double ov_llr(const float* first, const float* second, int32_t n, double noise, float* llr, int32_t method) {
    const auto measured = [&](int32_t i) { return first[i] >= 0 && second[i] >= 0; };
    double squares = 0;
    int32_t count = 0;
    for (int32_t i = 0; i < n; i++) {
        if (!measured(i)) continue;
        const double difference = (second[i] - first[i]) / noise;
        squares += difference * difference;
        count++;
    }
    if (count == 0) {
        std::fill_n(llr, std::max(n, 0), 0.0f);
        return 0;
    }

    // The mean square difference of exponential noise powers alone is 2; the excess is signal.
    const double mean_square = squares / count;
    const double amplitude = mean_square > 2.0 ? std::fmax(std::sqrt(mean_square - 1) - 1, 0.05) : 0.05;
    for (int32_t i = 0; i < n; i++) {
        if (!measured(i)) {
            llr[i] = 0;
            continue;
        }
        const double x = std::fmax(first[i] / noise, 0);
        const double y = std::fmax(second[i] / noise, 0);
        llr[i] =
            static_cast<float>(method == 1 ? (y - x) * amplitude
                                           : ln_i0(2 * std::sqrt(y * amplitude)) - ln_i0(2 * std::sqrt(x * amplitude)));
    }
    return amplitude;
}

int ov_check(int32_t mode, const uint8_t* bits, char* call, char* locator) {
    if (!has_expected_size(ov_code(mode), mode)) return -1;
    Message message{};
    const auto plain = std::span(message).first(static_cast<std::size_t>(ov_kbits(mode)));
    std::copy_n(bits, plain.size(), plain.begin());
    whiten(mode, plain);

    const auto payload = plain.first(payload_bits(mode));
    if (crc16(payload, traits(mode).crc_start) != read_field(plain.last(CRC_BITS))) return -1;
    std::array<char, 7> text;
    if (ov_unpack_call(read_field(payload.first(CALL_BITS)), text.data()) != 0) return -1;

    // A normalised callsign has blanks at its ends only.
    *std::remove_copy(text.begin(), text.end() - 1, call, ' ') = '\0';
    locator[0] = '\0';
    return mode == 1 ? ov_unpack_loc(read_field(payload.last(LOC_BITS)), locator) : 0;
}
