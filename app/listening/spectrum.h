// Spectra of a stream of samples, for waterfalls and noise levels.
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "base/parse.h"
#include "spots/spectrum_row.h"
#include "wideband/float_fft.h"

// Cuts the stream into blocks under a Hann window, each transformed by itself.
class Spectrum {
  public:
    static constexpr std::size_t MOST_POINTS = 1024;

    // Of a band within what samples of that rate hold: so fine that it has some 512 points or more, where blocks of
    // 2^18 samples are long enough for that. Throws std::bad_alloc.
    Spectrum(int32_t rate, bool iq, const Range& band);

    // Called with the power of each point, from low to high: of full scale in 1 Hz.
    using Taker = std::function<void(std::span<const float>)>;
    void push(std::span<const float> samples, const Taker& take);

    Range band() const { return band_; }  // edges of the first point and the last, Hz
    std::size_t points() const { return power_.size(); }

  private:
    void transform(const Taker& take);

    bool iq_;
    int32_t n_;
    int32_t first_bin_ = 0, bins_a_point_ = 1;
    Range band_{};
    float scale_ = 0;
    std::vector<float> window_;
    FloatFftArray<std::complex<float>> block_;
    FloatFftPlan plan_;
    int32_t held_ = 0;
    std::vector<float> power_;
};

// The mean of spectra.
class MeanSpectrum {
  public:
    void add(std::span<const float> power);
    bool empty() const { return count_ == 0; }
    std::vector<double> take_db();  // and begins anew; of nothing there is nothing

  private:
    std::vector<double> sum_;
    int64_t count_ = 0;
};

// The level that half of the points exceed.
double median_db(std::vector<double> levels_db);
