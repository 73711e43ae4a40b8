#include "spots/spot_log.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "spots/spot.h"

namespace {

constexpr double SAME_S = 10;   // a station cannot send two frames this close in time
constexpr double SAME_HZ = 15;  // and frequency
constexpr double REMEMBER_S = 300;

bool same_frame(const ov_spot& a, const ov_spot& b) {
    return a.protocol == b.protocol && std::strcmp(a.call, b.call) == 0 && std::strcmp(a.locator, b.locator) == 0 &&
           std::fabs(a.t - b.t) < SAME_S && std::fabs(a.freq - b.freq) < SAME_HZ;
}

// An ordinary decode is preferred to one that needed the callsign to be known.
bool saw_less(const ov_spot& spot, const ov_spot& other) {
    if (spot.deep != other.deep) return spot.deep != 0;
    return spot.chips_ok < other.chips_ok;
}

}  // namespace

void SpotLog::add(const std::vector<ov_spot>& found) {
    blocks_++;
    for (const ov_spot& spot : found) {
        const auto known = std::find_if(entries_.begin(), entries_.end(),
                                        [&](const Entry& entry) { return same_frame(entry.spot, spot); });
        if (known == entries_.end()) {
            entries_.push_back({spot, false, 1, blocks_});
            continue;
        }
        if (std::exchange(known->block, blocks_) != blocks_) known->finds++;
        if (!known->released && !saw_less(spot, known->spot) && time_of(spot) > released_) known->spot = spot;
    }
}

double SpotLog::time_of(const ov_spot& spot) const {
    return order_ == Order::START ? spot.t : spot_end(spot);
}

void SpotLog::release(double time, const std::function<void(const ov_spot&, int32_t finds)>& take) {
    std::stable_sort(entries_.begin(), entries_.end(),
                     [this](const Entry& a, const Entry& b) { return time_of(a.spot) < time_of(b.spot); });
    released_ = std::max(released_, time);
    for (Entry& entry : entries_) {
        if (entry.released || time_of(entry.spot) > time) continue;
        entry.released = true;
        take(entry.spot, entry.finds);
    }
    std::erase_if(entries_,
                  [&](const Entry& entry) { return entry.released && time_of(entry.spot) < time - REMEMBER_S; });
}
