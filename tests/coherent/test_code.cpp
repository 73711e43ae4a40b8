// The frames of the protocols as words of affine codes, and the search for the words that fit soft bits best: against
// membership by elimination, and against ordered statistics that list everything.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "coherent/code.h"
#include "orvel.h"
#include "ovcdec.h"
#include "ovcenc.h"
#include "siggen.h"

using namespace coherent;

namespace {

// ---- Linear algebra ------------------------------------------------------------------------------------------------

// Rows of which each has a bit that no other has, spanning the same space.
class Space {
  public:
    explicit Space(const std::vector<Word>& rows) {
        for (const Word& row : rows) add(row);
    }
    bool add(Word row) {
        row = rest_of(row);
        if (row == Word{}) return false;
        std::size_t lead = 0;
        while (!bit_of(row, lead)) lead++;
        for (auto& [position, other] : rows_) {
            if (bit_of(other, lead)) other = sum_of(other, row);
        }
        rows_.emplace_back(lead, row);
        return true;
    }
    std::size_t dimensions() const { return rows_.size(); }
    bool holds(const Word& word) const { return rest_of(word) == Word{}; }

  private:
    Word rest_of(Word word) const {
        for (const auto& [position, row] : rows_) {
            if (bit_of(word, position)) word = sum_of(word, row);
        }
        return word;
    }
    std::vector<std::pair<std::size_t, Word>> rows_;
};

// Index of the offset whose coset holds the word; -1 for none.
int32_t coset_of(const AffineCode& code, const Space& space, const Word& word) {
    for (std::size_t i = 0; i < code.offsets.size(); i++) {
        if (space.holds(sum_of(word, code.offsets[i]))) return static_cast<int32_t>(i);
    }
    return -1;
}

// ---- Frames --------------------------------------------------------------------------------------------------------

Word frame_of(const ov_protocol& protocol, const std::string& call, const std::string& locator) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(protocol.chips()));
    EXPECT_EQ(encode_frame(protocol, call.c_str(), locator.c_str(), chips.data()), 0) << call;
    return word_of(chips);
}

std::string random_locator(Random& random) {
    std::array<char, 7> text{};
    EXPECT_EQ(ov_unpack_loc(static_cast<uint32_t>(random.integer(0, OV_MAX_LOC)), text.data()), 0);
    return text.data();
}

void expect_read(const AffineCode& code, const Word& word, const std::string& call, const std::string& locator) {
    const auto message = code.read(word);
    ASSERT_TRUE(message) << call;
    EXPECT_EQ(message->call, call);
    EXPECT_EQ(message->locator, locator);
}

// OPERA's checksum before a zero byte of it is replaced, CRC-16 of the bits as text, which goes on from `crc`.
uint32_t crc_of_text(uint32_t crc, uint32_t bits, int32_t count) {
    for (int32_t i = count - 1; i >= 0; i--) {
        crc ^= '0' + static_cast<uint32_t>(bits >> i & 1);
        for (int32_t k = 0; k < 8; k++) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xA001u : 0u);
    }
    return crc;
}
uint32_t replaced_crc(uint32_t crc) {
    return ((crc & 0xFF) == 0 ? 27 : crc & 0xFF) | ((crc >> 8) == 0 ? 43u << 8 : crc & 0xFF00);
}

// Which of three checksum bytes are replaced for callsigns with that first checksum: its low and high byte, and the
// high byte of the second one, which goes on where the first one ends.
uint32_t replacements_of(uint32_t first) {
    const uint32_t sent = replaced_crc(first);
    uint32_t second = first;
    for (const uint32_t byte : {sent & 0xFF, sent >> 8}) second = crc_of_text(second, byte, 8);
    return ((first & 0xFF) == 0 ? 1u : 0u) | (first >> 8 == 0 ? 2u : 0u) | (second >> 8 == 0 ? 4u : 0u);
}

