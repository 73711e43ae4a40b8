// Recordings that never were on the air: stations behind fading channels, interference, impulses and noise, rendered
// block by block.
//
// The SNR of a station is the mean power of its frame (keyed chips and pauses together) relative to the noise power in
// 2500 Hz, before fading; that of a carrier is its power against the same noise. Each part has its own stream of random
// numbers: one more station changes neither the noise nor the other stations.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "simulation/channel.h"
#include "simulation/gaussian.h"

// One frame. Its carrier runs through pauses with unbroken phase; chips have raised-cosine edges of 5 ms, centred on
// their borders.
struct SimStation {
    std::string call;
    uint32_t protocol = 0;       // OVL_ id
    std::string locator;         // of an ORVEL L frame, else empty
    std::vector<uint8_t> chips;  // 1 = carrier on
    double t_start = 0;          // s from the first sample; a frame may extend past either end
    double freq_hz = 1500;       // in the middle of the frame; offset from the centre of the band for I/Q
    double drift_hz_s = 0;       // linear
    double snr_db = 0;
    double walk_rad = 0;  // random walk of its phase: standard deviation after a second
    Fading fading;

    double length_s() const;
};

struct SimCarrier {
    double freq_hz, snr_db;
};

// Bursts of white noise that decay within a few milliseconds, at random moments.
struct SimImpulses {
    double per_second;
    double level_db;  // of their first moment over the rms of the noise
};

struct SimScene {
    int32_t rate = 12000;  // Hz
    double seconds = 60;
    bool iq = false;
    uint64_t seed = 1;
    double noise_rms = 0.05;  // of the real samples, or of |I + jQ|; full scale is 1
    bool noise = true;        // false: all the rest alone, as strong as it would be in that noise
    std::vector<SimStation> stations;
    std::vector<SimCarrier> carriers;
    std::optional<SimImpulses> impulses;

    int64_t frames() const;  // samples, or I/Q pairs
};

// The samples of a scene, from the first to the last.
class SceneSource {
  public:
    explicit SceneSource(const SimScene& scene);
    ~SceneSource();
    SceneSource(const SceneSource&) = delete;
    SceneSource& operator=(const SceneSource&) = delete;

    // The next samples, I and Q interleaved; none at the end. They are valid until the next call.
    std::span<const float> next();

  private:
    class Part;
    class NoisePart;
    class ImpulsePart;
    class CarrierPart;
    class StationPart;

    bool iq_;
    int64_t frames_;
    int64_t done_ = 0;
    std::vector<std::unique_ptr<Part>> parts_;
    std::vector<double> i_, q_;
    std::vector<float> out_;
};
