// ORVEL messages, frames and soft bits against plain models: one bit at a time, one parity check at a time, and a
// Bessel function summed term by term.
#include "orvel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ldpc_tables.h"
#include "liborvel.h"
#include "ovcenc.h"
#include "siggen.h"

namespace {

using Bits = std::vector<uint8_t>;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();
constexpr float INF_F = std::numeric_limits<float>::infinity();

// ---- Models ------------------------------------------------------------------------------------------------------

struct ModeModel {
    int32_t mode;
    std::size_t k, n;
    uint32_t crc_start, whitening_seed;
};
constexpr ModeModel S = {0, 44, 119, 0xFFFF, 370081};
constexpr ModeModel L = {1, 69, 160, 0x1D0F, 246727};

void append(Bits& bits, uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) bits.push_back(static_cast<uint8_t>(value >> i & 1));
}

// The register as sixteen cells, cell 15 in front: x^16 + x^12 + x^5 + 1.
uint32_t crc_model(const Bits& bits, uint32_t start) {
    std::array<bool, 16> cell;
    for (std::size_t i = 0; i < 16; ++i) cell[i] = (start >> i & 1) != 0;
    for (const uint8_t bit : bits) {
        const bool feedback = cell[15] != (bit != 0);
        for (std::size_t i = 15; i > 0; --i) cell[i] = cell[i - 1];
        cell[0] = feedback;
        cell[5] = cell[5] != feedback;
        cell[12] = cell[12] != feedback;
    }
    uint32_t crc = 0;
    for (std::size_t i = 0; i < 16; ++i) crc |= static_cast<uint32_t>(cell[i]) << i;
    return crc;
}

// The sequence by its recurrence: the first twenty outputs are the seed, lowest bit first.
Bits whitening_model(uint32_t seed, std::size_t count) {
    Bits out;
    for (int i = 0; i < 20; ++i) out.push_back(static_cast<uint8_t>(seed >> i & 1));
    while (out.size() < count) {
        const std::size_t i = out.size() - 20;
        out.push_back(out[i] ^ out[i + 2] ^ out[i + 3] ^ out[i + 5]);
    }
    out.resize(count);
    return out;
}

// Message bits as they are sent, from packed fields and any start of the CRC.
Bits message_model(const ModeModel& mode, uint32_t call, uint32_t locator, uint32_t crc_start) {
    Bits bits;
    append(bits, call, 28);
    if (mode.mode != 0) append(bits, locator, 25);
    append(bits, crc_model(bits, crc_start), 16);
    const Bits white = whitening_model(mode.whitening_seed, mode.k);
    for (std::size_t i = 0; i < bits.size(); ++i) bits[i] ^= white[i];
    return bits;
}

uint32_t packed_call(const std::string& call) {
    char normalised[7];
    uint32_t value = 0;
    EXPECT_EQ(ov_normalize_call(call.c_str(), normalised), 0) << call;
    EXPECT_EQ(ov_pack_call(normalised, &value), 0) << call;
    return value;
}

// Packed locator, digit by digit of the mixed radix; nothing when it is refused.
std::optional<uint32_t> locator_model(const std::string& text) {
    if (text.size() != 4 && text.size() != 6) return std::nullopt;
    uint32_t value = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        const char first = i / 2 == 1 ? '0' : 'A';
        const char last = i / 2 == 0 ? 'R' : i / 2 == 1 ? '9' : 'X';
        if (c < first || c > last) return std::nullopt;
        const auto digit = static_cast<uint32_t>(c - first);
        if (i < 4) value = value * (i < 2 ? 18 : 10) + digit;
        if (i == 3) value *= 577;
        if (i == 4) value += digit * 24 + 1;
        if (i == 5) value += digit;
    }
    return value;
}

// Coded bits of a frame's chips; the test fails where the chips are not Manchester pairs after a leading 1.
Bits coded_bits(const std::vector<uint8_t>& chips, std::size_t n) {
    EXPECT_EQ(chips.size(), 2 * n + 1);
    EXPECT_EQ(chips[0], 1);
    Bits bits;
    for (std::size_t i = 0; i < n; ++i) {
        const uint8_t first = chips[2 * i + 1];
        const uint8_t second = chips[2 * i + 2];
        EXPECT_TRUE((first == 0 && second == 1) || (first == 1 && second == 0)) << "pair " << i;
        bits.push_back(second);
    }
    return bits;
}

int32_t violated_checks(const ModeModel& mode, const Bits& coded) {
    const uint8_t* degree = mode.mode == 0 ? OVS_CHECK_DEG.data() : OVL_CHECK_DEG.data();
    const uint8_t* variable = mode.mode == 0 ? OVS_CHECK_VAR.data() : OVL_CHECK_VAR.data();
    int32_t violated = 0;
    for (std::size_t check = 0; check < mode.n - mode.k; ++check) {
        int parity = 0;
        for (int i = 0; i < degree[check]; ++i) parity ^= coded[*variable++];
        violated += parity;
    }
    return violated;
}

Bits at_pivots(const ModeModel& mode, const Bits& coded) {
    const uint8_t* pivot = mode.mode == 0 ? OVS_PIVOT.data() : OVL_PIVOT.data();
    Bits bits;
    for (std::size_t i = 0; i < mode.k; ++i) bits.push_back(coded[pivot[i]]);
    return bits;
}

std::vector<uint8_t> encode(int32_t mode, const std::string& call, const char* locator) {
    std::vector<uint8_t> chips(mode != 0 ? 321 : 239, 7);
    EXPECT_EQ(ov_encode(mode, call.c_str(), locator, chips.data()), 0) << call;
    return chips;
}

Bits encoded_message(const ModeModel& mode, const std::string& call, const char* locator) {
    return at_pivots(mode, coded_bits(encode(mode.mode, call, locator), mode.n));
}

