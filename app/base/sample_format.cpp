#include "base/sample_format.h"

#include <array>
#include <bit>
#include <cmath>
#include <type_traits>

namespace {

using Kind = SampleFormat::Kind;

struct Name {
    std::string_view text;
    Kind kind;
    std::size_t bytes;
};
constexpr std::array NAMES = {
    Name{"u8", Kind::UNSIGNED, 1}, Name{"s8", Kind::SIGNED, 1},  Name{"u16", Kind::UNSIGNED, 2},
    Name{"s16", Kind::SIGNED, 2},  Name{"s24", Kind::SIGNED, 3}, Name{"u32", Kind::UNSIGNED, 4},
    Name{"s32", Kind::SIGNED, 4},  Name{"f32", Kind::FLOAT, 4},  Name{"f64", Kind::FLOAT, 8}};

constexpr double MOST_SAMPLE = 0x1p31;

// The bytes of a sample as a number, its first bit in the highest place of Word.
template <class Word, std::size_t BYTES, bool BIG_FIRST>
Word load(const uint8_t* bytes) {
    Word word = 0;
    for (std::size_t i = 0; i < BYTES; i++) {
        const std::size_t place = BIG_FIRST ? BYTES - 1 - i : i;
        word |= static_cast<Word>(static_cast<Word>(bytes[i]) << (8 * (sizeof(Word) - BYTES + place)));
    }
    return word;
}

template <class Float, class Out>
Out audible(Float value) {
    return std::abs(value) <= static_cast<Float>(MOST_SAMPLE) ? static_cast<Out>(value) : Out{0};
}

// Samples of one format are converted by one loop.
template <std::size_t BYTES, bool BIG_FIRST, class Out, class Convert>
void convert_each(std::span<const uint8_t> bytes, std::span<Out> out, const Convert& convert) {
    using Word = std::conditional_t<BYTES == 8, uint64_t, uint32_t>;
    const uint8_t* from = bytes.data();
    for (Out& sample : out) {
        sample = convert(load<Word, BYTES, BIG_FIRST>(from));
        from += BYTES;
    }
}

template <std::size_t BYTES, bool BIG_FIRST, class Out>
void convert_integers(bool is_signed, std::span<const uint8_t> bytes, std::span<Out> out) {
    constexpr double SCALE = 0x1p-31;
    constexpr double MIDDLE = 0.5 * static_cast<double>(uint64_t{1} << (32 - 8 * BYTES));  // of a step
    if (is_signed) {
        convert_each<BYTES, BIG_FIRST>(bytes, out, [](uint32_t word) {
            return static_cast<Out>(SCALE * static_cast<double>(static_cast<int32_t>(word)));
        });
    } else {
        convert_each<BYTES, BIG_FIRST>(bytes, out, [](uint32_t word) {
            return static_cast<Out>(SCALE * (static_cast<double>(word) - 0x1p31 + MIDDLE));
        });
    }
}

template <bool BIG_FIRST, class Out>
void convert(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<Out> out) {
    if (format.kind == Kind::FLOAT && format.bytes == 8) {
        convert_each<8, BIG_FIRST>(bytes, out,
                                   [](uint64_t word) { return audible<double, Out>(std::bit_cast<double>(word)); });
    } else if (format.kind == Kind::FLOAT) {
        convert_each<4, BIG_FIRST>(bytes, out,
                                   [](uint32_t word) { return audible<float, Out>(std::bit_cast<float>(word)); });
    } else {
        const bool is_signed = format.kind == Kind::SIGNED;
        switch (format.bytes) {
            case 1:
                return convert_integers<1, BIG_FIRST>(is_signed, bytes, out);
            case 2:
                return convert_integers<2, BIG_FIRST>(is_signed, bytes, out);
            case 3:
                return convert_integers<3, BIG_FIRST>(is_signed, bytes, out);
            default:
                return convert_integers<4, BIG_FIRST>(is_signed, bytes, out);
        }
    }
}

template <class Out>
void convert_either(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<Out> out) {
    return format.big_endian ? convert<true>(format, bytes, out) : convert<false>(format, bytes, out);
}

}  // namespace

std::optional<SampleFormat> parse_sample_format(std::string_view name) {
    const bool big = name.ends_with("be");
    const bool ordered = big || name.ends_with("le");
    if (ordered) name.remove_suffix(2);
    for (const Name& known : NAMES) {
        if (known.text == name && !(ordered && known.bytes == 1)) return SampleFormat{known.kind, known.bytes, big};
    }
    return std::nullopt;
}

std::string name_of(const SampleFormat& format) {
    std::string name;
    for (const Name& known : NAMES) {
        if (known.kind == format.kind && known.bytes == format.bytes) name = known.text;
    }
    return format.big_endian ? name + "be" : name;
}

void convert_samples(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<float> out) {
    convert_either(format, bytes, out);
}

void convert_samples(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<double> out) {
    convert_either(format, bytes, out);
}
