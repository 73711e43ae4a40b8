// Decode fraction against SNR: single frames at random start, frequency (±180 Hz) and drift (±0.05 Hz/s) in white
// noise, in 60 s blocks (ORVEL L: 70 s) at 12 kHz with default settings. SNR is the mean power over the frame in
// 2500 Hz.
//
//     bench_sensitivity [coherent] MODE [frames a step] [first dB] [last dB]      default 100 -29 -20
//     bench_sensitivity [coherent] MODE noise [hours]                             default 1
//
// With `coherent` that search is on, too; the columns "standard" and "half" then say what the others alone find. MODE
// is opera, orvel-s, orvel-l, or deep-N: OPERA with N known callsigns, the sender's among them. The first form prints
// the fraction decoded, other callsigns decoded, and over the decoded frames the RMS errors of time and frequency and
// the mean error of the measured SNR; last, the SNR at which half of the frames decode. The second counts what is
// decoded in noise alone, all protocols on.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "liborvel.h"
#include "siggen.h"

namespace {

struct Mode {
    uint32_t proto;
    int32_t n_known;
    double seconds;
};

struct Step {
    int32_t decoded = 0;
    int32_t standard = 0;  // of them, by the standard searches
    int32_t others = 0;
    int32_t n_snr = 0;
    double time_square = 0, freq_square = 0, snr_error = 0;
};

using Decoder = std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)>;

bool parse_mode(std::string_view name, Mode& mode) {
    if (name == "opera") mode = {OVL_OPERA, 0, 60};
    if (name == "orvel-s") mode = {OVL_ORVEL_S, 0, 60};
    if (name == "orvel-l") mode = {OVL_ORVEL_L, 0, 70};
    if (name.starts_with("deep-")) mode = {OVL_OPERA, std::atoi(name.substr(5).data()), 60};
    return mode.proto != 0 && mode.n_known <= 256;
}

std::string without_spaces(std::string text) {
    std::erase(text, ' ');
    return text;
}

// Loads n callsigns, `first` as the first.
void set_known(ovl_decoder* decoder, int32_t n, const std::string& first, Random& random) {
    std::string list = n > 0 ? first : "";
    for (int32_t i = 1; i < n; i++) list.append(" ").append(without_spaces(random.callsign()));
    ovl_set_known(decoder, list.c_str());
}

std::vector<ovl_result> decode(ovl_decoder* decoder, const Scene& scene, uint32_t protocols) {
    const std::vector<float> samples = to_float(render_real(scene));
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.protocols = static_cast<int32_t>(protocols);
    std::vector<ovl_result> results(64);
    const int32_t count = ovl_decode(decoder, samples.data(), static_cast<int32_t>(samples.size()), scene.rate,
                                     &settings, results.data(), 64);
    results.resize(static_cast<std::size_t>(std::max(0, count)));
    return results;
}

Step measure(ovl_decoder* decoder, const Mode& mode, double snr_db, int32_t frames, Random& random) {
    const double frame_s = ovl_frame_chips(mode.proto) * ovl_chip_seconds();
    Step step;
    for (int32_t i = 0; i < frames; i++) {
        const std::string call = without_spaces(random.callsign());
        Station station;
        station.chips.resize(static_cast<std::size_t>(ovl_frame_chips(mode.proto)));
        ovl_encode(mode.proto, call.c_str(), "JO62", station.chips.data(), static_cast<int32_t>(station.chips.size()));
        station.t_start = random.uniform(0.5, mode.seconds - frame_s - 0.5);
        station.freq_hz = 1500 + random.uniform(-180, 180);
        station.drift_hz_s = random.uniform(-0.05, 0.05);
        station.phase = random.uniform(0, 6.283);
        station.snr_db = snr_db;
        Scene scene;
        scene.seconds = mode.seconds;
        scene.seed = random.next();
        scene.stations = {station};

        set_known(decoder, mode.n_known, call, random);
        for (const ovl_result& result : decode(decoder, scene, mode.proto)) {
            if (result.call != call) {
                step.others++;
                continue;
            }
            step.decoded++;
            if (result.deep < OVL_COHERENT) step.standard++;
            step.time_square += std::pow(result.t_start - station.t_start, 2);
            step.freq_square += std::pow(result.freq_hz - station.freq_hz, 2);
            if (result.snr_db > -90) {
                step.n_snr++;
                step.snr_error += result.snr_db - snr_db;
            }
        }
    }
    return step;
}

