// What the coherent search decodes where nothing of it was sent, and how close it comes: blocks of 60 s with one kind
// of trap in noise.
//
//     bench_traps KIND [blocks] [seed]      default 100 blocks
//     bench_traps KIND known-N [blocks] [seed]
//
// KIND is noise, carriers, keyed (at random moments), impulses, others (frames of the protocols that are not looked
// for), unknown (frames of random bits), chirps or hum (with its harmonics), each from -27 to +20 dB in 2500 Hz. Every
// block is searched for each protocol by itself. Prints the results accepted, with their odds, and the highest log
// likelihood ratio of any word less the logarithm of their number: 25.3 is accepted when all other tests hold, too.
// Exit status 1 when anything was accepted.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <numbers>
#include <string>
#include <string_view>
#include <vector>

#include "coherent/acceptance.h"
#include "coherent/coherent.h"
#include "coherent/frames.h"
#include "coherent/search.h"
#include "coherent/whiten.h"
#include "siggen.h"

namespace {

constexpr int32_t RATE = 500;
constexpr double SECONDS = 60;
constexpr double NOISE_RMS = 0.05;
constexpr double TURN = 2 * std::numbers::pi;

using Samples = IqSamples;

// Amplitude of a steady tone with that power over the noise in 2500 Hz.
double amplitude(double snr_db) {
    return NOISE_RMS * std::sqrt(std::pow(10, snr_db / 10) * 2500 / RATE);
}

double any_level(Random& random) {
    return random.uniform(-27, 20);
}

// Adds a tone that is there when `is_on` says so.
void add_tone(Samples& samples, double level, double f, double drift, double phase,
              const std::function<bool(double)>& is_on) {
    for (std::size_t k = 0; k < samples.i.size(); k++) {
        const double t = static_cast<double>(k) / RATE;
        if (!is_on(t)) continue;
        const double angle = phase + TURN * (f * t + drift * t * t / 2);
        samples.i[k] += level * std::cos(angle);
        samples.q[k] += level * std::sin(angle);
    }
}

Station frame_of(std::vector<uint8_t> chips, Random& random) {
    Station station;
    station.chips = std::move(chips);
    const double length = static_cast<double>(station.chips.size()) * CHIP_SECONDS;
    station.t_start = random.uniform(-0.2 * length, SECONDS - 0.8 * length);
    station.freq_hz = random.uniform(-180, 180);
    station.drift_hz_s = random.uniform(-0.05, 0.05);
    station.phase = random.uniform(0, TURN);
    station.snr_db = any_level(random);
    return station;
}

std::string some_call(Random& random) {
    std::string call = random.callsign();
    std::erase(call, ' ');
    return call;
}

std::vector<uint8_t> frame_chips_of(const ov_protocol& protocol, Random& random) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(protocol.chips()));
    encode_frame(protocol, some_call(random).c_str(), "JO62", chips.data());
    return chips;
}

std::vector<uint8_t> random_chips(const ov_protocol& protocol, Random& random) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(protocol.chips()), 0);
    chips[0] = 1;
    for (std::size_t k = 1; k < chips.size(); k += 2) chips[k + static_cast<std::size_t>(random.integer(0, 1))] = 1;
    return chips;
}

