// Plain models of synchronisation and measurement: every value straight from its definition, by loops over samples,
// bins, pairs and words. Slow, obviously right, only for tests.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <vector>

#include "ovsync.h"

namespace sync_model {

using Complex = std::complex<double>;

// Owns the samples of a hand-made baseband.
struct Samples {
    std::vector<Complex> x;
    double rate = 0;

    ov_baseband view() { return {x.data(), static_cast<int32_t>(x.size()), rate, 0}; }
};

// |Σ x[k] e^(-j2πfk/rate)|² over `count` samples.
inline double energy_at(const Complex* x, int64_t count, double f, double rate) {
    Complex sum = 0;
    for (int64_t k = 0; k < count; ++k)
        sum += x[k] * std::polar(1.0, -2 * std::numbers::pi * f * static_cast<double>(k) / rate);
    return std::norm(sum);
}

inline float median(std::vector<float> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) * 0.5F;
}

// ---- Score map --------------------------------------------------------------------------------------------------

struct Map {
    bool fits = false;
    int64_t chip_len = 0, steps = 0, hop = 0, pad = 0, margin = 0, nfft = 0, spread = 0, half = 0, nbins = 0, npos = 0;
    double bin_hz = 0;
    std::vector<float> power, noise;
};

inline Map map_shape(int64_t n, double rate, double chip_s, double search_hz, double spread_hz) {
    Map map;
    map.chip_len = std::lround(rate * chip_s);
    if (map.chip_len < 4 || std::abs(rate * chip_s - static_cast<double>(map.chip_len)) > 1e-6 || n < map.chip_len)
        return map;
    map.hop = map.chip_len % 16 == 0 ? map.chip_len / 16 : 1;
    map.steps = map.chip_len / map.hop;
    map.pad = map.chip_len <= 512 ? 4 : 2;
    map.margin = map.chip_len <= 512 ? 32 : 16;
    map.nfft = map.pad * map.chip_len;
    map.bin_hz = rate / static_cast<double>(map.nfft);
    if (spread_hz > 0) map.spread = std::max<int64_t>(map.pad, std::lround(spread_hz * 0.5 / map.bin_hz));
    map.half = static_cast<int64_t>(std::ceil((2 / chip_s + search_hz) / map.bin_hz)) + map.margin;
    if (2 * (map.spread + map.half) >= map.nfft) map.half = (map.nfft - 1) / 2 - map.spread;
    if (map.half < 1) return map;
    map.nbins = 2 * map.half + 1;
    map.npos = (n - map.chip_len) / map.hop + 1;
    map.fits = true;
    return map;
}

inline Map score_map(const ov_baseband& bb, double chip_s, double search_hz, double spread_hz) {
    Map map = map_shape(bb.n, bb.rate, chip_s, search_hz, spread_hz);
    if (!map.fits) return map;
    const auto cell = [&](int64_t p, int64_t b) { return static_cast<std::size_t>(p * map.nbins + b); };

    // e^(-j2πk/M), so that a bin is one table look-up per sample.
    std::vector<Complex> turn;
    for (int64_t k = 0; k < map.nfft; ++k)
        turn.push_back(std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(map.nfft)));
    const int64_t reach = map.half + map.spread;
    map.power.resize(static_cast<std::size_t>(map.npos * map.nbins));
    for (int64_t p = 0; p < map.npos; ++p) {
        std::vector<float> row;
        for (int64_t bin = -reach; bin <= reach; ++bin) {
            Complex sum = 0;
            for (int64_t k = 0; k < map.chip_len; ++k)
                sum += bb.samples[p * map.hop + k] * turn[static_cast<std::size_t>((bin + map.nfft) * k % map.nfft)];
            row.push_back(static_cast<float>(std::norm(sum)));
        }
        // The sum over 2·spread + 1 values slides: single-precision differences on a double-precision sum.
        const auto width = static_cast<std::size_t>(2 * map.spread + 1);
        double sum = 0;
        for (std::size_t b = 0; b < width; ++b) sum += static_cast<double>(row[b]);
        for (int64_t b = 0; b < map.nbins; ++b) {
            map.power[cell(p, b)] = static_cast<float>(sum);
            const auto left = static_cast<std::size_t>(b);
            if (left + width < row.size()) sum += static_cast<double>(row[left + width] - row[left]);
        }
    }

    std::vector<float> level;
    const int64_t sampled = std::min<int64_t>(map.npos, 4000);
    for (int64_t b = 0; b < map.nbins; ++b) {
        std::vector<float> values;
        for (int64_t i = 0; i < sampled; ++i) {
            const int64_t row = map.npos == 1 ? 0 : i * (map.npos - 1) / (sampled - 1);
            values.push_back(map.power[cell(row, b)]);
        }
        level.push_back(median(values) / 0.6931472F);
    }
    for (int64_t b = 0; b < map.nbins; ++b) {
        const int64_t first = std::max<int64_t>(b - map.margin, 0);
        const int64_t last = std::min<int64_t>(b + map.margin, map.nbins - 1);
        const float noise = median({level.begin() + first, level.begin() + last + 1});
        map.noise.push_back(noise > 0 ? noise : 1e-30F);
    }
    for (int64_t p = 0; p < map.npos; ++p) {
        for (int64_t b = 0; b < map.nbins; ++b) map.power[cell(p, b)] /= map.noise[static_cast<std::size_t>(b)];
    }
    return map;
}

