#include "listening/recorder.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/error.h"
#include "base/utc.h"

namespace {

namespace fs = std::filesystem;

constexpr double OVERLAP_S = 45;  // more than the longest frame
constexpr double FLUSH_S = 1;
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
    fs::remove(base + DATA, ignored);
    fs::remove(base + META, ignored);
}

}  // namespace

struct Recorder::File {
    std::string base;
    double begin, end;  // of what it holds, UTC
    bool wanted;
    std::unique_ptr<SigmfWriter> writer;  // while it is written
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
        if (!file.writer) continue;
        write(file, samples);
        if (flush && file.writer && !file.writer->flush()) complain(file.writer->problem());
        if (end_ >= file.begin + options_.file_s + OVERLAP_S) end(file);
    }
    if (flush) {
        flush_at_ = end_ + FLUSH_S;
        clean_up(end_);
    }
}

void Recorder::open(double utc, const SourceFormat& format, const std::optional<Tuning>& tuning) {
    next_file_at_ = utc + options_.file_s;
    expire(utc);
    std::error_code ignored;
    fs::create_directories(options_.directory, ignored);
    const std::string base = (fs::path(options_.directory) / (prefix() + stamp(utc))).string();
    auto writer = std::make_unique<SigmfWriter>(base + DATA, SigmfWriter::Format{format.rate, format.iq, true},
                                                Take{0, utc, tuning});
    if (!writer->problem().empty()) {
        complain(writer->problem());
        return;
    }
    files_.push_back({base, utc, utc, !options_.around_spots_s, std::move(writer)});
}

void Recorder::write(File& file, std::span<const float> samples) {
    file.end = end_;
    if (file.writer->write(samples)) {
        complaint_.clear();
        return;
    }
    complain(file.writer->problem());
    end(file);
}

void Recorder::end(File& file) {
    if (!file.writer) return;
    try {
        std::exchange(file.writer, nullptr)->close();
    } catch (const IoError& error) {
        complain(error.what());
    }
}

void Recorder::mark(double start, double end) {
    const double around_s = options_.around_spots_s.value_or(0);
    for (File& file : files_) {
        if (file.begin <= end + around_s && file.end >= start - around_s) file.wanted = true;
    }
}

// Files that no spot can ask for any more.
void Recorder::clean_up(double utc) {
    const double verdict_s = VERDICT_S + options_.around_spots_s.value_or(0);
    std::erase_if(files_, [&](const File& file) {
        if (file.writer || (!file.wanted && file.end > utc - verdict_s)) return false;
        if (!file.wanted) remove_pair(file.base);
        return true;
    });
}

// Files of this receiver, by their names, that are too old.
void Recorder::expire(double utc) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(options_.directory, error)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(prefix()) || !name.ends_with(DATA)) continue;
        const std::string rest = name.substr(prefix().size());
        const auto begin = utc_in_name(rest);
        if (!begin || rest != stamp(*begin) + DATA || *begin + options_.file_s > utc - options_.keep_s) continue;
        remove_pair(entry.path().string().substr(0, entry.path().string().size() - std::string(DATA).size()));
    }
}

void Recorder::close() {
    for (File& file : files_) end(file);
    clean_up(HUGE_VAL);
}

// Reports a problem once, until it is over.
void Recorder::complain(const std::string& text) {
    if (std::exchange(complaint_, text) != text) tell_("not recorded: " + text);
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
