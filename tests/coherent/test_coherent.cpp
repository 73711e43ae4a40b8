// The coherent search as a host calls it: what it finds and how it says so, what it leaves alone, and what it must not
// believe.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "liborvel.h"
#include "siggen.h"

namespace {

// ---- Decodes -------------------------------------------------------------------------------------------------------

constexpr int32_t RATE = 2000;
constexpr double CENTRE_HZ = 500;
constexpr double SEARCH_HZ = 50;
constexpr double BLOCK_S = 46;
constexpr int32_t SHORT = OVL_OPERA | OVL_ORVEL_S;  // frames of one length, which share a search
constexpr int32_t ALL = SHORT | OVL_ORVEL_L;

using Decoder = std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)>;
Decoder standard_decoder() {
    return {ovl_create(), ovl_destroy};
}
ovl_coherent defaults() {
    ovl_coherent settings;
    ovl_coherent_default(&settings);
    return settings;
}
// Enough for blocks with few frames.
ovl_coherent quick() {
    ovl_coherent settings = defaults();
    settings.places = 6;
    return settings;
}
Decoder coherent_decoder(const ovl_coherent& settings = quick()) {
    Decoder decoder = standard_decoder();
    EXPECT_EQ(ovl_set_coherent(decoder.get(), &settings), 0);
    return decoder;
}

ovl_settings settings_for(int32_t protocols) {
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.center_hz = CENTRE_HZ;
    settings.search_hz = SEARCH_HZ;
    settings.protocols = protocols;
    return settings;
}

struct Found {
    std::vector<ovl_result> results;
    std::vector<ovl_finding> findings;
};

Found decode(const Decoder& decoder, const std::vector<float>& samples, const ovl_settings& settings,
             int32_t room = 64) {
    Found found;
    found.results.resize(static_cast<std::size_t>(room));
    const int32_t count = ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), RATE,
                                     &settings, found.results.data(), room);
    EXPECT_GE(count, 0) << ovl_last_error(decoder.get());
    found.results.resize(static_cast<std::size_t>(std::max(count, 0)));
    found.findings.resize(found.results.size());
    EXPECT_EQ(ovl_findings(decoder.get(), found.findings.data(), static_cast<int32_t>(found.findings.size())),
              std::max(count, 0));
    return found;
}

bool same(const ovl_result& a, const ovl_result& b) {
    return std::strcmp(a.call, b.call) == 0 && std::strcmp(a.locator, b.locator) == 0 && a.protocol == b.protocol &&
           a.deep == b.deep && a.t_start == b.t_start && a.t_end == b.t_end && a.freq_hz == b.freq_hz &&
           a.snr_db == b.snr_db && a.drift_hz_s == b.drift_hz_s;
}
bool same(const std::vector<ovl_result>& a, const std::vector<ovl_result>& b) {
    return std::ranges::equal(a, b, [](const ovl_result& x, const ovl_result& y) { return same(x, y); });
}
bool same(const Found& a, const Found& b) {
    const auto same_finding = [](const ovl_finding& x, const ovl_finding& y) {
        return x.method == y.method && (x.odds == y.odds || (std::isnan(x.odds) && std::isnan(y.odds)));
    };
    return same(a.results, b.results) && std::ranges::equal(a.findings, b.findings, same_finding);
}

std::string text_of(const Found& found) {
    std::string text;
    for (std::size_t k = 0; k < found.results.size(); k++) {
        const ovl_result& result = found.results[k];
        text += std::string(result.call) + ' ' + result.locator + " of protocol " + std::to_string(result.protocol) +
                " at " + std::to_string(result.t_start) + " s, " + std::to_string(result.freq_hz) + " Hz, odds e^" +
                std::to_string(found.findings[k].odds) + '\n';
    }
    return text;
}

// ---- Scenes --------------------------------------------------------------------------------------------------------

struct Sent {
    int32_t protocol;
    const char *call, *locator;
    double t, freq_hz, drift_hz_s, snr_db;
};