// ---- Candidates -------------------------------------------------------------------------------------------------

inline bool word_bit(int word, int position) {
    int common = word & (position + 1);
    bool odd = false;
    for (; common != 0; common >>= 1) odd ^= (common & 1) != 0;
    return odd;
}

inline bool word_allowed(int group, int word) {
    if (group == 0) return word == 7;
    if (group == 1) return word <= 3;
    return true;
}

inline double pair_difference(const ov_specmap& map, int64_t row, int64_t bin, int64_t pair) {
    const int64_t first = row + (2 * pair + 1) * map.steps_per_chip;
    const int64_t second = row + (2 * pair + 2) * map.steps_per_chip;
    if (first < 0 || second < 0 || first >= map.npos || second >= map.npos) return 0;
    return static_cast<double>(map.power[second * map.nbins + bin]) -
           static_cast<double>(map.power[first * map.nbins + bin]);
}

inline double score(const ov_specmap& map, int64_t row, int64_t bin) {
    double total = 0;
    if (map.pair_mode == 1) {
        for (int64_t pair = 0; pair < map.pairs; ++pair) total += std::abs(pair_difference(map, row, bin, pair));
        return total;
    }
    for (int group = 0; group < 17; ++group) {
        double best = -1e30;
        for (int word = 0; word < 8; ++word) {
            if (!word_allowed(group, word)) continue;
            double sum = 0;
            for (int j = 0; j < 7; ++j) {
                const double d = pair_difference(map, row, bin, group + 17 * j);
                sum += word_bit(word, j) ? d : -d;
            }
            if (sum > best) best = sum;
        }
        total += best;
    }
    return total;
}

struct Search {
    double t_min = -1e9, t_max = 1e9, search_hz = 1e6, edge = 0.2, z_min = 3;
    int32_t max_out = 1000;
};

struct Found {
    bool searched = false;  // there was a row and a column to search
    double median = 0, sigma = 0;
    std::vector<ov_cand> peaks;  // before thinning, strongest first
    std::vector<ov_cand> out;
};

