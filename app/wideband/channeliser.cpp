// Overlap-save. A block of N input samples is transformed; around the centre of a slice its bins are weighted with the
// filter's response, folded to M and transformed back, which gives M samples at the slice rate. Those within a filter's
// reach of the block's ends are wrong and left out; blocks overlap by as much. The filter has no delay: its response is
// real, and the first block begins with silence.
#include "wideband/channeliser.h"

#include <soxr.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <numbers>
#include <numeric>
#include <optional>

#include "base/error.h"
#include "base/text.h"
#include "multiversion.h"
#include "wideband/float_fft.h"

namespace {

using Sample = std::complex<float>;

constexpr int32_t LEAST_RATE = 8000;
constexpr int32_t MOST_RATE = 3200000;
constexpr int32_t USUAL_SLICE_RATE = 4000;
constexpr int32_t LEAST_SLICE_RATE = 1000;
constexpr double MARGIN_HZ = 75;  // of a slice: what a station beside its border takes, and half a bin

// The filter: a sinc cut at half the slice rate, in a Kaiser window of 91 dB.
constexpr double FLAT = 0.45;  // of the slice rate, each side
constexpr double STOP = 0.55;  // where it ends
constexpr int64_t REACH = 29;  // samples of the slice, each side
constexpr double BETA = 9.07;  // of the window
constexpr int64_t OVERSAMPLED = 8;

constexpr int32_t SLICE_TRANSFORM = 256;  // at least
constexpr int64_t MOST_DENOMINATOR = 16;

constexpr float HUGE_SAMPLE = 0x1p31F;

bool is_smooth(int64_t n) {
    for (const int64_t prime : {2, 3, 5, 7}) {
        while (n % prime == 0) n /= prime;
    }
    return n == 1;
}

int64_t smooth_from(int64_t n) {
    while (!is_smooth(n)) n++;
    return n;
}

// Transform lengths and overlap, in samples.
struct Layout {
    int32_t slice_rate;
    int32_t nfft, nout;        // of a block, at the input and in a slice
    int32_t reach, out_reach;  // left out at each end of a block
    int32_t hop, out_hop;      // from block to block
};

Layout layout_at(int64_t rate, int64_t slice_rate) {
    const int64_t divisor = std::gcd(rate, slice_rate);
    const int64_t a = rate / divisor;
    const int64_t b = slice_rate / divisor;
    int64_t k = 1;
    while (b * k < SLICE_TRANSFORM) k *= 2;
    const int64_t j = (REACH + b - 1) / b;
    const std::array<int64_t, 7> lengths = {slice_rate, a * k, b * k, a * j, b * j, a * (k - 2 * j), b * (k - 2 * j)};
    std::array<int32_t, 7> l{};
    std::ranges::transform(lengths, l.begin(), [](int64_t length) { return static_cast<int32_t>(length); });
    return {l[0], l[1], l[2], l[3], l[4], l[5], l[6]};
}

// With the lowest slice rate from `least` on that is in a simple ratio to the input's.
std::optional<Layout> choose_layout(int64_t rate, int64_t least) {
    if (!is_smooth(rate)) return std::nullopt;
    for (int64_t slice_rate = smooth_from(least); slice_rate <= 2 * least; slice_rate = smooth_from(slice_rate + 1)) {
        const bool is_simple = slice_rate / std::gcd(rate, slice_rate) <= MOST_DENOMINATOR;
        if (is_simple && 2 * STOP * static_cast<double>(slice_rate) <= static_cast<double>(rate)) {
            return layout_at(rate, slice_rate);
        }
    }
    return std::nullopt;
}

using Taps = std::array<double, REACH * OVERSAMPLED + 1>;  // from the middle on

// Computed once: std::cyl_bessel_i is slow, and not for several threads.
const Taps& filter_taps() {
    static const Taps all = [] {
        Taps taps{};
        for (std::size_t n = 0; n < taps.size(); n++) {
            const double t = static_cast<double>(n) / OVERSAMPLED;
            const double angle = std::numbers::pi * t;
            const double x = t / REACH;
            const double window = std::cyl_bessel_i(0, BETA * std::sqrt(1 - x * x)) / std::cyl_bessel_i(0, BETA);
            taps[n] = (n == 0 ? 1 : std::sin(angle) / angle) * window / OVERSAMPLED;
        }
        return taps;
    }();
    return all;
}

// The filter's response at the bins of the block around its middle, divided by the block's length, for each number of
// a bin.
std::vector<float> filter_response(const Layout& layout) {
    const Taps& taps = filter_taps();
    const auto last = static_cast<std::size_t>(STOP * layout.nout);
    std::vector<float> response(2 * (2 * last + 1));
    for (std::size_t bin = 0; bin <= last; bin++) {
        const double turn = 2 * std::numbers::pi * static_cast<double>(bin) / (layout.nout * OVERSAMPLED);
        double sum = taps[0];
        for (std::size_t n = 1; n < taps.size(); n++) sum += 2 * taps[n] * std::cos(turn * static_cast<double>(n));
        const std::size_t low = 2 * (last - bin);
        const std::size_t high = 2 * (last + bin);
        response[low] = response[low + 1] = response[high] = response[high + 1] = static_cast<float>(sum / layout.nfft);
    }
    return response;
}

// What is not finite, or too large, counts as silence.
ORVEL_MULTIVERSION void copy_usable(const float* samples, std::size_t n, float* out) {
    for (std::size_t k = 0; k < n; k++) out[k] = std::fabs(samples[k]) <= HUGE_SAMPLE ? samples[k] : 0;
}

// Adds bins to others, each number of them weighted.
ORVEL_MULTIVERSION void add_weighted(const float* numbers, const float* weights, std::size_t n, float* sums) {
    for (std::size_t k = 0; k < n; k++) sums[k] += numbers[k] * weights[k];
}

ORVEL_MULTIVERSION void rotate(const float* samples, std::size_t n, float c, float s, float* out) {
    for (std::size_t k = 0; k < 2 * n; k += 2) {
        out[k] = samples[k] * c - samples[k + 1] * s;
        out[k + 1] = samples[k] * s + samples[k + 1] * c;
    }
}

const float* numbers_of(const Sample* samples) {
    return reinterpret_cast<const float*>(samples);
}
float* numbers_of(Sample* samples) {
    return reinterpret_cast<float*>(samples);
}

int32_t rate_within(int32_t least, int32_t rate) {
    if (rate >= least && rate <= MOST_RATE) return rate;
    throw UsageError(format("a sample rate of %d Hz is not between %d and %d", rate, least, MOST_RATE));
}

}  // namespace

