#include "coherent/frames.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "coherent/tracker.h"

namespace coherent {
namespace {

constexpr int32_t REACH = 24;             // chips by which the start of a frame may lie beside its place
constexpr std::size_t STARTS = 12;        // that are decoded
constexpr double LEAST_EVIDENCE = 12;     // of frames that can be accepted in the end
constexpr std::size_t FINALISTS = 4;      // of them that are measured with their patterns known
constexpr std::size_t FEW_WORDS = 24;     // of each code and start whose likelihood is computed at first
constexpr std::size_t WORDS = 160;        // and in the end
constexpr int32_t ORDER = 3;              // of the ordered statistics
constexpr int32_t ROUNDS = 3;             // of measuring with the pattern known and decoding again
constexpr std::size_t EVIDENCE_WALK = 2;  // with which starts are compared
constexpr double IMPLAUSIBLE = -9;        // added to the log likelihood of callsigns that no administration issues
constexpr double OVERLAP = 0.75;          // of a frame by which others around it may lie beside it
constexpr float LEAST_AMPLITUDE = 0.4f;
constexpr float LARGEST_AMPLITUDE = 4.0f;  // beyond that a frame needs no phase

using Chips = std::vector<ChipSum>;

// The blind statistic of search.h on measured chips, above its mean in noise.
double blind(std::span<const ChipSum> chips, std::size_t segment_pairs) {
    double power = 0;
    const std::size_t pairs = chips.size() / 2;
    for (std::size_t first = 0; first < pairs; first += segment_pairs) {
        const std::size_t last = std::min(first + segment_pairs, pairs);
        std::complex<float> sum = 0;
        float differences = 0;
        float weight = 0;
        for (std::size_t k = first; k < last; k++) {
            const ChipSum& a = chips[1 + 2 * k];
            const ChipSum& b = chips[2 + 2 * k];
            sum += a.value + b.value;
            differences += std::norm(b.value - a.value);
            weight += a.weight + b.weight;
        }
        power += 0.25 * static_cast<double>(std::norm(sum) + differences - 2 * weight);
    }
    return power;
}

float blind_amplitude(std::span<const ChipSum> chips, std::size_t segment_pairs) {
    const auto length = static_cast<double>(segment_pairs);
    double weight = 0;
    for (const ChipSum& chip : chips) weight += chip.weight;
    const double segments = weight / (2 * length);
    const double square = blind(chips, segment_pairs) / std::max(segments * (length * length + length) / 4, 1.0);
    return std::clamp(static_cast<float>(std::sqrt(std::max(square, 0.0))), LEAST_AMPLITUDE, LARGEST_AMPLITUDE);
}

// Maximises a function of one coordinate around its present value, by a parabola through three points.
template <class Function>
void improve(double& x, double step, double& best, const Function& function) {
    const double here = x;
    const double left = function(here - step);
    const double right = function(here + step);
    const double bend = left + right - 2 * best;
    double to = left > right ? here - step : here + step;
    if (bend < 0) to = here + std::clamp(0.5 * step * (left - right) / bend, -1.5 * step, 1.5 * step);
    const double there = function(to);
    double value = best;
    double at = here;
    for (const auto& [candidate, height] : {std::pair{here - step, left}, {here + step, right}, {to, there}}) {
        if (height > value) {
            value = height;
            at = candidate;
        }
    }
    x = at;
    best = value;
}

// A start that may be the frame's.
struct Start {
    double start_s;
    double evidence;
};

class Reader {
  public:
    Reader(const Whitened& block, const Place& place, std::span<const AffineCode* const> codes)
        : block_(block),
          codes_(codes),
          n_chips_(2 * codes[0]->length + 1),
          chip_s_(block.chip_len / block.rate),
          at_{place.start_s, place.f, place.drift},
          strip_(block, at_, n_chips_, REACH + 4),
          chips_(static_cast<std::size_t>(n_chips_)) {}