// The SNR at which half of the frames decode, from steps of rising SNR.
class HalfPoint {
  public:
    void add(double snr_db, double fraction) {
        if (std::isnan(half_db_) && fraction >= 0.5 && !std::isnan(lower_db_)) {
            half_db_ = lower_db_ + (snr_db - lower_db_) * (0.5 - lower_) / (fraction - lower_);
        }
        lower_db_ = snr_db;
        lower_ = fraction;
    }
    double db() const { return half_db_; }

  private:
    double half_db_ = NAN;
    double lower_db_ = NAN;
    double lower_ = 0;
};

void measure_curve(ovl_decoder* decoder, const Mode& mode, int32_t frames, double first, double last) {
    std::printf("%8s %9s %9s %7s %9s %9s %9s\n", "SNR dB", "decoded", "standard", "others", "time ms", "freq Hz",
                "SNR error");
    Random random(20);
    HalfPoint half;
    HalfPoint standard_half;
    for (double snr_db = first; snr_db <= last + 1e-9; snr_db += 1) {
        const Step step = measure(decoder, mode, snr_db, frames, random);
        const double fraction = static_cast<double>(step.decoded) / frames;
        const double standard = static_cast<double>(step.standard) / frames;
        const double n = std::max(1, step.decoded);
        std::printf("%8.1f %9.3f %9.3f %7d %9.2f %9.3f %9.2f\n", snr_db, fraction, standard, step.others,
                    1e3 * std::sqrt(step.time_square / n), std::sqrt(step.freq_square / n),
                    step.snr_error / std::max(1, step.n_snr));
        std::fflush(stdout);
        half.add(snr_db, fraction);
        standard_half.add(snr_db, standard);
    }
    std::printf("half of the frames decode at %.2f dB; by the standard search at %.2f dB\n", half.db(),
                standard_half.db());
}

void measure_noise(ovl_decoder* decoder, const Mode& mode, double hours) {
    Random random(30);
    const auto blocks = static_cast<int32_t>(std::ceil(hours * 3600 / mode.seconds));
    int32_t decoded = 0;
    for (int32_t i = 0; i < blocks; i++) {
        Scene scene;
        scene.seconds = mode.seconds;
        scene.seed = random.next();
        set_known(decoder, mode.n_known, without_spaces(random.callsign()), random);
        decoded += static_cast<int32_t>(decode(decoder, scene, OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L).size());
    }
    std::printf("%.1f hours of noise, %d known callsigns: %d decoded\n", blocks * mode.seconds / 3600, mode.n_known,
                decoded);
}

}  // namespace

int main(int argc, char** argv) {
    const Decoder decoder(ovl_create(), ovl_destroy);
    Mode mode{};
    if (argc > 1 && std::strcmp(argv[1], "coherent") == 0 && decoder) {
        ovl_coherent settings;
        ovl_coherent_default(&settings);
        ovl_set_coherent(decoder.get(), &settings);
        argc--;
        argv++;
    }
    const bool noise = argc > 2 && std::strcmp(argv[2], "noise") == 0;
    const double amount = argc > (noise ? 3 : 2) ? std::atof(argv[noise ? 3 : 2]) : (noise ? 1 : 100);
    if (argc < 2 || !decoder || !parse_mode(argv[1], mode) || !(amount > 0 && amount < 1e6)) {
        std::fprintf(
            stderr,
            "usage: bench_sensitivity [coherent] opera|orvel-s|orvel-l|deep-N [frames a step] [first dB] [last dB]\n"
            "       bench_sensitivity [coherent] opera|orvel-s|orvel-l|deep-N noise [hours]\n");
        return 2;
    }
    if (noise) {
        measure_noise(decoder.get(), mode, amount);
    } else {
        measure_curve(decoder.get(), mode, static_cast<int32_t>(amount), argc > 3 ? std::atof(argv[3]) : -29,
                      argc > 4 ? std::atof(argv[4]) : -20);
    }
    return 0;
}