Samples make_block(std::string_view kind, const ov_protocol& wanted, Random& random) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = SECONDS;
    scene.seed = random.next();
    scene.noise_rms = NOISE_RMS;
    const int32_t count = random.integer(1, 4);
    if (kind == "others" || kind == "unknown") {
        for (int32_t k = 0; k < count; k++) {
            const ov_protocol& protocol = OV_PROTOCOLS[static_cast<std::size_t>(random.integer(0, 2))];
            if (kind == "unknown") scene.stations.push_back(frame_of(random_chips(protocol, random), random));
            if (kind == "others" && protocol.id != wanted.id) {
                scene.stations.push_back(frame_of(frame_chips_of(protocol, random), random));
            }
        }
    }
    Samples samples = render_iq(scene);
    for (int32_t k = 0; k < count; k++) {
        const double level = amplitude(any_level(random));
        const double f = random.uniform(-200, 200);
        const double phase = random.uniform(0, TURN);
        if (kind == "carriers") {
            add_tone(samples, level, f, random.uniform(-0.05, 0.05), phase, [](double) { return true; });
        } else if (kind == "chirps") {
            add_tone(samples, level, f, random.uniform(-10, 10), phase, [](double) { return true; });
        } else if (kind == "keyed") {
            // Elements of one to a few dozen chips' length; half of the time at multiples of a chip.
            std::vector<double> changes;
            const bool in_step = random.integer(0, 1) != 0;
            for (double t = random.uniform(0, 1); t < SECONDS;) {
                changes.push_back(t);
                t += in_step ? CHIP_SECONDS * random.integer(1, 4) : std::exp(random.uniform(-3, 1));
            }
            add_tone(samples, level, f, random.uniform(-0.05, 0.05), phase, [&](double t) {
                return (std::upper_bound(changes.begin(), changes.end(), t) - changes.begin()) % 2 == 1;
            });
        } else if (kind == "hum") {
            const double mains = random.uniform(49.9, 50.1);
            for (int32_t harmonic = -4; harmonic <= 4; harmonic++) {
                add_tone(samples, level / (1 + std::abs(harmonic)), f + harmonic * mains, 0, phase * harmonic,
                         [](double) { return true; });
            }
        } else if (kind == "impulses") {
            const double strength = std::pow(10, random.uniform(0.5, 2)) * NOISE_RMS;
            const double rate = std::exp(random.uniform(-1, 2.5));
            for (double t = 0; t < SECONDS; t -= std::log(random.uniform(1e-9, 1)) / rate) {
                const auto at = static_cast<std::size_t>(t * RATE);
                samples.i[at] += strength * random.normal();
                samples.q[at] += strength * random.normal();
            }
        }
    }
    return samples;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::array<std::string_view, 8> KINDS = {"noise",  "carriers", "keyed",  "impulses",
                                                       "others", "unknown",  "chirps", "hum"};
    const std::string_view kind = argc > 1 ? argv[1] : "";
    if (std::ranges::find(KINDS, kind) == KINDS.end()) {
        std::fprintf(stderr,
                     "usage: bench_traps noise|carriers|keyed|impulses|others|unknown|chirps|hum [known-N] "
                     "[blocks] [seed]\n");
        return 2;
    }
    int next = 2;
    int32_t n_known = 0;
    if (argc > next && std::strncmp(argv[next], "known-", 6) == 0) n_known = std::atoi(argv[next++] + 6);
    const int32_t blocks = argc > next ? std::atoi(argv[next]) : 100;
    Random random(argc > next + 1 ? static_cast<uint64_t>(std::atoll(argv[next + 1])) : 40);

    std::vector<ovc_known> known(static_cast<std::size_t>(n_known));
    for (ovc_known& entry : known) ovc_known_init(some_call(random).c_str(), &entry);
    std::array<int32_t, OV_PROTOCOLS.size()> accepted{};
    std::array<double, OV_PROTOCOLS.size()> highest;
    highest.fill(0);
    std::array<double, OV_PROTOCOLS.size()> highest_known = highest;
    for (int32_t b = 0; b < blocks; b++) {
        for (std::size_t p = 0; p < OV_PROTOCOLS.size(); p++) {
            const ov_protocol& protocol = OV_PROTOCOLS[p];
            const Samples samples = make_block(kind, protocol, random);
            ov_params params;
            ov_params_default(params);
            params.protocols = protocol.id;
            params.center_hz = 0;
            params.known = known.data();
            params.n_known = n_known;
            ov_coherent settings;
            ov_coherent_default(settings);
            settings.highest_fit = &highest[p];
            settings.highest_known_fit = &highest_known[p];
            const auto n = static_cast<int32_t>(samples.i.size());
            for (const ov_coherent_spot& found :
                 ov_decode_coherent({samples.i.data(), samples.q.data(), n, RATE}, params, settings, {})) {
                accepted[p]++;
                std::printf("block %d %s: %s %s, method %d, odds %.1f, %.1f dB, %.2f Hz, %.2f s\n", b, protocol.name,
                            found.spot.call, found.spot.locator, found.spot.deep, found.odds, found.spot.snr,
                            found.spot.freq, found.spot.t);
                std::fflush(stdout);
            }
        }
    }
    bool fooled = false;
    for (std::size_t p = 0; p < OV_PROTOCOLS.size(); p++) {
        fooled = fooled || accepted[p] > 0;
        std::printf("%s %.*s, %d known, %d blocks: %d accepted, highest fit %.1f, of known ones %.1f\n",
                    OV_PROTOCOLS[p].name, static_cast<int>(kind.size()), kind.data(), n_known, blocks, accepted[p],
                    highest[p], highest_known[p]);
    }
    return fooled ? 1 : 0;
}
