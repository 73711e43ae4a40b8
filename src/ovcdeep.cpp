// The 119 signs of a frame are 17 Walsh words of 7 pairs each. The correlations of a group with its eight words are
// shared by all known callsigns, so a callsign costs 17 look-ups and additions per cell instead of 119. No callsign has
// more than the best word of each group: nine cells in ten of noise are below the threshold by that, and the others of
// a row are processed a few at a time, so that the correlations that all callsigns choose from fit the first-level
// cache. Peaks are found while the map streams by: of each callsign and row only the highest Z is kept, and where that
// reaches the threshold the row and its neighbours are computed again.
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

#include "multiversion.h"
#include "ovcdec.h"
#include "robust.h"

namespace {

constexpr double SAME_FRAMES = 0.5;   // hits of one callsign this close in time
constexpr double SAME_CHIP_HZ = 3.0;  // and frequency (in 1/chip) are one

// Some neighbouring columns: two vectors of them.
constexpr std::size_t LANES = 2 * FLOATS;
static_assert(ov_group_rows::PADDING % FLOATS == 0);

// Correlation of each group with each word, for some columns; the last row is zero.
constexpr std::size_t N_WORDS = OVC_WALSH.size();
constexpr std::size_t NO_WORD = OVC_GROUPS * N_WORDS;
using WordTable = std::array<std::array<float, LANES>, NO_WORD + 1>;

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

// Adds to the bounds of some columns what a group adds at most, with one of its words, whose correlations are rows at
// `stride`. Sums in any order are no greater, rounding included. What is NaN bounds nothing.
ORVEL_MULTIVERSION void raise_bounds(const float* rows, std::size_t stride, std::span<const uint8_t> words,
                                     std::span<float> bounds) {
    constexpr float ROUNDING = 1e-5F;  // far more than that of 17 terms
    for (std::size_t c = 0; c < bounds.size(); c += FLOATS) {
        Floats8 most = Floats8{} - std::numeric_limits<float>::infinity();
        Floats8 size{};
        for (const uint8_t word : words) {
            Floats8 part;
            load(part, rows + word * stride + c);
            const Floats8 part_size = part < 0 ? -part : part;
            most = part > most ? part : most;
            size = part_size > size ? part_size : size;
        }
        Floats8 bound;
        load(bound, &bounds[c]);
        bound += most + ROUNDING * size;
        store(bound, &bounds[c]);
    }
}

// The highest Z of each callsign so far, in every eighth of the columns in question: FLOATS for each callsign.
ORVEL_MULTIVERSION void raise_highest(const WordTable& table, const std::array<float, LANES>& scale, const Words* words,
                                      std::size_t n, float* highest) {
    Floats8 scale_low;
    Floats8 scale_high;
    load(scale_low, scale.data());
    load(scale_high, scale.data() + FLOATS);
    for (std::size_t entry = 0; entry < n; entry++) {
        Floats8 low{};
        Floats8 high{};
        for (const uint8_t word : words[entry]) {
            Floats8 part;
            load(part, table[word].data());
            low += part;
            load(part, table[word].data() + FLOATS);
            high += part;
        }
        low *= scale_low;
        high *= scale_high;
        Floats8 most;
        load(most, highest + entry * FLOATS);
        most = low > most ? low : most;  // unchanged where it is NaN
        most = high > most ? high : most;
        store(most, highest + entry * FLOATS);
    }
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

// The Z of every known callsign, row by row, and the peaks among them.
class DeepSearch {
  public:
    DeepSearch(const ov_specmap& map, const ov_grid& grid, std::span<const ovc_known> known, double threshold)
        : map_(map),
          grid_(grid),
          known_(known),
          threshold_(threshold),
          groups_(map, grid, ov_group_rows::Keep::WORDS),
          words_(known.size()),
          is_coded_(known.size()),
          highest_(known.size() * FLOATS),
          promising_(known.size()),
          squares_(grid.n_columns),
          bounds_(groups_.word_stride()),
          scales_(N_KEPT * grid.n_columns),
          z_(N_KEPT * grid.n_columns),
          difference_(grid.n_columns) {
        columns_.reserve(grid.n_columns);
        for (std::size_t entry = 0; entry < known.size(); entry++) {
            const std::optional<Words> words = words_of(known[entry]);
            is_coded_[entry] = words.has_value();
            if (words) {
                words_[entry] = *words;
                note_used(*words);
            } else {
                words_[entry].fill(NO_WORD);
            }
        }
    }

    std::vector<ovc_deep_hit> hits() {
        for (int64_t i = 0; i < grid_.n_rows; i++) {
            form_row(i);
            if (i > 0) find_peaks(i - 1);
            note_promising();
        }
        find_peaks(grid_.n_rows - 1);
        return std::move(hits_);
    }

  private:
    static constexpr int64_t N_KEPT = 3;

    void note_used(const Words& words) {
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            const auto word = static_cast<uint8_t>(words[g] % N_WORDS);
            if (std::ranges::find(used_words_[g], word) == used_words_[g].end()) used_words_[g].push_back(word);
        }
    }

    // Of row i (from the grid's first), while the rows that it needs are kept.
    std::span<float> kept(std::vector<float>& rows, int64_t i) const {
        return std::span(rows).subspan(static_cast<std::size_t>(i % N_KEPT) * grid_.n_columns, grid_.n_columns);
    }

    // The highest Z of row i.
    void form_row(int64_t i) {
        groups_.advance(grid_.first_row + i);
        form_scale(i);
        std::ranges::fill(highest_, 0.0f);
        find_columns(i);
        for (std::size_t first = 0; first < columns_.size(); first += LANES) {
            const std::span<const std::size_t> rest = std::span(columns_).subspan(first);
            sum_columns(i, rest.first(std::min(LANES, rest.size())));
        }
        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            if (is_coded_[entry]) continue;
            for (const float z : row_of(entry, i)) highest_[entry * FLOATS] = std::fmax(highest_[entry * FLOATS], z);
        }
    }

