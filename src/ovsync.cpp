// The score map is a short-time power spectrum with the noise of every column brought to 1. A frame shows in it as a
// pattern of ON and OFF chips: candidates are where that pattern fits best over all messages that a frame could carry.
// Refinement leaves the map and measures single chips on the baseband, where start, frequency and drift are free.
#include "ovsync.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <numbers>
#include <span>
#include <vector>

#include "chipmeter.h"
#include "median.h"
#include "multiversion.h"
#include "ovcdec.h"
#include "ovfft.h"
#include "runsums.h"

namespace {

using Complex = std::complex<double>;

constexpr float LN2 = 0.6931472f;         // median of exponentially distributed powers / their mean
constexpr double SIGMA_PER_MAD = 1.4826;  // standard deviation / median absolute deviation of a normal distribution
constexpr float NOISE_FLOOR = 1e-30f;
constexpr double NO_METRIC = -1e300;

constexpr int32_t STEPS_PER_CHIP = 16;
constexpr int32_t MIN_CHIP_SAMPLES = 4;
constexpr int32_t MAX_CHIP_SAMPLES = 1 << 28;  // transform lengths stay within 32 bits
constexpr int32_t MAX_NOISE_ROWS = 4000;
constexpr int64_t MAX_SCORE_SAMPLES = 200000;

constexpr double THINNING_CHIPS = 7;       // candidates this close in time
constexpr double THINNING_BANDWIDTHS = 2;  // and frequency (in 1/chip) are one

constexpr int32_t MAX_DRIFT_STEPS = 12;

constexpr int32_t MIN_SNR_CHIP_SAMPLES = 16;
constexpr int32_t SNR_GUARD_BINS = 15;  // bins each side of the carrier that are not noise
constexpr std::size_t MIN_SNR_SAMPLES = 200;
constexpr double NO_SNR = -99.0;

// ---- Score map -------------------------------------------------------------------------------------------------

// Chip length, time step and transform of a map; false when the baseband cannot carry one.
bool set_time_grid(const ov_baseband& bb, double chip_s, ov_specmap& map) {
    const double samples = bb.rate * chip_s;
    if (!(samples >= 0 && samples <= MAX_CHIP_SAMPLES)) return false;
    const auto chip_len = static_cast<int32_t>(std::lround(samples));
    if (chip_len < MIN_CHIP_SAMPLES || std::fabs(samples - chip_len) > 1e-6 || bb.n < chip_len) return false;

    map.chip_s = chip_s;
    map.rate = bb.rate;
    map.chip_len = chip_len;
    map.hop = chip_len % STEPS_PER_CHIP == 0 ? chip_len / STEPS_PER_CHIP : 1;
    map.steps_per_chip = chip_len / map.hop;
    map.npos = (bb.n - chip_len) / map.hop + 1;
    return true;
}

// Padding and the margin of columns beyond the searched band.
struct Resolution {
    int32_t pad;
    int32_t margin;
};
Resolution resolution(int32_t chip_len) {
    return chip_len <= 512 ? Resolution{4, 32} : Resolution{2, 16};
}

// Columns and spread of a map; false when no column is left.
bool set_frequency_grid(double search_hz, double spread_hz, ov_specmap& map) {
    const auto [pad, margin] = resolution(map.chip_len);
    map.nfft = pad * map.chip_len;
    map.bin_hz = map.rate / map.nfft;
    map.spread_factor = 1.0;
    if (spread_hz > 0) {
        const double half_width = std::round(spread_hz * 0.5 / map.bin_hz);
        if (!(half_width <= map.nfft)) return false;
        map.spread = std::max(pad, static_cast<int32_t>(half_width));
        map.spread_factor = static_cast<double>(2 * map.spread + 1) / pad;
    }

    const double wanted = std::ceil((2.0 / map.chip_s + search_hz) / map.bin_hz) + margin;
    if (std::isnan(wanted)) return false;
    const int32_t widest = (map.nfft - 1) / 2 - map.spread;
    const double half = 2.0 * (map.spread + wanted) < map.nfft ? wanted : widest;
    if (half < 1) return false;
    map.half = static_cast<int32_t>(half);
    map.nbins = 2 * map.half + 1;
    return true;
}

// One row: sums of 2·spread + 1 neighbouring powers. The sum runs in double; each step is formed in single precision.
void sum_spread(std::span<const float> powers, std::size_t width, std::span<float> row) {
    double sum = 0;
    for (std::size_t k = 0; k < width; k++) sum += powers[k];
    for (std::size_t b = 0; b < row.size(); b++) {
        row[b] = static_cast<float>(sum);
        if (b + width < powers.size()) sum += powers[b + width] - powers[b];
    }
}

bool fill_powers(const ov_baseband& bb, const ov_specmap& map) {
    const auto length = static_cast<std::size_t>(map.nfft);
    const auto reach = static_cast<std::size_t>(map.spread + map.half);  // bins each side that are needed
    const auto columns = static_cast<std::size_t>(map.nbins);
    const auto window = fftw_array<Complex>(map.nfft);
    const auto bins = fftw_array<Complex>(map.nfft);
    if (!window || !bins) return false;
    std::vector<float> powers(2 * reach + 1);
    const FftwPlan plan = plan_complex(map.nfft, window.get(), bins.get(), FFTW_FORWARD);
    if (!plan) return false;

    std::fill(window.get(), window.get() + length, Complex{});
    const auto power = [](const Complex& x) { return static_cast<float>(std::norm(x)); };
    for (int32_t p = 0; p < map.npos; p++) {
        std::copy_n(bb.samples + static_cast<std::ptrdiff_t>(p) * map.hop, map.chip_len, window.get());
        fftw_execute(plan.get());
        const auto middle = std::transform(bins.get() + (length - reach), bins.get() + length, powers.begin(), power);
        std::transform(bins.get(), bins.get() + reach + 1, middle, power);
        const std::span row(map.power + static_cast<std::size_t>(p) * columns, columns);
        if (map.spread == 0) {
            std::copy(powers.begin(), powers.end(), row.begin());
        } else {
            sum_spread(powers, static_cast<std::size_t>(2 * map.spread + 1), row);
        }
    }
    return true;
}

// Mean noise power of each column from the median of its powers, smoothed by the median over neighbouring columns.
void fill_noise(const ov_specmap& map) {
    constexpr std::size_t BLOCK = 16;  // columns gathered at once: one cache line of a row
    const auto columns = static_cast<std::size_t>(map.nbins);
    const auto rows = static_cast<std::size_t>(std::min(map.npos, MAX_NOISE_ROWS));
    std::vector<float> samples(BLOCK * rows);
    std::vector<float> levels(columns);
    for (std::size_t first = 0; first < columns; first += BLOCK) {
        const std::size_t width = std::min(BLOCK, columns - first);
        for (std::size_t i = 0; i < rows; i++) {
            const std::size_t row = rows > 1 ? i * static_cast<std::size_t>(map.npos - 1) / (rows - 1) : 0;
            const float* source = map.power + row * columns + first;
            for (std::size_t c = 0; c < width; c++) samples[c * rows + i] = source[c];
        }
        for (std::size_t c = 0; c < width; c++) {
            levels[first + c] = median_value(std::span(samples).subspan(c * rows, rows)) / LN2;
        }
    }

    const auto margin = static_cast<std::size_t>(resolution(map.chip_len).margin);
    for (std::size_t b = 0; b < columns; b++) {
        const std::size_t first = b > margin ? b - margin : 0;
        const std::size_t last = std::min(b + margin, columns - 1);
        const float level = median_value(std::span(levels).subspan(first, last - first + 1));
        map.noise[b] = level > 0 ? level : NOISE_FLOOR;
    }
}

void normalise(const ov_specmap& map) {
    const auto columns = static_cast<std::size_t>(map.nbins);
    for (int32_t p = 0; p < map.npos; p++) {
        float* row = map.power + static_cast<std::size_t>(p) * columns;
        for (std::size_t b = 0; b < columns; b++) row[b] /= map.noise[b];
        if (map.spread == 0) continue;
        for (std::size_t b = 0; b < columns; b++) {
            row[b] = static_cast<float>((row[b] - 1.0) * map.noise_rescale + 1.0);
        }
    }
}

// ---- Candidate search ------------------------------------------------------------------------------------------

// Correlations of a group with the eight words, for some columns: bit j of word w is the parity of w AND (j + 1), so
// they are the negated Walsh-Hadamard transform of 0 and the seven differences, which lie `stride` apart.
using EightWords = std::array<Floats16, 8>;
inline void correlate(const float* differences, std::size_t stride, EightWords& x) {
    x[0] = Floats16{};
    for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
        load(x[j + 1], differences + j * stride);
        x[j + 1] = -x[j + 1];
    }
    for (std::size_t half = 1; half < x.size(); half *= 2) {
        for (std::size_t k = 0; k < x.size(); k++) {
            if ((k & half) != 0) continue;
            const Floats16 sum = x[k] + x[k + half];
            x[k + half] = x[k] - x[k + half];
            x[k] = sum;
        }
    }
}