    std::optional<Frame> read() {
        refine_blindly();
        refine_by_evidence();
        std::vector<Frame> frames;
        for (const Start& start : likely_starts()) {
            if (const auto frame = decode(moved(start.start_s), amplitude_, FEW_WORDS)) frames.push_back(*frame);
        }
        std::stable_sort(frames.begin(), frames.end(),
                         [](const Frame& a, const Frame& b) { return rank(a) > rank(b); });

        // Only measured with their own patterns can they be compared.
        std::optional<Frame> best;
        double rival = -INFINITY;
        for (std::size_t i = 0; i < std::min(frames.size(), FINALISTS); i++) {
            Frame frame = frames[i];
            settle(frame);
            if (best && same_message(*best, frame)) {
                if (rank(frame) > rank(*best)) best = frame;
                continue;
            }
            if (!best || rank(frame) > rank(*best)) std::swap(best ? *best : best.emplace(frame), frame);
            if (!same_message(*best, frame)) rival = std::max(rival, frame.likelihood);
        }
        if (!best) return std::nullopt;
        best->rival = rival;
        strip_ = Strip(block_, best->at, n_chips_, 4);
        measure(*best);
        return best;
    }

    Frame measure_known(const Word& word, const Message& message) {
        amplitude_ = blind_amplitude(measure_chips(at_), 8);
        Frame frame{};
        frame.code = codes_[0];
        frame.word = word;
        frame.message = message;
        frame.at = at_;
        frame.amplitude = amplitude_;
        frame.walk = 1;
        for (int32_t round = 0; round < ROUNDS; round++) polish(frame);
        const PhaseTable table(measure_chips(frame.at), frame.amplitude);
        frame.evidence = -INFINITY;
        for (std::size_t i = 0; i < WALKS.size(); i++) frame.evidence = std::max(frame.evidence, table.evidence(i));
        const auto other = decode(frame.at, frame.amplitude, FEW_WORDS);
        frame.rival = other && other->word != word ? other->likelihood : -INFINITY;
        measure(frame);
        return frame;
    }

  private:
    static bool same_message(const Frame& a, const Frame& b) { return a.code == b.code && a.word == b.word; }
    static double rank(const Frame& frame) {
        return frame.likelihood - frame.code->log_words + (frame.message.plausible ? 0 : IMPLAUSIBLE);
    }

    std::span<const ChipSum> measure_chips(const Hypothesis& at) {
        strip_.measure(at, chips_);
        return chips_;
    }

    // Frequency and drift by longer and longer segments; the strip then follows them.
    void refine_blindly() {
        for (const std::size_t pairs : {std::size_t{8}, std::size_t{16}}) {
            const double width_hz = 1 / (2 * static_cast<double>(pairs) * chip_s_);
            const double frame_s = n_chips_ * chip_s_;
            Hypothesis best = at_;
            double highest = -INFINITY;
            for (int32_t i = -4; i <= 4; i++) {
                for (int32_t j = -4; j <= 4; j++) {
                    Hypothesis here = at_;
                    here.f += 0.125 * i * width_hz * 2;
                    here.drift += 0.25 * j * width_hz * 2 / frame_s;
                    const double power = blind(measure_chips(here), pairs);
                    if (power > highest) {
                        highest = power;
                        best = here;
                    }
                }
            }
            at_ = best;
        }
        strip_ = Strip(block_, at_, n_chips_, REACH + 4);
        amplitude_ = blind_amplitude(measure_chips(at_), 8);
    }

    Hypothesis moved(double start_s) const { return {start_s, at_.f + at_.drift * (start_s - at_.start_s), at_.drift}; }

    // Frequency and drift by the evidence at the most likely start.
    void refine_by_evidence() {
        const std::vector<Start> starts = likely_starts();
        if (starts.empty()) return;
        at_ = moved(starts[0].start_s);
        const auto evidence = [&](const Hypothesis& at) {
            return PhaseTable(measure_chips(at), amplitude_).evidence(EVIDENCE_WALK);
        };
        double best = evidence(at_);
        for (const double scale : {1.0, 0.5}) {
            improve(at_.f, 0.06 * scale, best, [&](double x) { return evidence({at_.start_s, x, at_.drift}); });
            improve(at_.drift, 0.2 / (n_chips_ * chip_s_) * scale, best, [&](double x) {
                return evidence({at_.start_s, at_.f, x});
            });
        }
        strip_ = Strip(block_, at_, n_chips_, REACH + 4);
    }