struct Checked {
    int result = 0;
    std::string call, locator;
    bool operator==(const Checked&) const = default;
};
Checked check(int32_t mode, const Bits& bits) {
    char call[7] = "######";
    char locator[7] = "######";
    Checked out;
    out.result = ov_check(mode, bits.data(), call, locator);
    if (out.result != 0) return out;
    out.call = call;
    out.locator = locator;
    return out;
}

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string random_locator(Random& random) {
    std::string text;
    const bool with_subsquare = random.integer(0, 1) == 1;
    for (int i = 0; i < 2; ++i) text += static_cast<char>('A' + random.integer(0, 17));
    for (int i = 0; i < 2; ++i) text += static_cast<char>('0' + random.integer(0, 9));
    for (int i = 0; with_subsquare && i < 2; ++i) text += static_cast<char>('A' + random.integer(0, 23));
    return text;
}

// ---- Sizes and codes ---------------------------------------------------------------------------------------------

TEST(OrvelSizes, FollowFromTheMode) {
    EXPECT_EQ(ov_kbits(0), 44);
    EXPECT_EQ(ov_ncoded(0), 119);
    for (const int32_t mode : {1, 2, -1, 77}) {
        EXPECT_EQ(ov_kbits(mode), 69);
        EXPECT_EQ(ov_ncoded(mode), 160);
    }
}

TEST(OrvelSizes, OnlySingleProtocolsHaveChips) {
    for (uint32_t proto = 0; proto < 300; ++proto) {
        const int32_t expected = proto == 1 || proto == 2 ? 239 : proto == 4 ? 321 : 0;
        EXPECT_EQ(frame_chips(proto), expected) << proto;
        EXPECT_EQ(ovl_frame_chips(proto), expected) << proto;
    }
    for (const uint32_t proto : {0x101u, 0x10002u, 0x80000004u, 0xFFFFFFFFu}) EXPECT_EQ(frame_chips(proto), 0);
}

TEST(OrvelCodes, EveryModeButZeroIsL) {
    EXPECT_EQ(ov_code(0).n, 119);
    EXPECT_EQ(ov_code(0).k, 44);
    EXPECT_EQ(ov_code(0).m, 75);
    EXPECT_EQ(ov_code(1).n, 160);
    EXPECT_EQ(ov_code(1).k, 69);
    EXPECT_EQ(ov_code(1).m, 91);
    EXPECT_EQ(&ov_code(2), &ov_code(1));
    EXPECT_EQ(&ov_code(-1), &ov_code(1));
    EXPECT_EQ(&ov_code(0), &ov_code(0));
}

// In a child that runs this test alone, so that nothing has loaded the codes before.
TEST(OrvelCodes, LoadOnceWhenManyThreadsAskFirst) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto race = [] {
        constexpr std::size_t N = 8;
        std::latch start(N);
        std::array<const ldpc_code*, N> seen{};
        std::array<int, N> result{};
        std::array<std::array<uint8_t, 321>, N> chips{};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < N; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                result[i] = ov_encode(1, "QQ0XYZ", "JJ00AA", chips[i].data());
                seen[i] = &ov_code(0);
            });
        }
        for (std::thread& thread : threads) thread.join();
        bool same = true;
        for (std::size_t i = 0; i < N; ++i) {
            same = same && result[i] == 0 && seen[i] == seen[0] && chips[i] == chips[0];
        }
        const Bits coded = coded_bits({chips[0].begin(), chips[0].end()}, L.n);
        std::exit(same && violated_checks(L, coded) == 0 ? 42 : 1);
    };
    EXPECT_EXIT(race(), testing::ExitedWithCode(42), "");
}

constexpr ov_code_tables S_TABLES = {
    119, 44, OVS_CHECK_DEG.data(), OVS_CHECK_VAR.data(), OVS_G.data(), OVS_PIVOT.data()};
constexpr ov_code_tables L_TABLES = {
    160, 69, OVL_CHECK_DEG.data(), OVL_CHECK_VAR.data(), OVL_G.data(), OVL_PIVOT.data()};

TEST(OrvelCodes, GoodTablesLoad) {
    std::array<ldpc_code, 2> codes;
    ov_load_codes(S_TABLES, L_TABLES, codes);
    EXPECT_EQ(codes[0].n, 119);
    EXPECT_EQ(codes[1].n, 160);
    const Bits coded = coded_bits(encode(0, "QQ0XYZ", nullptr), S.n);
    EXPECT_EQ(ldpc_syndrome_weight(codes[0], coded.data()), 0);
}

TEST(OrvelCodes, BrokenTablesEndTheProcess) {
    std::array<ldpc_code, 2> codes;
    const auto broken_by = [](ov_code_tables tables, auto change) {
        change(tables);
        return tables;
    };
    // One variable in every check of the code.
    static constexpr std::array<uint8_t, 75> one_each = [] {
        std::array<uint8_t, 75> degrees{};
        degrees.fill(1);
        return degrees;
    }();
    static constexpr std::array<uint8_t, 75> always_the_same = {};
    const std::vector<ov_code_tables> bad = {
        broken_by(S_TABLES, [](ov_code_tables& t) { t.n = 0; }),
        broken_by(S_TABLES, [](ov_code_tables& t) { t.n = 193; }),
        broken_by(S_TABLES, [](ov_code_tables& t) { t.k = 119; }),
        broken_by(S_TABLES,
                  [](ov_code_tables& t) {
                      t.check_degree = one_each.data();
                      t.check_vars = always_the_same.data();
                  }),
    };
    for (const ov_code_tables& tables : bad) {
        EXPECT_EXIT(ov_load_codes(tables, L_TABLES, codes), testing::ExitedWithCode(3),
                    "^orvel: invalid LDPC tables\n$");
        EXPECT_EXIT(ov_load_codes(S_TABLES, tables, codes), testing::ExitedWithCode(3),
                    "^orvel: invalid LDPC tables\n$");
    }
}

