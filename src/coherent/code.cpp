#include "coherent/code.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "orvel.h"
#include "ovcdec.h"
#include "ovcenc.h"

namespace coherent {
namespace {

constexpr std::size_t BYTES = sizeof(Word);

void set_bit(Word& word, std::size_t k) {
    word[k / 64] |= uint64_t{1} << (k % 64);
}

// ---- OPERA ---------------------------------------------------------------------------------------------------------

constexpr std::size_t CALL_FIRST = 4;
constexpr std::size_t CALL_BITS = 28;
constexpr std::size_t CRC_FIRST = CALL_FIRST + CALL_BITS;
constexpr std::size_t CRC_BITS = 16;
constexpr std::size_t TAIL_FIRST = CRC_FIRST + CRC_BITS;
constexpr std::size_t TAIL_BITS = 3;
constexpr uint32_t FOR_ZERO_LOW = 27;  // what the checksum has in place of a zero byte
constexpr uint32_t FOR_ZERO_HIGH = 43;

using Vector = std::array<uint8_t, OVC_VECTOR_BITS>;
using Checksum = std::array<uint8_t, CRC_BITS>;

// The coded bits of a message vector.
Word opera_word(const Vector& vector) {
    Word word{};
    for (std::size_t k = 0; k < OVC_PAIRS; k++) {
        const std::size_t first = k % OVC_GROUPS * 3;
        const auto bit = [&](std::size_t i) { return static_cast<std::size_t>(vector[i] ^ OVC_PSEUDO[i]); };
        const std::size_t row = bit(first) * 4 + bit(first + 1) * 2 + bit(first + 2);
        if (OVC_WALSH[row][k / OVC_GROUPS] != 0) set_bit(word, k);
    }
    return word;
}

// The message vector of coded bits; the positions 0, 1 and 3 of a Walsh word are the bits of its row.
Vector opera_vector(const Word& word) {
    Vector vector{};
    for (std::size_t group = 0; group < OVC_GROUPS; group++) {
        const std::array<std::size_t, 3> positions = {3 * OVC_GROUPS, OVC_GROUPS, 0};
        for (std::size_t i = 0; i < 3; i++) {
            const std::size_t at = 3 * group + i;
            vector[at] = static_cast<uint8_t>((bit_of(word, positions[i] + group) ? 1 : 0) ^ OVC_PSEUDO[at]);
        }
    }
    return vector;
}

// The checksum of `count` bits. It is linear but where it replaces a byte.
Checksum checksum(const uint8_t* bits, std::size_t count) {
    Checksum crc;
    ovc_crc(bits, static_cast<int32_t>(count), crc.data());
    return crc;
}

// The message vector of a callsign's bits.
Vector vector_of(uint32_t value) {
    Vector vector{};
    for (std::size_t i = 0; i < CALL_BITS; i++) vector[CALL_FIRST + i] = value >> (CALL_BITS - 1 - i) & 1;
    const Checksum crc = checksum(&vector[CALL_FIRST], CALL_BITS);
    std::copy(crc.begin(), crc.end(), vector.begin() + CRC_FIRST);
    const Checksum second = checksum(&vector[CALL_FIRST], CALL_BITS + CRC_BITS);
    std::copy(second.end() - TAIL_BITS, second.end(), vector.begin() + TAIL_FIRST);
    return vector;
}

Vector operator^(Vector a, const Vector& b) {
    std::transform(a.begin(), a.end(), b.begin(), a.begin(), [](uint8_t x, uint8_t y) { return uint8_t(x ^ y); });
    return a;
}

AffineCode opera_code() {
    AffineCode code{OVC_PAIRS, std::log(OVC_MAX_CALL + 1.0), {}, {}, ov_protocol_by_id(OVL_OPERA)};

    // At zero and one bit away from it no checksum byte is replaced: these words tell the rows.
    const Vector origin = vector_of(0);
    const Word zero = opera_word(Vector{});
    for (std::size_t i = 0; i < CALL_BITS; i++) {
        code.rows.push_back(sum_of(opera_word(vector_of(1U << i) ^ origin), zero));
    }

    // What replacing a byte adds: to the checksum itself, and by way of the second checksum to the last bits. That is
    // linear, too: two vectors that differ in that byte alone tell it.
    const auto replaced = [&](std::size_t first, uint32_t byte) {
        Vector change{};
        for (std::size_t i = 0; i < 8; i++) change[first + i] = byte >> (7 - i) & 1;
        const Vector plain{};
        const Vector other = plain ^ change;
        const Checksum a = checksum(&plain[CALL_FIRST], CALL_BITS + CRC_BITS);
        const Checksum b = checksum(&other[CALL_FIRST], CALL_BITS + CRC_BITS);
        for (std::size_t i = 0; i < TAIL_BITS; i++) {
            const std::size_t at = CRC_BITS - TAIL_BITS + i;
            change[TAIL_FIRST + i] = a[at] ^ b[at];
        }
        return change;
    };
    Vector last{};
    for (std::size_t i = 0; i < TAIL_BITS; i++) last[TAIL_FIRST + i] = FOR_ZERO_HIGH >> (TAIL_BITS - 1 - i) & 1;
    const std::array changes = {replaced(CRC_FIRST, FOR_ZERO_LOW), replaced(CRC_FIRST + 8, FOR_ZERO_HIGH), last};
    for (uint32_t chosen = 0; chosen < 8; chosen++) {
        // The second checksum never has a zero byte where the first one had its high byte replaced.
        if ((chosen & 6) == 6) continue;
        Vector offset = origin;
        for (std::size_t i = 0; i < changes.size(); i++) {
            if ((chosen >> i & 1) != 0) offset = offset ^ changes[i];
        }
        code.offsets.push_back(opera_word(offset));
    }
    return code;
}

std::optional<Message> read_opera(const Word& word) {
    const Vector vector = opera_vector(word);
    if (opera_word(vector) != word) return std::nullopt;
    uint32_t value = 0;
    std::array<char, 7> text;
    if (std::any_of(vector.begin(), vector.begin() + CALL_FIRST, [](uint8_t bit) { return bit != 0; }) ||
        ovc_check_vector(vector.data(), &value) != 0 || ov_unpack_call(value, text.data()) != 0) {
        return std::nullopt;
    }
    Message message{};
    *std::remove_copy(text.begin(), text.end() - 1, message.call, ' ') = '\0';
    message.plausible = ov_call_plausible(text.data()) != 0;
    return message;
}

// ---- ORVEL ---------------------------------------------------------------------------------------------------------

Word orvel_word(int32_t mode, uint32_t call, uint32_t locator) {
    std::array<uint8_t, OV_MAX_PAIRS> coded{};
    ov_encode_values(mode, call, locator, coded.data());
    Word word{};
    for (std::size_t k = 0; k < coded.size(); k++) {
        if (coded[k] != 0) set_bit(word, k);
    }
    return word;
}

AffineCode orvel_code(const ov_protocol& protocol) {
    const bool has_locator = protocol.mode != 0;
    constexpr uint32_t LOCATOR_BITS = 25;
    AffineCode code{protocol.pairs,
                    std::log(OVC_MAX_CALL + 1.0) + (has_locator ? std::log(OV_MAX_LOC + 1.0) : 0.0),
                    {},
                    {orvel_word(protocol.mode, 0, 0)},
                    &protocol};
    for (uint32_t i = 0; i < CALL_BITS; i++) {
        code.rows.push_back(sum_of(orvel_word(protocol.mode, 1U << i, 0), code.offsets[0]));
    }
    for (uint32_t i = 0; has_locator && i < LOCATOR_BITS; i++) {
        code.rows.push_back(sum_of(orvel_word(protocol.mode, 0, 1U << i), code.offsets[0]));
    }
    return code;
}

std::optional<Message> read_orvel(const ov_protocol& protocol, const Word& word) {
    const ldpc_code& code = ov_code(protocol.mode);
    std::array<uint8_t, OV_MAX_PAIRS> bits{};
    for (int32_t i = 0; i < code.k; i++) {
        bits[static_cast<std::size_t>(i)] = bit_of(word, static_cast<std::size_t>(code.pivot[i])) ? 1 : 0;
    }
    std::array<uint8_t, OV_MAX_PAIRS> coded{};
    ldpc_encode(code, bits.data(), coded.data());
    for (std::size_t k = 0; k < static_cast<std::size_t>(code.n); k++) {
        if (bit_of(word, k) != (coded[k] != 0)) return std::nullopt;
    }
    Message message{};
    std::array<char, 7> normalised;
    if (ov_check(protocol.mode, bits.data(), message.call, message.locator) != 0 ||
        ov_normalize_call(message.call, normalised.data()) != 0) {
        return std::nullopt;
    }
    message.plausible = ov_call_plausible(normalised.data()) != 0;
    return message;
}

// ---- Ordered statistics --------------------------------------------------------------------------------------------

// Sums of soft magnitudes over the set bits of a word, by tables of its bytes.
class Costs {
  public:
    explicit Costs(std::span<const float> soft) : bytes_((soft.size() + 7) / 8) {
        for (std::size_t k = 0; k < soft.size(); k++) {
            std::array<float, 256>& table = tables_[k / 8];
            const std::size_t bit = std::size_t{1} << (k % 8);
            if (bit == 1) table[0] = 0;
            for (std::size_t i = 0; i < bit; i++) table[bit + i] = table[i] + std::fabs(soft[k]);
        }
    }
    float of(const Word& word) const {
        float sum = 0;
        for (std::size_t i = 0; i < bytes_; i++) sum += tables_[i][word[i / 8] >> (i % 8 * 8) & 0xFF];
        return sum;
    }

