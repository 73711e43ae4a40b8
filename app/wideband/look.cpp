#include "wideband/look.h"

#include <algorithm>
#include <cmath>

#include "multiversion.h"
#include "robust.h"

namespace {

constexpr int64_t PHASES = 2;  // windows a chip
constexpr int64_t LEAST_RUN = 16;
constexpr int64_t NOISE_WINDOWS = 450;
constexpr std::size_t NOISE_MARGIN = 12;  // bins
constexpr double JUMP_SHARE = 0.7;
constexpr double FLAT_SHARE = 0.4;  // of a baseband's rate, each side
constexpr double APART_HZ = 30;

std::size_t at(int64_t index) {
    return static_cast<std::size_t>(index);
}

// Adds (or with a sign of -1 takes away) the jump from one row of powers to the next.
ORVEL_MULTIVERSION void add_jumps(const float* row, const float* next, double sign, std::size_t n, double* jumps,
                                  double* powers) {
    for (std::size_t k = 0; k < n; k++) {
        jumps[k] += sign * static_cast<double>(std::fabs(next[k] - row[k]));
        powers[k] += sign * static_cast<double>(row[k]);
    }
}

// The greatest sums of jumps of those runs that are keyed.
ORVEL_MULTIVERSION void raise(const double* jumps, const double* powers, std::size_t n, double* best) {
    for (std::size_t k = 0; k < n; k++) {
        const double jump = jumps[k] >= JUMP_SHARE * powers[k] ? jumps[k] : 0;
        best[k] = jump > best[k] ? jump : best[k];
    }
}

ORVEL_MULTIVERSION void scale(const float* units, std::size_t n, float* row) {
    for (std::size_t k = 0; k < n; k++) row[k] *= units[k];
}

ORVEL_MULTIVERSION void powers_of(const std::complex<float>* bins, std::size_t n, float* powers) {
    const auto* const values = reinterpret_cast<const float*>(bins);
    for (std::size_t k = 0; k < n; k++)
        powers[k] = values[2 * k] * values[2 * k] + values[2 * k + 1] * values[2 * k + 1];
}

bool are_near(const Keyed& a, const Keyed& b) {
    return std::fabs(a.freq_hz - b.freq_hz) < APART_HZ && std::abs(a.window - b.window) <= LOOK_AROUND;
}

// Length of the runs that are looked for in so many windows, chips.
int64_t run_in(int64_t windows) {
    return std::min(LOOK_RUN / PHASES, (windows - 1) / PHASES - 1);
}

}  // namespace

Look::Look(int32_t rate, double flat_hz)
    : rate_(rate),
      length_(static_cast<int32_t>(std::lround(PHASES * LOOK_STEP_S * rate))),
      bins_(2 * static_cast<std::size_t>(flat_hz * length_ / rate) + 1),
      window_(float_fft_complexes(at(length_))),
      spectrum_(float_fft_complexes(at(length_))),
      plan_(plan_float_complex(length_, window_.get(), spectrum_.get(), FFTW_FORWARD)) {}

int64_t Look::sample_of(int64_t window) const {
    return std::llround(static_cast<double>(window) * LOOK_STEP_S * rate_);
}

int64_t Look::windows_in(int64_t first, int64_t count) const {
    const int64_t end = sample_of(first) + count - length_;
    auto windows = static_cast<int64_t>(static_cast<double>(end) / (LOOK_STEP_S * rate_)) - first + 2;
    while (windows > 0 && sample_of(first + windows - 1) > end) windows--;
    return std::max<int64_t>(windows, 0);
}

double Look::freq_of(std::size_t bin) const {
    const auto offset = static_cast<int64_t>(bin) - static_cast<int64_t>(bins_ / 2);
    return static_cast<double>(offset) * rate_ / length_;
}

