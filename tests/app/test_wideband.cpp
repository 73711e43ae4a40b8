// Wide bands: the channeliser against its plain definition, tones at every border, and what its slices decode to.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "decoding/decode_block.h"
#include "failing_memory.h"
#include "liborvel.h"
#include "ovpipe.h"
#include "ovscan.h"
#include "siggen.h"
#include "spots/spot_log.h"
#include "wideband/channeliser.h"
#include "wideband/look.h"
#include "wideband/slice_store.h"
#include "wideband/wide_decoder.h"

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
        for (const std::size_t chunk : {2U, 34U, 1998U, 20000U}) {
            Channeliser channeliser(rate, true, {-0.5 * rate, 0.5 * rate});
            EXPECT_EQ(split(channeliser, samples, chunk), expected) << rate << " Hz by " << chunk;
        }
    }
}

TEST(ChanneliserSlices, ABasebandHasExactlyTheRateAskedFor) {
    for (const auto& [rate, lower] : {std::pair{4000, 250}, {4410, 250}, {4032, 500}, {4000, 1000}}) {
        Channeliser channeliser = Channeliser::baseband(rate, 1234.5, lower);
        EXPECT_EQ(channeliser.slice_rate(), lower);
        const double freq = 1234.5 + 0.2 * lower;
        const Slices slices = split(channeliser, tone(rate, true, freq, 1.5));
        const double center = channeliser.slices()[0].center_hz;
        EXPECT_NEAR(center, 1234.5, 1);
        ASSERT_EQ(slices[0].size(), static_cast<std::size_t>(1.5 * lower));
        for (std::size_t k = 50; k + 50 < slices[0].size(); k++) {
            const Complex expected = turned((freq - center) * static_cast<double>(k) / lower);
            ASSERT_LT(std::abs(Complex(slices[0][k]) - expected), 1e-3) << rate << ' ' << k;
        }
    }
}

TEST(ChanneliserSlices, BegunInTheMiddleAreTheSameToTheBit) {
    for (const auto& [rate, iq] : {std::pair{48000, true}, {44100, true}, {64000, false}, {250000, true}}) {
        const std::size_t width = iq ? 2 : 1;
        const std::vector<float> samples = noise(width * 80000, 7);
        const Range band = {iq ? -0.5 * rate : 0, 0.5 * rate};
        Channeliser whole(rate, iq, band);
        const Slices expected = split(whole, samples);
        const auto last = static_cast<int64_t>(expected[0].size()) - 1;
        for (const int64_t sample : {int64_t{0}, int64_t{1}, int64_t{255}, last / 3, last / 2, last}) {
            Channeliser part(rate, iq, band);
            const auto [input, slice] = part.begin_at(sample);
            EXPECT_LE(slice, sample);
            EXPECT_GT(slice, sample - 512);
            const Slices found = split(part, std::span(samples).subspan(width * static_cast<std::size_t>(input)));
            for (std::size_t k = 0; k < found.size(); k++) {
                const std::vector<std::complex<float>> rest(expected[k].begin() + slice, expected[k].end());
                EXPECT_EQ(found[k], rest) << rate << " Hz, from " << sample << ", slice " << k;
            }
        }
    }
}

