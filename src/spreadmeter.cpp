// In spread mode the energy of a chip is a sum over columns k, S(f) = Σ_k E(f + k·b) with E(f) = |X(f)|². Over a chip
// of N samples E is a trigonometric polynomial of the lags below N: it cannot change faster than by a whole turn in 1/N
// of the rate. So all frequencies of all columns together depend on E at a few points, and S is interpolated: with
// Chebyshev polynomials over the range r to each side of the middle frequency,
//     E(f_0 + r·x) = Σ_m a_m·T_m(x),   a_m = 2/J·Σ_j E(f_0 + r·x_j)·T_m(x_j)   (half of it for m = 0)
// from J nodes x_j = cos(π·(j + ½)/J). Each S is the sum of such values, and therefore a fixed combination of the E at
// the nodes. With φ = 2π·r·N/rate the truncation error is below (φ/2)^J/J!.
//
// Nodes come in pairs ±x. With the samples y mixed down by the middle frequency and u counted from the middle of a
// window, both follow from the same two real-weighted sums C = Σ y·cos(θu) and D = Σ y·sin(θu), to which the samples at
// u and −u contribute at once:
//     E(±x) = |C ∓ jD|² = (|C|² + |D|²) ± 2·(Re C·Im D − Im C·Re D).
// The first part is the half sum of the pair, which counts for even m, the second the half difference, for odd m.
//
// Neighbouring starts share their samples as in ChipMeter. A drift moves the middle frequency of each chip; where many
// drifts are wanted, S is interpolated once more, and each hypothesis costs one short Chebyshev series in its offset.
//
// A single frame needs no interpolation: its columns themselves are the pairs.
#include "spreadmeter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <numeric>
#include <utility>

#include "multiversion.h"
#include "phasors.h"

namespace {

using Complex = std::complex<double>;

constexpr std::size_t HALF = 4;
constexpr std::size_t HALVES = DOUBLES / HALF;

constexpr std::size_t MAX_STARTS = 16;
constexpr double LOG_TRUNCATION = -23;  // of e; the energies are floats, good to e^−16
constexpr double MAX_REACH = 11;        // φ of a grid of drifts: more would need more terms than it saves

// Pairs of nodes, whole vectors of them, for the φ given.
std::size_t pairs_for(double phi) {
    double log_bound = 0;
    for (std::size_t n = 1;; n++) {
        log_bound += std::log(phi / 2 / static_cast<double>(n));
        if (n % (2 * DOUBLES) == 0 && !(log_bound > LOG_TRUNCATION)) return n / 2;
    }
}

std::size_t whole_vectors(std::size_t n) {
    return (n + DOUBLES - 1) / DOUBLES * DOUBLES;
}

// The positive Chebyshev nodes of 2·pairs.
std::vector<double> positive_nodes(std::size_t pairs) {
    std::vector<double> x(pairs);
    for (std::size_t j = 0; j < pairs; j++) {
        x[j] = std::cos(std::numbers::pi * (static_cast<double>(j) + 0.5) / (2 * static_cast<double>(pairs)));
    }
    return x;
}

// T_0, T_1, … at some points, degree by degree.
class ChebyshevPolynomials {
  public:
    explicit ChebyshevPolynomials(std::vector<double> x) : x_(std::move(x)), now_(x_.size(), 1.0), next_(x_) {}

    std::span<const double> values() const { return now_; }
    void advance() {
        for (std::size_t i = 0; i < x_.size(); i++) now_[i] = 2 * x_[i] * next_[i] - now_[i];
        std::swap(now_, next_);
    }

