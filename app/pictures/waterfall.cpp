#include "pictures/waterfall.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <iterator>
#include <limits>
#include <new>
#include <numbers>
#include <optional>
#include <utility>

#include "decoding/decimation.h"
#include "ovfft.h"

namespace {

constexpr double LEAST_PIECE_S = 10;      // read at a time
constexpr double AROUND_S = 1;            // read before and after a piece: the filter reaches less far
constexpr double LEAST_HALF_HZ = 10;      // half the width of the narrowest band that is filtered out
constexpr double WINDOW_BINS = 4;         // that a window spreads a carrier over, each side
constexpr int32_t MOST_LENGTH = 1 << 22;  // of a transform
constexpr double PADDING = 4;             // zeros make a transform at most this many times as long as its window

// The next length that FFTW transforms fast: free of prime factors above 7.
int32_t good_length(double least) {
    for (auto length = static_cast<int32_t>(std::ceil(std::clamp<double>(least, 16, MOST_LENGTH)));; length++) {
        int32_t rest = length;
        for (const int32_t prime : {2, 3, 5, 7}) {
            while (rest % prime == 0) rest /= prime;
        }
        if (rest == 1) return length;
    }
}

std::size_t window_length(double window_s, int32_t rate) {
    return static_cast<std::size_t>(std::clamp<double>(std::round(window_s * rate), 16, MOST_LENGTH));
}

// The samples that spectra are made of: those of a recording or, of a narrow view in fast samples, what lies around it.
class Pieces {
  public:
    Pieces(Recording& recording, const View& view, double window_s) : recording_(recording) {
        decimate_around(view, window_s);
        piece_s_ = std::max(LEAST_PIECE_S, 2 * static_cast<double>(window_length(window_s, rate())) / rate());
    }

    bool iq() const { return decimation_ || recording_.iq(); }
    int32_t rate() const { return recording_.rate() / (decimation_ ? decimation_->factor : 1); }
    double center_hz() const { return center_hz_; }  // 0 Hz of the samples
    double length_s() const { return piece_s_; }

    // All of a piece, and perhaps more before it and after it.
    Stretch read(double from_s, Stretch used) const {
        if (!decimation_) return recording_.read(from_s, piece_s_, std::move(used));
        const double begin_s = std::max(from_s - AROUND_S, 0.0);
        Stretch stretch = recording_.read(begin_s, from_s - begin_s + piece_s_ + AROUND_S, std::move(used));
        const auto count = (stretch.x.size() + at(decimation_->factor) - 1) / at(decimation_->factor);
        const auto left = decimate({stretch.x, stretch.q, recording_.rate()}, *decimation_);
        stretch.x.resize(count);
        stretch.q.resize(count);
        for (std::size_t k = 0; k < count; k++) {
            stretch.x[k] = left[k].real();
            stretch.q[k] = left[k].imag();
        }
        return stretch;
    }

  private:
    static std::size_t at(int32_t index) { return static_cast<std::size_t>(index); }

    void decimate_around(const View& view, double window_s) {
        if (recording_.seconds() < AROUND_S) return;  // most that is filtered would be silence
        const double half_hz = std::max(0.5 * (view.high_hz - view.low_hz) + WINDOW_BINS / window_s, LEAST_HALF_HZ);
        const double center_hz = 0.5 * (view.high_hz + view.low_hz);
        const int32_t rate = recording_.rate();
        const double most_s = std::min(std::max(LEAST_PIECE_S, 2 * window_s) + 2 * AROUND_S, recording_.seconds());
        // Whole seconds, with silence at the end for the filter's reach.
        const int64_t period = rate * (static_cast<int64_t>(std::ceil(most_s)) + 1);
        const int32_t factor = decimation_factor(rate, static_cast<int64_t>(most_s * rate), rate, half_hz);
        const bool holds_band = recording_.iq() || (center_hz >= half_hz && center_hz <= 0.5 * rate - half_hz);
        if (factor == 1 || !holds_band || period > INT32_MAX) return;
        const int64_t turns = std::llround(center_hz * static_cast<double>(period) / rate);
        decimation_ = {period, turns, factor, half_hz};
        center_hz_ = static_cast<double>(turns) * rate / static_cast<double>(period);
    }

