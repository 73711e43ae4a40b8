// Noise made even over frequency and time, and what samples are worth in it.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <vector>

#include "band.h"
#include "coherent/whiten.h"

using namespace coherent;
using namespace band;

namespace {

std::optional<Whitened> whiten_samples(Samples samples) {
    const ov_baseband baseband{samples.data(), static_cast<int32_t>(samples.size()), RATE, 1500};
    return whiten(baseband, CHIP_S);
}

struct Means {
    double power = 0, weight = 0;
};
Means means_of(const Whitened& block, std::size_t first = 0, std::size_t last = SIZE_MAX) {
    Means means;
    last = std::min(last, block.samples.size());
    for (std::size_t i = first; i < last; i++) {
        means.power += static_cast<double>(std::norm(block.samples[i])) / static_cast<double>(last - first);
        means.weight += static_cast<double>(block.weights[i]) / static_cast<double>(last - first);
    }
    return means;
}

// Mean power of every eighth of the band, lowest frequency first.
std::array<double, 8> powers_of_band(const Whitened& block) {
    constexpr std::size_t LENGTH = 64;
    std::array<double, 8> powers{};
    const std::size_t windows = block.samples.size() / LENGTH;
    for (std::size_t w = 0; w < windows; w++) {
        for (std::size_t k = 0; k < LENGTH; k++) {
            std::complex<double> sum = 0;
            for (std::size_t i = 0; i < LENGTH; i++) {
                sum += std::complex<double>(block.samples[w * LENGTH + i]) *
                       std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k * i % LENGTH) / LENGTH);
            }
            powers[(k + LENGTH / 2) % LENGTH / 8] += std::norm(sum) / LENGTH / 8 / static_cast<double>(windows);
        }
    }
    return powers;
}

TEST(Whitening, WhiteNoiseComesOutWithPowerOne) {
    Random random(61);
    for (const double amplitude : {1e-9, 2.7, 1e9}) {
        Samples samples = noise(random, 60);
        for (auto& sample : samples) sample *= amplitude;
        const auto block = whiten_samples(samples);
        ASSERT_TRUE(block);
        EXPECT_EQ(block->samples.size(), samples.size());
        EXPECT_EQ(block->weights.size(), samples.size());
        EXPECT_EQ(block->chip_len, CHIP_LEN);
        EXPECT_EQ(block->rate, RATE);
        EXPECT_NEAR(means_of(*block).power, 1, 0.05) << amplitude;
        EXPECT_NEAR(means_of(*block).weight, 1, 0.06) << amplitude;
    }
}

TEST(Whitening, ColouredNoiseComesOutFlat) {
    Random random(62);
    Samples samples = noise(random, 20);
    std::complex<double> last = 0;
    for (auto& sample : samples) sample = last = sample + 0.6 * last;  // 12 dB from the edges to the middle
    const auto block = whiten_samples(samples);
    ASSERT_TRUE(block);
    for (const double power : powers_of_band(*block)) EXPECT_NEAR(power, 1, 0.12);
}

TEST(Whitening, AKeyedCarrierStays) {
    Random random(63);
    Samples samples = noise(random, 60);
    const std::vector<uint8_t> chips = random_chips(random, 119);
    const Hypothesis frame{10, -42.3, 0.01};
    add_frame(samples, chips, frame, 3);
    const auto block = whiten_samples(samples);
    ASSERT_TRUE(block);
    std::complex<double> on = 0;
    double weight = 0;
    for (std::size_t k = 0; k < chips.size(); k++) {
        for (std::size_t i = 0; chips[k] != 0 && i < CHIP_LEN; i++) {
            const std::size_t at = 5000 + k * CHIP_LEN + i;
            on += std::complex<double>(block->samples[at]) *
                  std::conj(carrier(frame, 239 * CHIP_S, static_cast<double>(at) / RATE));
            weight += static_cast<double>(block->weights[at]);
        }
    }
    EXPECT_NEAR(std::abs(on) / weight * std::sqrt(CHIP_LEN), 3, 0.3);
}

TEST(Whitening, SamplesInAnImpulseAreWorthLittle) {
    Random random(64);
    Samples samples = noise(random, 30);
    constexpr std::size_t FIRST = 7000;
    for (std::size_t i = FIRST; i < FIRST + 5; i++) samples[i] *= 300;
    const auto block = whiten_samples(samples);
    ASSERT_TRUE(block);
    for (std::size_t i = FIRST; i < FIRST + 5; i++) {
        EXPECT_LT(block->weights[i], 0.01f);
        EXPECT_LT(std::abs(block->samples[i]), 1.0f);
    }
    const Means before = means_of(*block, 0, FIRST - 2 * CHIP_LEN);
    const Means after = means_of(*block, FIRST + 2 * CHIP_LEN);
    for (const Means& means : {before, after}) {
        EXPECT_NEAR(means.power, 1, 0.08);
        EXPECT_NEAR(means.weight, 1, 0.08);
    }
}

// Samples are divided by the noise power: an impulse-free half four times as strong is worth a quarter.
TEST(Whitening, ALouderHalfIsWorthLess) {
    Random random(65);
    Samples samples = noise(random, 60);
    for (std::size_t i = 15000; i < samples.size(); i++) samples[i] *= 2;
    const auto block = whiten_samples(samples);
    ASSERT_TRUE(block);
    const Means quiet = means_of(*block, 0, 14500);
    const Means loud = means_of(*block, 15500);
    EXPECT_NEAR(quiet.weight / loud.weight, 4, 0.4);
    EXPECT_NEAR(quiet.power / loud.power, 4, 0.4);
}

TEST(Whitening, SilenceAndWhatIsTooShortAreRefused) {
    Random random(66);
    EXPECT_FALSE(whiten_samples(Samples(10000)));
    EXPECT_FALSE(whiten_samples(noise(random, 5)));
    EXPECT_TRUE(whiten_samples(noise(random, 6)));
    EXPECT_FALSE(whiten_samples({}));
    EXPECT_FALSE(whiten_samples(Samples(1, 1.0)));
}

TEST(Whitening, RatesWhoseChipsDoNotDivideAreRefused) {
    Random random(67);
    Samples samples = noise(random, 30);
    for (const double rate : {100.0, 490.0, 505.0}) {
        const ov_baseband baseband{samples.data(), static_cast<int32_t>(samples.size()), rate, 0};
        EXPECT_FALSE(whiten(baseband, CHIP_S)) << rate;
    }
}

TEST(Whitening, ASampleThatIsNotFiniteIsRefused) {
    Random random(68);
    const Samples samples = noise(random, 30);
    for (const double wrong : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        Samples changed = samples;
        changed[5000] = {wrong, 0};
        EXPECT_FALSE(whiten_samples(changed)) << wrong;
    }
}

}  // namespace
