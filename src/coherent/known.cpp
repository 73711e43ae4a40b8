#include "coherent/known.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "multiversion.h"
#include "robust.h"

namespace coherent {
namespace {

constexpr std::size_t PLACES = 500;
constexpr double LEAST_PLACE_Z = 1;
constexpr double LEAST_Z = 6;  // of a frame's sum, which is compared with its mean and deviation in noise
constexpr std::size_t REFINED = 400;
constexpr std::size_t MEASURED = 20;  // frames that are measured
constexpr std::size_t REACH = 20;     // chips
constexpr std::size_t STEPS = 4;      // starts in a chip
constexpr std::size_t STARTS = 2 * REACH * STEPS + 1;
constexpr std::size_t LANES = (STARTS + FLOATS - 1) / FLOATS * FLOATS;  // sums for that many starts at once
constexpr std::size_t QUARTER = 4;  // pairs whose sums are tabulated for every pattern
constexpr std::size_t PATTERNS = 1 << QUARTER;
constexpr std::size_t SEGMENT = 2 * QUARTER;
constexpr std::size_t quarters_in(std::size_t pairs) {
    return (pairs + QUARTER - 1) / QUARTER;
}
constexpr std::size_t MAX_QUARTERS = quarters_in(OV_MAX_PAIRS);
static_assert(std::ranges::all_of(OV_PROTOCOLS, [](const ov_protocol& protocol) {
    return quarters_in(static_cast<std::size_t>(protocol.pairs)) % 2 == 0;  // frame_sums() takes them by two
}));
constexpr std::size_t PAIR = 2 * STEPS;  // positions from pair to pair
constexpr std::size_t TABULATED = PAIR * QUARTER * MAX_QUARTERS + LANES;

// The chips at all positions around a place, mixed down to one frequency. Those of the frame that starts at position p
// are p, p + 4, p + 8 …
struct Positions {
    std::array<float, TABULATED + PAIR * QUARTER> re{}, im{}, weight{};
};

void measure(const Strip& strip, const Hypothesis& first, std::span<ChipSum> chips, Positions& out) {
    const double chip_s = strip.chip_seconds();
    for (std::size_t step = 0; step < STEPS; step++) {
        Hypothesis here = first;
        here.start_s += static_cast<double>(step) * chip_s / STEPS;
        here.f += first.drift * (here.start_s - first.start_s);
        strip.measure(here, chips);
        for (std::size_t k = 0; k < chips.size(); k++) {
            out.re[k * STEPS + step] = chips[k].value.real();
            out.im[k * STEPS + step] = chips[k].value.imag();
            out.weight[k * STEPS + step] = chips[k].weight;
        }
    }
}

// The sums of the ON chips of four pairs for every pattern of them, from every position on; those of the fewer pairs
// that end a frame, for every start.
struct PatternSums {
    std::array<std::array<float, TABULATED>, PATTERNS> sums;
    std::array<std::array<float, LANES>, PATTERNS> last;
};

// The sums over the first n pairs from each of some positions on.
template <std::size_t N>
[[gnu::always_inline]] inline void tabulate(const float* chips, std::size_t n,
                                            std::array<std::array<float, N>, PATTERNS>& sums, std::size_t positions) {
    std::fill_n(sums[0].data(), positions, 0.0f);
    for (std::size_t j = 0; j < n; j++) {
        for (std::size_t p = 0; p < positions; p++) sums[0][p] += chips[p + j * PAIR];
    }
    for (std::size_t j = 0; j < n; j++) {
        const float* const first = chips + j * PAIR;
        const float* const second = first + STEPS;
        const std::size_t half = std::size_t{1} << j;
        for (std::size_t i = 0; i < half; i++) {
            for (std::size_t p = 0; p < positions; p++) sums[half + i][p] = sums[i][p] + (second[p] - first[p]);
        }
    }
}

ORVEL_MULTIVERSION void tabulate(const float* chips, std::size_t pairs, PatternSums& out) {
    const float* const first_pair = chips + STEPS;
    const std::size_t whole = pairs / QUARTER;
    tabulate(first_pair, QUARTER, out.sums, whole * QUARTER * PAIR + LANES);
    tabulate(first_pair + whole * QUARTER * PAIR, pairs % QUARTER, out.last, LANES);
}

using Quarters = std::array<uint8_t, MAX_QUARTERS + 1>;

Quarters quarters_of(const Word& word, std::size_t pairs) {
    Quarters out{};
    for (std::size_t k = 0; k < pairs; k++) {
        if (bit_of(word, k)) out[k / QUARTER] = static_cast<uint8_t>(out[k / QUARTER] | 1U << (k % QUARTER));
    }
    return out;
}

// Σ |coherent sum over eight pairs|² of a word, for every start.
ORVEL_MULTIVERSION void frame_sums(const PatternSums& re, const PatternSums& im, const uint8_t* word, std::size_t pairs,
                                   float* out) {
    const std::size_t whole = pairs / QUARTER;
    const auto sums_of = [&](const PatternSums& table, std::size_t quarter) {
        return quarter < whole ? table.sums[word[quarter]].data() + quarter * QUARTER * PAIR
                               : table.last[word[quarter]].data();
    };
    std::fill_n(out, LANES, 0.0f);
    for (std::size_t q = 0; q * QUARTER < pairs; q += 2) {
        const float* const a_re = sums_of(re, q);
        const float* const a_im = sums_of(im, q);
        const float* const b_re = sums_of(re, q + 1);
        const float* const b_im = sums_of(im, q + 1);
        for (std::size_t i = 0; i < LANES; i++) {
            const float sum_re = a_re[i] + b_re[i];
            const float sum_im = a_im[i] + b_im[i];
            out[i] += sum_re * sum_re + sum_im * sum_im;
        }
    }
}

// Mean and deviation of the sums of a start in noise, where each segment has those of its weights.
struct NoiseSums {
    std::array<float, LANES> mean{};
    std::array<float, LANES> scale{};  // 1/deviation; 0 where nothing was measured
};

NoiseSums noise_sums(const Positions& chips, std::size_t pairs) {
    NoiseSums noise;
    for (std::size_t start = 0; start < STARTS; start++) {
        double mean = 0;
        double variance = 0;
        for (std::size_t first = 0; first < pairs; first += SEGMENT) {
            double weight = 0;
            for (std::size_t k = first; k < std::min(first + SEGMENT, pairs); k++) {
                const float* const pair = &chips.weight[start + STEPS + k * PAIR];
                weight += 0.5 * (static_cast<double>(pair[0]) + pair[STEPS]);
            }
            mean += weight;
            variance += weight * weight;
        }
        noise.mean[start] = static_cast<float>(mean);
        noise.scale[start] = variance > 0 ? static_cast<float>(1 / std::sqrt(variance)) : 0.0f;
    }
    return noise;
}

// The start whose sum stands out most.
struct BestStart {
    std::size_t start;
    float z;
};

BestStart best_start(const std::array<float, LANES>& sums, const NoiseSums& noise) {
    std::array<float, LANES> z;
    for (std::size_t i = 0; i < LANES; i++) z[i] = (sums[i] - noise.mean[i]) * noise.scale[i];
    const auto best = std::max_element(z.begin(), z.begin() + STARTS);
    return {static_cast<std::size_t>(best - z.begin()), *best};
}

struct Hit {
    std::size_t word;
    Hypothesis at;
    double z;
};

// The sums over `segment` pairs in sigma above their mean in noise.
double segment_z(std::span<const ChipSum> chips, const Word& word, std::size_t segment) {
    const std::size_t pairs = chips.size() / 2;
    double total = 0;
    double variance = 0;
    for (std::size_t first = 0; first < pairs; first += segment) {
        std::complex<float> sum = 0;
        float weight = 0;
        for (std::size_t k = first; k < std::min(first + segment, pairs); k++) {
            const ChipSum& chip = chips[(bit_of(word, k) ? 2 : 1) + 2 * k];
            sum += chip.value;
            weight += chip.weight;
        }
        total += static_cast<double>(std::norm(sum) - weight);
        variance += static_cast<double>(weight) * static_cast<double>(weight);
    }
    return variance > 0 ? total / std::sqrt(variance) : 0;
}

// The best place around a hit by the sums over sixteen pairs, which noise deceives less.
Hit refine(const Whitened& block, const Hit& hit, const Word& word, std::span<ChipSum> chips) {
    const double chip_s = block.chip_len / block.rate;
    const double frame_s = static_cast<double>(chips.size()) * chip_s;
    const double width_hz = 1 / (4 * SEGMENT * chip_s);
    const Strip strip(block, hit.at, static_cast<int32_t>(chips.size()), 2);
    Hit best{hit.word, hit.at, 0};
    for (const double later : {-0.125, 0.0, 0.125}) {
        for (int32_t i = -3; i <= 3; i++) {
            for (int32_t j = -2; j <= 2; j++) {
                const Hypothesis here{hit.at.start_s + later * chip_s, hit.at.f + 0.25 * i * width_hz,
                                      hit.at.drift + 0.5 * j * width_hz / frame_s};
                strip.measure(here, chips);
                const double z = segment_z(chips, word, 2 * SEGMENT);
                if (z > best.z) best = {hit.word, here, z};
            }
        }
    }
    return best;
}

// The words in a block, place by place.
class KnownSearch {
  public:
    KnownSearch(const Whitened& block, std::span<const KnownWord> words)
        : block_(block),
          pairs_(static_cast<std::size_t>(words[0].code->length)),
          chips_(2 * pairs_ + 1 + 2 * REACH),
          sums_(std::make_unique<Sums>()) {
        patterns_.reserve(words.size());
        for (const KnownWord& known : words) patterns_.push_back(quarters_of(known.word, pairs_));
    }

