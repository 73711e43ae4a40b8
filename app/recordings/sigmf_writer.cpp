#include "recordings/sigmf_writer.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "base/error.h"
#include "recordings/tar.h"
#include "system/files.h"

namespace {

SampleFormat sample_format(bool s16) {
    return s16 ? SampleFormat{SampleFormat::Kind::SIGNED, 2} : SampleFormat{SampleFormat::Kind::FLOAT, 4};
}

SigmfDescription describe(const SigmfWriter::Format& format) {
    return {sample_format(format.s16), format.iq, format.rate, format.text};
}

template <class Word>
void put_little_endian(Word word, std::vector<uint8_t>& bytes) {
    for (std::size_t k = 0; k < sizeof(Word); k++) bytes.push_back(static_cast<uint8_t>(word >> (8 * k) & 0xFF));
}

// The bytes of samples in a file. Returns how many were clipped.
int64_t encode(std::span<const float> samples, bool s16, std::vector<int16_t>& rounded, std::vector<uint8_t>& bytes) {
    bytes.clear();
    bytes.reserve(samples.size() * (s16 ? 2 : 4));
    if (!s16) {
        for (const float sample : samples) put_little_endian(std::bit_cast<uint32_t>(sample), bytes);
        return 0;
    }
    const int64_t clipped = round_to_s16(samples, rounded);
    for (const int16_t sample : rounded) put_little_endian(static_cast<uint16_t>(sample), bytes);
    return clipped;
}

}  // namespace

// ---- A pair ---------------------------------------------------------------------------------------------------------

SigmfWriter::SigmfWriter(const std::string& path, const Format& format, const Take& first)
    : base_(sigmf_base(path)), description_(describe(format)), takes_{first} {
    takes_.front().begin_s = 0;
    const std::string data = base_ + ".sigmf-data";
    errno = 0;
    data_.reset(open_file(data, "wb"));
    if (data_) {
        write_metadata();
    } else {
        problem_ = "cannot write '" + data + "': " + std::strerror(errno);
    }
}

bool SigmfWriter::write_metadata() {
    metadata_old_ = false;
    try {
        replace_file(base_ + ".sigmf-meta", sigmf_text(description_, takes_, annotations_));
    } catch (const IoError& error) {
        problem_ = error.what();
    }
    return problem_.empty();
}

bool SigmfWriter::write(std::span<const float> samples) {
    if (!problem_.empty()) return false;
    clipped_ += encode(samples, description_.format.kind == SampleFormat::Kind::SIGNED, rounded_, bytes_);
    errno = 0;
    if (std::fwrite(bytes_.data(), 1, bytes_.size(), data_.get()) != bytes_.size()) {
        problem_ = "cannot write '" + base_ + ".sigmf-data': " + std::strerror(errno);
        return false;
    }
    frames_ += static_cast<int64_t>(samples.size()) / (description_.iq ? 2 : 1);
    return true;
}

bool SigmfWriter::begin_take(const std::optional<double>& utc, const std::optional<Tuning>& tuning) {
    if (!problem_.empty()) return false;
    const Take take{static_cast<double>(frames_) / description_.rate, utc, tuning};
    if (frames_ == 0) takes_.clear();
    takes_.push_back(take);
    return write_metadata();
}

void SigmfWriter::annotate(const SigmfAnnotation& annotation) {
    const auto later =
        std::ranges::upper_bound(annotations_, annotation.sample_start, {}, &SigmfAnnotation::sample_start);
    annotations_.insert(later, annotation);
    metadata_old_ = true;
}

bool SigmfWriter::flush() {
    if (!problem_.empty()) return false;
    errno = 0;
    if (data_ && std::fflush(data_.get()) != 0)
        problem_ = "cannot write '" + base_ + ".sigmf-data': " + std::strerror(errno);
    if (problem_.empty() && metadata_old_) write_metadata();
    return problem_.empty();
}

void SigmfWriter::close() {
    flush();
    errno = 0;
    if (data_ && std::fclose(data_.release()) != 0 && problem_.empty()) {
        problem_ = "cannot write '" + base_ + ".sigmf-data': " + std::strerror(errno);
    }
    if (!problem_.empty()) throw IoError(problem_);
}

uint64_t SigmfWriter::bytes() const {
    return static_cast<uint64_t>(frames_) * (description_.iq ? 2 : 1) * description_.format.bytes;
}

// ---- An archive -----------------------------------------------------------------------------------------------------

SigmfArchiveWriter::SigmfArchiveWriter(const std::string& path, const SigmfWriter::Format& format, const Take& first,
                                       int64_t frames)
    : path_(path), s16_(format.s16) {
    constexpr std::size_t MOST_NAME = 40;  // bytes: it stands twice in the 100 of a member's name
    std::string name = text_of(native_path(sigmf_base(path)).filename());
    if (name.empty() || name.size() > MOST_NAME) name = "recording";
    errno = 0;
    file_.reset(open_file(path, "wb"));
    if (!file_) {
        problem_ = std::strerror(errno);
        return;
    }
    const std::string base = name + "/" + name;
    const std::string text = sigmf_text(describe(format), {first}, {});
    data_bytes_ = static_cast<uint64_t>(frames) * (format.iq ? 2 : 1) * sample_format(format.s16).bytes;
    put(tar_header(base + ".sigmf-meta", text.size()));
    put(text);
    put(std::string((TAR_BLOCK - text.size() % TAR_BLOCK) % TAR_BLOCK, '\0'));
    put(tar_header(base + ".sigmf-data", data_bytes_));
}

bool SigmfArchiveWriter::put(std::span<const char> bytes) {
    if (!problem_.empty()) return false;
    errno = 0;
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) problem_ = std::strerror(errno);
    return problem_.empty();
}

bool SigmfArchiveWriter::write(std::span<const float> samples) {
    clipped_ += encode(samples, s16_, rounded_, bytes_);
    return put(std::span(reinterpret_cast<const char*>(bytes_.data()), bytes_.size()));
}

void SigmfArchiveWriter::close() {
    const auto rest = static_cast<std::size_t>(TAR_BLOCK - data_bytes_ % TAR_BLOCK) % TAR_BLOCK;
    put(std::string(rest + 2 * TAR_BLOCK, '\0'));
    if (file_) {
        errno = 0;
        if (std::fclose(file_.release()) != 0 && problem_.empty()) problem_ = std::strerror(errno);
    }
    if (!problem_.empty()) throw IoError("cannot write '" + path_ + "': " + problem_);
}
