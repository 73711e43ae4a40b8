// The walk keeps its position in 64 bits, as the sum of the chunk sizes. Each step advances by at least a chunk header,
// so a walk ends with the file, whatever sizes its chunks claim.
#include "riff.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstring>
#include <new>
#include <span>
#include <string_view>

namespace {

constexpr std::size_t file_header_bytes = 12;
constexpr uint32_t size_in_ds64 = 0xFFFFFFFF;  // stands for a size that 32 bits cannot hold

uint32_t le16(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0] | bytes[1] << 8);
}
uint32_t le32(const uint8_t* bytes) {
    return le16(bytes) | le16(bytes + 2) << 16;
}
uint64_t le64(const uint8_t* bytes) {
    return le32(bytes) | static_cast<uint64_t>(le32(bytes + 4)) << 32;
}

bool is_id(const uint8_t* bytes, std::string_view id) {
    return std::memcmp(bytes, id.data(), id.size()) == 0;
}

bool read_all(std::FILE* file, std::span<uint8_t> bytes) {
    return std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

// False when the chunk is too short to be one or the file ends in it.
bool read_format(std::FILE* file, uint32_t chunk_bytes, riff_format& format) {
    constexpr uint32_t least_bytes = 16;  // the fields of plain PCM
    constexpr uint32_t most_bytes = 40;   // those of an extensible format

    std::array<uint8_t, most_bytes> body = {};
    if (chunk_bytes < least_bytes) return false;
    if (!read_all(file, std::span(body).first(std::min(chunk_bytes, most_bytes)))) return false;
    format = {.tag = le16(&body[0]), .channels = le16(&body[2]), .rate = le32(&body[4]), .bits = le16(&body[14])};
    return true;
}

// The 64-bit size of the data chunk; false when the file ends in the fixed fields of ds64.
bool read_ds64(std::FILE* file, uint64_t& data_bytes) {
    std::array<uint8_t, 28> body = {};
    if (!read_all(file, body)) return false;
    data_bytes = le64(&body[8]);
    return true;
}

}  // namespace

void riff_say(std::string* messages, const char* pattern, ...) {
    std::va_list arguments;
    va_start(arguments, pattern);
    if (messages == nullptr) {
        std::vfprintf(stderr, pattern, arguments);
        va_end(arguments);
        return;
    }
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, pattern, arguments);
    va_end(arguments);
    const std::size_t before = messages->size();
    try {
        messages->resize(before + static_cast<std::size_t>(std::max(length, 0)));
        std::vsnprintf(messages->data() + before, messages->size() - before + 1, pattern, again);
    } catch (const std::bad_alloc&) {  // the message is lost
    }
    va_end(again);
}

bool riff_is_wave(std::FILE* file, riff_kind kind) {
    std::array<uint8_t, file_header_bytes> header = {};
    if (!read_all(file, header)) return false;
    const bool known = is_id(&header[0], "RIFF") || (kind == riff_kind::riff_or_rf64 && is_id(&header[0], "RF64"));
    return known && is_id(&header[8], "WAVE");
}

riff_layout riff_walk(std::FILE* file, riff_kind kind) {
    const bool may_be_rf64 = kind == riff_kind::riff_or_rf64;
    riff_layout layout = {};
    uint64_t ds64_data_bytes = 0;
    bool has_ds64 = false;

    std::array<uint8_t, 8> header = {};
    for (uint64_t position = file_header_bytes; read_all(file, header);) {
        const uint32_t size = le32(&header[4]);
        position += header.size();
        if (is_id(&header[0], "fmt ")) {
            if (!read_format(file, size, layout.format)) break;
            layout.has_format = true;
        } else if (may_be_rf64 && is_id(&header[0], "ds64")) {
            has_ds64 = read_ds64(file, ds64_data_bytes) || has_ds64;
        } else if (is_id(&header[0], "data")) {
            const bool size_elsewhere = may_be_rf64 && size == size_in_ds64;
            layout.has_data = true;
            layout.data_position = position;
            layout.data_bytes = size_elsewhere && has_ds64 ? ds64_data_bytes : size;
            if (size_elsewhere || layout.has_format) break;
        }
        position += uint64_t{size} + (size & 1);
        if (!riff_seek(file, position)) break;
    }
    return layout;
}

int64_t riff_bytes_from(std::FILE* file, uint64_t position) {
    if (!platform_seek(file, 0, SEEK_END)) return -1;
    const int64_t size = platform_tell(file);
    if (size < 0 || !riff_seek(file, position)) return -1;
    const auto bytes = static_cast<uint64_t>(size);
    return bytes > position ? static_cast<int64_t>(bytes - position) : 0;
}

bool riff_seek(std::FILE* file, uint64_t position) {
    return position <= INT64_MAX && platform_seek(file, static_cast<int64_t>(position), SEEK_SET);
}

double riff_pcm_value(const uint8_t* bytes, uint32_t bits) {
    constexpr double full_scale_32 = 2147483648.0;
    switch (bits) {
        case 8:
            return (bytes[0] - 128) / 128.0;
        case 16:
            return static_cast<int16_t>(le16(bytes)) / 32768.0;
        case 24:  // in the upper three of four bytes, where the sign bit is in place
            return static_cast<int32_t>(le16(bytes) << 8 | static_cast<uint32_t>(bytes[2]) << 24) / full_scale_32;
        case 32:
            return static_cast<int32_t>(le32(bytes)) / full_scale_32;
        default:
            return 0;
    }
}

double riff_float_value(const uint8_t* bytes) {
    return std::bit_cast<float>(le32(bytes));
}
