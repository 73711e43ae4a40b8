#include "recordings/open_recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "iqread.h"
#include "recordings/input_file.h"
#include "recordings/live_recording.h"
#include "recordings/piped_recording.h"
#include "recordings/raw_recording.h"
#include "recordings/sigmf.h"
#include "recordings/sound_owner.h"
#include "sources/source.h"
#include "sources/url_file.h"
#include "system/files.h"
#include "system/sound_files.h"
#include "wavread.h"

namespace {

// Why the file cannot be opened and read, or an empty text when it can.
std::string open_problem(const std::string& path) {
    std::error_code error;
    const auto kind = std::filesystem::status(native_path(path), error).type();
    if (kind == std::filesystem::file_type::directory) return "it is a directory";
    std::FILE* file = open_file(path, "rb");
    if (!file) return std::strerror(errno);
    errno = 0;
    std::fgetc(file);
    const int reason = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    return reason != 0 ? std::strerror(reason) : "";
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
            if (from.empty()) return;
            to.assign(from.begin() + first, from.begin() + first + count);
            silence_wrong_samples(to);
        };
        take(x_, out.x);
        take(q_, out.q);
    }

    std::vector<double> x_, q_;
};

// What libsndfile reads, from a file or behind a URL.
class Sound {
  public:
    explicit Sound(const std::string& path) {
        if (!is_url(path)) {
            file_.reset(open_sound_file(path, SFM_READ, info_));
            return;
        }
        remote_ = std::make_unique<Remote>(path);
        SF_VIRTUAL_IO calls{Remote::length, Remote::seek, Remote::read, Remote::write, Remote::tell};
        file_.reset(sf_open_virtual(&calls, SFM_READ, &info_, remote_.get()));
        require_source();
    }

    SNDFILE* get() const { return file_.get(); }
    SF_INFO& info() { return info_; }

    // Of the file, which is at that path.
    uint64_t bytes(const std::string& path) const { return remote_ ? remote_->file.size() : InputFile(path).size(); }

    // Throws IoError when a read failed for another reason than the end.
    void require_source() const {
        if (remote_ && remote_->problem) std::rethrow_exception(std::exchange(remote_->problem, nullptr));
    }

  private:
    // No exception passes through libsndfile.
    struct Remote {
        explicit Remote(const std::string& path) : file(path) {}

        static Remote& of(void* self) { return *static_cast<Remote*>(self); }
        static sf_count_t length(void* self) { return static_cast<sf_count_t>(of(self).file.size()); }
        static sf_count_t tell(void* self) { return of(self).at; }
        static sf_count_t write(const void*, sf_count_t, void*) { return 0; }
        static sf_count_t seek(sf_count_t offset, int whence, void* self) {
            const sf_count_t from = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? of(self).at : length(self);
            if (offset < -from || offset > std::numeric_limits<sf_count_t>::max() - from) return -1;
            return of(self).at = from + offset;
        }
        static sf_count_t read(void* out, sf_count_t count, void* self) {
            Remote& remote = of(self);
            if (count <= 0) return 0;
            try {
                const auto bytes = std::span(static_cast<uint8_t*>(out), static_cast<std::size_t>(count));
                const auto got = static_cast<sf_count_t>(remote.file.read_at(static_cast<uint64_t>(remote.at), bytes));
                remote.at += got;
                return got;
            } catch (...) {
                remote.problem = std::current_exception();
                return 0;
            }
        }

        InputFile file;
        sf_count_t at = 0;
        std::exception_ptr problem;
    };

    std::unique_ptr<Remote> remote_;  // outlives the file that reads it
    SF_INFO info_{};
    SoundPtr file_;
};

// A file that libsndfile reads.
class SoundRecording : public Recording {
  public:
    SoundRecording(const std::string& path, const RecordingOptions& options, Sound sound)
        : Recording(path, options, static_cast<uint32_t>(sound.info().samplerate), sound.info().frames),
          sound_(std::move(sound)),
          channels_(static_cast<std::size_t>(sound_.info().channels)) {}

  private:
    void read_frames(int64_t first, int64_t count, Stretch& out) override {
        constexpr int64_t PIECE = 1 << 12;  // stays in the fastest memory
        const sf_count_t place = sf_seek(sound_.get(), first, SEEK_SET);
        sound_.require_source();
        if (place < 0) return;
        std::vector<double> piece(static_cast<std::size_t>(std::min(PIECE, count)) * channels_);
        while (count > 0) {
            const int64_t got = sf_readf_double(sound_.get(), piece.data(), std::min(PIECE, count));
            sound_.require_source();
            if (got <= 0) return;
            append(std::span(piece).first(static_cast<std::size_t>(got) * channels_), channels_, out);
            count -= got;
        }
    }

