// CPU seconds of decoding one block with default settings, by stage, compared with what FFTW's own transforms cost: one
// real forward transform of the block, one cut back, one transform for each row of the score map.
//
//     bench_decode [seconds of audio] [sample rate]      default 60 12000
//     bench_decode growth                                from 30 s to 30 min: time, and memory beyond the samples
//     bench_decode spread                                a minute in spread mode compared with the plain mode
#include <fftw3.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "liborvel.h"
#include "ovbb.h"
#include "ovfft.h"
#include "ovpipe.h"
#include "ovsync.h"
#include "owners.h"
#include "scenes.h"
#include "siggen.h"

namespace {

constexpr int32_t REPEATS = 5;

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Least CPU time of some runs, s.
template <class Work>
double least_seconds(Work work) {
    double least = 1e9;
    for (int32_t i = 0; i < REPEATS; i++) {
        const double start = cpu_seconds();
        work();
        least = std::min(least, cpu_seconds() - start);
    }
    return least;
}

struct Stages {
    double baseband, map, search, all;
};

Stages measure(const std::vector<double>& x, int32_t rate, const ov_params& params) {
    const auto n = static_cast<int32_t>(x.size());
    const double chip_s = 0.256 * params.op;
    Stages stages{};
    BasebandOwner bb;
    MapOwner map;
    stages.baseband = least_seconds([&] {
        ov_baseband_free(bb);
        ov_baseband_real(x.data(), n, rate, params.center_hz, 500, bb);
    });
    stages.map = least_seconds([&] {
        ov_spectrogram_free(map);
        ov_spectrogram(bb, chip_s, params.search_hz, params.spread_hz, map);
    });
    std::vector<ov_cand> cands(1500);
    stages.search = least_seconds([&] {
        ov_find_candidates(map, -1e9, 1e9, params.search_hz, params.chip_guard, params.z_min, 1500, cands.data(),
                           nullptr, nullptr);
    });
    std::vector<ov_spot> spots(64);
    stages.all = least_seconds([&] { ov_decode_real(x.data(), n, rate, params, spots.data(), 64); });
    return stages;
}

double measure_floor(const std::vector<double>& x, int32_t rate) {
    const auto n = static_cast<int32_t>(x.size());
    SpectrumOwner spectrum;
    BasebandOwner bb;
    MapOwner map;
    ov_spectrum_real(x.data(), n, rate, 500, spectrum);
    ov_baseband_extract(spectrum, 1500, bb);
    ov_spectrogram(bb, 0.128, 200, 0, map);

    const auto in = fftw_array<double>(spectrum.nfft);
    const auto bins = fftw_array<std::complex<double>>(spectrum.nbins);
    const auto band = fftw_array<std::complex<double>>(spectrum.nout);
    const auto window = fftw_array<std::complex<double>>(map.nfft);
    const auto row = fftw_array<std::complex<double>>(map.nfft);
    std::fill_n(in.get(), spectrum.nfft, 0.1);
    std::fill_n(band.get(), spectrum.nout, 0.1);
    std::fill_n(window.get(), map.nfft, 0.1);
    const FftwPlan forward = plan_real_forward(spectrum.nfft, in.get(), bins.get());
    const FftwPlan back = plan_complex(spectrum.nout, band.get(), band.get(), FFTW_BACKWARD);
    const FftwPlan rows = plan_complex(map.nfft, window.get(), row.get(), FFTW_FORWARD);
    const double seconds = least_seconds([&] {
        fftw_execute(forward.get());
        fftw_execute(back.get());
        for (int32_t p = 0; p < map.npos; p++) fftw_execute(rows.get());
    });
    return seconds;
}

// ---- Spread mode -----------------------------------------------------------------------------------------------

// Least CPU time of one decode through the C interface, s.
double decode_seconds(const std::vector<double>& x, int32_t rate, double spread_hz) {
    const std::vector<float> samples(x.begin(), x.end());
    ovl_decoder* const decoder = ovl_create();
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.spread_hz = spread_hz;
    std::vector<ovl_result> results(64);
    const double seconds = least_seconds([&] {
        ovl_decode(decoder, samples.data(), static_cast<int32_t>(samples.size()), rate, &settings, results.data(),
                   static_cast<int32_t>(results.size()));
    });
    ovl_destroy(decoder);
    return seconds;
}

void report_spread() {
    constexpr int32_t RATE = 12000;
    constexpr double SECONDS = 60;
    const std::vector<double> noise = render_real(noise_scene(SECONDS, RATE));
    const std::vector<double> busy = render_real(busy_scene(SECONDS, RATE, 10));
    std::printf("%.0f s at %d Hz, CPU milliseconds, and how many times the plain mode\n", SECONDS, RATE);
    std::printf("%-10s %12s %8s %14s %8s\n", "spread, Hz", "noise", "ratio", "ten stations", "ratio");
    double plain_noise_s = 0;
    double plain_busy_s = 0;
    for (const double spread_hz : {0.0, 10.0, 20.0, 50.0}) {
        const double noise_s = decode_seconds(noise, RATE, spread_hz);
        const double busy_s = decode_seconds(busy, RATE, spread_hz);
        if (spread_hz == 0) {
            plain_noise_s = noise_s;
            plain_busy_s = busy_s;
        }
        std::printf("%-10.0f %12.1f %8.1f %14.1f %8.1f\n", spread_hz, 1e3 * noise_s, noise_s / plain_noise_s,
                    1e3 * busy_s, busy_s / plain_busy_s);
    }
}

// ---- Growth with the length of a block -------------------------------------------------------------------------

double peak_memory_mb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

double resident_mb() {
    long pages = 0;
    long resident = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(file);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024 * 1024);
}

