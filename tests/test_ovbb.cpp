// The receive front end against plain sums: sizes by trial, spectra and basebands by their definitions.
#include "ovbb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <numeric>
#include <tuple>
#include <vector>

#include "owners.h"
#include "siggen.h"

namespace {

using Complex = std::complex<double>;
constexpr double PI = std::numbers::pi;
constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr int32_t MAX32 = std::numeric_limits<int32_t>::max();

struct Sizes {
    int result;
    int64_t nfft, nout;
};

bool seven_smooth(int64_t n) {
    for (int64_t factor = 2; factor <= 7; ++factor) {
        while (n % factor == 0) n /= factor;
    }
    return n == 1;
}

// Every multiple in turn, each factorised in full.
Sizes plain_sizes(int64_t n, int64_t rate, int64_t out_rate) {
    const int64_t g = std::gcd(rate, out_rate);
    const int64_t a = rate / g;
    const int64_t b = out_rate / g;
    int64_t k = 1;
    while (k * a < n) ++k;
    for (int tries = 0; tries < 100000; ++tries, ++k) {
        if (seven_smooth(k * a) && seven_smooth(k * b)) return {0, k * a, k * b};
    }
    return {-1, 0, 0};
}

// X[bin] = Σ x[t] e^(-j2π·bin·t/nfft)
Complex plain_bin(const std::vector<Complex>& x, int64_t bin, int64_t nfft) {
    Complex sum = 0;
    for (std::size_t t = 0; t < x.size(); ++t) {
        const auto turns = static_cast<double>((bin * static_cast<int64_t>(t)) % nfft) / static_cast<double>(nfft);
        sum += x[t] * std::polar(1.0, -2 * PI * turns);
    }
    return sum;
}

// Every sample of the buffer, padding included.
std::vector<Complex> plain_baseband(const std::vector<Complex>& x, bool real, int64_t k0, int64_t nfft, int64_t nout) {
    std::vector<Complex> out(static_cast<std::size_t>(nout));
    const int64_t half = nout / 2;
    for (int64_t j = -half; j < nout - half; ++j) {
        if (real && (k0 + j < 0 || k0 + j > nfft / 2)) continue;
        const Complex bin = plain_bin(x, k0 + j, nfft) / static_cast<double>(nfft);
        for (int64_t t = 0; t < nout; ++t) {
            const auto turns = static_cast<double>((j * t) % nout) / static_cast<double>(nout);
            out[static_cast<std::size_t>(t)] += bin * std::polar(1.0, 2 * PI * turns);
        }
    }
    return out;
}

struct Block {
    std::vector<double> i, q;
    std::vector<Complex> both, real;

    Block(int32_t n, uint64_t seed) {
        Random random(seed);
        for (int32_t k = 0; k < n; ++k) {
            i.push_back(random.uniform(-1, 1));
            q.push_back(random.uniform(-1, 1));
            both.emplace_back(i.back(), q.back());
            real.emplace_back(i.back(), 0.0);
        }
    }
};

void expect_empty(const ov_spectrum& spectrum) {
    EXPECT_EQ(spectrum.bins, nullptr);
    EXPECT_EQ(std::tie(spectrum.nfft, spectrum.nbins, spectrum.is_complex), std::tuple(0, 0, 0));
    EXPECT_EQ(std::tie(spectrum.rate, spectrum.out_rate, spectrum.nout, spectrum.nsamp_out), std::tuple(0, 0, 0, 0));
}

void expect_empty(const ov_baseband& baseband) {
    EXPECT_EQ(baseband.samples, nullptr);
    EXPECT_EQ(baseband.n, 0);
    EXPECT_EQ(baseband.rate, 0);
    EXPECT_EQ(baseband.centre, 0);
}

// A record that holds rubbish before the call that must clear it.
ov_spectrum dirty_spectrum() {
    return {nullptr, 1, 2, 3, 4, 5, 6, 7};
}
ov_baseband dirty_baseband() {
    return {nullptr, 1, 2, 3};
}

}  // namespace

TEST(TransformSizes, WorkedExample) {
    int32_t nfft = 0;
    int32_t nout = 0;
    ASSERT_EQ(choose_sizes(480000, 48000, 500, nfft, nout), 0);
    EXPECT_EQ(nfft, 480000);
    EXPECT_EQ(nout, 5000);
}

