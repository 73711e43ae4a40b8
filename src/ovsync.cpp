// Each row of the score map is a short-time power spectrum, and the noise of every column is normalised to 1. A frame
// shows in it as a pattern of ON and OFF chips.
#include "ovsync.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "bigpages.h"
#include "multiversion.h"
#include "ovfft.h"
#include "robust.h"

namespace {

using Complex = std::complex<double>;

constexpr int32_t STEPS_PER_CHIP = 16;
constexpr int32_t MIN_CHIP_SAMPLES = 4;
constexpr int32_t MAX_CHIP_SAMPLES = 1 << 28;  // transform lengths stay within 32 bits
constexpr int32_t MAX_NOISE_ROWS = 4000;

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
    uint32_t margin;
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

// A row that is still to be filled.
std::span<float> open_row(const ov_specmap& map, int64_t r) {
    return {map.power + r * map.nbins, map.row(r).size()};
}

// One row: sums over neighbouring powers, over as many as leave one sum per column. The running sum is in double; each
// step is computed in single precision.
void sum_spread(std::span<const float> powers, std::span<float> row) {
    const std::size_t width = powers.size() - row.size() + 1;
    double sum = 0;
    for (std::size_t k = 0; k < width; k++) sum += powers[k];
    for (std::size_t b = 0; b < row.size(); b++) {
        row[b] = static_cast<float>(sum);
        if (b + width < powers.size()) sum += powers[b + width] - powers[b];
    }
}

// |X|² of some bins.
ORVEL_MULTIVERSION void powers_of(const Complex* bins, std::size_t n, float* out) {
    const auto* const parts = reinterpret_cast<const double*>(bins);
    for (std::size_t k = 0; k < n; k++) {
        out[k] = static_cast<float>(parts[2 * k] * parts[2 * k] + parts[2 * k + 1] * parts[2 * k + 1]);
    }
}

bool fill_powers(const ov_baseband& bb, const ov_specmap& map) {
    const auto window = fftw_array<Complex>(map.nfft);
    const auto bins = fftw_array<Complex>(map.nfft);
    if (!window || !bins) return false;
    const int32_t reach = map.spread + map.half;  // bins each side that are needed
    std::vector<float> powers(2 * static_cast<std::size_t>(reach) + 1);
    const FftwPlan plan = plan_complex(map.nfft, window.get(), bins.get(), FFTW_FORWARD);
    if (!plan) return false;

    std::fill_n(window.get(), map.nfft, Complex{});
    const auto below = static_cast<std::size_t>(reach);  // bins below the middle one, which come last
    for (int64_t p = 0; p < map.npos; p++) {
        std::copy_n(bb.samples + p * map.hop, map.chip_len, window.get());
        fftw_execute(plan.get());
        const std::span<float> row = open_row(map, p);
        float* const out = map.spread == 0 ? row.data() : powers.data();
        powers_of(bins.get() + map.nfft - reach, below, out);
        powers_of(bins.get(), below + 1, out + below);
        if (map.spread != 0) sum_spread(powers, row);
    }
    return true;
}

// Noise of each column by itself: the mean of its powers, estimated from their median.
std::vector<float> noise_levels(const ov_specmap& map) {
    constexpr std::size_t BLOCK = 16;  // columns gathered at once: one cache line of a row
    const std::size_t columns = map.row(0).size();
    const int64_t n_rows = std::min(map.npos, MAX_NOISE_ROWS);
    const auto stride = static_cast<std::size_t>(n_rows);
    std::vector<const float*> rows(stride);
    for (int64_t i = 0; i < n_rows; i++) {
        rows[static_cast<std::size_t>(i)] = map.row(n_rows > 1 ? i * (map.npos - 1) / (n_rows - 1) : 0).data();
    }
    std::vector<float> samples(BLOCK * stride);
    std::vector<float> levels(columns);
    for (std::size_t next = 0; next < columns; next += BLOCK) {
        const std::size_t first = columns < BLOCK ? 0 : std::min(next, columns - BLOCK);  // the last ones overlap
        const std::size_t width = std::min(BLOCK, columns);
        float* sample = samples.data();
        for (const float* const row : rows) {
            const float* const source = row + first;
            if (width == BLOCK) {
                for (std::size_t c = 0; c < BLOCK; c++) sample[c * stride] = source[c];
            } else {
                for (std::size_t c = 0; c < width; c++) sample[c * stride] = source[c];
            }
            sample++;
        }
        for (std::size_t c = next - first; c < width; c++) {
            levels[first + c] = median_value(std::span(samples).subspan(c * stride, stride)) / LN2_F32;
        }
    }
    return levels;
}

// The noise of a column is the median of the levels of its neighbourhood.
void fill_noise(const ov_specmap& map) {
    const std::vector<float> levels = noise_levels(map);
    const std::size_t margin = resolution(map.chip_len).margin;
    for (std::size_t b = 0; b < levels.size(); b++) {
        const std::size_t first = b > margin ? b - margin : 0;
        const std::size_t last = std::min(b + margin, levels.size() - 1);
        const float level = median_value(std::span(levels).subspan(first, last - first + 1));
        map.noise[b] = level > 0 ? level : NOISE_FLOOR;
    }
}

ORVEL_MULTIVERSION void divide(float* values, const float* by, std::size_t n) {
    for (std::size_t i = 0; i < n; i++) values[i] /= by[i];
}

void normalise(const ov_specmap& map) {
    for (int64_t p = 0; p < map.npos; p++) {
        const std::span<float> row = open_row(map, p);
        divide(row.data(), map.noise, row.size());
        if (map.spread == 0) continue;
        for (float& power : row) power = static_cast<float>((power - 1.0) * map.noise_rescale + 1.0);
    }
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
    ov_spec_frame(map, ov_protocol_by_id(OVL_OPERA)->pairs, 0);

    try {
        const auto columns = static_cast<std::size_t>(map.nbins);
        const auto rows = static_cast<std::size_t>(map.npos);
        auto power = big_array<float>(rows * columns);
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