Station station_of(const Sent& sent) {
    const auto protocol = static_cast<uint32_t>(sent.protocol);
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(protocol)));
    EXPECT_GT(ovl_encode(protocol, sent.call, sent.locator, chips.data(), static_cast<int32_t>(chips.size())), 0);
    return {chips, sent.t, sent.freq_hz, sent.drift_hz_s, sent.snr_db, 0.7};
}

std::vector<float> block_of(const std::vector<Sent>& sent, uint64_t seed) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = BLOCK_S;
    scene.seed = seed;
    for (const Sent& one : sent) scene.stations.push_back(station_of(one));
    return to_float(render_real(scene));
}

constexpr Sent WEAK_OPERA = {OVL_OPERA, "OH2XYZ", "", 9.37, 521.3, 0.02, -28.5};
constexpr Sent WEAK_ORVEL_S = {OVL_ORVEL_S, "DL1QXA", "", 4.21, 488.7, -0.03, -28.5};
constexpr Sent WEAK_ORVEL_L = {OVL_ORVEL_L, "PA3XYZ", "JO22", 2.84, 507.9, 0.01, -28.5};

// Two that every search finds and one for the coherent search.
std::vector<float> mixed_block() {
    return block_of(
        {{OVL_OPERA, "K1ABC", "", 3, 470, 0, -12}, {OVL_ORVEL_S, "SM5XYZ", "", 1.5, 535, 0.01, -14}, WEAK_ORVEL_S}, 5);
}

void expect_sent(const ovl_result& result, const Sent& sent) {
    EXPECT_STREQ(result.call, sent.call);
    EXPECT_STREQ(result.locator, sent.locator);
    EXPECT_EQ(result.protocol, sent.protocol);
    EXPECT_NEAR(result.t_start, sent.t, 0.02);
    const double frame_s = ovl_frame_chips(static_cast<uint32_t>(sent.protocol)) * ovl_chip_seconds();
    EXPECT_NEAR(result.t_end - result.t_start, frame_s, 1e-9);
    EXPECT_NEAR(result.freq_hz, sent.freq_hz, 0.03);
    EXPECT_NEAR(result.drift_hz_s, sent.drift_hz_s, 0.003);
    EXPECT_NEAR(result.snr_db, sent.snr_db, 2);
}

// ---- What it finds -------------------------------------------------------------------------------------------------

TEST(CoherentSearch, FindsFramesThatAreTooWeakForTheStandardSearch) {
    for (const auto& [sent, seed] : {std::pair{WEAK_OPERA, 58}, {WEAK_ORVEL_S, 40}, {WEAK_ORVEL_L, 47}}) {
        SCOPED_TRACE(sent.call);
        const std::vector<float> samples = block_of({sent}, static_cast<uint64_t>(seed));
        EXPECT_TRUE(decode(standard_decoder(), samples, settings_for(ALL)).results.empty()) << "too easy";
        const Found found = decode(coherent_decoder(defaults()), samples, settings_for(ALL));
        ASSERT_EQ(found.results.size(), 1u) << text_of(found);
        expect_sent(found.results[0], sent);
        EXPECT_EQ(found.results[0].deep, OVL_COHERENT);
        EXPECT_EQ(found.findings[0].method, OVL_COHERENT);
        EXPECT_GT(found.findings[0].odds, std::log(100.0));
    }
}

TEST(CoherentSearch, LeavesWhatOthersFindAsItIs) {
    const std::vector<float> samples = mixed_block();
    const Found before = decode(standard_decoder(), samples, settings_for(SHORT));
    ASSERT_EQ(before.results.size(), 2u) << text_of(before);
    for (const ovl_finding& finding : before.findings) {
        EXPECT_EQ(finding.method, OVL_STANDARD);
        EXPECT_TRUE(std::isnan(finding.odds));
    }

    const Found found = decode(coherent_decoder(), samples, settings_for(SHORT));
    ASSERT_EQ(found.results.size(), 3u) << text_of(found);
    std::vector<ovl_result> standard;
    for (std::size_t k = 0; k < found.results.size(); k++) {
        EXPECT_EQ(found.findings[k].method, found.results[k].deep);
        EXPECT_TRUE(k == 0 || found.results[k - 1].t_start <= found.results[k].t_start);
        if (found.results[k].deep == OVL_COHERENT) {
            expect_sent(found.results[k], WEAK_ORVEL_S);
            EXPECT_GT(found.findings[k].odds, 0);
        } else {
            standard.push_back(found.results[k]);
            EXPECT_TRUE(std::isnan(found.findings[k].odds));
        }
    }
    EXPECT_TRUE(same(standard, before.results));
}