TEST(TransformSizes, EqualTrialOfEveryMultiple) {
    const std::vector<std::pair<int32_t, int32_t>> rates = {
        {48000, 500},  {48000, 125},   {12000, 125},  {12000, 250},  {8000, 1000}, {44100, 125},  {44100, 1000},
        {96000, 2000}, {192000, 1000}, {2048, 125},   {100, 250},    {125, 125},   {1, 1},        {7, 125},
        {1, 125},      {6000, 4000},   {12345, 823},  {9600, 1280},  {11025, 125}, {22050, 125},  {384000, 125},
        {16000, 3000}, {12000, 12000}, {12000, 9000}, {12000, 7000}, {1000, 1250}, {250000, 375}, {5, 2147483645}};
    Random random(1);
    int found = 0;
    for (const auto& [rate, out_rate] : rates) {
        for (int round = 0; round < 12; ++round) {
            const int32_t n = round == 0 ? 1 : random.integer(1, round < 6 ? 2000 : 3000000);
            const Sizes plain = plain_sizes(n, rate, out_rate);
            int32_t nfft = -7;
            int32_t nout = -7;
            const int result = choose_sizes(n, rate, out_rate, nfft, nout);
            if (plain.result != 0 || std::max(plain.nfft, plain.nout) > MAX32) {
                EXPECT_EQ(result, -1) << n << ' ' << rate << ' ' << out_rate;
                EXPECT_EQ(nfft, -7);
                EXPECT_EQ(nout, -7);
                continue;
            }
            ++found;
            ASSERT_EQ(result, 0) << n << ' ' << rate << ' ' << out_rate;
            EXPECT_EQ(nfft, plain.nfft) << n << ' ' << rate << ' ' << out_rate;
            EXPECT_EQ(nout, plain.nout) << n << ' ' << rate << ' ' << out_rate;
        }
    }
    EXPECT_GT(found, 200);
}

TEST(TransformSizes, EveryShortBlockIsHeldAndCutsWholeBins) {
    for (int32_t n = 1; n <= 3000; ++n) {
        int32_t nfft = 0;
        int32_t nout = 0;
        ASSERT_EQ(choose_sizes(n, 8000, 125, nfft, nout), 0);
        ASSERT_GE(nfft, n);
        ASSERT_EQ(int64_t{nfft} * 125, int64_t{nout} * 8000);
        ASSERT_TRUE(seven_smooth(nfft) && seven_smooth(nout));
    }
}

TEST(TransformSizes, RefusalsLeaveTheOutputsAlone) {
    const std::vector<std::tuple<int32_t, int32_t, int32_t>> refused = {
        {1000, 12000, 0},          // nothing to cut
        {1000, 12000, -125},       // no rate
        {1000, 0, 125},            //
        {1000, -12000, 125},       //
        {1000, 0, 0},              //
        {1000, 11000, 125},        // 88 bins a step
        {1000, 22000, 125},        //
        {1000, 44000, 125},        //
        {1000, 12000, 1100},       // 11 in the cut
        {1, MAX32, 125},           // prime
        {1, 125, MAX32},           //
        {MAX32, 12000, 125},       // the next fast length needs 32 bits
        {MAX32, 1, 125},           //
        {MAX32, 125, 125},         //
        {1, 12000, MAX32},         //
        {1000000000, 1000, 4000},  // the cut outgrows 32 bits
        {1, std::numeric_limits<int32_t>::min(), 125},
        {1, 125, std::numeric_limits<int32_t>::min()}};
    for (const auto& [n, rate, out_rate] : refused) {
        int32_t nfft = 11;
        int32_t nout = 13;
        EXPECT_EQ(choose_sizes(n, rate, out_rate, nfft, nout), -1) << n << ' ' << rate << ' ' << out_rate;
        EXPECT_EQ(nfft, 11);
        EXPECT_EQ(nout, 13);
    }
}

TEST(TransformSizes, BlocksBelowOneSampleTakeOneStep) {
    for (const int32_t n : {0, -1, -480000, std::numeric_limits<int32_t>::min()}) {
        int32_t nfft = 0;
        int32_t nout = 0;
        ASSERT_EQ(choose_sizes(n, 48000, 500, nfft, nout), 0) << n;
        EXPECT_EQ(nfft, 96) << n;
        EXPECT_EQ(nout, 1) << n;
    }
}

TEST(TransformSizes, LargestRateIsItsOwnBaseband) {
    int32_t nfft = 0;
    int32_t nout = 0;
    ASSERT_EQ(choose_sizes(11, MAX32, MAX32, nfft, nout), 0);
    EXPECT_EQ(nfft, 12);
    EXPECT_EQ(nout, 12);
}

