#include "coherent/subtraction.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <utility>
#include <vector>

namespace coherent {
namespace {

using Complex = std::complex<double>;
constexpr double TURN = 2 * std::numbers::pi;

// A strong frame's gain is measured chip by chip, a weak one's over many.
constexpr double CERTAIN = 100;     // signal energy over noise energy that a gain is measured from
constexpr int32_t MOST_CHIPS = 12;  // on each side
constexpr double STRONG = 30;       // energy of a chip over noise from which its edges are measured, too
constexpr double EDGE_S = 0.005;    // of other frames
constexpr double STEADY = 0.5;      // share of the neighbours' products that a steady phase keeps in their sum
constexpr double BETTER = 0.7;      // of what else is left, that makes another frequency and drift worth it

// The frame mixed down to 0 Hz, `chip_len` samples a chip, with a chip before and after it; outside the block zeros.
class MixedDown {
  public:
    MixedDown(std::span<Complex> samples, double rate, int32_t chip_len, const Hypothesis& frame, std::size_t chips)
        : samples_(samples),
          first_(std::llround(frame.start_s * rate) - chip_len),
          x_((chips + 2) * static_cast<std::size_t>(chip_len)),
          phasors_(x_.size()) {
        const double middle_s = frame.start_s + static_cast<double>(chips) * chip_len / rate / 2;
        for (std::size_t i = 0; i < x_.size(); i++) {
            const double t = static_cast<double>(first_ + static_cast<int64_t>(i)) / rate - middle_s;
            phasors_[i] = std::polar(1.0, TURN * (frame.f * t + frame.drift * t * t / 2));
            if (inside(i)) x_[i] = at(i) * std::conj(phasors_[i]);
        }
    }
    bool inside(std::size_t i) const {
        const int64_t k = first_ + static_cast<int64_t>(i);
        return k >= 0 && k < static_cast<int64_t>(samples_.size());
    }
    const std::vector<Complex>& values() const { return x_; }
    void subtract(std::size_t i, Complex value) {
        if (inside(i)) at(i) -= value * phasors_[i];
    }

  private:
    Complex& at(std::size_t i) { return samples_[static_cast<std::size_t>(first_ + static_cast<int64_t>(i))]; }

    std::span<Complex> samples_;
    int64_t first_;
    std::vector<Complex> x_, phasors_;
};

// Means over the middle half of each chip.
std::vector<Complex> chip_means(const std::vector<Complex>& x, std::size_t chip, std::size_t chips) {
    const std::size_t margin = chip / 4;
    std::vector<Complex> means(chips);
    for (std::size_t k = 0; k < chips; k++) {
        Complex sum = 0;
        for (std::size_t i = margin; i < chip - margin; i++) sum += x[(k + 1) * chip + i];
        means[k] = sum / static_cast<double>(chip - 2 * margin);
    }
    return means;
}

// The carrier's gain at each chip: a straight line through the ON chips around it.
std::vector<Complex> smooth_gains(const std::vector<Complex>& means, std::span<const uint8_t> chips,
                                  std::span<const uint8_t> measured, int32_t side) {
    const auto n = static_cast<int32_t>(chips.size());
    std::vector<Complex> gains(chips.size());
    for (int32_t k = 0; k < n; k++) {
        double w = 0, wt = 0, wtt = 0;
        Complex s = 0, st = 0;
        for (int32_t reach = side; reach <= MOST_CHIPS && w < 2; reach++) {
            w = wt = wtt = 0;
            s = st = 0;
            for (int32_t i = std::max(0, k - reach); i <= std::min(n - 1, k + reach); i++) {
                const auto at = static_cast<std::size_t>(i);
                if (chips[at] == 0 || measured[at] == 0) continue;
                const double t = i - k;
                w += 1;
                wt += t;
                wtt += t * t;
                s += means[at];
                st += means[at] * t;
            }
        }
        const double determinant = w * wtt - wt * wt;
        gains[static_cast<std::size_t>(k)] = determinant > 1e-9 ? (s * wtt - st * wt) / determinant
                                             : w > 0            ? s / w
                                                                : Complex{};
    }
    return gains;
}

// A frame as a hypothesis shows it.
class Measured {
  public:
    Measured(std::span<Complex> samples, double rate, int32_t chip_len, const Hypothesis& frame,
             std::span<const uint8_t> chips)
        : frame_(frame),
          chips_(chips),
          chip_s_(chip_len / rate),
          mixed_(samples, rate, chip_len, frame, chips.size()),
          inside_(chips.size()) {
        const auto chip = static_cast<std::size_t>(chip_len);
        for (std::size_t k = 0; k < chips.size(); k++) {
            inside_[k] = mixed_.inside((k + 1) * chip) && mixed_.inside((k + 2) * chip - 1) ? 1 : 0;
        }
        means_ = chip_means(mixed_.values(), chip, chips.size());
        energy_ = on_over_off(means_) - 1;
        if (!(energy_ > 0)) return;
        const auto side = static_cast<int32_t>(std::clamp(CERTAIN / energy_, 2.0, static_cast<double>(MOST_CHIPS)));
        gains_ = smooth_gains(means_, chips, inside_, side);
        std::vector<Complex> left = means_;
        for (std::size_t k = 0; k < left.size(); k++) left[k] -= chips[k] != 0 ? gains_[k] : Complex{};
        rest_ = on_over_off(left);
    }

