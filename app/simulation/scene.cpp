#include "simulation/scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>

#include "liborvel.h"

namespace {

constexpr int64_t BLOCK = 1 << 15;  // frames rendered at a time
constexpr double SNR_BANDWIDTH_HZ = 2500;
constexpr double EDGE_S = 0.005;
constexpr double BURST_S = 0.001;  // in which an impulse falls to 1/e

// Streams of random numbers: the scene's own, then some for each station.
constexpr uint32_t NOISE_STREAM = 0;
constexpr uint32_t IMPULSE_STREAM = 1;
constexpr uint32_t CARRIER_STREAM = 2;
constexpr uint32_t FIRST_STATION_STREAM = 16;
constexpr uint32_t WALK_STREAM = 3;  // of them
constexpr uint32_t STATION_STREAMS = 4;

std::complex<double> unit_phasor(double turns) {
    return std::polar(1.0, 2 * std::numbers::pi * (turns - std::floor(turns)));
}

// Amplitude of a carrier of this power relative to the noise in 2500 Hz.
double carrier_amplitude(const SimScene& scene, double snr_db) {
    const double bandwidth = scene.iq ? scene.rate : 0.5 * scene.rate;
    const double power = scene.noise_rms * scene.noise_rms * SNR_BANDWIDTH_HZ / bandwidth * std::pow(10, snr_db / 10);
    return std::sqrt(scene.iq ? power : 2 * power);
}

}  // namespace

double SimStation::length_s() const {
    return static_cast<double>(chips.size()) * ovl_chip_seconds();
}

int64_t SimScene::frames() const {
    return std::max<int64_t>(std::llround(seconds * rate), 0);
}

// Something on the air. Audio has no q.
class SceneSource::Part {
  public:
    explicit Part(const SimScene& scene) : rate_(scene.rate) {}
    virtual ~Part() = default;

    // Adds frames first, first + 1, … to i and q.
    virtual void add(int64_t first, std::span<double> i, std::span<double> q) = 0;

  protected:
    double time_of(int64_t frame) const { return static_cast<double>(frame) / rate_; }

    // Adds to frame k what an I/Q receiver delivers; an audio receiver delivers its real part.
    static void put(std::span<double> i, std::span<double> q, std::size_t k, std::complex<double> value) {
        i[k] += value.real();
        if (!q.empty()) q[k] += value.imag();
    }

    double rate_;
};

class SceneSource::NoisePart : public Part {
  public:
    explicit NoisePart(const SimScene& scene)
        : Part(scene),
          rms_(scene.iq ? scene.noise_rms / std::numbers::sqrt2 : scene.noise_rms),
          random_(scene.seed, NOISE_STREAM) {}

    void add(int64_t, std::span<double> i, std::span<double> q) override {
        for (std::size_t k = 0; k < i.size(); k++) {
            i[k] += rms_ * random_.normal();
            if (!q.empty()) q[k] += rms_ * random_.normal();
        }
    }

  private:
    double rms_;
    GaussianSource random_;
};

class SceneSource::ImpulsePart : public Part {
  public:
    ImpulsePart(const SimScene& scene, const SimImpulses& impulses)
        : Part(scene),
          rate_hz_(impulses.per_second),
          start_(scene.noise_rms * std::pow(10, impulses.level_db / 20) / (scene.iq ? std::numbers::sqrt2 : 1)),
          decay_(std::exp(-1 / (BURST_S * scene.rate))),
          random_(scene.seed, IMPULSE_STREAM),
          next_s_(gap()) {}

    void add(int64_t first, std::span<double> i, std::span<double> q) override {
        for (std::size_t k = 0; k < i.size(); k++) {
            level_ *= decay_;
            while (next_s_ <= time_of(first + static_cast<int64_t>(k))) {
                level_ += start_;
                next_s_ += gap();
            }
            if (level_ < 1e-6 * start_) continue;
            i[k] += level_ * random_.normal();
            if (!q.empty()) q[k] += level_ * random_.normal();
        }
    }

  private:
    double gap() { return -std::log(1 - random_.uniform()) / rate_hz_; }

    double rate_hz_, start_, decay_;
    GaussianSource random_;
    double next_s_;
    double level_ = 0;
};

class SceneSource::CarrierPart : public Part {
  public:
    CarrierPart(const SimScene& scene, const SimCarrier& carrier, double phase_turns)
        : Part(scene),
          freq_hz_(carrier.freq_hz),
          phase_turns_(phase_turns),
          amplitude_(carrier_amplitude(scene, carrier.snr_db)) {}

