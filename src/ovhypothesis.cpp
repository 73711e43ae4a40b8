// The starts, frequencies and drifts around a candidate are tried in three stages, each around the best of the one
// before it. All chips of all hypotheses of a stage are measured together where possible.
#include "ovhypothesis.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <new>
#include <numbers>
#include <vector>

#include "chipmeter.h"
#include "multiversion.h"
#include "ovcdec.h"
#include "spreadgrid.h"
#include "spreadmeter.h"

namespace {

using Complex = std::complex<double>;

constexpr int32_t MAX_DRIFT_STEPS = 12;

// |Σ x[k]·e^(−jθk)|² over n samples. Several phasors take turns, each advanced by that many rotations at a time: one
// alone would wait for its own last product.
ORVEL_MULTIVERSION double tone_energy(const Complex* x, std::size_t n, const Complex& rotation) {
    std::array<double, DOUBLES> first_re;
    std::array<double, DOUBLES> first_im;
    const double step_re = rotation.real();
    const double step_im = rotation.imag();
    double turn_re = 1;
    double turn_im = 0;
    for (std::size_t j = 0; j < DOUBLES; j++) {
        first_re[j] = turn_re;
        first_im[j] = turn_im;
        const double next_re = turn_re * step_re - turn_im * step_im;
        turn_im = turn_re * step_im + turn_im * step_re;
        turn_re = next_re;
    }
    Doubles8 phasor_re;
    Doubles8 phasor_im;
    load(phasor_re, first_re.data());
    load(phasor_im, first_im.data());
    Doubles8 sum_re{};
    Doubles8 sum_im{};
    const auto add = [&](const Doubles8& x_re, const Doubles8& x_im) {
        sum_re += x_re * phasor_re - x_im * phasor_im;
        sum_im += x_re * phasor_im + x_im * phasor_re;
        const Doubles8 next_re = phasor_re * turn_re - phasor_im * turn_im;
        phasor_im = phasor_re * turn_im + phasor_im * turn_re;
        phasor_re = next_re;
    };
    std::size_t k = 0;
    for (; k + DOUBLES <= n; k += DOUBLES) {
        Doubles8 front;
        Doubles8 back;
        load(front, reinterpret_cast<const double*>(x + k));
        load(back, reinterpret_cast<const double*>(x + k + DOUBLES / 2));
        add({__builtin_shufflevector(front.low, front.high, 0, 2, 4, 6),
             __builtin_shufflevector(back.low, back.high, 0, 2, 4, 6)},
            {__builtin_shufflevector(front.low, front.high, 1, 3, 5, 7),
             __builtin_shufflevector(back.low, back.high, 1, 3, 5, 7)});
    }
    std::array<double, DOUBLES> rest_re{};
    std::array<double, DOUBLES> rest_im{};
    for (std::size_t j = 0; k + j < n; j++) {
        rest_re[j] = x[k + j].real();
        rest_im[j] = x[k + j].imag();
    }
    Doubles8 last_re;
    Doubles8 last_im;
    load(last_re, rest_re.data());
    load(last_im, rest_im.data());
    add(last_re, last_im);
    const double re = sum_of(sum_re);
    const double im = sum_of(sum_im);
    return re * re + im * im;
}

double layout_metric(const ov_specmap& map, const float* soft) {
    if (map.pair_mode == 0) return ovc_frame_metric(soft);
    double sum = 0;
    for (int32_t i = 0; i < map.pairs; i++) sum += std::fabs(static_cast<double>(soft[i]));
    return sum;
}

// A grid of steps to each side of a centre.
struct Steps {
    int32_t reach;
    int32_t step;
};
Steps coarse_start_steps(int32_t hop) {
    return {hop, hop >= 4 ? hop / 4 : 1};
}
Steps fine_start_steps(int32_t hop) {
    const int32_t quarter = hop >= 4 ? hop / 4 : 1;
    return {quarter, quarter >= 4 ? quarter / 4 : 1};
}

struct DriftSteps {
    int32_t n;    // each side
    double unit;  // Hz/s
};

// Steps of half a column over a frame, or twelve wider ones.
DriftSteps drift_steps(const ov_specmap& map, double drift_max) {
    const double unit = 0.5 * map.bin_hz / (map.frame_chips * map.chip_s);
    const double n = std::ceil(drift_max / unit);
    if (!(n <= MAX_DRIFT_STEPS)) return {MAX_DRIFT_STEPS, drift_max / MAX_DRIFT_STEPS};
    return {static_cast<int32_t>(n), unit};
}

StartGrid starts_around(int32_t start, const Steps& steps) {
    return {start - steps.reach, 2 * steps.reach / steps.step + 1, steps.step};
}

// Measures hypotheses of a map without spread and hands them to a judge, start by start. SpreadGrid is its counterpart
// with a spread.
class HypothesisGrid {
  public:
    HypothesisGrid(const ov_baseband& bb, const ov_specmap& map, const std::function<void(const ov_measured&)>& judge)
        : judge_(judge), meter_(bb, map.chip_len, map.frame_chips), drift_meter_(bb, map.chip_len, map.frame_chips) {}

