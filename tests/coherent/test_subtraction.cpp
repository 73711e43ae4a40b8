// Frames taken out of a block: what is left of them, and what else is there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "band.h"
#include "coherent/subtraction.h"

using namespace coherent;
using namespace band;

namespace {

constexpr double FRAME_S = 239 * CHIP_S;

double energy_of(const Samples& samples) {
    double energy = 0;
    for (const auto& sample : samples) energy += std::norm(sample);
    return energy;
}
double db(double ratio) {
    return 10 * std::log10(ratio);
}
Samples difference(Samples a, const Samples& b) {
    std::ranges::transform(a, b, a.begin(), std::minus<>());
    return a;
}

TEST(Subtraction, LeavesNothingOfAFrameAlone) {
    Random random(71);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    for (const double late : {0.0, -0.2, -0.07, 0.11, 0.2}) {
        for (const double drift : {0.0, 0.05}) {
            Samples samples(20000);
            add_frame(samples, chips, {4.0112, -17.3, drift}, 5);
            const double before = energy_of(samples);
            const double start_s = 4.0112 + late * CHIP_S;
            const double f = -17.3 + drift * late * CHIP_S;
            take_out(samples, RATE, CHIP_LEN, {start_s, f, drift}, chips);
            EXPECT_LT(db(energy_of(samples) / before), -35) << late << " chips late, drift " << drift;
        }
    }
}

// As the standard search gives them, frequency and drift may be that far off.
TEST(Subtraction, TakesTheFrequencyAndDriftThatThePhaseShows) {
    Random random(77);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    const Hypothesis sent = {4.01, 9.1, 0.01};
    for (const auto& [off_hz, off_drift] : {std::pair{0.4, 0.0}, {-0.4, 0.0}, {0.0, 0.04}, {0.3, -0.03}}) {
        const Samples noisy = noise(random, 40);
        Samples samples = noisy;
        add_frame(samples, chips, sent, 4);
        take_out(samples, RATE, CHIP_LEN, {sent.start_s, sent.f + off_hz, sent.drift + off_drift}, chips);
        EXPECT_LT(db(energy_of(difference(samples, noisy)) / energy_of(noisy)), -13) << off_hz << ' ' << off_drift;
    }
}

TEST(Subtraction, FollowsAPhaseThatWanders) {
    Random random(72);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    Samples samples(20000);
    add_frame(samples, chips, {4, 5, 0}, 20);
    for (std::size_t i = 0; i < samples.size(); i++) {
        samples[i] *= std::polar(1.0, 1.5 * std::sin(2 * std::numbers::pi * 0.15 * static_cast<double>(i) / RATE));
    }
    const double before = energy_of(samples);
    take_out(samples, RATE, CHIP_LEN, {4, 5, 0}, chips);
    EXPECT_LT(db(energy_of(samples) / before), -20);
}

TEST(Subtraction, LeavesTheNoise) {
    Random random(73);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    for (const double amplitude : {1.0, 3.0, 30.0}) {
        const Samples noisy = noise(random, 40);
        Samples samples = noisy;
        add_frame(samples, chips, {4.03, 9.1, -0.01}, amplitude);
        take_out(samples, RATE, CHIP_LEN, {4.03, 9.1, -0.01}, chips);
        EXPECT_NEAR(db(energy_of(samples) / energy_of(noisy)), 0, 0.15) << amplitude;
        // What went beside the frame, and what stayed of it, are far below the noise.
        EXPECT_LT(db(energy_of(difference(samples, noisy)) / energy_of(noisy)), -13) << amplitude;
    }
}

TEST(Subtraction, ChangesNothingAwayFromTheFrame) {
    Random random(74);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    const Samples noisy = noise(random, 40);
    Samples samples = noisy;
    take_out(samples, RATE, CHIP_LEN, {4, 9.1, -0.01}, chips);
    const auto first = static_cast<std::size_t>((4 - 2 * CHIP_S) * RATE);
    const auto last = static_cast<std::size_t>((4 + FRAME_S + 2 * CHIP_S) * RATE);
    for (std::size_t i = 0; i < samples.size(); i++) {
        if (i < first || i >= last) {
            EXPECT_EQ(samples[i], noisy[i]) << i;
        }
    }
}

TEST(Subtraction, KeepsAWeakNeighbour) {
    Random random(75);
    const std::vector<uint8_t> strong = random_chips(random, 119);
    const std::vector<uint8_t> weak = random_chips(random, 119);
    for (const double distance_hz : {15.0, -15.0, 40.0}) {
        const Hypothesis neighbour{5.3, 4 + distance_hz, 0.01};
        Samples alone(20000);
        add_frame(alone, weak, neighbour, 2, 1.1);
        Samples samples = noise(random, 40);
        add_frame(samples, strong, {4, 4, 0}, 20);
        for (std::size_t i = 0; i < samples.size(); i++) samples[i] += alone[i];
        take_out(samples, RATE, CHIP_LEN, {4, 4, 0}, strong);
        std::complex<double> gain = 0;
        for (std::size_t i = 0; i < samples.size(); i++) gain += samples[i] * std::conj(alone[i]);
        EXPECT_NEAR(2 * db(std::abs(gain) / energy_of(alone)), 0, 1) << distance_hz << " Hz";
    }
}

TEST(Subtraction, TakesOutWhatLiesInTheBlock) {
    Random random(76);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    for (const double start_s : {-6.0, 40 - FRAME_S + 6}) {
        Samples samples(20000);
        add_frame(samples, chips, {start_s, 8, 0}, 20);
        const double before = energy_of(samples);
        take_out(samples, RATE, CHIP_LEN, {start_s, 8, 0}, chips);
        EXPECT_LT(db(energy_of(samples) / before), -30) << start_s;
    }
}

TEST(Subtraction, AFrameOutsideTheBlockChangesNothing) {
    Random random(77);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    const Samples noisy = noise(random, 10);
    for (const double start_s : {-1e6, -FRAME_S - 1, 11.0, 1e6}) {
        Samples samples = noisy;
        take_out(samples, RATE, CHIP_LEN, {start_s, 8, 0}, chips);
        EXPECT_EQ(samples, noisy) << start_s;
    }
}

}  // namespace
