#include "coherent/known.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "multiversion.h"
#include "robust.h"

namespace coherent {
namespace {

constexpr std::size_t PLACES = 500;
constexpr double LEAST_PLACE_Z = 1;
constexpr double LEAST_Z = 6;  // of a frame's sum, which is compared with its mean and deviation in noise
constexpr std::size_t REFINED = 400;
constexpr std::size_t MEASURED = 20;  // frames that are measured
constexpr int32_t REACH = 20;         // chips
constexpr int32_t STEPS = 4;          // starts in a chip
constexpr std::size_t QUARTER = 4;    // pairs whose sums are tabulated for every pattern
constexpr std::size_t PATTERNS = 1 << QUARTER;
constexpr std::size_t SEGMENT = 2 * QUARTER;
constexpr std::size_t MAX_QUARTERS = (OV_MAX_PAIRS + QUARTER - 1) / QUARTER;

// The sums of the ON chips of four pairs, for every pattern of them.
struct PatternSums {
    std::array<std::array<float, PATTERNS>, MAX_QUARTERS> re, im;
};

void tabulate(std::span<const ChipSum> chips, std::size_t quarters, PatternSums& sums) {
    const std::size_t pairs = chips.size() / 2;
    for (std::size_t q = 0; q < quarters; q++) {
        std::complex<float> all = 0;
        std::array<std::complex<float>, QUARTER> changes{};
        for (std::size_t j = 0; j < QUARTER; j++) {
            const std::size_t pair = q * QUARTER + j;
            if (pair >= pairs) continue;
            all += chips[1 + 2 * pair].value;
            changes[j] = chips[2 + 2 * pair].value - chips[1 + 2 * pair].value;
        }
        sums.re[q][0] = all.real();
        sums.im[q][0] = all.imag();
        for (std::size_t j = 0; j < QUARTER; j++) {
            const std::size_t half = std::size_t{1} << j;
            for (std::size_t i = 0; i < half; i++) {
                sums.re[q][half + i] = sums.re[q][i] + changes[j].real();
                sums.im[q][half + i] = sums.im[q][i] + changes[j].imag();
            }
        }
    }
}

using Quarters = std::array<uint8_t, MAX_QUARTERS + 1>;

Quarters quarters_of(const Word& word, std::size_t pairs) {
    Quarters out{};
    for (std::size_t k = 0; k < pairs; k++) {
        if (bit_of(word, k)) out[k / QUARTER] = static_cast<uint8_t>(out[k / QUARTER] | 1U << (k % QUARTER));
    }
    return out;
}

// Σ |coherent sum over eight pairs|² of each word.
float frame_sum(const PatternSums& sums, const Quarters& word, std::size_t quarters) {
    float total = 0;
    std::size_t q = 0;
    for (; q + 1 < quarters; q += 2) {
        const float re = sums.re[q][word[q]] + sums.re[q + 1][word[q + 1]];
        const float im = sums.im[q][word[q]] + sums.im[q + 1][word[q + 1]];
        total += re * re + im * im;
    }
    if (q < quarters) {
        const float re = sums.re[q][word[q]];
        const float im = sums.im[q][word[q]];
        total += re * re + im * im;
    }
    return total;
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

}  // namespace

std::vector<Frame> find_known(const Whitened& block, const SegmentMap& map, const SearchRange& range,
                              std::span<const KnownWord> words) {
    if (words.empty()) return {};
    const AffineCode& code = *words[0].code;
    const auto pairs = static_cast<std::size_t>(code.length);
    const std::size_t quarters = (pairs + QUARTER - 1) / QUARTER;
    std::vector<Quarters> patterns;
    for (const KnownWord& known : words) patterns.push_back(quarters_of(known.word, pairs));

    // In noise each segment's sum has the mean and deviation of its weights.
    const auto n_chips = static_cast<std::size_t>(2 * code.length + 1);
    const double chip_s = block.chip_len / block.rate;
    const double width_hz = 1 / (2 * SEGMENT * chip_s);
    std::vector<ChipSum> chips(n_chips);
    PatternSums sums;
    std::vector<Hit> hits;
    for (const Place& place : find_places(block, map, code.length, range, PLACES, LEAST_PLACE_Z)) {
        const Strip strip(block, {place.start_s, place.f, place.drift}, static_cast<int32_t>(n_chips), REACH + 1);
        std::vector<Hit> best(words.size(), Hit{0, {}, LEAST_Z});
        for (int32_t k = -REACH * STEPS; k <= REACH * STEPS; k++) {
            for (const double beside : {-0.25, 0.0, 0.25}) {
                Hypothesis here{place.start_s + k * chip_s / STEPS, 0, place.drift};
                here.f = place.f + place.drift * (here.start_s - place.start_s) + beside * width_hz;
                strip.measure(here, chips);
                double mean = 0;
                double variance = 0;
                for (std::size_t first = 0; first < pairs; first += SEGMENT) {
                    double weight = 0;
                    for (std::size_t j = first; j < std::min(first + SEGMENT, pairs); j++) {
                        weight += 0.5 * (static_cast<double>(chips[1 + 2 * j].weight) + chips[2 + 2 * j].weight);
                    }
                    mean += weight;
                    variance += weight * weight;
                }
                if (!(variance > 0)) continue;
                const double scale = 1 / std::sqrt(variance);
                tabulate(chips, quarters, sums);
                for (std::size_t w = 0; w < words.size(); w++) {
                    const double z = (static_cast<double>(frame_sum(sums, patterns[w], quarters)) - mean) * scale;
                    if (z > best[w].z) best[w] = {w, here, z};
                }
            }
        }
        for (const Hit& hit : best) {
            if (hit.z > LEAST_Z) hits.push_back(hit);
        }
    }
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