  private:
    std::vector<double> x_, now_, next_;
};

// The windows of a chip.
struct Windows {
    std::size_t chip_len, n_starts, step;
    std::size_t reach() const { return (n_starts - 1) * step; }  // from the first start to the last
    std::size_t width() const { return chip_len + reach(); }
};

// Rows of cos and sin for the samples before the middle of a span, `pairs` nodes side by side.
struct Tables {
    const double *cos, *sin;
    std::size_t pairs;
};

// C and D for eight pairs of nodes.
struct Folded {
    Doubles4 c_re[HALVES], c_im[HALVES], d_re[HALVES], d_im[HALVES];
};

inline void add(Folded& sum, const Tables& tables, std::size_t at, double c_re, double c_im, double d_re, double d_im) {
    for (std::size_t h = 0; h < HALVES; h++) {
        Doubles4 cosine;
        Doubles4 sine;
        load(cosine, tables.cos + at + h * HALF);
        load(sine, tables.sin + at + h * HALF);
        sum.c_re[h] += cosine * c_re;
        sum.c_im[h] += cosine * c_im;
        sum.d_re[h] += sine * d_re;
        sum.d_im[h] += sine * d_im;
    }
}

// Puts the differences of mirrored samples before the middle and their sums after it, in the part that all windows have
// in common.
ORVEL_MULTIVERSION void fold(double* x, std::size_t reach, std::size_t width) {
    for (std::size_t k = reach; k < width / 2; k++) {
        const double before = x[k];
        const double after = x[width - 1 - k];
        x[k] = after - before;
        x[width - 1 - k] = after + before;
    }
}

// Half sums and half differences of the energies of all pairs in all windows, start by start, of folded samples.
ORVEL_MULTIVERSION void sum_windows(const double* re, const double* im, const Windows& windows, const Tables& tables,
                                    double* half_sum, double* half_difference) {
    const std::size_t reach = windows.reach();
    const std::size_t width = windows.width();
    const std::size_t pairs = tables.pairs;
    for (std::size_t lane = 0; lane < pairs; lane += DOUBLES) {
        Folded common{};
        if (width % 2 == 1) {
            for (std::size_t h = 0; h < HALVES; h++) {
                common.c_re[h] += re[width / 2];
                common.c_im[h] += im[width / 2];
            }
        }
        for (std::size_t k = reach; k < width / 2; k++) {
            const std::size_t mirror = width - 1 - k;
            add(common, tables, k * pairs + lane, re[mirror], im[mirror], re[k], im[k]);
        }

        // The earlier a window starts, the more samples it has before the common part, and the fewer after it.
        std::array<Folded, MAX_STARTS> before;
        Folded sum{};
        for (std::size_t i = windows.n_starts, k = reach; i > 0; i--) {
            for (; k > (i - 1) * windows.step; k--) {
                add(sum, tables, (k - 1) * pairs + lane, re[k - 1], im[k - 1], -re[k - 1], -im[k - 1]);
            }
            before[i - 1] = sum;
        }
        Folded after{};
        for (std::size_t i = 0, k = 0; i < windows.n_starts; i++) {
            for (; k < i * windows.step; k++) {
                const std::size_t sample = windows.chip_len + k;
                add(after, tables, (reach - 1 - k) * pairs + lane, re[sample], im[sample], re[sample], im[sample]);
            }
            for (std::size_t h = 0; h < HALVES; h++) {
                const Doubles4 c_re = before[i].c_re[h] + common.c_re[h] + after.c_re[h];
                const Doubles4 c_im = before[i].c_im[h] + common.c_im[h] + after.c_im[h];
                const Doubles4 d_re = before[i].d_re[h] + common.d_re[h] + after.d_re[h];
                const Doubles4 d_im = before[i].d_im[h] + common.d_im[h] + after.d_im[h];
                const std::size_t at = i * pairs + lane + h * HALF;
                store((c_re * c_re + c_im * c_im) + (d_re * d_re + d_im * d_im), half_sum + at);
                store(2 * (c_re * d_im - c_im * d_re), half_difference + at);
            }
        }
    }
}

struct Weights {
    const double *even, *odd;  // `pairs` rows of `outputs`
    std::size_t pairs, outputs;
};

// The combinations of one window: even ones, then odd ones.
ORVEL_MULTIVERSION void combine(const double* half_sum, const double* half_difference, const Weights& weights,
                                double* out) {
    for (std::size_t first = 0; first < weights.outputs; first += DOUBLES) {
        Doubles4 even[HALVES] = {};
        Doubles4 odd[HALVES] = {};
        for (std::size_t j = 0; j < weights.pairs; j++) {
            const std::size_t at = j * weights.outputs + first;
            for (std::size_t h = 0; h < HALVES; h++) {
                Doubles4 of_sum;
                Doubles4 of_difference;
                load(of_sum, weights.even + at + h * HALF);
                load(of_difference, weights.odd + at + h * HALF);
                even[h] += of_sum * half_sum[j];
                odd[h] += of_difference * half_difference[j];
            }
        }
        for (std::size_t h = 0; h < HALVES; h++) {
            store(even[h], out + first + h * HALF);
            store(odd[h], out + weights.outputs + first + h * HALF);
        }
    }
}

// An energy is never negative: rounding must not make it so, as that would say that the chip was not measured.
inline float energy_of(double sum) {
    return sum <= 0 ? 0.0f : static_cast<float>(sum);
}

// Σ even_q·T_2q(x) ± Σ odd_q·T_2q+1(x) by Clenshaw's recurrence in T_2(x); n is a multiple of 8.
ORVEL_MULTIVERSION void sum_series(const double* even, const double* odd, std::size_t terms, const double* x,
                                   std::size_t n, float* plus, float* minus) {
    for (std::size_t first = 0; first < n; first += HALF) {
        Doubles4 at;
        load(at, x + first);
        const Doubles4 twice = 4 * at * at - 2;
        Doubles4 even_now{};
        Doubles4 even_last{};
        Doubles4 odd_now{};
        Doubles4 odd_last{};
        for (std::size_t q = terms - 1; q > 0; q--) {
            const Doubles4 even_next = twice * even_now + (even[q] - even_last);
            even_last = even_now;
            even_now = even_next;
            const Doubles4 odd_next = twice * odd_now + (odd[q] - odd_last);
            odd_last = odd_now;
            odd_now = odd_next;
        }
        const Doubles4 even_sum = 0.5 * twice * even_now + (even[0] - even_last);
        const Doubles4 odd_sum = at * ((twice - 1) * odd_now + (odd[0] - odd_last));
        for (std::size_t i = 0; i < HALF; i++) {
            plus[first + i] = energy_of(even_sum[i] + odd_sum[i]);
            minus[first + i] = energy_of(even_sum[i] - odd_sum[i]);
        }
    }
}

ORVEL_MULTIVERSION void split(const Complex* x, std::size_t n, double* re, double* im) {
    for (std::size_t k = 0; k < n; k++) {
        re[k] = x[k].real();
        im[k] = x[k].imag();
    }
}

// cos and sin of node·2π/rate·u for u = ½, 3/2, … or 1, 2, …, from the middle of the span outwards to its first sample.
void fill_tables(std::span<const double> node_hz, double rate, std::size_t width, double* cosines, double* sines) {
    const std::size_t pairs = node_hz.size();
    for (std::size_t j = 0; j < pairs; j++) {
        const double step = 2 * std::numbers::pi * node_hz[j] / rate;
        const Complex rotation(std::cos(step), std::sin(step));
        Complex phasor = width % 2 == 1 ? rotation : Complex(std::cos(step / 2), std::sin(step / 2));
        for (std::size_t k = width / 2; k > 0; k--) {
            cosines[(k - 1) * pairs + j] = phasor.real();
            sines[(k - 1) * pairs + j] = phasor.imag();
            phasor *= rotation;
        }
    }
}

}  // namespace