TEST(Spectrum, EqualsTheDefinitionForRealAndIqBlocks) {
    for (const auto& [n, rate, out_rate] :
         {std::tuple{1, 1000, 125}, {7, 800, 100}, {47, 1000, 125}, {96, 1200, 500}, {113, 700, 300}, {10, 100, 250}}) {
        const Block block(n, static_cast<uint64_t>(n));
        SpectrumOwner real;
        SpectrumOwner iq;
        ASSERT_EQ(ov_spectrum_real(block.i.data(), n, rate, out_rate, real), 0);
        ASSERT_EQ(ov_spectrum_iq(block.i.data(), block.q.data(), n, rate, out_rate, iq), 0);
        const Sizes sizes = plain_sizes(n, rate, out_rate);
        for (const ov_spectrum* spectrum : {static_cast<ov_spectrum*>(&real), static_cast<ov_spectrum*>(&iq)}) {
            EXPECT_EQ(spectrum->nfft, sizes.nfft);
            EXPECT_EQ(spectrum->nout, sizes.nout);
            EXPECT_EQ(spectrum->rate, rate);
            EXPECT_EQ(spectrum->out_rate, out_rate);
            EXPECT_EQ(spectrum->nsamp_out, n * out_rate / rate);
        }
        EXPECT_EQ(real.is_complex, 0);
        EXPECT_EQ(iq.is_complex, 1);
        ASSERT_EQ(real.nbins, sizes.nfft / 2 + 1);
        ASSERT_EQ(iq.nbins, sizes.nfft);
        for (int32_t k = 0; k < real.nbins; ++k)
            ASSERT_LT(std::abs(real.bins[k] - plain_bin(block.real, k, sizes.nfft)), 1e-11) << n << ' ' << k;
        for (int32_t k = 0; k < iq.nbins; ++k)
            ASSERT_LT(std::abs(iq.bins[k] - plain_bin(block.both, k, sizes.nfft)), 1e-11) << n << ' ' << k;
    }
}

TEST(Baseband, EqualsTheDefinitionAnywhereInTheBand) {
    for (const auto& [n, rate, out_rate] :
         {std::tuple{1, 800, 100}, {50, 800, 100}, {97, 1000, 125}, {120, 1200, 500}, {60, 100, 250}, {45, 700, 300}}) {
        const Block block(n, 100 + static_cast<uint64_t>(n));
        for (const double share : {0.0, 0.01, 0.13, 0.25, 0.3, 0.49, 0.5, 0.77, 1.6, -0.02, -0.2, -0.5, -1.3}) {
            const double centre = share * rate;
            const Sizes sizes = plain_sizes(n, rate, out_rate);
            const int64_t k0 = std::lround(centre * static_cast<double>(sizes.nfft) / rate);
            for (const bool is_real : {true, false}) {
                BasebandOwner bb;
                if (is_real) {
                    ASSERT_EQ(ov_baseband_real(block.i.data(), n, rate, centre, out_rate, bb), 0);
                } else {
                    ASSERT_EQ(ov_baseband_iq(block.i.data(), block.q.data(), n, rate, centre, out_rate, bb), 0);
                }
                EXPECT_EQ(bb.n, std::min<int64_t>(sizes.nout, n * out_rate / rate));
                EXPECT_EQ(bb.rate, out_rate);
                EXPECT_EQ(bb.centre, static_cast<double>(k0) * rate / static_cast<double>(sizes.nfft));
                const auto plain =
                    plain_baseband(is_real ? block.real : block.both, is_real, k0, sizes.nfft, sizes.nout);
                for (std::size_t t = 0; t < plain.size(); ++t)
                    ASSERT_LT(std::abs(bb.samples[t] - plain[t]), 1e-11)
                        << n << (is_real ? " real " : " I/Q ") << centre << " sample " << t;
            }
        }
    }
}