// ---- Locators ----------------------------------------------------------------------------------------------------

std::optional<uint32_t> pack(const std::string& text) {
    uint32_t value = 0xDEADBEEF;
    if (ov_pack_loc(text.c_str(), &value) != 0) {
        EXPECT_EQ(value, 0xDEADBEEF) << text;
        return std::nullopt;
    }
    return value;
}

TEST(Locators, WorkedValues) {
    EXPECT_EQ(pack("JJ00AA"), 9866701u);
    EXPECT_EQ(pack("jj00aa"), 9866701u);
    EXPECT_EQ(pack("AA00"), 0u);
    EXPECT_EQ(pack("AA00AA"), 1u);
    EXPECT_EQ(pack("AA01"), 577u);
    EXPECT_EQ(pack("RR99"), 18694799u - 576u);
    EXPECT_EQ(pack("RR99XX"), 18694799u);
    EXPECT_EQ(OV_MAX_LOC, 18694799u);
}

TEST(Locators, LetterBeyondTheAlphabetOrWrongLengthIsRefused) {
    for (const char* text : {"AS00",
                             "SA00",
                             "SS00",
                             "AAA0",
                             "AA0A",
                             "AA00AY",
                             "AA00YA",
                             "AA0000",
                             "00AA",
                             "",
                             "A",
                             "AA",
                             "AA0",
                             "AA00A",
                             "AA00AA0",
                             "AA00AAA",
                             "AA00 ",
                             " AA00",
                             "AA 00",
                             "AA00  ",
                             "  AA00",
                             "AA00\xC3\x84",
                             "\xC3\x84"
                             "00",
                             "JJ00AAJJ00AAJJ00AAJJ00AAJJ00AAJJ00AA"})
        EXPECT_EQ(pack(text), std::nullopt) << text;
}

TEST(Locators, EveryByteInEveryPlaceFollowsTheAlphabets) {
    for (const std::string base : {"JK57", "JK57LM"}) {
        for (std::size_t place = 0; place < base.size(); ++place) {
            for (int byte = 1; byte < 256; ++byte) {
                std::string text = base;
                text[place] = static_cast<char>(byte);
                EXPECT_EQ(pack(text), locator_model(text)) << place << " byte " << byte;
            }
        }
    }
}

TEST(Locators, RandomTextsOfEveryLengthFollowTheAlphabets) {
    const std::array<std::string, 3> likely = {"ARSar", "0189:", "AXYax"};
    Random random(1);
    int packed = 0;
    for (int trial = 0; trial < 20000; ++trial) {
        std::string text;
        const auto length = static_cast<std::size_t>(random.integer(0, 9));
        for (std::size_t i = 0; i < length; ++i) {
            const std::string& letters = likely[i / 2 % 3];
            text += random.integer(0, 20) == 0 ? static_cast<char>(random.integer(1, 255))
                                               : letters[static_cast<std::size_t>(random.integer(0, 4))];
        }
        const auto expected = locator_model(text);
        EXPECT_EQ(pack(text), expected) << text;
        packed += expected.has_value() ? 1 : 0;
    }
    EXPECT_GT(packed, 500);
}

TEST(Locators, EveryValueUnpacksToWhatPacksBack) {
    const auto round_trip = [](uint32_t value) {
        char text[9] = "########";
        if (ov_unpack_loc(value, text) != 0) return false;
        const std::size_t length = value % 577 == 0 ? 4 : 6;
        uint32_t back = 0;
        return std::strlen(text) == length && text[length + 1] == '#' && ov_pack_loc(text, &back) == 0 &&
               back == value && upper(text) == text && locator_model(text) == value;
    };
    for (uint32_t value = 0; value <= OV_MAX_LOC; value += 101) ASSERT_TRUE(round_trip(value)) << value;
    for (uint32_t value = 0; value <= OV_MAX_LOC; value += 577) ASSERT_TRUE(round_trip(value)) << value;
    for (uint32_t value = OV_MAX_LOC - 1200; value <= OV_MAX_LOC; ++value) ASSERT_TRUE(round_trip(value)) << value;
}

TEST(Locators, ValuesBeyondTheLargestAreRefusedUnwritten) {
    for (const uint32_t value : {OV_MAX_LOC + 1, (1u << 25) - 1, 1u << 31, 0xFFFFFFFFu}) {
        char text[8] = "#######";
        EXPECT_EQ(ov_unpack_loc(value, text), -1);
        EXPECT_STREQ(text, "#######");
    }
}

// ---- Message bits ------------------------------------------------------------------------------------------------

TEST(OrvelMessages, WhiteningBeginsWithTheKnownBits) {
    EXPECT_EQ(whitening_model(S.whitening_seed, 10), (Bits{1, 0, 0, 0, 0, 1, 0, 1, 1, 0}));
    EXPECT_EQ(whitening_model(L.whitening_seed, 10), (Bits{1, 1, 1, 0, 0, 0, 1, 1, 1, 1}));
    // The lowest callsign is 0 and shows the sequence itself.
    ASSERT_EQ(packed_call("A0"), 0u);
    const Bits s = encoded_message(S, "A0", nullptr);
    const Bits l = encoded_message(L, "A0", "AA00");
    EXPECT_EQ(Bits(s.begin(), s.begin() + 10), (Bits{1, 0, 0, 0, 0, 1, 0, 1, 1, 0}));
    EXPECT_EQ(Bits(l.begin(), l.begin() + 10), (Bits{1, 1, 1, 0, 0, 0, 1, 1, 1, 1}));
}

