// The search for the best of a grid of hypotheses in spread mode.
//
// All are measured together, to a little less than single precision. The few that may be the best are measured again
// exactly, so that the choice is the one that ov_chip_energies_sp would lead to.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "chipmeter.h"
#include "ovbb.h"
#include "ovhypothesis.h"
#include "ovrecords.h"
#include "spreadmeter.h"

// Measures grids of hypotheses for a judge, which keeps the best in `best`. All methods throw
// std::bad_alloc when memory is short.
class SpreadGrid {
  public:
    SpreadGrid(const ov_baseband& bb, const ov_specmap& map, ov_hyp& best,
               const std::function<void(const ov_measured&)>& judge);

    // The starts with 2·n + 1 frequencies step_hz apart around f. Before finish(), only start, frequency, drift and
    // metric (to some digits) of the best are known.
    void measure(const StartGrid& starts, double f, int32_t n, double step_hz, double drift);

    // One start with the frequencies and drifts of the grid.
    void measure_drifts(int32_t start, const DriftGrid& grid);

    // Passes the best of all grids to the judge, measured exactly.
    void finish();

  private:
    // A hypothesis that was among the best when it was measured.
    struct Near {
        int32_t start;
        double f, drift, metric;
    };

    static bool same_place(const Near& a, const Near& b);
    void begin();
    void offer_all(const StartGrid& starts, double f, int32_t n, double step_hz, double drift);
    void offer(const ov_measured& measured);
    void confirm();
    void judge_exactly(const Near& near);

    ov_hyp& best_;
    const ov_hyp first_;  // before all grids
    const std::function<void(const ov_measured&)>& judge_;
    SpreadMeter meter_;
    SpreadFrameMeter frame_meter_;
    std::vector<Near> near_;
    double highest_ = 0;  // metric so far
    bool found_ = false;
    bool exact_ = false;  // all of best is known
};