TEST(CoherentSearch, TellsOfTheStandardSearchForKnownCallsigns) {
    const std::vector<float> samples = block_of({{OVL_OPERA, "OH2XYZ", "", 5, 510, 0, -24}}, 6);
    const Decoder decoder = standard_decoder();
    ASSERT_EQ(ovl_set_known(decoder.get(), "OH2XYZ"), 1);
    const Found found = decode(decoder, samples, settings_for(OVL_OPERA));
    ASSERT_EQ(found.results.size(), 1u);
    EXPECT_EQ(found.results[0].deep, OVL_DEEP);
    EXPECT_EQ(found.findings[0].method, OVL_DEEP);
    EXPECT_TRUE(std::isnan(found.findings[0].odds));
}

TEST(CoherentSearch, IsOffUntilItIsSwitchedOnAndOffAgain) {
    const std::vector<float> samples = mixed_block();
    const Found before = decode(standard_decoder(), samples, settings_for(SHORT));
    const Decoder decoder = coherent_decoder();
    EXPECT_EQ(decode(decoder, samples, settings_for(SHORT)).results.size(), before.results.size() + 1);
    EXPECT_EQ(ovl_set_coherent(decoder.get(), nullptr), 0);
    EXPECT_TRUE(same(decode(decoder, samples, settings_for(SHORT)), before));
}

TEST(CoherentSearch, FindsTheSameEveryTimeAndWithTwoThreads) {
    const std::vector<float> samples = mixed_block();
    ovl_coherent two = quick();
    two.threads = 2;
    const Decoder decoder = coherent_decoder();
    const Found found = decode(decoder, samples, settings_for(ALL));
    EXPECT_TRUE(same(decode(decoder, samples, settings_for(ALL)), found));
    EXPECT_TRUE(same(decode(coherent_decoder(two), samples, settings_for(ALL)), found));
}

TEST(CoherentSearch, TakesOutWhatHidesAWeakerFrame) {
    // Fifteen hertz beside a station 20 dB stronger.
    const Sent weak = {OVL_ORVEL_S, "OH2XYZ", "", 7.3, 515, 0, -20};
    const std::vector<float> samples = block_of({{OVL_ORVEL_S, "SM5XYZ", "", 6, 500, 0, 0}, weak}, 7);
    const Found found = decode(coherent_decoder(), samples, settings_for(OVL_ORVEL_S));
    ASSERT_EQ(found.results.size(), 2u) << text_of(found);
    EXPECT_STREQ(found.results[0].call, "SM5XYZ");
    EXPECT_STREQ(found.results[1].call, "OH2XYZ");
}

TEST(CoherentSearch, FindsFramesOverTheEdgesOfTheBlock) {
    const double frame_s = ovl_frame_chips(OVL_ORVEL_S) * ovl_chip_seconds();
    for (const double start_s : {-0.15 * frame_s, BLOCK_S - 0.85 * frame_s}) {
        const Sent sent = {OVL_ORVEL_S, "OH2XYZ", "", start_s, 490, 0, -26.5};
        const Found found = decode(coherent_decoder(), block_of({sent}, 8), settings_for(ALL));
        ASSERT_EQ(found.results.size(), 1u) << start_s << '\n' << text_of(found);
        expect_sent(found.results[0], sent);
        EXPECT_EQ(found.results[0].deep, OVL_COHERENT);
    }
}

// ---- Settings ------------------------------------------------------------------------------------------------------