// n is a multiple of 16, here and in the next.
ORVEL_MULTIVERSION void correlate_words(const float* differences, std::size_t n, float* words) {
    for (std::size_t c = 0; c < n; c += FLOATS) {
        EightWords x;
        correlate(differences + c, n, x);
        for (std::size_t w = 0; w < x.size(); w++) store(x[w], words + w * n + c);
    }
}

// The best of the last word alone, of the first four, and of all.
ORVEL_MULTIVERSION void correlate_best(const float* differences, std::size_t n, float* last, float* four, float* all) {
    const Floats16 lowest = Floats16{} - 1e30f;
    for (std::size_t c = 0; c < n; c += FLOATS) {
        EightWords x;
        correlate(differences + c, n, x);
        Floats16 best = lowest;
        for (std::size_t w = 0; w < x.size(); w++) {
            best = x[w] > best ? x[w] : best;  // unchanged where x is no number
            if (w == 3) store(best, four + c);
        }
        store(best, all + c);
        best = x[7] > lowest ? x[7] : lowest;
        store(best, last + c);
    }
}

ORVEL_MULTIVERSION void subtract(const float* a, const float* b, std::size_t n, float* out) {
    for (std::size_t c = 0; c < n; c++) out[c] = a[c] - b[c];
}

// Sums of 17 rows, in their order.
using GroupRows = std::array<const float*, OVC_GROUPS>;
ORVEL_MULTIVERSION void sum_groups(const GroupRows& rows, std::size_t n, float* out) {
    for (std::size_t c = 0; c < n; c += FLOATS) {
        Floats16 sum{};
        for (const float* row : rows) {
            Floats16 values;
            load(values, row + c);
            sum += values;
        }
        std::memcpy(out + c, &sum, std::min(FLOATS, n - c) * sizeof(float));
    }
}