TEST(Baseband, RealTonesHalveAndPhasorsKeepTheirAmplitude) {
    const int32_t n = 9600;
    std::vector<double> i;
    std::vector<double> q;
    for (int32_t k = 0; k < n; ++k) {
        i.push_back(0.8 * std::cos(2 * PI * 1500 * k / 9600 + 0.3));
        q.push_back(0.8 * std::sin(2 * PI * 1500 * k / 9600 + 0.3));
    }
    BasebandOwner real;
    BasebandOwner iq;
    ASSERT_EQ(ov_baseband_real(i.data(), n, 9600, 1500, 300, real), 0);
    ASSERT_EQ(ov_baseband_iq(i.data(), q.data(), n, 9600, 1500, 300, iq), 0);
    ASSERT_EQ(real.n, 300);
    ASSERT_EQ(iq.n, 300);
    for (int32_t k = 0; k < 300; ++k) {
        ASSERT_LT(std::abs(real.samples[k] - std::polar(0.4, 0.3)), 1e-9);
        ASSERT_LT(std::abs(iq.samples[k] - std::polar(0.8, 0.3)), 1e-9);
    }
}

TEST(Baseband, OffsetsFromTheCentreTurnTheRightWayAndKeepTime) {
    Scene scene;
    scene.rate = 8000;
    scene.seconds = 4;
    scene.noise = false;
    Station station;
    station.chips = std::vector<uint8_t>(40, 1);
    station.t_start = -0.5;
    station.freq_hz = 1010;
    scene.stations = {station};
    const auto samples = render_real(scene);
    BasebandOwner bb;
    ASSERT_EQ(ov_baseband_real(samples.data(), 32000, 8000, 1000, 125, bb), 0);
    ASSERT_EQ(bb.n, 500);
    const double middle = -0.5 + 20 * CHIP_SECONDS;
    const double amplitude = std::sqrt(2 * scene.noise_rms * scene.noise_rms * 2500 / 4000);
    for (int32_t k = 50; k < 450; ++k) {
        const double phase = 2 * PI * (1010 * (k / 125.0 - middle) - 1000 * k / 125.0);
        ASSERT_LT(std::abs(bb.samples[k] - std::polar(amplitude / 2, phase)), 0.02 * amplitude) << k;
    }
}

TEST(Baseband, CentreIsSnappedToTheNearestBin) {
    const Block block(1000, 5);
    for (const auto& [asked, snapped] : {std::pair{300.4, 300.0}, {300.5, 301.0}, {300.6, 301.0}, {-0.4, 0.0}}) {
        BasebandOwner bb;
        ASSERT_EQ(ov_baseband_real(block.i.data(), 1000, 1000, asked, 125, bb), 0);
        EXPECT_EQ(bb.centre, snapped);
    }
    BasebandOwner bb;
    ASSERT_EQ(ov_baseband_iq(block.i.data(), block.q.data(), 1000, 1000, -300.5, 125, bb), 0);
    EXPECT_EQ(bb.centre, -301);
}

TEST(Baseband, RealBandsPastTheSpectrumAreZeroAndNotMirrored) {
    // All energy lies in bin 10; a cut around -20 Hz reaches 10 Hz only on its positive side.
    std::vector<double> tone(1000);
    for (std::size_t k = 0; k < tone.size(); ++k) tone[k] = std::cos(2 * PI * 10 * static_cast<double>(k) / 1000);
    BasebandOwner mirror;
    ASSERT_EQ(ov_baseband_real(tone.data(), 1000, 1000, -20, 50, mirror), 0);
    for (int32_t k = 0; k < mirror.n; ++k) ASSERT_LT(std::abs(mirror.samples[k]), 1e-12) << k;
    BasebandOwner outside;
    ASSERT_EQ(ov_baseband_real(tone.data(), 1000, 1000, 600, 50, outside), 0);
    for (int32_t k = 0; k < outside.n; ++k) ASSERT_EQ(std::abs(outside.samples[k]), 0) << k;
    BasebandOwner inside;
    ASSERT_EQ(ov_baseband_real(tone.data(), 1000, 1000, -10, 50, inside), 0);
    for (int32_t k = 0; k < inside.n; ++k) ASSERT_NEAR(std::abs(inside.samples[k]), 0.5, 1e-12) << k;
}

