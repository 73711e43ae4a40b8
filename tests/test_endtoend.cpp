// Recordings in, spots out: what a host gets from the decoder over strength, drift, edges, neighbours and mixtures of
// the protocols, and what it is spared when the samples or settings are garbage.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "liborvel.h"
#include "ovpipe.h"
#include "siggen.h"

namespace {

constexpr int32_t RATE = 12000;
constexpr double FRAME_S = 239 * CHIP_SECONDS;
constexpr double FRAME_L_S = 321 * CHIP_SECONDS;
constexpr double NAN_D = std::numeric_limits<double>::quiet_NaN();
constexpr double INF_D = std::numeric_limits<double>::infinity();

// ---- Scenes --------------------------------------------------------------------------------------------------------

std::vector<uint8_t> frame_of(int32_t protocol, const std::string& call) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(static_cast<uint32_t>(protocol))));
    EXPECT_EQ(ovl_encode(static_cast<uint32_t>(protocol), call.c_str(), "JN18", chips.data(),
                         static_cast<int32_t>(chips.size())),
              static_cast<int32_t>(chips.size()));
    return chips;
}

// A station and what has to be reported of it.
struct Sent {
    int32_t protocol;
    std::string call;
    double t, freq_hz, snr_db, drift_hz_s;
};

Scene scene_of(double seconds, uint64_t seed, const std::vector<Sent>& sent, int32_t rate = RATE,
               double freq_shift = 0) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = seed;
    double phase = 0.4;
    for (const Sent& s : sent) {
        scene.stations.push_back(
            {frame_of(s.protocol, s.call), s.t, s.freq_hz + freq_shift, s.drift_hz_s, s.snr_db, phase += 1.3});
    }
    return scene;
}

ov_params defaults(int32_t protocols = 7) {
    ov_params params;
    ov_params_default(params);
    params.protocols = protocols;
    return params;
}

std::vector<ov_spot> decode_real(const std::vector<double>& x, const ov_params& params, int32_t rate = RATE,
                                 int32_t room = 64) {
    std::vector<ov_spot> spots(static_cast<std::size_t>(room));
    const int32_t n = ov_decode_real(x.data(), static_cast<int32_t>(x.size()), rate, params, spots.data(), room);
    EXPECT_GE(n, 0);
    spots.resize(static_cast<std::size_t>(std::max(n, 0)));
    return spots;
}

std::vector<ov_spot> decode_iq(const IqSamples& x, const ov_params& params, int32_t rate) {
    std::vector<ov_spot> spots(64);
    const int32_t n =
        ov_decode_iq(x.i.data(), x.q.data(), static_cast<int32_t>(x.i.size()), rate, params, spots.data(), 64);
    EXPECT_GE(n, 0);
    spots.resize(static_cast<std::size_t>(std::max(n, 0)));
    return spots;
}

// Each station once, in the right place, and nothing else.
void expect_spots(const std::vector<ov_spot>& spots, const std::vector<Sent>& sent) {
    EXPECT_EQ(spots.size(), sent.size());
    for (const Sent& s : sent) {
        SCOPED_TRACE(testing::Message() << s.call << " protocol " << s.protocol << " t " << s.t << " f " << s.freq_hz
                                        << " SNR " << s.snr_db << " drift " << s.drift_hz_s);
        const auto spot = std::find_if(spots.begin(), spots.end(), [&](const ov_spot& o) {
            return s.call == o.call && o.protocol == s.protocol && std::fabs(o.t - s.t) < 1;
        });
        if (spot == spots.end()) {
            ADD_FAILURE() << "not decoded";
            continue;
        }
        EXPECT_NEAR(spot->t, s.t, 0.005);
        EXPECT_NEAR(spot->freq, s.freq_hz, 0.3);
        EXPECT_NEAR(spot->drift, s.drift_hz_s, 0.04);  // a step of the search is 0.032 Hz/s
        EXPECT_STREQ(spot->locator, s.protocol == OVL_ORVEL_L ? "JN18" : "");
    }
    EXPECT_TRUE(
        std::is_sorted(spots.begin(), spots.end(), [](const ov_spot& a, const ov_spot& b) { return a.t < b.t; }));
}

// How much higher the process's memory rose than ever before, MB.
class MemoryGrowth {
  public:
    long mb() const { return peak_mb() - before_; }

