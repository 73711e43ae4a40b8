// Deep search with many known callsigns on one block, compared with its plain definition: for every start row, every
// callsign sums 119 signed rows of differences, and every Z is kept. Both search the same score map of noise with weak
// frames in it.
//
//     bench_deep [known callsigns] [seconds of audio]      default 256 120
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ovcdeep.h"
#include "ovpipe.h"
#include "owners.h"
#include "siggen.h"

namespace {

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double peak_memory_mb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

std::vector<ovc_known> make_known(int32_t n, Random& random) {
    std::vector<ovc_known> known;
    while (static_cast<int32_t>(known.size()) < n) {
        std::string call = random.callsign();
        std::erase(call, ' ');
        ovc_known entry;
        if (ovc_known_init(call.c_str(), &entry) == 0) known.push_back(entry);
    }
    return known;
}

Scene make_scene(double seconds, const std::vector<ovc_known>& known) {
    Scene scene;
    scene.seconds = seconds;
    for (std::size_t i = 0; i < std::min<std::size_t>(3, known.size()); i++) {
        Station station;
        station.chips.assign(std::begin(known[i].chips), std::end(known[i].chips));
        station.t_start = 5 + 20.0 * static_cast<double>(i);
        station.freq_hz = 1400 + 70.0 * static_cast<double>(i);
        station.snr_db = -22.0;
        scene.stations.push_back(station);
    }
    return scene;
}

// The plain way. Returns the number of cells at or above the threshold.
int64_t search_plainly(const ov_specmap& map, const ov_grid& grid, const std::vector<ovc_known>& known,
                       double threshold) {
    const std::size_t n = grid.n_columns;
    std::vector<float> scores(known.size() * static_cast<std::size_t>(grid.n_rows) * n);
    std::vector<float> differences(OVC_PAIRS * n);
    std::vector<float> squares(n);
    for (int64_t i = 0; i < grid.n_rows; i++) {
        std::fill(squares.begin(), squares.end(), 0.0f);
        for (std::size_t k = 0; k < OVC_PAIRS; k++) {
            float* const d = differences.data() + k * n;
            ov_pair_difference(map, grid, grid.first_row + i + static_cast<int64_t>(2 * k + 1) * map.steps_per_chip, d);
            for (std::size_t c = 0; c < n; c++) squares[c] += d[c] * d[c];
        }
        for (std::size_t e = 0; e < known.size(); e++) {
            float* const z =
                scores.data() + (e * static_cast<std::size_t>(grid.n_rows) + static_cast<std::size_t>(i)) * n;
            for (std::size_t k = 0; k < OVC_PAIRS; k++) {
                const float* const d = differences.data() + k * n;
                const auto sign = static_cast<float>(known[e].signs[k]);
                for (std::size_t c = 0; c < n; c++) z[c] += sign * d[c];
            }
            for (std::size_t c = 0; c < n; c++) z[c] = squares[c] > 0 ? z[c] / std::sqrt(squares[c]) : 0;
        }
    }
    return std::count_if(scores.begin(), scores.end(), [&](float z) { return z >= threshold; });
}

}  // namespace

int main(int argc, char** argv) {
    const int32_t n_known = argc > 1 ? std::atoi(argv[1]) : 256;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 120;
    if (n_known < 1 || !(seconds >= 31)) {
        std::fprintf(stderr, "usage: bench_deep [known callsigns] [seconds of audio, at least 31]\n");
        return 2;
    }
    Random random(7);
    const std::vector<ovc_known> known = make_known(n_known, random);
    const std::vector<double> x = render_real(make_scene(seconds, known));
    ov_params params;
    ov_params_default(params);
    BasebandOwner bb;
    MapOwner map;
    if (ov_baseband_real(x.data(), static_cast<int32_t>(x.size()), 12000, params.center_hz, 500, bb) != 0 ||
        ov_spectrogram(bb, 0.128, params.search_hz, 0, map) != 0) {
        std::fprintf(stderr, "bench_deep: no score map\n");
        return 1;
    }

    const double before_mb = peak_memory_mb();
    std::vector<ovc_deep_hit> hits(64);
    double threshold = 0;
    double start = cpu_seconds();
    const int32_t count = ovc_deep_search(&map, known.data(), n_known, -1e9, 1e9, params.search_hz, params.chip_guard,
                                          params.deep_pfa, 64, hits.data(), &threshold);
    const double shared_s = cpu_seconds() - start;
    const double shared_mb = peak_memory_mb() - before_mb;

    ov_grid grid;
    ov_search_grid(map, OVC_CHIPS, -1e9, 1e9, params.search_hz, params.chip_guard, grid);
    start = cpu_seconds();
    const int64_t cells = search_plainly(map, grid, known, threshold);
    const double plain_s = cpu_seconds() - start;
    const double plain_mb = peak_memory_mb() - before_mb;

    start = cpu_seconds();
    std::vector<ov_spot> spots(64);
    ov_decode_real(x.data(), static_cast<int32_t>(x.size()), 12000, params, spots.data(), 64);
    const double block_s = cpu_seconds() - start;

    std::printf("%d known callsigns, %.0f s: %d hits, threshold %.2f\n", n_known, seconds, count, threshold);
    std::printf("%-24s %8.3f s %8.1f MB beyond the map\n", "deep search", shared_s, shared_mb);
    std::printf("%-24s %8.3f s %8.1f MB beyond the map (%ld cells at or above the threshold)\n", "plain way", plain_s,
                plain_mb, static_cast<long>(cells));
    std::printf("%-24s %8.3f s\n", "block without it", block_s);
    std::printf("plain / deep %.1f, deep / block %.1f\n", plain_s / shared_s, shared_s / block_s);
    return 0;
}
