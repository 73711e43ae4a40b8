#include "spots/spot_log.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "spots/spot.h"

namespace {

constexpr double SAME_S = 10;    // a station cannot send two frames this close in time
constexpr double SAME_HZ = 40;   // and frequency
constexpr double SHADOW_HZ = 3;  // finds further apart: one of them is a side band
constexpr double REMEMBER_S = 300;

bool same_frame(const ov_spot& a, const ov_spot& b) {
    return a.protocol == b.protocol && std::strcmp(a.call, b.call) == 0 && std::strcmp(a.locator, b.locator) == 0 &&
           std::fabs(a.t - b.t) < SAME_S && std::fabs(a.freq - b.freq) < SAME_HZ;
}

// A find of the standard search is preferred to one that needed the callsign to be known, and either to those of the
// coherent search. Of these the surer one counts, of the others the frame before its side bands, and then the find that
// saw more of it.
bool is_worse(const Found& find, const Found& other) {
    if (find.deep != other.deep) return find.deep > other.deep;
    if (find.deep >= OVL_COHERENT) return find.odds < other.odds;
    if (std::fabs(find.freq - other.freq) > SHADOW_HZ) return find.contrast < other.contrast;
    return find.chips_ok < other.chips_ok;
}

}  // namespace

void SpotLog::add(const std::vector<Found>& found) {
    blocks_++;
    for (const Found& spot : found) {
        const auto known = std::find_if(entries_.begin(), entries_.end(),
                                        [&](const Entry& entry) { return same_frame(entry.spot, spot); });
        if (known == entries_.end()) {
            entries_.push_back({spot, false, false, 1, blocks_});
            continue;
        }
        if (std::exchange(known->block, blocks_) != blocks_) known->finds++;
        if (!known->released && !is_worse(spot, known->spot) && time_of(spot) > released_) known->spot = spot;
    }
}

double SpotLog::time_of(const ov_spot& spot) const {
    return order_ == Order::START ? spot.t : spot_end(spot);
}

void SpotLog::show_new(const std::function<void(const Found&)>& take) {
    for (Entry& entry : entries_) {
        if (!entry.released && !std::exchange(entry.shown, true)) take(entry.spot);
    }
}

void SpotLog::release(double time, const std::function<void(const Found&, int32_t finds)>& take) {
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