TEST(OrvelMessages, CrcModelAgreesWithTheKnownCheckValues) {
    Bits bits;
    for (const char c : std::string("123456789")) append(bits, static_cast<uint32_t>(c), 8);
    EXPECT_EQ(crc_model(bits, 0xFFFF), 0x29B1u);
    EXPECT_EQ(crc_model(bits, 0x1D0F), 0xE5CCu);
}

TEST(OrvelMessages, WorkedExampleOfS) {
    std::string text;
    for (const uint8_t bit : encoded_message(S, "QQ0XYZ", nullptr)) text += bit != 0 ? '1' : '0';
    EXPECT_EQ(text, "11110000010000111101101001110100000001100110");
    EXPECT_EQ(2 * ov_ncoded(0) + 1, 239);
}

TEST(OrvelMessages, WorkedExampleOfL) {
    Bits bits = encoded_message(L, "QQ0XYZ", "jj00aa");
    const Bits white = whitening_model(L.whitening_seed, L.k);
    uint32_t locator = 0;
    for (std::size_t i = 28; i < 53; ++i) locator = locator << 1 | (bits[i] ^ white[i]);
    EXPECT_EQ(locator, 9866701u);
    EXPECT_EQ(2 * ov_ncoded(1) + 1, 321);
    EXPECT_EQ(check(1, bits), (Checked{0, "QQ0XYZ", "JJ00AA"}));
}

TEST(OrvelMessages, FramesHoldTheMessageInACodeWord) {
    Random random(2);
    for (int trial = 0; trial < 400; ++trial) {
        const std::string call = random.callsign();
        const std::string locator = random_locator(random);
        const uint32_t value = packed_call(call);
        const Bits s = coded_bits(encode(0, call, nullptr), S.n);
        EXPECT_EQ(violated_checks(S, s), 0) << call;
        EXPECT_EQ(at_pivots(S, s), message_model(S, value, 0, S.crc_start)) << call;
        const Bits l = coded_bits(encode(1, call, locator.c_str()), L.n);
        EXPECT_EQ(violated_checks(L, l), 0) << call;
        EXPECT_EQ(at_pivots(L, l), message_model(L, value, locator_model(locator).value(), L.crc_start)) << call;
    }
}

TEST(OrvelMessages, SIgnoresTheLocator) {
    for (const char* locator : {"JJ00AA", "nonsense", ""})
        EXPECT_EQ(encode(0, "QQ0XYZ", locator), encode(0, "QQ0XYZ", nullptr));
}

TEST(OrvelMessages, OtherModesAreLWithoutALocator) {
    for (const int32_t mode : {2, 3, -1}) {
        for (const char* locator : {"JJ00AA", "nonsense", static_cast<const char*>(nullptr)}) {
            const Bits coded = coded_bits(encode(mode, "QQ0XYZ", locator), L.n);
            EXPECT_EQ(violated_checks(L, coded), 0);
            const Bits message = at_pivots(L, coded);
            EXPECT_EQ(message, message_model(L, packed_call("QQ0XYZ"), 0, L.crc_start));
            EXPECT_EQ(check(mode, message), (Checked{0, "QQ0XYZ", ""}));
            EXPECT_EQ(check(1, message), (Checked{0, "QQ0XYZ", "AA00"}));
        }
    }
}

TEST(OrvelMessages, RefusedInputLeavesTheChipsAlone) {
    const std::vector<uint8_t> untouched(321, 0xAB);
    std::vector<uint8_t> chips = untouched;
    for (const int32_t mode : {0, 1, 2}) {
        for (const char* call : {"", " ", "QQXYZ", "QQ0XYZA", "QQQ0XYZ", "0", "Q", "QQ0X1", "QQ0-YZ",
                                 "\xC3\x84"
                                 "0XYZ",
                                 "Q\xFFQ", "\x01Q0X", "QQ0XYZQQ0XYZQQ0XYZQQ0XYZ"}) {
            EXPECT_EQ(ov_encode(mode, call, "JJ00AA", chips.data()), -1) << mode << ' ' << call;
        }
    }
    EXPECT_EQ(ov_encode(1, "QQ0XYZ", nullptr, chips.data()), -1);
    for (const char* locator : {"", "AS00", "JJ00A", "JJ0", "JJ00AAA", "JJ 0", "JJ00\xC3\xA4"})
        EXPECT_EQ(ov_encode(1, "QQ0XYZ", locator, chips.data()), -1) << locator;
    EXPECT_EQ(chips, untouched);
}

TEST(OrvelMessages, SWritesNoMoreThanItsChips) {
    std::vector<uint8_t> chips(400, 0xAB);
    EXPECT_EQ(ov_encode(0, "QQ0XYZ", nullptr, chips.data()), 0);
    EXPECT_EQ(std::count(chips.begin() + 239, chips.end(), 0xAB), 161);
    EXPECT_EQ(ov_encode(1, "QQ0XYZ", "JJ00", chips.data()), 0);
    EXPECT_EQ(std::count(chips.begin() + 321, chips.end(), 0xAB), 79);
}

// ---- Check -------------------------------------------------------------------------------------------------------

TEST(OrvelCheck, GivesBackWhatWasEncoded) {
    Random random(3);
    for (int trial = 0; trial < 2000; ++trial) {
        const std::string call = random.callsign();
        const std::string locator = random_locator(random);
        EXPECT_EQ(check(0, encoded_message(S, call, nullptr)), (Checked{0, upper(call), ""}));
        EXPECT_EQ(check(1, encoded_message(L, call, locator.c_str())), (Checked{0, upper(call), locator}));
    }
}