    // Adds the best hit of each word around a place.
    void add_around(const Place& place, std::vector<Hit>& hits) {
        const double chip_s = block_.chip_len / block_.rate;
        const double width_hz = 1 / (2 * SEGMENT * chip_s);
        const Strip strip(block_, {place.start_s, place.f, place.drift}, static_cast<int32_t>(2 * pairs_ + 1),
                          REACH + 1);
        std::vector<Hit> best(patterns_.size(), Hit{0, {}, LEAST_Z});
        for (const double beside : {-0.25, 0.0, 0.25}) {
            Hypothesis first{place.start_s - REACH * chip_s, 0, place.drift};
            first.f = place.f + place.drift * (first.start_s - place.start_s) + beside * width_hz;
            measure(strip, first, chips_, sums_->chips);
            const NoiseSums noise = noise_sums(sums_->chips, pairs_);
            tabulate(sums_->chips.re.data(), pairs_, sums_->re);
            tabulate(sums_->chips.im.data(), pairs_, sums_->im);
            for (std::size_t w = 0; w < patterns_.size(); w++) {
                std::array<float, LANES> sums;
                frame_sums(sums_->re, sums_->im, patterns_[w].data(), pairs_, sums.data());
                const auto [start, z] = best_start(sums, noise);
                if (!(static_cast<double>(z) > best[w].z)) continue;
                Hypothesis here = first;
                here.start_s += static_cast<double>(start) * chip_s / STEPS;
                here.f += place.drift * (here.start_s - first.start_s);
                best[w] = {w, here, static_cast<double>(z)};
            }
        }
        for (const Hit& hit : best) {
            if (hit.z > LEAST_Z) hits.push_back(hit);
        }
    }