// Packed callsigns whose first checksum is `crc`: sums of two halves, each of 14 bits.
std::vector<uint32_t> values_with_crc(uint32_t crc) {
    constexpr uint32_t HALF = 1 << 14;
    static const std::vector<std::vector<uint32_t>> lower = [] {
        std::vector<std::vector<uint32_t>> by_crc(1 << 16);
        for (uint32_t i = 0; i < HALF; i++) by_crc[crc_of_text(0, i, 28)].push_back(i);
        return by_crc;
    }();
    std::vector<uint32_t> values;
    const uint32_t origin = crc_of_text(0, 0, 28);
    for (uint32_t i = 0; i < HALF; i++) {
        for (const uint32_t low : lower[crc ^ origin ^ crc_of_text(0, i << 14, 28)]) values.push_back(i << 14 | low);
    }
    return values;
}

const AffineCode& code_with(int32_t id) {
    return code_of(*ov_protocol_by_id(static_cast<uint32_t>(id)));
}

// ---- Codes ---------------------------------------------------------------------------------------------------------

TEST(FrameCodes, HaveTheDimensionsOfTheirMessages) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        EXPECT_EQ(code.protocol, &protocol);
        EXPECT_EQ(code.length, protocol.pairs);
        const bool has_locator = protocol.id == OVL_ORVEL_L;
        EXPECT_EQ(code.rows.size(), has_locator ? 53u : 28u);
        EXPECT_EQ(Space(code.rows).dimensions(), code.rows.size());
        EXPECT_NEAR(code.log_words, std::log(262177560.0) + (has_locator ? std::log(18694800.0) : 0), 1e-9);
        EXPECT_EQ(&code_of(protocol), &code);
    }
    const AffineCode& opera = code_with(OVL_OPERA);
    const Space space(opera.rows);
    for (std::size_t i = 0; i < opera.offsets.size(); i++) {
        EXPECT_EQ(coset_of(opera, space, opera.offsets[i]), static_cast<int32_t>(i)) << "another coset has it, too";
    }
}

TEST(FrameCodes, HoldEveryFrameAndReadItBack) {
    Random random(21);
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        const Space space(code.rows);
        for (int32_t i = 0; i < 200; i++) {
            const std::string call = random.callsign();
            const std::string locator = protocol.id == OVL_ORVEL_L ? random_locator(random) : "";
            const Word word = frame_of(protocol, call, locator);
            EXPECT_NE(coset_of(code, space, word), -1) << protocol.name << " " << call;
            expect_read(code, word, call, locator);
            EXPECT_TRUE(code.read(word)->plausible) << call;
        }
    }
}

TEST(FrameCodes, HoldWhatNoAdministrationIssuesAndSaySo) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const std::string locator = protocol.id == OVL_ORVEL_L ? "AA00" : "";
        const auto message = code_of(protocol).read(frame_of(protocol, "999ZZZ", locator));
        ASSERT_TRUE(message);
        EXPECT_STREQ(message->call, "999ZZZ");
        EXPECT_FALSE(message->plausible);
    }
}

TEST(FrameCodes, HoldOperaCallsignsWhoseChecksumBytesAreReplaced) {
    const AffineCode& code = code_with(OVL_OPERA);
    const Space space(code.rows);
    std::array<int32_t, 8> seen{};
    for (uint32_t crc = 0; crc < 1 << 16; crc++) {
        const uint32_t replaced = replacements_of(crc);
        if (seen[replaced] == 5) continue;
        for (const uint32_t value : values_with_crc(crc)) {
            std::array<char, 7> text{};
            if (ov_unpack_call(value, text.data()) != 0) continue;
            const char* const call = text.data() + (text[0] == ' ' ? 1 : 0);
            const Word word = frame_of(*code.protocol, call, "");
            EXPECT_NE(coset_of(code, space, word), -1) << call << ", replaced " << replaced;
            std::string shown = text.data();
            std::erase(shown, ' ');
            expect_read(code, word, shown, "");
            if (++seen[replaced] == 5) break;
        }
    }
    // No checksum has its high byte replaced and is followed by one whose high byte is, too.
    EXPECT_EQ(seen, (std::array{5, 5, 5, 5, 5, 5, 0, 0}));
}

TEST(FrameCodes, RefuseRandomWords) {
    Random random(22);
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        for (int32_t i = 0; i < 200; i++) {
            Word word{};
            for (std::size_t k = 0; k < static_cast<std::size_t>(code.length); k++) {
                word[k / 64] |= (random.next() >> 63) << (k % 64);
            }
            EXPECT_FALSE(code.read(word)) << protocol.name << " " << i;
        }
    }
}

