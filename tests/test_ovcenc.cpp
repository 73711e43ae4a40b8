// The OPERA encoder and the callsign codec: worked examples, refusals, and a plain model of every step.
#include "ovcenc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "siggen.h"

namespace {

using Bits = std::vector<uint8_t>;

// ---- Plain models: each step written down once more, by its definition rather than for speed ------------------------

const std::string LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const std::string DIGITS = "0123456789";

// What may stand at each place of a normalised callsign, in the order of its values.
const std::array<std::string, 6> ALPHABET = {
    " " + LETTERS + DIGITS, LETTERS + DIGITS, DIGITS, " " + LETTERS, " " + LETTERS, " " + LETTERS,
};

std::optional<uint32_t> model_pack(const std::string& call) {
    uint32_t value = 0;
    for (std::size_t place = 0; place < 6; ++place) {
        const std::size_t digit = ALPHABET[place].find(call[place]);
        if (digit == std::string::npos) return std::nullopt;
        value = value * static_cast<uint32_t>(ALPHABET[place].size()) + static_cast<uint32_t>(digit);
    }
    return value;
}

std::string model_unpack(uint32_t value) {
    std::string call(6, '?');
    for (std::size_t place = 6; place-- > 0;) {
        const auto size = static_cast<uint32_t>(ALPHABET[place].size());
        call[place] = ALPHABET[place][value % size];
        value /= size;
    }
    return call;
}

bool suffix_has_no_gap(const std::string& call) {
    const std::string suffix = call.substr(3);
    return suffix.substr(0, suffix.find_last_not_of(' ') + 1).find(' ') == std::string::npos;
}

std::string upper(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

// The 6 characters of a typed callsign whether or not they pack; nothing when it cannot be brought into that form.
std::optional<std::string> model_normalize(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return std::nullopt;
    std::string token = upper(text.substr(first, text.find(' ', first) - first));
    const bool third_is_digit = token.size() >= 3 && DIGITS.find(token[2]) != std::string::npos;
    if (!third_is_digit) token.insert(0, 1, ' ');
    if (token.size() > 6) return std::nullopt;
    return token + std::string(6 - token.size(), ' ');
}

// The checksum register before zero bytes are replaced: every bit as a character "0" or "1", those bit by bit.
uint32_t model_crc_register(const Bits& bits) {
    std::string text;
    for (const uint8_t bit : bits) text += bit ? '1' : '0';
    uint32_t shift_register = 0;
    for (const char character : text) {
        for (int place = 0; place < 8; ++place) {
            const uint32_t in = static_cast<uint32_t>(character) >> place & 1U;
            const bool feedback = in != (shift_register & 1U);
            shift_register >>= 1;
            if (feedback) shift_register ^= 0xA001;
        }
    }
    return shift_register;
}

void append_bits(Bits& bits, uint32_t value, int count) {
    for (int place = count - 1; place >= 0; --place) bits.push_back(static_cast<uint8_t>(value >> place & 1U));
}

Bits model_crc(const Bits& bits) {
    const uint32_t raw = model_crc_register(bits);
    const uint32_t low = raw % 256 == 0 ? 27 : raw % 256;
    const uint32_t high = raw / 256 == 0 ? 43 : raw / 256;
    Bits out;
    append_bits(out, low, 8);
    append_bits(out, high, 8);
    return out;
}

// The callsign bits and the first checksum, which the second checksum covers.
Bits model_covered(uint32_t value) {
    Bits covered;
    append_bits(covered, value, 28);
    const Bits crc = model_crc(covered);
    covered.insert(covered.end(), crc.begin(), crc.end());
    return covered;
}

Bits model_vector(uint32_t value) {
    const Bits covered = model_covered(value);
    const Bits second = model_crc(covered);
    Bits vec(4, 0);
    for (const uint8_t bit : covered) vec.push_back(bit);
    for (std::size_t i = second.size() - 3; i < second.size(); ++i) vec.push_back(second[i]);
    return vec;
}

const std::string WHITENING = "111000010101011111100110110100000001100100010101011";
const std::array<std::string, 8> WALSH_ROWS = {
    "0000000", "1010101", "0110011", "1100110", "0001111", "1011010", "0111100", "1101001",
};

Bits from_text(const std::string& text) {
    Bits bits;
    for (const char c : text) bits.push_back(c == '1');
    return bits;
}

std::string to_text(const Bits& bits) {
    std::string text;
    for (const uint8_t bit : bits) text += bit == 0 ? '0' : bit == 1 ? '1' : '?';
    return text;
}

Bits model_chips(uint32_t value) {
    Bits whitened = model_vector(value);
    for (std::size_t i = 0; i < whitened.size(); ++i) whitened[i] = whitened[i] != (WHITENING[i] == '1');
    std::vector<std::string> words;
    for (std::size_t g = 0; g < 17; ++g) {
        words.push_back(WALSH_ROWS[4U * whitened[3 * g] + 2U * whitened[3 * g + 1] + whitened[3 * g + 2]]);
    }
    std::string chips = "1";
    for (std::size_t j = 0; j < 7; ++j) {  // all first bits, then all second bits, …
        for (std::size_t g = 0; g < 17; ++g) chips += words[g][j] == '1' ? "01" : "10";
    }
    return from_text(chips);
}

// ---- The library's functions as values -----------------------------------------------------------------------------

const std::string UNTOUCHED = "\x5a\x5a\x5a\x5a\x5a\x5a\x5a";

struct Normalized {
    int result;
    std::string out;  // all 7 bytes
};

Normalized normalize(const std::string& text) {
    std::string out = UNTOUCHED;
    const int result = ov_normalize_call(text.c_str(), out.data());
    return {result, out};
}

// A refused callsign leaves the value alone.
std::optional<uint32_t> pack(const std::string& call) {
    uint32_t value = 0xDEADBEEF;
    // Exactly six characters, so that a tool that watches memory sees any read past them.
    std::vector<char> six(call.begin(), call.begin() + 6);
    const int result = ov_pack_call(six.data(), &value);
    EXPECT_TRUE(result == 0 || (result == -1 && value == 0xDEADBEEF)) << '"' << call << '"';
    if (result != 0) return std::nullopt;
    return value;
}

Bits build(uint32_t value) {
    Bits vec(OVC_VECTOR_BITS, 0x5a);
    ovc_build_vector(value, vec.data());
    return vec;
}

// A refused vector leaves the value alone.
std::optional<uint32_t> check(const Bits& vec) {
    uint32_t value = 0xDEADBEEF;
    const int result = ovc_check_vector(vec.data(), &value);
    EXPECT_TRUE(result == 0 || (result == -1 && value == 0xDEADBEEF)) << to_text(vec);
    if (result != 0) return std::nullopt;
    return value;
}

Bits crc(const Bits& bits) {
    Bits out(16, 0x5a);
    ovc_crc(bits.data(), static_cast<int32_t>(bits.size()), out.data());
    return out;
}

Bits encode(const std::string& call) {
    Bits chips(OVC_CHIPS, 0x5a);
    EXPECT_EQ(ovc_encode(call.c_str(), chips.data(), nullptr), 0) << call;
    return chips;
}

uint32_t random_value(Random& random) {
    return static_cast<uint32_t>(random.next() % (OVC_MAX_CALL + 1ULL));
}

// A callsign anywhere in what a frame can carry, plausible or not.
std::string random_call(Random& random) {
    for (;;) {
        const std::string call = model_unpack(random_value(random));
        if (suffix_has_no_gap(call)) return call;
    }
}

// ---- Normalisation -------------------------------------------------------------------------------------------------

struct Example {
    std::string text, normalized;
    int result;
};

TEST(Normalisation, BringsTypedCallsignsIntoSixCharacters) {
    const std::vector<Example> examples = {
        {"qq0xyz", "QQ0XYZ", 0},   {"QQ0XYZ", "QQ0XYZ", 0},
        {"Q1XYZ", " Q1XYZ", 0},    {"A1", " A1   ", 0},
        {" QQ0 X", "QQ0   ", 0},   {"   qq0x   ", "QQ0X  ", 0},
        {"QQ0XYZ W", "QQ0XYZ", 0}, {"QQ0XYZ  anything / at all that follows", "QQ0XYZ", 0},
        {"1A2", "1A2   ", 0},      {"K1A", " K1A  ", 0},
        {"K10", "K10   ", 0},  // the third character is a digit, so nothing is put in front
        {"A11A", "A11A  ", 0},     {"999ZZZ", "999ZZZ", 0},
    };
    for (const Example& example : examples) {
        const Normalized got = normalize(example.text);
        EXPECT_EQ(got.result, example.result) << '"' << example.text << '"';
        EXPECT_EQ(got.out, example.normalized + '\0') << '"' << example.text << '"';
    }
}

TEST(Normalisation, WritesTheFormOfTextsThatThePackerThenRefuses) {
    const std::vector<Example> examples = {
        {"A", " A    ", -1},      {"a", " A    ", -1},      {"1", " 1    ", -1},       {"AB", " AB   ", -1},
        {"ABC", " ABC  ", -1},    {"ABCDE", " ABCDE", -1},  {"/", " /    ", -1},       {"A/1", "A/1   ", -1},
        {"QQ0/P", "QQ0/P ", -1},  {"QQ0XY/", "QQ0XY/", -1}, {"12345", "12345 ", -1},   {"123456", "123456", -1},
        {"QQ0X1", "QQ0X1 ", -1},  {"Q1X-Z", " Q1X-Z", -1},  {"\tQQ0X", " \tQQ0X", -1}, {"QQ0X\n", "QQ0X\n ", -1},
        {"/Q0XYZ", "/Q0XYZ", -1},
    };
    for (const Example& example : examples) {
        const Normalized got = normalize(example.text);
        EXPECT_EQ(got.result, example.result) << '"' << example.text << '"';
        EXPECT_EQ(got.out, example.normalized + '\0') << '"' << example.text << '"';
    }
}

TEST(Normalisation, LeavesTheOutputAloneWhenNothingFits) {
    for (const std::string text : {"", " ", "        ",              // nothing there
                                   "QQ0XYZW", "QQQ0XYZ", "1234567",  // seven characters, whatever they are
                                   "QQ0XYZ/", "ABCDEFG", "AB1CDEF",  //
                                   "ABCDEF", "Q1WXYZ", "AB/1CD",     // six without a digit third
                                   "QQ0XYZWW", " QQ0XYZWW", "WWQQ0XYZ"}) {
        const Normalized got = normalize(text);
        EXPECT_EQ(got.result, -1) << '"' << text << '"';
        EXPECT_EQ(got.out, UNTOUCHED) << '"' << text << '"';
    }
    const Normalized endless = normalize(std::string(100000, 'A'));
    EXPECT_EQ(endless.result, -1);
    EXPECT_EQ(endless.out, UNTOUCHED);
    EXPECT_EQ(normalize(std::string(100000, ' ') + "QQ0XYZ").out, std::string("QQ0XYZ") + '\0');
}

void expect_normalizes_like_the_model(const std::string& text) {
    const Normalized got = normalize(text);
    const std::optional<std::string> expected = model_normalize(text);
    ASSERT_EQ(got.out, expected ? *expected + '\0' : UNTOUCHED) << '"' << text << '"';
    ASSERT_EQ(got.result, expected && model_pack(*expected) ? 0 : -1) << '"' << text << '"';
}

TEST(Normalisation, EqualsTheModelOnAllShortTextsOverAFewCharacters) {
    const std::string some = " aZ7/";
    std::vector<std::string> texts = {""};
    for (std::size_t done = 0; done < texts.size(); ++done) {
        ASSERT_NO_FATAL_FAILURE(expect_normalizes_like_the_model(texts[done]));
        if (texts[done].size() == 8 || (texts[done].size() == 7 && done % 7 != 0)) continue;
        for (const char c : some) texts.push_back(texts[done] + c);
    }
    EXPECT_GT(texts.size(), 100000U);
}

TEST(Normalisation, TakesEveryByteAtEveryPlace) {
    for (const std::string base : {"QQ0XYZ", "Q1XYZ", "A1", "A", "QQ0XYZ W"}) {
        for (std::size_t place = 0; place <= base.size(); ++place) {
            for (int byte = 1; byte < 256; ++byte) {
                std::string changed = base;
                if (place < base.size()) {
                    changed[place] = static_cast<char>(byte);
                } else {
                    changed += static_cast<char>(byte);
                }
                ASSERT_NO_FATAL_FAILURE(expect_normalizes_like_the_model(changed)) << "byte " << byte;
            }
        }
    }
}

TEST(Normalisation, RefusesEveryTextWithASlashInTheCallsign) {
    Random random(3);
    for (int round = 0; round < 2000; ++round) {
        std::string text = random_call(random);
        text.erase(0, text.find_first_not_of(' '));
        text.erase(text.find_last_not_of(' ') + 1);
        text.insert(static_cast<std::size_t>(random.integer(0, static_cast<int32_t>(text.size()))), "/");
        EXPECT_EQ(normalize(text).result, -1) << text;
    }
}

// ---- Packing -------------------------------------------------------------------------------------------------------

TEST(Callsigns, PackToTheirNumbers) {
    EXPECT_EQ(pack("QQ0XYZ"), 123627437U);
    EXPECT_EQ(pack(" A1   "), 19683U);
    EXPECT_EQ(pack(" A0   "), 0U);
    EXPECT_EQ(pack("999ZZZ"), 262177559U);
    EXPECT_EQ(OVC_MAX_CALL, 262177559U);
    EXPECT_EQ(pack("AA0   "), 7085880U);
    EXPECT_EQ(pack("0A0   "), 191318760U);
    EXPECT_EQ(pack(" A0 A "), 27U);  // a gap in the suffix packs, and is refused when it is unpacked
}

TEST(Callsigns, AreRefusedForAnyCharacterOutOfPlace) {
    for (const std::string base : {"QQ0XYZ", " Q1XYZ", "A11   ", "999ZZZ", " A0   "}) {
        ASSERT_TRUE(pack(base));
        for (std::size_t place = 0; place < 6; ++place) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string changed = base;
                changed[place] = static_cast<char>(byte);
                ASSERT_EQ(pack(changed), model_pack(changed)) << '"' << changed << "\", byte " << byte;
            }
        }
    }
    EXPECT_FALSE(pack("qq0xyz"));  // only normalisation turns letters into capitals
}