PairMeter::PairMeter(const ov_baseband& bb, int32_t chip_len)
    : bb_(bb), chip_len_(static_cast<std::size_t>(chip_len)) {}

void PairMeter::prepare(std::span<const double> node_hz, int32_t n_starts, int32_t step) {
    pairs_ = node_hz.size();
    n_starts_ = static_cast<std::size_t>(n_starts);
    step_ = static_cast<std::size_t>(step);
    const std::size_t width = Windows{chip_len_, n_starts_, step_}.width();
    cos_.resize(width / 2 * pairs_);
    sin_.resize(cos_.size());
    fill_tables(node_hz, bb_.rate, width, cos_.data(), sin_.data());
    for (std::vector<double>* const part : {&re_, &im_, &turn_re_, &turn_im_}) part->resize(width);
    turn_ = NAN;
    half_sum_.resize(n_starts_ * pairs_);
    half_difference_.resize(half_sum_.size());
}

void PairMeter::measure(int64_t first, double f) {
    load_chip(first, f);
    const Windows windows{chip_len_, n_starts_, step_};
    fold(re_.data(), windows.reach(), windows.width());
    fold(im_.data(), windows.reach(), windows.width());
    sum_windows(re_.data(), im_.data(), windows, {cos_.data(), sin_.data(), pairs_}, half_sum_.data(),
                half_difference_.data());
}