    void add(int64_t first, std::span<double> i, std::span<double> q) override {
        for (std::size_t k = 0; k < i.size(); k++) {
            const double t = time_of(first + static_cast<int64_t>(k));
            put(i, q, k, amplitude_ * unit_phasor(freq_hz_ * t + phase_turns_));
        }
    }

  private:
    double freq_hz_, phase_turns_, amplitude_;
};

class SceneSource::StationPart : public Part {
  public:
    StationPart(const SimScene& scene, const SimStation& station, uint32_t stream)
        : Part(scene), station_(station), phase_turns_(GaussianSource(scene.seed, stream).uniform()) {
        const auto on = std::count(station.chips.begin(), station.chips.end(), uint8_t{1});
        const double key_down =
            on > 0 ? static_cast<double>(station.chips.size()) / static_cast<double>(on) : 0;  // over the mean power
        amplitude_ = carrier_amplitude(scene, station.snr_db) * std::sqrt(key_down);
        if (station.walk_rad > 0) walk_.emplace(station.walk_rad, scene.seed, stream + WALK_STREAM);
        if (station.fading.spread_hz > 0) channel_.emplace(station.fading, scene.seed, stream + 1);
    }

    void add(int64_t first, std::span<double> i, std::span<double> q) override {
        const double delay_s = channel_ ? channel_->delay_s() : 0;
        const double begin_s = station_.t_start - EDGE_S;
        const double end_s = station_.t_start + station_.length_s() + EDGE_S + delay_s;
        for (std::size_t k = 0; k < i.size(); k++) {
            const double t = time_of(first + static_cast<int64_t>(k));
            if (t < begin_s || t > end_s) continue;
            if (walk_) walked_turns_ = walk_->at(t - std::max(begin_s, 0.0));
            if (!channel_) {
                put(i, q, k, sent(t));
                continue;
            }
            const WattersonChannel::Gains gains = channel_->at(t - std::max(begin_s, 0.0));
            put(i, q, k, gains.direct * sent(t) + gains.delayed * sent(t - delay_s));
        }
    }

  private:
    // Keying, 0 to 1, `since` seconds after the start of the frame.
    double keying(double since) const {
        const double chip_s = ovl_chip_seconds();
        const double border = std::round(since / chip_s);  // the nearest is the start of this chip
        const double before = chip(border - 1);
        const double after = chip(border);
        const double share = std::clamp((since - border * chip_s) / EDGE_S + 0.5, 0.0, 1.0);
        return before + (after - before) * (0.5 - 0.5 * std::cos(std::numbers::pi * share));
    }

    double chip(double index) const {
        if (index < 0 || index >= static_cast<double>(station_.chips.size())) return 0;
        return station_.chips[static_cast<std::size_t>(index)];
    }

    std::complex<double> sent(double t) const {
        const double level = keying(t - station_.t_start);
        if (level == 0) return 0;
        const double from_middle = t - station_.t_start - station_.length_s() / 2;
        const double turns = (station_.freq_hz + station_.drift_hz_s * from_middle / 2) * from_middle;
        return amplitude_ * level * unit_phasor(turns + phase_turns_ + walked_turns_);
    }

    SimStation station_;
    double phase_turns_;
    double amplitude_ = 0;
    double walked_turns_ = 0;
    std::optional<PhaseWalk> walk_;
    std::optional<WattersonChannel> channel_;
};

SceneSource::SceneSource(const SimScene& scene) : iq_(scene.iq), frames_(scene.frames()) {
    if (scene.noise) parts_.push_back(std::make_unique<NoisePart>(scene));
    if (scene.impulses) parts_.push_back(std::make_unique<ImpulsePart>(scene, *scene.impulses));
    GaussianSource phases(scene.seed, CARRIER_STREAM);
    for (const SimCarrier& carrier : scene.carriers) {
        parts_.push_back(std::make_unique<CarrierPart>(scene, carrier, phases.uniform()));
    }
    uint32_t stream = FIRST_STATION_STREAM;
    for (const SimStation& station : scene.stations) {
        parts_.push_back(std::make_unique<StationPart>(scene, station, stream));
        stream += STATION_STREAMS;
    }
}

SceneSource::~SceneSource() = default;

std::span<const float> SceneSource::next() {
    const auto count = static_cast<std::size_t>(std::min(BLOCK, frames_ - done_));
    i_.assign(count, 0.0);
    q_.assign(iq_ ? count : 0, 0.0);
    for (const auto& part : parts_) part->add(done_, i_, q_);
    out_.clear();
    for (std::size_t k = 0; k < count; k++) {
        out_.push_back(static_cast<float>(i_[k]));
        if (iq_) out_.push_back(static_cast<float>(q_[k]));
    }
    done_ += static_cast<int64_t>(count);
    return out_;
}
