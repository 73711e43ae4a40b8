#include "recordings/recording.h"

#include <soxr.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <numeric>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "bigpages.h"
#include "ovpipe.h"

namespace {

constexpr uint32_t MAX_CONVERTED_RATE = 100000000;

// The rate to convert to: the lowest usual one that loses next to nothing of the band.
int32_t working_rate(uint32_t rate) {
    if (ov_rate_served(rate)) return static_cast<int32_t>(rate);
    constexpr double NEXT_TO = 0.99;
    int64_t eights = 8000;
    int64_t twelves = 12000;
    const double least = NEXT_TO * std::min(rate, MAX_CONVERTED_RATE);
    while (static_cast<double>(eights) < least) eights *= 2;
    while (static_cast<double>(twelves) < least) twelves *= 2;
    return static_cast<int32_t>(std::min(eights, twelves));
}

bool rate_usable(uint32_t rate) {
    return ov_rate_served(rate) || (rate >= 1 && rate <= MAX_CONVERTED_RATE);
}

// What a file says of itself, and what the user says: times move along with that of the first sample.
std::vector<Take> known_takes(std::vector<Take> takes, const RecordingOptions& options) {
    if (takes.empty()) takes.emplace_back();
    takes.front().begin_s = 0;
    const std::optional<double> first_utc = takes.front().utc;
    for (Take& take : takes) {
        if (options.start_utc) {
            const bool placed = take.utc && first_utc;
            take.utc = *options.start_utc + (placed ? *take.utc - *first_utc : take.begin_s);
        }
        take.tuning = options.tuning.over(take.tuning);
    }
    return takes;
}

// Several sums, none of which waits for another: what is not finite is not 0 when multiplied by it.
bool are_finite(std::span<const double> samples) {
    std::array<double, 8> zeros{};
    std::size_t k = 0;
    for (; k + zeros.size() <= samples.size(); k += zeros.size()) {
        for (std::size_t j = 0; j < zeros.size(); j++) zeros[j] += samples[k + j] * 0;
    }
    for (; k < samples.size(); k++) zeros[0] += samples[k] * 0;
    return std::accumulate(zeros.begin(), zeros.end(), 0.0) == 0;
}

void make_room(std::vector<double>& samples, int64_t count) {
    samples.clear();
    if (samples.capacity() >= static_cast<std::size_t>(count)) return;
    samples.reserve(static_cast<std::size_t>(count));
    prefer_big_pages(samples.data(), samples.capacity() * sizeof(double));
}

}  // namespace

void require_channels(const std::string& path, const RecordingOptions& options, int32_t channels) {
    if (options.iq && options.channel == 0 && channels != 2) {
        throw IoError(
            format("cannot read '%s': I/Q needs two channels, it has %d (see --channel)", path.c_str(), channels));
    }
    const int32_t needed = options.channel > 0 ? options.channel + (options.iq ? 1 : 0) : (options.iq ? 2 : 1);
    if (channels < needed) {
        throw IoError(
            format("cannot read '%s': it has %d channel%s", path.c_str(), channels, channels == 1 ? "" : "s"));
    }
}

Recording::Recording(std::string path, const RecordingOptions& options, uint32_t file_rate, int64_t frames,
                     std::vector<Take> takes)
    : path_(std::move(path)),
      options_(options),
      file_rate_(file_rate),
      frames_(frames),
      rate_(rate_usable(file_rate) ? working_rate(file_rate) : 0),
      takes_(known_takes(std::move(takes), options)) {
    if (rate_ != 0 && static_cast<uint32_t>(rate_) != file_rate) {
        print_error(format("'%s': sample rate converted from %u to %d Hz", path_.c_str(), file_rate, rate_));
    }
}

void Recording::set_take(const Take& take) {
    takes_ = known_takes({take}, options_);
}

const Take& take_at(std::span<const Take> takes, double at_s) {
    const auto later = std::ranges::upper_bound(takes, at_s, {}, &Take::begin_s);
    return later == takes.begin() ? takes.front() : *std::prev(later);
}

std::optional<double> Recording::utc_zero(double at_s) const {
    return take_at(takes_, at_s).utc_zero();
}

std::optional<Tuning> Recording::tuning(double at_s) const {
    return take_at(takes_, at_s).tuning;
}

void Recording::append(std::span<const double> samples, std::size_t channels, Stretch& out) {
    const auto chosen = static_cast<std::size_t>(std::max(options_.channel - 1, 0));
    const std::size_t frames = samples.size() / channels;
    const auto append_each = [&](std::vector<double>& to, auto value_of) {
        const std::size_t held = to.size();
        to.resize(held + frames);
        for (std::size_t k = 0; k < frames; k++) to[held + k] = value_of(samples.data() + k * channels);
        silence_wrong_samples(std::span(to).subspan(held));
    };
    if (options_.iq) {
        append_each(out.x, [chosen](const double* frame) { return frame[chosen]; });
        append_each(out.q, [chosen](const double* frame) { return frame[chosen + 1]; });
    } else if (options_.channel > 0) {
        append_each(out.x, [chosen](const double* frame) { return frame[chosen]; });
    } else {
        append_each(out.x, [channels](const double* frame) {
            return std::accumulate(frame, frame + channels, 0.0) / static_cast<double>(channels);
        });
    }
}

Stretch Recording::read(double begin_s, double length_s, Stretch used) {
    const auto first = static_cast<int64_t>(std::floor(begin_s * file_rate_));
    const int64_t count = std::clamp<int64_t>(static_cast<int64_t>(std::ceil(length_s * file_rate_)), 0,
                                              std::max<int64_t>(frames_ - first, 0));
    Stretch stretch = std::move(used);
    stretch.begin_s = static_cast<double>(first) / file_rate_;
    make_room(stretch.x, count);
    make_room(stretch.q, options_.iq ? count : 0);
    {
        const std::lock_guard guard(lock_);
        read_frames(first, count, stretch);
    }
    if (static_cast<int64_t>(stretch.x.size()) < count && !told_short_.exchange(true)) {
        print_error("'" + path_ + "' ends before its header says");
    }
    if (static_cast<uint32_t>(rate_) != file_rate_ && !(convert(stretch.x) && convert(stretch.q))) {
        throw IoError("cannot read '" + path_ + "': the sample rate cannot be converted");
    }
    return stretch;
}

void Recording::silence_wrong_samples(std::span<double> samples) {
    if (are_finite(samples)) return;
    std::ranges::replace_if(
        samples, [](double sample) { return !std::isfinite(sample); }, 0.0);
    if (!told_wrong_samples_.exchange(true)) {
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
