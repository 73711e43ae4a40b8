// Bare samples of every format: any bytes are read as a plain model reads them, whole or in parts, and from a pipe
// alike.
#include <unistd.h>

#include <bit>
#include <cmath>
#include <vector>

#include "base/error.h"
#include "memory_file.h"
#include "recordings/open_recording.h"
#include "recordings/piped_recording.h"

namespace {

constexpr std::array FORMATS = {"u8",  "s8",    "u16",   "s16",   "s24",   "u32",   "s32",   "f32",
                                "f64", "u16be", "s16be", "s24be", "u32be", "s32be", "f32be", "f64be"};

// A sample of full scale 1 from the bytes of its number, the highest first.
double model(const SampleFormat& format, const std::vector<uint8_t>& bytes) {
    uint64_t word = 0;
    for (const uint8_t byte : bytes) word = word << 8 | byte;
    const auto bits = static_cast<int>(8 * bytes.size());
    if (format.kind == SampleFormat::Kind::FLOAT) {
        const double value = bits == 64 ? std::bit_cast<double>(word)
                                        : static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(word)));
        return std::abs(value) <= 0x1p31 ? value : 0;
    }
    const double half = std::ldexp(1, bits - 1);
    const auto value = static_cast<double>(word);
    if (format.kind == SampleFormat::Kind::UNSIGNED) return (value - half + 0.5) / half;
    return (value < half ? value : value - 2 * half) / half;
}

std::vector<double> modelled(const SampleFormat& format, const uint8_t* data, std::size_t count) {
    std::vector<double> samples;
    for (std::size_t k = 0; k < count; k++) {
        std::vector<uint8_t> bytes(data + k * format.bytes, data + (k + 1) * format.bytes);
        if (!format.big_endian) std::ranges::reverse(bytes);
        samples.push_back(model(format, bytes));
    }
    return samples;
}

std::vector<double> interleaved(const Stretch& stretch) {
    if (stretch.q.empty()) return stretch.x;
    expect(stretch.q.size() == stretch.x.size());
    std::vector<double> samples;
    for (std::size_t k = 0; k < stretch.x.size(); k++) {
        samples.push_back(stretch.x[k]);
        samples.push_back(stretch.q[k]);
    }
    return samples;
}

// All that comes through a pipe, which holds more than any input.
std::vector<double> piped(const std::string& bytes, const RecordingOptions& options) {
    std::array<int, 2> ends{};
    expect(pipe(ends.data()) == 0);
    expect(write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    const auto recording = open_pipe("/proc/self/fd/" + std::to_string(ends[0]), options);
    close(ends[0]);
    while (recording->read_on()) {
    }
    return interleaved(recording->read(0, recording->seconds()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    RecordingOptions options;
    options.raw = parse_sample_format(FORMATS[static_cast<std::size_t>(input.int32(0, FORMATS.size() - 1))]);
    options.iq = input.flag();
    options.raw_rate = 8000;
    const double begin_s = input.number(0, 0.1);
    const std::string bytes = input.rest();
    const auto* const raw = reinterpret_cast<const uint8_t*>(bytes.data());
    const std::size_t channels = options.iq ? 2 : 1;
    const std::size_t frames = bytes.size() / (channels * options.raw->bytes);
    const std::vector<double> expected = modelled(*options.raw, raw, frames * channels);
    expect(piped(bytes, options) == expected);

    const MemoryFile file(raw, bytes.size());
    std::unique_ptr<Recording> recording;
    try {
        recording = open_recording(file.path(), options);
    } catch (const IoError&) {
        expect(frames == 0);
        return 0;
    }
    expect(recording->iq() == options.iq && recording->seconds() == static_cast<double>(frames) / 8000);
    expect(interleaved(recording->read(0, recording->seconds())) == expected);
    const auto first = std::min(static_cast<std::size_t>(std::floor(begin_s * 8000)), frames);
    const std::vector<double> rest(expected.begin() + static_cast<std::ptrdiff_t>(first * channels), expected.end());
    expect(interleaved(recording->read(begin_s, 10)) == rest);
    return 0;
}