    Sound sound_;
    std::size_t channels_;
};

// ---- Opening --------------------------------------------------------------------------------------------------------

constexpr double LONGEST_S = 4e7;                // more than a year is a mistake
constexpr std::uintmax_t SMALL_FILE = 32 << 20;  // bytes that may well be held in memory

using RecordingPtr = std::unique_ptr<Recording>;

// A reader's line as our programs print it: without the reader's name, and always with the name of the file. A file
// that was cut off is read as far as it goes, as every other kind is.
std::string reader_message(std::string line, const std::string& shown) {
    for (const std::string_view prefix : {"wav_read: ", "iq_read: "}) {
        if (line.starts_with(prefix)) line.erase(0, prefix.size());
    }
    if (line.starts_with("warning - data chunk claims")) return "'" + shown + "' ends before its header says";
    const bool names_file = line.find("'" + shown + "'") != std::string::npos;
    return names_file ? line : "cannot read '" + shown + "': " + line;
}

// A reader's lines about a file, whose name, which may hold line feeds, they show as printable() does.
std::vector<std::string> reader_messages(std::string said, const std::string& path) {
    const std::string shown = printable(path);
    for (std::size_t at = said.find(path); at != std::string::npos; at = said.find(path, at + shown.size())) {
        said.replace(at, path.size(), shown);
    }
    std::vector<std::string> messages;
    for (std::size_t begin = 0; begin < said.size();) {
        const std::size_t end = std::min(said.find('\n', begin), said.size());
        messages.push_back(reader_message(said.substr(begin, end - begin), shown));
        begin = end + 1;
    }
    return messages;
}

RecordingPtr read_audio(const std::string& path, const RecordingOptions& options, std::string& said) {
    wav_audio read;
    if (wav_read(path.c_str(), read, &said) != 0) return nullptr;
    const std::unique_ptr<wav_audio, void (*)(wav_audio*)> owner(&read, [](wav_audio* audio) { wav_free(*audio); });
    return std::make_unique<HeldRecording>(
        path, options, read.rate, std::vector<double>(read.samples, read.samples + read.count), std::vector<double>());
}

RecordingPtr read_iq(const std::string& path, const RecordingOptions& options, std::string& said) {
    iq_recording read;
    if (iq_read(path.c_str(), read, &said) != 0) return nullptr;
    const std::unique_ptr<iq_recording, void (*)(iq_recording*)> owner(&read, [](iq_recording* iq) { iq_free(*iq); });
    return std::make_unique<HeldRecording>(path, options, read.rate, std::vector<double>(read.i, read.i + read.count),
                                           std::vector<double>(read.q, read.q + read.count));
}

// The library's readers. An empty owner when they refuse the file; `reason` then holds their message.
RecordingPtr open_with_reader(const std::string& path, const RecordingOptions& options, std::string& reason) {
    std::string said;
    RecordingPtr recording = options.iq ? read_iq(path, options, said) : read_audio(path, options, said);
    const std::vector<std::string> messages = reader_messages(std::move(said), path);
    if (recording) {
        for (const std::string& message : messages) print_error(message);
    } else {
        reason = messages.empty() ? "cannot read '" + path + "'" : messages.back();
    }
    return recording;
}

constexpr sf_count_t UNKNOWN_FRAMES = sf_count_t{1} << 48;  // more stands for an unknown length

// Frames of a file that was written into a pipe, or cut off, and does not say: all of it is read.
sf_count_t count_frames(SNDFILE* file, int channels) {
    std::vector<short> piece(static_cast<std::size_t>(channels) << 14);
    sf_count_t frames = 0;
    while (const sf_count_t got = sf_readf_short(file, piece.data(), 1 << 14)) frames += got;
    return frames;
}

// libsndfile. An empty owner when it refuses the file; throws IoError when the channels do not fit.
RecordingPtr open_with_sndfile(const std::string& path, const RecordingOptions& options) {
    Sound sound(path);
    SF_INFO& info = sound.info();
    if (sound.get() == nullptr || info.samplerate < 1 || info.channels < 1) return nullptr;
    if (info.frames > UNKNOWN_FRAMES) info.frames = count_frames(sound.get(), info.channels);
    sound.require_source();
    if (info.frames < 1) return nullptr;
    require_channels(path, options, info.channels);
    return std::make_unique<SoundRecording>(path, options, std::move(sound));
}