inline Found find_candidates(const ov_specmap& map, const Search& search) {
    Found found;
    const double edge = std::clamp(search.edge, 0.0, 0.5);
    const auto over = static_cast<int64_t>(std::floor(edge * map.frame_chips)) * map.steps_per_chip;
    const double earliest = std::ceil(search.t_min * map.rate / map.hop);
    const double latest = std::floor(search.t_max * map.rate / map.hop);
    const auto first = static_cast<int64_t>(std::max(static_cast<double>(-over), earliest));
    const int64_t whole = map.npos - 1 - int64_t{map.frame_chips - 1} * map.steps_per_chip;
    const auto last = static_cast<int64_t>(std::min(static_cast<double>(whole + over), latest));
    const double width = std::min(std::floor(search.search_hz / map.bin_hz), static_cast<double>(map.half));
    if (last < first || width < 0) return found;
    found.searched = true;

    const auto w = static_cast<int64_t>(width);
    const int64_t rows = last - first + 1;
    const int64_t columns = 2 * w + 1;
    std::vector<float> scores;
    for (int64_t row = first; row <= last; ++row) {
        for (int64_t column = 0; column < columns; ++column)
            scores.push_back(static_cast<float>(score(map, row, map.half - w + column)));
    }

    const auto total = static_cast<int64_t>(scores.size());
    const int64_t sampled = std::min<int64_t>(total, 200000);
    std::vector<float> sample;
    for (int64_t i = 0; i < sampled; ++i) sample.push_back(scores[static_cast<std::size_t>(i * total / sampled)]);
    const float middle = median(sample);
    for (float& value : sample) value = std::abs(value - middle);
    found.median = static_cast<double>(middle);
    found.sigma = 1.4826 * static_cast<double>(median(sample));
    if (!(found.sigma > 0)) found.sigma = 1e-9;

    const auto threshold = static_cast<float>(search.z_min * found.sigma + found.median);
    for (int64_t row = 0; row < rows; ++row) {
        for (int64_t column = 0; column < columns; ++column) {
            const float here = scores[static_cast<std::size_t>(row * columns + column)];
            bool peak = here >= threshold;
            for (int64_t r = std::max<int64_t>(row - 1, 0); r <= std::min(row + 1, rows - 1); ++r) {
                for (int64_t c = std::max<int64_t>(column - 1, 0); c <= std::min(column + 1, columns - 1); ++c)
                    if (scores[static_cast<std::size_t>(r * columns + c)] > here) peak = false;
            }
            if (!peak) continue;
            ov_cand cand{};
            cand.pos = static_cast<int32_t>(first + row);
            cand.bin = static_cast<int32_t>(map.half - w + column);
            cand.t = static_cast<double>(map.hop) * cand.pos / map.rate;
            cand.f = (cand.bin - map.half) * map.bin_hz;
            cand.score = static_cast<double>(here);
            cand.z = (cand.score - found.median) / found.sigma;
            found.peaks.push_back(cand);
        }
    }
    std::stable_sort(found.peaks.begin(), found.peaks.end(),
                     [](const ov_cand& a, const ov_cand& b) { return a.score > b.score; });
    for (const ov_cand& cand : found.peaks) {
        if (static_cast<int64_t>(found.out.size()) >= search.max_out) break;
        const bool beside = std::any_of(found.out.begin(), found.out.end(), [&](const ov_cand& kept) {
            return std::abs(kept.t - cand.t) <= 7 * map.chip_s && std::abs(kept.f - cand.f) <= 2 / map.chip_s;
        });
        if (!beside) found.out.push_back(cand);
    }
    return found;
}

// ---- Hypotheses -------------------------------------------------------------------------------------------------

struct Energies {
    int32_t measured = 0;
    std::vector<double> value;  // -1 outside
};

inline double frequency_at(double sample, double start, double nchips, double chip_len, double f, double drift,
                           double rate) {
    return f + drift * ((sample + chip_len / 2) / rate - (start + nchips * chip_len / 2) / rate);
}

inline Energies chip_energies(const ov_baseband& bb, int32_t chip_len, int32_t nchips, int32_t start, double f,
                              double drift) {
    Energies out;
    for (int64_t c = 0; c < nchips; ++c) {
        const int64_t s = start + c * chip_len;
        if (s < 0 || s + chip_len > bb.n) {
            out.value.push_back(-1);
            continue;
        }
        const double at = frequency_at(static_cast<double>(s), start, nchips, chip_len, f, drift, bb.rate);
        out.value.push_back(energy_at(bb.samples + s, chip_len, at, bb.rate));
        ++out.measured;
    }
    return out;
}

inline Energies chip_energies_spread(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f,
                                     double drift) {
    Energies out = chip_energies(bb, map.chip_len, map.frame_chips, start, f - map.spread * map.bin_hz, drift);
    for (int32_t k = 1 - map.spread; k <= map.spread; ++k) {
        const Energies more = chip_energies(bb, map.chip_len, map.frame_chips, start, f + k * map.bin_hz, drift);
        for (std::size_t c = 0; c < out.value.size(); ++c)
            if (out.value[c] >= 0) out.value[c] += more.value[c];
    }
    return out;
}

