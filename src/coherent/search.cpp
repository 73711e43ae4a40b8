#include "coherent/search.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "multiversion.h"
#include "ovfft.h"
#include "robust.h"

namespace coherent {
namespace {

using Complex = std::complex<double>;

constexpr int32_t ROWS_PER_CHIP = 4;
constexpr int32_t PADDING = 2;  // of a segment: columns are half of its width apart
constexpr double SAME_HZ = 0.6;
constexpr double SAME_CHIPS = 24;
constexpr std::size_t SAMPLED = 100'000;  // scores of which the median is taken

// |second − first|² of chip pairs at any row: frequencies `column_hz` apart, from −half upward.
struct PairMap {
    int32_t rows, columns;
    double column_hz;
    std::vector<float> power;
};

std::optional<PairMap> pair_map(const Whitened& block, double half_width) {
    const int32_t chip = block.chip_len;
    const int32_t hop = chip / ROWS_PER_CHIP;
    const int32_t length = 4 * chip;
    const auto buffer = fftw_array<Complex>(length);
    if (!buffer) return std::nullopt;
    const FftwPlan plan = plan_complex(length, buffer.get(), buffer.get(), FFTW_FORWARD);
    if (!plan) return std::nullopt;
    const double column_hz = block.rate / length;
    const auto half = static_cast<int32_t>(std::min(std::ceil(half_width / column_hz), length / 2.0 - 1));
    PairMap map{(static_cast<int32_t>(block.samples.size()) - 2 * chip) / hop + 1, 2 * half + 1, column_hz, {}};
    map.power.resize(static_cast<std::size_t>(map.rows) * static_cast<std::size_t>(map.columns));

    // A pair's difference is one transform: the samples of its first chip negated.
    for (int32_t row = 0; row < map.rows; row++) {
        const auto x = std::span(block.samples).subspan(static_cast<std::size_t>(row * hop));
        for (int32_t i = 0; i < chip; i++)
            buffer[static_cast<std::size_t>(i)] = -Complex(x[static_cast<std::size_t>(i)]);
        for (int32_t i = chip; i < 2 * chip; i++)
            buffer[static_cast<std::size_t>(i)] = Complex(x[static_cast<std::size_t>(i)]);
        std::fill(buffer.get() + 2 * chip, buffer.get() + length, Complex{});
        fftw_execute(plan.get());
        float* const out = &map.power[static_cast<std::size_t>(row) * static_cast<std::size_t>(map.columns)];
        for (int32_t c = 0; c < map.columns; c++) {
            const int32_t bin = c < half ? c - half + length : c - half;
            out[c] = static_cast<float>(std::norm(buffer[static_cast<std::size_t>(bin)]) / (4.0 * chip));
        }
    }
    return map;
}

ORVEL_MULTIVERSION void add_row(const float* from, std::size_t n, float* to) {
    for (std::size_t i = 0; i < n; i++) to[i] += from[i];
}

ORVEL_MULTIVERSION void keep_best(const float* sums, std::size_t n, float drift_index, float* best, float* which) {
    for (std::size_t i = 0; i < n; i++) {
        const bool better = sums[i] > best[i];
        best[i] = better ? sums[i] : best[i];
        which[i] = better ? drift_index : which[i];
    }
}

}  // namespace

bool is_near(const Place& a, const Place& b, double chip_s) {
    return std::fabs(a.f - b.f) < SAME_HZ && std::fabs(a.start_s - b.start_s) < SAME_CHIPS * chip_s;
}

std::optional<SegmentMap> segment_map(const Whitened& block, int32_t pairs, double half_width) {
    const int32_t chip = block.chip_len;
    const int32_t hop = chip / ROWS_PER_CHIP;
    const int32_t window = 2 * pairs * chip;
    const int32_t length = PADDING * window;
    const auto n = static_cast<int32_t>(block.samples.size());
    if (n < window) return std::nullopt;
    const auto differences = pair_map(block, half_width);
    if (!differences) return std::nullopt;
    const auto buffer = fftw_array<Complex>(length);
    if (!buffer) return std::nullopt;
    const FftwPlan plan = plan_complex(length, buffer.get(), buffer.get(), FFTW_FORWARD);
    if (!plan) return std::nullopt;

    const double column_hz = block.rate / length;
    const auto half = static_cast<int32_t>(std::min(std::ceil(half_width / column_hz), length / 2.0 - 1));
    SegmentMap map{pairs, hop, (n - window) / hop + 1, 2 * half + 1, column_hz, {}};
    map.power.resize(static_cast<std::size_t>(map.rows) * static_cast<std::size_t>(map.columns));

    std::vector<int32_t> nearest(static_cast<std::size_t>(map.columns));
    for (int32_t c = 0; c < map.columns; c++) {
        const auto at = static_cast<int32_t>(std::lround((c - half) * column_hz / differences->column_hz)) +
                        differences->columns / 2;
        nearest[static_cast<std::size_t>(c)] = std::clamp(at, 0, differences->columns - 1);
    }
    const auto width = static_cast<std::size_t>(differences->columns);
    std::vector<float> sum(width);
    for (int32_t row = 0; row < map.rows; row++) {
        const auto x = std::span(block.samples).subspan(static_cast<std::size_t>(row * hop));
        for (int32_t i = 0; i < window; i++)
            buffer[static_cast<std::size_t>(i)] = Complex(x[static_cast<std::size_t>(i)]);
        std::fill(buffer.get() + window, buffer.get() + length, Complex{});
        fftw_execute(plan.get());
        std::fill(sum.begin(), sum.end(), 0.0f);
        for (int32_t k = 0; k < pairs; k++) {
            const auto pair_row = static_cast<std::size_t>(row + 2 * k * ROWS_PER_CHIP);
            add_row(&differences->power[pair_row * width], width, sum.data());
        }
        float* const out = &map.power[static_cast<std::size_t>(row) * static_cast<std::size_t>(map.columns)];
        for (int32_t c = 0; c < map.columns; c++) {
            const int32_t bin = c < half ? c - half + length : c - half;
            out[c] = static_cast<float>(std::norm(buffer[static_cast<std::size_t>(bin)]) / (4.0 * chip)) +
                     sum[static_cast<std::size_t>(nearest[static_cast<std::size_t>(c)])];
        }
    }
    return map;
}

std::vector<Place> find_places(const Whitened& block, const SegmentMap& map, int32_t frame_pairs,
                               const SearchRange& range, std::size_t most, double least_z) {
    const double row_s = map.hop / block.rate;
    const double chip_s = ROWS_PER_CHIP * row_s;
    const double frame_s = (2 * frame_pairs + 1) * chip_s;
    const double block_s = static_cast<double>(block.samples.size()) / block.rate;

    // Segments of a frame: the last one ends with it.
    std::vector<int32_t> segment_rows;
    std::vector<double> from_middle_s;
    for (int32_t first = 0; first < frame_pairs; first += map.pairs) {
        const int32_t at = std::min(first, frame_pairs - map.pairs);
        segment_rows.push_back((1 + 2 * at) * ROWS_PER_CHIP);
        from_middle_s.push_back((1 + 2 * at + map.pairs) * chip_s - frame_s / 2);
    }
    const double first_s = std::max(range.start_first, -range.guard * frame_s);
    const double last_s = std::min(range.start_last, block_s - (1 - range.guard) * frame_s);
    if (!(last_s >= first_s)) return {};  // also bounds both: neither lies further out than the guard
    const auto first_row = static_cast<int32_t>(std::ceil(first_s / row_s));
    const auto last_row = static_cast<int32_t>(std::floor(last_s / row_s));
    if (last_row < first_row) return {};
    constexpr int32_t START_STEP = ROWS_PER_CHIP / 2;

    // Drifts: neighbours differ by two columns between the ends of a frame.
    const double drift_step = 2 * map.column_hz / frame_s;
    const auto drifts = static_cast<int32_t>(std::lround(range.drift / drift_step));
    const auto searched = static_cast<int32_t>(range.half_width / map.column_hz);
    const int32_t half = map.columns / 2;
    const auto n_columns = static_cast<std::size_t>(2 * searched + 1);
    const auto n_rows = static_cast<std::size_t>((last_row - first_row) / START_STEP + 1);

    // Each segment has mean and variance of these in noise.
    const double segment_mean = map.pairs;
    const double segment_sigma = std::sqrt(map.pairs * map.pairs / 4.0 + map.pairs / 4.0);

    std::vector<float> best(n_rows * n_columns, -INFINITY);
    std::vector<float> which(n_rows * n_columns, 0);
    std::vector<float> sums(n_columns);
    for (std::size_t r = 0; r < n_rows; r++) {
        const int32_t row = first_row + static_cast<int32_t>(r) * START_STEP;
        const std::size_t at = r * n_columns;
        for (int32_t d = -drifts; d <= drifts; d++) {
            std::fill(sums.begin(), sums.end(), 0.0f);
            int32_t count = 0;
            for (std::size_t s = 0; s < segment_rows.size(); s++) {
                const int32_t map_row = row + segment_rows[s];
                if (map_row < 0 || map_row >= map.rows) continue;
                const auto shift = static_cast<int32_t>(std::lround(d * drift_step * from_middle_s[s] / map.column_hz));
                const int32_t first = std::clamp(half - searched + shift, 0, map.columns - 2 * searched - 1);
                add_row(map.row(map_row).data() + first, n_columns, sums.data());
                count++;
            }
            if (count == 0) continue;
            const auto mean = static_cast<float>(count * segment_mean);
            const auto scale = static_cast<float>(1 / (std::sqrt(static_cast<double>(count)) * segment_sigma));
            for (float& sum : sums) sum = (sum - mean) * scale;
            keep_best(sums.data(), n_columns, static_cast<float>(d), &best[at], &which[at]);
        }
    }

    const std::size_t stride = std::max<std::size_t>(1, best.size() / SAMPLED) | 1;
    std::vector<float> sample;
    for (std::size_t i = 0; i < best.size(); i += stride) sample.push_back(best[i]);
    const RobustStatistics noise = robust_statistics(sample, upper_median);

    const auto rows = [&](int64_t r) {
        return std::span<const float>(best).subspan(static_cast<std::size_t>(r) * n_columns, n_columns);
    };
    std::vector<Place> peaks;
    for (std::size_t r = 0; r < n_rows; r++) {
        for (std::size_t c = 0; c < n_columns; c++) {
            const double z = (best[r * n_columns + c] - noise.median) / noise.sigma;
            if (!(z >= least_z) || !is_peak(rows, static_cast<int64_t>(n_rows), static_cast<int64_t>(r), c)) continue;
            peaks.push_back({(first_row + static_cast<double>(r) * START_STEP) * row_s,
                             (static_cast<double>(c) - searched) * map.column_hz, which[r * n_columns + c] * drift_step,
                             z});
        }
    }
    std::stable_sort(peaks.begin(), peaks.end(), [](const Place& a, const Place& b) { return a.z > b.z; });
    std::vector<Place> places(std::min(most, peaks.size()));
    const auto near = [&](const Place& a, const Place& b) { return is_near(a, b, chip_s); };
    places.resize(static_cast<std::size_t>(thin_out(std::span<const Place>(peaks), std::span<Place>(places), near)));
    return places;
}

}  // namespace coherent
