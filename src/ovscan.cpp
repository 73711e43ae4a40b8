// Windows overlap by three quarters, so that some are in step with the chips; those a whole chip apart form one of four
// interleaved phases, and a run stays within its phase. Bins are processed a few at a time, side by side.
#include "ovscan.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include "bigpages.h"
#include "multiversion.h"
#include "ovfft.h"
#include "robust.h"
#include "runsums.h"

namespace {

using Complex = std::complex<double>;

constexpr int32_t MIN_RUN = 16;    // chips
constexpr int32_t MIN_WINDOW = 8;  // samples
constexpr int64_t MIN_WINDOWS = 32;
constexpr int64_t MIN_BINS = 5;
constexpr int64_t PHASES = 4;  // windows per chip
constexpr int64_t NOISE_WINDOWS = 2000;
constexpr std::size_t NOISE_MARGIN = 16;  // bins each side over which the noise is smoothed
constexpr double JUMP_SHARE = 0.7;        // least share of the power of a keyed carrier in its jumps

// Windows and bins of one scan.
struct Grid {
    int32_t window;  // samples in a window, L
    int64_t windows;
    int64_t first;  // lowest bin
    int64_t bins;
    double bin_hz;

    double bin_at(int64_t k) const { return static_cast<double>(first + k) * bin_hz; }  // Hz
};

// Some neighbouring bins, side by side.
constexpr std::size_t LANES = 16;
template <class T>
using Lanes = std::array<T, LANES>;

// The powers of all bins in all windows. What is wanted of them are some neighbouring bins through all windows, so
// those lie together.
class Powers {
  public:
    // Throws std::bad_alloc.
    explicit Powers(const Grid& grid)
        : windows_(static_cast<std::size_t>(grid.windows)),
          groups_((static_cast<std::size_t>(grid.bins) + LANES - 1) / LANES),
          values_(big_array<Lanes<float>>(groups_ * windows_)) {}

    // Of the LANES bins from group · LANES on, window by window. Those past the last bin are 0.
    std::span<const Lanes<float>> of(std::size_t group) const { return {&values_[group * windows_], windows_}; }

    // One window; `row` has as many values as all groups have bins.
    void set(std::size_t window, const float* row) {
        for (std::size_t group = 0; group < groups_; group++) {
            Lanes<float>& values = values_[group * windows_ + window];
            for (std::size_t k = 0; k < LANES; k++) values[k] = row[group * LANES + k];
        }
    }

    std::size_t groups() const { return groups_; }