// Score of soft bits: the sum of |soft|, or the best allowed word of each group.
inline double frame_metric(const float* soft, int32_t pairs, int32_t pair_mode) {
    double total = 0;
    if (pair_mode == 1) {
        for (int32_t pair = 0; pair < pairs; ++pair) total += std::abs(static_cast<double>(soft[pair]));
        return total;
    }
    for (int group = 0; group < 17; ++group) {
        double best = -1e300;
        for (int word = 0; word < 8; ++word) {
            double sum = 0;
            for (int j = 0; j < 7; ++j) {
                const auto bit = static_cast<double>(soft[group + 17 * j]);
                sum += word_bit(word, j) ? bit : -bit;
            }
            if (word_allowed(group, word) && sum > best) best = sum;
        }
        total += best;
    }
    return total;
}

// ---- SNR --------------------------------------------------------------------------------------------------------

inline double to_decibel(double ratio, double chip_s) {
    return 10 * std::log10(std::max(ratio, 0.0001) / (chip_s * 2500));
}

inline double snr_on_off(const ov_hyp& hyp, const std::vector<uint8_t>& on, double chip_s) {
    double sum[2] = {};
    double count[2] = {};
    for (int32_t c = 0; c < hyp.nchips; ++c) {
        if (hyp.energy[c] < 0) continue;
        const int keyed = on[static_cast<std::size_t>(c)] != 0 ? 1 : 0;
        sum[keyed] += static_cast<double>(hyp.energy[c]);
        count[keyed] += 1;
    }
    if (count[0] == 0 || count[1] == 0) return -99;
    const double off_mean = sum[0] / count[0];
    double ratio = (sum[1] / count[1] - off_mean) / off_mean;
    if (hyp.spread_factor > 0) ratio *= hyp.spread_factor;
    return to_decibel(ratio, chip_s);
}

// Powers of all bins more than 15 from the carrier, over all windows in which it runs unbroken.
inline std::vector<float> noise_beside_carrier(const ov_baseband& bb, int32_t chip_len, const ov_hyp& hyp,
                                               const std::vector<uint8_t>& on) {
    std::vector<float> list;
    const int64_t n = chip_len;
    for (int64_t c = 1; c < hyp.nchips; ++c) {
        const auto chip = static_cast<std::size_t>(c);
        if (on[chip - 1] == 0 || on[chip] == 0 || hyp.energy[c - 1] < 0 || hyp.energy[c] < 0) continue;
        const int64_t s = hyp.start + (c - 1) * n + n / 2;
        if (s < 0 || s + n > bb.n) continue;
        const double f =
            frequency_at(static_cast<double>(s), hyp.start, hyp.nchips, chip_len, hyp.f, hyp.drift, bb.rate);
        const auto carrier = [&](int64_t k) {
            return std::polar(1.0, 2 * std::numbers::pi * f * static_cast<double>(k) / bb.rate);
        };
        Complex amplitude = 0;
        for (int64_t k = 0; k < n; ++k) amplitude += bb.samples[s + k] * std::conj(carrier(k));
        amplitude /= static_cast<double>(n);
        std::vector<Complex> rest;
        for (int64_t k = 0; k < n; ++k) rest.push_back(bb.samples[s + k] - amplitude * carrier(k));
        const int64_t kt = std::lround(f / bb.rate * static_cast<double>(n));
        for (int64_t j = 0; j < n; ++j) {
            const int64_t d = ((j - kt) % n + n) % n;
            if (std::min(d, n - d) <= 15) continue;
            const double at = static_cast<double>(j) * bb.rate / static_cast<double>(n);
            list.push_back(static_cast<float>(energy_at(rest.data(), n, at, bb.rate)));
        }
    }
    return list;
}

inline double snr_in_baseband(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp,
                              const std::vector<uint8_t>& on, double chip_s) {
    if (map.spread != 0 || map.chip_len < 16) return snr_on_off(hyp, on, chip_s);
    double sum = 0;
    double count = 0;
    for (int32_t c = 0; c < hyp.nchips; ++c) {
        if (hyp.energy[c] < 0 || on[static_cast<std::size_t>(c)] == 0) continue;
        sum += static_cast<double>(hyp.energy[c]);
        count += 1;
    }
    if (count == 0) return -99;
    std::vector<float> list = noise_beside_carrier(bb, map.chip_len, hyp, on);
    if (list.size() <= 199) return snr_on_off(hyp, on, chip_s);
    std::sort(list.begin(), list.end());
    const double noise = static_cast<double>(list[list.size() / 2]) / 0.6931472;
    return to_decibel((sum / count - noise) / noise, chip_s);
}

}  // namespace sync_model