void score_groups(const ov_specmap& map, const ov_grid& grid, std::span<float> scores) {
    ov_group_rows groups(map, grid, ov_group_rows::Keep::BEST);
    for (int64_t i = 0; i < grid.n_rows; i++) {
        const int64_t t = grid.first_row + i;
        groups.advance(t);
        GroupRows rows;
        for (int32_t g = 0; g < OVC_GROUPS; g++) rows[static_cast<std::size_t>(g)] = groups.best(t, g);
        sum_groups(rows, grid.n_columns, scores.data() + static_cast<std::size_t>(i) * grid.n_columns);
    }
}

// Some columns of a row of the score, in double precision.
constexpr std::size_t SUM_COLUMNS = 16;
using ColumnSums = std::array<double, SUM_COLUMNS>;

// Adds |power in the chip after row u − power in the chip that begins there| for `width` columns; nothing where either
// lies outside the map.
[[gnu::always_inline]] inline void add_difference(const ov_specmap& map, int64_t u, std::size_t column,
                                                  std::size_t width, ColumnSums& sums) {
    if (u < 0 || u + map.steps_per_chip >= map.npos) return;
    const auto stride = static_cast<std::size_t>(map.nbins);
    const float* const first = map.power + static_cast<std::size_t>(u) * stride + column;
    const float* const second = first + static_cast<std::size_t>(map.steps_per_chip) * stride;
    if (width == SUM_COLUMNS) {  // a fixed count of columns can be added at once
        for (std::size_t c = 0; c < SUM_COLUMNS; c++) sums[c] += static_cast<double>(std::fabs(second[c] - first[c]));
    } else {
        for (std::size_t c = 0; c < width; c++) sums[c] += static_cast<double>(std::fabs(second[c] - first[c]));
    }
}

// Scores of some columns, of frames that start in rows t, t + 2S, …: pair k of the frame in row t compares the chips at
// row t + (2k + 1)S, so that neighbouring scores of this sequence have all but one of their terms in common.
ORVEL_MULTIVERSION void score_columns(const ov_specmap& map, const ov_grid& grid, int64_t residue, std::size_t column,
                                      std::size_t width, ColumnSums* ends, float* scores) noexcept {
    const int64_t stride = 2 * static_cast<int64_t>(map.steps_per_chip);
    const int64_t starts = (grid.n_rows - residue + stride - 1) / stride;
    const int64_t first_row = grid.first_row + residue + map.steps_per_chip;
    const auto source = static_cast<std::size_t>(grid.first_column) + column;
    sum_runs(
        starts + map.pairs - 1, map.pairs, ends,
        [&](ColumnSums& sums, int64_t i) { add_difference(map, first_row + i * stride, source, width, sums); },
        [&](int64_t i, const ColumnSums& sums) {
            float* const out = scores + static_cast<std::size_t>(residue + i * stride) * grid.n_columns + column;
            for (std::size_t c = 0; c < width; c++) out[c] = static_cast<float>(sums[c]);
        },
        [](const ColumnSums& a, const ColumnSums& b) {
            ColumnSums sum;
            for (std::size_t c = 0; c < SUM_COLUMNS; c++) sum[c] = a[c] + b[c];
            return sum;
        });
}

void score_pairs(const ov_specmap& map, const ov_grid& grid, std::span<float> scores) {
    if (map.pairs < 1) return;
    const int64_t residues = std::min(2 * static_cast<int64_t>(map.steps_per_chip), grid.n_rows);
    std::vector<ColumnSums> ends(static_cast<std::size_t>(map.pairs));
    for (std::size_t column = 0; column < grid.n_columns; column += SUM_COLUMNS) {
        const std::size_t width = std::min(SUM_COLUMNS, grid.n_columns - column);
        for (int64_t residue = 0; residue < residues; residue++) {
            score_columns(map, grid, residue, column, width, ends.data(), scores.data());
        }
    }
}

struct ScoreStatistics {
    float median;
    double sigma;
};

ScoreStatistics score_statistics(std::span<const float> scores) {
    const auto total = static_cast<int64_t>(scores.size());
    const int64_t n = std::min(total, MAX_SCORE_SAMPLES);
    std::vector<float> sample(static_cast<std::size_t>(n));
    for (int64_t i = 0; i < n; i++)
        sample[static_cast<std::size_t>(i)] = scores[static_cast<std::size_t>(i * total / n)];

    const float median = median_value(sample);
    for (float& value : sample) value = std::fabs(value - median);
    const double sigma = SIGMA_PER_MAD * median_value(sample);
    return {median, sigma > 0 ? sigma : 1e-9};
}