TEST(FrameCodes, RefuseFramesWithOneBitWrong) {
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        const Word word = frame_of(protocol, "OH2XYZ", "KP20");
        int32_t accepted = 0;
        for (std::size_t k = 0; k < static_cast<std::size_t>(code.length); k++) {
            Word wrong = word;
            wrong[k / 64] ^= uint64_t{1} << (k % 64);
            accepted += code.read(wrong) ? 1 : 0;
        }
        EXPECT_EQ(accepted, 0) << protocol.name;
    }
}

TEST(FrameCodes, AWordHasTheSecondChipsOfThePairs) {
    const std::vector<uint8_t> chips = {1, 0, 1, 1, 0, 1, 0, 0, 1};
    EXPECT_EQ(word_of(chips), (Word{0b1001}));
}

// ---- Ordered statistics --------------------------------------------------------------------------------------------

struct Listed {
    Word word;
    double cost;
};

// All words whose bits differ from the hard decisions in at most `order` of the most reliable positions that are
// independent, cheapest first.
std::vector<Listed> list_words(const AffineCode& code, const std::vector<float>& soft, int32_t order) {
    std::vector<std::size_t> positions(soft.size());
    std::iota(positions.begin(), positions.end(), std::size_t{0});
    std::stable_sort(positions.begin(), positions.end(),
                     [&](std::size_t a, std::size_t b) { return std::fabs(soft[a]) > std::fabs(soft[b]); });

    // A position is independent of those before it when a row has a bit there and none at them.
    std::vector<Word> free = code.rows;  // without bits at the positions taken
    std::vector<std::size_t> basis;
    for (const std::size_t position : positions) {
        const auto pivot = std::ranges::find_if(free, [&](const Word& row) { return bit_of(row, position); });
        if (pivot == free.end()) continue;
        const Word row = *pivot;
        free.erase(pivot);
        for (Word& other : free) {
            if (bit_of(other, position)) other = sum_of(other, row);
        }
        basis.push_back(position);
    }

    // The row with a single one among these positions, for each of them.
    std::vector<Word> single = code.rows;
    for (std::size_t i = 0; i < basis.size(); i++) {
        const auto at = static_cast<std::ptrdiff_t>(i);
        const auto pivot =
            std::find_if(single.begin() + at, single.end(), [&](const Word& row) { return bit_of(row, basis[i]); });
        std::swap(*pivot, single[i]);
        for (std::size_t j = 0; j < single.size(); j++) {
            if (j != i && bit_of(single[j], basis[i])) single[j] = sum_of(single[j], single[i]);
        }
    }

    const auto cost_of = [&](const Word& word) {
        double cost = 0;
        for (std::size_t k = 0; k < soft.size(); k++) {
            if (bit_of(word, k) != (soft[k] > 0)) cost += std::fabs(static_cast<double>(soft[k]));
        }
        return cost;
    };
    std::vector<Listed> listed;
    for (const Word& offset : code.offsets) {
        Word decided = offset;
        for (std::size_t i = 0; i < basis.size(); i++) {
            if (bit_of(decided, basis[i]) != (soft[basis[i]] > 0)) decided = sum_of(decided, single[i]);
        }
        listed.push_back({decided, cost_of(decided)});
        const std::size_t n = order > 0 ? basis.size() : 0;
        for (std::size_t a = 0; a < n; a++) {
            const Word one = sum_of(decided, single[a]);
            listed.push_back({one, cost_of(one)});
            for (std::size_t b = a + 1; order > 1 && b < n; b++) {
                const Word two = sum_of(one, single[b]);
                listed.push_back({two, cost_of(two)});
                for (std::size_t c = b + 1; order > 2 && c < n; c++) {
                    const Word three = sum_of(two, single[c]);
                    listed.push_back({three, cost_of(three)});
                }
            }
        }
    }
    std::ranges::sort(listed, {}, &Listed::cost);
    return listed;
}

std::vector<float> noisy_bits(Random& random, const Word& word, int32_t length, double amplitude) {
    std::vector<float> soft(static_cast<std::size_t>(length));
    for (std::size_t k = 0; k < soft.size(); k++) {
        soft[k] = static_cast<float>((bit_of(word, k) ? amplitude : -amplitude) + random.normal());
    }
    return soft;
}

