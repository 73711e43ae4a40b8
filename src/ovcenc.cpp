// Callsigns are numbers in a mixed radix (37 · 36 · 10 · 27 · 27 · 27); the frame around them is a chain of table
// look-ups: checksums, whitening, Walsh words, interleave, Manchester chips.
#include "ovcenc.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

#include "ascii.h"

namespace {

constexpr int32_t CALL_LENGTH = 6;
constexpr int32_t MAX_TOKEN = 7;  // one more than fits: refused later, whatever it holds
constexpr int32_t CALL_BITS = 28;
constexpr int32_t CALL_FIRST = 4;                      // index of the first callsign bit in the vector
constexpr int32_t CRC_FIRST = CALL_FIRST + CALL_BITS;  // index of the first checksum
constexpr int32_t CRC_BITS = 16;
constexpr int32_t TAIL_FIRST = CRC_FIRST + CRC_BITS;  // index of the last three bits of the second checksum
constexpr int32_t TAIL_BITS = OVC_VECTOR_BITS - TAIL_FIRST;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Space = 0, letters 1 to 26, digits 27 to 36, anything else -1.
int32_t character_value(char c) {
    if (c == ' ') return 0;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 1;
    if (is_digit(c)) return c - '0' + 27;
    return -1;
}

uint16_t crc16_text(std::span<const uint8_t> bits) {
    uint32_t crc = 0;
    for (const uint8_t bit : bits) {
        uint32_t character = bit != 0 ? 0x31 : 0x30;  // "1" or "0"
        for (int32_t k = 0; k < 8; k++, character >>= 1) {
            const bool feedback = ((character ^ crc) & 1) != 0;
            crc >>= 1;
            if (feedback) crc ^= 0xA001;
        }
    }
    return static_cast<uint16_t>(crc);
}

}  // namespace

int ov_normalize_call(const char* in, char* out) {
    while (*in == ' ') in++;
    const std::string_view text(in);
    const std::string_view token = text.substr(0, text.find(' '));
    if (token.empty() || token.size() > MAX_TOKEN) return -1;

    // The digit belongs in the third place; where it comes second the callsign moves right by one.
    const bool move = token.size() < 3 || !is_digit(token[2]);
    if (token.size() + (move ? 1 : 0) > CALL_LENGTH) return -1;

    std::array<char, CALL_LENGTH + 1> call;
    call.fill(' ');
    std::transform(token.begin(), token.end(), call.begin() + (move ? 1 : 0), ascii_upper);
    call.back() = '\0';
    std::copy(call.begin(), call.end(), out);

    uint32_t value = 0;
    return ov_pack_call(out, &value);
}

int ov_pack_call(const char* call, uint32_t* value) {
    std::array<int32_t, CALL_LENGTH> p;
    std::transform(call, call + CALL_LENGTH, p.begin(), character_value);
    const auto is_suffix = [](int32_t v) { return v >= 0 && v <= 26; };
    if (p[0] < 0 || p[1] < 1 || p[2] < 27 || !std::all_of(p.begin() + 3, p.end(), is_suffix)) return -1;

    const int32_t packed = ((((p[0] * 36 + (p[1] - 1)) * 10 + (p[2] - 27)) * 27 + p[3]) * 27 + p[4]) * 27 + p[5];
    *value = static_cast<uint32_t>(packed);
    return 0;
}

int ov_unpack_call(uint32_t value, char* out) {
    if (value > OVC_MAX_CALL) return -1;
    const auto take = [&value](uint32_t radix) {
        const uint32_t digit = value % radix;
        value /= radix;
        return static_cast<int32_t>(digit);
    };
    const auto character = [](int32_t v) {
        return static_cast<char>(v == 0 ? ' ' : v <= 26 ? 'A' + v - 1 : '0' + v - 27);
    };
    out[5] = character(take(27));
    out[4] = character(take(27));
    out[3] = character(take(27));
    out[2] = static_cast<char>('0' + take(10));
    out[1] = character(take(36) + 1);
    out[0] = character(static_cast<int32_t>(value));
    out[6] = '\0';

    const bool letter_after_space = (out[3] == ' ' && out[4] != ' ') || (out[4] == ' ' && out[5] != ' ');
    return letter_after_space ? -1 : 0;
}