// A peak is no lower than any of its neighbours; a flat top is several peaks.
bool is_peak(const ov_grid& grid, std::span<const float> scores, int64_t row, std::size_t column) {
    const auto at = [&](int64_t r, std::size_t c) { return scores[static_cast<std::size_t>(r) * grid.n_columns + c]; };
    const float score = at(row, column);
    const std::size_t left = column > 0 ? column - 1 : 0;
    const std::size_t right = std::min(column + 1, grid.n_columns - 1);
    for (int64_t r = std::max<int64_t>(row - 1, 0); r <= std::min(row + 1, grid.n_rows - 1); r++) {
        for (std::size_t c = left; c <= right; c++) {
            if (at(r, c) > score) return false;
        }
    }
    return true;
}

std::vector<ov_cand> find_peaks(const ov_specmap& map, const ov_grid& grid, std::span<const float> scores,
                                const ScoreStatistics& statistics, double z_min) {
    const auto threshold = static_cast<float>(z_min * statistics.sigma + statistics.median);
    std::vector<ov_cand> peaks;
    for (int64_t i = 0; i < grid.n_rows; i++) {
        for (std::size_t c = 0; c < grid.n_columns; c++) {
            const float score = scores[static_cast<std::size_t>(i) * grid.n_columns + c];
            if (!(score >= threshold) || !std::isfinite(score) || !is_peak(grid, scores, i, c)) continue;
            ov_cand cand;
            cand.pos = static_cast<int32_t>(grid.first_row + i);
            cand.bin = grid.first_column + static_cast<int32_t>(c);
            cand.t = static_cast<double>(map.hop) * cand.pos / map.rate;
            cand.f = (cand.bin - map.half) * map.bin_hz;
            cand.score = score;
            cand.z = (score - static_cast<double>(statistics.median)) / statistics.sigma;
            peaks.push_back(cand);
        }
    }
    return peaks;
}

int32_t cmp_cand_desc(const ov_cand& a, const ov_cand& b) {
    return (b.score > a.score) - (b.score < a.score);
}

// Copies the strongest of each neighbourhood.
int32_t thin_out(const ov_specmap& map, std::span<const ov_cand> sorted, std::span<ov_cand> out) {
    const double near_s = THINNING_CHIPS * map.chip_s;
    const double near_hz = THINNING_BANDWIDTHS / map.chip_s;
    std::size_t kept = 0;
    for (const ov_cand& cand : sorted) {
        if (kept == out.size()) break;
        const bool taken = std::any_of(
            out.begin(), out.begin() + static_cast<std::ptrdiff_t>(kept),
            [&](const ov_cand& k) { return std::fabs(k.t - cand.t) <= near_s && std::fabs(k.f - cand.f) <= near_hz; });
        if (!taken) out[kept++] = cand;
    }
    return static_cast<int32_t>(kept);
}

// ---- Hypotheses ------------------------------------------------------------------------------------------------

// |Σ x[k]·e^(−jθk)|² over n samples. Several phasors take turns, each advanced by as many rotations a time: one alone
// would have to wait for its own last product.
ORVEL_MULTIVERSION double tone_energy(const Complex* x, int32_t n, const Complex& rotation) {
    Doubles8 phasor_re{};
    Doubles8 phasor_im{};
    Complex turn = 1;
    for (std::size_t j = 0; j < DOUBLES; j++) {
        phasor_re[j] = turn.real();
        phasor_im[j] = turn.imag();
        turn *= rotation;
    }
    Doubles8 sum_re{};
    Doubles8 sum_im{};
    const auto add = [&](const Doubles8& x_re, const Doubles8& x_im) {
        sum_re += x_re * phasor_re - x_im * phasor_im;
        sum_im += x_re * phasor_im + x_im * phasor_re;
        const Doubles8 next_re = phasor_re * turn.real() - phasor_im * turn.imag();
        phasor_im = phasor_re * turn.imag() + phasor_im * turn.real();
        phasor_re = next_re;
    };
    const auto count = static_cast<std::size_t>(n);
    std::size_t k = 0;
    for (; k + DOUBLES <= count; k += DOUBLES) {
        Doubles8 front;
        Doubles8 back;
        std::memcpy(&front, x + k, sizeof front);
        std::memcpy(&back, x + k + DOUBLES / 2, sizeof back);
        add(__builtin_shufflevector(front, back, 0, 2, 4, 6, 8, 10, 12, 14),
            __builtin_shufflevector(front, back, 1, 3, 5, 7, 9, 11, 13, 15));
    }
    Doubles8 rest_re{};
    Doubles8 rest_im{};
    for (std::size_t j = 0; k + j < count; j++) {
        rest_re[j] = x[k + j].real();
        rest_im[j] = x[k + j].imag();
    }
    add(rest_re, rest_im);
    const double re = sum_of(sum_re);
    const double im = sum_of(sum_im);
    return re * re + im * im;
}

// Frequency of a window of a drifting frame that has frequency f in its middle.
class DriftLine {
  public:
    DriftLine(double rate, int32_t start, int32_t nchips, int32_t chip_len, double f, double drift)
        : rate_(rate),
          middle_s_((start + static_cast<double>(nchips) * chip_len / 2.0) / rate),
          half_window_(chip_len / 2.0),
          f_(f),
          drift_(drift) {}

    double at(double window_start) const { return f_ + drift_ * ((window_start + half_window_) / rate_ - middle_s_); }

  private:
    double rate_, middle_s_, half_window_, f_, drift_;
};