double map_cells_per_second(int32_t rate) {
    ov_params params;
    ov_params_default(params);
    const std::vector<double> block = render_real(noise_scene(31, rate));
    BasebandOwner bb;
    MapOwner map;
    ov_baseband_real(block.data(), static_cast<int32_t>(block.size()), rate, params.center_hz, 500, bb);
    ov_spectrogram(bb, 0.256 * params.op, params.search_hz, params.spread_hz, map);
    const double cells = map.nbins * map.rate / map.hop;
    return cells;
}

// One decode of a block of noise through the C interface, in its own process, so that the peak of memory is its own.
void report_growth(double seconds, int32_t rate, double cells_per_second) {
    std::fflush(stdout);
    malloc_trim(0);
    const pid_t child = fork();
    if (child != 0) {
        int status = 0;
        waitpid(child, &status, 0);
        return;
    }
    const auto n = static_cast<std::size_t>(seconds * rate);
    std::vector<float> samples(n);
    Random random(2);
    for (float& sample : samples) sample = static_cast<float>(random.normal());
    ovl_decoder* const decoder = ovl_create();
    ovl_settings settings;
    ovl_settings_default(&settings);
    const double before_mb = resident_mb();
    const double start = cpu_seconds();
    const int32_t found = ovl_decode(decoder, samples.data(), static_cast<int32_t>(n), rate, &settings, nullptr, 0);
    const double decode_s = cpu_seconds() - start;
    const double limit_mb = (4 * cells_per_second * seconds * 2 + 16 * static_cast<double>(n)) / (1024 * 1024);
    std::printf("%9.0f %12.1f %14.3f %12.1f %12.1f%s\n", seconds, 1e3 * decode_s, 1e3 * decode_s / seconds,
                peak_memory_mb() - before_mb, limit_mb, found < 0 ? "   not decoded!" : "");
    std::fflush(stdout);
    _exit(0);
}

void report_growth() {
    const int32_t rate = 12000;
    const double cells_per_second = map_cells_per_second(rate);
    std::printf("noise at 12000 Hz; the limit is 8 bytes a map cell and 16 bytes a sample\n");
    std::printf("%9s %12s %14s %12s %12s\n", "seconds", "CPU ms", "CPU ms / s", "peak MB", "limit MB");
    for (const double seconds : {30.0, 60.0, 120.0, 300.0, 600.0, 1800.0})
        report_growth(seconds, rate, cells_per_second);
}

void report(const char* name, const Stages& s, double floor_s) {
    std::printf("%-22s %9.1f %9.1f %9.1f %9.1f %9.1f %9.1f\n", name, 1e3 * s.baseband, 1e3 * s.map, 1e3 * s.search,
                1e3 * (s.all - s.baseband - s.map - s.search), 1e3 * s.all, s.all / floor_s);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "growth") {
        report_growth();
        return 0;
    }
    if (argc > 1 && std::string(argv[1]) == "spread") {
        report_spread();
        return 0;
    }
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    const int32_t rate = argc > 2 ? std::atoi(argv[2]) : 12000;
    if (!(seconds >= 31) || rate < 4000) {
        std::fprintf(stderr, "usage: bench_decode [seconds, at least 31] [rate, at least 4000]\n");
        return 2;
    }
    ov_params params;
    ov_params_default(params);

    const std::vector<double> noise = render_real(noise_scene(seconds, rate));
    const std::vector<double> busy = render_real(busy_scene(seconds, rate, 10));
    const double floor_s = measure_floor(noise, rate);
    std::printf("%.0f s at %d Hz, CPU milliseconds; transforms alone: %.1f\n", seconds, rate, 1e3 * floor_s);
    std::printf("%-22s %9s %9s %9s %9s %9s %9s\n", "block", "baseband", "map", "search", "frames", "all", "all/floor");
    report("noise", measure(noise, rate, params), floor_s);
    report("ten stations", measure(busy, rate, params), floor_s);

    std::printf("peak memory of this program: %.0f MB\n", peak_memory_mb());
    return 0;
}