    // The starts with 2·n + 1 frequencies step_hz apart around f.
    void measure(const StartGrid& starts, double f, int32_t n, double step_hz, double drift) {
        freqs_.clear();
        for (int32_t i = -n; i <= n; i++) freqs_.push_back(f + i * step_hz);
        meter_.measure(starts, freqs_, drift);
        for (int32_t s = 0; s < starts.count; s++) {
            for (std::size_t i = 0; i < freqs_.size(); i++) {
                judge_({starts.at(s), freqs_[i], drift, meter_.energies(s, i), meter_.measured(s)});
            }
        }
    }

    // One start with the frequencies and drifts of the grid.
    void measure_drifts(int32_t start, const DriftGrid& grid) {
        const bool together = drift_meter_.measure(start, grid);
        for (int32_t j = -grid.n_drifts; j <= grid.n_drifts; j++) {
            if (j == 0) continue;
            if (!together) {
                measure({start, 1, 1}, grid.f, grid.n_freqs, grid.step_hz, j * grid.unit);
                continue;
            }
            for (int32_t i = -grid.n_freqs; i <= grid.n_freqs; i++) {
                judge_({start, grid.f + i * grid.step_hz, j * grid.unit, drift_meter_.energies(i, j),
                        drift_meter_.measured()});
            }
        }
    }

  private:
    const std::function<void(const ov_measured&)>& judge_;
    ChipMeter meter_;
    DriftMeter drift_meter_;
    std::vector<double> freqs_;
};

// The stages of a refinement, each around what the stage before it found, not around its own running best. -1 when the
// first of them found nothing.
template <class Grid>
int search_stages(Grid& grid, const ov_specmap& map, int32_t start, double f, double drift_max, const ov_hyp& best) {
    grid.measure(starts_around(start, coarse_start_steps(map.hop)), f, 4, map.bin_hz / 4, 0);
    if (!(best.metric > -1e299)) return -1;

    if (drift_max > 0) {
        const DriftSteps steps = drift_steps(map, drift_max);
        grid.measure_drifts(best.start, {best.f, map.bin_hz / 4, 2, steps.unit, steps.n});
    }
    grid.measure(starts_around(best.start, fine_start_steps(map.hop)), best.f, 2, map.bin_hz / 16, best.drift);
    return 0;
}

// ov_chip_energies_sp, by the fast path where there is memory for it.
int32_t measure_frame(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift, float* out) {
    if (map.spread != 0) {
        try {
            return SpreadFrameMeter(bb, map).measure(start, f, drift, out);
        } catch (const std::bad_alloc&) {  // column by column needs none
        }
    }
    return ov_chip_energies_sp(bb, map, start, f, drift, out);
}

// Replaces best by a measured hypothesis that has enough chips and scores strictly higher.
void judge_hyp(const ov_specmap& map, const ov_measured& measured, int32_t min_chips, ov_hyp& best) {
    if (measured.n_in < min_chips) return;
    ov_hyp hyp{};
    std::copy_n(measured.energy, map.frame_chips, hyp.energy);
    hyp.n_in = measured.n_in;
    hyp.noise = ov_noise_at(map, measured.f);
    energies_to_soft(hyp.energy, map.pairs, hyp.noise, map.noise_rescale, hyp.soft);
    hyp.metric = layout_metric(map, hyp.soft);
    if (!(hyp.metric > best.metric)) return;

    hyp.start = measured.start;
    hyp.f = measured.f;
    hyp.drift = measured.drift;
    hyp.noise_rescale = map.noise_rescale;
    hyp.spread_factor = map.spread_factor;
    hyp.nchips = map.frame_chips;
    best = hyp;
}

}  // namespace

