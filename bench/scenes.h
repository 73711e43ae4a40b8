// Blocks that several benchmarks decode.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "liborvel.h"
#include "siggen.h"

inline Scene noise_scene(double seconds, int32_t rate) {
    Scene scene;
    scene.rate = rate;
    scene.seconds = seconds;
    scene.seed = 2;
    return scene;
}

// Stations of the three protocols in turn, spread over the default search band.
inline Scene busy_scene(double seconds, int32_t rate, int32_t n_stations) {
    Scene scene = noise_scene(seconds, rate);
    Random random(3);
    for (int32_t i = 0; i < n_stations; i++) {
        const uint32_t protocol = 1u << (i % 3);
        const auto n_chips = static_cast<std::size_t>(ovl_frame_chips(protocol));
        std::string call = random.callsign();
        std::erase(call, ' ');
        Station station;
        station.chips.resize(n_chips);
        ovl_encode(protocol, call.c_str(), "JO62", station.chips.data(), static_cast<int32_t>(n_chips));
        station.t_start = random.uniform(0, std::max(0.0, seconds - 42));
        station.freq_hz = 1320 + 360.0 * i / n_stations;
        station.drift_hz_s = random.uniform(-0.05, 0.05);
        station.snr_db = random.uniform(-22, -8);
        scene.stations.push_back(station);
    }
    return scene;
}
