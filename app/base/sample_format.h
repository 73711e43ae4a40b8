// Samples as raw files and streams hold them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct SampleFormat {
    enum class Kind { UNSIGNED, SIGNED, FLOAT };

    Kind kind = Kind::SIGNED;
    std::size_t bytes = 2;  // a sample: 1 to 4 of an integer, 4 or 8 of a float
    bool big_endian = false;

    bool operator==(const SampleFormat&) const = default;
};

// The format that a name stands for: u8 s8 u16 s16 s24 u32 s32 f32 f64, with "le", which is the default, or "be" behind
// it where a sample has several bytes. Nothing for any other text.
std::optional<SampleFormat> parse_sample_format(std::string_view name);

// Its name: "u8", "s16", "s16be".
std::string name_of(const SampleFormat& format);

// Converts samples to full scale 1. The zero of unsigned ones lies between their two middle codes, for u8 at 127.5.
// What is not a finite number, or beyond 2^31, the full scale of integers that nobody scaled, is silence: it would hide
// everything else.
//
//   bytes   samples one after another, as many as `out` takes
void convert_samples(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<float> out);
void convert_samples(const SampleFormat& format, std::span<const uint8_t> bytes, std::span<double> out);