TEST(ChanneliserSlices, AConvertedRateBeginsNowhereElse) {
    const auto [input, slice] = Channeliser(22051, true, {-10000, 10000}).begin_at(5000);
    EXPECT_EQ(input, 0);
    EXPECT_EQ(slice, 0);
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
    for (const std::size_t count : {0U, 1U, 11U, 5000U, 24000U}) {
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
    EXPECT_THROW(Channeliser::baseband(4000, 0, 4000), UsageError);
    EXPECT_THROW(Channeliser::narrow(8000, true, 0, std::numeric_limits<double>::quiet_NaN()), UsageError);
}

TEST(ChanneliserSlices, MemoryThatRunsOutIsThrownAndNothingIsLost) {
    const std::vector<float> samples = noise(2 * 8000, 1);
    const int64_t most = refuse_each_request([&](FailingMemory& memory) {
        bool thrown = false;
        memory.watch([&] {
            try {
                Channeliser channeliser(22051, true, {-5000, 5000});
                channeliser.push(samples, [](std::size_t, std::span<const std::complex<float>>) {});
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
        });
        EXPECT_EQ(thrown, memory.has_refused());
    });
    EXPECT_GT(most, 10);
}

// ---- What is kept of the slices -------------------------------------------------------------------------------------

TEST(SliceStore, TakesWhatIsNextToNothingForSilence) {
    for (const float level : {1e-40F, 1e-36F}) {
        SliceStore store(1, 2 * SliceStore::CHUNK);
        store.append(0, std::vector<std::complex<float>>(SliceStore::CHUNK, {level, -level}));
        std::vector<std::complex<float>> out(1, 1);
        store.copy(0, 0, out);
        EXPECT_LE(std::abs(out[0]), 2 * level) << level;
        EXPECT_GE(out[0].real(), 0) << level;
    }
}

TEST(SliceStore, GivesBackTheNewestSamplesOfEverySliceAlmostAsTheyCame) {
    SliceStore store(2, 2000);
    std::vector<std::complex<float>> sent[2];
    Random random(3);
    for (int32_t piece = 0; piece < 60; piece++) {
        for (const std::size_t slice : {0U, 1U}) {
            std::vector<std::complex<float>> samples;
            for (int32_t k = 0; k < 198; k++) {
                const double level = slice == 0 ? 1 : 1e-6 * (1 + piece);
                samples.emplace_back(static_cast<float>(level * random.normal()),
                                     static_cast<float>(level * random.normal()));
            }
            store.append(slice, samples);
            sent[slice].insert(sent[slice].end(), samples.begin(), samples.end());
        }
        for (const std::size_t slice : {0U, 1U}) {
            const int64_t stored = store.stored(slice);
            const int64_t first = store.oldest(stored);
            EXPECT_EQ(stored, std::ssize(sent[slice]) / SliceStore::CHUNK * SliceStore::CHUNK);
            EXPECT_GE(stored - first, std::min<int64_t>(stored, 2000));
            std::vector<std::complex<float>> back(static_cast<std::size_t>(stored - first));
            store.copy(slice, first, back);
            for (std::size_t k = 0; k < back.size(); k++) {
                const auto& expected = sent[slice][static_cast<std::size_t>(first) + k];
                EXPECT_LT(std::abs(back[k] - expected),
                          1e-4F * (slice == 0 ? 5.0F : 5e-6F * static_cast<float>(1 + piece)));
            }
        }
    }
}

TEST(SliceStore, BegunInTheMiddleHoldsTheSameToTheBit) {
    std::vector<std::complex<float>> samples;
    Random random(4);
    for (int32_t k = 0; k < 5000; k++) {
        samples.emplace_back(static_cast<float>(random.normal()), static_cast<float>(random.normal()));
    }
    SliceStore whole(1, 5000);
    whole.append(0, samples);
    for (const int64_t first : {512, 513, 1000, 3000}) {
        SliceStore part(1, 1000, first);
        part.append(0, std::span(samples).subspan(static_cast<std::size_t>(first)));
        EXPECT_EQ(part.stored(0), whole.stored(0));
        std::vector<std::complex<float>> expected(900);
        std::vector<std::complex<float>> back(900);
        whole.copy(0, 3700, expected);
        part.copy(0, 3700, back);
        EXPECT_EQ(back, expected) << first;
    }
}

TEST(SliceStore, SilenceStaysSilenceAndFillsTheLastChunk) {
    SliceStore store(1, 1000);
    store.append(0, std::vector<std::complex<float>>(700));
    EXPECT_EQ(store.stored(0), 512);
    store.complete(0);
    store.complete(0);
    EXPECT_EQ(store.stored(0), 1024);
    std::vector<std::complex<float>> back(1024, {1, 1});
    store.copy(0, 0, back);
    EXPECT_EQ(back, std::vector<std::complex<float>>(1024));
}

// ---- Looking for what is keyed --------------------------------------------------------------------------------------

std::vector<std::complex<float>> as_slice(const IqSamples& samples) {
    std::vector<std::complex<float>> slice;
    for (std::size_t k = 0; k < samples.i.size(); k++) {
        slice.emplace_back(static_cast<float>(samples.i[k]), static_cast<float>(samples.q[k]));
    }
    return slice;
}

std::vector<uint8_t> chips_of(int32_t protocol, const std::string& call) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(static_cast<uint32_t>(protocol))));
    EXPECT_GT(ovl_encode(static_cast<uint32_t>(protocol), call.c_str(), "JO62", chips.data(),
                         static_cast<int32_t>(chips.size())),
              0);
    return chips;
}