  private:
    static long peak_mb() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss / 1024;
    }
    long before_ = peak_mb();
};

// ---- What is on the air is found -----------------------------------------------------------------------------------

TEST(EndToEnd, StationsOfEveryStrengthAreFound) {
    uint64_t seed = 100;
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        for (const double snr : {-21.0, -15.0, -3.0, 15.0, 40.0}) {
            Random random(++seed);
            const std::vector<Sent> sent = {{protocol, random.callsign(), random.uniform(1, 5),
                                             random.uniform(1340, 1660), snr, random.uniform(-0.05, 0.05)}};
            expect_spots(decode_real(render_real(scene_of(48, seed, sent)), defaults(protocol)), sent);
        }
    }
}

TEST(EndToEnd, DriftingStationsAreFollowed) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 3, 1350, -10, 0.12},
                                    {OVL_OPERA, "OH1ABC", 8, 1430, -10, -0.12},
                                    {OVL_ORVEL_S, "DK2XYZ", 5, 1560, -8, 0.06},
                                    {OVL_ORVEL_L, "G4JNT", 2, 1640, -8, -0.06}};
    expect_spots(decode_real(render_real(scene_of(50, 7, sent)), defaults()), sent);
}

TEST(EndToEnd, FramesMayHangOverEachEndOfTheBlockByAFifth) {
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        const double length = protocol == OVL_ORVEL_L ? FRAME_L_S : FRAME_S;
        const double seconds = 2 * length;
        const std::vector<Sent> sent = {{protocol, "F5NQL", -0.19 * length, 1450, -10, 0},
                                        {protocol, "OH1ABC", seconds - 0.81 * length, 1560, -10, 0}};
        expect_spots(decode_real(render_real(scene_of(seconds, 8, sent)), defaults(protocol)), sent);
    }
}

TEST(EndToEnd, FramesThatHangOverFurtherAreNotReported) {
    const double seconds = 62;
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", -0.26 * FRAME_S, 1450, 0, 0},
                                    {OVL_OPERA, "OH1ABC", seconds - 0.74 * FRAME_S, 1560, 0, 0}};
    expect_spots(decode_real(render_real(scene_of(seconds, 8, sent)), defaults(OVL_OPERA)), {});
}

TEST(EndToEnd, TwoFramesOnOneFrequencyFollowEachOther) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 2, 1500, -12, 0},
                                    {OVL_OPERA, "OH1ABC", 3 + FRAME_S, 1500, -14, 0}};
    expect_spots(decode_real(render_real(scene_of(70, 9, sent)), defaults(OVL_OPERA)), sent);
}

TEST(EndToEnd, TheSameCallsignComesAgainLater) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 2, 1500, -12, 0},
                                    {OVL_OPERA, "F5NQL", 3 + FRAME_S, 1500, -12, 0}};
    expect_spots(decode_real(render_real(scene_of(70, 10, sent)), defaults(OVL_OPERA)), sent);
}

// Closer than three chip bandwidths, two frames share their energy: the second is searched for only where it covers
// little of the first.
TEST(EndToEnd, TwoStationsTwentyHertzApart) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 3, 1490, -12, 0},
                                    {OVL_OPERA, "OH1ABC", 3 + 0.95 * FRAME_S, 1510, -12, 0}};
    expect_spots(decode_real(render_real(scene_of(64, 11, sent)), defaults(OVL_OPERA)), sent);
}

TEST(EndToEnd, TwoStationsThirtyHertzApartAtTheSameTime) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 3, 1485, -12, 0}, {OVL_OPERA, "OH1ABC", 4.3, 1515, -14, 0}};
    expect_spots(decode_real(render_real(scene_of(40, 11, sent)), defaults(OVL_OPERA)), sent);
}

TEST(EndToEnd, TheThreeProtocolsSideBySideAsAudioAndAsIq) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 6, 1350, -12, 0.03},
                                    {OVL_ORVEL_S, "OH1ABC", 12, 1430, -11, 0},
                                    {OVL_ORVEL_L, "DK2XYZ", 3, 1520, -11, -0.02},
                                    {OVL_OPERA, "G4JNT", 20, 1620, -12, 0}};
    ov_params params = defaults();
    params.max_cands = 20;
    expect_spots(decode_real(render_real(scene_of(55, 12, sent)), params), sent);
    params.center_hz = -500;  // I/Q has negative frequencies: 1500 Hz of the stations is -500 Hz here
    std::vector<Sent> shifted = sent;
    for (Sent& s : shifted) s.freq_hz -= 2000;
    expect_spots(decode_iq(render_iq(scene_of(55, 13, sent, 8000, -2000)), params, 8000), shifted);
}

