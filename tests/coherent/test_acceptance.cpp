// What makes a frame believable: each condition by itself decides.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <span>
#include <vector>

#include "band.h"
#include "coherent/acceptance.h"
#include "coherent/slice.h"
#include "coherent/tracker.h"

using namespace coherent;

namespace {

// A frame of a protocol with everything in its favour.
Frame good_frame(int32_t id) {
    Frame frame{};
    frame.code = &code_of(*ov_protocol_by_id(static_cast<uint32_t>(id)));
    frame.message.plausible = true;
    frame.amplitude = 1;
    frame.likelihood = frame.code->log_words + 80;
    frame.evidence = 30;
    frame.doubt = -20;
    frame.rival = frame.likelihood - 40;
    frame.measured = 1;
    frame.on = frame.on_segments = 1;
    frame.off = frame.off_segments = 0;
    frame.off_sigma = 0.09;
    return frame;
}

using Change = std::function<void(Frame&)>;
std::optional<double> odds_with(int32_t id, const Change& change) {
    Frame frame = good_frame(id);
    change(frame);
    return accepted_odds(frame);
}

class Acceptance : public testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(OfProtocol, Acceptance, testing::Values(OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L));

TEST_P(Acceptance, TakesAFrameThatLacksNothing) {
    const auto odds = odds_with(GetParam(), [](Frame&) {});
    ASSERT_TRUE(odds);
    EXPECT_GT(*odds, 15);
    EXPECT_LT(*odds, 20.1) << "more certain than its word";
}

TEST_P(Acceptance, OneWeaknessIsEnoughToRefuse) {
    const struct {
        const char* what;
        Change change;
    } weaknesses[] = {
        {"noise fits some word as well",
         [](Frame& f) {
             f.likelihood = f.code->log_words + 20;
             f.evidence = f.rival = 0;
         }},
        {"another word fits nearly as well", [](Frame& f) { f.doubt = -4; }},
        {"another start fits nearly as well", [](Frame& f) { f.rival = f.likelihood - 6; }},
        {"any pattern fits as well", [](Frame& f) { f.evidence = f.likelihood - f.code->log_words - 1; }},
        {"OFF chips have energy", [](Frame& f) { f.off = 0.5; }},
        {"OFF chips have the carrier", [](Frame& f) { f.off_segments = 0.5; }},
    };
    for (const auto& [what, change] : weaknesses) EXPECT_FALSE(odds_with(GetParam(), change)) << what;
}

TEST_P(Acceptance, TakesWhatIsHardlyWeaker) {
    const Change hardly[] = {
        [](Frame& f) {
            f.likelihood = f.code->log_words + 45;
            f.evidence = 15;
            f.rival = f.likelihood - 40;
        },
        [](Frame& f) { f.doubt = -8; },
        [](Frame& f) { f.rival = f.likelihood - 14; },
        [](Frame& f) { f.rival = -INFINITY; },  // no other start had a word
        [](Frame& f) { f.evidence = f.likelihood - f.code->log_words - 16; },
        [](Frame& f) { f.off = 0.2; },  // little above its noise
        [](Frame& f) { f.off = f.off_segments = -0.3; },
        [](Frame& f) {  // strong: keying leaks
            f.on = f.on_segments = 10;
            f.off = f.off_segments = 0.8;
        },
    };
    for (const Change& change : hardly) EXPECT_TRUE(odds_with(GetParam(), change)) << &change - hardly;
}

TEST_P(Acceptance, OddsSinkWithEachDoubt) {
    const double best = odds_with(GetParam(), [](Frame&) {}).value();
    for (const Change& change :
         {Change([](Frame& f) { f.doubt = -8; }), Change([](Frame& f) { f.rival = f.likelihood - 14; }),
          Change([](Frame& f) { f.evidence = f.likelihood - f.code->log_words - 16; })}) {
        EXPECT_LT(odds_with(GetParam(), change).value(), best);
    }
    EXPECT_LE(odds_with(GetParam(), [](Frame& f) { f.doubt = -8; }).value(), 8);
    EXPECT_LE(odds_with(GetParam(), [](Frame& f) { f.rival = f.likelihood - 14; }).value(), 14);
}

TEST_P(Acceptance, WhatIsNoNumberIsRefused) {
    for (const Change& change :
         {Change([](Frame& f) { f.likelihood = NAN; }), Change([](Frame& f) { f.evidence = NAN; }),
          Change([](Frame& f) { f.doubt = NAN; }), Change([](Frame& f) { f.off = NAN; }),
          Change([](Frame& f) { f.off_segments = NAN; }), Change([](Frame& f) { f.on = NAN; })}) {
        EXPECT_FALSE(odds_with(GetParam(), change));
    }
}

TEST_P(Acceptance, OfKnownFramesOneWeaknessIsEnoughToRefuse) {
    const auto odds = [](const Change& change) {
        Frame frame = good_frame(GetParam());
        change(frame);
        return accepted_known_odds(frame, 10);
    };
    EXPECT_TRUE(odds([](Frame&) {}));
    EXPECT_FALSE(odds([](Frame& f) {
        f.likelihood = 31;
        f.evidence = f.rival = 0;
    })) << "ten known callsigns fit noise as well";
    EXPECT_FALSE(odds([](Frame& f) { f.evidence = f.likelihood - 7; })) << "any pattern fits as well";
    EXPECT_FALSE(odds([](Frame& f) { f.rival = f.likelihood + 13; })) << "another word fits better";
    EXPECT_TRUE(odds([](Frame& f) { f.rival = f.likelihood + 11; }));
    EXPECT_FALSE(odds([](Frame& f) { f.off = 0.5; })) << "OFF chips have energy";
}

// What a longer frame of another protocol shows of itself in the place of a shorter one is less than the whole of it.
TEST(EvidenceAround, IsThatOfTheFrameWhichIsReallyThere) {
    constexpr std::size_t WALK = 1;
    Random random(3);
    const Hypothesis sent = {6, 12.3, 0.01};
    band::Samples samples = band::noise(random, 60);
    const std::vector<uint8_t> chips = band::random_chips(random, 160);
    band::add_frame(samples, chips, sent, 1.2);
    const Whitened block = band::as_white(samples);

    const auto evidence_at = [&](const Hypothesis& at, int32_t n) {
        std::vector<ChipSum> sums(static_cast<std::size_t>(n));
        Strip(block, at, n, 1).measure(at, sums);
        return PhaseTable(sums, 1.2f).evidence(WALK);
    };
    Frame frame{};
    frame.code = &code_of(*ov_protocol_by_id(OVL_ORVEL_S));
    frame.amplitude = 1.2f;
    frame.walk = WALK;
    // Twenty chips into it, at the frequency that it has there.
    frame.at = {sent.start_s + 20 * band::CHIP_S, sent.f + sent.drift * (20 + 239 / 2.0 - 321 / 2.0) * band::CHIP_S,
                sent.drift};
    frame.evidence = evidence_at(frame.at, 239);
    const double whole = evidence_at(sent, 321);
    ASSERT_GT(whole, frame.evidence + 15);
    EXPECT_NEAR(evidence_around(block, frame), whole, 2);
}

// Keyed in chip pairs throughout, and some of them read as a word: only what lies around them tells that nobody sent
// it.
TEST(EvidenceAround, AWordInsideALongerTransmissionIsNoFrame) {
    constexpr std::size_t FIRST = 20;  // chip of the longer transmission that begins the word
    std::vector<uint8_t> word(239);
    ASSERT_EQ(encode_frame(*ov_protocol_by_id(OVL_ORVEL_S), "OH2XYZ", nullptr, word.data()), 0);
    Random random(4);
    std::vector<uint8_t> longer = band::random_chips(random, 160);
    longer[FIRST - 1] = 0;
    std::ranges::copy(word, longer.begin() + FIRST);

    ov_params params;
    ov_params_default(params);
    params.protocols = OVL_ORVEL_S;
    ov_coherent settings;
    ov_coherent_default(settings);
    settings.places = 4;
    settings.passes = 1;
    const auto found = [&](std::span<const uint8_t> chips, double start_s) {
        Random noise(5);
        band::Samples samples = band::noise(noise, 48);
        band::add_frame(samples, chips, {start_s, 12.3, 0.01}, 1.2);
        const ov_baseband baseband = {samples.data(), static_cast<int32_t>(samples.size()), band::RATE, 0};
        return search_slice(baseband, 20, params, settings, make_groups(params, false), {});
    };
    const auto alone = found(word, 2 + FIRST * band::CHIP_S);
    ASSERT_EQ(alone.size(), 1u);
    EXPECT_STREQ(alone[0].spot.call, "OH2XYZ");
    EXPECT_TRUE(found(longer, 2).empty());
}

// ---- Slices --------------------------------------------------------------------------------------------------------

class SliceSearch : public testing::Test {
  protected:
    SliceSearch() {
        ov_params_default(params);
        params.protocols = OVL_ORVEL_S;
        ov_coherent_default(settings);
        settings.passes = 1;
        Random random(6);
        samples = band::noise(random, 34);
        add("OH2XYZ", -9);
        add("K1ABC", 9);
    }
    void add(const char* call, double f) {
        std::vector<uint8_t> chips(239);
        ASSERT_EQ(encode_frame(*ov_protocol_by_id(OVL_ORVEL_S), call, nullptr, chips.data()), 0);
        band::add_frame(samples, chips, {1.5, f, 0}, 1.2);
    }
    std::vector<ov_coherent_spot> search(std::span<const ov_spot> found = {}, bool known = false) {
        const ov_baseband baseband = {samples.data(), static_cast<int32_t>(samples.size()), band::RATE, 1000};
        return search_slice(baseband, 20, params, settings, make_groups(params, known), found);
    }

