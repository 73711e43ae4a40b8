#include "recordings/piped_recording.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <span>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "recordings/input_file.h"
#include "recordings/raw_recording.h"
#include "recordings/sound_owner.h"
#include "system/standard_streams.h"

namespace {

constexpr std::size_t PIECE_BYTES = 1 << 16;  // received at a time
constexpr int64_t PIECE_FRAMES = 1 << 12;

InputStream open_stream(const std::string& path) {
    try {
        return InputStream(path);
    } catch (const IoError& error) {
        refuse_recording(path, error.what());
    }
}

// ---- Bare samples ---------------------------------------------------------------------------------------------------

class RawPipe : public PipedRecording {
  public:
    RawPipe(const std::string& path, const RecordingOptions& options, uint32_t rate, const SampleFormat& format,
            int32_t channels)
        : PipedRecording(path, options, rate, format, channels), input_(open_stream(path)) {}

  private:
    bool receive(std::vector<uint8_t>& bytes) override {
        const std::size_t held = bytes.size();
        bytes.resize(held + PIECE_BYTES);
        std::size_t got = 0;
        try {
            got = input_.read(std::span(bytes).subspan(held));
        } catch (const IoError& error) {
            refuse_recording(path_, error.what());
        }
        bytes.resize(held + got);
        return got > 0;
    }

    InputStream input_;
};

std::unique_ptr<PipedRecording> open_raw_pipe(const std::string& path, const RecordingOptions& options) {
    const RawLayout layout = raw_layout(path, options);
    RecordingOptions how = options;
    how.iq = layout.iq;
    require_channels(path, how, layout.channels);
    return std::make_unique<RawPipe>(path, how, layout.rate, layout.format, layout.channels);
}

// ---- Containers -----------------------------------------------------------------------------------------------------

// Samples of at most 24 bits, which floats hold exactly.
bool fits_float(const SF_INFO& info) {
    const int samples = info.format & SF_FORMAT_SUBMASK;
    return samples != SF_FORMAT_PCM_32 && samples != SF_FORMAT_DOUBLE;
}

SampleFormat kept_format(const SF_INFO& info) {
    return {SampleFormat::Kind::FLOAT, fits_float(info) ? 4U : 8U, std::endian::native == std::endian::big};
}

class SoundPipe : public PipedRecording {
  public:
    SoundPipe(const std::string& path, const RecordingOptions& options, InputStream input, SoundPtr file,
              const SF_INFO& info)
        : PipedRecording(path, options, static_cast<uint32_t>(info.samplerate), kept_format(info), info.channels),
          input_(std::move(input)),
          file_(std::move(file)),
          as_floats_(fits_float(info)),
          channels_(static_cast<std::size_t>(info.channels)) {}

  private:
    bool receive(std::vector<uint8_t>& bytes) override {
        return as_floats_ ? receive<float>(bytes, sf_readf_float) : receive<double>(bytes, sf_readf_double);
    }

    template <class Sample>
    bool receive(std::vector<uint8_t>& bytes, sf_count_t (*read_frames_of)(SNDFILE*, Sample*, sf_count_t)) {
        std::vector<Sample> samples(static_cast<std::size_t>(PIECE_FRAMES) * channels_);
        const sf_count_t got = read_frames_of(file_.get(), samples.data(), PIECE_FRAMES);
        samples.resize(static_cast<std::size_t>(std::max<sf_count_t>(got, 0)) * channels_);
        const auto raw = std::as_bytes(std::span(samples));
        const std::size_t held = bytes.size();
        bytes.resize(held + raw.size());
        if (!raw.empty()) std::memcpy(bytes.data() + held, raw.data(), raw.size());
        return got > 0;
    }

    InputStream input_;  // outlives the file that reads it
    SoundPtr file_;
    bool as_floats_;
    std::size_t channels_;
};

std::unique_ptr<PipedRecording> open_sound_pipe(const std::string& path, const RecordingOptions& options) {
    InputStream input = open_stream(path);
    SF_INFO info{};
    SoundPtr file(sf_open_fd(input.descriptor(), SFM_READ, &info, SF_FALSE));
    if (!file || info.samplerate < 1 || info.channels < 1) {
        refuse_recording(path,
                         "it is not a recording that can be read from a pipe; bare samples need --raw FORMAT and "
                         "--rate HZ");
    }
    require_channels(path, options, info.channels);
    return std::make_unique<SoundPipe>(path, options, std::move(input), std::move(file), info);
}

}  // namespace