  private:
    std::size_t windows_, groups_;
    std::unique_ptr<Lanes<float>[]> values_;
};

std::optional<Grid> make_grid(bool is_complex, int32_t n, int32_t rate, double win_s, double f_lo, double f_hi) {
    const double length = win_s * rate;
    if (!(length < n) || !(length > 0)) return std::nullopt;
    Grid grid{};
    grid.window = static_cast<int32_t>(std::lround(length));
    if (grid.window < MIN_WINDOW) return std::nullopt;
    const double hop = grid.window / static_cast<double>(PHASES);
    grid.windows = static_cast<int64_t>(std::floor((n - grid.window) / hop)) + 1;
    if (grid.windows < MIN_WINDOWS) return std::nullopt;

    grid.bin_hz = rate / (2.0 * grid.window);
    const double lowest = is_complex ? 1.0 - grid.window : 1.0;
    const double low = std::max(lowest, std::ceil(f_lo / grid.bin_hz));
    const double high = std::min(grid.window - 1.0, std::floor(f_hi / grid.bin_hz));
    if (std::isnan(f_lo) || std::isnan(f_hi) || high - low + 1 < MIN_BINS) return std::nullopt;
    grid.first = static_cast<int64_t>(low);
    grid.bins = static_cast<int64_t>(high - low) + 1;
    return grid;
}

// The samples of a window as the transform takes them.
ORVEL_MULTIVERSION void interleave(const double* re, const double* im, std::size_t n, double* out) {
    for (std::size_t k = 0; k < n; k++) {
        out[2 * k] = re[k];
        out[2 * k + 1] = im[k];
    }
}

// |X|² of some bins.
ORVEL_MULTIVERSION void powers_of(const double* bins, std::size_t n, float* out) {
    for (std::size_t k = 0; k < n; k++) {
        out[k] = static_cast<float>(bins[2 * k] * bins[2 * k] + bins[2 * k + 1] * bins[2 * k + 1]);
    }
}

// False when memory is short.
bool fill_powers(const double* re, const double* im, const Grid& grid, Powers& powers) {
    const int32_t nfft = 2 * grid.window;
    const auto in = fftw_array<Complex>(nfft);
    const auto out = fftw_array<Complex>(nfft);
    if (!in || !out) return false;
    const FftwPlan plan = plan_complex(nfft, in.get(), out.get(), FFTW_FORWARD);
    if (!plan) return false;

    std::fill(in.get() + grid.window, in.get() + nfft, Complex{});
    const std::vector<double> none(im == nullptr ? static_cast<std::size_t>(grid.window) : 0);
    auto* const samples = reinterpret_cast<double*>(in.get());
    const auto* const bins = reinterpret_cast<const double*>(out.get());
    const auto below = static_cast<std::size_t>(std::clamp<int64_t>(-grid.first, 0, grid.bins));  // 0 Hz
    const auto above = static_cast<std::size_t>(grid.bins) - below;
    const auto lowest = static_cast<std::size_t>(grid.first < 0 ? nfft + grid.first : grid.first);
    std::vector<float> row(powers.groups() * LANES);
    for (int64_t w = 0; w < grid.windows; w++) {
        const auto start = static_cast<int64_t>(std::lround(static_cast<double>(w) * grid.window / PHASES));
        interleave(re + start, im != nullptr ? im + start : none.data(), static_cast<std::size_t>(grid.window),
                   samples);
        fftw_execute(plan.get());
        powers_of(bins + 2 * lowest, below > 0 ? below : above, row.data());
        if (below > 0) powers_of(bins, above, row.data() + below);
        powers.set(static_cast<std::size_t>(w), row.data());
    }
    return true;
}

// Noise of the bins of a group, each by itself: the median of its powers.
class NoiseMeter {
  public:
    explicit NoiseMeter(const Grid& grid)
        : step_(static_cast<std::size_t>(grid.windows > NOISE_WINDOWS ? grid.windows / NOISE_WINDOWS : 1)),
          count_((static_cast<std::size_t>(grid.windows) + step_ - 1) / step_),
          samples_(LANES * count_) {}

    Lanes<float> measure(std::span<const Lanes<float>> powers) {
        for (std::size_t i = 0; i < count_; i++) {
            for (std::size_t k = 0; k < LANES; k++) samples_[k * count_ + i] = powers[i * step_][k];
        }
        Lanes<float> levels;
        for (std::size_t k = 0; k < LANES; k++) {
            levels[k] = static_cast<float>(upper_median(std::span(samples_).subspan(k * count_, count_)) / LN2);
        }
        return levels;
    }

  private:
    std::size_t step_, count_;
    std::vector<float> samples_;
};

// Noise of a bin: the median over its neighbours.
float noise_at(std::span<const float> levels, std::size_t bin) {
    const std::size_t low = bin > NOISE_MARGIN ? bin - NOISE_MARGIN : 0;
    const std::size_t high = std::min(bin + NOISE_MARGIN, levels.size() - 1);
    const float level = upper_median(levels.subspan(low, high - low + 1));
    return level > 0 ? level : NOISE_FLOOR;
}

// ---- Jump statistic ---------------------------------------------------------------------------------------------

// Sums over chips of one phase, for some bins.
struct Sums {
    Lanes<double> power{};   // Σ x
    Lanes<double> square{};  // Σ x²
    Lanes<double> jump{};    // Σ j

    void add(const Lanes<float>& x, const Lanes<float>& next) {
        for (std::size_t k = 0; k < LANES; k++) power[k] += static_cast<double>(x[k]);
        for (std::size_t k = 0; k < LANES; k++) square[k] += static_cast<double>(x[k]) * static_cast<double>(x[k]);
        for (std::size_t k = 0; k < LANES; k++) jump[k] += static_cast<double>(std::fabs(next[k] - x[k]));
    }
};

// The best mean jump of some bins over all runs.
class JumpSearch {
  public:
    JumpSearch(const Grid& grid, int32_t run_chips, double var_min)
        : grid_(grid), run_chips_(std::max(run_chips, MIN_RUN)), var_min_(var_min) {}

