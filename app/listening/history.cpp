#include "listening/history.h"

#include <algorithm>
#include <cmath>

#include "base/error.h"

AudioHistory::AudioHistory(int32_t rate, double keep_s) : audio_(make_audio()) {
    if (ovl_audio_start_input(audio_.get(), OVL_AUDIO_NONE, rate, keep_s) != 0) {
        throw IoError(ovl_audio_last_error(audio_.get()));
    }
}

void AudioHistory::push(std::span<const float> samples) {
    ovl_audio_push(audio_.get(), samples.data(), static_cast<int32_t>(samples.size()), 1);
}

ovl_audio_stats AudioHistory::stats() const {
    ovl_audio_stats stats{};
    ovl_audio_input_stats(audio_.get(), &stats);
    return stats;
}

void AudioHistory::newest(std::size_t count, std::vector<double>& x, std::vector<double>& q) const {
    std::vector<float> samples(count);
    const int32_t n = ovl_audio_last(audio_.get(), samples.data(), static_cast<int32_t>(count));
    x.assign(samples.begin(), samples.begin() + n);
    q.clear();
}

IqHistory::IqHistory(int32_t rate, double keep_s)
    : rate_(rate), ring_(static_cast<std::size_t>(std::ceil(keep_s * rate))) {}

void IqHistory::push(std::span<const std::complex<float>> samples) {
    const auto length = static_cast<int64_t>(ring_.size());
    for (const std::complex<float>& sample : samples) ring_[static_cast<std::size_t>(pushed_++ % length)] = sample;
}

void IqHistory::newest(std::size_t count, std::vector<double>& x, std::vector<double>& q) const {
    const auto length = static_cast<int64_t>(ring_.size());
    const int64_t n = std::min({static_cast<int64_t>(count), pushed_, length});
    x.resize(static_cast<std::size_t>(n));
    q.resize(static_cast<std::size_t>(n));
    for (int64_t k = 0; k < n; k++) {
        const std::complex<float> sample = ring_[static_cast<std::size_t>((pushed_ - n + k) % length)];
        x[static_cast<std::size_t>(k)] = static_cast<double>(sample.real());
        q[static_cast<std::size_t>(k)] = static_cast<double>(sample.imag());
    }
}