TEST(EndToEnd, TwoProtocolsShareAFrequencyOneAfterTheOther) {
    const std::vector<Sent> sent = {{OVL_ORVEL_S, "F5NQL", 2, 1500, -12, 0},
                                    {OVL_OPERA, "OH1ABC", 3 + FRAME_S, 1500, -12, 0},
                                    {OVL_ORVEL_L, "DK2XYZ", 5 + 2 * FRAME_S, 1500, -12, 0}};
    expect_spots(decode_real(render_real(scene_of(110, 14, sent)), defaults()), sent);
}

TEST(EndToEnd, RatesOfSoundCardsAndReceiversServe) {
    const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 2, 1450, -12, 0}};
    for (const int32_t rate : {8000, 16000, 24000, 32000, 48000, 96000, 192000}) {
        SCOPED_TRACE(rate);
        expect_spots(decode_real(render_real(scene_of(35, 15, sent, rate)), defaults(OVL_OPERA), rate), sent);
    }
}

// ---- Figures -------------------------------------------------------------------------------------------------------

// One station a block: the energy of others counts as noise.
TEST(EndToEnd, SnrIsWithoutBiasAndTimesWithinFiveMilliseconds) {
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        const uint64_t frames = protocol == OVL_OPERA ? 12 : 4;
        double sum = 0;
        for (uint64_t k = 0; k < frames; k++) {
            Random random(500 + k);
            const std::vector<Sent> sent = {{protocol, random.callsign(), random.uniform(0, 3),
                                             random.uniform(1320, 1680), -15, random.uniform(-0.05, 0.05)}};
            const auto spots = decode_real(render_real(scene_of(46, 900 + k, sent, 8000)), defaults(protocol), 8000);
            expect_spots(spots, sent);
            ASSERT_EQ(spots.size(), 1u);
            EXPECT_NEAR(spots[0].snr, -15, 1.5);
            sum += spots[0].snr + 15;
        }
        EXPECT_LT(std::fabs(sum / static_cast<double>(frames)), 0.5) << protocol;
    }
}

TEST(EndToEnd, FiveMinutesOfNoiseHoldNoFrame) {
    std::vector<ovc_known> known(3);
    ASSERT_EQ(ovc_known_init("F5NQL", &known[0]), 0);
    ASSERT_EQ(ovc_known_init("OH1ABC", &known[1]), 0);
    ASSERT_EQ(ovc_known_init("W1AW", &known[2]), 0);
    ov_params params = defaults();
    params.known = known.data();
    params.n_known = 3;
    for (uint64_t seed = 1; seed <= 5; seed++) {
        expect_spots(decode_real(render_real(scene_of(60, 1000 + seed, {}, 8000)), params, 8000), {});
    }
}

// ---- Many frames ---------------------------------------------------------------------------------------------------

// Thirty are found in the ordinary way; the search for known callsigns brings in forty weaker ones.
TEST(EndToEnd, NoMoreThanSixtyFourOfSeventyFramesAreReported) {
    std::vector<Sent> sent;
    std::vector<ovc_known> known;
    std::string list;
    Random random(77);
    std::set<std::string> used;
    for (int32_t k = 0; k < 70; k++) {
        std::string call;
        do {
            call = random.callsign();
        } while (!used.insert(call).second);
        const bool weak = k % 7 % 2 == 1 || k % 7 == 4;
        sent.push_back({OVL_OPERA, call, random.uniform(0.5, 3), 206 + 52.0 * k, weak ? -11.0 : -6.0, 0});
        if (!weak) continue;
        known.emplace_back();
        ASSERT_EQ(ovc_known_init(call.c_str(), &known.back()), 0);
        list += call + ' ';
    }
    ASSERT_EQ(known.size(), 40u);
    const std::vector<double> x = render_real(scene_of(36, 20, sent, 8000));
    ov_params params = defaults(OVL_OPERA);
    params.center_hz = 2000;
    params.search_hz = 1830;
    params.known = known.data();
    params.n_known = static_cast<int32_t>(known.size());
    std::set<std::string> decoded;
    for (const ov_spot& spot : decode_real(x, params, 8000, 100)) decoded.insert(spot.call);
    EXPECT_EQ(decoded, used);

    const std::unique_ptr<ovl_decoder, void (*)(ovl_decoder*)> decoder(ovl_create(), ovl_destroy);
    ASSERT_EQ(ovl_set_known(decoder.get(), list.c_str()), 40);
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.protocols = OVL_OPERA;
    settings.center_hz = 2000;
    settings.search_hz = 1830;
    std::vector<ovl_result> results(100);
    const std::vector<float> samples = to_float(x);
    EXPECT_EQ(ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), 8000, &settings,
                         results.data(), 100),
              64);
    EXPECT_STREQ(results[64].call, "") << "nothing is written past the frames reported";
}

