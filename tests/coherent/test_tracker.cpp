// The phase tracker against the model that it computes: a hidden Markov chain of 24 phases, in double precision with
// plain sums, and over frames of a few pairs the sum over every pattern there is.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <span>
#include <vector>

#include "coherent/tracker.h"
#include "siggen.h"

using namespace coherent;

namespace {

using Phases = std::array<double, PHASES>;
using Chips = std::vector<ChipSum>;

constexpr double STEP = 2 * std::numbers::pi / PHASES;
constexpr double CLOSE = 5e-4;  // nats, of single precision against double

// ---- The plain model -----------------------------------------------------------------------------------------------

// Probability of a step of the walk by so many phases.
double step_probability(double sigma, std::size_t from, std::size_t to) {
    const auto distance = static_cast<double>(std::min((to + PHASES - from) % PHASES, (from + PHASES - to) % PHASES));
    if (sigma < 0.6 * STEP) {
        const double aside = sigma * sigma / (STEP * STEP);
        return distance == 0 ? 1 - aside : distance == 1 ? aside / 2 : 0;
    }
    const double farthest = std::min(11.0, std::ceil(3.5 * sigma / STEP));
    const auto height = [&](double d) { return std::exp(-0.5 * d * d * STEP * STEP / (sigma * sigma)); };
    double all = height(0);
    for (double d = 1; d <= farthest; d++) all += 2 * height(d);
    return distance <= farthest ? height(distance) / all : 0;
}

// Likelihood of a chip with a carrier of that amplitude and phase against one of noise alone.
double chip_ratio(const ChipSum& chip, double amplitude, std::size_t phase) {
    const double most = 3.3 * std::sqrt(chip.weight) + amplitude * chip.weight;
    std::complex<double> value(chip.value);
    if (std::abs(value) > most) value *= most / std::abs(value);
    const double angle = STEP * static_cast<double>(phase);
    return std::exp(2 * amplitude * (value * std::polar(1.0, -angle)).real() - amplitude * amplitude * chip.weight);
}

class Model {
  public:
    Model(std::span<const ChipSum> chips, double amplitude, std::size_t walk) : ratios_(chips.size()) {
        for (std::size_t k = 0; k < chips.size(); k++) {
            for (std::size_t i = 0; i < PHASES; i++) ratios_[k][i] = chip_ratio(chips[k], amplitude, i);
        }
        for (std::size_t i = 0; i < PHASES; i++) {
            for (std::size_t j = 0; j < PHASES; j++) steps_[i][j] = step_probability(WALKS[walk], i, j);
        }
    }

    // Sum over all paths of the phase, of the product of `first` and `second` times the ratios of each pair's chips.
    template <class Weights>
    double log_sum(const Weights& weights) const {
        Phases state;
        for (std::size_t i = 0; i < PHASES; i++) state[i] = ratios_[0][i] / PHASES;
        double log_scale = 0;
        for (std::size_t k = 0; 2 * k + 2 < ratios_.size(); k++) {
            const auto [first, second] = weights(k);
            Phases next{};
            double sum = 0;
            for (std::size_t j = 0; j < PHASES; j++) {
                for (std::size_t i = 0; i < PHASES; i++) next[j] += state[i] * steps_[i][j];
                next[j] *= first * ratios_[2 * k + 1][j] + second * ratios_[2 * k + 2][j];
                sum += next[j];
            }
            for (double& value : next) value /= sum;
            log_scale += std::log(sum);
            state = next;
        }
        double sum = 0;
        for (const double value : state) sum += value;
        return log_scale + std::log(sum);
    }

    double evidence() const {
        return log_sum([](std::size_t) { return std::pair{0.5, 0.5}; });
    }
    double likelihood(const Word& word) const {
        return log_sum([&](std::size_t k) { return bit_of(word, k) ? std::pair{0.0, 1.0} : std::pair{1.0, 0.0}; });
    }
    double soft_bit(std::size_t bit) const {
        const auto with = [&](double first) {
            return log_sum([&](std::size_t k) { return k == bit ? std::pair{first, 1 - first} : std::pair{0.5, 0.5}; });
        };
        return with(0) - with(1);
    }

