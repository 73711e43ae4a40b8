#include "coherent/slice.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <future>
#include <memory>
#include <optional>

#include "coherent/acceptance.h"
#include "coherent/coherent.h"
#include "coherent/frames.h"
#include "coherent/search.h"
#include "coherent/subtraction.h"
#include "coherent/whiten.h"

namespace coherent {
namespace {

constexpr double MAP_MARGIN_HZ = 3;  // drift takes a frame that far to its sides
constexpr double MAX_DRIFT = 0.055;  // Hz/s
constexpr double NO_LIMIT_S = 1e9;
constexpr std::array SEGMENT_PAIRS = {8, 4};

// The frames of known callsigns. Those of ORVEL L hold a locator, too, which is not known.
std::vector<KnownWord> known_words(const ov_params& params, const AffineCode& code) {
    std::vector<KnownWord> words;
    if (code.protocol->id == OVL_ORVEL_L) return words;
    std::vector<uint8_t> chips(static_cast<std::size_t>(2 * code.length + 1));
    for (int32_t k = 0; k < params.n_known; k++) {
        if (encode_frame(*code.protocol, params.known[k].display, nullptr, chips.data()) != 0) continue;
        const Word word = word_of(chips);
        if (const auto message = code.read(word)) words.push_back({&code, word, *message});
    }
    return words;
}

// A frame in the block, as this search or another found it.
struct Known {
    Hypothesis at;  // frequency from the baseband's centre
    std::vector<uint8_t> chips;
};

std::vector<uint8_t> chips_of(const AffineCode& code, const Word& word) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(2 * code.length + 1), 0);
    chips[0] = 1;
    for (std::size_t k = 0; 2 * k + 2 < chips.size(); k++) chips[2 * k + (bit_of(word, k) ? 2 : 1)] = 1;
    return chips;
}

SearchRange range_of(const ov_params& params, int32_t pairs, double half_width) {
    const double frame_s = (2 * pairs + 1) * OV_CHIP_SECONDS;
    const auto limit = [](double t) { return t < 0 ? NO_LIMIT_S : t; };
    const double drift = params.drift_max >= 0 ? std::min(params.drift_max, MAX_DRIFT) : MAX_DRIFT;
    return {half_width, drift, params.chip_guard, std::fmax(params.end_min - frame_s, params.start_min),
            std::fmin(limit(params.end_max) - frame_s, limit(params.start_max))};
}

// One band of a block.
class Slice {
  public:
    Slice(const ov_baseband& baseband, double half_width, const ov_params& params, const ov_coherent& settings)
        : centre_(baseband.centre),
          rate_(baseband.rate),
          half_width_(half_width),
          params_(params),
          settings_(settings),
          samples_(baseband.samples, baseband.samples + baseband.n) {}

    void take_out_spot(const ov_spot& spot) {
        ov_baseband baseband{samples_.data(), static_cast<int32_t>(samples_.size()), rate_, centre_};
        ov_take_out(baseband, spot);
    }

    std::vector<ov_coherent_spot> search(std::span<const Group> groups) {
        std::vector<ov_coherent_spot> all;
        for (int32_t pass = 0; pass < settings_.passes; pass++) {
            const auto view = prepare();
            if (!view) break;
            const auto frames = search_groups(groups, [&](const Group& group) { return search_any(*view, group); });
            for (const auto& [frame, odds, z] : frames) {
                if ((params_.protocols & frame.code->protocol->id) != 0) {
                    all.push_back({to_spot(frame, z, OV_COHERENT), odds});
                }
                remove({frame.at, chips_of(*frame.code, frame.word)});
            }
            if (!frames.empty() && pass + 1 < settings_.passes) continue;

            // Nothing more shows by itself.
            if (std::ranges::all_of(groups, [](const Group& group) { return group.known.empty(); })) break;
            const auto rest = frames.empty() ? view : prepare();
            if (!rest) break;
            for (const auto& [frame, odds, z] :
                 search_groups(groups, [&](const Group& group) { return search_known(*rest, group); })) {
                all.push_back({to_spot(frame, z, OV_COHERENT_KNOWN), odds});
            }
            break;
        }
        return all;
    }