    double energy() const { return energy_; }  // of ON chips, in those of OFF chips, and above them
    double rest() const { return rest_; }      // that the gains leave in ON chips, in those of OFF chips
    const std::vector<Complex>& gains() const { return gains_; }
    MixedDown& mixed() { return mixed_; }

    // The frequency and drift that the phase shows from one ON chip to the next; nothing where it jumps.
    std::optional<Hypothesis> by_phase() const {
        struct Turn {
            double t;  // from the middle of the frame
            Complex value;
        };
        std::vector<Turn> turns;
        Complex mean = 0;
        double most = 0;
        for (std::size_t k = 0; k + 1 < chips_.size(); k++) {
            if (!is_measured_on(k) || !is_measured_on(k + 1)) continue;
            const double t = (static_cast<double>(k + 1) - static_cast<double>(chips_.size()) / 2) * chip_s_;
            turns.push_back({t, means_[k + 1] * std::conj(means_[k])});
            mean += turns.back().value;
            most += std::abs(turns.back().value);
        }
        if (!(std::abs(mean) > STEADY * most)) return std::nullopt;
        // A straight line through the angles beside the mean one.
        double wt = 0, wtt = 0, wa = 0, wta = 0;
        for (const Turn& turn : turns) {
            const double angle = std::arg(turn.value * std::conj(mean));
            wt += turn.t;
            wtt += turn.t * turn.t;
            wa += angle;
            wta += turn.t * angle;
        }
        const auto w = static_cast<double>(turns.size());
        const double determinant = w * wtt - wt * wt;
        if (!(determinant > 1e-9)) return std::nullopt;
        Hypothesis shown = frame_;
        shown.f += (std::arg(mean) + (wa * wtt - wta * wt) / determinant) / (TURN * chip_s_);
        shown.drift += (w * wta - wt * wa) / determinant / (TURN * chip_s_);
        return shown;
    }

  private:
    bool is_measured_on(std::size_t k) const { return chips_[k] != 0 && inside_[k] != 0; }

    // Mean energy of the measured ON chips over that of the OFF chips; 0 when either are missing.
    double on_over_off(const std::vector<Complex>& chip_values) const {
        double on = 0, off = 0, n_on = 0, n_off = 0;
        for (std::size_t k = 0; k < chips_.size(); k++) {
            if (inside_[k] == 0) continue;
            (chips_[k] != 0 ? on : off) += std::norm(chip_values[k]);
            (chips_[k] != 0 ? n_on : n_off) += 1;
        }
        return n_on > 0 && n_off > 0 ? (on / n_on) / std::max(off / n_off, 1e-30) : 0;
    }