  private:
    std::vector<Phases> ratios_;
    std::array<Phases, PHASES> steps_;
};

// ---- Chips ---------------------------------------------------------------------------------------------------------

std::complex<double> complex_noise(Random& random) {
    const double re = random.normal();
    return {re * std::numbers::sqrt2 / 2, random.normal() * std::numbers::sqrt2 / 2};
}

Word random_word(Random& random) {
    return {random.next(), random.next(), random.next()};
}

// A frame in noise whose phase takes a walk; some chips weigh less or nothing.
Chips frame_chips_in_noise(Random& random, std::size_t pairs, const Word& word, double amplitude, double walk) {
    Chips chips(2 * pairs + 1);
    double phase = random.uniform(0, 2 * std::numbers::pi);
    for (std::size_t k = 0; k < chips.size(); k++) {
        const bool on = k == 0 || bit_of(word, (k - 1) / 2) == (k % 2 == 0);
        constexpr std::array WEIGHTS = {1.0, 1.0, 1.0, 0.2, 0.0};
        const double weight = WEIGHTS[static_cast<std::size_t>(random.integer(0, 4))];
        const std::complex<double> value =
            std::sqrt(weight) * complex_noise(random) + (on ? amplitude * weight * std::polar(1.0, phase) : 0.0);
        chips[k] = {std::complex<float>(value), static_cast<float>(weight)};
        if (k % 2 == 0) phase += walk * random.normal();
    }
    return chips;
}

Chips noise_chips(Random& random, std::size_t pairs) {
    Chips chips(2 * pairs + 1);
    for (ChipSum& chip : chips) chip = {std::complex<float>(complex_noise(random)), 1.0f};
    return chips;
}

std::vector<float> soft_bits_of(const PhaseTable& table, std::size_t walk) {
    std::vector<float> soft(table.pairs());
    table.soft_bits(walk, soft);
    return soft;
}

// ---- Tests ---------------------------------------------------------------------------------------------------------

TEST(PhaseTracker, EqualsTheMarkovChainOnWholeFrames) {
    Random random(11);
    for (const std::size_t pairs : {std::size_t{119}, std::size_t{160}}) {
        for (const float amplitude : {0.45f, 1.0f, 2.0f}) {
            for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
                SCOPED_TRACE(testing::Message() << pairs << " pairs, amplitude " << amplitude << ", walk " << walk);
                const Word sent = random_word(random);
                const Chips chips = frame_chips_in_noise(random, pairs, sent, amplitude, WALKS[walk]);
                const PhaseTable table(chips, amplitude);
                const Model model(chips, amplitude, walk);
                EXPECT_EQ(table.pairs(), pairs);
                EXPECT_NEAR(table.evidence(walk), model.evidence(), CLOSE);
                EXPECT_NEAR(table.likelihood(walk, sent), model.likelihood(sent), CLOSE);
                Word beside = sent;
                beside[0] ^= random.next() & random.next() & random.next();
                EXPECT_NEAR(table.likelihood(walk, beside), model.likelihood(beside), CLOSE);
            }
        }
    }
}

TEST(PhaseTracker, SoftBitsEqualTheMarkovChain) {
    Random random(12);
    constexpr std::size_t PAIRS = 30;
    for (const float amplitude : {0.45f, 1.0f, 1.8f}) {
        for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
            SCOPED_TRACE(testing::Message() << "amplitude " << amplitude << ", walk " << walk);
            const Chips chips = frame_chips_in_noise(random, PAIRS, random_word(random), amplitude, WALKS[walk]);
            const PhaseTable table(chips, amplitude);
            const Model model(chips, amplitude, walk);
            std::vector<float> soft(PAIRS);
            EXPECT_NEAR(table.soft_bits(walk, soft), model.evidence(), CLOSE);
            for (std::size_t k = 0; k < PAIRS; k++) EXPECT_NEAR(soft[k], model.soft_bit(k), CLOSE) << k;
        }
    }
}

TEST(PhaseTracker, EvidenceIsTheMeanOverAllPatterns) {
    Random random(13);
    constexpr std::size_t PAIRS = 7;
    constexpr uint64_t PATTERNS = 1 << PAIRS;
    for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
        const Chips chips = frame_chips_in_noise(random, PAIRS, random_word(random), 1.2, WALKS[walk]);
        const PhaseTable table(chips, 1.2f);
        std::array<double, PAIRS> ones{};
        double all = 0;
        for (uint64_t pattern = 0; pattern < PATTERNS; pattern++) {
            const double likelihood = std::exp(table.likelihood(walk, Word{pattern}));
            all += likelihood;
            for (std::size_t k = 0; k < PAIRS; k++) ones[k] += (pattern >> k & 1) != 0 ? likelihood : 0;
        }
        EXPECT_NEAR(table.evidence(walk), std::log(all / PATTERNS), CLOSE) << walk;
        const std::vector<float> soft = soft_bits_of(table, walk);
        for (std::size_t k = 0; k < PAIRS; k++) {
            EXPECT_NEAR(soft[k], std::log(ones[k] / (all - ones[k])), CLOSE) << walk << ", bit " << k;
        }
    }
}

TEST(PhaseTracker, NoiseHasAMeanLikelihoodRatioOfOne) {
    Random random(14);
    constexpr std::size_t PAIRS = 6;
    constexpr int32_t TRIALS = 4000;
    constexpr float AMPLITUDE = 0.25f;
    for (const std::size_t walk : {std::size_t{0}, std::size_t{3}}) {
        double any = 0;
        double one = 0;
        for (int32_t trial = 0; trial < TRIALS; trial++) {
            const PhaseTable table(noise_chips(random, PAIRS), AMPLITUDE);
            any += std::exp(table.evidence(walk)) / TRIALS;
            one += std::exp(table.likelihood(walk, Word{0x2D})) / TRIALS;
        }
        EXPECT_NEAR(any, 1, 0.02) << walk;  // four standard deviations or more
        EXPECT_NEAR(one, 1, 0.04) << walk;
    }
}