// ---- Garbage in, nothing out ---------------------------------------------------------------------------------------

std::vector<double> clean_frame(double seconds, double t, int32_t rate = 8000) {
    Scene scene = scene_of(seconds, 1, {{OVL_OPERA, "F5NQL", t, 1500, 10, 0}}, rate);
    scene.noise = false;
    return render_real(scene);
}

// The block as real samples and as both kinds of I/Q.
void expect_refused(const std::vector<double>& x) {
    const ov_params params = defaults();
    const std::vector<double> good = clean_frame(35, 2);
    ASSERT_EQ(good.size(), x.size());
    const auto n = static_cast<int32_t>(x.size());
    std::array<ov_spot, 4> spots;
    EXPECT_EQ(ov_decode_real(x.data(), n, 8000, params, spots.data(), 4), -1);
    EXPECT_EQ(ov_decode_iq(x.data(), good.data(), n, 8000, params, spots.data(), 4), -1);
    EXPECT_EQ(ov_decode_iq(good.data(), x.data(), n, 8000, params, spots.data(), 4), -1);
}

TEST(Hostile, ASampleThatIsNotFiniteRefusesTheBlock) {
    for (const double bad : {NAN_D, INF_D, -INF_D}) {
        for (const std::size_t at : {std::size_t{0}, std::size_t{100000}, std::size_t{279999}}) {
            std::vector<double> x = clean_frame(35, 2);
            x[at] = bad;
            expect_refused(x);
        }
    }
    expect_refused(std::vector<double>(280000, NAN_D));
}

TEST(Hostile, SamplesTooLargeForAPowerDecodeToNothing) {
    const MemoryGrowth memory;
    for (const double level : {1e300, -1e300, 1e160, 1e25}) {
        SCOPED_TRACE(level);
        std::vector<double> x = clean_frame(35, 2);
        x[100000] = level;
        expect_spots(decode_real(x, defaults(), 8000), {});
        Random random(3);
        for (double& sample : x) sample = level * random.normal();
        expect_spots(decode_real(x, defaults(), 8000), {});
        expect_spots(decode_iq({x, x}, defaults(OVL_ORVEL_S), 8000), {});
    }
    // A whole frame whose powers overflow single precision: whatever is read of it is its callsign.
    std::vector<double> x = clean_frame(35, 2);
    for (double& sample : x) sample *= 1e30;
    for (const ov_spot& spot : decode_real(x, defaults(), 8000)) EXPECT_STREQ(spot.call, "F5NQL");
    EXPECT_LT(memory.mb(), 1500);
}

TEST(Hostile, TinySamplesDecodeAsWellAsLargeOnes) {
    for (const double scale : {1e-9, 1e9}) {
        const std::vector<Sent> sent = {{OVL_OPERA, "F5NQL", 2, 1500, -12, 0}};
        std::vector<double> x = render_real(scene_of(35, 21, sent, 8000));
        for (double& sample : x) sample *= scale;
        expect_spots(decode_real(x, defaults(OVL_OPERA), 8000), sent);
    }
}

TEST(Hostile, DigitalSilenceHoldsNoFrame) {
    for (const double level : {0.0, 0.25}) {  // also a constant voltage
        const std::vector<double> x(45 * 8000, level);
        expect_spots(decode_real(x, defaults(), 8000), {});
        expect_spots(decode_iq({x, x}, defaults(), 8000), {});
    }
}