TEST(Baseband, NegativeIqCentresAndBandsAcrossZeroOrTheEdgeWrap) {
    const double rate = 1000;
    for (const auto& [tone, centre] : {std::pair{-210.0, -200.0}, {-5.0, 3.0}, {5.0, -3.0}, {-495.0, 499.0}}) {
        std::vector<double> i(1000);
        std::vector<double> q(1000);
        for (std::size_t k = 0; k < i.size(); ++k) {
            i[k] = std::cos(2 * PI * tone * static_cast<double>(k) / rate);
            q[k] = std::sin(2 * PI * tone * static_cast<double>(k) / rate);
        }
        BasebandOwner bb;
        ASSERT_EQ(ov_baseband_iq(i.data(), q.data(), 1000, 1000, centre, 50, bb), 0);
        EXPECT_EQ(bb.centre, centre);
        for (int32_t k = 0; k < bb.n; ++k) {
            // 50 Hz of the block's 1000 Hz, both repeating: tone and centre may differ by a whole number of rates.
            const double offset = std::remainder(tone - centre, rate);
            ASSERT_LT(std::abs(bb.samples[k] - std::polar(1.0, 2 * PI * offset * k / 50)), 1e-9) << tone << ' ' << k;
        }
    }
}

TEST(Baseband, CountsOnlySamplesThatStandForTheBlock) {
    const Block block(1001, 8);
    SpectrumOwner spectrum;
    ASSERT_EQ(ov_spectrum_real(block.i.data(), 1001, 1000, 125, spectrum), 0);
    EXPECT_EQ(spectrum.nfft, 1008);
    EXPECT_EQ(spectrum.nout, 126);
    EXPECT_EQ(spectrum.nsamp_out, 125);
    BasebandOwner bb;
    ASSERT_EQ(ov_baseband_extract(spectrum, 200, bb), 0);
    EXPECT_EQ(bb.n, 125);
}

TEST(Baseband, OneSpectrumServesManyCutsAndMayGoFirst) {
    const Block block(4000, 9);
    ov_spectrum spectrum{};
    ASSERT_EQ(ov_spectrum_iq(block.i.data(), block.q.data(), 4000, 4000, 250, spectrum), 0);
    const std::vector<Complex> before(spectrum.bins, spectrum.bins + spectrum.nbins);
    BasebandOwner first;
    BasebandOwner other;
    BasebandOwner again;
    ASSERT_EQ(ov_baseband_extract(spectrum, -700, first), 0);
    ASSERT_EQ(ov_baseband_extract(spectrum, 300, other), 0);
    ASSERT_EQ(ov_baseband_extract(spectrum, -700, again), 0);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), spectrum.bins));
    ov_spectrum_free(spectrum);
    BasebandOwner direct;
    ASSERT_EQ(ov_baseband_iq(block.i.data(), block.q.data(), 4000, 4000, -700, 250, direct), 0);
    ASSERT_EQ(first.n, 250);
    for (int32_t k = 0; k < first.n; ++k) {
        ASSERT_EQ(first.samples[k], again.samples[k]);
        ASSERT_EQ(first.samples[k], direct.samples[k]);
        ASSERT_NE(first.samples[k], other.samples[k]);
    }
}

TEST(Baseband, FreeingTwiceIsHarmless) {
    const Block block(100, 2);
    ov_spectrum spectrum{};
    ov_baseband bb{};
    ASSERT_EQ(ov_spectrum_real(block.i.data(), 100, 1000, 125, spectrum), 0);
    ASSERT_EQ(ov_baseband_extract(spectrum, 100, bb), 0);
    for (int round = 0; round < 2; ++round) {
        ov_spectrum_free(spectrum);
        ov_baseband_free(bb);
        expect_empty(spectrum);
        expect_empty(bb);
    }
}

TEST(Baseband, FailuresLeaveZeroedRecords) {
    const Block block(1000, 3);
    const double* const x = block.i.data();
    for (const auto& [rate, out_rate] : {std::pair{12000, 0}, {11000, 125}, {0, 125}, {-8000, 125}, {8000, -125}}) {
        ov_spectrum spectrum = dirty_spectrum();
        EXPECT_EQ(ov_spectrum_real(x, 1000, rate, out_rate, spectrum), -1);
        expect_empty(spectrum);
        spectrum = dirty_spectrum();
        EXPECT_EQ(ov_spectrum_iq(x, x, 1000, rate, out_rate, spectrum), -1);
        expect_empty(spectrum);
        ov_baseband bb = dirty_baseband();
        EXPECT_EQ(ov_baseband_real(x, 1000, rate, 0, out_rate, bb), -1);
        expect_empty(bb);
        bb = dirty_baseband();
        EXPECT_EQ(ov_baseband_iq(x, x, 1000, rate, 0, out_rate, bb), -1);
        expect_empty(bb);
    }
}

