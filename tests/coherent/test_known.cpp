// The search for known callsigns, against its definition.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "band.h"
#include "coherent/frames.h"
#include "coherent/known.h"
#include "coherent/search.h"
#include "coherent/strip.h"

using namespace coherent;
using namespace band;

namespace {

std::vector<uint8_t> chips_of(const ov_protocol& protocol, const char* call) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(protocol.chips()));
    EXPECT_EQ(encode_frame(protocol, call, nullptr, chips.data()), 0);
    return chips;
}

KnownWord known_word(const ov_protocol& protocol, const char* call) {
    const AffineCode& code = code_of(protocol);
    const Word word = word_of(chips_of(protocol, call));
    return {&code, word, code.read(word).value()};
}

// Power of the ON chips of `segment` pairs summed coherently, over a frame: sigma above its mean in noise, to which
// each segment contributes what its chips weigh.
double definition(std::span<const ChipSum> chips, const Word& word, std::size_t segment, bool both_weights) {
    const std::size_t pairs = chips.size() / 2;
    double total = 0;
    double variance = 0;
    for (std::size_t first = 0; first < pairs; first += segment) {
        std::complex<double> sum = 0;
        double weight = 0;
        for (std::size_t k = first; k < std::min(first + segment, pairs); k++) {
            const std::size_t on = (bit_of(word, k) ? 2 : 1) + 2 * k;
            sum += std::complex<double>(chips[on].value);
            weight += both_weights ? 0.5 * (static_cast<double>(chips[1 + 2 * k].weight) + chips[2 + 2 * k].weight)
                                   : static_cast<double>(chips[on].weight);
        }
        total += std::norm(sum) - weight;
        variance += weight * weight;
    }
    return variance > 0 ? total / std::sqrt(variance) : 0;
}

struct Fit {
    std::size_t word;
    Hypothesis at;
    double z;
};

// The best start within 20 chips of a place, at its frequency and a quarter of a segment's width beside it.
Fit best_around(const Whitened& block, const Place& place, const KnownWord& known, std::size_t index) {
    const auto n_chips = static_cast<int32_t>(2 * known.code->length + 1);
    const Strip strip(block, {place.start_s, place.f, place.drift}, n_chips, 21);
    std::vector<ChipSum> chips(static_cast<std::size_t>(n_chips));
    Fit best{index, {}, 6};
    for (int32_t i = -1; i <= 1; i++) {
        for (int32_t k = -80; k <= 80; k++) {
            Hypothesis here{place.start_s + k * CHIP_S / 4, 0, place.drift};
            here.f = place.f + place.drift * (here.start_s - place.start_s) + 0.25 * i / (16 * CHIP_S);
            strip.measure(here, chips);
            const double z = definition(chips, known.word, 8, true);
            if (z > best.z) best = {index, here, z};
        }
    }
    return best;
}

// The same fit on the finer grid, by segments of sixteen pairs.
Fit refined(const Whitened& block, const Fit& fit, const KnownWord& known) {
    const auto n_chips = static_cast<int32_t>(2 * known.code->length + 1);
    const double width_hz = 1 / (32 * CHIP_S);
    const Strip strip(block, fit.at, n_chips, 2);
    std::vector<ChipSum> chips(static_cast<std::size_t>(n_chips));
    Fit best{fit.word, fit.at, 0};
    for (const double later : {-0.125, 0.0, 0.125}) {
        for (int32_t i = -3; i <= 3; i++) {
            for (int32_t j = -2; j <= 2; j++) {
                const Hypothesis here{fit.at.start_s + later * CHIP_S, fit.at.f + 0.25 * i * width_hz,
                                      fit.at.drift + 0.5 * j * width_hz / (n_chips * CHIP_S)};
                strip.measure(here, chips);
                const double z = definition(chips, known.word, 16, false);
                if (z > best.z) best = {fit.word, here, z};
            }
        }
    }
    return best;
}

