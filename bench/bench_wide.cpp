// Seconds and memory of wide decodes; the real-time factor is seconds of recording per second of CPU.
//
//     bench_wide [blocks of I/Q]      the library's: ten minutes of audio with ten stations, and 90 s of 192 kHz; the
//                                     scan is also timed alone [2]
//     bench_wide bands [seconds]      the command's: whole bands as they come from a receiver, and the naive way, a
//                                     mixer and a filter for every slice [240]
//     bench_wide weak [frames] [dB] [protocol]
//                                     how many of weak frames all over a band decode, and of the same in narrow
//                                     searches [204, -24.5, opera]
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numbers>
#include <string>
#include <vector>

#include "decoding/decode_block.h"
#include "ovpipe.h"
#include "ovscan.h"
#include "protocol.h"
#include "siggen.h"
#include "wideband/channeliser.h"
#include "wideband/wide_decoder.h"

namespace {

constexpr double Z_SCAN = 6;
constexpr int32_t MAX_TILES = 100;
constexpr int32_t MAX_SPOTS = 256;

double cpu_seconds(clockid_t clock = CLOCK_PROCESS_CPUTIME_ID) {
    timespec now{};
    clock_gettime(clock, &now);
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

// ---- Whole bands as they come ---------------------------------------------------------------------------------------

struct OnAir {
    std::string call;
    std::vector<uint8_t> chips;
    double t, freq;
    double amplitude;  // noise has a power of 1
};

// A band with stations spread over it, each on the air every two minutes, in pieces of a quarter of a second. Its noise
// repeats itself, at random places: to make it anew would take far longer than to decode it.
class Air {
  public:
    Air(int32_t rate, double seconds, int32_t stations) : rate_(rate), random_(11), noise_(4 * at(rate)) {
        constexpr double PERIOD_S = 120;
        for (float& sample : noise_) sample = static_cast<float>(std::sqrt(0.5) * random_.normal());
        for (int32_t k = 0; k < stations; k++) {
            const double freq = rate * (-0.48 + 0.96 * (k + random_.uniform(0.1, 0.9)) / stations);
            for (double t = random_.uniform(0, PERIOD_S - 31); t + 31 < seconds; t += PERIOD_S) {
                const std::string call = random_.callsign();
                const double snr = std::pow(10, random_.uniform(-18, -8) / 10);
                frames_.push_back({call, opera_chips(call), t, freq, std::sqrt(2 * snr * 2500 / rate)});
            }
        }
    }

    std::vector<float> next() {
        const auto n = rate_ / 4;
        const auto first = static_cast<std::ptrdiff_t>(2 * random_.integer(0, 2 * rate_ - n));
        std::vector<float> samples(noise_.begin() + first, noise_.begin() + first + 2 * n);
        for (const OnAir& frame : frames_) add(frame, samples);
        begin_ += n;
        return samples;
    }

    std::size_t heard(const std::vector<Found>& found) const {
        return static_cast<std::size_t>(std::ranges::count_if(frames_, [&](const OnAir& frame) {
            return std::ranges::any_of(found, [&](const Found& spot) {
                return frame.call == spot.call && std::fabs(spot.t - frame.t) < 1 &&
                       std::fabs(spot.freq - frame.freq) < 2;
            });
        }));
    }
    std::size_t sent() const { return frames_.size(); }

  private:
    static std::size_t at(int64_t index) { return static_cast<std::size_t>(index); }

    void add(const OnAir& frame, std::vector<float>& samples) const {
        const auto count = static_cast<int64_t>(samples.size() / 2);
        for (std::size_t chip = 0; chip < frame.chips.size(); chip++) {
            const auto sample_at = [&](std::size_t c) {
                const double t = frame.t + static_cast<double>(c) * CHIP_SECONDS;
                return std::clamp<int64_t>(std::llround(t * rate_) - begin_, 0, count);
            };
            const int64_t end = sample_at(chip + 1);
            int64_t k = sample_at(chip);
            if (frame.chips[chip] == 0 || k == end) continue;
            const double turns = frame.freq / rate_;
            const double begin_turns = std::fmod(turns * static_cast<double>(begin_ + k), 1);
            std::complex<double> phasor = std::polar(frame.amplitude, 2 * std::numbers::pi * begin_turns);
            const std::complex<double> turn = std::polar(1.0, 2 * std::numbers::pi * turns);
            for (; k < end; k++) {
                samples[at(2 * k)] += static_cast<float>(phasor.real());
                samples[at(2 * k + 1)] += static_cast<float>(phasor.imag());
                phasor *= turn;
            }
        }
    }

    int32_t rate_;
    Random random_;
    std::vector<float> noise_;
    std::vector<OnAir> frames_;
    int64_t begin_ = 0;
};

Search whole_band_search() {
    Search search;
    search.iq = true;
    search.wide = true;
    return search;
}

// CPU seconds that mixing and filtering every slice by itself takes for a second of the band: the filter is as long as
// the channeliser's, and only every sample that is kept is computed. Measured on a few slices.
double naive_seconds(int32_t rate, Air& air) {
    constexpr std::size_t MEASURED = 3;
    const Channeliser channeliser(rate, true, {-0.5 * rate, 0.5 * rate});
    const double ratio = static_cast<double>(rate) / channeliser.slice_rate();
    const auto taps = static_cast<std::size_t>(58 * ratio);
    const std::vector<float> filter(taps, 1.0F / static_cast<float>(taps));
    const std::vector<float> samples = air.next();
    std::vector<float> i(samples.size() / 2);
    std::vector<float> q(samples.size() / 2);
    float sum = 0;
    const double start = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
    for (std::size_t slice = 0; slice < MEASURED; slice++) {
        const std::complex<double> turn =
            std::polar(1.0, -2 * std::numbers::pi * channeliser.slices()[slice].center_hz / rate);
        std::complex<double> phasor = 1;
        for (std::size_t k = 0; k < i.size(); k++) {
            const std::complex<float> mixed =
                std::complex<float>(samples[2 * k], samples[2 * k + 1]) * std::complex<float>(phasor);
            i[k] = mixed.real();
            q[k] = mixed.imag();
            phasor *= turn;
        }
        for (double first = 0; first + static_cast<double>(taps) < static_cast<double>(i.size()); first += ratio) {
            const auto from = static_cast<std::size_t>(first);
            float re = 0;
            float im = 0;
            for (std::size_t k = 0; k < taps; k++) {
                re += filter[k] * i[from + k];
                im += filter[k] * q[from + k];
            }
            sum += re + im;
        }
    }
    const double took = cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - start;
    if (std::isnan(sum)) std::printf("?");
    const double kept = static_cast<double>(i.size()) - static_cast<double>(taps);  // what was computed, in samples
    return took * rate / kept * static_cast<double>(channeliser.slices().size()) / MEASURED;
}

void report_band(int32_t rate, double seconds, int32_t stations) {
    Air air(rate, seconds, stations);
    const double naive_s = naive_seconds(rate, air);
    Air sent(rate, seconds, stations);
    std::vector<Found> found;
    double making_s = 0;
    const double start = cpu_seconds();
    {
        WideDecoder decoder(rate, whole_band_search(), {}, [&](const Found& spot, Standing) { found.push_back(spot); });
        for (int32_t piece = 0; piece < 4 * static_cast<int32_t>(seconds); piece++) {
            const double making = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
            const std::vector<float> samples = sent.next();
            making_s += cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - making;
            decoder.push(samples);
        }
        decoder.finish();
    }
    const double all_s = cpu_seconds() - start - making_s;
    double split_s = 0;
    Channeliser channeliser(rate, true, {-0.5 * rate, 0.5 * rate});
    for (int32_t piece = 0; piece < 20; piece++) {
        const std::vector<float> samples = air.next();
        const double begin = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
        channeliser.push(samples, [](std::size_t, std::span<const std::complex<float>>) {});
        split_s += (cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - begin) / 5;
    }
    std::printf("%9d %8d %6zu %6zu %6zu %10.2f %10.1f %10.1f %9.1f %9.0f\n", rate, stations, sent.sent(),
                sent.heard(found), found.size(), 1e3 * all_s / seconds, 1e3 * split_s, 1e3 * naive_s, seconds / all_s,
                peak_megabytes());
    std::fflush(stdout);
}

int bench_bands(double seconds) {
    std::printf("%.0f s of I/Q; CPU milliseconds for each second; most memory so far, a second of noise included\n",
                seconds);
    std::printf("%9s %8s %6s %6s %6s %10s %10s %10s %9s %9s\n", "rate", "stations", "sent", "heard", "spots", "all",
                "split", "naively", "realtime", "peak MB");
    for (const auto& [rate, stations] : {std::pair{192000, 0}, {192000, 40}, {768000, 10}, {2400000, 10}}) {
        report_band(rate, seconds, stations);
    }
    return 0;
}

// ---- Weak frames ----------------------------------------------------------------------------------------------------

int bench_weak(int32_t frames, double snr_db, const ov_protocol& protocol) {
    constexpr int32_t RATE = 48000;
    constexpr int32_t TOGETHER = 12;
    Random random(31);
    int32_t sent = 0;
    int32_t wide = 0;
    int32_t narrow = 0;
    int32_t both = 0;
    int32_t others = 0;
    for (; sent < frames; sent += TOGETHER) {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = 45 + CHIP_SECONDS * protocol.chips();
        scene.seed = random.next();
        std::vector<std::string> calls;
        std::vector<Band> bands;
        for (int32_t k = 0; k < TOGETHER; k++) {
            calls.push_back(random.callsign());
            const double freq = RATE * (-0.49 + 0.98 * (k + random.uniform(0.05, 0.95)) / TOGETHER);
            std::vector<uint8_t> chips(static_cast<std::size_t>(protocol.chips()));
            if (encode_frame(protocol, calls.back().c_str(), "JO62", chips.data()) < 0) return 1;
            scene.stations.push_back({.chips = chips,
                                      .t_start = random.uniform(1, 43),
                                      .freq_hz = freq,
                                      .drift_hz_s = random.uniform(-0.05, 0.05),
                                      .snr_db = snr_db,
                                      .phase = 0});
            bands.push_back({freq + random.uniform(-15, 15), 20});
        }
        const IqSamples iq = render_iq(scene);
        Search search = whole_band_search();
        search.protocols = static_cast<int32_t>(protocol.id);
        const auto narrow_found = decode_bands({iq.i, iq.q, RATE}, search, bands, 1);
        std::vector<Found> wide_found;
        std::vector<float> samples;
        for (std::size_t k = 0; k < iq.i.size(); k++) {
            samples.push_back(static_cast<float>(iq.i[k]));
            samples.push_back(static_cast<float>(iq.q[k]));
        }
        WideDecoder decoder(RATE, search, {}, [&](const Found& spot, Standing) { wide_found.push_back(spot); });
        decoder.push(samples);
        decoder.finish();
        others += static_cast<int32_t>(wide_found.size());
        for (const std::string& call : calls) {
            const auto same = [&](const Found& spot) { return call == spot.call; };
            const bool in_narrow = narrow_found && std::ranges::any_of(*narrow_found, same);
            const bool in_wide = std::ranges::any_of(wide_found, same);
            narrow += in_narrow ? 1 : 0;
            wide += in_wide ? 1 : 0;
            both += in_narrow && in_wide ? 1 : 0;
        }
    }
    std::printf(
        "%d frames of %s, %.1f dB, in 48 kHz: wide %d (%.1f %%), narrow %d (%.1f %%), both %d; other spots %d\n", sent,
        protocol.name, snr_db, wide, 100.0 * wide / sent, narrow, 100.0 * narrow / sent, both, others - wide);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const double number = argc > 2 ? std::atof(argv[2]) : 0;
    if (argc > 1 && std::strcmp(argv[1], "bands") == 0) return bench_bands(number > 0 ? number : 240);
    if (argc > 1 && std::strcmp(argv[1], "weak") == 0) {
        const ov_protocol* const protocol = ov_protocol_by_option(argc > 4 ? argv[4] : "opera");
        if (protocol == nullptr) {
            std::fprintf(stderr, "bench_wide: '%s' is no protocol\n", argv[4]);
            return 2;
        }
        return bench_weak(number > 0 ? static_cast<int32_t>(number) : 204, argc > 3 ? std::atof(argv[3]) : -24.5,
                          *protocol);
    }
    const int32_t blocks = argc > 1 ? std::atoi(argv[1]) : 2;
    if (blocks < 0) {
        std::fprintf(stderr, "usage: bench_wide [blocks of I/Q] | bands [seconds] | weak [frames] [dB] [protocol]\n");
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