  private:
    std::array<std::array<float, 256>, BYTES> tables_;
    std::size_t bytes_;
};

// The cheapest patterns seen.
class Cheapest {
  public:
    explicit Cheapest(std::size_t most) : most_(most) { found_.reserve(2 * most); }

    // What costs as much or more is none of them.
    float bar() const { return bar_; }

    void add(const Word& word, float cost) {
        if (!(cost < bar_)) return;
        found_.push_back({word, cost});
        if (found_.size() == 2 * most_) shrink();
    }
    std::vector<RankedWord> take() {
        if (found_.size() > most_) shrink();
        return std::move(found_);
    }

  private:
    void shrink() {
        const auto middle = found_.begin() + static_cast<std::ptrdiff_t>(most_);
        std::nth_element(found_.begin(), middle, found_.end(),
                         [](const RankedWord& a, const RankedWord& b) { return a.cost < b.cost; });
        bar_ = middle->cost;
        found_.erase(middle, found_.end());
    }
    std::size_t most_;
    float bar_ = INFINITY;
    std::vector<RankedWord> found_;
};

// The generator in a form in which each row has a reliable bit to itself.
struct Basis {
    std::vector<Word> rows;              // the least reliable first
    std::vector<std::size_t> positions;  // of their bits
};

Basis reliable_basis(const AffineCode& code, std::span<const float> soft) {
    std::vector<std::size_t> order(soft.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return std::fabs(soft[a]) > std::fabs(soft[b]); });
    Basis basis{code.rows, {}};
    std::vector<Word>& rows = basis.rows;
    for (const std::size_t position : order) {
        const std::size_t done = basis.positions.size();
        if (done == rows.size()) break;
        const auto pivot = std::find_if(rows.begin() + static_cast<std::ptrdiff_t>(done), rows.end(),
                                        [&](const Word& row) { return bit_of(row, position); });
        if (pivot == rows.end()) continue;
        std::iter_swap(pivot, rows.begin() + static_cast<std::ptrdiff_t>(done));
        const Word chosen = rows[done];
        for (std::size_t i = 0; i < rows.size(); i++) {
            if (i != done && bit_of(rows[i], position)) rows[i] = sum_of(rows[i], chosen);
        }
        basis.positions.push_back(position);
    }
    std::reverse(rows.begin(), rows.end());
    std::reverse(basis.positions.begin(), basis.positions.end());
    return basis;
}

// Adds the patterns that flip up to `order` further rows, from row `first` on. `paid` is what the flipped bits cost at
// least. Rows go from cheap to dear, so the first that is too dear ends the search.
void flip_rows(const Basis& basis, std::span<const float> soft, const Costs& costs, const Word& wrong,
               std::size_t first, float paid, int32_t order, Cheapest& cheapest) {
    for (std::size_t i = first; i < basis.rows.size(); i++) {
        const float least = paid + std::fabs(soft[basis.positions[i]]);
        if (!(least < cheapest.bar())) return;
        const Word next = sum_of(wrong, basis.rows[i]);
        cheapest.add(next, costs.of(next));
        if (order > 1) flip_rows(basis, soft, costs, next, i + 1, least, order - 1, cheapest);
    }
}

}  // namespace

