// Decode fraction against SNR: single frames at random start, frequency (±180 Hz) and drift (±0.05 Hz/s) in white
// noise, 60 s blocks at 12 kHz, default settings. SNR is the mean power over the frame in 2500 Hz.
//
//     bench_sensitivity [frames a step] [first dB] [last dB]      default 100 -28 -18
//
// Prints the fraction decoded, wrong callsigns, and over the decoded frames the root mean square errors of time and
// frequency and the mean error of the reported SNR; last, the SNR at which half of the frames decode.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "liborvel.h"
#include "siggen.h"

namespace {

struct Step {
    int32_t decoded = 0;
    int32_t wrong = 0;
    double time_square = 0, freq_square = 0, snr_error = 0;
};

std::string without_spaces(std::string text) {
    std::erase(text, ' ');
    return text;
}

Step measure(ovl_decoder* decoder, double snr_db, int32_t frames, Random& random) {
    Step step;
    for (int32_t i = 0; i < frames; i++) {
        const std::string call = random.callsign();
        Station station;
        station.chips = opera_chips(call);
        station.t_start = random.uniform(0.5, 28.5);
        station.freq_hz = 1500 + random.uniform(-180, 180);
        station.drift_hz_s = random.uniform(-0.05, 0.05);
        station.phase = random.uniform(0, 6.283);
        station.snr_db = snr_db;
        Scene scene;
        scene.seed = random.next();
        scene.stations = {station};
        const std::vector<float> samples = to_float(render_real(scene));

        ovl_settings settings;
        ovl_settings_default(&settings);
        ovl_result results[64];
        const int32_t count = ovl_decode(decoder, samples.data(), static_cast<int32_t>(samples.size()), scene.rate,
                                         &settings, results, 64);
        for (int32_t k = 0; k < count; k++) {
            if (results[k].call != without_spaces(call)) {
                step.wrong++;
                continue;
            }
            step.decoded++;
            step.time_square += std::pow(results[k].t_start - station.t_start, 2);
            step.freq_square += std::pow(results[k].freq_hz - station.freq_hz, 2);
            step.snr_error += results[k].snr_db - snr_db;
        }
    }
    return step;
}

}  // namespace

int main(int argc, char** argv) {
    const int32_t frames = argc > 1 ? std::atoi(argv[1]) : 100;
    const double first = argc > 2 ? std::atof(argv[2]) : -28;
    const double last = argc > 3 ? std::atof(argv[3]) : -18;
    const std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)> decoder(ovl_create(), ovl_destroy);
    if (frames < 1 || !decoder) {
        std::fprintf(stderr, "usage: bench_sensitivity [frames a step] [first dB] [last dB]\n");
        return 2;
    }

    std::printf("%8s %9s %6s %9s %9s %9s\n", "SNR dB", "decoded", "wrong", "time ms", "freq Hz", "SNR error");
    Random random(20);
    double half_db = NAN;
    double lower_db = NAN;
    double lower = 0;
    for (double snr_db = first; snr_db <= last + 1e-9; snr_db += 1) {
        const Step step = measure(decoder.get(), snr_db, frames, random);
        const double fraction = static_cast<double>(step.decoded) / frames;
        const double n = std::max(1, step.decoded);
        std::printf("%8.1f %9.3f %6d %9.2f %9.3f %9.2f\n", snr_db, fraction, step.wrong,
                    1e3 * std::sqrt(step.time_square / n), std::sqrt(step.freq_square / n), step.snr_error / n);
        std::fflush(stdout);
        if (std::isnan(half_db) && fraction >= 0.5 && !std::isnan(lower_db)) {
            half_db = lower_db + (snr_db - lower_db) * (0.5 - lower) / (fraction - lower);
        }
        lower_db = snr_db;
        lower = fraction;
    }
    std::printf("half of the frames decode at %.2f dB\n", half_db);
    return 0;
}
