// Seconds and memory of the wide decode: ten minutes of audio with ten stations, and blocks of a fast I/Q recording as
// the orvel command cuts them. The scan is also timed alone; the real-time factor is seconds of recording per second of
// CPU.
//
//     bench_wide [blocks of I/Q]      default 2
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "ovpipe.h"
#include "ovscan.h"
#include "siggen.h"

namespace {

constexpr double Z_SCAN = 6;
constexpr int32_t MAX_TILES = 100;
constexpr int32_t MAX_SPOTS = 256;

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double peak_megabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

// Stations evenly spaced over the band, on the air now and then.
Scene make_scene(int32_t rate, double seconds, double from_hz, double to_hz, int32_t n_stations, int32_t frames,
                 uint64_t seed) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = seed;
    Random random(seed);
    for (int32_t k = 0; k < n_stations; k++) {
        const double freq = from_hz + (to_hz - from_hz) * (k + 0.5) / n_stations;
        const double snr = random.uniform(-18, -8);
        const std::vector<uint8_t> chips = opera_chips(random.callsign());
        for (int32_t frame = 0; frame < frames; frame++) {
            const double period = seconds / frames;
            scene.stations.push_back({chips, frame * period + random.uniform(0, period - 31), freq, 0, snr, 1});
        }
    }
    return scene;
}

void report(const char* name, const double* i, const double* q, const Scene& scene, double center_hz,
            double search_hz) {
    const auto n = static_cast<int32_t>(scene.seconds * scene.rate);
    ov_params params;
    ov_params_default(params);
    params.center_hz = center_hz;
    params.search_hz = search_hz;

    double start = cpu_seconds();
    std::vector<ov_hit> hits(MAX_TILES);
    const int32_t tiles = ov_scan(i, q, n, scene.rate, CHIP_SECONDS, center_hz - search_hz, center_hz + search_hz,
                                  Z_SCAN, 30, MAX_TILES, hits.data(), nullptr, 0);
    const double scan_s = cpu_seconds() - start;

    start = cpu_seconds();
    std::vector<ov_spot> spots(MAX_SPOTS);
    const int32_t found = ov_decode_wide(i, q, n, scene.rate, params, Z_SCAN, MAX_TILES, spots.data(), MAX_SPOTS);
    const double all_s = cpu_seconds() - start;
    std::printf("%-22s %6d %6d %6zu %8.2f %8.2f %8.2f %9.0f %9.0f\n", name, tiles, found, scene.stations.size(), scan_s,
                all_s - scan_s, all_s, scene.seconds / all_s, peak_megabytes());
}

}  // namespace

int main(int argc, char** argv) {
    const int32_t blocks = argc > 1 ? std::atoi(argv[1]) : 2;
    if (blocks < 0) {
        std::fprintf(stderr, "usage: bench_wide [blocks of I/Q]\n");
        return 2;
    }
    std::printf("CPU seconds; most memory so far, samples included\n");
    std::printf("%-22s %6s %6s %6s %8s %8s %8s %9s %9s\n", "recording", "tiles", "spots", "sent", "scan", "rest", "all",
                "realtime", "peak MB");
    {
        const Scene scene = make_scene(12000, 600, 300, 2900, 10, 6, 1);
        const std::vector<double> x = render_real(scene);
        report("10 min at 12 kHz", x.data(), nullptr, scene, 1600, 1500);
    }
    for (int32_t block = 0; block < blocks; block++) {
        const Scene scene = make_scene(192000, 90, -90000, 90000, 20, 1, static_cast<uint64_t>(block) + 2);
        const IqSamples iq = render_iq(scene);
        report("90 s of 192 kHz I/Q", iq.i.data(), iq.q.data(), scene, 0, 95000);
    }
    return 0;
}