TEST(CoherentSearch, KeepsToTheSettingsOfTheDecode) {
    const std::vector<float> samples = block_of({WEAK_ORVEL_S}, 40);
    const Decoder decoder = coherent_decoder();
    const auto count_with = [&](const std::function<void(ovl_settings&)>& change) {
        ovl_settings settings = settings_for(OVL_ORVEL_S);
        change(settings);
        return decode(decoder, samples, settings).results.size();
    };
    const double end_s = WEAK_ORVEL_S.t + ovl_frame_chips(OVL_ORVEL_S) * ovl_chip_seconds();
    EXPECT_EQ(count_with([](ovl_settings&) {}), 1u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.protocols = OVL_OPERA | OVL_ORVEL_L; }), 0u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.search_hz = 8; }), 0u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.search_hz = 15; }), 1u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.center_hz = 530; }), 1u);
    EXPECT_EQ(count_with([&](ovl_settings& s) { s.end_min = end_s + 0.1; }), 0u);
    EXPECT_EQ(count_with([&](ovl_settings& s) { s.end_max = end_s - 0.1; }), 0u);
    EXPECT_EQ(count_with([&](ovl_settings& s) {
                  s.end_min = end_s - 0.1;
                  s.end_max = end_s + 0.1;
              }),
              1u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.end_min = 1e300; }), 0u);
    EXPECT_EQ(count_with([](ovl_settings& s) { s.end_max = 0; }), 0u);

    ovl_settings known_only = settings_for(OVL_ORVEL_S);
    known_only.known_only = 1;
    ASSERT_EQ(ovl_set_known(decoder.get(), "K1ABC"), 1);
    EXPECT_TRUE(decode(decoder, samples, known_only).results.empty());
    ASSERT_EQ(ovl_set_known(decoder.get(), "K1ABC DL1QXA"), 2);
    EXPECT_EQ(decode(decoder, samples, known_only).results.size(), 1u);
}

TEST(CoherentSearch, DecodesOfRecentFramesKeepToTheirEnd) {
    const std::vector<float> samples = block_of({WEAK_ORVEL_S}, 40);
    const Decoder decoder = coherent_decoder();
    const ovl_settings settings = settings_for(OVL_ORVEL_S);
    const auto count = [&](double recent_s) {
        ovl_result results[4];
        return ovl_decode_recent(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), RATE, &settings,
                                 recent_s, results, 4);
    };
    EXPECT_EQ(count(8), 0);  // it ends 11.2 s before the block does
    EXPECT_EQ(count(20), 1);
}

TEST(CoherentSearch, SettingsOutOfRangeChangeNothing) {
    ovl_coherent settings = defaults();
    EXPECT_EQ(settings.places, 16);
    EXPECT_EQ(settings.passes, 4);
    EXPECT_EQ(settings.threads, 1);
    EXPECT_EQ(settings.known, 1);
    ovl_coherent_default(nullptr);
    EXPECT_EQ(ovl_set_coherent(nullptr, &settings), -1);
    EXPECT_EQ(ovl_set_coherent(nullptr, nullptr), -1);

    const Decoder decoder = standard_decoder();
    const auto set = [&](int32_t places, int32_t passes, int32_t threads, int32_t known) {
        const ovl_coherent changed = {places, passes, threads, known};
        const int32_t result = ovl_set_coherent(decoder.get(), &changed);
        EXPECT_STREQ(ovl_last_error(decoder.get()), result == 0 ? "" : "invalid argument");
        return result;
    };
    for (const int32_t wrong : {std::numeric_limits<int32_t>::min(), -1, 0, 1, 65}) {
        EXPECT_EQ(set(wrong, 4, 1, 1), -1) << wrong;
    }
    for (const int32_t wrong : {-1, 0, 9}) EXPECT_EQ(set(16, wrong, 1, 1), -1) << wrong;
    for (const int32_t wrong : {-1, 0, 3}) EXPECT_EQ(set(16, 4, wrong, 1), -1) << wrong;
    const std::vector<float> samples = block_of({WEAK_ORVEL_S}, 40);
    EXPECT_TRUE(decode(decoder, samples, settings_for(OVL_ORVEL_S)).results.empty()) << "switched on all the same";

    EXPECT_EQ(set(2, 1, 1, 0), 0);
    EXPECT_EQ(set(64, 8, 2, -5), 0);
    EXPECT_EQ(set(65, 8, 2, 1), -1);
    EXPECT_EQ(decode(decoder, samples, settings_for(OVL_ORVEL_S)).results.size(), 1u) << "switched off all the same";
}

