#include "listening/raw_input.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"

namespace {

constexpr double READ_S = 0.25;  // at a time
// How sound files begin, which hold more than samples.
struct FileKind {
    std::string_view begins, name;
};
constexpr std::array FILE_KINDS = {FileKind{"RIFF", "WAV"},  FileKind{"RF64", "WAV"}, FileKind{"riff", "W64"},
                                   FileKind{"fLaC", "FLAC"}, FileKind{"OggS", "Ogg"}, FileKind{"FORM", "AIFF"}};
constexpr std::size_t KIND_BYTES = 4;

constexpr float MOST_SAMPLE = 0x1p31f;  // full scale of 32-bit samples, in case they were not scaled

}  // namespace

RawInput::RawInput(const Format& format)
    : is_float_(format.is_float),
      frame_bytes_((is_float_ ? sizeof(float) : sizeof(int16_t)) * static_cast<std::size_t>(format.channels)),
      bytes_(frame_bytes_ * static_cast<std::size_t>(READ_S * format.rate)) {}

bool RawInput::read(std::vector<float>& samples) {
    samples.clear();
    while (samples.empty() && !interrupted()) {
        pollfd ready{STDIN_FILENO, POLLIN, 0};
        if (poll(&ready, 1, 100) <= 0) continue;
        const ssize_t got = ::read(STDIN_FILENO, bytes_.data() + held_, bytes_.size() - held_);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            print_error(std::string("cannot read standard input: ") + std::strerror(errno));
            failed_ = true;
        }
        if (got <= 0) return false;
        held_ += static_cast<std::size_t>(got);
        if (!begun_ && held_ < KIND_BYTES) continue;
        if (!std::exchange(begun_, true)) require_raw();
        convert(samples);
    }
    return !samples.empty();
}

// Throws IoError for a sound file: its header would be heard as a click, and its format and rate not be heeded.
void RawInput::require_raw() const {
    const std::string_view begin(reinterpret_cast<const char*>(bytes_.data()), KIND_BYTES);
    const auto kind = std::ranges::find(FILE_KINDS, begin, &FileKind::begins);
    if (kind == FILE_KINDS.end()) return;
    throw IoError("standard input is a " + std::string(kind->name) +
                  " file, --stdin takes raw samples: 'sox FILE -t s16 -r 12000 -c 1 -' makes them, with --rate 12000");
}

template <class Integer>
Integer RawInput::little_endian(std::size_t at) const {
    Integer value = 0;
    for (std::size_t i = sizeof(Integer); i > 0; i--) {
        value = static_cast<Integer>((value << 8) | bytes_[at + i - 1]);
    }
    return value;
}

// Takes the complete frames received so far. A sample that is not a number, or beyond any scale, would hide everything
// else for as long as it is in the ring.
void RawInput::convert(std::vector<float>& samples) {
    const std::size_t used = held_ - held_ % frame_bytes_;
    for (std::size_t at = 0; at < used; at += is_float_ ? sizeof(float) : sizeof(int16_t)) {
        float value = 0;
        if (is_float_) {
            value = std::bit_cast<float>(little_endian<uint32_t>(at));
        } else {
            value = static_cast<float>(static_cast<int16_t>(little_endian<uint16_t>(at))) / 32768.0f;
        }
        samples.push_back(std::abs(value) <= MOST_SAMPLE ? value : 0.0f);
    }
    std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(used), bytes_.begin() + static_cast<std::ptrdiff_t>(held_),
              bytes_.begin());
    held_ -= used;
}
