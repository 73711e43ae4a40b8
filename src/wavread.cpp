// One pass: chunks, checks of the format, how much of the data is present, then the samples block by block. The record
// is filled in the last step, when nothing can fail any more.
#include "wavread.h"

#include <algorithm>

#include "riff.h"

namespace {

bool is_supported(const riff_format& format, std::string* messages) {
    if (format.tag != format_pcm && format.tag != format_extensible) {
        riff_say(messages, "wav_read: unsupported audio format %u (integer PCM required)\n", format.tag);
        return false;
    }
    if (format.bits != 8 && format.bits != 16 && format.bits != 24 && format.bits != 32) {
        riff_say(messages, "wav_read: unsupported bit depth %u\n", format.bits);
        return false;
    }
    if (format.channels == 0) {
        riff_say(messages, "wav_read: invalid channel count\n");
        return false;
    }
    return true;
}

// The number of whole frames in the file, at least one; -1 when there are none or too many.
int32_t count_frames(std::FILE* file, const char* path, const riff_layout& layout, uint32_t frame_bytes,
                     std::string* messages) {
    const int64_t available = riff_bytes_from(file, layout.data_position);
    if (available < 0) {
        riff_say(messages, "wav_read: cannot determine the size of '%s'\n", path);
        return -1;
    }
    uint64_t data_bytes = layout.data_bytes;
    if (data_bytes > static_cast<uint64_t>(available)) {
        riff_say(messages,
                 "wav_read: warning - data chunk claims %llu bytes but only %lld are available in the file; "
                 "truncating.\n",
                 static_cast<unsigned long long>(data_bytes), static_cast<long long>(available));
        data_bytes = static_cast<uint64_t>(available);
    }
    const uint64_t frames = data_bytes / frame_bytes;
    if (frames == 0) {
        riff_say(messages, "wav_read: no usable audio data in '%s'\n", path);
        return -1;
    }
    if (frames > INT32_MAX) {
        riff_say(messages, "wav_read: '%s' is too long (%lld samples, max %ld)\n", path, static_cast<long long>(frames),
                 static_cast<long>(INT32_MAX));
        return -1;
    }
    return static_cast<int32_t>(frames);
}

double mean_of_channels(const uint8_t* frame, const riff_format& format) {
    double sum = 0;
    const uint8_t* sample = frame;
    for (uint32_t k = 0; k < format.channels; ++k, sample += format.bits / 8)
        sum += riff_pcm_value(sample, format.bits);
    return sum / format.channels;
}

}  // namespace

int wav_read(const char* path, wav_audio& out, std::string* messages) {
    out = {};
    const riff_file file(platform_open(path, "rb"));
    if (!file) {
        riff_say(messages, "wav_read: cannot open '%s'\n", path);
        return -1;
    }
    if (!riff_is_wave(file.get(), riff_kind::riff)) {
        riff_say(messages, "wav_read: '%s' is not a valid RIFF/WAVE file\n", path);
        return -1;
    }
    const riff_layout layout = riff_walk(file.get(), riff_kind::riff);
    if (!layout.has_format || !layout.has_data) {
        riff_say(messages, "wav_read: '%s' - missing fmt or data chunk\n", path);
        return -1;
    }
    const riff_format& format = layout.format;
    if (!is_supported(format, messages)) return -1;

    const uint32_t frame_bytes = format.bits / 8 * format.channels;
    const int32_t frames = count_frames(file.get(), path, layout, frame_bytes, messages);
    if (frames < 0) return -1;

    auto samples = riff_allocate<double>(static_cast<std::size_t>(frames));
    const auto block =
        riff_allocate<uint8_t>(static_cast<std::size_t>(std::min(frames, riff_block_frames)) * frame_bytes);
    if (!samples || !block) {
        riff_say(messages, "wav_read: memory allocation failed (%lld samples)\n", static_cast<long long>(frames));
        return -1;
    }
    if (!riff_seek(file.get(), layout.data_position)) {
        riff_say(messages, "wav_read: seek error in '%s'\n", path);
        return -1;
    }
    const auto mix = [&](std::size_t k, const uint8_t* frame) { samples[k] = mean_of_channels(frame, format); };
    if (!riff_read_frames(file.get(), block.get(), frame_bytes, frames, mix)) {
        riff_say(messages, "wav_read: incomplete read of audio data\n");
        return -1;
    }
    out = {.rate = format.rate,
           .channels = static_cast<int32_t>(format.channels),
           .bits = static_cast<int32_t>(format.bits),
           .samples = samples.release(),
           .count = frames};
    return 0;
}

void wav_free(wav_audio& audio) {
    std::free(audio.samples);
    audio.samples = nullptr;
    audio.count = 0;
}
