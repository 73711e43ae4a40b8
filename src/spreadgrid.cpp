// The judge first sees every hypothesis as it was measured together with its neighbours. Where several come within a
// margin of the best metric, each of them is measured exactly and judged again.
#include "spreadgrid.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

// Metrics this close may change places when they are measured exactly. Sums of single-precision energies that hardly
// differ, as below a strong carrier, are accurate to four digits only.
double margin_below(double metric) {
    return 1e-4 * (1 + std::fabs(metric));
}

}  // namespace

SpreadGrid::SpreadGrid(const ov_baseband& bb, const ov_specmap& map, ov_hyp& best,
                       const std::function<void(const ov_measured&)>& judge)
    : best_(best), first_(best), judge_(judge), meter_(bb, map), frame_meter_(bb, map) {}

void SpreadGrid::measure(const StartGrid& starts, double f, int32_t n, double step_hz, double drift) {
    begin();
    offer_all(starts, f, n, step_hz, drift);
    confirm();
}

void SpreadGrid::measure_drifts(int32_t start, const DriftGrid& grid) {
    begin();
    const bool together = meter_.measure_drifts(start, grid);
    for (int32_t j = -grid.n_drifts; j <= grid.n_drifts; j++) {
        if (j == 0) continue;
        if (!together) {
            offer_all({start, 1, 1}, grid.f, grid.n_freqs, grid.step_hz, j * grid.unit);
            continue;
        }
        for (int32_t i = -grid.n_freqs; i <= grid.n_freqs; i++) {
            offer({start, grid.f + i * grid.step_hz, j * grid.unit, meter_.drift_energies(i, j), meter_.measured()});
        }
    }
    confirm();
}

void SpreadGrid::finish() {
    if (!found_ || exact_) return;
    const Near near{best_.start, best_.f, best_.drift, best_.metric};
    best_ = first_;
    judge_exactly(near);
}

// The best of the previous grid is on the finer grid, too.
bool SpreadGrid::same_place(const Near& a, const Near& b) {
    return a.start == b.start && a.f == b.f && a.drift == b.drift;
}

void SpreadGrid::begin() {
    near_.clear();
    if (found_) near_.push_back({best_.start, best_.f, best_.drift, best_.metric});
    highest_ = best_.metric;
}

void SpreadGrid::offer_all(const StartGrid& starts, double f, int32_t n, double step_hz, double drift) {
    meter_.measure(starts, {f, step_hz, n}, drift);
    for (int32_t s = 0; s < starts.count; s++) {
        for (int32_t i = -n; i <= n; i++) {
            offer({starts.at(s), f + i * step_hz, drift, meter_.energies(s, i), meter_.measured(s)});
        }
    }
}

// The bar that the judge sees is a little below the best so far: whatever passes it may be the best of the grid.
void SpreadGrid::offer(const ov_measured& measured) {
    const double bar = highest_ - margin_below(highest_);
    best_.metric = bar;
    judge_(measured);
    if (best_.metric == bar) return;
    const Near near{measured.start, measured.f, measured.drift, best_.metric};
    if (near_.empty() || !same_place(near, near_.front())) near_.push_back(near);
    highest_ = std::max(highest_, best_.metric);
}

void SpreadGrid::confirm() {
    const double bar = highest_ - margin_below(highest_);
    std::erase_if(near_, [&](const Near& near) { return near.metric < bar; });
    best_ = first_;
    found_ = !near_.empty();
    exact_ = near_.size() > 1;
    if (exact_) {
        for (const Near& near : near_) judge_exactly(near);
    } else if (found_) {
        best_.start = near_[0].start;
        best_.f = near_[0].f;
        best_.drift = near_[0].drift;
        best_.metric = near_[0].metric;
    }
}

void SpreadGrid::judge_exactly(const Near& near) {
    std::array<float, OV_MAX_CHIPS> energy;
    const int32_t n_in = frame_meter_.measure(near.start, near.f, near.drift, energy.data());
    judge_({near.start, near.f, near.drift, energy.data(), n_in});
}