void PairMeter::load_chip(int64_t first, double f) {
    const double turn = 2 * std::numbers::pi * f / bb_.rate;
    if (turn != turn_) {  // only once without drift
        turn_ = turn;
        turn_table(turn, re_.size(), turn_re_.data(), turn_im_.data());
    }
    const auto width = static_cast<int64_t>(re_.size());
    const int64_t begin = std::clamp<int64_t>(-first, 0, width);
    const int64_t end = std::clamp<int64_t>(bb_.n - first, begin, width);
    for (std::vector<double>* const part : {&re_, &im_}) {
        std::fill_n(part->begin(), begin, 0.0);
        std::fill_n(part->rbegin(), width - end, 0.0);
    }
    if (begin < end) {
        split(bb_.samples + first + begin, static_cast<std::size_t>(end - begin), re_.data() + begin,
              im_.data() + begin);
    }
    turn_samples(turn_re_.data(), turn_im_.data(), re_.size(), re_.data(), im_.data());
}

SpreadMeter::SpreadMeter(const ov_baseband& bb, const ov_specmap& map)
    : pairs_(bb, map.chip_len),
      n_samples_(bb.n),
      rate_(bb.rate),
      chip_len_(static_cast<std::size_t>(map.chip_len)),
      nchips_(static_cast<std::size_t>(map.frame_chips)),
      spread_(map.spread),
      bin_hz_(map.bin_hz) {}

// Nodes and weights for sums over the spread up to reach_hz from the middle frequency. `share` turns the polynomials of
// one degree, summed over the columns at each offset (all ≥ 0), into the share of each output.
void SpreadMeter::set_weights(double reach_hz, std::span<const double> offsets_hz, std::size_t outputs,
                              const Share& share) {
    const double range_hz = reach_hz + spread_ * bin_hz_;
    const std::vector<double> nodes =
        positive_nodes(pairs_for(2 * std::numbers::pi * range_hz * static_cast<double>(chip_len_) / rate_));
    const std::size_t pairs = nodes.size();
    node_hz_.resize(pairs);
    std::transform(nodes.begin(), nodes.end(), node_hz_.begin(), [&](double x) { return x * range_hz; });
    const std::size_t columns = 2 * static_cast<std::size_t>(spread_) + 1;
    std::vector<double> points;
    points.reserve(offsets_hz.size() * columns);
    for (const double offset_hz : offsets_hz) {
        for (int32_t k = -spread_; k <= spread_; k++) points.push_back((offset_hz + k * bin_hz_) / range_hz);
    }

    outputs_ = whole_vectors(outputs);
    even_.assign(pairs * outputs_, 0);
    odd_.assign(pairs * outputs_, 0);
    combined_.resize(2 * outputs_);
    ChebyshevPolynomials at_nodes(nodes);
    ChebyshevPolynomials at_points(std::move(points));
    std::vector<double> sums(offsets_hz.size());
    std::vector<double> shares(outputs);
    for (std::size_t degree = 0; degree < 2 * pairs; degree++) {
        for (std::size_t i = 0; i < sums.size(); i++) {
            const auto values = at_points.values().subspan(i * columns, columns);
            sums[i] = std::accumulate(values.begin(), values.end(), 0.0);
        }
        share(degree, sums, shares);
        std::vector<double>& weights = degree % 2 == 0 ? even_ : odd_;
        const double scale = (degree == 0 ? 1.0 : 2.0) / static_cast<double>(pairs);
        for (std::size_t j = 0; j < pairs; j++) {
            const double factor = scale * at_nodes.values()[j];
            for (std::size_t i = 0; i < outputs; i++) weights[j * outputs_ + i] += factor * shares[i];
        }
        at_nodes.advance();
        at_points.advance();
    }
}

