// The ionosphere as a narrow band sees it, after C. C. Watterson, J. R. Juroshek and W. D. Bensema, "Experimental
// Confirmation of an HF Channel Model", IEEE Transactions on Communication Technology 18 (1970).
//
// The signal arrives over two paths of equal mean power, one later than the other. The gain of each path is a complex
// Gaussian process with a Gaussian Doppler spectrum: its magnitude fades by Rayleigh's law. The mean power of the whole
// is that of the signal, so that an SNR holds on average over many fades.
#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "simulation/gaussian.h"

struct Fading {
    double spread_hz = 0;  // Doppler spread: twice the standard deviation of the Doppler spectrum; 0 = a steady channel
    double delay_ms = 0;   // of the second path
};

inline constexpr double MAX_SPREAD_HZ = 50;
inline constexpr double MAX_DELAY_MS = 100;

// A named channel: "good", "moderate" or "poor", the three of ITU-R F.520, which ITU-R F.1487 calls quiet, moderate and
// disturbed at middle latitudes.
std::optional<Fading> find_fading(std::string_view name);

// The gain of one path. Mean power 1; the first value is drawn like any other.
class PathGain {
  public:
    PathGain(double spread_hz, uint64_t seed, uint32_t stream);

    // `t` seconds after the first moment, which is at 0 or later; must not fall from one call to the next.
    std::complex<double> at(double t);

  private:
    // Gains are formed at nodes so close together that a straight line between them loses nothing: by linear
    // interpolation 0.007 dB of the mean power.
    static constexpr int32_t NODES_PER_SIGMA = 64;  // nodes in a second for each Hz of standard deviation
    static constexpr int32_t HALF_LENGTH = 32;      // of the filter, nodes; its ends are 86 dB down
    static constexpr std::size_t LENGTH = 2 * HALF_LENGTH + 1;

    std::complex<double> next_node();

    double nodes_per_second_;
    GaussianSource random_;
    std::array<double, LENGTH> taps_;
    std::array<std::complex<double>, LENGTH> white_;  // circular
    std::size_t oldest_ = 0;
    std::complex<double> before_, after_;  // the nodes around the last moment
    int64_t node_ = 0;                     // index of before_
};

// Both paths.
class WattersonChannel {
  public:
    WattersonChannel(const Fading& fading, uint64_t seed, uint32_t stream);

    struct Gains {
        std::complex<double> direct, delayed;  // the sum of their mean powers is 1
    };
    Gains at(double t);
    double delay_s() const { return delay_s_; }

  private:
    PathGain direct_, delayed_;
    double delay_s_;
};

inline constexpr double MAX_WALK_RAD = 10;

// An oscillator whose phase is a random walk.
class PhaseWalk {
  public:
    // `rad`: the standard deviation of the phase after a second.
    PhaseWalk(double rad, uint64_t seed, uint32_t stream) : step_rad_(rad * STEP_ROOT_S), random_(seed, stream) {}

    // The phase in turns `t` seconds after the first moment, which is at 0 or later; must not fall from one call to the
    // next.
    double at(double t);

  private:
    static constexpr double STEP_S = 0.01;  // between steps; straight lines join them
    static constexpr double STEP_ROOT_S = 0.1;

    double step_rad_;
    GaussianSource random_;
    double before_ = 0;
    double after_ = 0;
    int64_t node_ = -1;  // index of before_
};