double layout_metric(const ov_specmap& map, const float* soft) {
    if (map.pair_mode == 0) return ovc_frame_metric(soft);
    double sum = 0;
    for (int32_t i = 0; i < map.pairs; i++) sum += std::fabs(static_cast<double>(soft[i]));
    return sum;
}

// A grid of steps to each side of a centre.
struct Steps {
    int32_t reach;
    int32_t step;
};
Steps coarse_start_steps(int32_t hop) {
    return {hop, hop >= 4 ? hop / 4 : 1};
}
Steps fine_start_steps(int32_t hop) {
    const int32_t quarter = hop >= 4 ? hop / 4 : 1;
    return {quarter, quarter >= 4 ? quarter / 4 : 1};
}

struct DriftSteps {
    int32_t n;    // each side
    double unit;  // Hz/s
};

// Steps of half a column over a frame, or twelve wider ones.
DriftSteps drift_steps(const ov_specmap& map, double drift_max) {
    const double unit = 0.5 * map.bin_hz / (map.frame_chips * map.chip_s);
    const double n = std::ceil(drift_max / unit);
    if (!(n <= MAX_DRIFT_STEPS)) return {MAX_DRIFT_STEPS, drift_max / MAX_DRIFT_STEPS};
    return {static_cast<int32_t>(n), unit};
}

StartGrid starts_around(int32_t start, const Steps& steps) {
    return {start - steps.reach, 2 * steps.reach / steps.step + 1, steps.step};
}

// Measures hypotheses and hands them to a judge, start by start.
class HypothesisGrid {
  public:
    HypothesisGrid(const ov_baseband& bb, const ov_specmap& map, const std::function<void(const ov_measured&)>& judge)
        : bb_(bb),
          map_(map),
          judge_(judge),
          meter_(bb, map.chip_len, map.frame_chips),
          drift_meter_(bb, map.chip_len, map.frame_chips) {}

    // The starts with 2·n + 1 frequencies step_hz apart around f.
    void measure(const StartGrid& starts, double f, int32_t n, double step_hz, double drift) {
        freqs_.clear();
        for (int32_t i = -n; i <= n; i++) freqs_.push_back(f + i * step_hz);
        if (map_.spread == 0) meter_.measure(starts, freqs_, drift);
        for (int32_t s = 0; s < starts.count; s++) {
            for (std::size_t i = 0; i < freqs_.size(); i++) judge_at(starts, s, i, drift);
        }
    }

    // One start with the frequencies and drifts of the grid.
    void measure_drifts(int32_t start, const DriftGrid& grid) {
        const bool together = map_.spread == 0 && drift_meter_.measure(start, grid);
        for (int32_t j = -grid.n_drifts; j <= grid.n_drifts; j++) {
            if (j == 0) continue;
            if (!together) {
                measure({start, 1, 1}, grid.f, grid.n_freqs, grid.step_hz, j * grid.unit);
                continue;
            }
            for (int32_t i = -grid.n_freqs; i <= grid.n_freqs; i++) {
                judge_({start, grid.f + i * grid.step_hz, j * grid.unit, drift_meter_.energies(i, j),
                        drift_meter_.measured()});
            }
        }
    }

  private:
    void judge_at(const StartGrid& starts, int32_t s, std::size_t i, double drift) {
        if (map_.spread == 0) {
            judge_({starts.at(s), freqs_[i], drift, meter_.energies(s, i), meter_.measured(s)});
            return;
        }
        std::array<float, OV_MAX_CHIPS> energy;
        const int32_t n_in = ov_chip_energies_sp(bb_, map_, starts.at(s), freqs_[i], drift, energy.data());
        judge_({starts.at(s), freqs_[i], drift, energy.data(), n_in});
    }

    const ov_baseband& bb_;
    const ov_specmap& map_;
    const std::function<void(const ov_measured&)>& judge_;
    ChipMeter meter_;
    DriftMeter drift_meter_;
    std::vector<double> freqs_;
};

// Replaces best by a measured hypothesis that has enough chips and scores strictly higher.
void judge_hyp(const ov_specmap& map, const ov_measured& measured, int32_t min_chips, ov_hyp& best) {
    if (measured.n_in < min_chips) return;
    ov_hyp hyp{};
    std::copy_n(measured.energy, map.frame_chips, hyp.energy);
    hyp.n_in = measured.n_in;
    hyp.noise = ov_noise_at(map, measured.f);
    energies_to_soft(hyp.energy, map.pairs, hyp.noise, map.noise_rescale, hyp.soft);
    hyp.metric = layout_metric(map, hyp.soft);
    if (!(hyp.metric > best.metric)) return;

    hyp.start = measured.start;
    hyp.f = measured.f;
    hyp.drift = measured.drift;
    hyp.noise_rescale = map.noise_rescale;
    hyp.spread_factor = map.spread_factor;
    hyp.nchips = map.frame_chips;
    best = hyp;
}

// ---- SNR -------------------------------------------------------------------------------------------------------

double snr_from_ratio(double ratio, double chip_s) {
    return 10.0 * std::log10(std::fmax(ratio, 0.0001) / (chip_s * 2500.0));
}