TEST(Callsigns, UnpackToTheirText) {
    char out[8] = "???????";
    EXPECT_EQ(ov_unpack_call(262177559, out), 0);
    EXPECT_STREQ(out, "999ZZZ");
    EXPECT_EQ(ov_unpack_call(123627437, out), 0);
    EXPECT_STREQ(out, "QQ0XYZ");
    EXPECT_EQ(ov_unpack_call(0, out), 0);
    EXPECT_STREQ(out, " A0   ");
    EXPECT_EQ(ov_unpack_call(19683, out), 0);
    EXPECT_STREQ(out, " A1   ");
    EXPECT_EQ(ov_unpack_call(7085879, out), 0);
    EXPECT_STREQ(out, " 99ZZZ");
    EXPECT_EQ(ov_unpack_call(7085880, out), 0);
    EXPECT_STREQ(out, "AA0   ");
    EXPECT_EQ(ov_unpack_call(191318759, out), 0);
    EXPECT_STREQ(out, "Z99ZZZ");
    EXPECT_EQ(ov_unpack_call(191318760, out), 0);
    EXPECT_STREQ(out, "0A0   ");
}

TEST(Callsigns, NothingIsWrittenForNumbersThatAreNone) {
    for (const uint32_t value :
         {262177560U, 262177561U, 268435455U, 268435456U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        std::string out = UNTOUCHED;
        EXPECT_EQ(ov_unpack_call(value, out.data()), -1) << value;
        EXPECT_EQ(out, UNTOUCHED) << value;
    }
}

TEST(Callsigns, SuffixesWithAGapAreWrittenAndRefused) {
    for (const std::string call : {"QQ0 A ", "QQ0  A", "QQ0 AB", "QQ0A B", " Q1Z Z"}) {
        const std::optional<uint32_t> value = pack(call);
        ASSERT_TRUE(value) << call;
        std::string out = UNTOUCHED;
        EXPECT_EQ(ov_unpack_call(*value, out.data()), -1) << call;
        EXPECT_EQ(out, call + '\0');
    }
}

TEST(Callsigns, AllSuffixesWithoutGapUnpack) {
    int32_t accepted = 0;
    for (uint32_t suffix = 0; suffix < 19683; ++suffix) {
        const uint32_t value = 19683U * (suffix * 7 % 13320) + suffix;
        std::string out = UNTOUCHED;
        const int result = ov_unpack_call(value, out.data());
        const std::string expected = model_unpack(value);
        ASSERT_EQ(out, expected + '\0');
        ASSERT_EQ(result, suffix_has_no_gap(expected) ? 0 : -1) << expected;
        accepted += result == 0;
    }
    EXPECT_EQ(accepted, 1 + 26 + 26 * 26 * 27);  // none, one, two or three letters
}

TEST(Callsigns, EveryPackedValueUnpacksToWhatPacksBack) {
    constexpr uint32_t STRIDE = 101;  // shares no factor with any radix, so all places take all their values
    for (uint32_t value = 0; value <= OVC_MAX_CALL; value += STRIDE) {
        char out[7];
        const int result = ov_unpack_call(value, out);
        uint32_t back = ~value;
        // Also where the text is refused for its suffix: its number is still its own.
        if (ov_pack_call(out, &back) != 0 || back != value) FAIL() << value << " \"" << out << '"';
        char again[7];
        if (result == 0 && (ov_normalize_call(out, again) != 0 || std::memcmp(out, again, 7) != 0)) {
            FAIL() << '"' << out << "\" is not its own normalised form";
        }
    }
}

TEST(Callsigns, UnpackLikeTheModelAcrossTheWholeRange) {
    Random random(4);
    for (int round = 0; round < 100000; ++round) {
        const uint32_t value = random_value(random);
        std::string out = UNTOUCHED;
        const int result = ov_unpack_call(value, out.data());
        const std::string expected = model_unpack(value);
        ASSERT_EQ(out, expected + '\0') << value;
        ASSERT_EQ(result, suffix_has_no_gap(expected) ? 0 : -1) << value;
    }
}

// ---- Tables --------------------------------------------------------------------------------------------------------

TEST(EncoderTables, WalshWordsAreParitiesOfRowAndColumn) {
    ASSERT_EQ(OVC_WALSH.size(), 8U);
    for (unsigned row = 0; row < 8; ++row) {
        for (unsigned column = 0; column < 7; ++column) {
            EXPECT_EQ(OVC_WALSH[row][column], __builtin_popcount(row & (column + 1)) % 2) << row << ' ' << column;
        }
        EXPECT_EQ(to_text(Bits(OVC_WALSH[row].begin(), OVC_WALSH[row].end())), WALSH_ROWS[row]);
    }
}

TEST(EncoderTables, WalshWordsAddUpAndLieFourApart) {
    for (unsigned a = 0; a < 8; ++a) {
        for (unsigned b = 0; b < 8; ++b) {
            int distance = 0;
            for (unsigned column = 0; column < 7; ++column) {
                EXPECT_EQ(OVC_WALSH[a][column] ^ OVC_WALSH[b][column], OVC_WALSH[a ^ b][column]);
                distance += OVC_WALSH[a][column] != OVC_WALSH[b][column];
            }
            EXPECT_EQ(distance, a == b ? 0 : 4);
        }
    }
}

TEST(EncoderTables, WhiteningSequence) {
    EXPECT_EQ(to_text(Bits(OVC_PSEUDO.begin(), OVC_PSEUDO.end())), WHITENING);
}

// ---- Checksum ------------------------------------------------------------------------------------------------------

TEST(Checksum, OfNothingReplacesBothZeroBytes) {
    EXPECT_EQ(to_text(crc({})), "0001101100101011");  // 27, 43
}

TEST(Checksum, EqualsTheModelOnRandomBitsOfEveryLength) {
    Random random(5);
    for (std::size_t length = 1; length <= 80; ++length) {
        for (int round = 0; round < 40; ++round) {
            Bits bits(length);
            for (uint8_t& bit : bits) bit = static_cast<uint8_t>(random.next() & 1);
            ASSERT_EQ(crc(bits), model_crc(bits)) << to_text(bits);
        }
    }
}

TEST(Checksum, TakesEveryNonzeroByteAsAOne) {
    Random random(6);
    for (int round = 0; round < 300; ++round) {
        Bits plain(28);
        Bits odd(28);
        for (std::size_t k = 0; k < plain.size(); ++k) {
            plain[k] = static_cast<uint8_t>(random.next() & 1);
            odd[k] = plain[k] ? static_cast<uint8_t>(random.integer(1, 255)) : uint8_t{0};
        }
        EXPECT_EQ(crc(odd), crc(plain));
    }
}

struct ZeroBytes {
    std::set<uint32_t> low, high, high_of_second;  // packed values
};

// Packed values whose checksums have a zero byte before it is replaced: one of 256 each.
ZeroBytes find_zero_bytes() {
    ZeroBytes found;
    Random random(14);
    for (int round = 0; round < 4000; ++round) {
        const uint32_t value = random_value(random);
        const Bits covered = model_covered(value);
        const uint32_t first = model_crc_register(Bits(covered.begin(), covered.begin() + 28));
        if (first % 256 == 0) found.low.insert(value);
        if (first / 256 == 0) found.high.insert(value);
        if (model_crc_register(covered) / 256 == 0) found.high_of_second.insert(value);
    }
    return found;
}

TEST(Checksum, ZeroBytesAreReplaced) {
    const ZeroBytes found = find_zero_bytes();
    ASSERT_GE(found.low.size(), 3U);
    ASSERT_GE(found.high.size(), 3U);
    ASSERT_GE(found.high_of_second.size(), 3U);
    for (const uint32_t value : found.low) EXPECT_EQ(to_text(build(value)).substr(32, 8), "00011011") << value;
    for (const uint32_t value : found.high) EXPECT_EQ(to_text(build(value)).substr(40, 8), "00101011") << value;
    for (const uint32_t value : found.high_of_second) EXPECT_EQ(to_text(build(value)).substr(48), "011") << value;
    for (const auto* values : {&found.low, &found.high, &found.high_of_second}) {
        for (const uint32_t value : *values) EXPECT_EQ(check(build(value)), value);
    }
}

// ---- Message vector ------------------------------------------------------------------------------------------------

TEST(MessageVector, WorkedExample) {
    EXPECT_EQ(to_text(build(123627437)), "000001110101111001100111101011011110000100100111100");
    EXPECT_EQ(check(build(123627437)), 123627437U);
}

TEST(MessageVector, EqualsTheModel) {
    Random random(7);
    for (int round = 0; round < 3000; ++round) {
        const uint32_t value = random_value(random);
        ASSERT_EQ(build(value), model_vector(value)) << value;
    }
    for (const uint32_t value : {0U, 1U, 262177559U, 262177560U, 268435455U}) {
        EXPECT_EQ(build(value), model_vector(value)) << value;
    }
}

TEST(MessageVector, CarriesTheLowest28BitsOfANumber) {
    EXPECT_EQ(build(0xF0000000U | 123627437U), build(123627437));
    EXPECT_EQ(build(0xFFFFFFFFU), build(0x0FFFFFFFU));
}

TEST(MessageVector, ChecksForEveryNumberThatFits) {
    constexpr uint32_t STRIDE = 9973;
    for (uint32_t value = 0; value < 1U << 28; value += STRIDE) {
        uint8_t vec[OVC_VECTOR_BITS];
        ovc_build_vector(value, vec);
        uint32_t back = ~value;
        ASSERT_EQ(ovc_check_vector(vec, &back), 0) << value;
        ASSERT_EQ(back, value);
    }
}

TEST(MessageVector, AnyChangedByteIsRefused) {
    Random random(8);
    for (int round = 0; round < 12; ++round) {
        const uint32_t value = round == 0   ? 123627437
                               : round == 1 ? 0
                               : round == 2 ? OVC_MAX_CALL
                                            : random_value(random);
        const Bits vec = build(value);
        for (std::size_t place = 0; place < vec.size(); ++place) {
            for (int byte = 0; byte < 256; ++byte) {
                Bits changed = vec;
                changed[place] = static_cast<uint8_t>(byte);
                ASSERT_EQ(check(changed).has_value(), byte == vec[place])
                    << value << ", place " << place << ' ' << byte;
            }
        }
    }
}

TEST(MessageVector, AnyFlippedBitOfManyCallsignsIsRefused) {
    Random random(9);
    std::vector<uint32_t> values;
    for (int round = 0; round < 1000; ++round) values.push_back(random_value(random));
    // Where a replaced byte might hide a change.
    const ZeroBytes found = find_zero_bytes();
    for (const auto* more : {&found.low, &found.high, &found.high_of_second}) {
        values.insert(values.end(), more->begin(), more->end());
    }
    for (const uint32_t value : values) {
        Bits vec = build(value);
        for (uint8_t& bit : vec) {
            bit ^= 1;
            ASSERT_FALSE(check(vec)) << value;
            bit ^= 1;
        }
    }
}

// ---- Frame ---------------------------------------------------------------------------------------------------------

TEST(Encoder, WorkedExample) {
    Bits chips(OVC_CHIPS, 0x5a);
    char normalised[7] = "??????";
    ASSERT_EQ(ovc_encode("qq0xyz", chips.data(), normalised), 0);
    EXPECT_STREQ(normalised, "QQ0XYZ");
    EXPECT_EQ(to_text(chips).substr(0, 28), "1010110101010100101010101101");
    EXPECT_EQ(chips, model_chips(123627437));
}

TEST(Encoder, EqualsTheModel) {
    Random random(10);
    for (int round = 0; round < 1000; ++round) {
        const std::string call = random_call(random);
        const std::optional<std::string> form = model_normalize(call);
        ASSERT_TRUE(form) << call;
        const std::optional<uint32_t> value = model_pack(*form);
        ASSERT_TRUE(value) << call;
        Bits chips(OVC_CHIPS, 0x5a);
        std::string normalised = UNTOUCHED;
        ASSERT_EQ(ovc_encode(call.c_str(), chips.data(), normalised.data()), 0) << call;
        EXPECT_EQ(normalised, call + '\0');
        ASSERT_EQ(chips, model_chips(*value)) << call;
    }
}

TEST(Encoder, EveryFrameHasOneChipOnInEachPair) {
    Random random(11);
    for (int round = 0; round < 500; ++round) {
        const Bits chips = encode(random.callsign());
        ASSERT_EQ(chips.size(), 239U);
        EXPECT_EQ(chips[0], 1);
        EXPECT_EQ(std::count(chips.begin(), chips.end(), 1), 120);
        for (std::size_t pair = 0; pair < 119; ++pair) {
            ASSERT_LE(chips[1 + 2 * pair], 1);
            ASSERT_EQ(chips[1 + 2 * pair] + chips[2 + 2 * pair], 1) << "pair " << pair;
        }
    }
}

TEST(Encoder, FourZeroBitsFixTheFirstGroupAndHalveTheSecond) {
    Random random(12);
    for (int round = 0; round < 200; ++round) {
        const Bits chips = encode(random.callsign());
        std::string first;
        std::string second;
        for (std::size_t j = 0; j < 7; ++j) {
            first += chips[2 + 2 * (17 * j)] ? '1' : '0';
            second += chips[2 + 2 * (17 * j + 1)] ? '1' : '0';
        }
        EXPECT_EQ(first, WALSH_ROWS[7]);
        EXPECT_LT(std::find(WALSH_ROWS.begin(), WALSH_ROWS.end(), second) - WALSH_ROWS.begin(), 4);
    }
}

TEST(Encoder, LeavesItsOutputsAloneWhenItRefuses) {
    for (const std::string text : {"", "   ", "A", "AB", "ABC", "Q1WXYZ", "QQ0XYZW", "QQ0/P", "123456", "QQ0XY1",
                                   "\xc4\xd6\xdc", "QQ0X\xff", "GB50ABC", "QQ0XYZ\t"}) {
        Bits chips(OVC_CHIPS, 0x5a);
        std::string normalised = UNTOUCHED;
        EXPECT_EQ(ovc_encode(text.c_str(), chips.data(), normalised.data()), -1) << text;
        EXPECT_EQ(chips, Bits(OVC_CHIPS, 0x5a)) << text;
        EXPECT_EQ(normalised, UNTOUCHED) << text;
        EXPECT_EQ(ovc_encode(text.c_str(), chips.data(), nullptr), -1) << text;
        EXPECT_EQ(chips, Bits(OVC_CHIPS, 0x5a)) << text;
    }
}

TEST(Encoder, ATypedCallsignEndsAtItsFirstBlank) {
    EXPECT_EQ(encode("QQ0 AB"), encode("QQ0"));
    EXPECT_EQ(encode("QQ0A B"), encode("QQ0A"));
    EXPECT_NE(encode("QQ0A"), encode("QQ0"));
}

// ---- Known callsigns -----------------------------------------------------------------------------------------------

ovc_known filled_entry() {
    ovc_known entry;
    std::memset(&entry, 0x5a, sizeof entry);
    return entry;
}

TEST(KnownCallsign, HoldsBothTexts) {
    struct KnownExample {
        std::string typed, call, display;
    };
    for (const KnownExample& example : {KnownExample{"QQ0XYZ", "QQ0XYZ", "QQ0XYZ"},
                                        {"Q1XYZ", " Q1XYZ", "Q1XYZ"},
                                        {"a1", " A1   ", "A1"},
                                        {"qq0x", "QQ0X  ", "QQ0X"},
                                        {" k1ab W", " K1AB ", "K1AB"}}) {
        ovc_known entry = filled_entry();
        ASSERT_EQ(ovc_known_init(example.typed.c_str(), &entry), 0) << example.typed;
        EXPECT_EQ(std::string(entry.call, 7), example.call + '\0');
        EXPECT_STREQ(entry.display, example.display.c_str());
        EXPECT_TRUE(
            std::all_of(entry.display + example.display.size(), entry.display + 7, [](char c) { return c == 0; }));
    }
}

TEST(KnownCallsign, SignsAreTheSecondChipsOfThePairs) {
    Random random(13);
    for (int round = 0; round < 200; ++round) {
        const std::string call = random.callsign();
        ovc_known entry = filled_entry();
        ASSERT_EQ(ovc_known_init(call.c_str(), &entry), 0) << call;
        const Bits chips = encode(call);
        ASSERT_TRUE(std::equal(chips.begin(), chips.end(), entry.chips)) << call;
        for (std::size_t pair = 0; pair < 119; ++pair) {
            ASSERT_EQ(entry.signs[pair], chips[2 + 2 * pair] ? 1 : -1) << call << ", pair " << pair;
        }
    }
}

TEST(KnownCallsign, AnUnusableOneLeavesAnEmptyEntry) {
    for (const std::string text : {"", "AB", "Q1WXYZ", "QQ0/P", "QQ0XYZW"}) {
        ovc_known entry = filled_entry();
        EXPECT_EQ(ovc_known_init(text.c_str(), &entry), -1) << text;
        std::vector<char> bytes(sizeof entry);
        std::memcpy(bytes.data(), &entry, sizeof entry);
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == 0; })) << text;
    }
}

}  // namespace