TEST(OrvelCheck, BlanksAroundTheCallsignAreTrimmed) {
    for (const char* call : {"A1", "A1B", "Q1XYZ", "QQ0", "QQ0X", "QQ0XY", "QQ0XYZ", "1A2B", "10A", "9A9"}) {
        EXPECT_EQ(check(0, encoded_message(S, call, nullptr)), (Checked{0, call, ""}));
        EXPECT_EQ(check(1, encoded_message(L, std::string("  ") + call + " x", "rr99xx")),
                  (Checked{0, call, "RR99XX"}));
    }
}

TEST(OrvelCheck, NoWrongBitOrPairOfBitsPasses) {
    for (const ModeModel& mode : {S, L}) {
        for (const char* call : {"QQ0XYZ", "A1"}) {
            const Bits good = encoded_message(mode, call, "JJ00AA");
            for (std::size_t i = 0; i < mode.k; ++i) {
                for (std::size_t j = i; j < mode.k; ++j) {
                    Bits bad = good;
                    bad[i] ^= 1;
                    if (j != i) bad[j] ^= 1;
                    EXPECT_EQ(check(mode.mode, bad).result, -1) << i << ' ' << j;
                }
            }
        }
    }
}

TEST(OrvelCheck, TheCrcOfOneModeNeverPassesInTheOther) {
    Random random(4);
    for (int trial = 0; trial < 3000; ++trial) {
        const auto call = static_cast<uint32_t>(random.integer(0, static_cast<int32_t>(OVC_MAX_CALL)));
        const auto locator = static_cast<uint32_t>(random.integer(0, static_cast<int32_t>(OV_MAX_LOC)));
        ASSERT_EQ(check(0, message_model(S, call, 0, L.crc_start)).result, -1);
        ASSERT_EQ(check(1, message_model(L, call, locator, S.crc_start)).result, -1);
    }
}

// Of the messages of S, lengthened by any bits, as good as none passes as L.
TEST(OrvelCheck, AnSMessageIsNoLMessage) {
    Random random(5);
    int passed = 0;
    for (int trial = 0; trial < 5000; ++trial) {
        Bits bits = encoded_message(S, random.callsign(), nullptr);
        while (bits.size() < L.k) bits.push_back(static_cast<uint8_t>(random.integer(0, 1)));
        passed += check(1, bits).result == 0 ? 1 : 0;
    }
    EXPECT_LE(passed, 2);
}

TEST(OrvelCheck, ValuesThatAreNoCallsignOrLocatorAreRefused) {
    EXPECT_EQ(check(0, message_model(S, OVC_MAX_CALL, 0, S.crc_start)), (Checked{0, "999ZZZ", ""}));
    EXPECT_EQ(check(0, message_model(S, OVC_MAX_CALL + 1, 0, S.crc_start)).result, -1);
    EXPECT_EQ(check(0, message_model(S, (1u << 28) - 1, 0, S.crc_start)).result, -1);
    EXPECT_EQ(check(0, message_model(S, 1, 0, S.crc_start)).result, -1);  // a letter after a blank
    const uint32_t call = packed_call("QQ0XYZ");
    EXPECT_EQ(check(1, message_model(L, call, OV_MAX_LOC, L.crc_start)), (Checked{0, "QQ0XYZ", "RR99XX"}));
    EXPECT_EQ(check(1, message_model(L, call, OV_MAX_LOC + 1, L.crc_start)).result, -1);
    EXPECT_EQ(check(1, message_model(L, call, (1u << 25) - 1, L.crc_start)).result, -1);
    // The locator field is not read in another mode.
    EXPECT_EQ(check(2, message_model(L, call, (1u << 25) - 1, L.crc_start)), (Checked{0, "QQ0XYZ", ""}));
}

TEST(OrvelCheck, EveryPackedCallsignThatUnpacksComesBackTrimmed) {
    Random random(6);
    int good = 0;
    for (int trial = 0; trial < 20000; ++trial) {
        const auto value = static_cast<uint32_t>(random.integer(0, (1 << 28) - 1));
        char text[7] = {};
        const bool unpacks = ov_unpack_call(value, text) == 0;
        std::string trimmed = text;
        trimmed.erase(0, trimmed.find_first_not_of(' '));
        trimmed.erase(trimmed.find_last_not_of(' ') + 1);
        const Checked expected = unpacks ? Checked{0, trimmed, ""} : Checked{-1, "", ""};
        ASSERT_EQ(check(0, message_model(S, value, 0, S.crc_start)), expected) << value;
        good += unpacks ? 1 : 0;
    }
    EXPECT_GT(good, 10000);
}

// ---- Soft bits ---------------------------------------------------------------------------------------------------

// ln I0(x) by its power series Σ (x²/4)^k / k!², every term scaled by e^-x.
double ln_i0_model(double x) {
    if (x == 0) return 0;
    long double sum = 0;
    const auto big = static_cast<long double>(x);
    for (int k = 0;; ++k) {
        const long double term = std::exp(2 * k * std::log(big / 2) - 2 * std::lgamma(k + 1.0L) - big);
        sum += term;
        if (k > x && term < 1e-22L * sum) return static_cast<double>(std::log(sum) + big);
    }
}

struct Pairs {
    std::vector<float> first, second;
    int32_t size() const { return static_cast<int32_t>(first.size()); }
};

double amplitude_model(const Pairs& pairs, double noise) {
    double sum = 0;
    double count = 0;
    for (std::size_t i = 0; i < pairs.first.size(); ++i) {
        if (pairs.first[i] < 0 || pairs.second[i] < 0) continue;
        sum += std::pow((static_cast<double>(pairs.second[i]) - static_cast<double>(pairs.first[i])) / noise, 2);
        count += 1;
    }
    if (count == 0) return 0;
    return sum / count > 2 ? std::max(std::sqrt(sum / count - 1) - 1, 0.05) : 0.05;
}

