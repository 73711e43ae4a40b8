#include "recordings/raw_recording.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>

#include "base/console.h"
#include "base/text.h"
#include "recordings/input_file.h"
#include "system/files.h"

namespace {

constexpr std::size_t READ_BYTES = 1 << 18;  // read at a time

int64_t frames_of(const RawLayout& layout) {
    int64_t frames = 0;
    for (const SampleRun& run : layout.runs) frames += run.frames;
    return frames;
}

class RawRecording : public Recording {
  public:
    RawRecording(const std::string& path, const std::string& data, const RecordingOptions& options,
                 const RawLayout& layout)
        : Recording(path, options, layout.rate, frames_of(layout), layout.takes),
          file_(data),
          format_(layout.format),
          channels_(static_cast<std::size_t>(layout.channels)),
          runs_(layout.runs),
          bytes_(std::max<std::size_t>(READ_BYTES / layout.frame_bytes(), 1) * layout.frame_bytes()),
          samples_(bytes_.size() / format_.bytes) {}

  private:
    void read_frames(int64_t first, int64_t count, Stretch& out) override {
        int64_t run_begin = 0;
        for (const SampleRun& run : runs_) {
            const int64_t begin = std::max(first, run_begin);
            const int64_t end = std::min(first + count, run_begin + run.frames);
            if (begin < end && !read_run(run.offset + bytes_of(begin - run_begin), end - begin, out)) return;
            run_begin += run.frames;
        }
    }

    // False where the file ends before.
    bool read_run(uint64_t offset, int64_t frames, Stretch& out) {
        for (uint64_t left = bytes_of(frames); left > 0;) {
            const auto piece = std::span(bytes_).first(std::min<uint64_t>(left, bytes_.size()));
            const std::size_t got = file_.read_at(offset, piece) / bytes_of(1) * bytes_of(1);
            const auto samples = std::span(samples_).first(got / format_.bytes);
            convert_samples(format_, piece.first(got), samples);
            append(samples, channels_, out);
            if (got < piece.size()) return false;
            offset += got;
            left -= got;
        }
        return true;
    }

    uint64_t bytes_of(int64_t frames) const { return static_cast<uint64_t>(frames) * channels_ * format_.bytes; }

    InputFile file_;
    SampleFormat format_;
    std::size_t channels_;
    std::vector<SampleRun> runs_;
    std::vector<uint8_t> bytes_;
    std::vector<double> samples_;
};

}  // namespace

RecordingSize RawLayout::size_of(uint64_t bytes) const {
    const double frames = static_cast<double>(bytes) / static_cast<double>(frame_bytes());
    return {.bytes = bytes, .rate = rate, .seconds = rate > 0 ? frames / rate : 0, .iq = iq};
}

std::unique_ptr<Recording> open_samples(const std::string& path, const std::string& data,
                                        const RecordingOptions& options, RawLayout layout) {
    RecordingOptions how = options;
    how.iq = how.iq || layout.iq;
    require_channels(path, how, layout.channels);
    if (frames_of(layout) < 1) refuse_recording(path, "it holds no samples");
    return std::make_unique<RawRecording>(path, data, how, layout);
}

std::optional<RawKind> raw_kind_of(const std::string& path) {
    const std::string extension = lower_case(text_of(native_path(path).extension()));
    if (extension.empty()) return std::nullopt;
    if (extension == ".cfile") return RawKind{*parse_sample_format("f32"), true};
    std::string_view name = std::string_view(extension).substr(1);
    const bool iq = name.starts_with('c');
    if (iq) name.remove_prefix(1);
    const auto format = parse_sample_format(name);
    return format ? std::optional(RawKind{*format, iq}) : std::nullopt;
}

RawLayout raw_layout(const std::string& path, const RecordingOptions& options) {
    const auto kind = raw_kind_of(path);
    RawLayout layout;
    layout.format = options.raw ? *options.raw : kind.value().format;
    layout.iq = options.iq || (kind && kind->iq);
    layout.channels = layout.iq ? 2 : 1;
    if (!options.raw_rate) refuse_recording(path, "it holds bare samples, whose rate only --rate tells");
    layout.rate = *options.raw_rate;
    return layout;
}

RecordingSize raw_size(const std::string& path, const RecordingOptions& options) {
    return raw_layout(path, options).size_of(InputFile(path).size());
}

std::unique_ptr<Recording> open_raw(const std::string& path, const RecordingOptions& options) {
    RawLayout layout = raw_layout(path, options);
    const uint64_t bytes = InputFile(path).size();
    if (bytes == 0) refuse_recording(path, "it is empty");
    layout.runs = {{static_cast<int64_t>(bytes / layout.frame_bytes()), 0}};
    if (const uint64_t rest = bytes % layout.frame_bytes(); rest != 0) {
        print_error(format("'%s': %llu byte%s at the end less than a sample of %zu %s passed over", path.c_str(),
                           static_cast<unsigned long long>(rest), rest == 1 ? "" : "s", layout.frame_bytes(),
                           rest == 1 ? "is" : "are"));
    }
    return open_samples(path, path, options, std::move(layout));
}
