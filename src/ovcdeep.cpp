// The 119 signs of a frame are 17 Walsh words of 7 pairs each. The correlations of a group with its eight words are
// shared by all known callsigns, so a callsign costs 17 look-ups and additions per cell instead of 119. Columns are
// processed a few at a time, so that the correlations that all callsigns choose from fit the first-level cache. Peaks
// are found while the map streams by: only three rows of Z are kept for each callsign.
#include "ovcdeep.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <new>
#include <numbers>
#include <optional>
#include <span>
#include <vector>

#include "ovcdec.h"
#include "robust.h"

namespace {

constexpr double SAME_FRAMES = 0.5;   // hits of one callsign this close in time
constexpr double SAME_CHIP_HZ = 3.0;  // and frequency (in 1/chip) are one

// Values of some neighbouring columns.
constexpr std::size_t LANES = 16;
using Lanes = std::array<float, LANES>;

// Correlation of each group with each word, for some columns.
constexpr std::size_t N_WORDS = OVC_WALSH.size();
using WordTable = std::array<Lanes, OVC_GROUPS * N_WORDS>;

// The indices of a frame's words in a table; nothing when its signs are not code words.
using Words = std::array<uint8_t, OVC_GROUPS>;
std::optional<Words> words_of(const ovc_known& known) {
    Words words;
    for (std::size_t g = 0; g < OVC_GROUPS; g++) {
        const auto fits = [&](const auto& word) {
            for (std::size_t j = 0; j < OVC_WORD_BITS; j++) {
                if (known.signs[g + OVC_GROUPS * j] != (word[j] != 0 ? 1 : -1)) return false;
            }
            return true;
        };
        const auto found = std::find_if(OVC_WALSH.begin(), OVC_WALSH.end(), fits);
        if (found == OVC_WALSH.end()) return std::nullopt;
        words[g] = static_cast<uint8_t>(g * N_WORDS + static_cast<std::size_t>(found - OVC_WALSH.begin()));
    }
    return words;
}

Lanes sum_words(const WordTable& table, const Words& words) {
    Lanes sums{};
    for (const uint8_t word : words) {
        for (std::size_t k = 0; k < LANES; k++) sums[k] += table[word][k];
    }
    return sums;
}

int32_t cmp_hit(const ovc_deep_hit& a, const ovc_deep_hit& b) {
    return (b.z > a.z) - (b.z < a.z);
}

// Strongest first; equal ones by callsign, position and column.
bool hit_before(const ovc_deep_hit& a, const ovc_deep_hit& b) {
    if (const int32_t order = cmp_hit(a, b); order != 0) return order < 0;
    if (a.known != b.known) return a.known < b.known;
    if (a.pos != b.pos) return a.pos < b.pos;
    return a.column < b.column;
}

// The Z of every known callsign for three neighbouring start rows, and the peaks among them.
class DeepSearch {
  public:
    DeepSearch(const ov_specmap& map, const ov_grid& grid, std::span<const ovc_known> known, double threshold)
        : map_(map),
          grid_(grid),
          known_(known),
          threshold_(threshold),
          groups_(map, grid, ov_group_rows::Keep::WORDS),
          z_(known.size() * N_KEPT * grid.n_columns, std::numeric_limits<float>::quiet_NaN()),
          highest_(known.size() * N_KEPT),
          squares_(grid.n_columns),
          scale_(grid.n_columns),
          difference_(grid.n_columns) {
        words_.reserve(known.size());
        for (const ovc_known& entry : known) words_.push_back(words_of(entry));
    }

    std::vector<ovc_deep_hit> hits() {
        for (int64_t i = 0; i < grid_.n_rows; i++) {
            form_row(i);
            if (i > 0) find_peaks(i - 1);
        }
        find_peaks(grid_.n_rows - 1);
        return std::move(hits_);
    }

  private:
    static constexpr int64_t N_KEPT = 3;

    std::size_t slot(std::size_t entry, int64_t i) const {
        return entry * N_KEPT + static_cast<std::size_t>(i % N_KEPT);
    }

    // Row i (from the grid's first) of a callsign, and the highest Z in it.
    std::span<float> row(std::size_t entry, int64_t i) {
        return std::span(z_).subspan(slot(entry, i) * grid_.n_columns, grid_.n_columns);
    }
    float& highest(std::size_t entry, int64_t i) { return highest_[slot(entry, i)]; }

