// What the two recording readers share: the walk over the chunks of a RIFF or RF64 file, the scaling of samples, and
// buffers that are freed on every exit path.
//
// Everything in such a file is little-endian: a 12-byte header ("RIFF", size, "WAVE"), then chunks of an 8-byte header
// (id, size) and a body padded to an even length. An RF64 file keeps the sizes that do not fit 32 bits in its ds64
// chunk. Nothing here prints; each reader words its own messages. No state is kept: threads may read at once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform.h"

// Which files a reader accepts.
enum class riff_kind { riff, riff_or_rf64 };

// Format tags of a fmt chunk.
constexpr uint32_t format_pcm = 1;
constexpr uint32_t format_float = 3;
constexpr uint32_t format_extensible = 0xFFFE;  // the real format is in a sub-format, which is ignored

// The fields of a fmt chunk that are used.
struct riff_format {
    uint32_t tag;       // format tag, 16 bits in the file
    uint32_t channels;  // 16 bits in the file
    uint32_t rate;      // sample rate, Hz
    uint32_t bits;      // bits per sample, 16 bits in the file
};

// What a walk over the chunks has found. Nothing is checked: any field may hold any value.
struct riff_layout {
    riff_format format;
    uint64_t data_position;  // first byte of the samples in the file
    uint64_t data_bytes;     // size the file claims for them
    bool has_format;
    bool has_data;
};

struct riff_close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using riff_file = std::unique_ptr<std::FILE, riff_close>;

// Buffers come from malloc, so that what is released into a record is freed with free.
struct riff_free {
    void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using riff_buffer = std::unique_ptr<T[], riff_free>;

// A buffer of n elements, not initialised; null when there is no memory.
template <class T>
riff_buffer<T> riff_allocate(std::size_t n) {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    return riff_buffer<T>(static_cast<T*>(std::malloc(n * sizeof(T))));
}

// printf to standard error, or, when `messages` is not null, appended to it; the message is lost when memory is short.
[[gnu::format(PLATFORM_PRINTF, 2, 3)]] void riff_say(std::string* messages, const char* pattern, ...);

// Reads the 12-byte header; false when it is short or not of the kind.
bool riff_is_wave(std::FILE* file, riff_kind kind);

// Walks the chunks that follow the header, to the data chunk that holds the samples or as far as the file goes.
//
// A data chunk ends the walk once a fmt chunk has been seen; one that comes earlier is remembered and replaced by
// a later one. In files that may be RF64 a data chunk of size 0xFFFFFFFF ends the walk in any case and takes the size
// from ds64, if that has been seen.
riff_layout riff_walk(std::FILE* file, riff_kind kind);

// Bytes of the file from position to its end, 0 when it ends earlier; -1 when its size cannot be found.
int64_t riff_bytes_from(std::FILE* file, uint64_t position);

// Seeks to a position counted from the start of the file; false when that fails.
bool riff_seek(std::FILE* file, uint64_t position);

// One integer sample of 8 (unsigned), 16, 24 or 32 (signed) bits as a number from -1 to below 1.
double riff_pcm_value(const uint8_t* bytes, uint32_t bits);

// One 32-bit float sample.
double riff_float_value(const uint8_t* bytes);

// Frames are read in blocks of this many.
constexpr int32_t riff_block_frames = 65536;

// Reads `frames` frames of `frame_bytes` bytes from the current position and hands each to take(index, bytes).
//   block  room for riff_block_frames frames, or for all when there are fewer
// Returns false when the file ends, or fails, before the last one.
template <class Take>
bool riff_read_frames(std::FILE* file, uint8_t* block, std::size_t frame_bytes, int32_t frames, Take take) {
    for (int32_t first = 0; first < frames;) {
        const int32_t n = std::min(riff_block_frames, frames - first);
        const auto n_frames = static_cast<std::size_t>(n);
        if (std::fread(block, frame_bytes, n_frames, file) != n_frames) return false;
        for (std::size_t k = 0; k < n_frames; ++k) take(static_cast<std::size_t>(first) + k, block + k * frame_bytes);
        first += n;
    }
    return true;
}