TEST(CoherentSearch, FindingsBelongToTheLastDecode) {
    const Decoder decoder = coherent_decoder();
    std::array<ovl_finding, 4> findings;
    findings.fill({-7, -7});
    EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 4), 0);
    EXPECT_EQ(ovl_findings(nullptr, findings.data(), 4), -1);
    EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), -1), -1);
    EXPECT_EQ(ovl_findings(decoder.get(), nullptr, 1), -1);
    EXPECT_EQ(findings[0].method, -7);

    const std::vector<float> samples = mixed_block();
    const Found found = decode(decoder, samples, settings_for(SHORT));
    ASSERT_EQ(found.results.size(), 3u);
    EXPECT_EQ(ovl_findings(decoder.get(), nullptr, 0), 3);
    EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 2), 3);
    EXPECT_EQ(findings[0].method, found.results[0].deep);
    EXPECT_EQ(findings[1].method, found.results[1].deep);
    EXPECT_EQ(findings[2].method, -7);

    const Found fewer = decode(decoder, samples, settings_for(SHORT), 2);
    EXPECT_EQ(fewer.results.size(), 2u);  // decode() checks how many findings there are
    const ovl_settings settings = settings_for(SHORT);
    EXPECT_EQ(ovl_decode(decoder.get(), nullptr, 1, RATE, &settings, nullptr, 0), -1);
    EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 4), 0);

    decode(decoder, samples, settings_for(SHORT));
    ovl_result result;
    EXPECT_EQ(ovl_decode_recent(decoder.get(), samples.data(), 100, RATE, &settings, -1, &result, 1), -1);
    EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 4), 0);
}

// ---- What it must not believe --------------------------------------------------------------------------------------

using Samples = std::vector<double>;
constexpr double NOISE_RMS = 0.05;

// Amplitude of a steady carrier with that power in 2500 Hz.
double amplitude_of(double snr_db) {
    return std::sqrt(2 * NOISE_RMS * NOISE_RMS * 2500 / (RATE / 2.0) * std::pow(10, snr_db / 10));
}

void add_tone(Samples& samples, double freq_hz, double snr_db, double phase,
              const std::function<double(double)>& envelope) {
    for (std::size_t k = 0; k < samples.size(); k++) {
        const double t = static_cast<double>(k) / RATE;
        samples[k] += amplitude_of(snr_db) * envelope(t) * std::sin(2 * std::numbers::pi * freq_hz * t + phase);
    }
}

double frequency_in_band(Random& random) {
    return CENTRE_HZ + random.uniform(-SEARCH_HZ, SEARCH_HZ);
}

// What a host gets that asks for nothing special; under the sanitizers, which look for other errors, a little.
ovl_coherent believing() {
    ovl_coherent settings = defaults();
#ifdef ORVEL_SANITIZED
    settings.places = 2;
    settings.passes = 1;
#endif
    return settings;
}

// Nothing in blocks of noise to which `trap` is added.
void expect_nothing(int32_t blocks, uint64_t seed, const std::function<void(Samples&, Random&)>& trap) {
    const Decoder decoder = coherent_decoder(believing());
    for (int32_t block = 0; block < blocks; block++) {
        Scene scene;
        scene.rate = RATE;
        scene.seconds = BLOCK_S;
        scene.seed = seed + static_cast<uint64_t>(block);
        scene.noise_rms = NOISE_RMS;
        Samples samples = render_real(scene);
        Random random(scene.seed + 1000);
        trap(samples, random);
        const Found found = decode(decoder, to_float(samples), settings_for(ALL));
        EXPECT_TRUE(found.results.empty()) << "block " << block << '\n' << text_of(found);
    }
}

TEST(CoherentSearchIsNotFooled, ByNoise) {
    expect_nothing(2, 100, [](Samples&, Random&) {});
}