double SpreadMeter::from_middle_s(std::size_t chip) const {
    return (static_cast<double>(chip) + 0.5 - static_cast<double>(nchips_) / 2) * static_cast<double>(chip_len_) /
           rate_;
}

void SpreadMeter::measure(const StartGrid& starts, const FreqGrid& freqs, double drift) {
    const auto n = static_cast<std::size_t>(freqs.n);
    offsets_.resize(n + 1);
    for (std::size_t i = 0; i <= n; i++) offsets_[i] = static_cast<double>(i) * freqs.step_hz;
    set_weights(offsets_[n], offsets_, n + 1, [](std::size_t, std::span<const double> sums, std::span<double> out) {
        std::copy(sums.begin(), sums.end(), out.begin());
    });
    pairs_.prepare(node_hz_, starts.count, starts.step);
    const Weights weights{even_.data(), odd_.data(), node_hz_.size(), outputs_};
    const std::size_t frame = (2 * n + 1) * nchips_;  // floats of one start
    const auto n_starts = static_cast<std::size_t>(starts.count);
    energies_.resize(n_starts * frame);
    measured_.assign(n_starts, 0);
    freqs_ = freqs;

    const auto chip_len = static_cast<int64_t>(chip_len_);
    for (std::size_t chip = 0; chip < nchips_; chip++) {
        const int64_t first = starts.first + static_cast<int64_t>(chip) * chip_len;
        pairs_.measure(first, freqs.f + drift * from_middle_s(chip));
        for (std::size_t s = 0; s < n_starts; s++) {
            float* const out = energies_.data() + s * frame + chip;
            const int64_t begin = first + static_cast<int64_t>(s) * starts.step;
            if (begin < 0 || begin + chip_len > n_samples_) {
                for (std::size_t i = 0; i <= 2 * n; i++) out[i * nchips_] = -1;
                continue;
            }
            measured_[s]++;
            combine(pairs_.half_sum(s), pairs_.half_difference(s), weights, combined_.data());
            for (std::size_t i = 0; i <= n; i++) {
                const double even = combined_[i];
                const double odd = combined_[outputs_ + i];
                out[(n - i) * nchips_] = energy_of(even - odd);
                out[(n + i) * nchips_] = energy_of(even + odd);
            }
        }
    }
}

// Weights whose outputs are the coefficients of the even and the odd series of S within reach_hz, `terms` of each. They
// follow from S at the nodes of these series.
void SpreadMeter::set_series(double reach_hz, std::size_t terms) {
    std::vector<double> nodes = positive_nodes(terms);
    std::vector<double> polynomials;  // a row for each degree
    ChebyshevPolynomials at_nodes(nodes);
    for (std::size_t degree = 0; degree < 2 * terms; degree++) {
        polynomials.insert(polynomials.end(), at_nodes.values().begin(), at_nodes.values().end());
        at_nodes.advance();
    }
    for (double& node : nodes) node *= reach_hz;
    set_weights(reach_hz, nodes, terms, [&](std::size_t degree, std::span<const double> sums, std::span<double> out) {
        for (std::size_t i = 0; i < terms; i++) {
            const std::size_t q = 2 * i + degree % 2;
            const double product = std::inner_product(sums.begin(), sums.end(), polynomials.data() + q * terms, 0.0);
            out[i] = (q == 0 ? 1.0 : 2.0) / static_cast<double>(terms) * product;
        }
    });
}

// Offsets of the hypotheses with drifts above 0, as shares of the reach; those with drifts below 0 have the opposite
// ones.
void SpreadMeter::set_offsets(std::size_t chip, double reach_hz) {
    double* offset = offsets_.data();
    for (int32_t j = 1; j <= drifts_.n_drifts; j++) {
        for (int32_t i = -drifts_.n_freqs; i <= drifts_.n_freqs; i++) {
            *offset++ = (i * drifts_.step_hz + j * drifts_.unit * from_middle_s(chip)) / reach_hz;
        }
    }
}