// Two callsigns of both protocols, one of which is sent below what can be read, and frames over both edges.
TEST(KnownCallsigns, FitBestWhereTheirDefinitionSays) {
    const ov_protocol& opera = *ov_protocol_by_id(OVL_OPERA);
    const ov_protocol& orvel_s = *ov_protocol_by_id(OVL_ORVEL_S);
    const std::vector<KnownWord> words = {known_word(opera, "DL1QXA"), known_word(orvel_s, "DL1QXA"),
                                          known_word(opera, "G4QZB"), known_word(orvel_s, "G4QZB")};
    for (const double start_s : {-3.3, 12.7}) {
        Random random(71);
        Samples samples = noise(random, 40);
        add_frame(samples, chips_of(orvel_s, "G4QZB"), {start_s, 1.3, 0.01}, 1.2);
        const Whitened block = as_white(samples);
        const SearchRange range{2, 0.02, 0.2, -1e9, 1e9};
        const auto map = segment_map(block, 8, 8);
        ASSERT_TRUE(map);

        std::vector<Fit> fits;
        for (const Place& place : find_places(block, *map, opera.pairs, range, 500, 1)) {
            for (std::size_t w = 0; w < words.size(); w++) {
                const Fit fit = best_around(block, place, words[w], w);
                if (fit.z > 6) fits.push_back(refined(block, fit, words[w]));
            }
        }
        ASSERT_FALSE(fits.empty());
        const Fit& best = *std::ranges::max_element(fits, {}, &Fit::z);
        const Frame model =
            read_known(block, best.at, *words[best.word].code, words[best.word].word, words[best.word].message);

        const std::vector<Frame> found = find_known(block, *map, range, words);
        ASSERT_FALSE(found.empty());
        EXPECT_STREQ(found[0].message.call, "G4QZB");
        EXPECT_EQ(found[0].code->protocol->id, static_cast<uint32_t>(OVL_ORVEL_S));
        EXPECT_NEAR(found[0].at.start_s, start_s, 0.05);
        EXPECT_EQ(found[0].word, model.word);
        EXPECT_NEAR(found[0].at.start_s, model.at.start_s, 1e-9);
        EXPECT_NEAR(found[0].at.f, model.at.f, 1e-9);
        EXPECT_NEAR(found[0].likelihood, model.likelihood, 1e-6);
    }
}

// A strong frame keys like every word in part: more hits than are measured.
TEST(KnownCallsigns, TheOneThatWasSentIsFirstAmongHundreds) {
    const ov_protocol& orvel_s = *ov_protocol_by_id(OVL_ORVEL_S);
    std::vector<KnownWord> words;
    for (char a = 'A'; a <= 'J'; a++) {
        for (char b = 'A'; b <= 'H'; b++) words.push_back(known_word(orvel_s, (std::string("DL1X") + a + b).c_str()));
    }
    Random random(73);
    Samples samples = noise(random, 34);
    add_frame(samples, chips_of(orvel_s, "DL1XEC"), {1.7, 0.4, 0}, 4);
    const Whitened block = as_white(samples);
    const auto map = segment_map(block, 8, 6);
    ASSERT_TRUE(map);
    const std::vector<Frame> found = find_known(block, *map, {2, 0.02, 0.2, -1e9, 1e9}, words);
    ASSERT_FALSE(found.empty());
    EXPECT_LE(found.size(), 20u);
    EXPECT_STREQ(found[0].message.call, "DL1XEC");
    EXPECT_NEAR(found[0].at.start_s, 1.7, 0.02);
    for (const Frame& frame : found) EXPECT_LE(frame.likelihood, found[0].likelihood);
}

TEST(KnownCallsigns, OfNoneThereIsNoFrame) {
    Random random(72);
    const Whitened block = as_white(noise(random, 40));
    const auto map = segment_map(block, 8, 8);
    ASSERT_TRUE(map);
    EXPECT_TRUE(find_known(block, *map, {4, 0.02, 0.2, -1e9, 1e9}, {}).empty());
}

}  // namespace