    void form_row(int64_t i) {
        const int64_t t = grid_.first_row + i;
        groups_.advance(t);
        form_scale(t);
        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            highest(entry, i) = 0;
            if (!words_[entry]) sum_pairs(entry, i);
        }
        for (std::size_t first = 0; first < grid_.n_columns; first += LANES) sum_columns(i, first);
    }

    void form_scale(int64_t t) {
        std::fill(squares_.begin(), squares_.end(), 0.0);
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            const double* const squares = groups_.squares(t, g);
            for (std::size_t c = 0; c < squares_.size(); c++) squares_[c] += squares[c];
        }
        std::transform(squares_.begin(), squares_.end(), scale_.begin(),
                       [](double squares) { return squares > 0 ? static_cast<float>(1 / std::sqrt(squares)) : 0; });
    }

    // Z of row i for all callsigns with code words, in the columns from `first` on that a table holds.
    void sum_columns(int64_t i, std::size_t first) {
        const std::size_t width = std::min(LANES, grid_.n_columns - first);
        WordTable table;
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            for (std::size_t w = 0; w < N_WORDS; w++) {
                const float* const source = groups_.word(grid_.first_row + i, g, w) + first;
                Lanes& lanes = table[g * N_WORDS + w];
                std::fill(std::copy_n(source, width, lanes.begin()), lanes.end(), 0.0f);
            }
        }
        Lanes scale{};
        std::copy_n(scale_.begin() + static_cast<std::ptrdiff_t>(first), width, scale.begin());

        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            if (!words_[entry]) continue;
            Lanes z = sum_words(table, *words_[entry]);
            for (std::size_t k = 0; k < LANES; k++) z[k] *= scale[k];
            std::copy_n(z.begin(), width, row(entry, i).data() + first);
            note_highest(z, highest(entry, i));
        }
    }

    // Z of row i, pair by pair, for signs that are not code words.
    void sum_pairs(std::size_t entry, int64_t i) {
        const std::span<float> z = row(entry, i);
        std::ranges::fill(z, 0.0f);
        for (int64_t k = 0; k < OVC_PAIRS; k++) {
            ov_pair_difference(map_, grid_, grid_.first_row + i + (2 * k + 1) * map_.steps_per_chip,
                               difference_.data());
            const auto sign = static_cast<float>(known_[entry].signs[k]);
            for (std::size_t c = 0; c < z.size(); c++) z[c] += sign * difference_[c];
        }
        for (std::size_t c = 0; c < z.size(); c++) z[c] *= scale_[c];
        note_highest(z, highest(entry, i));
    }

    static void note_highest(std::span<const float> z, float& highest) {
        for (const float value : z) highest = value > highest ? value : highest;
    }

    // Cells of row i that reach the threshold and are not below a neighbour. Row i + 1 has been formed, if there is
    // one.
    void find_peaks(int64_t i) {
        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            if (!(highest(entry, i) >= threshold_)) continue;
            const auto rows = [&](int64_t r) { return row(entry, r); };
            const std::span<const float> z = row(entry, i);
            for (std::size_t c = 0; c < z.size(); c++) {
                if (z[c] >= threshold_ && is_peak(rows, grid_.n_rows, i, c)) add_hit(entry, i, c, z[c]);
            }
        }
    }

    void add_hit(std::size_t entry, int64_t i, std::size_t c, float z) {
        ovc_deep_hit hit;
        hit.known = static_cast<int32_t>(entry);
        hit.pos = static_cast<int32_t>(grid_.first_row + i);
        hit.column = static_cast<int32_t>(grid_.first_column + c);
        hit.t = map_.row_s(hit.pos);
        hit.f = map_.column_hz(hit.column);
        hit.z = z;
        hits_.push_back(hit);
    }

    const ov_specmap& map_;
    const ov_grid& grid_;
    std::span<const ovc_known> known_;
    double threshold_;
    ov_group_rows groups_;
    std::vector<std::optional<Words>> words_;
    std::vector<float> z_;
    std::vector<float> highest_;
    std::vector<double> squares_;  // Σ d² of the current row
    std::vector<float> scale_;     // and 1/sqrt of it
    std::vector<float> difference_;
    std::vector<ovc_deep_hit> hits_;
};

