// One pass: chunks, checks of the format, how much of the data is present, then the samples block by block. The record
// is filled in the last step, when nothing can fail any more.
#include "iqread.h"

#include <algorithm>

#include "riff.h"

namespace {

constexpr uint32_t n_channels = 2;

bool is_supported(const riff_format& format, const char* path, std::string* messages) {
    if (format.tag != format_pcm && format.tag != format_float && format.tag != format_extensible) {
        riff_say(messages, "iq_read: unsupported audio format %u (integer or float32 PCM required)\n", format.tag);
        return false;
    }
    if (format.tag == format_float && format.bits != 32) {
        riff_say(messages, "iq_read: float format requires 32-bit samples (got %u-bit)\n", format.bits);
        return false;
    }
    if (format.bits != 8 && format.bits != 16 && format.bits != 24 && format.bits != 32) {
        riff_say(messages, "iq_read: unsupported bit depth %u\n", format.bits);
        return false;
    }
    if (format.channels != n_channels) {
        riff_say(messages, "iq_read: '%s' has %u channel(s) - I/Q capture requires exactly 2 (left=I, right=Q)\n", path,
                 format.channels);
        return false;
    }
    return true;
}

// The number of whole pairs in the file, at least one; -1 when there are none or too many.
int32_t count_pairs(std::FILE* file, const char* path, const riff_layout& layout, uint32_t pair_bytes,
                    std::string* messages) {
    const int64_t available = riff_bytes_from(file, layout.data_position);
    if (available < 0) {
        riff_say(messages, "iq_read: cannot determine the size of '%s'\n", path);
        return -1;
    }
    uint64_t data_bytes = layout.data_bytes;
    if (data_bytes > static_cast<uint64_t>(available)) {
        riff_say(messages, "iq_read: warning - data chunk claims %llu bytes but only %lld are available; truncating.\n",
                 static_cast<unsigned long long>(data_bytes), static_cast<long long>(available));
        data_bytes = static_cast<uint64_t>(available);
    }
    const uint64_t pairs = data_bytes / pair_bytes;
    if (pairs == 0) {
        riff_say(messages, "iq_read: no usable I/Q data in '%s'\n", path);
        return -1;
    }
    if (pairs > INT32_MAX) {
        riff_say(messages, "iq_read: '%s' is too long (%lld samples per channel, max %ld)\n", path,
                 static_cast<long long>(pairs), static_cast<long>(INT32_MAX));
        return -1;
    }
    return static_cast<int32_t>(pairs);
}

// An extensible file holds integers here, also at 32 bits: only the float tag itself means float.
double sample_value(const uint8_t* bytes, const riff_format& format) {
    return format.tag == format_float ? riff_float_value(bytes) : riff_pcm_value(bytes, format.bits);
}

}  // namespace

int iq_read(const char* path, iq_recording& out, std::string* messages) {
    out = {};
    const riff_file file(platform_open(path, "rb"));
    if (!file) {
        riff_say(messages, "iq_read: cannot open '%s'\n", path);
        return -1;
    }
    if (!riff_is_wave(file.get(), riff_kind::riff_or_rf64)) {
        riff_say(messages, "iq_read: '%s' is not a valid RIFF/RF64 WAVE file\n", path);
        return -1;
    }
    const riff_layout layout = riff_walk(file.get(), riff_kind::riff_or_rf64);
    if (!layout.has_format || !layout.has_data) {
        riff_say(messages, "iq_read: '%s' - missing fmt or data chunk\n", path);
        return -1;
    }
    const riff_format& format = layout.format;
    if (!is_supported(format, path, messages)) return -1;

    const uint32_t sample_bytes = format.bits / 8;
    const uint32_t pair_bytes = sample_bytes * n_channels;
    const int32_t pairs = count_pairs(file.get(), path, layout, pair_bytes, messages);
    if (pairs < 0) return -1;

    auto i = riff_allocate<double>(static_cast<std::size_t>(pairs));
    auto q = riff_allocate<double>(static_cast<std::size_t>(pairs));
    const auto block =
        riff_allocate<uint8_t>(static_cast<std::size_t>(std::min(pairs, riff_block_frames)) * pair_bytes);
    if (!i || !q || !block) {
        riff_say(messages, "iq_read: memory allocation failed (%lld samples per channel)\n",
                 static_cast<long long>(pairs));
        return -1;
    }
    if (!riff_seek(file.get(), layout.data_position)) {
        riff_say(messages, "iq_read: seek error in '%s'\n", path);
        return -1;
    }
    const auto split = [&](std::size_t k, const uint8_t* pair) {
        i[k] = sample_value(pair, format);
        q[k] = sample_value(pair + sample_bytes, format);
    };
    if (!riff_read_frames(file.get(), block.get(), pair_bytes, pairs, split)) {
        riff_say(messages, "iq_read: incomplete read of I/Q data\n");
        return -1;
    }
    out = {.rate = format.rate,
           .bits = static_cast<int32_t>(format.bits),
           .i = i.release(),
           .q = q.release(),
           .count = pairs};
    return 0;
}

void iq_free(iq_recording& recording) {
    std::free(recording.i);
    std::free(recording.q);
    recording.i = nullptr;
    recording.q = nullptr;
    recording.count = 0;
}

double pcm_value(const uint8_t* bytes, int32_t bits) {
    return riff_pcm_value(bytes, static_cast<uint32_t>(bits));
}