Look::Samples reader_of(const std::vector<std::complex<float>>& slice) {
    return [&slice](int64_t first, std::span<std::complex<float>> out) {
        std::copy_n(slice.begin() + first, out.size(), out.begin());
    };
}

TEST(LookForKeying, FindsWhatTheScanFindsAndWhenItWasKeyed) {
    Random random(7);
    for (int32_t scenes = 0; scenes < 3; scenes++) {
        Scene scene;
        scene.rate = 4000;
        scene.seconds = 90;
        scene.seed = random.next();
        for (const double freq : {-1500.0, -700.0, 0.0, 650.0, 1400.0}) {
            Station sent;
            sent.chips = opera_chips(random.callsign());
            sent.t_start = random.uniform(0, 59);
            sent.freq_hz = freq + random.uniform(-100, 100);
            sent.snr_db = random.uniform(-23, -5);
            scene.stations.push_back(sent);
        }
        const IqSamples samples = render_iq(scene);
        std::vector<ov_hit> hits(100);
        const int32_t count = ov_scan(samples.i.data(), samples.q.data(), static_cast<int32_t>(samples.i.size()), 4000,
                                      CHIP_SECONDS, -1750, 1750, 6, 30, 100, hits.data(), nullptr, 0);
        Look look(4000, 1790);
        const auto slice = as_slice(samples);
        const int64_t windows = look.windows_in(0, std::ssize(slice));
        const auto keyed = look.find(reader_of(slice), {0, windows}, {0, windows}, {-1750, 1750}, 6);
        for (const Station& sent : scene.stations) {
            EXPECT_TRUE(std::any_of(hits.begin(), hits.begin() + count,
                                    [&](const ov_hit& hit) { return std::fabs(hit.freq_hz - sent.freq_hz) < 5; }));
            const auto found = std::ranges::find_if(
                keyed, [&](const Keyed& key) { return std::fabs(key.freq_hz - sent.freq_hz) < 8; });
            ASSERT_NE(found, keyed.end()) << sent.freq_hz;
            EXPECT_NEAR(static_cast<double>(found->window) * LOOK_STEP_S, sent.t_start, 3);
        }
    }
}

// Twice where one bin beside it says this block and the other the next.
TEST(LookForKeying, NeighbouringBlocksDoNotMissAFrameBetweenThem) {
    Random random(9);
    for (const double start : {20.0, 33.0, 35.8, 36.2, 50.0}) {
        Scene scene;
        scene.rate = 4000;
        scene.seconds = 125;
        scene.seed = random.next();
        scene.stations.push_back({.chips = opera_chips("K2QRX"), .t_start = start, .freq_hz = 300, .snr_db = -16});
        const auto slice = as_slice(render_iq(scene));
        Look look(4000, 1790);
        int32_t finds = 0;
        for (const int64_t step : {0, 1}) {
            const int64_t first = std::max<int64_t>(0, 560 * step - LOOK_AROUND);
            const int64_t end =
                std::min(560 * (step + 1) + LOOK_AROUND + LOOK_RUN, look.windows_in(0, std::ssize(slice)));
            for (const Keyed& key :
                 look.find(reader_of(slice), {first, end}, {560 * step, 560 * (step + 1)}, {-1750, 1750}, 6)) {
                finds += std::fabs(key.freq_hz - 300) < 5 ? 1 : 0;
            }
        }
        EXPECT_GE(finds, 1) << start;
        EXPECT_LE(finds, start == 35.8 ? 2 : 1) << start;
    }
}