  private:
    struct Accepted {
        Frame frame;
        double odds, z;
    };

    void remove(const Known& known) {
        take_out(samples_, rate_, static_cast<int32_t>(std::lround(OV_CHIP_SECONDS * rate_)), known.at, known.chips);
    }

    // The block as the searches see it.
    struct View {
        Whitened block;
        std::vector<SegmentMap> maps;
    };
    std::shared_ptr<const View> prepare() {
        ov_baseband baseband{samples_.data(), static_cast<int32_t>(samples_.size()), rate_, centre_};
        auto block = whiten(baseband, OV_CHIP_SECONDS);
        if (!block) return {};
        std::vector<SegmentMap> maps;
        for (const int32_t pairs : SEGMENT_PAIRS) {
            auto map = segment_map(*block, pairs, half_width_ + MAP_MARGIN_HZ);
            if (!map) return {};
            maps.push_back(std::move(*map));
        }
        return std::make_shared<const View>(View{std::move(*block), std::move(maps)});
    }

    // What a search finds in all groups, in two threads where the host allows it.
    template <class SearchGroup>
    std::vector<Accepted> search_groups(std::span<const Group> groups, const SearchGroup& search_group) const {
        std::vector<Accepted> accepted;
        std::vector<std::future<std::vector<Accepted>>> parts;
        const auto policy = settings_.threads > 1 ? std::launch::async : std::launch::deferred;
        for (const Group& group : groups) parts.push_back(std::async(policy, [&] { return search_group(group); }));
        for (auto& part : parts) {
            for (const Accepted& frame : part.get()) accepted.push_back(frame);
        }
        return strongest_of_each(std::move(accepted));
    }

    std::vector<Accepted> search_any(const View& view, const Group& group) const {
        const SearchRange range = range_of(params_, group.pairs, half_width_);
        std::vector<Place> places;
        for (const SegmentMap& map : view.maps) {
            const auto most = static_cast<std::size_t>(settings_.places) / view.maps.size();
            for (const Place& place : find_places(view.block, map, group.pairs, range, most)) {
                const auto near = [&](const Place& other) { return is_near(place, other, OV_CHIP_SECONDS); };
                if (std::ranges::none_of(places, near)) places.push_back(place);
            }
        }
        std::vector<Accepted> accepted;
        for (const Place& place : places) {
            // A frame's sides are no other frames; what they hide shows when it has been taken out.
            const auto covers = [&](const Accepted& other) {
                return std::fabs(other.frame.at.f - place.f) < SAME_HZ &&
                       std::fabs(other.frame.at.start_s - place.start_s) < frame_length_s(*group.codes[0]->protocol);
            };
            if (std::ranges::any_of(accepted, covers)) continue;
            auto frame = read_frame(view.block, place, group.codes);
            if (!frame || !starts_within(range, *frame)) continue;
            if (settings_.highest_fit != nullptr) {
                *settings_.highest_fit = std::max(*settings_.highest_fit, frame->likelihood - frame->code->log_words);
            }
            if (const auto odds = sure_odds(view.block, *frame)) accepted.push_back({*frame, *odds, place.z});
        }
        return accepted;
    }

    std::vector<Accepted> search_known(const View& view, const Group& group) const {
        const SearchRange range = range_of(params_, group.pairs, half_width_);
        std::vector<Accepted> accepted;
        if (group.known.empty()) return accepted;
        for (const Frame& frame : find_known(view.block, view.maps[0], range, group.known)) {
            if (!starts_within(range, frame)) continue;
            if (settings_.highest_known_fit != nullptr) {
                *settings_.highest_known_fit = std::max(*settings_.highest_known_fit, frame.likelihood);
            }
            if (const auto odds = accepted_known_odds(frame, group.known.size())) accepted.push_back({frame, *odds, 0});
        }
        return accepted;
    }
    // A frame that passes is compared with all that may be keyed around it, which takes longer.
    static std::optional<double> sure_odds(const Whitened& block, Frame& frame) {
        if (!accepted_odds(frame)) return std::nullopt;
        frame.evidence = evidence_around(block, frame);
        return accepted_odds(frame);
    }
    static bool starts_within(const SearchRange& range, const Frame& frame) {
        return frame.at.start_s >= range.start_first && frame.at.start_s <= range.start_last;
    }

