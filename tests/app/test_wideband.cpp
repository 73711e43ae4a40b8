// Wide bands: the channeliser against its plain definition, tones at every border, and what its slices decode to.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <span>
#include <vector>

#include "base/error.h"
#include "ovpipe.h"
#include "siggen.h"
#include "wideband/channeliser.h"

namespace {

using Complex = std::complex<double>;
using Slices = std::vector<std::vector<std::complex<float>>>;

// ---- Channeliser ----------------------------------------------------------------------------------------------------

// Everything that comes out of samples pushed `chunk` at a time.
Slices split(Channeliser& channeliser, std::span<const float> samples, std::size_t chunk = 100000) {
    Slices slices(channeliser.slices().size());
    const auto sink = [&](std::size_t slice, std::span<const std::complex<float>> more) {
        slices.at(slice).insert(slices.at(slice).end(), more.begin(), more.end());
    };
    while (!samples.empty()) {
        const std::size_t n = std::min(chunk, samples.size());
        channeliser.push(samples.first(n), sink);
        samples = samples.subspan(n);
    }
    channeliser.finish(sink);
    return slices;
}

std::vector<float> noise(std::size_t count, uint64_t seed) {
    Random random(seed);
    std::vector<float> samples(count);
    for (float& sample : samples) sample = static_cast<float>(random.normal());
    return samples;
}

std::vector<float> tone(int32_t rate, bool iq, double freq_hz, double seconds) {
    std::vector<float> samples;
    for (int64_t k = 0; k < std::llround(seconds * rate); k++) {
        const double turns = freq_hz * static_cast<double>(k) / rate;
        const double angle = 2 * std::numbers::pi * (turns - std::floor(turns));
        samples.push_back(static_cast<float>(std::cos(angle)));
        if (iq) samples.push_back(static_cast<float>(std::sin(angle)));
    }
    return samples;
}

Complex turned(double cycles) {
    return std::polar(1.0, 2 * std::numbers::pi * (cycles - std::floor(cycles)));
}

// One sample of a slice by its definition: mixed to 0 Hz, weighted with the filter's taps around its time, added up.
Complex plain_sample(std::span<const float> samples, int32_t rate, bool iq, double center_hz, int32_t slice_rate,
                     int64_t k) {
    constexpr double REACH = 29;
    constexpr double BETA = 9.07;
    const auto count = static_cast<int64_t>(samples.size() / (iq ? 2 : 1));
    const double ratio = static_cast<double>(slice_rate) / rate;
    const double middle = static_cast<double>(k) / ratio;
    Complex sum = 0;
    for (auto n = static_cast<int64_t>(middle - REACH / ratio); n <= static_cast<int64_t>(middle + REACH / ratio);
         n++) {
        const double t = (static_cast<double>(n) - middle) * ratio;
        if (n < 0 || n >= count || std::fabs(t) > REACH) continue;
        const double angle = std::numbers::pi * t;
        const double window =
            std::cyl_bessel_i(0, BETA * std::sqrt(1 - t * t / (REACH * REACH))) / std::cyl_bessel_i(0, BETA);
        const double tap = (angle == 0 ? 1 : std::sin(angle) / angle) * window * ratio;
        const auto at = static_cast<std::size_t>(n);
        const Complex sample = iq ? Complex(samples[2 * at], samples[2 * at + 1]) : Complex(samples[at]);
        sum += tap * sample * turned(-center_hz * static_cast<double>(n) / rate);
    }
    return sum;
}

double rms(std::span<const std::complex<float>> samples) {
    double sum = 0;
    for (const auto& sample : samples) sum += std::norm(Complex(sample));
    return std::sqrt(sum / static_cast<double>(samples.size()));
}

double decibels(double ratio) {
    return 20 * std::log10(ratio);
}

TEST(ChanneliserSlices, AreWhatAMixerAndAFilterEachGive) {
    for (const auto& [rate, iq] : {std::pair{48000, true}, {12000, false}, {44100, true}, {250000, true}}) {
        const std::vector<float> samples = noise(static_cast<std::size_t>(rate) * (iq ? 2 : 1) / 4, 3);
        Channeliser channeliser(rate, iq, {iq ? -0.5 * rate : 0, 0.5 * rate});
        const Slices slices = split(channeliser, samples);
        Random random(5);
        for (int32_t probe = 0; probe < 60; probe++) {
            const auto s = static_cast<std::size_t>(random.integer(0, static_cast<int32_t>(slices.size()) - 1));
            const int32_t k = random.integer(0, static_cast<int32_t>(slices[s].size()) - 1);
            const Complex expected =
                plain_sample(samples, rate, iq, channeliser.slices()[s].center_hz, channeliser.slice_rate(), k);
            EXPECT_LT(std::abs(Complex(slices[s][static_cast<std::size_t>(k)]) - expected), 2e-4 * 0.3)
                << rate << " Hz, slice " << s << ", sample " << k;
        }
    }
}

TEST(ChanneliserSlices, CoverTheBandWithoutAHole) {
    for (const int32_t rate : {8000, 12000, 44100, 48000, 192000, 225001, 250000, 1024000, 2048000, 2400000, 3200000}) {
        const Channeliser channeliser(rate, true, {-0.5 * rate, 0.5 * rate});
        EXPECT_TRUE(ov_rate_served(static_cast<uint32_t>(channeliser.slice_rate()))) << rate;
        const auto& slices = channeliser.slices();
        EXPECT_DOUBLE_EQ(slices.front().own_hz.low, -0.5 * rate);
        EXPECT_DOUBLE_EQ(slices.back().own_hz.high, 0.5 * rate);
        for (std::size_t k = 0; k < slices.size(); k++) {
            if (k > 0) {
                EXPECT_DOUBLE_EQ(slices[k].own_hz.low, slices[k - 1].own_hz.high);
            }
            const double flat = 0.45 * channeliser.slice_rate();
            EXPECT_LE(slices[k].own_hz.high + 65, slices[k].center_hz + flat) << rate;
            EXPECT_GE(slices[k].own_hz.low - 65, slices[k].center_hz - flat) << rate;
        }
    }
}

TEST(ChanneliserSlices, HoldATonePlainlyUpToTheirBordersAndNowhereElse) {
    constexpr int32_t RATE = 48000;
    const auto borders = Channeliser(RATE, true, {-0.5 * RATE, 0.5 * RATE}).slices();
    for (std::size_t k = 1; k < borders.size(); k++) {
        for (const double beside : {-65.0, 0.4}) {
            const double freq = borders[k].own_hz.low + beside;
            Channeliser channeliser(RATE, true, {-0.5 * RATE, 0.5 * RATE});
            const Slices slices = split(channeliser, tone(RATE, true, freq, 0.3));
            for (std::size_t s = 0; s < slices.size(); s++) {
                const double level = decibels(rms(std::span(slices[s]).subspan(100, 1000)));
                if (s == k || s == k - 1) {
                    EXPECT_NEAR(level, 0, 0.01) << freq << " Hz in slice " << s;
                } else {
                    EXPECT_LT(level, -80) << freq << " Hz in slice " << s;
                }
            }
        }
    }
}

// Whatever folds into the flat part of a slice must have been damped; only what lies between may pass a little.
TEST(ChanneliserSlices, FoldNothingIntoTheirFlatPart) {
    constexpr int32_t RATE = 96000;
    for (double freq = -47900; freq < 48000; freq += 1501) {
        Channeliser channeliser = Channeliser::narrow(RATE, true, 7000, 1700);
        const double rate = channeliser.slice_rate();
        const double away = std::fabs(freq - channeliser.slices()[0].center_hz);
        const Slices slices = split(channeliser, tone(RATE, true, freq, 0.2));
        const double level = decibels(rms(std::span(slices[0]).subspan(100, 500)));
        if (away <= 0.45 * rate) {
            EXPECT_NEAR(level, 0, 0.01) << freq;
        }
        if (away >= 0.55 * rate && away <= RATE - 0.55 * rate) {
            EXPECT_LT(level, -80) << freq;
        }
    }
}

TEST(ChanneliserSlices, CountTimeAndPhaseFromTheFirstSample) {
    for (const int32_t rate : {12000, 192000, 2400000}) {
        const double freq = 0.2 * rate + 123.4;
        Channeliser channeliser = Channeliser::narrow(rate, true, 0.2 * rate, 200);
        const Slices slices = split(channeliser, tone(rate, true, freq, 0.6));
        const double center = channeliser.slices()[0].center_hz;
        ASSERT_EQ(slices[0].size(), static_cast<std::size_t>(0.6 * channeliser.slice_rate()));
        for (std::size_t k = 50; k + 50 < slices[0].size(); k++) {
            const Complex expected = turned((freq - center) * static_cast<double>(k) / channeliser.slice_rate());
            ASSERT_LT(std::abs(Complex(slices[0][k]) - expected), 1e-3) << rate << ' ' << k;
        }
    }
}

TEST(ChanneliserSlices, ShowAnImpulseOnceWhereverItFalls) {
    constexpr int32_t RATE = 48000;
    for (std::size_t at = 20000; at < 23000; at += 111) {
        std::vector<float> samples(2 * 48000);
        samples[2 * at] = 1;
        Channeliser channeliser = Channeliser::narrow(RATE, true, 1000, 1700);
        const Slices slices = split(channeliser, samples);
        const auto greatest = std::ranges::max_element(slices[0], {}, [](const auto& x) { return std::norm(x); });
        EXPECT_NEAR(static_cast<double>(greatest - slices[0].begin()) / channeliser.slice_rate(),
                    static_cast<double>(at) / RATE, 0.51 / channeliser.slice_rate());
        double energy = 0;
        for (const auto& sample : slices[0]) energy += std::norm(Complex(sample));
        const double share = static_cast<double>(channeliser.slice_rate()) / RATE;  // of the band
        EXPECT_NEAR(energy / (share * share), 1, 0.06) << at;
    }
}

TEST(ChanneliserSlices, AreTheSameToTheBitHoweverTheInputIsCut) {
    for (const int32_t rate : {24000, 22051}) {
        const std::vector<float> samples = noise(2 * 30000, 9);
        Channeliser whole(rate, true, {-0.5 * rate, 0.5 * rate});
        const Slices expected = split(whole, samples, samples.size());
        EXPECT_NEAR(static_cast<double>(expected[0].size()), 30000.0 * whole.slice_rate() / rate, 1.5);
        for (const std::size_t chunk : {2, 34, 1998, 20000}) {
            Channeliser channeliser(rate, true, {-0.5 * rate, 0.5 * rate});
            EXPECT_EQ(split(channeliser, samples, chunk), expected) << rate << " Hz by " << chunk;
        }
    }
}

TEST(ChanneliserSlices, AConvertedRateKeepsFrequenciesAndTimes) {
    constexpr int32_t RATE = 225001;
    const double freq = 60123.4;
    Channeliser channeliser = Channeliser::narrow(RATE, true, 60000, 200);
    const Slices slices = split(channeliser, tone(RATE, true, freq, 1));
    for (std::size_t k = 100; k + 100 < slices[0].size(); k++) {
        const double t = static_cast<double>(k) / channeliser.slice_rate();
        ASSERT_LT(std::abs(Complex(slices[0][k]) - turned((freq - channeliser.slices()[0].center_hz) * t)), 2e-3) << k;
    }
}

TEST(ChanneliserSlices, SamplesThatAreNoNumbersAreSilence) {
    std::vector<float> samples = tone(24000, true, 3000, 0.5);
    std::vector<float> silenced = samples;
    const float wrong[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), -1e30F};
    for (std::size_t k = 0; k < samples.size(); k += 997) {
        samples[k] = wrong[k % 3];
        silenced[k] = 0;
    }
    Channeliser one(24000, true, {-12000, 12000});
    Channeliser other(24000, true, {-12000, 12000});
    EXPECT_EQ(split(one, samples), split(other, silenced));
}

TEST(ChanneliserSlices, LastAsLongAsTheInput) {
    for (const std::size_t count : {0, 1, 11, 5000, 24000}) {
        Channeliser channeliser(24000, false, {0, 12000});
        for (const auto& slice : split(channeliser, noise(count, 1))) {
            EXPECT_EQ(slice.size(), count * static_cast<std::size_t>(channeliser.slice_rate()) / 24000);
        }
    }
}

TEST(ChanneliserSlices, WhatCannotBeSplitIsRefused) {
    EXPECT_THROW(Channeliser(7999, true, {-1000, 1000}), UsageError);
    EXPECT_THROW(Channeliser(3200001, true, {-1000, 1000}), UsageError);
    EXPECT_THROW(Channeliser(48000, true, {1000, 1000}), UsageError);
    EXPECT_THROW(Channeliser::narrow(8000, true, 0, 4000), UsageError);
    EXPECT_THROW(Channeliser::narrow(8000, true, 0, std::numeric_limits<double>::quiet_NaN()), UsageError);
}

}  // namespace