TEST(LookForKeying, AFindSpansTheRunsOfWhatIsKeyedBesideIt) {
    Scene scene;
    scene.rate = 4000;
    scene.seconds = 80;
    scene.stations.push_back({.chips = opera_chips("K2QRX"), .t_start = 20, .freq_hz = 300, .snr_db = -10});
    scene.stations.push_back({.chips = opera_chips("M0QYF"), .t_start = 26, .freq_hz = 312, .snr_db = -16});
    const auto slice = as_slice(render_iq(scene));
    Look look(4000, 1790);
    const int64_t windows = look.windows_in(0, std::ssize(slice));
    const auto keyed = look.find(reader_of(slice), {0, windows}, {0, windows}, {-1750, 1750}, 6);
    ASSERT_EQ(keyed.size(), 1U);
    EXPECT_NEAR(keyed[0].freq_hz, 300, 4);
    EXPECT_NEAR(static_cast<double>(keyed[0].window) * LOOK_STEP_S, 20, 0.3);
    EXPECT_NEAR(static_cast<double>(keyed[0].first_window) * LOOK_STEP_S, 20, 2);
    EXPECT_NEAR(static_cast<double>(keyed[0].last_window) * LOOK_STEP_S, 26, 2);
}

// What is left beside a frame is worth a search where something is keyed in the middle of it and at the time.
TEST(LookForKeying, TellsWhetherSomethingIsKeyedInABaseband) {
    constexpr double HALF_HZ = 33;
    Scene scene;
    scene.rate = 4000;
    scene.seconds = 80;
    Look look(4000, 1790);
    const auto slice = as_slice(render_iq(scene));
    const int64_t windows = look.windows_in(0, std::ssize(slice));
    EXPECT_TRUE(look.find(reader_of(slice), {0, windows}, {0, windows}, {-1750, 1750}, 4.5).empty());
    const auto is_keyed = [&](double freq_hz, double snr_db, const Windows& block) {
        Scene narrow = scene;
        narrow.rate = 250;
        narrow.stations.push_back({.chips = opera_chips("K2QRX"), .t_start = 20, .freq_hz = freq_hz, .snr_db = snr_db});
        IqSamples samples = render_iq(narrow);
        std::vector<Complex> baseband(samples.i.size());
        for (std::size_t k = 0; k < baseband.size(); k++) baseband[k] = {samples.i[k], samples.q[k]};
        return look.is_keyed({baseband.data(), static_cast<int32_t>(baseband.size()), 250, 0}, HALF_HZ, block);
    };
    const Windows all = {0, 100000};
    EXPECT_FALSE(is_keyed(5, -60, all));
    for (const double freq_hz : {-30.0, 0.0, 5.0, 12.0, 30.0}) EXPECT_TRUE(is_keyed(freq_hz, -20, all)) << freq_hz;
    EXPECT_FALSE(is_keyed(60, -20, all));
    EXPECT_FALSE(is_keyed(5, -20, {-100, 290}));  // of 64 ms: it has not begun
    EXPECT_FALSE(is_keyed(5, -20, {820, 100000}));
    EXPECT_TRUE(is_keyed(5, -20, {0, 20}));  // too short to tell
}

TEST(LookForKeying, NoiseCarriersSilenceAndTooFewSamplesHoldNothing) {
    Look look(4000, 1790);
    Scene scene;
    scene.rate = 4000;
    scene.seconds = 60;
    auto slice = as_slice(render_iq(scene));
    for (const double level : {0.0, 0.01, 1.0}) {
        for (std::size_t k = 0; k < slice.size(); k++) {
            slice[k] += std::complex<float>(level * turned(0.123 * static_cast<double>(k)));
        }
        const int64_t windows = look.windows_in(0, std::ssize(slice));
        EXPECT_TRUE(look.find(reader_of(slice), {0, windows}, {0, windows}, {-1750, 1750}, 6).empty()) << level;
    }
    const std::vector<std::complex<float>> silence(4000 * 40);
    EXPECT_TRUE(look.find(reader_of(silence), {0, 600}, {0, 600}, {-1750, 1750}, 6).empty());
    EXPECT_TRUE(look.find(reader_of(silence), {0, 20}, {0, 20}, {-1750, 1750}, 6).empty());
    EXPECT_EQ(look.windows_in(0, 511), 0);
    EXPECT_EQ(look.windows_in(0, 512), 1);
}