PipedRecording::PipedRecording(const std::string& path, const RecordingOptions& options, uint32_t rate,
                               const SampleFormat& format, int32_t channels)
    : Recording(path, options, rate, 0),
      format_(format),
      channels_(static_cast<std::size_t>(channels)),
      frame_bytes_(format.bytes * channels_) {}

bool PipedRecording::read_on() {
    if (ended_) return false;
    ended_ = !receive(bytes_);
    end_in_time();
    set_frames(first_ + static_cast<int64_t>(bytes_.size() / frame_bytes_));
    if (const std::size_t rest = bytes_.size() % frame_bytes_; ended_ && rest != 0) {
        print_error(format("'%s': %zu byte%s at the end, less than a sample, passed over", path_.c_str(), rest,
                           rest == 1 ? "" : "s"));
    }
    return !ended_;
}

void PipedRecording::end_in_time() {
    if (!options_.most_s) return;
    const auto most = static_cast<int64_t>(std::ceil(*options_.most_s * file_rate())) - first_;
    if (static_cast<int64_t>(bytes_.size() / frame_bytes_) < most) return;
    bytes_.resize(static_cast<std::size_t>(most) * frame_bytes_);
    ended_ = true;
}

void PipedRecording::keep_all() {
    spool_.emplace();
    const auto store = [this] {
        const std::size_t whole = bytes_.size() / frame_bytes_ * frame_bytes_;
        spool_->append(std::span(bytes_).first(whole));
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(whole));
        first_ += static_cast<int64_t>(whole / frame_bytes_);
    };
    store();
    while (read_on()) store();
    store();
}

void PipedRecording::forget(double before_s) {
    const auto frame = static_cast<int64_t>(std::floor(before_s * file_rate()));
    const auto kept = static_cast<int64_t>(bytes_.size() / frame_bytes_);
    const int64_t dropped = std::clamp<int64_t>(frame - first_, 0, kept);
    bytes_.erase(bytes_.begin(), bytes_.begin() + dropped * static_cast<int64_t>(frame_bytes_));
    first_ += dropped;
}

// As many of the frames from one on as are there, of so many at most.
std::span<const uint8_t> PipedRecording::bytes_at(int64_t first, std::size_t count, std::vector<uint8_t>& room) const {
    if (first >= first_) {
        const auto bytes = std::span(bytes_);
        const auto kept =
            bytes.subspan(std::min(static_cast<std::size_t>(first - first_) * frame_bytes_, bytes.size()));
        return kept.first(std::min(kept.size() / frame_bytes_, count) * frame_bytes_);
    }
    if (!spool_) return {};
    room.resize(std::min(static_cast<std::size_t>(first_ - first), count) * frame_bytes_);
    const std::size_t got = spool_->read_at(static_cast<uint64_t>(first) * frame_bytes_, room);
    return std::span(room).first(got / frame_bytes_ * frame_bytes_);
}

void PipedRecording::read_frames(int64_t first, int64_t count, Stretch& out) {
    constexpr std::size_t PIECE = 1 << 12;  // frames
    std::vector<double> samples(PIECE * channels_);
    std::vector<uint8_t> room;
    while (count > 0) {
        const auto bytes = bytes_at(first, std::min<std::size_t>(static_cast<std::size_t>(count), PIECE), room);
        if (bytes.empty()) return;
        const std::size_t frames = bytes.size() / frame_bytes_;
        const auto piece = std::span(samples).first(frames * channels_);
        convert_samples(format_, bytes, piece);
        append(piece, channels_, out);
        first += static_cast<int64_t>(frames);
        count -= static_cast<int64_t>(frames);
    }
}

bool is_pipe(const std::string& path) {
    return path == "-" || is_named_pipe(path);
}

std::unique_ptr<PipedRecording> open_pipe(const std::string& path, const RecordingOptions& options) {
    auto recording = options.raw || raw_kind_of(path) ? open_raw_pipe(path, options) : open_sound_pipe(path, options);
    if (recording->rate() == 0) {
        refuse_recording(path, format("its sample rate of %u Hz is not served", recording->file_rate()));
    }
    return recording;
}