TEST(CoherentSearchIsNotFooled, BySteadyCarriers) {
    expect_nothing(1, 110, [](Samples& samples, Random& random) {
        for (const double snr_db : {-32.0, -25.0, -15.0, 0.0, 20.0}) {
            add_tone(samples, frequency_in_band(random), snr_db, random.uniform(0, 6), [](double) { return 1.0; });
        }
    });
}

TEST(CoherentSearchIsNotFooled, ByCarriersKeyedAtRandom) {
    expect_nothing(1, 120, [](Samples& samples, Random& random) {
        for (const double snr_db : {-27.0, -20.0, -10.0, 10.0}) {
            double next_s = 0;
            bool on = false;
            const double longest_s = random.uniform(0.1, 1);
            add_tone(samples, frequency_in_band(random), snr_db, random.uniform(0, 6), [&](double t) {
                if (t >= next_s) {
                    on = !on;
                    next_s = t + random.uniform(0.03, longest_s);
                }
                return on ? 1.0 : 0.0;
            });
        }
    });
}

TEST(CoherentSearchIsNotFooled, ByImpulses) {
    expect_nothing(2, 130, [](Samples& samples, Random& random) {
        for (int32_t i = 0; i < 60; i++) {
            const auto first = static_cast<std::size_t>(random.integer(0, static_cast<int32_t>(samples.size()) - 1));
            const auto length = static_cast<std::size_t>(random.integer(1, RATE / 100));
            const double size = NOISE_RMS * std::pow(10, random.uniform(0.5, 3));
            for (std::size_t k = first; k < std::min(first + length, samples.size()); k++) {
                samples[k] += size * random.normal();
            }
        }
    });
}

TEST(CoherentSearchIsNotFooled, ByChirps) {
    expect_nothing(1, 140, [](Samples& samples, Random& random) {
        for (const double snr_db : {-25.0, -15.0, -5.0, 5.0}) {
            const double from_hz = frequency_in_band(random);
            const double slope = random.uniform(-3, 3);
            const double phase = random.uniform(0, 6);
            for (std::size_t k = 0; k < samples.size(); k++) {
                const double t = static_cast<double>(k) / RATE;
                samples[k] +=
                    amplitude_of(snr_db) * std::sin(2 * std::numbers::pi * (from_hz * t + slope * t * t / 2) + phase);
            }
        }
    });
}

TEST(CoherentSearchIsNotFooled, ByHumWithHarmonics) {
    expect_nothing(1, 150, [](Samples& samples, Random& random) {
        const double hum_hz = random.uniform(9.9, 10.1);
        const double wobble = random.uniform(0.1, 0.5);
        for (int32_t k = 40; k <= 60; k++) {
            add_tone(samples, k * hum_hz, random.uniform(-25, 0), random.uniform(0, 6),
                     [&](double t) { return 1 + 0.3 * std::sin(2 * std::numbers::pi * wobble * t); });
        }
    });
}

// Of all protocols but one, when that is what is on the air.
TEST(CoherentSearchIsNotFooled, ByFramesOfOtherProtocols) {
    struct Trap {
        int32_t protocol;
        double snr_db;
    };
    constexpr std::array TRAPS = {Trap{OVL_OPERA, -20}, Trap{OVL_ORVEL_S, 10}, Trap{OVL_ORVEL_L, -26},
                                  Trap{OVL_ORVEL_L, 10}};
    const Decoder decoder = coherent_decoder(believing());
    for (const auto& [protocol, snr_db] : TRAPS) {
        const std::vector<float> samples =
            block_of({{protocol, "OH2XYZ", "KP20", 3, 492, 0.01, snr_db}}, 160 + static_cast<uint64_t>(protocol));
        const Found found = decode(decoder, samples, settings_for(ALL & ~protocol));
        EXPECT_TRUE(found.results.empty()) << "protocol " << protocol << " at " << snr_db << " dB\n" << text_of(found);
    }
}