    // The statistic of a group of bins.
    Lanes<float> best(std::span<const Lanes<float>> powers, const Lanes<float>& noise) {
        powers_ = powers;
        noise_ = noise;
        best_.fill(0);
        for (int64_t phase = 0; phase < PHASES; phase++) search_phase(phase);
        Lanes<float> statistic;
        std::transform(best_.begin(), best_.end(), statistic.begin(),
                       [](double value) { return static_cast<float>(value); });
        return statistic;
    }

  private:
    void search_phase(int64_t phase) {
        const int64_t chips = (grid_.windows + PHASES - 1 - phase) / PHASES;
        const int64_t run = run_chips_ < chips ? run_chips_ : chips - 1;
        if (run < MIN_RUN) return;
        chips_.resize(at(chips));
        load(phase);
        ends_.resize(at(run));
        for (std::size_t k = 0; k < LANES; k++) set_least(k, static_cast<double>(run));

        search_runs(chips - 1, run);
    }

    ORVEL_MULTIVERSION void search_runs(int64_t terms, int64_t run) {
        sum_runs(
            terms, run, ends_.data(), [&](Sums& sums, int64_t i) { sums.add(chips_[at(i)], chips_[at(i + 1)]); },
            [&](int64_t, const Sums& a, const Sums& b) { judge(a, b, run); });
    }

    static std::size_t at(int64_t index) { return static_cast<std::size_t>(index); }

    // Chip powers of one phase in units of noise.
    ORVEL_MULTIVERSION void load(int64_t phase) {
        const Lanes<float> noise = noise_;
        for (std::size_t i = 0; i < chips_.size(); i++) {
            const Lanes<float>& power = powers_[at(phase + PHASES * static_cast<int64_t>(i))];
            Lanes<float> chip;
            for (std::size_t k = 0; k < LANES; k++) chip[k] = power[k] / noise[k];
            chips_[i] = chip;
        }
    }

    // A run whose sums are a + b. Few are better than the best so far: the others are told by their jumps alone.
    [[gnu::always_inline]] void judge(const Sums& a, const Sums& b, int64_t run) {
        const auto length = static_cast<double>(run);
        int32_t better = 0;
        for (std::size_t k = 0; k < LANES; k++) better += a.jump[k] + b.jump[k] > least_[k] ? 1 : 0;
        if (better == 0) return;
        for (std::size_t k = 0; k < LANES; k++) {
            const double jumps = a.jump[k] + b.jump[k];
            const double jump = jumps / length;
            const double power = a.power[k] + b.power[k];
            if (!(jump > best_[k]) || !(jumps >= JUMP_SHARE * power)) continue;
            if (var_min_ > 0) {
                const double mean = power / length;
                const double variance = (a.square[k] + b.square[k]) / length - mean * mean;
                if (!(mean > 0) || !(variance / (mean * mean) >= var_min_)) continue;
            }
            best_[k] = jump;
            set_least(k, length);
        }
    }

    void set_least(std::size_t k, double length) { least_[k] = best_[k] * length * (1 - 1e-12); }