// Mean energy of the measured chips that are ON (or OFF); false when there is none.
bool mean_energy(const ov_hyp& hyp, const uint8_t* on, bool wanted, double& mean) {
    double sum = 0;
    int32_t count = 0;
    for (int32_t c = 0; c < hyp.nchips; c++) {
        if (hyp.energy[c] < 0 || (on[c] != 0) != wanted) continue;
        sum += hyp.energy[c];
        count++;
    }
    if (count == 0) return false;
    mean = sum / count;
    return true;
}

// Takes the carrier, a constant amplitude at theta rad a sample, out of a window.
void remove_carrier(std::span<const Complex> x, double theta, Complex* out) {
    const Complex rotation(std::cos(theta), std::sin(theta));
    Complex amplitude;
    Complex phasor(1, 0);
    for (const Complex& sample : x) {
        amplitude += sample * std::conj(phasor);
        phasor *= rotation;
    }
    amplitude /= static_cast<double>(x.size());

    phasor = 1;
    for (const Complex& sample : x) {
        *out++ = sample - amplitude * phasor;
        phasor *= rotation;
    }
}

// Powers of the bins beside the carrier in every window from the middle of an ON chip to the middle of the next ON
// chip. Empty when there is no such window or no memory.
std::vector<float> noise_powers(const ov_baseband& bb, int32_t chip_len, const ov_hyp& hyp, const uint8_t* on) {
    const auto window = fftw_array<Complex>(chip_len);
    const auto bins = fftw_array<Complex>(chip_len);
    if (!window || !bins) return {};
    const FftwPlan plan = plan_complex(chip_len, window.get(), bins.get(), FFTW_FORWARD);
    if (!plan) return {};

    std::vector<float> powers;
    const DriftLine line(bb.rate, hyp.start, hyp.nchips, chip_len, hyp.f, hyp.drift);
    for (int32_t c = 1; c < hyp.nchips; c++) {
        const bool keyed_through = on[c - 1] != 0 && on[c] != 0;
        if (!keyed_through || hyp.energy[c - 1] < 0 || hyp.energy[c] < 0) continue;
        const int64_t start = hyp.start + static_cast<int64_t>(c - 1) * chip_len + chip_len / 2;
        if (start < 0 || start + chip_len > bb.n) continue;

        const double f = line.at(static_cast<double>(start));
        remove_carrier({bb.samples + start, static_cast<std::size_t>(chip_len)}, 2 * std::numbers::pi * f / bb.rate,
                       window.get());
        fftw_execute(plan.get());

        const double carrier_bin = std::round(f / bb.rate * chip_len);
        for (int32_t j = 0; j < chip_len; j++) {
            double distance = std::fmod(j - carrier_bin, chip_len);
            if (distance < 0) distance += chip_len;
            if (std::fmin(distance, chip_len - distance) > SNR_GUARD_BINS) {
                powers.push_back(static_cast<float>(std::norm(bins[static_cast<std::size_t>(j)])));
            }
        }
    }
    return powers;
}

}  // namespace

float median_of(const float* values, int32_t n, float* /*scratch*/) {
    return median_value({values, static_cast<std::size_t>(std::max(n, 0))});
}

