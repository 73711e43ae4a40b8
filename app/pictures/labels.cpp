#include "pictures/labels.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr double GAP = 3;      // pixels between a frame and its label
constexpr double MARGIN = 2;   // pixels between labels
constexpr int MOST_STEPS = 4;  // heights that a label may be away from its frame

Box grown(const Box& box, double by) {
    return {box.left - by, box.top - by, box.width + 2 * by, box.height + 2 * by};
}

// The nearest place inside the area, when the label fits at all.
Box moved_inside(const Box& area, Box box) {
    box.left = std::clamp(box.left, area.left, std::max(area.left, area.right() - box.width));
    return box;
}

struct Candidate {
    Box box;
    bool away;
};

// Above and below the visible part of the frame, then to its sides, then further and further away.
std::vector<Candidate> candidates(const Box& area, const LabelWish& wish, double width) {
    const double left = std::max(wish.frame.left, area.left);
    const double right = std::min(wish.frame.right(), area.right());
    const double top = std::max(wish.frame.top, area.top);
    const double bottom = std::min(wish.frame.bottom(), area.bottom());
    std::vector<Candidate> found;
    const auto add = [&](double x, double y, bool away) {
        found.push_back({moved_inside(area, {x, y, width, wish.height}), away});
    };
    for (int step = 0; step < MOST_STEPS; step++) {
        const double off = GAP + step * (wish.height + MARGIN);
        for (const double x : {left, right - width, (left + right - width) / 2}) {
            add(x, top - off - wish.height, step > 0);
            add(x, bottom + off, step > 0);
        }
        if (step == 0) {
            const double y = (top + bottom - wish.height) / 2;
            for (const double x : {right + GAP, left - GAP - width}) {
                const Box box = {x, y, width, wish.height};
                if (area.holds(box)) found.push_back({box, false});
            }
        }
    }
    return found;
}

}  // namespace

std::vector<LabelPlace> place_labels(const Box& area, const std::vector<LabelWish>& wishes) {
    std::vector<LabelPlace> places(wishes.size());
    std::vector<Box> taken;
    const auto free_of_labels = [&](const Box& box) {
        return std::none_of(taken.begin(), taken.end(),
                            [&](const Box& other) { return other.overlaps(grown(box, MARGIN)); });
    };
    const auto free_of_frames = [&](const Box& box) {
        return std::none_of(wishes.begin(), wishes.end(),
                            [&](const LabelWish& wish) { return wish.frame.overlaps(box); });
    };
    for (std::size_t k = 0; k < wishes.size(); k++) {
        const auto choose = [&](double width, bool shortened) {
            for (const Candidate& candidate : candidates(area, wishes[k], width)) {
                const Box& box = candidate.box;
                if (!area.holds(box) || !free_of_labels(box) || !free_of_frames(box)) continue;
                places[k] = {true, shortened, candidate.away, box};
                taken.push_back(box);
                return true;
            }
            return false;
        };
        if (!choose(wishes[k].width, false)) choose(wishes[k].short_width, true);
    }
    return places;
}