struct Soft {
    double amplitude = 0;
    std::vector<float> llr;
};
Soft soft_bits(const Pairs& pairs, double noise, int32_t method) {
    Soft out;
    out.llr.assign(pairs.first.size() + 3, 77.0F);
    out.amplitude = ov_llr(pairs.first.data(), pairs.second.data(), pairs.size(), noise, out.llr.data(), method);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(out.llr.back(), 77.0F);
        out.llr.pop_back();
    }
    return out;
}

Pairs random_pairs(Random& random, std::size_t n, double noise, double signal, double missing) {
    Pairs pairs;
    for (std::size_t i = 0; i < n; ++i) {
        const bool bit = random.integer(0, 1) == 1;
        const auto energy = [&](bool on) {
            if (random.uniform(0, 1) < missing) return -1.0F;
            return static_cast<float>(noise * -std::log(random.uniform(1e-9, 1)) + (on ? signal * noise : 0.0));
        };
        pairs.first.push_back(energy(!bit));
        pairs.second.push_back(energy(bit));
    }
    return pairs;
}

TEST(SoftBits, ModelOfTheBesselFunctionAgreesWithTheLibrary) {
    for (const double x : {1e-6, 0.1, 1.0, 3.74, 3.76, 10.0, 50.0, 300.0})
        EXPECT_NEAR(ln_i0_model(x), std::log(std::cyl_bessel_i(0.0, x)), 1e-9 * (1 + x)) << x;
}

TEST(SoftBits, EqualTheModelWithMissingChipsAtAllStrengths) {
    Random random(7);
    for (const double signal : {0.0, 0.5, 1.0, 3.0, 20.0, 300.0}) {
        for (const double noise : {1.0, 3e-7, 4e5}) {
            const Pairs pairs = random_pairs(random, 160, noise, signal, 0.1);
            const double a = amplitude_model(pairs, noise);
            for (const int32_t method : {0, 1, 2, -1}) {
                const Soft soft = soft_bits(pairs, noise, method);
                EXPECT_NEAR(soft.amplitude, a, 1e-5 * a);
                for (std::size_t i = 0; i < soft.llr.size(); ++i) {
                    const auto x = static_cast<double>(pairs.first[i]) / noise;
                    const auto y = static_cast<double>(pairs.second[i]) / noise;
                    double expected = 0;
                    double close = 0;
                    if (x >= 0 && y >= 0 && method == 1) {
                        expected = (y - x) * soft.amplitude;
                        close = 1e-7 * std::abs(expected);
                    } else if (x >= 0 && y >= 0) {
                        expected = ln_i0_model(2 * std::sqrt(y * soft.amplitude)) -
                                   ln_i0_model(2 * std::sqrt(x * soft.amplitude));
                        close = 1e-6 + 1e-7 * std::abs(expected);  // two approximations to 5e-7, then a float
                    }
                    EXPECT_NEAR(soft.llr[i], expected, close) << i << " method " << method;
                }
            }
        }
    }
}

// Both sides of 3.75, where the approximation changes, and far out, where I0 itself overflows. The approximations
// promise 1.6e-7 of I0 and 1.9e-7 of √x·e^-x·I0, which is never below 0.39.
TEST(SoftBits, TheBesselMetricIsGoodOverItsWholeRange) {
    int32_t near = 0;
    for (double energy = 0.01; energy < 1e4; energy *= 1.01) {
        const Soft soft = soft_bits({{0.0F}, {static_cast<float>(energy)}}, 1.0, 0);
        const double x = 2 * std::sqrt(static_cast<double>(static_cast<float>(energy)) * soft.amplitude);
        const double exact = ln_i0_model(x);
        const double approximation = x < 3.75 ? 1.6e-7 / std::exp(exact) : 1.9e-7 / 0.39;
        EXPECT_NEAR(soft.llr[0], exact, approximation + 6e-8 * exact) << x;
        near += x > 1 && x < 3.75 ? 1 : 0;
    }
    EXPECT_GT(near, 30);
    const Soft huge = soft_bits({{0.0F}, {1e30F}}, 1.0, 0);
    EXPECT_NEAR(huge.llr[0] / 2e30F, 1.0F, 1e-6F);
}

TEST(SoftBits, NothingMeasuredGivesZeros) {
    for (const int32_t method : {0, 1}) {
        const Soft soft = soft_bits({{-1, 3, -0.5F, -1}, {-1, -1, 2, -INF_F}}, 1.0, method);
        EXPECT_EQ(soft.amplitude, 0.0);
        EXPECT_EQ(soft.llr, std::vector<float>(4, 0.0F));
    }
}

TEST(SoftBits, NoPairsWriteNothing) {
    float llr = 5;
    for (const int32_t n : {0, -1, std::numeric_limits<int32_t>::min()})
        EXPECT_EQ(ov_llr(nullptr, nullptr, n, 1.0, &llr, 0), 0.0);
    EXPECT_EQ(llr, 5.0F);
}

TEST(SoftBits, AmplitudeIsFlooredUpToAMeanSquareOfTwo) {
    // One pair of difference d: the mean square is d².
    const auto amplitude = [](double d) { return soft_bits({{0.0F}, {static_cast<float>(d)}}, 1.0, 0).amplitude; };
    EXPECT_EQ(amplitude(0), 0.05);
    EXPECT_EQ(amplitude(1.4), 0.05);
    EXPECT_EQ(amplitude(1.42), 0.05);  // √(M - 1) - 1 is still below the floor
    EXPECT_NEAR(amplitude(1.5), std::sqrt(1.25) - 1, 1e-12);
    EXPECT_NEAR(amplitude(10), std::sqrt(99.0) - 1, 1e-12);
    // A mean square of exactly 2 in two pairs.
    EXPECT_EQ(soft_bits({{0, 2}, {2, 2}}, 1.0, 1).amplitude, 0.05);
    EXPECT_EQ(soft_bits({{0, 0}, {2, 0}}, 1.0, 1).llr[0], 0.1F);
    // Noise scales the energies.
    EXPECT_NEAR(soft_bits({{0.0F}, {40.0F}}, 4.0, 0).amplitude, std::sqrt(99.0) - 1, 1e-12);
}