// ---- Blocks → slices ------------------------------------------------------------------------------------------------

class Channeliser::Bank {
  public:
    Bank(int32_t rate, bool iq, const Layout& layout)
        : layout_(layout),
          rate_(rate),
          iq_(iq),
          width_(iq ? 2 : 1),
          response_(filter_response(layout)),
          samples_(float_fft_reals(width_ * at(layout.nfft))),
          bins_(float_fft_complexes(at(iq ? layout.nfft : layout.nfft / 2 + 1))),
          around_(response_.size() / 2),
          slice_(float_fft_complexes(at(layout.nout))),
          out_(at(layout.out_hop)),
          forward_(
              iq ? plan_float_complex(layout.nfft, reinterpret_cast<Sample*>(samples_.get()), bins_.get(), FFTW_FORWARD)
                 : plan_float_real(layout.nfft, samples_.get(), bins_.get())),
          backward_(plan_float_complex(layout.nout, slice_.get(), slice_.get(), FFTW_BACKWARD)),
          filled_(width_ * at(layout.reach)),
          offset_(layout.nfft - layout.reach) {}

    void add_slice(double center_hz, const Range& own_hz) {
        const auto bin = static_cast<int64_t>(std::llround(center_hz * layout_.nfft / rate_));
        centers_.push_back(bin);
        slices_.push_back({static_cast<double>(bin) * rate_ / layout_.nfft, own_hz});
    }

    // With the block that holds a sample of the slices.
    Place begin_at(int64_t sample) {
        const int64_t block = sample / layout_.out_hop;
        if (block == 0) return {0, 0};
        filled_ = 0;
        received_ = block * layout_.hop - layout_.reach;
        given_ = block * layout_.out_hop;
        offset_ = received_ % layout_.nfft;
        return {received_, given_};
    }

    const Layout& layout() const { return layout_; }
    const std::vector<Slice>& slices() const { return slices_; }

    void push(std::span<const float> samples, const Sink& sink) {
        received_ += static_cast<int64_t>(samples.size() / width_);
        take(samples, HUGE_VAL, sink);
    }

    void finish(const Sink& sink) {
        const double total =
            std::floor(static_cast<double>(received_) * layout_.slice_rate / static_cast<double>(rate_));
        const std::vector<float> silence(width_ * at(layout_.hop));
        while (static_cast<double>(given_) < total) take(silence, total, sink);
    }

  private:
    static std::size_t at(int64_t index) { return static_cast<std::size_t>(index); }