    const Grid& grid_;
    int64_t run_chips_;
    double var_min_;
    std::span<const Lanes<float>> powers_;
    Lanes<float> noise_{};
    Lanes<double> best_{};
    Lanes<double> least_{};  // sum of the jumps of a run that may be better
    std::vector<Lanes<float>> chips_;
    std::vector<Sums> ends_;
};

// The statistic of every bin. Noise is measured one group ahead, as far as its neighbours reach, and a group's powers
// are still at hand when its turn comes.
std::vector<float> jump_statistic(const Grid& grid, const Powers& powers, int32_t run_chips, double var_min) {
    static_assert(NOISE_MARGIN <= LANES);
    const auto bins = static_cast<std::size_t>(grid.bins);
    std::vector<float> levels(bins);
    std::vector<float> statistic(bins);
    NoiseMeter meter(grid);
    JumpSearch search(grid, run_chips, var_min);
    const auto lanes_of = [&](std::size_t group) { return std::min(LANES, bins - group * LANES); };
    const auto measure_noise = [&](std::size_t group) {
        std::copy_n(meter.measure(powers.of(group)).begin(), lanes_of(group), &levels[group * LANES]);
    };
    measure_noise(0);
    for (std::size_t group = 0; group < powers.groups(); group++) {
        if (group + 1 < powers.groups()) measure_noise(group + 1);
        Lanes<float> noise;
        noise.fill(1);
        for (std::size_t k = 0; k < lanes_of(group); k++) noise[k] = noise_at(levels, group * LANES + k);
        std::copy_n(search.best(powers.of(group), noise).begin(), lanes_of(group), &statistic[group * LANES]);
    }
    return statistic;
}

// ---- Hits -------------------------------------------------------------------------------------------------------

int32_t cmp_hit(const ov_hit& a, const ov_hit& b) {
    return (b.z > a.z) - (b.z < a.z);
}

// On a flat top the rightmost bin is the peak.
bool is_peak(std::span<const float> statistic, std::size_t k) {
    const bool last = k + 1 == statistic.size();
    if (k > 0 && !(statistic[k] >= statistic[k - 1])) return false;
    return last || statistic[k] > statistic[k + 1];
}

// Peaks of the statistic, strongest first.
std::vector<ov_hit> find_hits(const Grid& grid, std::span<const float> statistic, const RobustStatistics& centre,
                              double z_min) {
    std::vector<ov_hit> found;
    for (std::size_t k = 0; k < statistic.size(); k++) {
        const double z = (static_cast<double>(statistic[k]) - static_cast<double>(centre.median)) / centre.sigma;
        if (z >= z_min && is_peak(statistic, k)) found.push_back({grid.bin_at(static_cast<int64_t>(k)), z});
    }
    std::stable_sort(found.begin(), found.end(), [](const ov_hit& a, const ov_hit& b) { return cmp_hit(a, b) < 0; });
    return found;
}

void print_scan(const Grid& grid, const RobustStatistics& centre) {
    std::fprintf(
        stderr, "Scan: %ld bins of %.2f Hz from %.0f to %.0f Hz, %ld windows; jump statistic median %.3f, sigma %.4f\n",
        static_cast<long>(grid.bins), grid.bin_hz, grid.bin_at(0), grid.bin_at(grid.bins - 1),
        static_cast<long>(grid.windows), static_cast<double>(centre.median), centre.sigma);
}

}  // namespace

int32_t ov_scan_w(const double* re, const double* im, int32_t n, int32_t rate, double win_s, double f_lo, double f_hi,
                  double z_min, double min_sep_hz, int32_t max_hits, ov_hit* hits, int32_t* nbins_out,
                  int32_t run_chips, double var_min, int32_t verbose) {
    const auto grid = make_grid(im != nullptr, n, rate, win_s, f_lo, f_hi);
    if (!grid) return -1;
    if (nbins_out != nullptr) *nbins_out = static_cast<int32_t>(grid->bins);
    try {
        Powers powers(*grid);
        if (!fill_powers(re, im, *grid, powers)) return -1;
        const std::vector<float> statistic = jump_statistic(*grid, powers, run_chips, var_min);
        std::vector<float> copy = statistic;
        const RobustStatistics centre = robust_statistics(copy, upper_median);
        if (verbose != 0) print_scan(*grid, centre);

        const std::vector<ov_hit> found = find_hits(*grid, statistic, centre, z_min);
        if (max_hits < 1) return 0;
        return thin_out<ov_hit>(
            found, {hits, static_cast<std::size_t>(max_hits)},
            [&](const ov_hit& a, const ov_hit& b) { return !(std::fabs(a.freq_hz - b.freq_hz) >= min_sep_hz); });
    } catch (const std::bad_alloc&) {
        return -1;
    } catch (const std::length_error&) {
        return -1;
    }
}

int32_t ov_scan(const double* re, const double* im, int32_t n, int32_t rate, double win_s, double f_lo, double f_hi,
                double z_min, double min_sep_hz, int32_t max_hits, ov_hit* hits, int32_t* nbins_out, int32_t verbose) {
    return ov_scan_w(re, im, n, rate, win_s, f_lo, f_hi, z_min, min_sep_hz, max_hits, hits, nbins_out, OV_FRAME_RUN, 0,
                     verbose);
}