    ov_params params{};
    ov_coherent settings{};
    band::Samples samples;
};

TEST_F(SliceSearch, FindsFramesOfOnePassAndTellsTheHighestFit) {
    double highest = 0;
    settings.highest_fit = &highest;
    const auto both = search();
    ASSERT_EQ(both.size(), 2u);
    EXPECT_GT(highest, 50);
    double likelihood = 0;
    for (const auto& [spot, odds] : both) likelihood = std::max(likelihood, spot.score);
    EXPECT_NEAR(highest, likelihood - code_of(*ov_protocol_by_id(OVL_ORVEL_S)).log_words, 1e-9);
}

TEST_F(SliceSearch, TakesOutWhatWasFoundWhereItIsAFrameOfThisBand) {
    ov_spot other{};
    std::strncpy(other.call, "OH2XYZ", sizeof other.call - 1);
    other.protocol = OVL_ORVEL_S;
    other.freq = 991;
    other.t = 1.5;
    const auto without = [&](const ov_spot& spot) { return search(std::array{spot}).size(); };
    EXPECT_EQ(without(other), 1u);
    ov_spot unknown = other;
    unknown.protocol = 99;
    EXPECT_EQ(without(unknown), 2u);
    ov_spot far_away = other;
    far_away.freq = 2000;
    EXPECT_EQ(without(far_away), 2u);
    ov_spot no_callsign = other;
    std::strncpy(no_callsign.call, "?", sizeof no_callsign.call - 1);
    EXPECT_EQ(without(no_callsign), 2u);
}

TEST_F(SliceSearch, KeepsToTheDriftAndTheSnrAsked) {
    const auto usual = search();
    ASSERT_EQ(usual.size(), 2u);
    params.drift_max = 0.02;
    params.snr_adjust = 0;
    const auto other = search();
    ASSERT_EQ(other.size(), 2u);
    const double share_db = ov_protocol_by_id(OVL_ORVEL_S)->on_share_db;
    for (std::size_t k = 0; k < 2; k++) EXPECT_NEAR(usual[k].spot.snr - other[k].spot.snr, share_db, 0.1);
}

TEST_F(SliceSearch, AFrameBelongsToTheWindowByItsStartAndNotByTheNearestOfTheGrid) {
    ov_spot other{};
    std::strncpy(other.call, "K1ABC", sizeof other.call - 1);
    other.protocol = OVL_ORVEL_S;
    other.freq = 1009;
    other.t = 1.5;
    ovc_known known{};
    ASSERT_EQ(ovc_known_init("OH2XYZ", &known), 0);
    params.known = &known;
    params.n_known = 1;
    double highest_known = -1e9;
    settings.highest_known_fit = &highest_known;
    for (const bool by_name : {false, true}) {
        settings.places = by_name ? 0 : 8;  // the search for known callsigns has its own
        params.start_max = 1.55;
        const auto inside = search(std::array{other}, by_name);
        ASSERT_EQ(inside.size(), 1u);
        EXPECT_STREQ(inside[0].spot.call, "OH2XYZ");
        EXPECT_EQ(inside[0].spot.deep, by_name ? OV_COHERENT_KNOWN : OV_COHERENT);
        EXPECT_NEAR(inside[0].spot.t, 1.5, 0.01);
        EXPECT_EQ(highest_known, by_name ? inside[0].spot.score : -1e9);
        params.start_max = 1.49;  // a place may begin there a quarter of a chip earlier
        EXPECT_TRUE(search(std::array{other}, by_name).empty());
    }
}

// A frame of a protocol that is not asked for is the best explanation of itself.
TEST(Groups, HoldEveryProtocolOfALength) {
    ov_params params;
    ov_params_default(params);
    params.protocols = OVL_OPERA;
    const std::vector<Group> opera = make_groups(params, false);
    ASSERT_EQ(opera.size(), 1u);
    EXPECT_EQ(opera[0].codes.size(), 2u);
    params.protocols = OVL_ORVEL_L;
    const std::vector<Group> longer = make_groups(params, false);
    ASSERT_EQ(longer.size(), 1u);
    ASSERT_EQ(longer[0].codes.size(), 1u);
    EXPECT_EQ(longer[0].codes[0]->protocol->id, OVL_ORVEL_L);
    EXPECT_TRUE(longer[0].known.empty());
}

}  // namespace