TEST(PhaseTracker, ACommonTurnOfAllChipsByAPhaseChangesNothing) {
    Random random(15);
    const Word sent = random_word(random);
    const Chips chips = frame_chips_in_noise(random, 119, sent, 1, 0.1);
    const PhaseTable table(chips, 1);
    for (const int32_t steps : {1, 5, 23}) {
        Chips turned = chips;
        for (ChipSum& chip : turned) chip.value *= std::complex<float>(std::polar(1.0, steps * STEP));
        const PhaseTable other(turned, 1);
        for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
            EXPECT_NEAR(other.evidence(walk), table.evidence(walk), CLOSE);
            EXPECT_NEAR(other.likelihood(walk, sent), table.likelihood(walk, sent), CLOSE);
        }
    }
}

TEST(PhaseTracker, ChipsWithoutWeightTellNothing) {
    Random random(16);
    const Word sent = random_word(random);
    Chips chips = frame_chips_in_noise(random, 40, sent, 1, 0.1);
    const PhaseTable table(chips, 1);
    for (std::size_t k = 0; k < 2 * 20; k++) {
        chips.push_back({std::complex<float>(100.0 * complex_noise(random)), 0.0f});  // whatever they hold
    }
    const PhaseTable longer(chips, 1);
    for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
        EXPECT_NEAR(longer.evidence(walk), table.evidence(walk), CLOSE);
        EXPECT_NEAR(longer.likelihood(walk, sent), table.likelihood(walk, sent), CLOSE);
        const std::vector<float> soft = soft_bits_of(longer, walk);
        const std::vector<float> before = soft_bits_of(table, walk);
        for (std::size_t k = 0; k < 40; k++) EXPECT_NEAR(soft[k], before[k], CLOSE);
        for (std::size_t k = 40; k < 60; k++) EXPECT_NEAR(soft[k], 0, CLOSE);
    }
}

TEST(PhaseTracker, AChipThatIsTooLargeCountsAsTheLargestExpected) {
    Random random(17);
    const Word sent = random_word(random);
    Chips chips = frame_chips_in_noise(random, 30, sent, 1, 0.1);
    chips[9] = {std::complex<float>(3e4f, 4e4f), 1};
    chips[10] = {0, 1};
    Chips limited = chips;
    limited[9].value = {0.6f * 4.3f, 0.8f * 4.3f};  // 3.3 noise amplitudes and the carrier's 1
    for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
        EXPECT_NEAR(PhaseTable(chips, 1).evidence(walk), PhaseTable(limited, 1).evidence(walk), CLOSE);
    }
}

// The strongest carrier that is tracked, and patterns that are wrong at every turn.
TEST(PhaseTracker, StaysFiniteForStrongCarriersAndWrongPatterns) {
    Random random(18);
    const Word sent = random_word(random);
    const Word wrong = {~sent[0], ~sent[1], ~sent[2]};
    Chips chips = frame_chips_in_noise(random, 160, sent, 30, 0.03);
    for (ChipSum& chip : chips) chip.weight = 1;
    const PhaseTable table(chips, 4);
    for (std::size_t walk = 0; walk < WALKS.size(); walk++) {
        const double right = table.likelihood(walk, sent);
        EXPECT_TRUE(std::isfinite(right));
        EXPECT_GT(right, 1000);
        EXPECT_LT(table.likelihood(walk, wrong), right - 1000);
        const std::vector<float> soft = soft_bits_of(table, walk);
        for (std::size_t k = 0; k < soft.size(); k++) EXPECT_TRUE(std::isfinite(soft[k])) << k;
    }
}

// Many wrong bits in a row make products of ratios that single precision cannot hold.
TEST(PhaseTracker, LikelihoodsOfWrongPatternsEqualTheMarkovChainForStrongCarriers) {
    constexpr std::size_t PAIRS = 20;
    for (const float amplitude : {2.0f, 3.0f, 4.0f}) {
        Chips chips(2 * PAIRS + 1);
        for (std::size_t k = 0; k < chips.size(); k++) {
            chips[k] = {k == 0 || k % 2 == 1 ? amplitude : 0.0f, 1};  // all bits 0
        }
        const PhaseTable table(chips, amplitude);
        const Model model(chips, amplitude, 0);
        for (const uint64_t wrong : {0x0u, 0x3u, 0xFu, 0xFFu, 0xFFFFFu}) {
            EXPECT_NEAR(table.likelihood(0, Word{wrong}), model.likelihood(Word{wrong}), 0.01)
                << amplitude << ", wrong bits " << std::hex << wrong;
        }
    }
}

}  // namespace