int32_t ov_chip_energies(const ov_baseband& bb, int32_t chip_len, int32_t nchips, int32_t start, double f, double drift,
                         float* out) {
    const DriftLine line(bb.rate, start, nchips, chip_len, f, drift);
    const auto n = static_cast<std::size_t>(std::max(chip_len, 0));
    int32_t measured = 0;
    double last_theta = NAN;
    Complex rotation;
    for (int32_t c = 0; c < nchips; c++) {
        const int64_t s = start + int64_t{c} * chip_len;
        if (s < 0 || s + chip_len > bb.n) {
            out[c] = -1;
            continue;
        }
        const double theta = 2 * std::numbers::pi * line.at(static_cast<double>(s)) / bb.rate;
        if (theta != last_theta) rotation = {std::cos(theta), -std::sin(theta)};  // only once without drift
        last_theta = theta;
        out[c] = n > 0 ? static_cast<float>(tone_energy(bb.samples + s, n, rotation)) : 0;
        measured++;
    }
    return measured;
}

int32_t ov_chip_energies_sp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift,
                            float* out) {
    const int32_t measured = ov_chip_energies(bb, map.chip_len, map.frame_chips, start,
                                              map.spread == 0 ? f : f - map.spread * map.bin_hz, drift, out);
    std::array<float, OV_MAX_CHIPS> more;
    for (int32_t k = 1 - map.spread; k <= map.spread; k++) {
        ov_chip_energies(bb, map.chip_len, map.frame_chips, start, f + k * map.bin_hz, drift, more.data());
        std::transform(out, out + map.frame_chips, more.begin(), out,
                       [](float sum, float energy) { return sum >= 0 ? sum + energy : sum; });
    }
    return measured;
}

void energies_to_soft(const float* energy, int32_t pairs, double noise, double scale, float* soft) {
    for (int32_t i = 0; i < pairs; i++) {
        const float first = energy[2 * i + 1];
        const float second = energy[2 * i + 2];
        const bool measured = !(first < 0) && !(second < 0);
        soft[i] = measured ? static_cast<float>((second - first) / noise * scale) : 0.0f;
    }
}

double ov_noise_at(const ov_specmap& map, double f) {
    const double column = std::round(f / map.bin_hz) + map.half;
    return map.noise[static_cast<int32_t>(std::fmin(std::fmax(column, 0.0), map.nbins - 1))];
}

void try_hyp(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift, int32_t min_chips,
             ov_hyp& best) {
    std::array<float, OV_MAX_CHIPS> energy;
    const int32_t n_in = ov_chip_energies_sp(bb, map, start, f, drift, energy.data());
    judge_hyp(map, {start, f, drift, energy.data(), n_in}, min_chips, best);
}

int ov_refine(const ov_baseband& bb, const ov_specmap& map, const ov_cand& cand, double drift_max, double edge,
              ov_hyp& out) {
    const int32_t min_chips = ov_chips_needed(edge, map.frame_chips);
    ov_hyp best{};
    best.metric = OVC_NO_METRIC;
    const auto judge = [&](const ov_measured& measured) { judge_hyp(map, measured, min_chips, best); };
    if (ov_search_around(bb, map, cand.pos * map.hop, cand.f, drift_max, best, std::ref(judge)) != 0) return -1;
    out = best;
    return 0;
}

int ov_search_around(const ov_baseband& bb, const ov_specmap& map, int32_t start, double f, double drift_max,
                     ov_hyp& best, const std::function<void(const ov_measured&)>& judge) {
    try {
        if (map.spread == 0) {
            HypothesisGrid grid(bb, map, judge);
            return search_stages(grid, map, start, f, drift_max, best);
        }
        SpreadGrid grid(bb, map, best, judge);
        const int result = search_stages(grid, map, start, f, drift_max, best);
        grid.finish();
        return result;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int32_t ov_chips_needed(double edge, int32_t frame_chips) {
    const double needed = std::ceil((1 - edge) * frame_chips);
    if (std::isnan(needed)) return frame_chips;
    return static_cast<int32_t>(std::clamp(needed, 0.0, frame_chips + 1.0));  // more than there are: never enough
}

int ov_fit_shift(const ov_baseband& bb, const ov_specmap& map, const ov_hyp& hyp, int32_t shift, double edge,
                 ov_hyp& out) {
    out = hyp;
    out.start = hyp.start + shift * map.chip_len;
    out.n_in = measure_frame(bb, map, out.start, out.f, out.drift, out.energy);
    if (out.n_in < ov_chips_needed(edge, map.frame_chips)) return -1;
    energies_to_soft(out.energy, map.pairs, out.noise, map.noise_rescale, out.soft);
    out.metric = layout_metric(map, out.soft);
    return 0;
}
