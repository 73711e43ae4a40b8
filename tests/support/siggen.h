// Signal generator for tests, benchmarks and the example recordings: keyed stations in white noise.
//
// SNR convention, kept everywhere: the mean power of the whole frame (keyed chips and pauses together) relative to the
// noise power in 2500 Hz. Key-down power is higher by chips / ON chips of the frame, 3.0 dB for an OPERA frame.
//   real samples  signal A²/2, noise noise_rms² · 2500 / (rate / 2)
//   I/Q           signal A²,   noise noise_rms² · 2500 / rate
// with A the key-down amplitude. The little that rounded edges take from the frame (0.03 dB) is not counted.
//
// Equal scenes give equal samples everywhere, up to the last bit of a machine's logarithm and sine: the random numbers
// are our own, seeded by the scene.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One frame on the air. Its carrier runs through pauses with unbroken phase and is off outside the frame.
struct Station {
    std::vector<uint8_t> chips;  // 1 = carrier on
    double t_start = 0;          // start of the first chip, s from the first sample; may lie before or past the block
    double freq_hz = 1500;       // in the middle of the frame; offset from the centre of the band for I/Q
    double drift_hz_s = 0;       // linear
    double snr_db = 0;           // mean power of the frame in 2500 Hz
    double phase = 0;            // of the carrier in the middle of the frame, rad
};

// A block of audio or I/Q.
struct Scene {
    int32_t rate = 12000;     // Hz
    double seconds = 60;      // length of the block
    uint64_t seed = 1;        // of the noise
    double noise_rms = 0.05;  // of the real samples, or of |I + jQ|
    bool noise = true;        // false: the stations alone, as strong as the SNR asks in that noise
    std::vector<Station> stations;
};

struct IqSamples {
    std::vector<double> i, q;
};

inline constexpr double CHIP_SECONDS = 0.128;
inline constexpr double EDGE_SECONDS = 0.005;  // length of the raised-cosine edges, centred on the chip borders

// seconds · rate samples, rounded: the noise and every station as far as it lies in the block.
std::vector<double> render_real(const Scene& scene);
IqSamples render_iq(const Scene& scene);
std::vector<float> to_float(const std::vector<double>& samples);

// Chips of an OPERA frame; throws std::invalid_argument for a callsign that cannot be encoded.
std::vector<uint8_t> opera_chips(const std::string& call);

// Uniform and normal random numbers with a fixed sequence for every seed.
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next();                             // 64 random bits
    double uniform(double low, double high);     // in [low, high)
    int32_t integer(int32_t low, int32_t high);  // in [low, high], both included
    double normal();                             // mean 0, variance 1
    std::string callsign();                      // plausible, 6 characters at most, as a user types it

  private:
    uint64_t state_;
    double spare_ = 0;
    bool has_spare_ = false;
};