bool SpreadMeter::measure_drifts(int32_t start, const DriftGrid& grid) {
    const double reach_hz =
        grid.n_freqs * std::fabs(grid.step_hz) + grid.n_drifts * std::fabs(grid.unit * from_middle_s(0));
    const double phi = 2 * std::numbers::pi * reach_hz * static_cast<double>(chip_len_) / rate_;
    if (!(phi > 0 && phi <= MAX_REACH)) return false;
    const std::size_t terms = pairs_for(phi);
    set_series(reach_hz, terms);
    pairs_.prepare(node_hz_, 1, 1);
    const Weights weights{even_.data(), odd_.data(), node_hz_.size(), outputs_};

    drifts_ = grid;
    measured_.assign(1, 0);
    const auto n_freqs = static_cast<std::size_t>(2 * grid.n_freqs + 1);
    const std::size_t n = n_freqs * static_cast<std::size_t>(grid.n_drifts);  // of hypotheses with opposite offsets
    offsets_.assign(whole_vectors(n), 0);
    plus_.resize(offsets_.size());
    minus_.resize(offsets_.size());
    energies_.resize(2 * n * nchips_);
    const auto chip_len = static_cast<int64_t>(chip_len_);
    for (std::size_t chip = 0; chip < nchips_; chip++) {
        float* const out = energies_.data() + chip;
        const int64_t first = start + static_cast<int64_t>(chip) * chip_len;
        if (first < 0 || first + chip_len > n_samples_) {
            for (std::size_t h = 0; h < 2 * n; h++) out[h * nchips_] = -1;
            continue;
        }
        measured_[0]++;
        set_offsets(chip, reach_hz);
        pairs_.measure(first, grid.f);
        combine(pairs_.half_sum(0), pairs_.half_difference(0), weights, combined_.data());
        sum_series(combined_.data(), combined_.data() + outputs_, terms, offsets_.data(), offsets_.size(), plus_.data(),
                   minus_.data());
        for (std::size_t h = 0; h < n; h++) {
            out[(n + h) * nchips_] = plus_[h];
            out[(n - 1 - h) * nchips_] = minus_[h];
        }
    }
    return true;
}

const float* SpreadMeter::energies(int32_t start_index, int32_t i) const {
    return energies_.data() + static_cast<std::size_t>(start_index * (2 * freqs_.n + 1) + freqs_.n + i) * nchips_;
}

const float* SpreadMeter::drift_energies(int32_t i, int32_t j) const {
    // In order of drift, then of frequency, without drift 0.
    const int32_t row = j < 0 ? drifts_.n_drifts + j : drifts_.n_drifts + j - 1;
    return energies_.data() + static_cast<std::size_t>(row * (2 * drifts_.n_freqs + 1) + drifts_.n_freqs + i) * nchips_;
}

SpreadFrameMeter::SpreadFrameMeter(const ov_baseband& bb, const ov_specmap& map)
    : pairs_(bb, map.chip_len),
      n_samples_(bb.n),
      rate_(bb.rate),
      chip_len_(map.chip_len),
      nchips_(map.frame_chips),
      spread_(static_cast<std::size_t>(map.spread)) {
    std::vector<double> node_hz(whole_vectors(spread_ + 1));
    for (std::size_t k = 0; k <= spread_; k++) node_hz[k] = static_cast<double>(k) * map.bin_hz;
    pairs_.prepare(node_hz, 1, 1);
}

int32_t SpreadFrameMeter::measure(int32_t start, double f, double drift, float* out) {
    int32_t measured = 0;
    for (int32_t chip = 0; chip < nchips_; chip++) {
        const int64_t first = start + static_cast<int64_t>(chip) * chip_len_;
        if (first < 0 || first + chip_len_ > n_samples_) {
            out[chip] = -1;
            continue;
        }
        measured++;
        pairs_.measure(first, f + drift * (chip + 0.5 - nchips_ / 2.0) * chip_len_ / rate_);
        // Single-precision sums from the lowest column to the highest.
        const double* const even = pairs_.half_sum(0);
        const double* const odd = pairs_.half_difference(0);
        float sum = 0;
        for (std::size_t k = spread_; k > 0; k--) sum += energy_of(even[k] - odd[k]);
        for (std::size_t k = 0; k <= spread_; k++) sum += energy_of(even[k] + odd[k]);
        out[chip] = sum;
    }
    return measured;
}
