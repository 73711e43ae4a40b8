#include "coherent/coherent.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <optional>

#include "coherent/slice.h"
#include "coherent/subtraction.h"
#include "owners.h"

using namespace coherent;

namespace {

constexpr int32_t BASEBAND_RATE = 500;  // Hz
constexpr double SLICE_HZ = 200;        // half-width that is searched in one baseband
constexpr double SLICE_OVERLAP_HZ = 5;
constexpr double SAME_FRAMES = 0.5;  // of a frame's length: spots of one callsign this close are one

// A stretch of a long block: memory goes with the length of what is searched at once.
struct Stretch {
    int32_t first, count;  // samples of a baseband
};
constexpr double STRETCH_S = 120;
constexpr double STRETCH_OVERLAP_S = 1.4 * OV_MAX_CHIPS * OV_CHIP_SECONDS;  // a frame, and what may hang over

std::vector<Stretch> stretches_of(const ov_baseband& baseband) {
    const auto longest = static_cast<int32_t>(STRETCH_S * baseband.rate);
    const auto step = static_cast<int32_t>((STRETCH_S - STRETCH_OVERLAP_S) * baseband.rate);
    std::vector<Stretch> stretches;
    int32_t first = 0;
    for (; baseband.n - first > longest; first += step) stretches.push_back({first, longest});
    stretches.push_back({first, baseband.n - first});
    return stretches;
}

// The parameters with times that count from `offset_s`; nothing when a limit lies before it.
std::optional<ov_params> later(ov_params params, double offset_s) {
    params.start_min -= offset_s;
    params.end_min -= offset_s;
    for (double* const limit : {&params.start_max, &params.end_max}) {
        if (*limit < 0) continue;  // no limit
        *limit -= offset_s;
        if (*limit < 0) return std::nullopt;
    }
    return params;
}

bool is_same(const ov_spot& a, const ov_spot& b) {
    const ov_protocol* const protocol = ov_protocol_by_id(static_cast<uint32_t>(a.protocol));
    return a.protocol == b.protocol && std::strcmp(a.call, b.call) == 0 &&
           std::fabs(a.t - b.t) < SAME_FRAMES * frame_length_s(*protocol) && std::fabs(a.freq - b.freq) < SAME_HZ;
}

bool is_listed(const ov_params& params, const ov_spot& spot) {
    return std::any_of(params.known, params.known + params.n_known,
                       [&](const ovc_known& known) { return std::strcmp(known.display, spot.call) == 0; });
}

}  // namespace

void ov_coherent_default(ov_coherent& settings) {
    settings = {.places = 16, .passes = 4, .threads = 1, .known = 1};
}

std::vector<ov_coherent_spot> ov_decode_coherent(const ov_block& block, const ov_params& params,
                                                 const ov_coherent& settings, std::span<const ov_spot> found) {
    SpectrumOwner spectrum;
    const int failed = block.q != nullptr
                           ? ov_spectrum_iq(block.x, block.q, block.n, block.rate, BASEBAND_RATE, spectrum)
                           : ov_spectrum_real(block.x, block.n, block.rate, BASEBAND_RATE, spectrum);
    if (failed != 0 || !(params.search_hz > 0) || !std::isfinite(params.search_hz)) return {};
    const std::vector<Group> groups = make_groups(params, settings.known != 0);

    std::vector<ov_coherent_spot> all;
    const auto add = [&](const ov_coherent_spot& next) {
        const auto same = [&](const ov_spot& spot) { return is_same(spot, next.spot); };
        if (params.known_only != 0 && !is_listed(params, next.spot)) return;
        if (std::ranges::any_of(found, same) || std::ranges::any_of(all, same, &ov_coherent_spot::spot)) return;
        all.push_back(next);
    };
    const double reach = std::min(params.search_hz, static_cast<double>(block.rate));
    const double step = 2 * SLICE_HZ - SLICE_OVERLAP_HZ;
    const auto slices = static_cast<int32_t>(std::max(1.0, std::ceil((2 * reach - SLICE_OVERLAP_HZ) / step)));
    for (int32_t k = 0; k < slices; k++) {
        const double width = std::min(reach, SLICE_HZ);
        const double offset = slices > 1 ? (reach - width) * (2.0 * k / (slices - 1) - 1) : 0;
        BasebandOwner baseband;
        if (ov_baseband_extract(spectrum, params.center_hz + offset, baseband) != 0) continue;
        for (const Stretch& stretch : stretches_of(baseband)) {
            const double offset_s = stretch.first / baseband.rate;
            const auto here = later(params, offset_s);
            if (!here) continue;
            std::vector<ov_spot> taken(found.begin(), found.end());
            for (ov_spot& spot : taken) spot.t -= offset_s;
            const ov_baseband part{baseband.samples + stretch.first, stretch.count, baseband.rate, baseband.centre};
            for (ov_coherent_spot spot : search_slice(part, width, *here, settings, groups, taken)) {
                spot.spot.t += offset_s;
                add(spot);
            }
        }
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const ov_coherent_spot& a, const ov_coherent_spot& b) { return a.spot.t < b.spot.t; });
    return all;
}

int32_t ov_add_coherent(const ov_block& block, const ov_params& params, const ov_coherent& settings,
                        std::span<ov_spot> spots, std::span<double> odds, int32_t n) noexcept {
    try {
        const auto more = ov_decode_coherent(block, params, settings, spots.first(static_cast<std::size_t>(n)));
        for (const ov_coherent_spot& next : more) {
            if (static_cast<std::size_t>(n) == spots.size()) break;
            auto at = static_cast<std::size_t>(n++);
            for (; at > 0 && spots[at - 1].t > next.spot.t; at--) {
                spots[at] = spots[at - 1];
                odds[at] = odds[at - 1];
            }
            spots[at] = next.spot;
            odds[at] = next.odds;
        }
    } catch (const std::exception&) {
        return n;
    }
    return n;
}

void ov_take_out(ov_baseband& baseband, const ov_spot& spot) {
    const ov_protocol* const protocol = ov_protocol_by_id(static_cast<uint32_t>(spot.protocol));
    if (protocol == nullptr || std::fabs(spot.freq - baseband.centre) > baseband.rate / 2) return;
    std::vector<uint8_t> chips(static_cast<std::size_t>(protocol->chips()));
    if (encode_frame(*protocol, spot.call, spot.locator, chips.data()) != 0) return;
    coherent::take_out({baseband.samples, static_cast<std::size_t>(baseband.n)}, baseband.rate,
                       static_cast<int32_t>(std::lround(OV_CHIP_SECONDS * baseband.rate)),
                       {spot.t, spot.freq - baseband.centre, spot.drift}, chips);
}