// Silence makes noise levels of next to nothing and scores without bounds: what is read of the frame may be dropped,
// but never misread.
TEST(Hostile, AFrameInALongSilenceIsReadRightlyOrNotAtAll) {
    for (const double seconds : {35.0, 62.0, 120.0}) {
        for (const bool noisy : {false, true}) {
            SCOPED_TRACE(testing::Message() << seconds << " s, " << (noisy ? "noisy" : "clean"));
            Scene scene = scene_of(seconds, 22, {{OVL_OPERA, "F5NQL", 2, 1490, noisy ? -5.0 : 10.0, 0}}, 8000);
            scene.noise = noisy;
            std::vector<double> x = render_real(scene);
            if (noisy) std::fill(x.begin() + 34 * 8000, x.end(), 0.0);
            ov_params params = defaults();
            params.max_cands = 6;
            const auto spots = decode_real(x, params, 8000);
            EXPECT_LE(spots.size(), 1u);
            for (const ov_spot& spot : spots) {
                EXPECT_STREQ(spot.call, "F5NQL");
                EXPECT_EQ(spot.protocol, OVL_OPERA);
                EXPECT_NEAR(spot.t, 2, 0.005);
                EXPECT_NEAR(spot.freq, 1490, 0.3);
            }
        }
    }
}

TEST(Hostile, AnIqRecordingWithADeadChannelShowsTheSignalAndItsImage) {
    Scene scene = scene_of(35, 23, {{OVL_OPERA, "F5NQL", 2, 1500, -8, 0}}, 8000);
    IqSamples x = render_iq(scene);
    std::fill(x.q.begin(), x.q.end(), 0.0);
    expect_spots(decode_iq(x, defaults(), 8000), {{OVL_OPERA, "F5NQL", 2, 1500, -8, 0}});
    ov_params params = defaults();
    params.center_hz = -1500;
    expect_spots(decode_iq(x, params, 8000), {{OVL_OPERA, "F5NQL", 2, -1500, -8, 0}});
    std::fill(x.i.begin(), x.i.end(), 0.0);
    expect_spots(decode_iq(x, params, 8000), {});
}

TEST(Hostile, BlocksOfHardlyAnySamplesAreRefused) {
    const MemoryGrowth memory;
    const std::vector<double> x(1000, 0.5);
    std::array<ov_spot, 4> spots;
    for (const int32_t n : {1, 0, -1, std::numeric_limits<int32_t>::min(), 2, 1000}) {
        EXPECT_EQ(ov_decode_real(x.data(), n, 12000, defaults(), spots.data(), 4), -1) << n;
        EXPECT_EQ(ov_decode_iq(x.data(), x.data(), n, 12000, defaults(), spots.data(), 4), -1) << n;
    }
    EXPECT_LT(memory.mb(), 500);
}

TEST(Hostile, OddRatesEndSoonAndDecodeNothing) {
    const MemoryGrowth memory;
    Random random(5);
    std::vector<double> x(400000);
    for (double& sample : x) sample = random.normal();
    std::array<ov_spot, 4> spots;
    for (const int32_t rate :
         {1, 7, 11000, 22000, 44000, std::numeric_limits<int32_t>::max(), 0, -1, std::numeric_limits<int32_t>::min()}) {
        for (const int32_t n : {1, 400000}) {
            EXPECT_LE(ov_decode_real(x.data(), n, rate, defaults(), spots.data(), 4), 0) << rate << ' ' << n;
            EXPECT_LE(ov_decode_iq(x.data(), x.data(), n, rate, defaults(), spots.data(), 4), 0) << rate << ' ' << n;
        }
    }
    EXPECT_LT(memory.mb(), 1500);
}

// Decodes a good block with one spoilt setting: the frame itself is all that may come out.
class SpoiltSetting {
  public:
    SpoiltSetting() : x_(render_real(scene_of(35, 24, {{OVL_OPERA, "F5NQL", 2, 1500, -5, 0}}, RATE))) {}

    int32_t decode(const ov_params& params) const {
        std::array<ov_spot, 8> spots;
        const int32_t n = ov_decode_real(x_.data(), static_cast<int32_t>(x_.size()), RATE, params, spots.data(), 8);
        if (n < 0) {  // what is refused of real samples is refused of I/Q
            EXPECT_EQ(ov_decode_iq(x_.data(), x_.data(), static_cast<int32_t>(x_.size()), RATE, params, nullptr, 0),
                      -1);
        }
        for (int32_t k = 0; k < n; k++) EXPECT_STREQ(spots[static_cast<std::size_t>(k)].call, "F5NQL");
        return n;
    }

