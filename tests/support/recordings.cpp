#include "recordings.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "liborvel.h"

namespace {

// What one station sends. The callsigns have suffixes in Q, which no administration issues.
struct Entry {
    std::string call;
    double t_start, freq_hz, drift_hz_s, snr_db;
    uint32_t protocol = OVL_OPERA;
    std::string locator = "";
};

std::vector<uint8_t> chips_of(const Entry& entry) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(entry.protocol)));
    if (ovl_encode(entry.protocol, entry.call.c_str(), entry.locator.c_str(), chips.data(),
                   static_cast<int32_t>(chips.size())) < 0) {
        throw std::logic_error(entry.call + " cannot be encoded");
    }
    return chips;
}

ShippedRecording recording(std::string name, bool iq, int32_t bits, int32_t rate, double seconds, uint64_t seed,
                           const std::vector<Entry>& entries) {
    ShippedRecording made{std::move(name), iq, bits, {}, {}};
    made.scene.rate = rate;
    made.scene.seconds = seconds;
    made.scene.seed = seed;
    made.scene.noise_rms = 0.05;
    Random phases(seed + 1000);
    for (const Entry& entry : entries) {
        made.senders.push_back({entry.call, entry.protocol, entry.locator});
        made.scene.stations.push_back(
            {chips_of(entry), entry.t_start, entry.freq_hz, entry.drift_hz_s, entry.snr_db, phases.uniform(0, 6.28)});
    }
    return made;
}

}  // namespace

std::vector<ShippedRecording> shipped_recordings() {
    return {
        // A full band: from plainly audible down to far below the noise, all overlapping in time.
        recording("audio-crowded", false, 16, 8000, 45, 101,
                  {{"DL1QXA", 2.00, 1380.0, 0.00, -3},
                   {"OH3QKJ", 4.10, 1668.0, 0.02, -15},
                   {"G4QZB", 6.35, 1437.5, 0.03, -12},
                   {"F5QVB", 8.72, 1610.3, 0.00, -20},
                   {"K2QRX", 11.20, 1520.0, -0.04, -17}}),
        // Two stations 26 Hz apart, one that began before the recording and one that it cuts off.
        recording("audio-edges", false, 8, 8000, 40, 102,
                  {{"VE7QHC", -2.50, 1345.0, 0.00, -14},
                   {"SM5QWA", 3.00, 1500.0, 0.00, -8},
                   {"M0QYF", 5.25, 1526.0, 0.00, -12},
                   {"9A3QBT", 7.90, 1590.0, 0.00, -21},
                   {"EA5QGD", 12.00, 1655.4, -0.05, -16}}),
        // All three protocols side by side.
        recording("audio-modes", false, 8, 8000, 47, 105,
                  {{"9A5QQA", 0.60, 1412.0, 0.00, -18, OVL_ORVEL_S},
                   {"LY2QSD", 2.20, 1590.0, 0.02, -19, OVL_ORVEL_L, "KO24"},
                   {"OE3QTN", 4.85, 1345.5, 0.00, -19},
                   {"EI7QKA", 9.10, 1480.0, -0.03, -18, OVL_ORVEL_S}}),
        // A receiver's I/Q output at 8 bits: stations on both sides of its centre, one close to it.
        recording("iq-narrow", true, 8, 4000, 45, 103,
                  {{"LA6QTN", 1.50, -164.2, 0.00, -18},
                   {"I4QPD", 3.80, -71.0, -0.03, -10},
                   {"PA3QCW", 7.45, 4.5, 0.00, -14},
                   {"JA1QEM", 10.00, 92.6, 0.04, -19},
                   {"W7QNH", 13.10, 178.0, 0.00, 2}}),
        // The same at the lowest rate that holds the search band, with two stations 25 Hz apart and all
        // three protocols.
        recording("iq-slow", true, 16, 1000, 45, 104,
                  {{"OK2QJB", 0.75, -120.0, 0.02, -18},
                   {"HB9QLD", 5.00, 30.0, 0.00, -15, OVL_ORVEL_S},
                   {"SP4QUF", 9.30, 55.0, 0.00, -18},
                   {"ON5QGR", 2.60, 141.8, -0.02, -16, OVL_ORVEL_L, "JO20"}}),
    };
}

std::vector<int16_t> quantised_samples(const ShippedRecording& recording) {
    std::vector<double> samples;
    if (recording.iq) {
        const IqSamples pairs = render_iq(recording.scene);
        for (std::size_t k = 0; k < pairs.i.size(); ++k) {
            samples.push_back(pairs.i[k]);
            samples.push_back(pairs.q[k]);
        }
    } else {
        samples = render_real(recording.scene);
    }

    const double steps = std::ldexp(1.0, recording.bits - 1);  // of full scale
    const int32_t step = recording.bits == 8 ? 256 : 1;
    std::vector<int16_t> quantised;
    quantised.reserve(samples.size());
    for (const double sample : samples) {
        const double value = std::nearbyint(sample * steps);
        if (std::abs(value) >= steps) throw std::logic_error(recording.name + " is too loud");
        quantised.push_back(static_cast<int16_t>(static_cast<int32_t>(value) * step));
    }
    return quantised;
}