    Recording& recording_;
    double piece_s_ = 0;
    std::optional<Decimation> decimation_;
    double center_hz_ = 0;
};

// Power spectra of windows of a recording, averaged.
class Spectra {
  public:
    Spectra(bool iq, int32_t rate, double window_s, double bin_hz)
        : iq_(iq),
          rate_(rate),
          window_(window_length(window_s, rate)),
          length_(good_length(std::clamp(rate / bin_hz, static_cast<double>(window_.size()),
                                         PADDING * static_cast<double>(window_.size())))),
          bins_(fftw_array<std::complex<double>>(length_)),
          power_(static_cast<std::size_t>(iq ? length_ : length_ / 2 + 1)) {
        const auto size = static_cast<double>(window_.size());
        for (std::size_t k = 0; k < window_.size(); k++) {
            window_[k] = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(k) + 0.5) / size);
        }
        if (!iq) real_ = fftw_array<double>(length_);
        if (!bins_ || (!iq && !real_)) throw std::bad_alloc();
        plan_ = iq ? plan_complex(length_, bins_.get(), bins_.get(), FFTW_FORWARD)
                   : plan_real_forward(length_, real_.get(), bins_.get());
        if (!plan_) throw std::bad_alloc();
    }

    std::size_t window_samples() const { return window_.size(); }
    double bin_hz() const { return static_cast<double>(rate_) / length_; }

    // Adds the spectrum of the window that begins with sample `first` of a stretch; it may extend past it.
    void add(const Stretch& stretch, int64_t first) {
        const auto size = static_cast<int64_t>(stretch.x.size());
        if (first >= size || first + static_cast<int64_t>(window_.size()) <= 0) return;
        std::fill_n(bins_.get(), length_, 0.0);
        if (real_) std::fill_n(real_.get(), length_, 0.0);
        double weight = 0;
        for (std::size_t k = 0; k < window_.size(); k++) {
            const int64_t sample = first + static_cast<int64_t>(k);
            if (sample < 0 || sample >= size) continue;
            const auto index = static_cast<std::size_t>(sample);
            weight += window_[k] * window_[k];
            if (iq_) {
                bins_[k] = window_[k] * std::complex(stretch.x[index], stretch.q[index]);
            } else {
                real_[k] = window_[k] * stretch.x[index];
            }
        }
        if (weight < 1e-3) return;
        fftw_execute(plan_.get());
        for (std::size_t k = 0; k < power_.size(); k++) power_[k] += std::norm(bins_[k]) / weight;
        spectra_++;
    }

    // Mean power at a bin of any sign, 0 outside the spectrum.
    double mean(int64_t bin) const {
        if (iq_ && bin < 0) bin += length_;
        if (bin < 0 || bin >= static_cast<int64_t>(power_.size()) || spectra_ == 0) return 0;
        return power_[static_cast<std::size_t>(bin)] / spectra_;
    }

    void clear() {
        std::fill(power_.begin(), power_.end(), 0.0);
        spectra_ = 0;
    }

  private:
    bool iq_;
    int32_t rate_;
    std::vector<double> window_;
    int32_t length_;
    FftwArray<std::complex<double>> bins_;
    FftwArray<double> real_;
    FftwPlan plan_;
    std::vector<double> power_;
    int32_t spectra_ = 0;
};

// Power of the band from low_hz to high_hz: of its strongest bin, or between the bins around its centre.
double row_power(const Spectra& spectra, double low_hz, double high_hz) {
    const double low = low_hz / spectra.bin_hz();
    const double high = high_hz / spectra.bin_hz();
    if (high - low < 1) {
        const double centre = (low + high) / 2;
        const double below = std::floor(centre);
        const auto bin = static_cast<int64_t>(below);
        return std::lerp(spectra.mean(bin), spectra.mean(bin + 1), centre - below);
    }
    double strongest = 0;
    for (auto bin = static_cast<int64_t>(std::ceil(low)); static_cast<double>(bin) < high; bin++) {
        strongest = std::max(strongest, spectra.mean(bin));
    }
    return strongest;
}

}  // namespace

PowerGrid measure_power(Recording& recording, const View& view, int32_t columns, int32_t rows, double window_s,
                        const std::function<void(double)>& progress) {
    PowerGrid grid{columns, rows, {}};
    grid.db.resize(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows));
    const double row_hz = (view.high_hz - view.low_hz) / rows;
    const double column_s = (view.to_s - view.from_s) / columns;
    const Pieces pieces(recording, view, window_s);
    const int32_t rate = pieces.rate();
    Spectra spectra(pieces.iq(), rate, window_s, row_hz);
    const double length_s = static_cast<double>(spectra.window_samples()) / rate;
    const auto each = static_cast<int64_t>(std::max(1.0, std::ceil(column_s / (length_s / 2))));  // in a column

    Stretch stretch;
    double known_to = view.from_s - length_s;  // the stretch holds all before that
    for (int32_t column = 0; column < columns; column++) {
        spectra.clear();
        for (int64_t part = 0; part < each; part++) {
            const double centre_s =
                view.from_s + (column + (static_cast<double>(part) + 0.5) / static_cast<double>(each)) * column_s;
            const double begin_s = centre_s - length_s / 2;
            if (begin_s + length_s > known_to && known_to < recording.seconds()) {
                const double from_s = std::max(begin_s, 0.0);
                stretch = pieces.read(from_s, std::move(stretch));
                known_to = from_s + pieces.length_s();
            }
            spectra.add(stretch, std::llround((begin_s - stretch.begin_s) * rate));
        }
        for (int32_t row = 0; row < rows; row++) {
            const double high_hz = view.high_hz - row * row_hz - pieces.center_hz();
            const double power = row_power(spectra, high_hz - row_hz, high_hz);
            grid.db[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                    static_cast<std::size_t>(column)] =
                power > 0 ? static_cast<float>(10 * std::log10(power)) : std::numeric_limits<float>::quiet_NaN();
        }
        progress((column + 1) * column_s);
    }
    return grid;
}

LevelRange robust_range(const PowerGrid& grid) {
    constexpr double LEAST_DB = 15;
    constexpr double MOST_DB = 30;
    std::vector<float> levels;
    std::copy_if(grid.db.begin(), grid.db.end(), std::back_inserter(levels), [](float x) { return std::isfinite(x); });
    if (levels.empty()) return {0, -3, LEAST_DB};
    const auto quantile = [&](double share) {
        const auto place = levels.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(levels.size() - 1));
        std::nth_element(levels.begin(), place, levels.end());
        return static_cast<double>(*place);
    };
    const double median = quantile(0.5);
    const double low = std::clamp(quantile(0.1), median - 3, median - 1);
    return {median, low, std::clamp(quantile(0.998), median + LEAST_DB, median + MOST_DB)};
}