TEST(SoftBits, PositiveForCarrierInTheSecondChip) {
    for (const int32_t method : {0, 1}) {
        const Soft soft = soft_bits({{0, 9, 4}, {9, 0, 4}}, 1.0, method);
        EXPECT_GT(soft.llr[0], 1.0F);
        EXPECT_EQ(soft.llr[1], -soft.llr[0]);
        EXPECT_EQ(soft.llr[2], 0.0F);
    }
}

TEST(SoftBits, AnEnergyThatIsNoNumberCountsAsNotMeasured) {
    for (const int32_t method : {0, 1}) {
        const Soft with = soft_bits({{0, NAN_F, 5, NAN_F, 1}, {9, 3, NAN_F, NAN_F, 4}}, 1.0, method);
        const Soft without = soft_bits({{0, 1}, {9, 4}}, 1.0, method);
        EXPECT_EQ(with.amplitude, without.amplitude);
        EXPECT_EQ(with.llr, (std::vector<float>{without.llr[0], 0, 0, 0, without.llr[1]}));
    }
}

TEST(SoftBits, InfiniteEnergiesAndNoNoiseEnd) {
    const Soft infinite = soft_bits({{0, 1, -1}, {INF_F, 3, 2}}, 1.0, 1);
    EXPECT_EQ(infinite.amplitude, INF);
    EXPECT_EQ(infinite.llr[0], INF_F);
    EXPECT_EQ(infinite.llr[1], INF_F);
    EXPECT_EQ(infinite.llr[2], 0.0F);
    const Soft noiseless = soft_bits({{0, 3, 0}, {1, 0, -1}}, 0.0, 1);
    EXPECT_EQ(noiseless.amplitude, INF);
    EXPECT_EQ(noiseless.llr[0], INF_F);
    EXPECT_EQ(noiseless.llr[1], -INF_F);
    EXPECT_EQ(noiseless.llr[2], 0.0F);
    // Where the mean square is not a number the amplitude is the floor.
    EXPECT_EQ(soft_bits({{0, 0}, {1, 0}}, 0.0, 0).amplitude, 0.05);
    EXPECT_EQ(soft_bits({{INF_F}, {INF_F}}, 1.0, 0).amplitude, 0.05);
    EXPECT_EQ(soft_bits({{1}, {3}}, std::numeric_limits<double>::quiet_NaN(), 0).amplitude, 0.05);
    EXPECT_EQ(soft_bits({{1}, {3}}, std::numeric_limits<double>::quiet_NaN(), 0).llr[0], 0.0F);
    EXPECT_EQ(soft_bits({{1}, {3}}, INF, 0).llr[0], 0.0F);
}

// Energies → soft bits → decoder → check, with a few missing pairs.
TEST(SoftBits, LeadBackToTheMessage) {
    Random random(8);
    for (const ModeModel& mode : {S, L}) {
        for (int trial = 0; trial < 20; ++trial) {
            const std::string call = random.callsign();
            const std::string locator = random_locator(random);
            const Bits coded = coded_bits(encode(mode.mode, call, locator.c_str()), mode.n);
            Pairs pairs;
            for (const uint8_t bit : coded) {
                const auto energy = [&](bool on) {
                    const double re = random.normal() + (on ? 4 : 0);
                    const double im = random.normal();
                    return static_cast<float>((re * re + im * im) * 0.5 * 3.0);
                };
                pairs.first.push_back(energy(bit == 0));
                pairs.second.push_back(energy(bit != 0));
            }
            for (std::size_t i = 0; i < 6; ++i) pairs.first[i * 17] = -1;
            for (const int32_t method : {0, 1}) {
                const Soft soft = soft_bits(pairs, 3.0, method);
                Bits codeword(mode.n);
                Bits message(mode.k);
                double cost = 0;
                int32_t status = 0;
                ASSERT_EQ(ldpc_decode(ov_code(mode.mode), soft.llr.data(), 50, -1, 0, codeword.data(), message.data(),
                                      &cost, &status),
                          0);
                EXPECT_EQ(check(mode.mode, message),
                          (Checked{0, upper(call), mode.mode == 1 ? locator : std::string()}));
            }
        }
    }
}

// ---- The encode entry --------------------------------------------------------------------------------------------

constexpr uint8_t UNTOUCHED = 0xAB;

// ovl_encode into room with a margin; an empty vector when it is refused, which must leave all of it alone.
std::vector<uint8_t> public_encode(uint32_t proto, const char* call, const char* locator, int32_t cap = 400) {
    std::vector<uint8_t> out(400, UNTOUCHED);
    const int32_t result = ovl_encode(proto, call, locator, out.data(), cap);
    const auto written = static_cast<std::size_t>(std::max(result, 0));
    EXPECT_EQ(static_cast<std::size_t>(std::count(out.begin(), out.end(), UNTOUCHED)), out.size() - written);
    if (result < 0) {
        EXPECT_EQ(result, -1);
        return {};
    }
    out.resize(written);
    return out;
}

