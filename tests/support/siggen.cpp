// Signal generator: every station is one oscillator of continuous phase, switched by an envelope that is 1 in the
// middle of a keyed chip, 0 in a pause and a raised cosine in between.
#include "siggen.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string_view>

#include "ovcenc.h"

namespace {

constexpr double SNR_BANDWIDTH_HZ = 2500;

int64_t sample_count(const Scene& scene) {
    return std::max<int64_t>(0, std::llround(scene.seconds * scene.rate));
}

// Keying `t` seconds after the start of the first chip. The carrier is off before the first and after the last chip;
// the edge of a border begins half its length before it.
double envelope(const std::vector<uint8_t>& chips, double t) {
    const auto n = static_cast<int64_t>(chips.size());
    const auto level = [&](int64_t chip) {
        return chip >= 0 && chip < n && chips[static_cast<std::size_t>(chip)] != 0 ? 1.0 : 0.0;
    };
    const auto border = std::llround(t / CHIP_SECONDS);  // the nearest border is the start of this chip
    const double before = level(border - 1);
    const double after = level(border);
    const double since = t - static_cast<double>(border) * CHIP_SECONDS;
    if (since <= -EDGE_SECONDS / 2) return before;
    if (since >= EDGE_SECONDS / 2) return after;
    const double rise = 0.5 - 0.5 * std::cos(std::numbers::pi * (since / EDGE_SECONDS + 0.5));
    return before + (after - before) * rise;
}

// Mean power that the station has during its frame.
double frame_power(const Scene& scene, const Station& station, double noise_bandwidth_hz) {
    const double noise_power = scene.noise_rms * scene.noise_rms * SNR_BANDWIDTH_HZ / noise_bandwidth_hz;
    return noise_power * std::pow(10.0, station.snr_db / 10);
}

double key_down_power(const Scene& scene, const Station& station, double noise_bandwidth_hz) {
    const auto on = std::count_if(station.chips.begin(), station.chips.end(), [](uint8_t chip) { return chip != 0; });
    if (on == 0) return 0;
    return frame_power(scene, station, noise_bandwidth_hz) * static_cast<double>(station.chips.size()) /
           static_cast<double>(on);
}

// Calls put(sample, keying from 0 to 1, phase of the carrier) for each sample of the block that the station touches.
template <class Put>
void key_station(const Scene& scene, const Station& station, Put put) {
    const double rate = scene.rate;
    const double length = static_cast<double>(station.chips.size()) * CHIP_SECONDS;
    const double middle = station.t_start + length / 2;
    const auto total = static_cast<double>(sample_count(scene));
    const double first = std::clamp(std::floor((station.t_start - EDGE_SECONDS) * rate), 0.0, total);
    const double end = std::clamp(std::ceil((station.t_start + length + EDGE_SECONDS) * rate), 0.0, total);
    for (auto sample = static_cast<std::size_t>(first); sample < static_cast<std::size_t>(end); ++sample) {
        const double t = static_cast<double>(sample) / rate;
        const double keying = envelope(station.chips, t - station.t_start);
        if (keying == 0) continue;
        const double from_middle = t - middle;
        const double turns = (station.freq_hz + station.drift_hz_s * from_middle / 2) * from_middle;
        put(sample, keying, station.phase + 2 * std::numbers::pi * (turns - std::floor(turns)));
    }
}

}  // namespace

std::vector<double> render_real(const Scene& scene) {
    std::vector<double> samples(static_cast<std::size_t>(sample_count(scene)), 0.0);
    if (scene.noise) {
        Random random(scene.seed);
        for (double& sample : samples) sample = scene.noise_rms * random.normal();
    }
    for (const Station& station : scene.stations) {
        const double amplitude = std::sqrt(2 * key_down_power(scene, station, scene.rate / 2.0));
        key_station(scene, station, [&](std::size_t sample, double keying, double phase) {
            samples[sample] += amplitude * keying * std::cos(phase);
        });
    }
    return samples;
}

IqSamples render_iq(const Scene& scene) {
    const auto n = static_cast<std::size_t>(sample_count(scene));
    IqSamples samples{std::vector<double>(n, 0.0), std::vector<double>(n, 0.0)};
    if (scene.noise) {
        Random random(scene.seed);
        const double rms = scene.noise_rms / std::numbers::sqrt2;
        for (std::size_t k = 0; k < n; ++k) {
            samples.i[k] = rms * random.normal();
            samples.q[k] = rms * random.normal();
        }
    }
    for (const Station& station : scene.stations) {
        const double amplitude = std::sqrt(key_down_power(scene, station, scene.rate));
        key_station(scene, station, [&](std::size_t sample, double keying, double phase) {
            samples.i[sample] += amplitude * keying * std::cos(phase);
            samples.q[sample] += amplitude * keying * std::sin(phase);
        });
    }
    return samples;
}

std::vector<float> to_float(const std::vector<double>& samples) {
    std::vector<float> out(samples.size());
    std::transform(samples.begin(), samples.end(), out.begin(), [](double x) { return static_cast<float>(x); });
    return out;
}

std::vector<uint8_t> opera_chips(const std::string& call) {
    std::vector<uint8_t> chips(OVC_CHIPS);
    if (ovc_encode(call.c_str(), chips.data(), nullptr) != 0)
        throw std::invalid_argument("callsign cannot be encoded: " + call);
    return chips;
}

// splitmix64: a Weyl sequence through a mixing function.
uint64_t Random::next() {
    state_ += 0x9E3779B97F4A7C15u;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

double Random::uniform(double low, double high) {
    const double unit = static_cast<double>(next() >> 11) * 0x1p-53;
    const double value = low + unit * (high - low);
    return value < high ? value : low;  // rounding can reach the open end
}

int32_t Random::integer(int32_t low, int32_t high) {
    const auto count = static_cast<uint64_t>(int64_t{high} - low + 1);
    return static_cast<int32_t>(low + static_cast<int64_t>(next() % count));  // bias below 2^-32
}

// Box and Muller: two normal numbers from two uniform ones.
double Random::normal() {
    if (has_spare_) {
        has_spare_ = false;
        return spare_;
    }
    const double radius = std::sqrt(-2 * std::log(1 - uniform(0, 1)));
    const double angle = uniform(0, 2 * std::numbers::pi);
    spare_ = radius * std::sin(angle);
    has_spare_ = true;
    return radius * std::cos(angle);
}

std::string Random::callsign() {
    const auto pick = [this](std::string_view from) {
        return from[static_cast<std::size_t>(integer(0, static_cast<int32_t>(from.size()) - 1))];
    };
    constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr std::string_view DIGITS = "0123456789";
    constexpr std::string_view SINGLE = "BFGIKMNRW";                 // letters that are a prefix by themselves
    constexpr std::string_view FIRST = "ABCDEFGHIJKLMNOPRSTUVWXYZ";  // every letter but Q
    constexpr std::array<std::string_view, 8> LETTER_DIGIT = {"A4", "C3", "E7", "H8", "P4", "S5", "T7", "Z3"};

    std::string call;
    switch (integer(0, 5)) {
        case 0:
        case 1:
            call = pick(SINGLE);
            break;
        case 2:
        case 3:
            call = pick(FIRST);
            call += pick(LETTERS);
            break;
        case 4:
            call = LETTER_DIGIT[static_cast<std::size_t>(integer(0, 7))];
            break;
        default:
            call = pick("23456789");
            call += pick(LETTERS);
            break;
    }
    call += pick(DIGITS);
    for (int32_t left = integer(1, 3); left > 0; --left) call += pick(LETTERS);
    return call;
}