// ---- All of it ------------------------------------------------------------------------------------------------------

struct Sent {
    int32_t protocol;
    std::string call;
    double t, freq, snr;
};

std::vector<float> on_air(int32_t rate, double seconds, uint64_t seed, const std::vector<Sent>& all, bool iq = true) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = seed;
    for (const Sent& sent : all) {
        Station station;
        station.chips = chips_of(sent.protocol, sent.call);
        station.t_start = sent.t;
        station.freq_hz = sent.freq;
        station.snr_db = sent.snr;
        scene.stations.push_back(station);
    }
    if (!iq) return to_float(render_real(scene));
    const IqSamples samples = render_iq(scene);
    std::vector<float> interleaved;
    for (std::size_t k = 0; k < samples.i.size(); k++) {
        interleaved.push_back(static_cast<float>(samples.i[k]));
        interleaved.push_back(static_cast<float>(samples.q[k]));
    }
    return interleaved;
}

Search wide_search(bool iq = true) {
    Search search;
    search.iq = iq;
    search.wide = true;
    return search;
}

std::vector<Found> decode(int32_t rate, std::span<const float> samples, const Search& search,
                          const WideOptions& options = {}, std::size_t chunk = 1 << 20) {
    std::vector<Found> found;
    WideDecoder decoder(rate, search, options, [&](const Found& spot, Standing) { found.push_back(spot); });
    while (!samples.empty()) {
        const std::size_t n = std::min(chunk, samples.size());
        decoder.push(samples.first(n));
        samples = samples.subspan(n);
    }
    decoder.finish();
    EXPECT_EQ(decoder.problem(), "");
    return found;
}

// Every bit of a find.
std::string text_of(const Found& found) {
    std::string text = std::string(found.call) + ' ' + found.locator;
    for (const double value : {found.t, found.freq, found.snr, found.drift, found.z, found.score, found.gap,
                               found.contrast, found.odds, found.off_excess}) {
        text += ' ' + std::to_string(std::bit_cast<uint64_t>(value));
    }
    for (const int32_t value : {found.rank, found.shift, found.chips_ok, found.deep, found.protocol}) {
        text += ' ' + std::to_string(value);
    }
    return text;
}

std::vector<std::string> texts_of(const std::vector<Found>& found) {
    std::vector<std::string> texts;
    for (const Found& spot : found) texts.push_back(text_of(spot));
    return texts;
}

// What each of some steps finds, of samples of which only those that count are pushed.
std::vector<std::vector<Found>> decode_steps(int32_t rate, std::span<const float> samples, const Search& search,
                                             int64_t first, int64_t end) {
    std::vector<std::vector<Found>> steps;
    WideDecoder decoder(rate, search, {.jobs = 2},
                        WidePart{first, end, [&](std::vector<Found> found) { steps.push_back(std::move(found)); }});
    const std::size_t width = search.iq ? 2 : 1;
    samples = samples.subspan(std::min(samples.size(), width * static_cast<std::size_t>(decoder.first_sample())));
    while (!samples.empty() && decoder.takes_more()) {
        const std::size_t n = std::min(width * 10007, samples.size());
        decoder.push(samples.first(n));
        samples = samples.subspan(n);
    }
    decoder.finish();
    return steps;
}