void ovc_crc(const uint8_t* bits, int32_t count, uint8_t* out) {
    const uint32_t crc = crc16_text({bits, static_cast<std::size_t>(std::max(count, 0))});
    uint32_t low = crc & 0xFF;
    uint32_t high = crc >> 8;
    if (low == 0) low = 27;
    if (high == 0) high = 43;
    for (uint32_t i = 0; i < 8; i++) {
        out[i] = static_cast<uint8_t>(low >> (7 - i) & 1);
        out[8 + i] = static_cast<uint8_t>(high >> (7 - i) & 1);
    }
}

void ovc_build_vector(uint32_t value, uint8_t* vec) {
    std::fill(vec, vec + CALL_FIRST, uint8_t{0});
    for (int32_t i = 0; i < CALL_BITS; i++) {
        vec[CALL_FIRST + i] = static_cast<uint8_t>(value >> (CALL_BITS - 1 - i) & 1);
    }
    ovc_crc(vec + CALL_FIRST, CALL_BITS, vec + CRC_FIRST);

    std::array<uint8_t, CRC_BITS> second;
    ovc_crc(vec + CALL_FIRST, CALL_BITS + CRC_BITS, second.data());
    std::copy(second.end() - TAIL_BITS, second.end(), vec + TAIL_FIRST);
}

int ovc_check_vector(const uint8_t* vec, uint32_t* value) {
    uint32_t packed = 0;
    for (int32_t i = 0; i < CALL_BITS; i++) packed = packed << 1 | (vec[CALL_FIRST + i] & 1u);

    std::array<uint8_t, OVC_VECTOR_BITS> rebuilt;
    ovc_build_vector(packed, rebuilt.data());
    if (!std::equal(rebuilt.begin(), rebuilt.end(), vec)) return -1;
    *value = packed;
    return 0;
}

int ovc_encode(const char* call, uint8_t* chips, char* normalised) {
    std::array<char, CALL_LENGTH + 1> text;
    uint32_t value = 0;
    if (ov_normalize_call(call, text.data()) != 0 || ov_pack_call(text.data(), &value) != 0) return -1;
    if (normalised != nullptr) std::copy(text.begin(), text.end(), normalised);

    std::array<uint8_t, OVC_VECTOR_BITS> bits;
    ovc_build_vector(value, bits.data());
    std::transform(bits.begin(), bits.end(), OVC_PSEUDO.begin(), bits.begin(),
                   [](uint8_t bit, uint8_t white) { return static_cast<uint8_t>(bit ^ white); });

    // All first bits of the words go out first, then all second bits: a fade hits each word at most once.
    chips[0] = 1;
    for (std::size_t k = 0; k < OVC_PAIRS; k++) {
        const std::size_t group = k % OVC_GROUPS;
        const std::size_t row = bits[3 * group] * 4u + bits[3 * group + 1] * 2u + bits[3 * group + 2];
        const uint8_t bit = OVC_WALSH[row][k / OVC_GROUPS];
        chips[1 + 2 * k] = static_cast<uint8_t>(1 - bit);
        chips[2 + 2 * k] = bit;
    }
    return 0;
}

int ovc_known_init(const char* call, ovc_known* entry) {
    *entry = {};
    if (ovc_encode(call, entry->chips, entry->call) != 0) return -1;
    for (std::size_t k = 0; k < OVC_PAIRS; k++) entry->signs[k] = entry->chips[2 + 2 * k] != 0 ? 1 : -1;
    std::remove_copy(std::begin(entry->call), std::end(entry->call), entry->display, ' ');
    return 0;
}