    void form_scale(int64_t i) {
        std::fill(squares_.begin(), squares_.end(), 0.0);
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            const double* const squares = groups_.squares(grid_.first_row + i, g);
            for (std::size_t c = 0; c < squares_.size(); c++) squares_[c] += squares[c];
        }
        std::transform(squares_.begin(), squares_.end(), kept(scales_, i).begin(),
                       [](double squares) { return squares > 0 ? static_cast<float>(1 / std::sqrt(squares)) : 0; });
    }

    // The columns of row i in which a callsign with code words may reach the threshold.
    void find_columns(int64_t i) {
        const auto least = static_cast<float>(threshold_ * (1 - 1e-5));
        std::ranges::fill(bounds_, 0.0f);
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            raise_bounds(groups_.word(grid_.first_row + i, g, 0), groups_.word_stride(), used_words_[g], bounds_);
        }
        const std::span<const float> scale = kept(scales_, i);
        columns_.clear();
        if (used_words_[0].empty()) return;
        for (std::size_t c = 0; c < scale.size(); c++) {
            if (!(bounds_[c] * scale[c] < least)) columns_.push_back(c);
        }
    }

    // Some columns of row i for all callsigns with code words.
    void sum_columns(int64_t i, std::span<const std::size_t> columns) {
        WordTable table{};
        std::array<float, LANES> scale{};
        for (std::size_t g = 0; g < OVC_GROUPS; g++) {
            for (std::size_t w = 0; w < N_WORDS; w++) {
                const float* const word = groups_.word(grid_.first_row + i, g, w);
                for (std::size_t k = 0; k < columns.size(); k++) table[g * N_WORDS + w][k] = word[columns[k]];
            }
        }
        for (std::size_t k = 0; k < columns.size(); k++) scale[k] = kept(scales_, i)[columns[k]];
        raise_highest(table, scale, words_.data(), words_.size(), highest_.data());
    }

    // Z of row i of a callsign: i is the row formed last, or one of the two before it.
    std::span<const float> row_of(std::size_t entry, int64_t i) {
        const std::span<float> z = kept(z_, i);
        std::ranges::fill(z, 0.0f);
        if (is_coded_[entry]) {
            for (std::size_t g = 0; g < OVC_GROUPS; g++) {
                const float* const word = groups_.word(grid_.first_row + i, g, words_[entry][g] % N_WORDS);
                for (std::size_t c = 0; c < z.size(); c++) z[c] += word[c];
            }
        } else {
            sum_pairs(entry, i, z);
        }
        const std::span<const float> scale = kept(scales_, i);
        for (std::size_t c = 0; c < z.size(); c++) z[c] *= scale[c];
        return z;
    }

    // Pair by pair, for signs that are not code words.
    void sum_pairs(std::size_t entry, int64_t i, std::span<float> z) {
        for (int64_t k = 0; k < OVC_PAIRS; k++) {
            ov_pair_difference(map_, grid_, grid_.first_row + i + (2 * k + 1) * map_.steps_per_chip,
                               difference_.data());
            const auto sign = static_cast<float>(known_[entry].signs[k]);
            for (std::size_t c = 0; c < z.size(); c++) z[c] += sign * difference_[c];
        }
    }

    // Which callsigns reach the threshold in the row formed last.
    void note_promising() {
        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            const auto highest = std::span(highest_).subspan(entry * FLOATS, FLOATS);
            promising_[entry] = std::ranges::any_of(highest, [&](float z) { return z >= threshold_; });
        }
    }

    // Cells of row i that reach the threshold and are not below a neighbour. Row i + 1 has been formed, if there is
    // one.
    void find_peaks(int64_t i) {
        for (std::size_t entry = 0; entry < known_.size(); entry++) {
            if (!promising_[entry]) continue;
            for (int64_t r = std::max<int64_t>(i - 1, 0); r <= std::min(i + 1, grid_.n_rows - 1); r++) row_of(entry, r);
            const auto rows = [&](int64_t r) { return kept(z_, r); };
            const std::span<const float> z = kept(z_, i);
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
    std::vector<Words> words_;
    std::array<std::vector<uint8_t>, OVC_GROUPS> used_words_;  // of each group by any callsign
    std::vector<char> is_coded_;                               // whether a callsign's signs are code words
    std::vector<float> highest_;                               // Z of the row formed last: FLOATS for each callsign
    std::vector<char> promising_;  // callsigns that reach the threshold in the row before it
    std::vector<double> squares_;  // Σ d² of the current row
    std::vector<float> bounds_;    // that no callsign's sums exceed there
    std::vector<std::size_t> columns_;
    std::vector<float> scales_;  // and 1/sqrt of it, of three rows
    std::vector<float> z_;       // three rows of one callsign
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