    void take(std::span<const float> samples, double most, const Sink& sink) {
        const std::size_t full = width_ * at(layout_.nfft);
        while (!samples.empty()) {
            const std::size_t n = std::min(samples.size(), full - filled_);
            copy_usable(samples.data(), n, samples_.get() + filled_);
            filled_ += n;
            samples = samples.subspan(n);
            if (filled_ == full) process(most, sink);
        }
    }

    void process(double most, const Sink& sink) {
        fftwf_execute(forward_.get());
        const auto left = std::max(0.0, most - static_cast<double>(given_));
        const std::size_t count =
            left < static_cast<double>(layout_.out_hop) ? static_cast<std::size_t>(left) : at(layout_.out_hop);
        for (std::size_t k = 0; k < centers_.size() && count > 0; k++) {
            cut(centers_[k]);
            sink(k, std::span(out_).first(count));
        }
        given_ += static_cast<int64_t>(count);
        const std::size_t hop = width_ * at(layout_.hop);
        std::copy(samples_.get() + hop, samples_.get() + filled_, samples_.get());
        filled_ -= hop;
        offset_ = (offset_ + layout_.hop) % layout_.nfft;
    }

    int64_t reach() const { return static_cast<int64_t>(around_.size() / 2); }  // bins each side of a centre

    Sample bin_at(int64_t bin) const {
        bin %= layout_.nfft;
        if (bin < 0) bin += layout_.nfft;
        if (iq_ || bin <= layout_.nfft / 2) return bins_[at(bin)];
        return std::conj(bins_[at(layout_.nfft - bin)]);
    }

    // The bins around a centre, in order of frequency.
    const Sample* bins_around(int64_t center) {
        const int64_t half = reach();
        const int64_t held = iq_ ? layout_.nfft : layout_.nfft / 2 + 1;
        const int64_t first = (center - half) % layout_.nfft;
        const int64_t low = first < 0 && iq_ ? first + layout_.nfft : first;
        if (low >= 0 && low + 2 * half < held) return bins_.get() + low;
        for (int64_t k = -half; k <= half; k++) around_[at(k + half)] = bin_at(center + k);
        return around_.data();
    }

    // One slice of the block, in out_.
    void cut(int64_t center) {
        const int64_t half = reach();
        const Sample* const bins = bins_around(center);
        std::fill_n(slice_.get(), layout_.nout, Sample{});
        for (int64_t k = -half, end = 0; k <= half; k = end) {
            const int64_t place = (k + 2 * layout_.nout) % layout_.nout;
            end = std::min({half + 1, k + layout_.nout - place, k < 0 ? 0 : half + 1});
            add_weighted(numbers_of(bins + half + k), response_.data() + 2 * (half + k), 2 * at(end - k),
                         numbers_of(slice_.get() + place));
        }
        fftwf_execute(backward_.get());

        // The block's transform counts phases from its own first sample.
        const int64_t turns = center % layout_.nfft * offset_ % layout_.nfft;
        const double angle = -2 * std::numbers::pi * static_cast<double>(turns) / layout_.nfft;
        const auto c = static_cast<float>(std::cos(angle));
        const auto s = static_cast<float>(std::sin(angle));
        rotate(numbers_of(slice_.get() + layout_.out_reach), out_.size(), c, s, numbers_of(out_.data()));
    }

    Layout layout_;
    int32_t rate_;
    bool iq_;
    std::size_t width_;  // numbers in a sample
    std::vector<float> response_;
    FloatFftArray<float> samples_;
    FloatFftArray<Sample> bins_;
    std::vector<Sample> around_;
    FloatFftArray<Sample> slice_;
    std::vector<Sample> out_;
    FloatFftPlan forward_, backward_;
    std::size_t filled_;  // of the block, numbers
    int64_t offset_;      // of the block's first sample in the input, modulo its length
    int64_t received_ = 0;
    int64_t given_ = 0;  // samples of each slice
    std::vector<int64_t> centers_;
    std::vector<Slice> slices_;
};

// ---- Rates that do not divide ---------------------------------------------------------------------------------------

class Channeliser::Converter {
  public:
    Converter(int32_t from, int32_t to, bool iq) : width_(iq ? 2 : 1), ratio_(static_cast<double>(to) / from) {
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        soxr_error_t error = nullptr;
        soxr_.reset(soxr_create(from, to, iq ? 2 : 1, &error, &io, &quality, nullptr));
        if (error != nullptr || !soxr_) throw std::bad_alloc();
    }

    template <class Take>
    void push(std::span<const float> samples, const Take& take) {
        while (!samples.empty()) {
            const std::size_t n = std::min(samples.size(), width_ * PIECE);
            in_.resize(n);
            copy_usable(samples.data(), n, in_.data());
            convert(in_.data(), n / width_, take);
            samples = samples.subspan(n);
        }
    }