// Chip pairs as of a frame, with bits that no message has.
TEST(CoherentSearchIsNotFooled, ByUnknownStationsWithTheSameKeying) {
    for (const double snr_db : {-26.0, -15.0}) {
        Random random(170);
        Scene scene;
        scene.rate = RATE;
        scene.seconds = BLOCK_S;
        scene.seed = 171;
        for (const double freq_hz : {470.0, 505.0}) {
            std::vector<uint8_t> chips = {1};
            for (int32_t k = 0; k < 160; k++) {
                const auto bit = static_cast<uint8_t>(random.integer(0, 1));
                chips.push_back(1 - bit);
                chips.push_back(bit);
            }
            scene.stations.push_back({chips, random.uniform(0, 4), freq_hz, 0.01, snr_db, 0.2});
        }
        const Found found = decode(coherent_decoder(believing()), to_float(render_real(scene)), settings_for(ALL));
        EXPECT_TRUE(found.results.empty()) << snr_db << " dB\n" << text_of(found);
    }
}

// ---- Input of every kind -------------------------------------------------------------------------------------------

TEST(CoherentSearch, ReadsClippedAndVeryLoudAndVeryQuietBlocks) {
    const std::vector<float> samples = block_of({WEAK_ORVEL_S}, 40);
    for (const float gain : {1e-11f, 1e-4f, 1e4f, 1e11f}) {
        std::vector<float> scaled = samples;
        for (float& sample : scaled) sample *= gain;
        const Found found = decode(coherent_decoder(), scaled, settings_for(OVL_ORVEL_S));
        ASSERT_EQ(found.results.size(), 1u) << gain;
        expect_sent(found.results[0], WEAK_ORVEL_S);
    }
    std::vector<float> clipped = samples;
    for (float& sample : clipped) sample = std::clamp(sample, -0.1f, 0.1f);
    EXPECT_EQ(decode(coherent_decoder(), clipped, settings_for(OVL_ORVEL_S)).results.size(), 1u);
}

// The coherent one begins first.
TEST(CoherentSearch, TakesNoRoomFromWhatTheStandardSearchFinds) {
    const std::vector<float> samples =
        block_of({{OVL_OPERA, "OH2XYZ", "", 2, 521, 0, -28}, {OVL_OPERA, "K1ABC", "", 12, 480, 0, -12}}, 46);
    const ovl_settings settings = settings_for(OVL_OPERA);
    const Found all = decode(coherent_decoder(), samples, settings);
    ASSERT_EQ(all.results.size(), 2u) << text_of(all);
    EXPECT_STREQ(all.results[0].call, "OH2XYZ");
    const Found one = decode(coherent_decoder(), samples, settings, 1);
    ASSERT_EQ(one.results.size(), 1u);
    EXPECT_TRUE(same(one.results[0], all.results[1])) << text_of(one);
}

// Far below what can be read, a known callsign's pattern still shows, and is marked as no more than that.
TEST(CoherentSearch, KnownCallsignsAreFoundFurtherDown) {
    const std::vector<float> samples = block_of({{OVL_OPERA, "DL1QXA", "", 4.2, 489, -0.02, -31.3}}, 44);
    const Decoder decoder = coherent_decoder();
    const ovl_settings settings = settings_for(OVL_OPERA);
    EXPECT_EQ(decode(decoder, samples, settings).results.size(), 0u);

    ASSERT_EQ(ovl_set_known(decoder.get(), "G4QZB DL1QXA SM5QQ"), 3);
    const Found found = decode(decoder, samples, settings);
    ASSERT_EQ(found.results.size(), 1u) << text_of(found);
    EXPECT_STREQ(found.results[0].call, "DL1QXA");
    EXPECT_EQ(found.results[0].deep, OVL_COHERENT_KNOWN);
    EXPECT_EQ(found.findings[0].method, OVL_COHERENT_KNOWN);
    EXPECT_GT(found.findings[0].odds, 0);
    EXPECT_NEAR(found.results[0].t_start, 4.2, 0.03);
    EXPECT_NEAR(found.results[0].freq_hz, 489, 0.1);

    ovl_coherent without = quick();
    without.known = 0;
    ASSERT_EQ(ovl_set_coherent(decoder.get(), &without), 0);
    EXPECT_EQ(decode(decoder, samples, settings).results.size(), 0u);
    const Decoder others = coherent_decoder();
    ASSERT_EQ(ovl_set_known(others.get(), "G4QZB K2QRX SM5QQ"), 3);
    EXPECT_EQ(decode(others, samples, settings).results.size(), 0u);
}

