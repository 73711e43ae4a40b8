#include "recordings/sound_writer.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "base/error.h"
#include "system/sound_files.h"

namespace {

// Why a call of libsndfile failed that began with errno 0: the system's reason, as for a FLAC file on a full disk
// libsndfile speaks of a "problem with initialization of the flac decoder", or else libsndfile's.
std::string reason_of(int system_error, std::string sndfile_text) {
    if (system_error != 0) return std::strerror(system_error);
    if (sndfile_text.ends_with('.')) sndfile_text.pop_back();
    return sndfile_text;
}

int container_of(const SoundWriter::Format& format) {
    constexpr double MOST_BYTES = 4.2e9;  // of a WAV file's samples: it counts its bytes in 32 bits
    if (format.container == SoundWriter::Container::FLAC) return SF_FORMAT_FLAC;
    const double bytes = static_cast<double>(format.frames) * format.channels * (format.s16 ? 2 : 4);
    return bytes < MOST_BYTES ? SF_FORMAT_WAV : SF_FORMAT_RF64;
}

}  // namespace

int64_t round_to_s16(std::span<const float> samples, std::vector<int16_t>& rounded) {
    rounded.clear();
    rounded.reserve(samples.size());
    int64_t clipped = 0;
    for (const float sample : samples) {
        const double value = std::round(static_cast<double>(sample) * 32768.0);
        if (value < -32768 || value > 32768) clipped++;
        rounded.push_back(static_cast<int16_t>(std::clamp(value, -32768.0, 32767.0)));
    }
    return clipped;
}

SoundWriter::SoundWriter(const std::string& path, const Format& format) : path_(path), s16_(format.s16) {
    SF_INFO info{};
    info.samplerate = format.rate;
    info.channels = format.channels;
    info.format = container_of(format) | (s16_ ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT);
    errno = 0;
    file_.reset(open_sound_file(path, SFM_WRITE, info));
    if (!file_) {
        problem_ = reason_of(errno, sf_strerror(nullptr));
        return;
    }
    // It would hold the time of writing. Only of RF64 files libsndfile does not leave it out.
    sf_command(file_.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
}

// 16-bit samples are rounded to the nearest: libsndfile's own conversion truncates them.
bool SoundWriter::write(std::span<const float> samples) {
    if (!problem_.empty()) return false;
    const auto count = static_cast<sf_count_t>(samples.size());
    sf_count_t written = 0;
    errno = 0;
    if (s16_) {
        clipped_ += round_to_s16(samples, rounded_);
        written = sf_write_short(file_.get(), rounded_.data(), count);
    } else {
        written = sf_write_float(file_.get(), samples.data(), count);
    }
    if (written != count) problem_ = reason_of(errno, sf_strerror(file_.get()));
    return written == count;
}

void SoundWriter::close() {
    if (file_) {
        errno = 0;
        const int error = sf_close(file_.release());
        if (error != 0 && problem_.empty()) problem_ = reason_of(errno, sf_error_number(error));
    }
    if (!problem_.empty()) throw IoError("cannot write '" + path_ + "': " + problem_);
}