// That however the steps are divided each finds the same, and that their log is what the whole search hands out.
void expect_same_in_parts(int32_t rate, std::span<const float> samples, const Search& search) {
    const double seconds = static_cast<double>(samples.size() / (search.iq ? 2 : 1)) / rate;
    const int64_t most = WideDecoder::steps_in(seconds);
    const auto whole = decode_steps(rate, samples, search, 0, most + 9);
    const auto count = static_cast<int64_t>(whole.size());
    EXPECT_LE(count, most) << seconds << " s";
    EXPECT_GE(count + 1, most) << seconds << " s";
    for (const int64_t length : {1, 2}) {
        for (int64_t first = 0; first < most; first += length) {
            const auto part = decode_steps(rate, samples, search, first, first + length);
            ASSERT_EQ(std::ssize(part), std::clamp<int64_t>(count - first, 0, length)) << first;
            for (std::size_t k = 0; k < part.size(); k++) {
                const std::size_t step = static_cast<std::size_t>(first) + k;
                EXPECT_EQ(texts_of(part[k]), texts_of(whole[step])) << "step " << step << " of " << count;
            }
        }
    }
    SpotLog log(SpotLog::Order::START);
    std::vector<Found> logged;
    const auto take = [&](const Found& spot, int32_t) { logged.push_back(spot); };
    for (std::size_t k = 0; k < whole.size(); k++) {
        log.add(whole[k]);
        log.release(WideDecoder::decided_s(static_cast<int64_t>(k) + 1), take);
    }
    log.release(HUGE_VAL, take);
    EXPECT_EQ(texts_of(logged), texts_of(decode(rate, samples, search)));
}

void expect_all(const std::vector<Found>& found, const std::vector<Sent>& all) {
    for (const Sent& sent : all) {
        const auto times = std::ranges::count_if(found, [&](const Found& spot) {
            return sent.call == spot.call && std::fabs(spot.t - sent.t) < 0.07 && spot.protocol == sent.protocol &&
                   std::fabs(spot.freq - sent.freq) < 0.6 && std::fabs(spot.snr - sent.snr) < 2.5;
        });
        EXPECT_EQ(times, 1) << sent.call << " at " << sent.freq << " Hz, " << sent.t << " s";
    }
    EXPECT_EQ(found.size(), all.size());
    EXPECT_TRUE(std::ranges::is_sorted(found, {}, &Found::t));
}

class WideBand : public testing::Test {
  protected:
    static constexpr int32_t RATE = 32000;

    // Frames of the three protocols all over the band and its slices' borders, over the ends of steps and of the
    // recording, and one after the other.
    static std::vector<Sent> stations() {
        const auto slices = Channeliser(RATE, true, {-0.5 * RATE, 0.5 * RATE}).slices();
        return {
            {OVL_OPERA, "VE7QHC", -3, -15800, -14},
            {OVL_OPERA, "G4QZB", 2, slices[1].own_hz.low, -17},
            {OVL_OPERA, "K2QRX", 20.3, slices[2].own_hz.low + 3, -16},
            {OVL_ORVEL_S, "DL1QXA", 34.7, slices[3].own_hz.low - 18, -15},
            {OVL_OPERA, "OH3QKJ", 36.2, slices[3].own_hz.low + 18, -15},
            {OVL_ORVEL_L, "OE3QTN", 30, slices[4].center_hz, -14},
            {OVL_OPERA, "F5QVB", 5, 7000, -18},
            {OVL_OPERA, "SM5QWA", 37, 7004, -15},
            {OVL_ORVEL_S, "9A5QQA", 69, 7001, -16},
            {OVL_OPERA, "M0QYF", 75, 15900, -12},
        };
    }
};

TEST_F(WideBand, EveryFrameIsFoundOnceInOrderOfTime) {
    const auto samples = on_air(RATE, 103, 5, stations());
    const auto found = decode(RATE, samples, wide_search());
    expect_all(found, stations());

    // However the samples come, and whoever decodes.
    const auto again = decode(RATE, samples, wide_search(), {.jobs = 3, .live = false}, 20002);
    ASSERT_EQ(again.size(), found.size());
    for (std::size_t k = 0; k < found.size(); k++) {
        EXPECT_STREQ(again[k].call, found[k].call);
        EXPECT_EQ(again[k].t, found[k].t);
        EXPECT_EQ(again[k].freq, found[k].freq);
        EXPECT_EQ(again[k].snr, found[k].snr);
    }
}

