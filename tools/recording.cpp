#include "recording.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <mutex>
#include <string_view>
#include <utility>

#include "captured_stderr.h"
#include "console.h"
#include "iqread.h"
#include "ovbb.h"
#include "wavread.h"

namespace {

// Why the file cannot be opened and read, or an empty text when it can. Pipes are told by their kind: opening one would
// wait for its writer, and take from it what the next opening lacks.
std::string open_problem(const std::string& path) {
    std::error_code error;
    const auto kind = std::filesystem::status(path, error).type();
    if (kind == std::filesystem::file_type::directory) return "it is a directory";
    if (kind == std::filesystem::file_type::fifo) return "it is a pipe, not a file";
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return std::strerror(errno);
    errno = 0;
    std::fgetc(file);
    const int reason = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    return reason != 0 ? std::strerror(reason) : "";
}

// A reader's line as this command says it: without the reader's name, and always with the (printable) name of the file.
std::string reader_message(const std::string& line, const std::string& path) {
    std::string text = line;
    for (const std::string_view prefix : {"wav_read: ", "iq_read: "}) {
        if (text.starts_with(prefix)) text.erase(0, prefix.size());
    }
    const bool names_file = text.find("'" + path + "'") != std::string::npos;
    return names_file ? text : "cannot read '" + path + "': " + text;
}

// ---- Sample rates ---------------------------------------------------------------------------------------------------

constexpr uint32_t MAX_CONVERTED_RATE = 100000000;

// The rate to convert to: the lowest usual one that loses next to nothing of the band.
int32_t working_rate(uint32_t rate) {
    if (rate_served(rate)) return static_cast<int32_t>(rate);
    constexpr double NEXT_TO = 0.99;
    int64_t eights = 8000;
    int64_t twelves = 12000;
    const double least = NEXT_TO * std::min(rate, MAX_CONVERTED_RATE);
    while (static_cast<double>(eights) < least) eights *= 2;
    while (static_cast<double>(twelves) < least) twelves *= 2;
    return static_cast<int32_t>(std::min(eights, twelves));
}

bool rate_usable(uint32_t rate) {
    return rate_served(rate) || (rate >= 1 && rate <= MAX_CONVERTED_RATE);
}

// ---- Sources --------------------------------------------------------------------------------------------------------

// A whole file in memory, from one of the library's readers.
class HeldRecording : public Recording {
  public:
    HeldRecording(const std::string& path, const RecordingOptions& options, uint32_t rate, std::vector<double> x,
                  std::vector<double> q)
        : Recording(path, options, rate, static_cast<int64_t>(x.size())), x_(std::move(x)), q_(std::move(q)) {}

  private:
    void read_frames(int64_t first, int64_t count, Stretch& out) override {
        const auto take = [&](const std::vector<double>& from, std::vector<double>& to) {
            if (!from.empty()) to.assign(from.begin() + first, from.begin() + first + count);
        };
        take(x_, out.x);
        take(q_, out.q);
    }

    std::vector<double> x_, q_;
};

struct CloseSound {
    void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};
using SoundPtr = std::unique_ptr<SNDFILE, CloseSound>;

// A file that libsndfile reads.
class SoundRecording : public Recording {
  public:
    SoundRecording(const std::string& path, const RecordingOptions& options, SoundPtr file, const SF_INFO& info)
        : Recording(path, options, static_cast<uint32_t>(info.samplerate), info.frames),
          file_(std::move(file)),
          channels_(static_cast<std::size_t>(info.channels)) {}

  private:
    void read_frames(int64_t first, int64_t count, Stretch& out) override {
        constexpr int64_t PIECE = 1 << 16;
        if (sf_seek(file_.get(), first, SEEK_SET) < 0) return;
        std::vector<double> piece(static_cast<std::size_t>(PIECE) * channels_);
        while (count > 0) {
            const int64_t got = sf_readf_double(file_.get(), piece.data(), std::min(PIECE, count));
            if (got <= 0) return;
            for (int64_t frame = 0; frame < got; frame++) {
                append(piece.data() + static_cast<std::size_t>(frame) * channels_, out);
            }
            count -= got;
        }
    }