TEST(Baseband, SamplesThatAreNotFiniteAreRefused) {
    for (const double bad : {NOT_A_NUMBER, INF, -INF}) {
        for (const std::size_t where : {std::size_t{0}, std::size_t{500}, std::size_t{999}}) {
            Block block(1000, 3);
            auto broken = block.i;
            broken[where] = bad;
            ov_spectrum spectrum = dirty_spectrum();
            EXPECT_EQ(ov_spectrum_real(broken.data(), 1000, 8000, 125, spectrum), -1);
            expect_empty(spectrum);
            EXPECT_EQ(ov_spectrum_iq(broken.data(), block.q.data(), 1000, 8000, 125, spectrum), -1);
            expect_empty(spectrum);
            EXPECT_EQ(ov_spectrum_iq(block.q.data(), broken.data(), 1000, 8000, 125, spectrum), -1);
            expect_empty(spectrum);
            ov_baseband bb = dirty_baseband();
            EXPECT_EQ(ov_baseband_real(broken.data(), 1000, 8000, 1000, 125, bb), -1);
            expect_empty(bb);
            EXPECT_EQ(ov_baseband_iq(block.q.data(), broken.data(), 1000, 8000, 1000, 125, bb), -1);
            expect_empty(bb);
        }
    }
}

TEST(Baseband, HugeFiniteSamplesAreOnlyLoud) {
    std::vector<double> loud(800, 1e300);
    BasebandOwner bb;
    ASSERT_EQ(ov_baseband_real(loud.data(), 800, 8000, 0, 100, bb), 0);
    ASSERT_EQ(bb.n, 10);
    for (int32_t k = 0; k < bb.n; ++k) ASSERT_NEAR(bb.samples[k].real() / 1e300, 1, 1e-9);
}

TEST(Baseband, CentresThatAreNoFrequencyAreRefusedOrEmpty) {
    const Block block(1000, 4);
    SpectrumOwner real;
    SpectrumOwner iq;
    ASSERT_EQ(ov_spectrum_real(block.i.data(), 1000, 1000, 125, real), 0);
    ASSERT_EQ(ov_spectrum_iq(block.i.data(), block.q.data(), 1000, 1000, 125, iq), 0);
    for (const double centre : {NOT_A_NUMBER, INF, -INF, 1e300, -1e300, 1e308, 9e18, -9.3e18}) {
        for (const ov_spectrum* spectrum : {static_cast<ov_spectrum*>(&real), static_cast<ov_spectrum*>(&iq)}) {
            ov_baseband bb = dirty_baseband();
            EXPECT_EQ(ov_baseband_extract(*spectrum, centre, bb), -1) << centre;
            expect_empty(bb);
        }
    }
    BasebandOwner far;
    ASSERT_EQ(ov_baseband_extract(real, 1e12, far), 0);
    EXPECT_EQ(far.centre, 1e12);
    for (int32_t k = 0; k < far.n; ++k) ASSERT_EQ(far.samples[k], Complex{});
}

TEST(Baseband, AnEmptiedSpectrumCannotBeCut) {
    const ov_spectrum empty{};
    ov_baseband bb = dirty_baseband();
    EXPECT_EQ(ov_baseband_extract(empty, 0, bb), -1);
    expect_empty(bb);
}

TEST(Baseband, BlocksWithoutSamplesGiveBasebandsWithoutSamples) {
    for (const int32_t n : {0, -5}) {
        BasebandOwner real;
        ASSERT_EQ(ov_baseband_real(nullptr, n, 8000, 1000, 125, real), 0);
        EXPECT_LE(real.n, 0);
        EXPECT_EQ(real.samples[0], Complex{});
        BasebandOwner iq;
        ASSERT_EQ(ov_baseband_iq(nullptr, nullptr, n, 8000, 1000, 125, iq), 0);
        EXPECT_LE(iq.n, 0);
        EXPECT_EQ(iq.samples[0], Complex{});
    }
}

TEST(Baseband, OneSampleAtTheOddestRates) {
    const double x = 1;
    for (const auto& [rate, out_rate] : {std::pair{1, 125}, {7, 125}, {MAX32, MAX32}, {1, 1}}) {
        BasebandOwner bb;
        ASSERT_EQ(ov_baseband_real(&x, 1, rate, 0, out_rate, bb), 0) << rate;
        EXPECT_EQ(bb.n, out_rate / rate) << rate;
    }
    ov_baseband refused = dirty_baseband();
    EXPECT_EQ(ov_baseband_real(&x, 1, MAX32, 0, 125, refused), -1);
    expect_empty(refused);
}