TEST_F(WideBand, StepsApartFindToTheBitWhatOnePassDoes) {
    const auto slices = Channeliser(RATE, true, {-0.5 * RATE, 0.5 * RATE}).slices();
    const auto samples = on_air(RATE, 103, 5,
                                {{OVL_OPERA, "VE7QHC", -3, -15800, -14},
                                 {OVL_OPERA, "K2QRX", 20.3, slices[2].own_hz.low + 3, -16},
                                 {OVL_OPERA, "OH3QKJ", 36.2, slices[3].own_hz.low + 18, -15},
                                 {OVL_OPERA, "M0QYF", 75, 15900, -12}});
    Search search = wide_search();
    search.protocols = OVL_OPERA;
    expect_same_in_parts(RATE, samples, search);
    search.band = Range{-1000, 3000};
    for (const double seconds : {1.0, 56.2, 82.0}) {  // a piece of a step, and where one more begins
        SCOPED_TRACE(seconds);
        expect_same_in_parts(RATE, std::span(samples).first(2 * static_cast<std::size_t>(seconds * RATE)), search);
    }
}

TEST_F(WideBand, StepsOfRealSamplesApartFindToTheBitWhatOnePassDoes) {
    const auto samples =
        on_air(44100, 75, 7, {{OVL_OPERA, "K2QRX", 10, 700, -18}, {OVL_OPERA, "W1QAB", 30, 9000, -18}}, false);
    Search search = wide_search(false);
    search.protocols = OVL_OPERA;
    expect_same_in_parts(44100, samples, search);
}

TEST_F(WideBand, AProvisionalFrameComesWhenItIsFoundAndAgainWhenItIsConfirmed) {
    const std::vector<Sent> sent = {{OVL_OPERA, "G4QZB", 3, -5000, -12}, {OVL_OPERA, "K2QRX", 20, 5000, -12}};
    std::string lines;
    WideOptions options;
    options.provisional = true;
    WideDecoder decoder(RATE, wide_search(), options, [&](const Found& spot, Standing standing) {
        lines += spot.call + std::string(standing == Standing::CONFIRMED ? " confirmed\n" : " provisional\n");
    });
    decoder.push(on_air(RATE, 80, 23, sent));
    while (decoder.done_s() == 0) decoder.push({});
    EXPECT_EQ(lines, "G4QZB provisional\nK2QRX provisional\nG4QZB confirmed\n");
    decoder.finish();
    EXPECT_EQ(lines, "G4QZB provisional\nK2QRX provisional\nG4QZB confirmed\nK2QRX confirmed\n");
}

// The weaker one begins and ends seconds before or after the stronger one, whose run its decode lies around; and the
// side bands of the stronger one reach into the search around the weaker one.
// A strong frame just outside a weaker one's band is found at its border, too, with another frequency than it has: its
// own find counts.
TEST_F(WideBand, AFrameAtTheBorderOfATileHasTheFrequencyOfItsOwnFind) {
    std::vector<Sent> all;
    Random random(23);
    double freq = -14500.3;
    for (const double apart : {34.0, 35.0, 36.0, 37.0, 38.0}) {
        all.push_back({OVL_OPERA, random.callsign(), 3.5, freq, -10});
        all.push_back({OVL_ORVEL_L, random.callsign(), 6.5, freq + apart, -16});
        freq += 5000.7;
    }
    expect_all(decode(RATE, on_air(RATE, 60, 24, all), wide_search()), all);
}

TEST_F(WideBand, WeakerStationsOfAnyProtocolShowBesideStrongerOnes) {
    std::vector<Sent> all;
    Random random(21);
    double freq = -14500;
    for (const double apart : {12.0, 40.0}) {
        for (const int32_t strong : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
            all.push_back({strong, random.callsign(), 7, freq, -10});
            all.push_back({OVL_ORVEL_L, random.callsign(), strong == OVL_ORVEL_S ? 13.0 : 1.0, freq + apart, -16});
            freq += 5000;
        }
    }
    expect_all(decode(RATE, on_air(RATE, 60, 22, all), wide_search()), all);
}

TEST_F(WideBand, APartOfTheBandHoldsWhatLiesInIt) {
    const std::vector<Sent> all = {{OVL_OPERA, "G4QZB", 2, -9000, -12}, {OVL_OPERA, "K2QRX", 3, 8000, -12}};
    Search search = wide_search();
    search.band = Range{-1000, 1e9};
    expect_all(decode(RATE, on_air(RATE, 40, 6, all), search), {all[1]});
    search.band = Range{20000, 30000};
    EXPECT_THROW(decode(RATE, {}, search), IoError);
}

