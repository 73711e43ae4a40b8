// Where in a slice something is keyed, and when: the statistic of ov_scan in single precision, from half as many
// windows and bins, and with the time of each find. At z = 4.5 it misses next to none of the
// frames that decode (docs/decoder.md).
//
//     samples → power of every chip-long window and bin → mean jump of every run → peaks in time and frequency
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "base/parse.h"
#include "ovbb.h"
#include "wideband/float_fft.h"

inline constexpr double LOOK_STEP_S = 0.064;  // between windows
inline constexpr int64_t LOOK_RUN = 2 * 238;  // windows: as long as an OPERA frame
inline constexpr int64_t LOOK_AROUND = 125;   // windows: 8 s

// Windows [first, end), counted from the beginning of the slice.
struct Windows {
    int64_t first, end;
};

// Something keyed, and the times of what is keyed beside it: the sides of its own spectrum, or weaker stations.
struct Keyed {
    double freq_hz;
    int64_t window;                     // the run of LOOK_RUN in which it is keyed most begins there
    double z;                           // sigma above the median of all bins
    int64_t first_window, last_window;  // that runs of all within 30 Hz and LOOK_AROUND begin at
};

// Works on one slice at a time; one object for each thread.
class Look {
  public:
    // Fills a span with the samples of a slice from one on.
    using Samples = std::function<void(int64_t first, std::span<std::complex<float>> out)>;

    // Throws std::bad_alloc here and below.
    Look(int32_t rate, double flat_hz);  // of the slices: flat up to that, each side

    // First sample of a window.
    int64_t sample_of(int64_t window) const;

    // The keyed signals whose run begins in `own`, strongest first: each the strongest within 30 Hz and LOOK_AROUND.
    //
    //   samples  asked for those of `block`
    //   own      within the block, which reaches LOOK_AROUND past it where there are samples: what is keyed there
    //            counts, too, so that neighbouring blocks find a frame once
    //   band     where to look, Hz
    std::vector<Keyed> find(const Samples& samples, Windows block, Windows own, const Range& band, double least_z);

    // Whether anything in a narrow baseband is keyed in those windows of it as much as the least that the last find()
    // took, within half_hz of its middle.
    bool is_keyed(const ov_baseband& baseband, double half_hz, Windows block);

    // Windows that `count` samples from that of `first` on hold.
    int64_t windows_in(int64_t first, int64_t count) const;

  private:
    void fill_powers(const Samples& samples, const Windows& block);
    void level_noise(int64_t windows);
    void search_runs(int64_t windows, int64_t run);
    std::vector<Keyed> peaks(const Windows& block, int64_t run, const Range& band, double least_z);
    std::vector<float> jumps_of(std::size_t bin, int64_t windows, int64_t run) const;

    float power(int64_t window, std::size_t bin) const {
        return powers_[static_cast<std::size_t>(window) * bins_ + bin];
    }
    double freq_of(std::size_t bin) const;

    double least_jump_ = 0;  // that the last find() took
    std::unique_ptr<Look> narrow_;
    int32_t rate_;
    int32_t length_;  // of a window and its transform
    std::size_t bins_;
    std::vector<std::complex<float>> samples_;
    FloatFftArray<std::complex<float>> window_, spectrum_;
    FloatFftPlan plan_;
    std::vector<float> powers_;  // row by row
    std::vector<float> best_;    // of each bin
};
