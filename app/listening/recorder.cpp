#include "listening/recorder.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/error.h"
#include "base/utc.h"
#include "system/files.h"

namespace {

namespace fs = std::filesystem;

constexpr double FLUSH_S = 1;
constexpr double RETRY_S = 10;     // after nothing could be written
constexpr double CUT_S = 1;        // of a frame may be missing
constexpr double VERDICT_S = 150;  // after its end a frame has been confirmed, whatever the options
constexpr const char* DATA = ".sigmf-data";
constexpr const char* META = ".sigmf-meta";

// "20260301_120000", as utc_in_name() reads it.
std::string stamp(double utc) {
    std::string text = utc_text(utc, 0);
    std::erase_if(text, [](char c) { return c == '-' || c == ':' || c == 'Z'; });
    std::ranges::replace(text, 'T', '_');
    return text;
}

void remove_pair(const std::string& base) {
    std::error_code ignored;
    fs::remove(native_path(base + DATA), ignored);
    fs::remove(native_path(base + META), ignored);
}

}  // namespace

struct Recorder::File {
    std::string base;
    double begin, end;  // of what it holds, UTC
    int32_t rate;
    bool wanted;
    bool open;
    std::unique_ptr<SigmfWriter> writer;
};

Recorder::Recorder(const RecorderOptions& options, Teller tell) : options_(options), tell_(std::move(tell)) {}

Recorder::~Recorder() {
    close();
}

void Recorder::take(std::span<const float> samples, double utc, const SourceFormat& format,
                    const std::optional<Tuning>& tuning, bool broken) {
    if (!std::isfinite(utc)) return;
    if (broken) {
        for (File& file : files_) end(file);
        next_file_at_ = utc;
    }
    if (utc >= next_file_at_) open(utc, format, tuning);
    end_ = utc + static_cast<double>(samples.size()) / (format.iq ? 2 : 1) / format.rate;
    const bool flush = end_ >= flush_at_ || end_ < flush_at_ - 2 * FLUSH_S;
    for (File& file : files_) {
        if (file.open) write(file, samples, flush);
        if (file.open && end_ >= file.begin + options_.file_s + OVERLAP_S) end(file);
    }
    if (!flush) return;
    flush_at_ = end_ + FLUSH_S;
    clean_up(end_);
    if (end_ >= expire_at_) expire(end_);
}

void Recorder::open(double utc, const SourceFormat& format, const std::optional<Tuning>& tuning) {
    next_file_at_ = utc + options_.file_s;
    expire(utc);
    std::error_code ignored;
    fs::create_directories(native_path(options_.directory), ignored);
    const std::string base = path_in(options_.directory, prefix() + stamp(utc));
    auto writer = std::make_unique<SigmfWriter>(base + DATA, SigmfWriter::Format{format.rate, format.iq, true},
                                                Take{0, utc, tuning});
    files_.push_back({base, utc, utc, format.rate, !options_.around_spots_s, true, std::move(writer)});
    expire_at_ = std::min(expire_at_, utc + options_.keep_s);
    if (!files_.back().writer->problem().empty()) fail(files_.back());
}

void Recorder::write(File& file, std::span<const float> samples, bool flush) {
    file.end = end_;
    if (!file.writer->write(samples) || (flush && !file.writer->flush())) return fail(file);
    if (flush && failing_ && file.end >= file.begin + RETRY_S) {
        failing_ = false;
        tell_("recorded again");
    }
}

// What was written so far is kept if that is enough to be of use; soon there may be room for more.
void Recorder::fail(File& file) {
    complain(file.writer->problem());
    next_file_at_ = std::min(next_file_at_, file.end + RETRY_S);
    end(file);
    if (file.end < file.begin + RETRY_S) {
        remove_pair(file.base);
        file.wanted = true;  // there is nothing left to remove
    }
}

void Recorder::end(File& file) {
    if (!std::exchange(file.open, false)) return;
    try {
        file.writer->close();
    } catch (const IoError& error) {
        complain(error.what());
    }
}

void Recorder::mark(const Spot& spot) {
    const double around_s = options_.around_spots_s.value_or(0);
    for (File& file : files_) {
        if (file.begin <= spot.end + around_s && file.end >= spot.start - around_s) file.wanted = true;
        if (spot.start < file.begin - CUT_S || spot.end > file.end + CUT_S) continue;
        Spot in_file = spot;
        in_file.start -= file.begin;
        in_file.end -= file.begin;
        file.writer->annotate(annotation_of(in_file, file.rate, 0));
        if (!file.open) file.writer->flush();
    }
}

// Files of which no spot can tell anything new.
void Recorder::clean_up(double utc) {
    const double verdict_s = VERDICT_S + options_.around_spots_s.value_or(0);
    std::erase_if(files_, [&](const File& file) {
        if (file.open || file.end > utc - verdict_s) return false;
        if (!file.wanted) remove_pair(file.base);
        return true;
    });
}

// Removes the files of this receiver, by their names, that began too long ago.
void Recorder::expire(double utc) {
    expire_at_ = HUGE_VAL;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(native_path(options_.directory), error)) {
        const std::string name = text_of(entry.path().filename());
        if (!name.starts_with(prefix()) || !name.ends_with(DATA)) continue;
        const std::string rest = name.substr(prefix().size());
        const auto begin = utc_in_name(rest);
        if (!begin || rest != stamp(*begin) + DATA) continue;
        const std::string path = text_of(entry.path());
        const std::string base = path.substr(0, path.size() - std::string(DATA).size());
        const auto held = std::ranges::find(files_, base, &File::base);
        if (held != files_.end() && held->open) continue;
        if (*begin > utc - options_.keep_s) {
            expire_at_ = std::min(expire_at_, *begin + options_.keep_s);
            continue;
        }
        if (held != files_.end()) files_.erase(held);
        remove_pair(base);
    }
}

void Recorder::close() {
    for (File& file : files_) end(file);
    clean_up(HUGE_VAL);
}

// Reports problems once, until they are over.
void Recorder::complain(const std::string& text) {
    if (!std::exchange(failing_, true)) tell_("not recorded: " + text);
}

std::string Recorder::prefix() const {
    std::string prefix = options_.name.empty() ? "orvel" : options_.name;
    const auto is_plain = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
    };
    std::ranges::replace_if(
        prefix, [&](char c) { return !is_plain(c); }, '_');
    return prefix + "_";
}