TEST_F(WideBand, RealSamplesAndRatesThatDoNotDivideAreDecodedAsWell) {
    const std::vector<Sent> all = {{OVL_OPERA, "G4QZB", 2, 900, -15}, {OVL_OPERA, "K2QRX", 4.5, 9876, -14}};
    for (const int32_t rate : {22050, 22051}) {
        expect_all(decode(rate, on_air(rate, 40, 7, all, false), wide_search(false)), all);
    }
}

TEST_F(WideBand, TheCoherentSearchWorksInSlices) {
    const auto samples = on_air(16000, 45, 14, {{OVL_OPERA, "K2QRX", 5, 5200, -26.5}});
    Search search = wide_search();
    search.protocols = OVL_OPERA;
    search.scan_z = 5;
    EXPECT_TRUE(decode(16000, samples, search).empty());
    search.coherent = true;
    const auto found = decode(16000, samples, search);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_STREQ(found[0].call, "K2QRX");
    EXPECT_EQ(found[0].deep, OVL_COHERENT);
}

TEST_F(WideBand, NothingIsFoundInNothing) {
    for (const double seconds : {0.0, 0.1, 5.0, 31.0, 40.0}) {
        EXPECT_TRUE(decode(RATE, on_air(RATE, seconds, 8, {}), wide_search()).empty()) << seconds;
    }
    EXPECT_TRUE(decode(RATE, std::vector<float>(2 * 40 * RATE), wide_search()).empty());
}

// Weak frames at any frequency, slice borders included: as many decode as in a narrow search.
TEST_F(WideBand, WeakFramesDecodeAsInANarrowSearch) {
    std::vector<Sent> all;
    Random random(21);
    for (int32_t k = 0; k < 12; k++) {
        all.push_back({OVL_OPERA, random.callsign(), random.uniform(1, 40),
                       -15500 + 31000 * (k + random.uniform(0.1, 0.9)) / 12, -23});
    }
    const auto samples = on_air(RATE, 75, 22, all);
    std::vector<double> i;
    std::vector<double> q;
    for (std::size_t k = 0; k < samples.size(); k += 2) {
        i.push_back(samples[k]);
        q.push_back(samples[k + 1]);
    }
    Search search = wide_search();
    search.protocols = OVL_OPERA;
    const auto found = decode(RATE, samples, search);
    search.wide = false;
    search.search_hz = 20;
    int32_t wide = 0;
    int32_t narrow = 0;
    for (const Sent& sent : all) {
        search.center_hz = sent.freq;
        const auto same = [&](const Found& spot) { return sent.call == spot.call; };
        narrow += std::ranges::any_of(*decode_block({i, q, RATE}, search), same) ? 1 : 0;
        wide += std::ranges::any_of(found, same) ? 1 : 0;
    }
    EXPECT_GE(narrow, 10);
    EXPECT_GE(wide, narrow);
}

TEST_F(WideBand, ALiveRunThatFallsBehindSkipsSlicesAndSaysSo) {
    std::vector<Sent> all;
    for (int32_t k = 0; k < 8; k++) all.push_back({OVL_OPERA, "K2QRX", 2, -14000.0 + 4000 * k, -10});
    const auto samples = on_air(RATE, 40, 9, all);
    testing::internal::CaptureStderr();
    {
        WideDecoder decoder(RATE, wide_search(), {.jobs = 1, .live = true}, [](const Found&, Standing) {});
        for (int32_t k = 0; k < 8; k++) decoder.push(samples);
        EXPECT_GT(decoder.skipped_share(), 0);
        decoder.finish();
        EXPECT_LT(decoder.skipped_share(), 1);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("decoding fell behind: "), std::string::npos);
}

TEST_F(WideBand, ADecoderThatIsNotFinishedEndsItsThreads) {
    const auto samples = on_air(RATE, 100, 10, stations());
    std::size_t found = 0;
    {
        WideDecoder decoder(RATE, wide_search(), {.jobs = 2, .live = false}, [&](const Found&, Standing) { found++; });
        decoder.push(samples);
    }
    EXPECT_LT(found, stations().size());
}

}  // namespace