// Longer blocks are searched in stretches: frames in both of two, over their borders, and within limits. One callsign
// may be sent again.
TEST(CoherentSearch, LongBlocksHaveEachFrameOnceAtItsTime) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = 260;
    scene.seed = 45;
    const std::vector<Sent> sent = {{OVL_ORVEL_S, "K1ABC", "", 75, 480, 0.01, -28},
                                    {OVL_ORVEL_S, "OH2XYZ", "", 103, 510, -0.02, -28},
                                    {OVL_ORVEL_S, "K1ABC", "", 222, 480, 0.02, -28}};
    for (const Sent& one : sent) scene.stations.push_back(station_of(one));
    const std::vector<float> samples = to_float(render_real(scene));
    const Found found = decode(coherent_decoder(), samples, settings_for(OVL_ORVEL_S));
    ASSERT_EQ(found.results.size(), sent.size()) << text_of(found);
    for (std::size_t k = 0; k < sent.size(); k++) {
        EXPECT_STREQ(found.results[k].call, sent[k].call);
        EXPECT_NEAR(found.results[k].t_start, sent[k].t, 0.03);
    }
    ovl_settings late = settings_for(OVL_ORVEL_S);
    late.end_min = 130;
    late.end_max = 140;
    const Found limited = decode(coherent_decoder(), samples, late);
    ASSERT_EQ(limited.results.size(), 1u) << text_of(limited);
    EXPECT_STREQ(limited.results[0].call, "OH2XYZ");
}

// A wider search is made of slices, which overlap. Here they share what is around 500 Hz, and only one has each side.
TEST(CoherentSearch, WideSearchesHaveEachFrameOnceAtItsFrequency) {
    const std::vector<Sent> sent = {{OVL_ORVEL_S, "DL1QXA", "", 4.2, 280, 0, -28},
                                    {OVL_ORVEL_S, "SM5QQ", "", 5.5, 505, 0, -28},
                                    {OVL_ORVEL_S, "DL1QXA", "", 6.8, 725, 0, -28}};
    ovl_settings wide = settings_for(OVL_ORVEL_S);
    wide.search_hz = 250;
    const Found found = decode(coherent_decoder(), block_of(sent, 46), wide);
    ASSERT_EQ(found.results.size(), sent.size()) << text_of(found);
    for (std::size_t k = 0; k < sent.size(); k++) {
        expect_sent(found.results[k], sent[k]);
        EXPECT_EQ(found.findings[k].method, OVL_COHERENT);
    }
}

TEST(CoherentSearch, WhatIsNoBlockHasNoResults) {
    const Decoder decoder = coherent_decoder();
    const ovl_settings settings = settings_for(ALL);
    ovl_result results[4];
    const auto count = [&](const std::vector<float>& samples) {
        return ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), RATE, &settings, results,
                          4);
    };
    EXPECT_EQ(count(std::vector<float>(RATE * 40, 0.0f)), 0);
    EXPECT_EQ(count(std::vector<float>(RATE * 40, 0.5f)), 0);
    std::vector<float> samples = block_of({WEAK_ORVEL_S}, 40);
    for (const float wrong : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        samples[1000] = wrong;
        EXPECT_EQ(count(samples), -1);
        std::array<ovl_finding, 1> findings;
        EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 1), 0);
    }
    for (const int32_t n : {1, 100, RATE, RATE * 4, RATE * 7}) {
        EXPECT_LE(count(std::vector<float>(samples.begin(), samples.begin() + std::min(n, 999))), 0) << n;
        std::vector<float> noise(static_cast<std::size_t>(n));
        Random random(9);
        for (float& sample : noise) sample = static_cast<float>(random.normal());
        EXPECT_LE(count(noise), 0) << n;
    }
}

}  // namespace
