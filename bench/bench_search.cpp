// The candidate search of each protocol compared with the plain model of the tests, which adds up every pair of every
// word for every cell. Both search the same score map of a block with ten stations and must find the same candidates.
//
//     bench_search [seconds of audio]      default 60
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "orvel.h"
#include "ovpipe.h"
#include "owners.h"
#include "scenes.h"
#include "siggen.h"
#include "sync_model.h"

namespace {

constexpr int32_t RATE = 12000;
constexpr int32_t MAX_CANDIDATES = 1500;
constexpr int32_t REPEATS = 5;

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Last-bit differences of single-precision scores may swap two neighbours, so the lists agree when they have the same
// number of candidates, all but a few at the same place.
bool agree(const std::vector<ov_cand>& a, const std::vector<ov_cand>& b) {
    if (a.size() != b.size()) return false;
    const auto missing = std::count_if(a.begin(), a.end(), [&](const ov_cand& x) {
        return std::none_of(b.begin(), b.end(), [&](const ov_cand& y) { return x.pos == y.pos && x.bin == y.bin; });
    });
    return static_cast<std::size_t>(missing) <= a.size() / 100;
}

bool compare(const char* name, const ov_specmap& map, const ov_params& params) {
    std::vector<ov_cand> cands(MAX_CANDIDATES);
    double fast_s = 1e9;
    for (int32_t i = 0; i < REPEATS; i++) {
        cands.resize(MAX_CANDIDATES);
        const double start = cpu_seconds();
        const int32_t n = ov_find_candidates(map, -1e9, 1e9, params.search_hz, params.chip_guard, params.z_min,
                                             MAX_CANDIDATES, cands.data(), nullptr, nullptr);
        fast_s = std::min(fast_s, cpu_seconds() - start);
        cands.resize(static_cast<std::size_t>(std::max(n, 0)));
    }
    const double start = cpu_seconds();
    const sync_model::Found model = sync_model::find_candidates(map, {.t_min = -1e9,
                                                                      .t_max = 1e9,
                                                                      .search_hz = params.search_hz,
                                                                      .edge = params.chip_guard,
                                                                      .z_min = params.z_min,
                                                                      .max_out = MAX_CANDIDATES});
    const double plain_s = cpu_seconds() - start;
    const bool same = agree(cands, model.out);
    std::printf("%-10s %10zu %12.1f %12.1f %10.1f%s\n", name, cands.size(), 1e3 * fast_s, 1e3 * plain_s,
                plain_s / fast_s, same ? "" : "   other candidates!");
    return same;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    if (!(seconds >= 31)) {
        std::fprintf(stderr, "usage: bench_search [seconds, at least 31]\n");
        return 2;
    }
    ov_params params;
    ov_params_default(params);
    const std::vector<double> audio = render_real(busy_scene(seconds, RATE, 10));
    BasebandOwner bb;
    MapOwner map;
    if (ov_baseband_real(audio.data(), static_cast<int32_t>(audio.size()), RATE, params.center_hz, 500, bb) != 0 ||
        ov_spectrogram(bb, 0.256 * params.op, params.search_hz, params.spread_hz, map) != 0) {
        return 1;
    }

    std::printf("%.0f s, CPU milliseconds\n", seconds);
    std::printf("%-10s %10s %12s %12s %10s\n", "protocol", "candidates", "search", "plain", "ratio");
    bool same = compare("OPERA", map, params);
    for (const int32_t mode : {0, 1}) {
        ov_spec_frame(map, ov_ncoded(mode), 1);
        same = compare(mode == 0 ? "ORVEL S" : "ORVEL L", map, params) && same;
    }
    return same ? 0 : 1;
}