int ov_spectrogram(const ov_baseband& bb, double chip_s, double search_hz, double spread_hz, ov_specmap& out) {
    out = {};
    ov_specmap map{};
    map.noise_rescale = 1.0;
    if (!set_time_grid(bb, chip_s, map) || !set_frequency_grid(search_hz, spread_hz, map)) return -1;
    ov_spec_frame(map, OVC_PAIRS, 0);

    try {
        const auto columns = static_cast<std::size_t>(map.nbins);
        auto power = std::make_unique_for_overwrite<float[]>(columns * static_cast<std::size_t>(map.npos));
        auto noise = std::make_unique_for_overwrite<float[]>(columns);
        map.power = power.get();
        map.noise = noise.get();
        if (!fill_powers(bb, map)) return -1;
        fill_noise(map);
        normalise(map);

        power.release();
        noise.release();
        out = map;
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

void ov_spectrogram_free(ov_specmap& map) {
    delete[] map.power;
    delete[] map.noise;
    map = {};
}

void ov_spec_frame(ov_specmap& map, int32_t ncoded, int32_t pair_mode) {
    map.pairs = std::min(ncoded, OV_MAX_PAIRS);
    map.frame_chips = 2 * map.pairs + 1;
    map.pair_mode = pair_mode;
}

bool ov_search_grid(const ov_specmap& map, int32_t chips, double t_min, double t_max, double search_hz, double edge,
                    ov_grid& grid) {
    const double fraction = std::fmin(std::fmax(edge, 0.0), 0.5);
    const double overhang = std::floor(fraction * chips) * map.steps_per_chip;
    const double to_last_chip = static_cast<double>(chips - 1) * map.steps_per_chip;
    const double first = std::fmax(-overhang, std::ceil(t_min * map.rate / map.hop));
    const double last = std::fmin(map.npos - 1 - to_last_chip + overhang, std::floor(t_max * map.rate / map.hop));
    if (!(last >= first)) return false;

    if (!(search_hz >= 0)) return false;
    const double half = std::fmin(std::floor(search_hz / map.bin_hz), map.half);
    grid.first_row = static_cast<int64_t>(first);
    grid.n_rows = static_cast<int64_t>(last - first) + 1;
    grid.first_column = map.half - static_cast<int32_t>(half);
    grid.n_columns = 2 * static_cast<std::size_t>(half) + 1;
    return true;
}

void ov_pair_difference(const ov_specmap& map, const ov_grid& grid, int64_t r, float* out) {
    if (r < 0 || r + map.steps_per_chip >= map.npos) {
        std::fill_n(out, grid.n_columns, 0.0f);
        return;
    }
    const float* first = map.power + static_cast<std::ptrdiff_t>(r) * map.nbins + grid.first_column;
    const float* second = first + static_cast<std::ptrdiff_t>(map.steps_per_chip) * map.nbins;
    subtract(second, first, grid.n_columns, out);
}

ov_group_rows::ov_group_rows(const ov_specmap& map, const ov_grid& grid, Keep keep)
    : map_(map),
      grid_(grid),
      keep_(keep),
      stride_((grid.n_columns + FLOATS - 1) / FLOATS * FLOATS),
      kinds_(keep == Keep::BEST ? static_cast<std::size_t>(N_BEST) : OVC_WALSH.size()),
      depth_(2 * OVC_GROUPS * static_cast<int64_t>(map.steps_per_chip)),
      next_row_(grid.first_row + map.steps_per_chip),
      rows_(static_cast<std::size_t>(depth_) * kinds_ * stride_),
      squares_(keep == Keep::WORDS ? static_cast<std::size_t>(depth_) * grid.n_columns : 0),
      differences_(OVC_WORD_BITS * stride_) {}

void ov_group_rows::advance(int64_t t) {
    while (next_row_ <= group_row(t, OVC_GROUPS - 1)) form(next_row_++);
}

int64_t ov_group_rows::group_row(int64_t t, int32_t g) const {
    return t + (2 * g + 1) * static_cast<int64_t>(map_.steps_per_chip);
}

const float* ov_group_rows::row(int64_t t, int32_t g, std::size_t kind) const {
    return rows_.data() + (slot(group_row(t, g)) * kinds_ + kind) * stride_;
}

const double* ov_group_rows::squares(int64_t t, int32_t g) const {
    return squares_.data() + slot(group_row(t, g)) * grid_.n_columns;
}

void ov_group_rows::form(int64_t u) {
    for (int64_t j = 0; j < OVC_WORD_BITS; j++) {
        ov_pair_difference(map_, grid_, u + 2 * OVC_GROUPS * j * map_.steps_per_chip,
                           differences_.data() + static_cast<std::size_t>(j) * stride_);
    }
    float* const out = rows_.data() + slot(u) * kinds_ * stride_;
    if (keep_ == Keep::BEST) {
        correlate_best(differences_.data(), stride_, out + ONLY_LAST * stride_, out + FIRST_FOUR * stride_,
                       out + ALL * stride_);
    } else {
        correlate_words(differences_.data(), stride_, out);
        form_squares(u);
    }
}

void ov_group_rows::form_squares(int64_t u) {
    const std::size_t n = grid_.n_columns;
    double* const out = squares_.data() + slot(u) * n;
    std::fill_n(out, n, 0.0);
    for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
        for (std::size_t c = 0; c < n; c++) {
            const double difference = differences_[j * stride_ + c];
            out[c] += difference * difference;
        }
    }
}

int32_t ov_find_candidates(const ov_specmap& map, double t_min, double t_max, double search_hz, double edge,
                           double z_min, int32_t max_out, ov_cand* out, double* median_out, double* sigma_out) {
    ov_grid grid;
    if (!ov_search_grid(map, map.frame_chips, t_min, t_max, search_hz, edge, grid)) return 0;
    try {
        std::vector<float> scores(static_cast<std::size_t>(grid.n_rows) * grid.n_columns);
        if (map.pair_mode == 0) {
            score_groups(map, grid, scores);
        } else {
            score_pairs(map, grid, scores);
        }
        const ScoreStatistics statistics = score_statistics(scores);
        if (median_out != nullptr) *median_out = statistics.median;
        if (sigma_out != nullptr) *sigma_out = statistics.sigma;
        if (max_out < 1) return 0;

        std::vector<ov_cand> peaks = find_peaks(map, grid, scores, statistics, z_min);
        std::stable_sort(peaks.begin(), peaks.end(),
                         [](const ov_cand& a, const ov_cand& b) { return cmp_cand_desc(a, b) < 0; });
        return thin_out(map, peaks, {out, static_cast<std::size_t>(max_out)});
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int32_t ov_chip_energies(const ov_baseband& bb, int32_t chip_len, int32_t nchips, int32_t start, double f, double drift,
                         float* out) {
    const DriftLine line(bb.rate, start, nchips, chip_len, f, drift);
    int32_t measured = 0;
    double last_theta = NAN;
    Complex rotation;
    for (int32_t c = 0; c < nchips; c++) {
        const int64_t s = start + static_cast<int64_t>(c) * chip_len;
        if (s < 0 || s + chip_len > bb.n) {
            out[c] = -1;
            continue;
        }
        const double theta = 2 * std::numbers::pi * line.at(static_cast<double>(s)) / bb.rate;
        if (theta != last_theta) rotation = {std::cos(theta), -std::sin(theta)};  // without drift once for all
        last_theta = theta;
        out[c] = chip_len > 0 ? static_cast<float>(tone_energy(bb.samples + s, chip_len, rotation)) : 0;
        measured++;
    }
    return measured;
}

int32_t ov_chip_energies_sp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift,
                            float* out) {
    const int32_t measured = ov_chip_energies(bb, map.chip_len, map.frame_chips, start,
                                              map.spread == 0 ? f : f - map.spread * map.bin_hz, drift, out);
    std::array<float, OV_MAX_CHIPS> more;
    for (int32_t k = 1 - map.spread; k <= map.spread; k++) {
        ov_chip_energies(bb, map.chip_len, map.frame_chips, start, f + k * map.bin_hz, drift, more.data());
        for (int32_t c = 0; c < map.frame_chips; c++) {
            if (out[c] >= 0) out[c] += more[static_cast<std::size_t>(c)];
        }
    }
    return measured;
}

void energies_to_soft(const float* energy, int32_t pairs, double noise, double scale, float* soft) {
    for (int32_t i = 0; i < pairs; i++) {
        const float first = energy[2 * i + 1];
        const float second = energy[2 * i + 2];
        const bool measured = !(first < 0) && !(second < 0);
        soft[i] = measured ? static_cast<float>((second - first) / noise * scale) : 0.0f;
    }
}

double ov_noise_at(const ov_specmap& map, double f) {
    const double column = std::round(f / map.bin_hz) + map.half;
    return map.noise[static_cast<std::size_t>(std::fmin(std::fmax(column, 0.0), map.nbins - 1))];
}

void try_hyp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift, int32_t min_chips,
             ov_hyp& best) {
    std::array<float, OV_MAX_CHIPS> energy;
    const int32_t n_in = ov_chip_energies_sp(bb, map, start, f, drift, energy.data());
    judge_hyp(map, {start, f, drift, energy.data(), n_in}, min_chips, best);
}

int ov_refine(const ov_baseband& bb, const ov_specmap& map, const ov_cand& cand, double drift_max, double edge,
              ov_hyp& out) {
    const int32_t min_chips = ov_chips_needed(edge, map.frame_chips);
    ov_hyp best{};
    best.metric = NO_METRIC;
    const auto judge = [&](const ov_measured& measured) { judge_hyp(map, measured, min_chips, best); };
    if (ov_search_around(bb, map, cand.pos * map.hop, cand.f, drift_max, best, std::ref(judge)) != 0) return -1;
    out = best;
    return 0;
}

int ov_search_around(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift_max,
                     ov_hyp& best, const std::function<void(const ov_measured&)>& judge) {
    try {
        HypothesisGrid grid(bb, map, judge);
        grid.measure(starts_around(start, coarse_start_steps(map.hop)), f, 4, map.bin_hz / 4, 0);
        if (!(best.metric > -1e299)) return -1;

        // Each stage searches around what the stage before it found, not around its own running best.
        if (drift_max > 0) {
            const DriftSteps steps = drift_steps(map, drift_max);
            grid.measure_drifts(best.start, {best.f, map.bin_hz / 4, 2, steps.unit, steps.n});
        }
        grid.measure(starts_around(best.start, fine_start_steps(map.hop)), best.f, 2, map.bin_hz / 16, best.drift);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int32_t ov_chips_needed(double edge, int32_t frame_chips) {
    const double needed = std::ceil((1 - edge) * frame_chips);
    if (std::isnan(needed)) return frame_chips;
    return static_cast<int32_t>(std::clamp(needed, 0.0, frame_chips + 1.0));  // more than there are: never enough
}

int ov_fit_shift(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, int32_t shift, double edge,
                 ov_hyp& out) {
    out = hyp;
    out.start = hyp.start + shift * map.chip_len;
    out.n_in = ov_chip_energies_sp(bb, map, out.start, out.f, out.drift, out.energy);
    if (out.n_in < ov_chips_needed(edge, map.frame_chips)) return -1;
    energies_to_soft(out.energy, map.pairs, out.noise, map.noise_rescale, out.soft);
    out.metric = layout_metric(map, out.soft);
    return 0;
}

double ov_estimate_snr(const ov_hyp& hyp, const uint8_t* on, double chip_s) {
    double on_mean = 0;
    double off_mean = 0;
    if (!mean_energy(hyp, on, true, on_mean) || !mean_energy(hyp, on, false, off_mean)) return NO_SNR;
    double ratio = (on_mean - off_mean) / off_mean;
    if (hyp.spread_factor > 0) ratio *= hyp.spread_factor;
    return snr_from_ratio(ratio, chip_s);
}

double ov_estimate_snr_bb(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, const uint8_t* on,
                          double chip_s) {
    if (map.spread != 0 || map.chip_len < MIN_SNR_CHIP_SAMPLES) return ov_estimate_snr(hyp, on, chip_s);
    double on_mean = 0;
    if (!mean_energy(hyp, on, true, on_mean)) return NO_SNR;

    std::vector<float> powers;
    try {
        powers = noise_powers(bb, map.chip_len, hyp, on);
    } catch (const std::bad_alloc&) {
        powers.clear();
    }
    if (powers.size() < MIN_SNR_SAMPLES) return ov_estimate_snr(hyp, on, chip_s);

    // The upper middle value for an even count, not the mean of two.
    const double noise = upper_median(powers) / 0.6931472;
    return snr_from_ratio((on_mean - noise) / noise, chip_s);
}