    void append(const double* frame, Stretch& out) const {
        const auto chosen = static_cast<std::size_t>(std::max(options_.channel - 1, 0));
        if (options_.iq) {
            out.x.push_back(frame[chosen]);
            out.q.push_back(frame[chosen + 1]);
        } else if (options_.channel > 0) {
            out.x.push_back(frame[chosen]);
        } else {
            double sum = 0;
            for (std::size_t channel = 0; channel < channels_; channel++) sum += frame[channel];
            out.x.push_back(sum / static_cast<double>(channels_));
        }
    }

    SoundPtr file_;
    std::size_t channels_;
};

// ---- Opening --------------------------------------------------------------------------------------------------------

constexpr double LONGEST_S = 4e7;                // more than a year is a mistake
constexpr std::uintmax_t SMALL_FILE = 32 << 20;  // bytes that may well be held in memory

using RecordingPtr = std::unique_ptr<Recording>;

void refuse(const std::string& path, const std::string& reason) {
    print_error("cannot read '" + path + "': " + reason);
}

// The library's readers. An empty owner when they refuse the file; `reason` then holds what they said.
RecordingPtr open_with_reader(const std::string& path, const RecordingOptions& options, std::string& reason) {
    CapturedStderr messages;
    RecordingPtr recording;
    if (options.iq) {
        iq_recording read;
        if (iq_read(path.c_str(), read) == 0) {
            recording = std::make_unique<HeldRecording>(path, options, read.rate,
                                                        std::vector<double>(read.i, read.i + read.count),
                                                        std::vector<double>(read.q, read.q + read.count));
        }
        iq_free(read);
    } else {
        wav_audio read;
        if (wav_read(path.c_str(), read) == 0) {
            recording = std::make_unique<HeldRecording>(path, options, read.rate,
                                                        std::vector<double>(read.samples, read.samples + read.count),
                                                        std::vector<double>());
        }
        wav_free(read);
    }
    const std::string shown = printable(path);
    const std::vector<std::string> lines = messages.lines(path, shown);
    if (recording) {
        for (const std::string& line : lines) print_error(reader_message(line, shown));
    } else {
        reason = lines.empty() ? "cannot read '" + path + "'" : reader_message(lines.back(), shown);
    }
    return recording;
}

constexpr sf_count_t UNKNOWN_FRAMES = sf_count_t{1} << 48;  // more is no length but the lack of one

// Frames of a file that was written into a pipe, or cut off, and does not say: all of it is read.
sf_count_t count_frames(SNDFILE* file, int channels) {
    std::vector<short> piece(static_cast<std::size_t>(channels) << 14);
    sf_count_t frames = 0;
    while (const sf_count_t got = sf_readf_short(file, piece.data(), 1 << 14)) frames += got;
    return frames;
}

// libsndfile. An empty owner when it refuses the file, or, after saying so, when the channels do not fit.
RecordingPtr open_with_sndfile(const std::string& path, const RecordingOptions& options, bool& refused) {
    SF_INFO info{};
    SoundPtr file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file || info.samplerate < 1 || info.channels < 1) return nullptr;
    if (info.frames > UNKNOWN_FRAMES) info.frames = count_frames(file.get(), info.channels);
    if (info.frames < 1) return nullptr;
    const int32_t needed = options.channel > 0 ? options.channel + (options.iq ? 1 : 0) : (options.iq ? 2 : 1);
    const bool ambiguous = options.iq && options.channel == 0 && info.channels != 2;
    refused = info.channels < needed || ambiguous;
    if (refused) {
        refuse(path, ambiguous ? format("I/Q needs two channels, it has %d (see --channel)", info.channels)
                               : format("it has %d channel%s", info.channels, info.channels == 1 ? "" : "s"));
        return nullptr;
    }
    return std::make_unique<SoundRecording>(path, options, std::move(file), info);
}

}  // namespace

// Baseband rates are 125 Hz times a power of two, so that the lowest tells whether an input rate fits any of them.
bool rate_served(uint32_t rate) {
    int32_t nfft = 0;
    int32_t nout = 0;
    return rate >= 1 && rate <= static_cast<uint32_t>(std::numeric_limits<int32_t>::max()) &&
           choose_sizes(1, static_cast<int32_t>(rate), 125, nfft, nout) == 0;
}

void add_recording_options(CLI::App& sub, RecordingOptions& options) {
    sub.add_flag("--iq", options.iq, "The recordings are I/Q: two channels, I and Q");
    sub.add_option("--channel", options.channel,
                   "Channel to take, counted from 1; with --iq that of I, Q behind it [mean]")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
}