    Hypothesis frame_;
    std::span<const uint8_t> chips_;
    double chip_s_;
    MixedDown mixed_;
    std::vector<uint8_t> inside_;
    std::vector<Complex> means_, gains_;
    double energy_ = 0;
    double rest_ = 0;
};

}  // namespace

void take_out(std::span<std::complex<double>> samples, double rate, int32_t chip_len, const Hypothesis& frame,
              std::span<const uint8_t> chips) {
    const auto chip = static_cast<std::size_t>(chip_len);
    Measured measured(samples, rate, chip_len, frame, chips);
    if (!(measured.energy() > 0)) return;
    if (const auto by_phase = measured.by_phase()) {
        Measured other(samples, rate, chip_len, *by_phase, chips);
        if (other.energy() > 0 && other.rest() < BETTER * measured.rest()) measured = std::move(other);
    }
    MixedDown& mixed = measured.mixed();
    const std::vector<Complex>& x = mixed.values();
    const std::vector<Complex>& gains = measured.gains();
    const double energy = measured.energy();

    // The gain at a sample, between the middles of chips.
    const auto gain_at = [&](std::size_t i) {
        const double position = std::clamp((static_cast<double>(i) + 0.5) / static_cast<double>(chip) - 1.5, 0.0,
                                           static_cast<double>(chips.size()) - 1);
        const auto left = std::min(static_cast<std::size_t>(position), chips.size() - 2);
        const double share = position - static_cast<double>(left);
        return (1 - share) * gains[left] + share * gains[left + 1];
    };
    const auto is_on = [&](std::size_t k) {
        return k >= 1 && k <= chips.size() && chips[k - 1] != 0;
    };  // k counts the chip before

    // The envelope from the middle of a chip to the middle of the next, for the four pairs of neighbours.
    std::vector<double> envelope(4 * chip);
    const double edge = EDGE_S * rate;
    for (std::size_t i = 0; i < chip; i++) {
        const double from_border = static_cast<double>(i) + 0.5 - static_cast<double>(chip) / 2;
        const double rise = 0.5 + 0.5 * std::sin(std::numbers::pi * std::clamp(from_border / edge, -0.5, 0.5));
        envelope[1 * chip + i] = rise;
        envelope[2 * chip + i] = 1 - rise;
        envelope[3 * chip + i] = 1;
    }
    const auto for_each_border = [&](const auto& visit) {
        for (std::size_t k = 0; k <= chips.size(); k++) {
            const std::size_t kind = (is_on(k) ? 2U : 0U) + (is_on(k + 1) ? 1U : 0U);
            visit(kind, k * chip + chip / 2);
        }
    };
    if (energy > STRONG) {
        // The real part of what is measured over the gain, weighted by the gain's power.
        std::vector<double> sum(envelope.size(), 0.0);
        std::vector<double> weight(envelope.size(), 0.0);
        for_each_border([&](std::size_t kind, std::size_t first) {
            for (std::size_t i = 0; i < chip; i++) {
                if (!mixed.inside(first + i)) continue;
                const Complex gain = gain_at(first + i);
                sum[kind * chip + i] += (x[first + i] * std::conj(gain)).real();
                weight[kind * chip + i] += std::norm(gain);
            }
        });
        for (std::size_t i = 0; i < envelope.size(); i++) {
            if (weight[i] > 0) envelope[i] = sum[i] / weight[i];
        }
    }
    for_each_border([&](std::size_t kind, std::size_t first) {
        for (std::size_t i = 0; i < chip; i++) {
            mixed.subtract(first + i, envelope[kind * chip + i] * gain_at(first + i));
        }
    });
}

}  // namespace coherent