    // The starts around with the highest evidence of being keyed in any pattern, each the best of its neighbours.
    std::vector<Start> likely_starts() {
        constexpr int32_t STEPS = 4;
        std::vector<Start> starts;
        for (int32_t k = -REACH * STEPS; k <= REACH * STEPS; k++) {
            const double start_s = at_.start_s + k * chip_s_ / STEPS;
            starts.push_back({start_s, PhaseTable(measure_chips(moved(start_s)), amplitude_).evidence(EVIDENCE_WALK)});
        }
        std::vector<Start> peaks;
        for (std::size_t i = 1; i + 1 < starts.size(); i++) {
            if (starts[i].evidence < starts[i - 1].evidence || starts[i].evidence <= starts[i + 1].evidence) continue;
            // The top of a parabola through the three.
            const double left = starts[i - 1].evidence;
            const double right = starts[i + 1].evidence;
            const double bend = left + right - 2 * starts[i].evidence;
            const double share = bend < 0 ? std::clamp(0.5 * (left - right) / bend, -0.5, 0.5) : 0;
            peaks.push_back({starts[i].start_s + share * chip_s_ / STEPS, starts[i].evidence});
        }
        std::stable_sort(peaks.begin(), peaks.end(),
                         [](const Start& a, const Start& b) { return a.evidence > b.evidence; });
        if (peaks.size() > STARTS) peaks.resize(STARTS);
        if (peaks.empty() || peaks[0].evidence < LEAST_EVIDENCE) return {};
        return peaks;
    }

    // Measures a frame with its pattern known and decodes it again, until that changes nothing.
    void settle(Frame& frame) {
        for (int32_t round = 0; round < ROUNDS; round++) {
            polish(frame);
            const auto again = decode(frame.at, frame.amplitude, WORDS);
            if (!again) return;
            frame.evidence = again->evidence;
            if (rank(*again) < rank(frame) - 1e-6) return;
            const bool same = same_message(*again, frame);
            frame = *again;
            if (same) return;
        }
    }

    // The best word of any of the codes for a hypothesis.
    std::optional<Frame> decode(const Hypothesis& at, float amplitude, std::size_t words) {
        const PhaseTable table(measure_chips(at), amplitude);
        std::size_t walk = 0;
        double evidence = -INFINITY;
        for (std::size_t i = 0; i < WALKS.size(); i++) {
            const double here = table.evidence(i);
            if (here > evidence) {
                evidence = here;
                walk = i;
            }
        }
        std::array<float, OV_MAX_PAIRS> buffer;
        const auto soft = std::span(buffer).first(table.pairs());
        table.soft_bits(walk, soft);

        std::optional<Frame> best;
        std::vector<double> ranks;
        for (const AffineCode* const code : codes_) {
            for (const RankedWord& ranked : ordered_statistics(*code, soft, ORDER, words)) {
                const auto message = code->read(ranked.word);
                if (!message) continue;
                Frame frame{};
                frame.code = code;
                frame.word = ranked.word;
                frame.message = *message;
                frame.at = at;
                frame.amplitude = amplitude;
                frame.walk = walk;
                frame.likelihood = table.likelihood(walk, ranked.word);
                frame.evidence = evidence;
                ranks.push_back(rank(frame));
                if (!best || ranks.back() > rank(*best)) best = frame;
            }
        }
        if (!best) return std::nullopt;
        double others = -1;
        for (const double other : ranks) others += std::exp(other - rank(*best));
        best->doubt = std::log(std::max(others, 1e-30));
        return best;
    }

    // Start, frequency, drift, amplitude and walk by the likelihood of the word.
    void polish(Frame& frame) {
        strip_ = Strip(block_, frame.at, n_chips_, 4);
        const double frame_s = n_chips_ * chip_s_;
        double amplitude = frame.amplitude;
        const auto likelihood = [&](const Hypothesis& at, double a) {
            const auto limited = std::clamp(static_cast<float>(a), LEAST_AMPLITUDE, LARGEST_AMPLITUDE);
            return PhaseTable(measure_chips(at), limited).likelihood(frame.walk, frame.word);
        };
        double best = likelihood(frame.at, amplitude);
        for (const double scale : {1.0, 0.5, 0.25}) {
            Hypothesis& at = frame.at;
            improve(at.f, 0.03 * scale, best, [&](double x) {
                return likelihood({at.start_s, x, at.drift}, amplitude);
            });
            improve(at.drift, 0.12 / frame_s * scale, best, [&](double x) {
                return likelihood({at.start_s, at.f, x}, amplitude);
            });
            improve(at.start_s, 0.12 * chip_s_ * scale, best, [&](double x) {
                return likelihood({x, at.f, at.drift}, amplitude);
            });
            improve(amplitude, 0.15 * amplitude * scale, best, [&](double x) { return likelihood(at, x); });
            const PhaseTable table(measure_chips(at),
                                   std::clamp(static_cast<float>(amplitude), LEAST_AMPLITUDE, LARGEST_AMPLITUDE));
            for (std::size_t i = 0; i < WALKS.size(); i++) {
                const double here = table.likelihood(i, frame.word);
                if (here > best) {
                    best = here;
                    frame.walk = i;
                }
            }
        }
        frame.amplitude = std::clamp(static_cast<float>(amplitude), LEAST_AMPLITUDE, LARGEST_AMPLITUDE);
        frame.likelihood = best;
    }