TEST(OrderedStatistics, FindTheCheapestOfAllThatTheyPromise) {
    Random random(23);
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        for (int32_t order = 1; order <= 3; order++) {
            for (const std::size_t most : {std::size_t{1}, std::size_t{5}, std::size_t{40}}) {
                if (order == 3 && most != 40) continue;  // tens of thousands of patterns
                SCOPED_TRACE(testing::Message() << protocol.name << ", order " << order << ", " << most << " words");
                const Word sent = frame_of(protocol, random.callsign(), "KP20");
                const std::vector<float> soft = noisy_bits(random, sent, code.length, order % 2 == 0 ? 0 : 0.6);
                const std::vector<Listed> all = list_words(code, soft, order);
                std::vector<RankedWord> found = ordered_statistics(code, soft, order, most);
                ASSERT_EQ(found.size(), std::min(most, all.size()));
                std::ranges::sort(found, {}, &RankedWord::cost);
                std::set<Word> different;
                for (std::size_t i = 0; i < found.size(); i++) {
                    EXPECT_NEAR(found[i].cost, all[i].cost, 1e-3) << i;
                    const auto same = std::ranges::find(all, found[i].word, &Listed::word);
                    ASSERT_NE(same, all.end()) << i;
                    EXPECT_NEAR(same->cost, all[i].cost, 1e-3) << i;
                    different.insert(found[i].word);
                }
                EXPECT_EQ(different.size(), found.size());
            }
        }
    }
}

TEST(OrderedStatistics, FindTheSentWordAmongWrongBits) {
    Random random(24);
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const AffineCode& code = code_of(protocol);
        for (int32_t trial = 0; trial < 5; trial++) {
            const Word sent = frame_of(protocol, random.callsign(), "JN18DU");
            const std::vector<float> soft = noisy_bits(random, sent, code.length, 1.2);
            int32_t wrong = 0;
            for (std::size_t k = 0; k < soft.size(); k++) wrong += bit_of(sent, k) != (soft[k] > 0) ? 1 : 0;
            EXPECT_GE(wrong, 6) << "too easy";
            const std::vector<RankedWord> found = ordered_statistics(code, soft, 3, 24);
            const auto best = std::ranges::min_element(found, {}, &RankedWord::cost);
            ASSERT_NE(best, found.end());
            EXPECT_EQ(best->word, sent) << protocol.name << " " << trial;
        }
    }
}

TEST(OrderedStatistics, FindOperaWordsWithReplacedChecksumBytes) {
    Random random(25);
    const AffineCode& code = code_with(OVL_OPERA);
    int32_t tried = 0;
    for (const uint32_t value : values_with_crc(0x0000)) {
        std::array<char, 7> text{};
        if (ov_unpack_call(value, text.data()) != 0) continue;
        const Word sent = frame_of(*code.protocol, text.data() + (text[0] == ' ' ? 1 : 0), "");
        const std::vector<RankedWord> found = ordered_statistics(code, noisy_bits(random, sent, 119, 1.2), 3, 10);
        EXPECT_EQ(std::ranges::min_element(found, {}, &RankedWord::cost)->word, sent) << text.data();
        if (++tried == 5) break;
    }
    EXPECT_EQ(tried, 5);
}

// Bits that were not measured.
TEST(OrderedStatistics, BitsOfZeroCostNothing) {
    Random random(26);
    const AffineCode& code = code_with(OVL_ORVEL_S);
    const Word sent = frame_of(*code.protocol, "DL1QXA", "");
    std::vector<float> soft = noisy_bits(random, sent, 119, 3);
    std::fill(soft.begin(), soft.begin() + 24, 0.0f);  // a fifth of the frame
    const std::vector<RankedWord> found = ordered_statistics(code, soft, 3, 10);
    EXPECT_EQ(std::ranges::min_element(found, {}, &RankedWord::cost)->word, sent);
    for (const RankedWord& ranked : ordered_statistics(code, std::vector<float>(119, 0.0f), 3, 10)) {
        EXPECT_EQ(ranked.cost, 0);
    }
}

}  // namespace
