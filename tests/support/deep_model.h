// Plain model of the deep search: the full array of Z over known callsigns × start rows × columns, every Z from its 119
// signed differences in double precision, kept in single. Slow, obviously right, only for tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "ovcdeep.h"

namespace deep_model {

struct Search {
    double t_min = -1e9;
    double t_max = 1e9;
    double search_hz = 1e9;
    double guard = 0.2;
    double pfa = 1e-4;
    int32_t max_hits = 64;
};

struct Found {
    bool searched = false;
    double threshold = 0;
    std::vector<ovc_deep_hit> peaks;  // all, strongest first
    std::vector<ovc_deep_hit> hits;   // what is left of them
};

// Upper-tail point of the standard normal distribution.
inline double threshold(double trials, double pfa) {
    const double p = (pfa <= 0 ? 1e-6 : pfa) / std::max(1.0, trials);
    double low = 0;
    double high = 40;
    for (int i = 0; i < 100; ++i) {
        const double middle = (low + high) / 2;
        (std::erfc(middle / std::numbers::sqrt2) / 2 > p ? low : high) = middle;
    }
    return (low + high) / 2;
}

// Z of one frame in one place of the map.
inline double statistic(const ov_specmap& map, const ovc_known& known, int64_t start, int64_t column) {
    double sum = 0;
    double squares = 0;
    for (int64_t k = 0; k < 119; ++k) {
        const int64_t r1 = start + map.steps_per_chip * (1 + 2 * k);
        const int64_t r2 = start + map.steps_per_chip * (2 + 2 * k);
        if (r1 < 0 || r2 < 0 || r1 >= map.npos || r2 >= map.npos) continue;
        const double d = static_cast<double>(map.power[r2 * map.nbins + column]) -
                         static_cast<double>(map.power[r1 * map.nbins + column]);
        sum += known.signs[k] * d;
        squares += d * d;
    }
    return squares > 0 ? sum / std::sqrt(squares) : 0;
}

inline Found deep_search(const ov_specmap& map, const std::vector<ovc_known>& known, const Search& search) {
    Found found;
    if (known.empty()) return found;
    const int64_t spc = map.steps_per_chip;
    const auto over = search.guard < 0 ? 0 : static_cast<int64_t>(std::floor(std::min(0.5, search.guard) * 239)) * spc;
    const double earliest = std::ceil(search.t_min * map.rate / map.hop);
    const double latest = std::floor(search.t_max * map.rate / map.hop);
    const auto first = static_cast<int64_t>(std::max(earliest, static_cast<double>(-over)));
    const auto last = static_cast<int64_t>(std::min(static_cast<double>(map.npos - 1 - 238 * spc + over), latest));
    if (first > last) return found;
    found.searched = true;

    const int64_t rows = last - first + 1;
    const auto reach =
        static_cast<int64_t>(std::min(static_cast<double>(map.half), std::floor(search.search_hz / map.bin_hz)));
    const int64_t columns = 2 * reach + 1;
    found.threshold = threshold((3.0 * static_cast<double>(rows) / static_cast<double>(spc) + 1) *
                                    (3.0 * static_cast<double>(columns) * map.bin_hz * map.chip_s + 1) *
                                    static_cast<double>(known.size()),
                                search.pfa);

    std::vector<float> z;
    for (const ovc_known& entry : known) {
        for (int64_t row = 0; row < rows; ++row) {
            for (int64_t column = 0; column < columns; ++column)
                z.push_back(static_cast<float>(statistic(map, entry, first + row, map.half - reach + column)));
        }
    }
    const auto at = [&](int64_t entry, int64_t row, int64_t column) {
        return z[static_cast<std::size_t>((entry * rows + row) * columns + column)];
    };
    for (int64_t entry = 0; entry < static_cast<int64_t>(known.size()); ++entry) {
        for (int64_t row = 0; row < rows; ++row) {
            for (int64_t column = 0; column < columns; ++column) {
                bool peak = static_cast<double>(at(entry, row, column)) >= found.threshold;
                for (int64_t r = row - 1; r <= row + 1; ++r) {
                    for (int64_t c = column - 1; c <= column + 1; ++c) {
                        const bool inside = r >= 0 && r < rows && c >= 0 && c < columns;
                        if (inside && at(entry, r, c) > at(entry, row, column)) peak = false;
                    }
                }
                if (!peak) continue;
                ovc_deep_hit hit{};
                hit.known = static_cast<int32_t>(entry);
                hit.pos = static_cast<int32_t>(first + row);
                hit.column = static_cast<int32_t>(map.half - reach + column);
                hit.t = hit.pos * static_cast<double>(map.hop) / map.rate;
                hit.f = (hit.column - map.half) * map.bin_hz;
                hit.z = static_cast<double>(at(entry, row, column));
                found.peaks.push_back(hit);
            }
        }
    }
    std::stable_sort(found.peaks.begin(), found.peaks.end(),
                     [](const ovc_deep_hit& a, const ovc_deep_hit& b) { return a.z > b.z; });
    for (const ovc_deep_hit& hit : found.peaks) {
        if (static_cast<int64_t>(found.hits.size()) >= search.max_hits) break;
        const bool beside = std::any_of(found.hits.begin(), found.hits.end(), [&](const ovc_deep_hit& kept) {
            return kept.known == hit.known && std::abs(kept.t - hit.t) < 0.5 * 239 * map.chip_s &&
                   std::abs(kept.f - hit.f) < 3.0 / map.chip_s;
        });
        if (!beside) found.hits.push_back(hit);
    }
    return found;
}

// Z of measured chip energies, -1 where a chip was not measured.
inline double energy_statistic(const std::vector<double>& energy, const ovc_known& known) {
    double sum = 0;
    double squares = 0;
    for (std::size_t k = 0; k < 119; ++k) {
        if (!(energy[1 + 2 * k] >= 0 && energy[2 + 2 * k] >= 0)) continue;
        const double d = energy[2 + 2 * k] - energy[1 + 2 * k];
        sum += known.signs[k] * d;
        squares += d * d;
    }
    return squares > 0 ? sum / std::sqrt(squares) : 0;
}

}  // namespace deep_model