    // Energies of ON and OFF chips.
    void measure(Frame& frame) {
        const auto chips = measure_chips(frame.at);
        double weight = 0;
        for (const ChipSum& chip : chips) weight += chip.weight;
        frame.measured = weight / n_chips_;

        constexpr std::size_t SEGMENT = 8;
        struct Energy {
            double sum = 0, weight = 0, square = 0, segments = 0;
            std::complex<double> coherent = 0;
            double coherent_weight = 0;
            void add(const ChipSum& chip) {
                sum += static_cast<double>(std::norm(chip.value)) - chip.weight;
                weight += chip.weight;
                square += chip.weight * chip.weight;
                coherent += std::complex<double>(chip.value);
                coherent_weight += chip.weight;
            }
            void end_segment() {
                if (coherent_weight > 0) segments += std::norm(coherent) - coherent_weight;
                coherent = 0;
                coherent_weight = 0;
            }
        } on, off;
        for (std::size_t k = 0; k < chips.size() / 2; k++) {
            const bool second = bit_of(frame.word, k);
            on.add(chips[(second ? 2 : 1) + 2 * k]);
            off.add(chips[(second ? 1 : 2) + 2 * k]);
            if (k % SEGMENT == SEGMENT - 1) {
                on.end_segment();
                off.end_segment();
            }
        }
        on.end_segment();
        off.end_segment();
        const double w_on = std::max(on.weight, 1.0);
        const double w_off = std::max(off.weight, 1.0);
        frame.on = on.sum / w_on;
        frame.off = off.sum / w_off;
        frame.off_sigma = std::sqrt(off.square) / w_off;
        frame.on_segments = on.segments / w_on / SEGMENT;
        frame.off_segments = off.segments / w_off / SEGMENT;
    }

    const Whitened& block_;
    std::span<const AffineCode* const> codes_;
    int32_t n_chips_;
    double chip_s_;
    Hypothesis at_;
    Strip strip_;
    Chips chips_;
    float amplitude_ = 1;
};

}  // namespace

std::optional<Frame> read_frame(const Whitened& block, const Place& place, std::span<const AffineCode* const> codes) {
    return Reader(block, place, codes).read();
}

double evidence_around(const Whitened& block, const Frame& frame) {
    const double chip_s = block.chip_len / block.rate;
    double highest = frame.evidence;
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        const int32_t chips = protocol.chips();
        const auto reach = static_cast<int32_t>(OVERLAP * std::max(chips, 2 * frame.code->length + 1));
        std::vector<ChipSum> sums(static_cast<std::size_t>(chips));
        // The strip's middle is that of its own frames.
        Hypothesis around = frame.at;
        around.f += around.drift * (chips - (2 * frame.code->length + 1)) * chip_s / 2;
        const Strip strip(block, around, chips, reach + 1);
        for (int32_t k = -2 * reach; k <= 2 * reach; k++) {
            const double later = k * chip_s / 2;
            strip.measure({around.start_s + later, around.f + around.drift * later, around.drift}, sums);
            highest = std::max(highest, PhaseTable(sums, frame.amplitude).evidence(frame.walk));
        }
    }
    return highest;
}

Frame read_known(const Whitened& block, const Hypothesis& at, const AffineCode& code, const Word& word,
                 const Message& message) {
    const std::array codes = {&code};
    return Reader(block, {at.start_s, at.f, at.drift, 0}, codes).measure_known(word, message);
}

}  // namespace coherent
