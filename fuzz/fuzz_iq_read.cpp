// The reader of I/Q recordings: any bytes are a recording or are refused, and what was read is read again from a plain
// file of the same samples.
#include <bit>
#include <cmath>

#include "iqread.h"
#include "memory_file.h"
#include "wave.h"

namespace {

// Integers of up to 32 bits lie on the grid of 32 bits; whatever does not came from a float.
bool is_integer(double sample) {
    return sample >= -1 && sample < 1 && std::floor(sample * 2147483648.0) == sample * 2147483648.0;
}

bool all_integers(const double* samples, int32_t n) {
    return std::all_of(samples, samples + n, is_integer);
}

bool same(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

void expect_same_from_a_plain_file(const iq_recording& recording, bool integers) {
    std::vector<uint8_t> data;
    const auto put = [&](double sample) {
        if (integers) {
            put_le(data, static_cast<uint64_t>(static_cast<int64_t>(sample * 2147483648.0)), 4);
        } else {
            put_le(data, std::bit_cast<uint32_t>(static_cast<float>(sample)), 4);
        }
    };
    for (int32_t k = 0; k < recording.count; k++) {
        put(recording.i[k]);
        put(recording.q[k]);
    }
    const WaveFormat format = {static_cast<uint16_t>(integers ? 1 : 3), 2, recording.rate, 32};
    const std::vector<uint8_t> plain = wave_file(format, data);
    const MemoryFile file(plain.data(), plain.size());
    iq_recording again;
    expect(iq_read(file.path().c_str(), again) == 0);
    expect(again.rate == recording.rate && again.bits == 32 && again.count == recording.count);
    expect(std::equal(recording.i, recording.i + recording.count, again.i, same));
    expect(std::equal(recording.q, recording.q + recording.count, again.q, same));
    iq_free(again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const MemoryFile file(data, size);
    iq_recording recording;
    if (iq_read(file.path().c_str(), recording) != 0) {
        expect(recording.i == nullptr && recording.q == nullptr && recording.count == 0);
        return 0;
    }
    expect(recording.i != nullptr && recording.q != nullptr && recording.count >= 1);
    expect(recording.bits == 8 || recording.bits == 16 || recording.bits == 24 || recording.bits == 32);
    expect(static_cast<std::size_t>(recording.count) * static_cast<std::size_t>(recording.bits / 4) <= size);
    const bool integers = all_integers(recording.i, recording.count) && all_integers(recording.q, recording.count);
    expect(integers || recording.bits == 32);
    expect_same_from_a_plain_file(recording, integers);
    iq_free(recording);
    expect(recording.i == nullptr && recording.q == nullptr && recording.count == 0);
    return 0;
}