std::optional<Message> AffineCode::read(const Word& word) const {
    return protocol->mode == OV_NO_MODE ? read_opera(word) : read_orvel(*protocol, word);
}

const AffineCode& code_of(const ov_protocol& protocol) {
    static const AffineCode opera = opera_code();
    static const AffineCode orvel_s = orvel_code(ov_protocol_by_mode(0));
    static const AffineCode orvel_l = orvel_code(ov_protocol_by_mode(1));
    return protocol.mode == OV_NO_MODE ? opera : protocol.mode == 0 ? orvel_s : orvel_l;
}

Word word_of(std::span<const uint8_t> chips) {
    Word word{};
    for (std::size_t k = 0; 2 * k + 2 < chips.size(); k++) {
        if (chips[2 * k + 2] != 0) set_bit(word, k);
    }
    return word;
}

std::vector<RankedWord> ordered_statistics(const AffineCode& code, std::span<const float> soft, int32_t order,
                                           std::size_t most) {
    Word hard{};
    for (std::size_t k = 0; k < soft.size(); k++) {
        if (soft[k] > 0) set_bit(hard, k);
    }
    const Basis basis = reliable_basis(code, soft);
    const Costs costs(soft);
    Cheapest cheapest(most);
    for (const Word& offset : code.offsets) {
        // Where the word of this offset that has the basis as decided differs from the decisions.
        Word wrong = sum_of(offset, hard);
        for (std::size_t i = 0; i < basis.positions.size(); i++) {
            if (bit_of(wrong, basis.positions[i])) wrong = sum_of(wrong, basis.rows[i]);
        }
        cheapest.add(wrong, costs.of(wrong));
        if (order > 0) flip_rows(basis, soft, costs, wrong, 0, 0, order, cheapest);
    }
    std::vector<RankedWord> words = cheapest.take();
    for (RankedWord& ranked : words) ranked.word = sum_of(ranked.word, hard);
    return words;
}

}  // namespace coherent
