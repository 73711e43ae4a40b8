// The reader of audio recordings: any bytes are a recording or are refused, and what was read from one channel is read
// again from a plain file of the same samples.
#include <cmath>

#include "memory_file.h"
#include "wave.h"
#include "wavread.h"

namespace {

void expect_same_from_a_plain_file(const wav_audio& audio) {
    std::vector<uint8_t> data;
    for (int32_t k = 0; k < audio.count; k++) {
        put_le(data, static_cast<uint64_t>(static_cast<int64_t>(audio.samples[k] * 2147483648.0)), 4);
    }
    const std::vector<uint8_t> plain = wave_file({1, 1, audio.rate, 32}, data);
    const MemoryFile file(plain.data(), plain.size());
    wav_audio again;
    expect(wav_read(file.path().c_str(), again) == 0);
    expect(again.rate == audio.rate && again.channels == 1 && again.bits == 32 && again.count == audio.count);
    expect(std::equal(audio.samples, audio.samples + audio.count, again.samples));
    wav_free(again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const MemoryFile file(data, size);
    wav_audio audio;
    if (wav_read(file.path().c_str(), audio) != 0) {
        expect(audio.samples == nullptr && audio.count == 0);
        return 0;
    }
    expect(audio.samples != nullptr && audio.count >= 1 && audio.channels >= 1);
    expect(audio.bits == 8 || audio.bits == 16 || audio.bits == 24 || audio.bits == 32);
    expect(static_cast<std::size_t>(audio.count) * static_cast<std::size_t>(audio.channels) *
               static_cast<std::size_t>(audio.bits / 8) <=
           size);
    for (int32_t k = 0; k < audio.count; k++) expect(audio.samples[k] >= -1 && audio.samples[k] < 1);
    if (audio.channels == 1) expect_same_from_a_plain_file(audio);
    wav_free(audio);
    expect(audio.samples == nullptr && audio.count == 0);
    return 0;
}