// Whether libsndfile finds floating-point samples in a file. The library's readers take those of the extensible format
// for integers.
bool holds_floats(const std::string& path) {
    SF_INFO info{};
    const SoundPtr file(open_sound_file(path, SFM_READ, info));
    const int samples = info.format & SF_FORMAT_SUBMASK;
    return file && (samples == SF_FORMAT_FLOAT || samples == SF_FORMAT_DOUBLE);
}

// How files begin that hold more than samples.
constexpr std::array<std::string_view, 9> CONTAINERS = {"RIFF", "RF64", "riff", "fLaC", "OggS",
                                                        "FORM", ".snd", "caff", "BW64"};
constexpr const char* RAW_HINT = "; bare samples are read with --raw FORMAT and --rate HZ, and I/Q with --iq";

bool is_container(const std::string& path) {
    std::array<uint8_t, 4> begin{};
    const std::size_t got = InputFile(path).read_at(0, begin);
    const std::string text(begin.begin(), begin.begin() + static_cast<std::ptrdiff_t>(got));
    return text.empty() || std::ranges::find(CONTAINERS, text) != CONTAINERS.end();
}

// Opens a file with the first reader that can.
RecordingPtr open_by_kind(const std::string& path, const RecordingOptions& options) {
    const bool remote = is_url(path);
    if (const std::string problem = remote ? "" : open_problem(path); !problem.empty()) refuse_recording(path, problem);
    if (options.raw) return open_raw(path, options);
    if (is_sigmf(path)) return open_sigmf(path, options);
    if (raw_kind_of(path)) return open_raw(path, options);
    std::error_code error;
    const std::uintmax_t bytes = remote ? 0 : std::filesystem::file_size(native_path(path), error);
    const bool readers_take_it = options.channel == 0 && !remote;
    const bool small = readers_take_it && (error || bytes <= SMALL_FILE) && !holds_floats(path);
    std::string reason;
    if (small) {
        if (auto recording = open_with_reader(path, options, reason)) return recording;
    }
    if (auto recording = open_with_sndfile(path, options)) return recording;
    if (readers_take_it && !small) {
        if (auto recording = open_with_reader(path, options, reason)) return recording;
    }
    if (reason.empty()) reason = "cannot read '" + path + "': it is not a recording that can be read";
    throw IoError(is_container(path) ? reason : reason + RAW_HINT);
}

RecordingSize sound_size(const std::string& path, const RecordingOptions& options) {
    Sound sound(path);
    RecordingSize size{.bytes = sound.bytes(path), .iq = options.iq};
    const SF_INFO& info = sound.info();
    if (sound.get() == nullptr || info.samplerate < 1 || info.frames > UNKNOWN_FRAMES) return size;
    size.rate = static_cast<uint32_t>(info.samplerate);
    size.seconds = static_cast<double>(info.frames) / size.rate;
    return size;
}

}  // namespace

RecordingSize size_of_recording(const std::string& path, const RecordingOptions& options) {
    const bool raw = options.raw || (!is_sigmf(path) && raw_kind_of(path));
    RecordingSize size = raw              ? raw_size(path, options)
                         : is_sigmf(path) ? sigmf_size(path, options)
                                          : sound_size(path, options);
    size.iq = size.iq || options.iq;
    if (size.seconds > LONGEST_S) size.rate = 0;
    return size;
}

std::unique_ptr<Recording> open_recording(const std::string& path, const RecordingOptions& options) {
    if (is_live_source(path) || is_pipe(path)) {
        auto once = is_pipe(path) ? open_pipe(path, options) : open_live(path, options);
        once->keep_all();
        return once;
    }
    if (options.most_s) throw UsageError("--for: is for what comes live or through a pipe, '" + path + "' does not");
    auto recording = open_by_kind(path, options);
    if (recording->rate() == 0) {
        throw IoError(
            format("cannot decode '%s': its sample rate of %u Hz is not served", path.c_str(), recording->file_rate()));
    }
    if (recording->seconds() > LONGEST_S) {
        refuse_recording(path, format("it claims to last %.0f days", recording->seconds() / 86400));
    }
    return recording;
}