void Look::fill_powers(const Samples& samples, const Windows& block) {
    powers_.resize(at(block.end - block.first) * bins_);
    const int64_t begin = sample_of(block.first);
    samples_.resize(at(sample_of(block.end - 1) + length_ - begin));
    samples(begin, samples_);
    float* row = powers_.data();
    const auto half = static_cast<int64_t>(bins_ / 2);
    for (int64_t w = block.first; w < block.end; w++, row += bins_) {
        std::copy_n(samples_.begin() + (sample_of(w) - begin), length_, window_.get());
        fftwf_execute(plan_.get());
        powers_of(spectrum_.get() + length_ - half, at(half), row);
        powers_of(spectrum_.get(), at(half + 1), row + half);
    }
}

// Divides the powers by the noise of their bin.
void Look::level_noise(int64_t windows) {
    const int64_t step = std::max<int64_t>(1, windows / NOISE_WINDOWS);
    constexpr std::size_t COLUMNS = 16;  // gathered at once: a cache line of a row
    std::vector<float> levels(bins_);
    const std::size_t rows = at((windows + step - 1) / step);
    std::vector<float> columns(COLUMNS * rows);
    for (std::size_t first = 0; first < bins_; first += COLUMNS) {
        const std::size_t count = std::min(COLUMNS, bins_ - first);
        for (std::size_t i = 0; i < rows; i++) {
            const float* const row = powers_.data() + i * at(step) * bins_ + first;
            for (std::size_t c = 0; c < count; c++) columns[c * rows + i] = row[c];
        }
        for (std::size_t c = 0; c < count; c++) {
            levels[first + c] = upper_median(std::span(columns).subspan(c * rows, rows)) / LN2_F32;
        }
    }
    std::vector<float> units(bins_);
    for (std::size_t bin = 0; bin < bins_; bin++) {
        const std::size_t low = bin - std::min(bin, NOISE_MARGIN);
        const std::size_t high = std::min(bin + NOISE_MARGIN, bins_ - 1);
        const float level = upper_median(std::span(levels).subspan(low, high - low + 1));
        units[bin] = 1 / std::max(level, NOISE_FLOOR);
    }
    for (int64_t w = 0; w < windows; w++) scale(units.data(), bins_, powers_.data() + at(w) * bins_);
}

// The best mean jump of each bin over all runs.
void Look::search_runs(int64_t windows, int64_t run) {
    std::vector<double> best(bins_);
    std::vector<double> jumps(bins_);
    std::vector<double> powers(bins_);
    const auto add = [&](int64_t w, double sign) {
        const float* const row = powers_.data() + at(w) * bins_;
        add_jumps(row, row + PHASES * bins_, sign, bins_, jumps.data(), powers.data());
    };
    for (int64_t first = 0; first < PHASES && first + PHASES * run < windows; first++) {
        std::ranges::fill(jumps, 0);
        std::ranges::fill(powers, 0);
        for (int64_t i = 0; i < run; i++) add(first + PHASES * i, 1);
        for (int64_t w = first;; w += PHASES) {
            raise(jumps.data(), powers.data(), bins_, best.data());
            if (w + PHASES * (run + 1) >= windows) break;
            add(w, -1);
            add(w + PHASES * run, 1);
        }
    }
    best_.resize(bins_);
    std::ranges::transform(best, best_.begin(),
                           [run](double jump) { return static_cast<float>(jump / static_cast<double>(run)); });
}

// The mean jump of the runs that begin at each window of the block.
std::vector<float> Look::jumps_of(std::size_t bin, int64_t windows, int64_t run) const {
    std::vector<float> means(at(std::max<int64_t>(windows - PHASES * run, 0)));
    for (int64_t phase = 0; phase < PHASES; phase++) {
        double jump = 0;
        double sum = 0;
        for (int64_t w = phase; w + PHASES < windows; w += PHASES) {
            jump += std::fabs(power(w + PHASES, bin) - power(w, bin));
            sum += power(w, bin);
            const int64_t first = w - PHASES * (run - 1);
            if (first < 0) continue;
            means[at(first)] = static_cast<float>(jump >= JUMP_SHARE * sum ? jump / static_cast<double>(run) : 0);
            jump -= std::fabs(power(first + PHASES, bin) - power(first, bin));
            sum -= power(first, bin);
        }
    }
    return means;
}