// Z of measured chip energies; pairs not wholly measured are left out.
double energy_z(const float* energy, const int8_t* signs) {
    double sum = 0;
    double squares = 0;
    for (int32_t k = 0; k < OVC_PAIRS; k++) {
        const float first = energy[2 * k + 1];
        const float second = energy[2 * k + 2];
        if (!(first >= 0 && second >= 0)) continue;
        const double difference = second - first;
        sum += signs[k] * difference;
        squares += difference * difference;
    }
    return squares > 0 ? sum / std::sqrt(squares) : 0;
}

// Replaces best by a measured hypothesis that has enough chips and a strictly higher Z.
void judge_deep(const ov_specmap& map, const ovc_known& known, const ov_measured& measured, int32_t min_chips,
                ov_hyp& best) {
    if (measured.n_in < min_chips) return;
    const double z = energy_z(measured.energy, known.signs);
    if (!(z > best.metric)) return;

    best = {};
    std::copy_n(measured.energy, map.frame_chips, best.energy);
    best.start = measured.start;
    best.f = measured.f;
    best.drift = measured.drift;
    best.metric = z;
    best.noise = ov_noise_at(map, measured.f);
    best.n_in = measured.n_in;
    best.noise_rescale = map.noise_rescale;
    best.spread_factor = map.spread_factor;
}

}  // namespace

double ovc_deep_threshold(double trials, double pfa) {
    const double p = (pfa > 0 ? pfa : 1e-6) / std::fmax(1.0, trials);
    double low = 0;
    double high = 40;
    for (int32_t i = 0; i < 100; i++) {
        const double middle = 0.5 * (low + high);
        if (0.5 * std::erfc(middle / std::numbers::sqrt2) > p) {
            low = middle;
        } else {
            high = middle;
        }
    }
    return 0.5 * (low + high);
}

int32_t ovc_deep_search(const ov_specmap* map, const ovc_known* known, int32_t n_known, double t_min, double t_max,
                        double search_hz, double guard, double pfa, int32_t max_hits, ovc_deep_hit* hits,
                        double* threshold) {
    if (n_known < 1) return 0;
    ov_grid grid;
    if (!ov_search_grid(*map, OVC_CHIPS, t_min, t_max, search_hz, guard, grid)) return 0;

    // About three independent positions per chip of time and as many per 1/chip of frequency.
    const double trials = (3.0 * static_cast<double>(grid.n_rows) / map->steps_per_chip + 1) *
                          (3.0 * static_cast<double>(grid.n_columns) * map->bin_hz * map->chip_s + 1) * n_known;
    const double least_z = ovc_deep_threshold(trials, pfa);
    if (threshold != nullptr) *threshold = least_z;

    try {
        std::vector<ovc_deep_hit> found =
            DeepSearch(*map, grid, {known, static_cast<std::size_t>(n_known)}, least_z).hits();
        std::sort(found.begin(), found.end(), hit_before);
        const double near_s = SAME_FRAMES * OVC_CHIPS * map->chip_s;
        const double near_hz = SAME_CHIP_HZ / map->chip_s;
        const auto same = [&](const ovc_deep_hit& a, const ovc_deep_hit& b) {
            return a.known == b.known && std::fabs(a.t - b.t) < near_s && std::fabs(a.f - b.f) < near_hz;
        };
        return thin_out<ovc_deep_hit>(found, {hits, static_cast<std::size_t>(std::max(max_hits, 0))}, same);
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

void try_deep(const ov_baseband& bb, const ov_specmap& map, const ovc_known& known, int32_t start, double f,
              double drift, int32_t min_chips, ov_hyp& best) {
    std::array<float, OV_MAX_CHIPS> energy;
    const int32_t n_in = ov_chip_energies_sp(bb, map, start, f, drift, energy.data());
    judge_deep(map, known, {start, f, drift, energy.data(), n_in}, min_chips, best);
}

int ovc_deep_refine(const ov_baseband& bb, const ov_specmap* map, const ovc_known* known, const ovc_deep_hit* hit,
                    double drift_range, double guard, ov_hyp& hyp) {
    const int32_t min_chips = ov_chips_needed(guard, OVC_CHIPS);
    ov_hyp best{};
    best.metric = OVC_NO_METRIC;
    const auto judge = [&](const ov_measured& measured) { judge_deep(*map, *known, measured, min_chips, best); };
    if (ov_search_around(bb, *map, hit->pos * map->hop, hit->f, drift_range, best, std::ref(judge)) != 0) return -1;
    energies_to_soft(best.energy, OVC_PAIRS, best.noise, map->noise_rescale, best.soft);
    hyp = best;
    return 0;
}