    template <class Take>
    void finish(const Take& take) {
        convert(nullptr, 0, take);
    }

  private:
    static constexpr std::size_t PIECE = 8192;

    template <class Take>
    void convert(const float* in, std::size_t count, const Take& take) {
        const auto room = static_cast<std::size_t>(PIECE * ratio_) + PIECE;
        out_.resize(width_ * room);
        std::size_t done = 0;
        do {
            std::size_t used = 0;
            if (soxr_process(soxr_.get(), in, count, &used, out_.data(), room, &done) != nullptr)
                throw std::bad_alloc();
            if (in != nullptr) in += width_ * used;
            count -= used;
            take(std::span<const float>(out_).first(width_ * done));
        } while (count > 0 || done == room);
    }

    struct Delete {
        void operator()(soxr_t soxr) const { soxr_delete(soxr); }
    };
    std::size_t width_;
    double ratio_;
    std::unique_ptr<std::remove_pointer_t<soxr_t>, Delete> soxr_;
    std::vector<float> in_, out_;
};

// ---- Channeliser ----------------------------------------------------------------------------------------------------

Channeliser::Channeliser(int32_t rate, bool iq, int32_t least_slice_rate) {
    auto layout = choose_layout(rate, least_slice_rate);
    if (!layout) {
        const int64_t steps = (static_cast<int64_t>(rate) + least_slice_rate - 1) / least_slice_rate;
        const auto working = static_cast<int32_t>(least_slice_rate * smooth_from(std::max<int64_t>(2, steps)));
        layout = choose_layout(working, least_slice_rate);
        converter_ = std::make_unique<Converter>(rate, working, iq);
        rate = working;
    }
    if (!layout) throw UsageError(format("%d Hz are too few for the search", rate));
    bank_ = std::make_unique<Bank>(rate, iq, *layout);
}

Channeliser::Channeliser(int32_t rate, bool iq, const Range& band)
    : Channeliser(rate_within(LEAST_RATE, rate), iq, USUAL_SLICE_RATE) {
    const double width = band.high - band.low;
    if (!(width > 0)) throw UsageError("the band is empty");
    const double most = 2 * (FLAT * slice_rate() - MARGIN_HZ);
    const auto count = static_cast<int32_t>(std::ceil(width / most));
    const double step = width / count;
    for (int32_t k = 0; k < count; k++) {
        const Range own = {band.low + k * step, band.low + (k + 1) * step};
        bank_->add_slice(0.5 * (own.low + own.high), own);
    }
}

Channeliser Channeliser::narrow(int32_t rate, bool iq, double center_hz, double half_hz) {
    const double needed = (half_hz + MARGIN_HZ) / FLAT;
    if (!(2 * STOP * needed <= rate)) throw UsageError(format("%d Hz are too few for the search", rate));
    Channeliser one(rate_within(LEAST_SLICE_RATE, rate), iq,
                    std::max(LEAST_SLICE_RATE, static_cast<int32_t>(std::ceil(needed))));
    one.bank_->add_slice(center_hz, {center_hz - half_hz, center_hz + half_hz});
    return one;
}

Channeliser Channeliser::baseband(int32_t rate, double center_hz, int32_t baseband_rate) {
    if (2 * STOP * baseband_rate > rate) throw UsageError(format("%d Hz are too few for the search", rate));
    Channeliser one(std::make_unique<Bank>(rate, true, layout_at(rate, baseband_rate)));
    one.bank_->add_slice(center_hz, {center_hz, center_hz});
    return one;
}

Channeliser::Channeliser(std::unique_ptr<Bank> bank) : bank_(std::move(bank)) {}
Channeliser::Channeliser(Channeliser&&) noexcept = default;
Channeliser& Channeliser::operator=(Channeliser&&) noexcept = default;
Channeliser::~Channeliser() = default;

int32_t Channeliser::slice_rate() const {
    return bank_->layout().slice_rate;
}

const std::vector<Channeliser::Slice>& Channeliser::slices() const {
    return bank_->slices();
}

// What a converter gives depends on all that came before.
Channeliser::Place Channeliser::begin_at(int64_t sample) {
    return converter_ ? Place{0, 0} : bank_->begin_at(sample);
}

void Channeliser::push(std::span<const float> samples, const Sink& sink) {
    if (!converter_) return bank_->push(samples, sink);
    converter_->push(samples, [&](std::span<const float> converted) { bank_->push(converted, sink); });
}

void Channeliser::finish(const Sink& sink) {
    if (converter_) converter_->finish([&](std::span<const float> converted) { bank_->push(converted, sink); });
    bank_->finish(sink);
}