TEST(Encode, GivesTheFrameOfEachProtocol) {
    Random random(9);
    for (int trial = 0; trial < 200; ++trial) {
        const std::string call = random.callsign();
        const std::string locator = random_locator(random);
        EXPECT_EQ(public_encode(OVL_OPERA, call.c_str(), nullptr), opera_chips(call));
        const uint32_t value = packed_call(call);
        const Bits s = coded_bits(public_encode(OVL_ORVEL_S, call.c_str(), nullptr), S.n);
        EXPECT_EQ(violated_checks(S, s), 0);
        EXPECT_EQ(at_pivots(S, s), message_model(S, value, 0, S.crc_start));
        const Bits l = coded_bits(public_encode(OVL_ORVEL_L, call.c_str(), locator.c_str()), L.n);
        EXPECT_EQ(violated_checks(L, l), 0);
        EXPECT_EQ(at_pivots(L, l), message_model(L, value, locator_model(locator).value(), L.crc_start));
    }
}

TEST(Encode, NeedsRoomForTheWholeFrame) {
    for (const uint32_t proto : {OVL_OPERA, OVL_ORVEL_S}) {
        for (const int32_t cap : {238, 1, 0, -1, std::numeric_limits<int32_t>::min()})
            EXPECT_TRUE(public_encode(proto, "QQ0XYZ", "JJ00AA", cap).empty()) << cap;
        EXPECT_EQ(public_encode(proto, "QQ0XYZ", "JJ00AA", 239).size(), 239u);
    }
    for (const int32_t cap : {320, 239, 0, -1})
        EXPECT_TRUE(public_encode(OVL_ORVEL_L, "QQ0XYZ", "JJ00AA", cap).empty()) << cap;
    EXPECT_EQ(public_encode(OVL_ORVEL_L, "QQ0XYZ", "JJ00AA", 321).size(), 321u);
    EXPECT_EQ(public_encode(OVL_ORVEL_L, "QQ0XYZ", "JJ00AA", 322).size(), 321u);
}

TEST(Encode, RefusesWhatIsNotOneProtocol) {
    for (const uint32_t proto : {0u, 3u, 5u, 6u, 7u, 8u, 16u, 0x80000001u, 0xFFFFFFFFu})
        EXPECT_TRUE(public_encode(proto, "QQ0XYZ", "JJ00AA").empty()) << proto;
}

TEST(Encode, RefusesNullPointers) {
    for (const uint32_t proto : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        EXPECT_TRUE(public_encode(proto, nullptr, "JJ00AA").empty());
        EXPECT_EQ(ovl_encode(proto, "QQ0XYZ", "JJ00AA", nullptr, 400), -1);
        EXPECT_EQ(ovl_encode(proto, nullptr, nullptr, nullptr, 400), -1);
    }
}

TEST(Encode, OnlyLNeedsALocator) {
    for (const char* locator : {static_cast<const char*>(nullptr), "", "AS00", "JJ00A", "JJ00AAA", " JJ00", "JJ00 ",
                                "JJ\xC3\xA4"
                                "0",
                                "JJ00AAJJ00AAJJ00AAJJ00AAJJ00AAJJ00AAJJ00AAJJ00AAJJ00AA"}) {
        EXPECT_TRUE(public_encode(OVL_ORVEL_L, "QQ0XYZ", locator).empty());
        EXPECT_EQ(public_encode(OVL_ORVEL_S, "QQ0XYZ", locator).size(), 239u);
        EXPECT_EQ(public_encode(OVL_OPERA, "QQ0XYZ", locator).size(), 239u);
    }
}

TEST(Encode, RefusesCallsignsThatCannotBePacked) {
    const std::string endless(100000, 'Q');
    for (const uint32_t proto : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        for (const char* call :
             {"", " ", "      ", "QQXYZ", "QQ0XYZA", "QQQ0XY", "QQ0X1Z", "QQ0XY-", "QQ/0XY", "\t", "QQ0\tX",
              "\xC3\x96"
              "E0X",
              "QQ0\xFF", "\x80", "QQ0XY\xC3\xA4"})
            EXPECT_TRUE(public_encode(proto, call, "JJ00AA").empty()) << proto << " '" << call << '\'';
        EXPECT_TRUE(public_encode(proto, endless.c_str(), "JJ00AA").empty());
        EXPECT_TRUE(public_encode(proto, "QQ0XYZ", nullptr).empty() == (proto == OVL_ORVEL_L));
    }
}

TEST(Encode, TakesLowerCaseAndBlanksAroundTheCallsign) {
    for (const uint32_t proto : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        const auto expected = public_encode(proto, "QQ0XYZ", "JJ00AA");
        ASSERT_FALSE(expected.empty());
        for (const char* call : {"qq0xyz", "  QQ0XYZ", "QQ0XYZ   ", " qQ0xYz and more"})
            EXPECT_EQ(public_encode(proto, call, "jj00aA"), expected) << call;
        EXPECT_NE(public_encode(proto, "QQ0XYY", "JJ00AA"), expected);
    }
    EXPECT_NE(public_encode(OVL_ORVEL_L, "QQ0XYZ", "JJ00"), public_encode(OVL_ORVEL_L, "QQ0XYZ", "JJ00AA"));
}

// Whatever bytes a caller passes: a frame or a refusal, the same answer as the codec's.
TEST(Encode, EveryByteInEveryPlaceOfACallsign) {
    const std::string base = "QQ0XYZ";
    for (std::size_t place = 0; place < base.size(); ++place) {
        for (int byte = 1; byte < 256; ++byte) {
            std::string call = base;
            call[place] = static_cast<char>(byte);
            char normalised[7];
            const bool packs = ov_normalize_call(call.c_str(), normalised) == 0;
            EXPECT_EQ(!public_encode(OVL_OPERA, call.c_str(), nullptr).empty(), packs) << call;
            EXPECT_EQ(!public_encode(OVL_ORVEL_S, call.c_str(), nullptr).empty(), packs) << call;
            EXPECT_EQ(!public_encode(OVL_ORVEL_L, call.c_str(), "JJ00").empty(), packs) << call;
        }
    }
}

}  // namespace
