// What the command decodes recordings with: I/Q and whole bands, with parameters that the public calls do not expose.
#include "ovpipe.h"

#include <vector>

#include "decode_settings.h"
#include "scene.h"

namespace {

constexpr int32_t MAX_SPOTS = 32;

// Few candidates and tiles: later ones are examined in the same way.
constexpr int32_t MAX_CANDIDATES = 12;
constexpr int32_t MAX_TILES = 4;

ov_params draw_params(Input& input, int32_t rate, std::array<ovc_known, 2>& known) {
    const ovl_settings settings = draw_settings(input, rate);
    ov_params params;
    ov_params_default(params);
    params.protocols = settings.protocols & 7;
    params.center_hz = settings.center_hz;
    params.search_hz = settings.search_hz;
    params.spread_hz = std::fmax(settings.spread_hz, 0.0);
    params.deep_search = settings.deep_search != 0 ? 1 : 0;
    params.known_only = settings.known_only;
    params.end_min = settings.end_min;
    params.end_max = settings.end_max;
    params.max_cands = input.int32(-1, MAX_CANDIDATES);
    params.max_frames = input.int32(-1, 300);
    params.check_plausible = input.int32(0, 1);
    params.verbose = input.int32(0, 1);
    if (input.flag()) params.drift_max = input.number(0, 0.2);
    if (input.flag()) params.z_min = input.mostly(1, 10);
    if (input.flag()) params.chip_guard = input.number(0, 0.5);
    if (input.flag()) params.off_max = input.mostly(0, 2);
    if (input.flag()) params.twin_min = input.mostly(0, 10);
    if (input.flag()) params.start_min = input.mostly(-10, 30);
    if (input.flag()) params.start_max = input.mostly(-1, 30);
    for (ovc_known& entry : known) {
        if (ovc_known_init(input.text(6).c_str(), &entry) != 0) break;
        params.n_known++;
    }
    if (params.n_known > 0) params.known = known.data();
    return params;
}

void expect_promises(const ov_spot& spot, const ov_params& params) {
    expect((spot.protocol & params.protocols) != 0);
    std::array<uint8_t, 321> chips;
    expect(ovl_encode(static_cast<uint32_t>(spot.protocol), spot.call, spot.locator, chips.data(), 321) > 0);
    expect(spot.deep == 0 || spot.deep == 1);
    expect(std::isfinite(spot.t) && std::isfinite(spot.freq) && std::isfinite(spot.drift));
    expect(!std::isnan(spot.snr) && !std::isnan(spot.contrast) && !std::isnan(spot.off_excess));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int32_t rate = draw_rate(input);
    const int32_t n = input.int32(1, MAX_SAMPLES);
    const bool iq = input.flag();
    const bool wide = input.flag();
    std::vector<double> x(static_cast<std::size_t>(n));
    std::vector<double> q(x.size());
    draw_samples(input, std::clamp(rate, 1, 192000), x, iq ? &q : nullptr);
    std::array<ovc_known, 2> known{};
    const ov_params params = draw_params(input, rate, known);
    const double scan_z = input.mostly(2, 10);
    const int32_t tiles = input.int32(-1, MAX_TILES);
    const int32_t room = input.int32(-1, MAX_SPOTS);
    if (!is_quick(params.search_hz, params.spread_hz, n, rate)) return 0;

    std::array<ov_spot, MAX_SPOTS> spots;
    int32_t count = 0;
    if (wide) {
        count = ov_decode_wide(x.data(), iq ? q.data() : nullptr, n, rate, params, scan_z, tiles, spots.data(), room);
    } else if (iq) {
        count = ov_decode_iq(x.data(), q.data(), n, rate, params, spots.data(), room);
    } else {
        count = ov_decode_real(x.data(), n, rate, params, spots.data(), room);
    }
    expect(count >= -1 && count <= std::max(room, 0));
    for (int32_t k = 0; k < count; k++) {
        expect_promises(spots[static_cast<std::size_t>(k)], params);
        expect(k == 0 || spots[static_cast<std::size_t>(k - 1)].t <= spots[static_cast<std::size_t>(k)].t);
    }
    return 0;
}