Recording::Recording(std::string path, const RecordingOptions& options, uint32_t file_rate, int64_t frames)
    : path_(std::move(path)),
      options_(options),
      file_rate_(file_rate),
      frames_(frames),
      rate_(rate_usable(file_rate) ? working_rate(file_rate) : 0) {
    if (rate_ != 0 && static_cast<uint32_t>(rate_) != file_rate) {
        print_error(format("'%s': sample rate converted from %u to %d Hz", path_.c_str(), file_rate, rate_));
    }
}

std::optional<Stretch> Recording::read(double begin_s, double length_s) {
    const auto first = static_cast<int64_t>(std::floor(begin_s * file_rate_));
    const int64_t count = std::clamp<int64_t>(static_cast<int64_t>(std::ceil(length_s * file_rate_)), 0,
                                              std::max<int64_t>(frames_ - first, 0));
    Stretch stretch;
    stretch.begin_s = static_cast<double>(first) / file_rate_;
    {
        const std::lock_guard guard(lock_);
        read_frames(first, count, stretch);
    }
    if (static_cast<int64_t>(stretch.x.size()) < count && !told_short_.exchange(true)) {
        print_error("'" + path_ + "' ends before its header says");
    }
    silence_wrong_samples(stretch);
    if (static_cast<uint32_t>(rate_) != file_rate_ && !(convert(stretch.x) && convert(stretch.q))) {
        refuse(path_, "the sample rate cannot be converted");
        return std::nullopt;
    }
    return stretch;
}

void Recording::silence_wrong_samples(Stretch& stretch) {
    bool wrong = false;
    for (std::vector<double>* samples : {&stretch.x, &stretch.q}) {
        for (double& sample : *samples) {
            if (std::isfinite(sample)) continue;
            sample = 0;
            wrong = true;
        }
    }
    if (wrong && !told_wrong_samples_.exchange(true)) {
        print_error("'" + path_ + "' holds samples that are not finite numbers; they count as silence");
    }
}

bool Recording::convert(std::vector<double>& samples) const {
    if (samples.empty()) return true;
    const auto length = static_cast<std::size_t>(
        std::lround(static_cast<double>(samples.size()) * rate_ / static_cast<double>(file_rate_)));
    std::vector<double> out(length);
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    std::size_t done = 0;
    const soxr_error_t error = soxr_oneshot(file_rate_, rate_, 1, samples.data(), samples.size(), nullptr, out.data(),
                                            out.size(), &done, &io, &quality, nullptr);
    if (error != nullptr) return false;
    out.resize(done);
    samples = std::move(out);
    return true;
}

namespace {

// Whether libsndfile finds floating-point samples in a file. The library's readers take those of the extensible format
// for integers.
bool holds_floats(const std::string& path) {
    SF_INFO info{};
    const SoundPtr file(sf_open(path.c_str(), SFM_READ, &info));
    const int samples = info.format & SF_FORMAT_SUBMASK;
    return file && (samples == SF_FORMAT_FLOAT || samples == SF_FORMAT_DOUBLE);
}

// Opens a file by whatever can.
RecordingPtr open_file(const std::string& path, const RecordingOptions& options) {
    if (const std::string problem = open_problem(path); !problem.empty()) {
        refuse(path, problem);
        return nullptr;
    }
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(path, error);
    std::string reason;
    const bool small = options.channel == 0 && (error || bytes <= SMALL_FILE) && !holds_floats(path);
    if (small) {
        if (auto recording = open_with_reader(path, options, reason)) return recording;
    }
    bool refused = false;
    if (auto recording = open_with_sndfile(path, options, refused)) return recording;
    if (refused) return nullptr;
    if (!small && options.channel == 0) {
        if (auto recording = open_with_reader(path, options, reason)) return recording;
    }
    if (reason.empty()) {
        refuse(path, "it is no recording that can be read");
    } else {
        print_error(reason);
    }
    return nullptr;
}

}  // namespace

std::unique_ptr<Recording> open_recording(const std::string& path, const RecordingOptions& options) {
    auto recording = open_file(path, options);
    if (recording && recording->rate() != 0 && recording->seconds() > LONGEST_S) {
        refuse(path, format("it claims to last %.0f days", recording->seconds() / 86400));
        return nullptr;
    }
    if (recording && recording->rate() == 0) {
        print_error(
            format("cannot decode '%s': its sample rate of %u Hz is not served", path.c_str(), recording->file_rate()));
        return nullptr;
    }
    return recording;
}