    // Several places may lead to one frame, or to frames of which one is the other's side.
    static std::vector<Accepted> strongest_of_each(std::vector<Accepted> all) {
        std::stable_sort(all.begin(), all.end(),
                         [](const Accepted& a, const Accepted& b) { return a.frame.likelihood > b.frame.likelihood; });
        std::vector<Accepted> kept;
        for (const Accepted& next : all) {
            const bool taken = std::ranges::any_of(kept, [&](const Accepted& other) {
                const double shared = std::min(end_of(other.frame), end_of(next.frame)) -
                                      std::max(other.frame.at.start_s, next.frame.at.start_s);
                return std::fabs(other.frame.at.f - next.frame.at.f) < SAME_HZ && shared > 0;
            });
            if (!taken) kept.push_back(next);
        }
        return kept;
    }
    static double end_of(const Frame& frame) { return frame.at.start_s + frame_length_s(*frame.code->protocol); }

    ov_spot to_spot(const Frame& frame, double z, int32_t method) const {
        ov_spot spot{};
        std::strncpy(spot.call, frame.message.call, sizeof spot.call - 1);
        std::strncpy(spot.locator, frame.message.locator, sizeof spot.locator - 1);
        spot.t = frame.at.start_s;
        spot.freq = centre_ + frame.at.f;
        spot.drift = frame.at.drift;
        spot.z = z;
        spot.score = frame.likelihood;
        spot.rank = -1;
        spot.chips_ok = static_cast<int32_t>(std::lround(frame.measured * (2 * frame.code->length + 1)));
        spot.deep = method;
        spot.contrast = frame.on - frame.off;
        spot.off_excess = frame.off;
        spot.protocol = frame.code->protocol->id;
        // A chip of energy 1 has as much as the noise in 1/chip Hz.
        constexpr double REFERENCE_HZ = 2500;
        const double share_db = params_.snr_adjust != 0 ? frame.code->protocol->on_share_db : 0;
        spot.snr = 10 * std::log10(std::max(frame.on - frame.off, 1e-6) / OV_CHIP_SECONDS / REFERENCE_HZ) + share_db;
        return spot;
    }

    double centre_, rate_, half_width_;
    const ov_params& params_;
    const ov_coherent& settings_;
    std::vector<std::complex<double>> samples_;
};

}  // namespace

std::vector<Group> make_groups(const ov_params& params, bool with_known) {
    std::vector<Group> groups;
    for (const ov_protocol& wanted : OV_PROTOCOLS) {
        if ((params.protocols & wanted.id) == 0) continue;
        auto group = std::ranges::find(groups, wanted.pairs, &Group::pairs);
        if (group == groups.end()) {
            group = groups.insert(groups.end(), Group{wanted.pairs, {}, {}});
            for (const ov_protocol& protocol : OV_PROTOCOLS) {
                if (protocol.pairs == wanted.pairs) group->codes.push_back(&code_of(protocol));
            }
        }
        if (!with_known) continue;
        const std::vector<KnownWord> words = known_words(params, code_of(wanted));
        group->known.insert(group->known.end(), words.begin(), words.end());
    }
    return groups;
}

std::vector<ov_coherent_spot> search_slice(const ov_baseband& baseband, double half_width, const ov_params& params,
                                           const ov_coherent& settings, std::span<const Group> groups,
                                           std::span<const ov_spot> found) {
    Slice slice(baseband, half_width, params, settings);
    for (const ov_spot& spot : found) slice.take_out_spot(spot);
    return slice.search(groups);
}

}  // namespace coherent