// Where a bin is keyed most of all times around, strongest first.
std::vector<Keyed> Look::peaks(const Windows& block, int64_t run, const Range& band, double least_z) {
    std::vector<float> copy = best_;
    const RobustStatistics centre = robust_statistics(copy, upper_median);
    least_jump_ = centre.median + least_z * centre.sigma;
    const auto z_of = [&](float jump) { return (static_cast<double>(jump) - centre.median) / centre.sigma; };
    std::vector<Keyed> found;
    for (std::size_t bin = 0; bin < bins_; bin++) {
        const double freq_hz = freq_of(bin);
        if (freq_hz < band.low || freq_hz > band.high || !(z_of(best_[bin]) >= least_z)) continue;
        const std::vector<float> jumps = jumps_of(bin, block.end - block.first, run);
        const auto count = static_cast<int64_t>(jumps.size());
        for (int64_t w = 0; w < count; w++) {
            if (!(z_of(jumps[at(w)]) >= least_z)) continue;
            const auto first = jumps.begin() + std::max<int64_t>(w - LOOK_AROUND, 0);
            const auto end = jumps.begin() + std::min(w + LOOK_AROUND + 1, count);
            if (std::max_element(first, end) - jumps.begin() != w) continue;
            const int64_t window = block.first + w;
            found.push_back({freq_hz, window, z_of(jumps[at(w)]), window, window});
        }
    }
    std::ranges::stable_sort(found, [](const Keyed& a, const Keyed& b) { return a.z > b.z; });
    return found;
}

std::vector<Keyed> Look::find(const Samples& samples, Windows block, Windows own, const Range& band, double least_z) {
    const int64_t windows = block.end - block.first;
    const int64_t run = run_in(windows);
    if (run < LEAST_RUN || own.first - block.first + PHASES * run >= windows) return {};
    fill_powers(samples, block);
    level_noise(windows);
    search_runs(windows, run);

    const std::vector<Keyed> all = peaks(block, run, {band.low - APART_HZ, band.high + APART_HZ}, least_z);
    std::vector<Keyed> kept;
    for (const Keyed& peak : all) {
        const auto is_near = [&](const Keyed& other) { return are_near(peak, other); };
        if (peak.freq_hz >= band.low && peak.freq_hz <= band.high && std::ranges::none_of(kept, is_near)) {
            kept.push_back(peak);
        }
    }
    std::erase_if(kept, [&](const Keyed& keyed) { return keyed.window < own.first || keyed.window >= own.end; });
    for (Keyed& keyed : kept) {
        for (const Keyed& other : all) {
            if (!are_near(keyed, other)) continue;
            keyed.first_window = std::min(keyed.first_window, other.window);
            keyed.last_window = std::max(keyed.last_window, other.window);
        }
    }
    return kept;
}

bool Look::is_keyed(const ov_baseband& baseband, double half_hz, Windows block) {
    const auto rate = static_cast<int32_t>(baseband.rate);
    if (!narrow_ || narrow_->rate_ != rate) narrow_ = std::make_unique<Look>(rate, FLAT_SHARE * rate);
    Look& narrow = *narrow_;
    block.first = std::max<int64_t>(block.first, 0);
    block.end = std::min(block.end, narrow.windows_in(0, baseband.n));
    const int64_t windows = block.end - block.first;
    const int64_t run = run_in(windows);
    if (run < LEAST_RUN) return true;
    const auto samples = [&](int64_t first, std::span<std::complex<float>> out) {
        std::ranges::transform(std::span(baseband.samples + first, out.size()), out.begin(),
                               [](const std::complex<double>& sample) { return std::complex<float>(sample); });
    };
    narrow.fill_powers(samples, block);
    narrow.level_noise(windows);
    narrow.search_runs(windows, run);
    for (std::size_t bin = 0; bin < narrow.bins_; bin++) {
        if (std::fabs(narrow.freq_of(bin)) <= half_hz && narrow.best_[bin] >= least_jump_) return true;
    }
    return false;
}