  private:
    std::vector<double> x_;
};

const std::vector<double>& spoilt_values() {
    static const std::vector<double> values = {NAN_D, INF_D, -INF_D, 1e300, -1e300, 1e6, -1e6};
    return values;
}

TEST(Hostile, SearchWidthsOfAnyKindEndSoon) {
    const MemoryGrowth memory;
    const SpoiltSetting block;
    for (const double value : spoilt_values()) {
        ov_params params = defaults(OVL_OPERA);
        params.search_hz = value;
        EXPECT_LE(block.decode(params), 0) << value;
    }
    ov_params params = defaults(OVL_OPERA);
    params.search_hz = 5900;
    EXPECT_EQ(block.decode(params), 1);
    params.search_hz = 0;
    EXPECT_LE(block.decode(params), 1);
    params.search_hz = -0.001;
    EXPECT_EQ(block.decode(params), 0);
    EXPECT_LT(memory.mb(), 1500);
}

TEST(Hostile, ASearchWiderThanTheInputEndsSoon) {
    const MemoryGrowth memory;
    const SpoiltSetting block;
    ov_params params = defaults(OVL_OPERA);
    params.search_hz = 20000;
    params.max_cands = 1;
    EXPECT_EQ(block.decode(params), 1);
    EXPECT_LT(memory.mb(), 2500);
}

TEST(Hostile, CentresOfAnyKindEndSoon) {
    const MemoryGrowth memory;
    const SpoiltSetting block;
    for (const double value : spoilt_values()) {
        ov_params params = defaults(OVL_OPERA);
        params.center_hz = value;
        EXPECT_LE(block.decode(params), 0) << value;
    }
    ov_params params = defaults(OVL_OPERA);
    params.center_hz = 20000;
    EXPECT_LE(block.decode(params), 0);
    EXPECT_LT(memory.mb(), 1500);
}

TEST(Hostile, SpreadsOfAnyKindEndSoon) {
    const MemoryGrowth memory;
    const SpoiltSetting block;
    for (const double value : spoilt_values()) {
        ov_params params = defaults(OVL_OPERA);
        params.spread_hz = value;
        params.max_cands = 1;
        EXPECT_LE(block.decode(params), 1) << value;
    }
    EXPECT_LT(memory.mb(), 1500);
}

TEST(Hostile, SpeedsOfAnyKindEndSoon) {
    const MemoryGrowth memory;
    const SpoiltSetting block;
    for (const double value : {NAN_D, INF_D, -INF_D, 0.0, -0.5, 1e-9, 1e9, 1e300, 1e-300, 0.5000001, 100.0}) {
        ov_params params = defaults();
        params.op = value;
        EXPECT_LE(block.decode(params), 0) << value;
    }
    EXPECT_LT(memory.mb(), 1500);
}

TEST(Hostile, TimesOfAnyKindEndSoon) {
    const SpoiltSetting block;
    for (const double value : {NAN_D, INF_D, -INF_D, 1e300, -1e300}) {
        for (double ov_params::*field :
             {&ov_params::start_min, &ov_params::start_max, &ov_params::end_min, &ov_params::end_max}) {
            ov_params params = defaults(OVL_OPERA);
            params.max_cands = 1;
            params.*field = value;
            const int32_t n = block.decode(params);
            EXPECT_TRUE(n == 0 || n == 1) << value;
        }
    }
    // Infinite limits are limits like others.
    ov_params params = defaults(OVL_OPERA);
    params.start_min = -INF_D;
    params.end_min = -INF_D;
    params.start_max = INF_D;
    params.end_max = INF_D;
    EXPECT_EQ(block.decode(params), 1);
    params.start_min = INF_D;
    EXPECT_EQ(block.decode(params), 0);
}

TEST(Hostile, ThresholdsOfAnyKindEndSoon) {
    const SpoiltSetting block;
    for (const double value : spoilt_values()) {
        for (double ov_params::*field : {&ov_params::drift_max, &ov_params::chip_guard, &ov_params::z_min,
                                         &ov_params::twin_min, &ov_params::off_max}) {
            ov_params params = defaults(OVL_OPERA);
            params.max_cands = 1;
            params.*field = value;
            EXPECT_LE(block.decode(params), 1) << value;
        }
    }
}

}  // namespace
