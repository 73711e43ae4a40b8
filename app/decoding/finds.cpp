#include "decoding/finds.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "spots/spot.h"

namespace {

constexpr double LEAK_HZ = 30;
constexpr double LEAK_CONTRAST = 0.1;  // of the frame's
constexpr double SAME_S = 15.3;        // two frames of a callsign this close are one, as for the library

}  // namespace

bool is_same_frame(const Found& a, const Found& b) {
    return std::strcmp(a.call, b.call) == 0 && std::fabs(a.t - b.t) < SAME_S;
}

void Finds::add(std::span<const Found> found) {
    for (const Found& spot : found) {
        const auto same = std::ranges::find_if(all_, [&](const Found& other) { return is_same_frame(other, spot); });
        if (same == all_.end()) {
            all_.push_back(spot);
        } else if (spot.deep != same->deep ? spot.deep < same->deep : spot.score > same->score) {
            *same = spot;
        }
    }
}

void Finds::add_rest(std::vector<Found> found) {
    std::erase_if(found, [&](const Found& beside) {
        return std::ranges::any_of(all_, [&](const Found& frame) { return is_phantom(beside, frame); });
    });
    add(found);
}

std::vector<Found> Finds::in_order_of_time() {
    std::ranges::stable_sort(all_, {}, &Found::t);
    return std::exchange(all_, {});
}

bool is_phantom(const Found& beside, const Found& frame) {
    if (beside.protocol == frame.protocol || std::fabs(beside.freq - frame.freq) > LEAK_HZ) return false;
    const double shared = std::min(spot_end(beside), spot_end(frame)) - std::max(beside.t, frame.t);
    const double shorter = std::min(spot_end(beside) - beside.t, spot_end(frame) - frame.t);
    return shared > 0.5 * shorter && beside.contrast < LEAK_CONTRAST * frame.contrast;
}