  private:
    struct Sums {
        Positions chips;
        PatternSums re, im;
    };
    const Whitened& block_;
    std::size_t pairs_;
    std::vector<Quarters> patterns_;
    std::vector<ChipSum> chips_;
    std::unique_ptr<Sums> sums_;
};

}  // namespace

std::vector<Frame> find_known(const Whitened& block, const SegmentMap& map, const SearchRange& range,
                              std::span<const KnownWord> words) {
    if (words.empty()) return {};
    const auto pairs = static_cast<std::size_t>(words[0].code->length);
    const auto n_chips = 2 * pairs + 1;
    const double chip_s = block.chip_len / block.rate;
    std::vector<Hit> hits;
    KnownSearch search(block, words);
    for (const Place& place : find_places(block, map, words[0].code->length, range, PLACES, LEAST_PLACE_Z)) {
        search.add_around(place, hits);
    }
    std::vector<ChipSum> chips(n_chips);
    const auto stronger = [](const Hit& a, const Hit& b) { return a.z > b.z; };
    std::stable_sort(hits.begin(), hits.end(), stronger);
    if (hits.size() > REFINED) hits.resize(REFINED);
    for (Hit& hit : hits) hit = refine(block, hit, words[hit.word].word, chips);
    std::stable_sort(hits.begin(), hits.end(), stronger);
    std::vector<Hit> kept(std::min(hits.size(), MEASURED));
    const auto near = [&](const Hit& a, const Hit& b) {
        return a.word == b.word && is_near({a.at.start_s, a.at.f, 0, 0}, {b.at.start_s, b.at.f, 0, 0}, chip_s);
    };
    kept.resize(static_cast<std::size_t>(thin_out(std::span<const Hit>(hits), std::span<Hit>(kept), near)));

    std::vector<Frame> frames;
    for (const Hit& hit : kept) {
        const KnownWord& known = words[hit.word];
        frames.push_back(read_known(block, hit.at, *known.code, known.word, known.message));
    }
    return frames;
}

}  // namespace coherent
