#include "sources/standard_input.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "system/standard_streams.h"

namespace {

constexpr double WAIT_S = 0.1;
constexpr double PIECE_S = 0.25;  // at a time
// How sound files begin, which hold more than samples.
struct FileKind {
    std::string_view begins, name;
};
constexpr std::array FILE_KINDS = {FileKind{"RIFF", "WAV"},  FileKind{"RF64", "WAV"}, FileKind{"riff", "W64"},
                                   FileKind{"fLaC", "FLAC"}, FileKind{"OggS", "Ogg"}, FileKind{"FORM", "AIFF"}};
constexpr std::size_t KIND_BYTES = 4;

}  // namespace

StandardInput::StandardInput(const SourceOptions& options)
    : name_(options.name),
      sample_format_(options.samples),
      channels_(options.iq ? 2 : static_cast<std::size_t>(options.channels)),
      format_{.iq = options.iq, .rate = options.rate.value_or(USUAL_RATE), .tuning = {}, .waits = true},
      bytes_(channels_ * sample_format_.bytes * static_cast<std::size_t>(PIECE_S * format_.rate)) {}

Source::State StandardInput::read(Piece& piece) {
    piece = {};
    std::optional<std::size_t> got;
    try {
        got = read_standard_input(std::span(bytes_).subspan(held_), WAIT_S);
    } catch (const IoError& error) {
        tell(name_, std::string("cannot read standard input: ") + error.what());
        failed_ = true;
        return State::ENDED;
    }
    if (!got) return State::NONE_YET;
    if (*got == 0) return State::ENDED;
    held_ += *got;
    if (!begun_ && held_ < KIND_BYTES) return State::NONE_YET;
    if (!std::exchange(begun_, true)) require_raw();
    convert(piece.samples);
    return piece.samples.empty() ? State::NONE_YET : State::SAMPLES;
}

// Throws IoError for a sound file: its header would be heard as a click, and its format and rate not be heeded.
void StandardInput::require_raw() const {
    const std::string_view begin(reinterpret_cast<const char*>(bytes_.data()), KIND_BYTES);
    const auto kind = std::ranges::find(FILE_KINDS, begin, &FileKind::begins);
    if (kind == FILE_KINDS.end()) return;
    throw IoError("standard input is a " + std::string(kind->name) +
                  " file, --stdin takes raw samples: 'sox FILE -t s16 -r 12000 -c 1 -' makes them, with --rate 12000");
}

// Takes the complete frames received so far.
void StandardInput::convert(std::vector<float>& samples) {
    const std::size_t frame_bytes = channels_ * sample_format_.bytes;
    const std::size_t frames = held_ / frame_bytes;
    const std::size_t used = frames * frame_bytes;
    samples.resize(frames * channels_);
    convert_samples(sample_format_, std::span(bytes_).first(used), samples);
    if (!format_.iq && channels_ > 1) {
        for (std::size_t frame = 0; frame < frames; frame++) {
            float sum = 0;
            for (std::size_t channel = 0; channel < channels_; channel++) sum += samples[frame * channels_ + channel];
            samples[frame] = sum / static_cast<float>(channels_);
        }
        samples.resize(frames);
    }
    std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(used), bytes_.begin() + static_cast<std::ptrdiff_t>(held_),
              bytes_.begin());
    held_ -= used;
}
