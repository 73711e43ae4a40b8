// Plain WAV files, as the readers must understand them.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

struct WaveFormat {
    uint16_t tag;
    uint16_t channels;
    uint32_t rate;
    uint16_t bits;
};

inline void put_id(std::vector<uint8_t>& bytes, std::string_view id) {
    bytes.insert(bytes.end(), id.begin(), id.end());
}

inline void put_le(std::vector<uint8_t>& bytes, uint64_t value, int size) {
    for (int i = 0; i < size; i++) bytes.push_back(static_cast<uint8_t>(value >> (8 * i) & 0xFF));
}

inline void put_format(std::vector<uint8_t>& bytes, const WaveFormat& format) {
    const uint32_t frame_bytes = uint32_t{format.channels} * format.bits / 8;
    put_id(bytes, "fmt ");
    put_le(bytes, 16, 4);
    put_le(bytes, format.tag, 2);
    put_le(bytes, format.channels, 2);
    put_le(bytes, format.rate, 4);
    put_le(bytes, uint64_t{format.rate} * frame_bytes & 0xFFFFFFFF, 4);
    put_le(bytes, frame_bytes, 2);
    put_le(bytes, format.bits, 2);
}

inline std::vector<uint8_t> wave_file(const WaveFormat& format, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> bytes;
    put_id(bytes, "RIFF");
    put_le(bytes, 36 + data.size(), 4);
    put_id(bytes, "WAVE");
    put_format(bytes, format);
    put_id(bytes, "data");
    put_le(bytes, data.size(), 4);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}
