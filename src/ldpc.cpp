// Bits are bytes at the interfaces and 64-bit words inside, so that adding codewords and summing the cost of their
// differences takes a few instructions per word. Scratch lives on the stack.
#include "ldpc.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>

#include "ldpc_tables.h"
#include "multiversion.h"
#include "vecmath.h"

using gf2::add_to;
using gf2::get_bit;
using gf2::set_bit;
using gf2::sum_of;

// Loading and encoding

int ldpc_load(ldpc_code& code, int32_t n, int32_t k, const uint8_t* check_degree, const uint8_t* check_vars,
              const uint64_t* generator, const uint8_t* pivot) {
    if (n <= k || n > 192) return -1;
    code = {};
    code.n = n;
    code.k = k;
    code.m = n - k;
    code.column_weight = 3;

    const uint8_t* next = check_vars;
    for (int32_t c = 0; c < code.m; ++c) {
        code.check_degree[c] = check_degree[c];
        for (int32_t e = 0; e < code.check_degree[c]; ++e) {
            const int32_t v = *next++;
            if (code.var_degree[v] == LDPC_MAX_VAR_DEGREE) return -1;
            code.check_vars[c][e] = v;
            code.var_checks[v][code.var_degree[v]++] = c;
        }
    }
    for (int32_t i = 0; i < k; ++i) {
        std::copy_n(generator + 3 * i, 3, code.generator[i].begin());
        code.pivot[i] = pivot[i];
    }
    return 0;
}

void ldpc_encode(const ldpc_code& code, const uint8_t* message, uint8_t* codeword) {
    ldpc_bits sum{};
    for (int32_t i = 0; i < code.k; ++i) {
        if (message[i] != 0) add_to(sum, code.generator[i]);
    }
    for (int32_t j = 0; j < code.n; ++j) codeword[j] = get_bit(sum, j);
}

int32_t ldpc_syndrome_weight(const ldpc_code& code, const uint8_t* bits) {
    int32_t odd = 0;
    for (int32_t c = 0; c < code.m; ++c) {
        uint8_t parity = 0;
        for (int32_t e = 0; e < code.check_degree[c]; ++e) parity ^= bits[code.check_vars[c][e]];
        odd += parity & 1;
    }
    return odd;
}

// Construction

namespace {

constexpr int32_t GROWTH_LIMIT = 31;  // a check of this degree accepts only variables without a check
constexpr int32_t UNREACHED = -1;

// Distances in edges from one variable. Variables and checks are the two kinds of nodes.
struct Distances {
    std::array<int32_t, LDPC_MAX_N> variable;
    std::array<int32_t, LDPC_MAX_N> check;
    int32_t shortest_cycle;  // met on the way; no longer than the shortest through that variable
};

Distances measure_distances(const ldpc_code& code, int32_t from) {
    struct Node {
        int32_t index, parent;
        bool is_check;
    };
    Distances out;
    out.variable.fill(UNREACHED);
    out.check.fill(UNREACHED);
    out.shortest_cycle = LDPC_NO_CYCLE;

    std::array<Node, 2 * LDPC_MAX_N> queue;
    size_t head = 0;
    size_t tail = 0;
    queue[tail++] = {from, UNREACHED, false};
    out.variable[static_cast<size_t>(from)] = 0;
    while (head < tail) {
        const Node node = queue[head++];
        auto& own = node.is_check ? out.check : out.variable;
        auto& theirs = node.is_check ? out.variable : out.check;
        const int32_t* neighbours = node.is_check ? code.check_vars[node.index] : code.var_checks[node.index];
        const int32_t degree = node.is_check ? code.check_degree[node.index] : code.var_degree[node.index];
        const int32_t distance = own[static_cast<size_t>(node.index)];
        for (int32_t e = 0; e < degree; ++e) {
            const int32_t next = neighbours[e];
            int32_t& known = theirs[static_cast<size_t>(next)];
            if (known == UNREACHED) {
                known = distance + 1;
                queue[tail++] = {next, node.index, !node.is_check};
            } else if (next != node.parent) {
                out.shortest_cycle = std::min(out.shortest_cycle, distance + known + 1);
            }
        }
    }
    return out;
}

int32_t measure_girth(const ldpc_code& code) {
    int32_t girth = LDPC_NO_CYCLE;
    for (int32_t v = 0; v < code.n; ++v) girth = std::min(girth, measure_distances(code, v).shortest_cycle);
    return girth;
}

struct Xorshift {
    uint32_t state;
    uint32_t next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
};

// Draws one of the allowed checks of smallest degree at random; UNREACHED when none is below the limit.
template <class Allowed>
int32_t draw_check(const ldpc_code& code, Xorshift& random, int32_t limit, Allowed allowed) {
    std::array<int32_t, LDPC_MAX_N> candidates;
    uint32_t count = 0;
    int32_t smallest = limit;
    for (int32_t c = 0; c < code.m; ++c) {
        const int32_t degree = code.check_degree[c];
        if (degree >= limit || degree > smallest || !allowed(c)) continue;
        if (degree < smallest) count = 0;
        smallest = degree;
        candidates[count++] = c;
    }
    return count == 0 ? UNREACHED : candidates[random.next() % count];
}

// The check for the next edge of variable v: the farthest; those out of reach come first.
int32_t choose_check(const ldpc_code& code, int32_t v, Xorshift& random) {
    if (code.var_degree[v] == 0) return draw_check(code, random, LDPC_MAX_CHECK_DEGREE, [](int32_t) { return true; });

    const Distances distances = measure_distances(code, v);
    const auto checks = std::span(distances.check).first(static_cast<size_t>(code.m));
    const bool all_reached = std::find(checks.begin(), checks.end(), UNREACHED) == checks.end();
    const int32_t wanted = all_reached ? *std::max_element(checks.begin(), checks.end()) : UNREACHED;
    const auto distance = [&](int32_t c) { return checks[static_cast<size_t>(c)]; };
    const int32_t farthest = draw_check(code, random, GROWTH_LIMIT, [&](int32_t c) { return distance(c) == wanted; });
    if (farthest != UNREACHED) return farthest;
    return draw_check(code, random, GROWTH_LIMIT, [&](int32_t c) { return distance(c) != 1; });
}

void join(ldpc_code& code, int32_t v, int32_t c) {
    code.check_vars[c][code.check_degree[c]++] = v;
    int32_t* checks = code.var_checks[v];
    int32_t* end = checks + code.var_degree[v]++;
    int32_t* place = std::upper_bound(checks, end, c);
    std::copy_backward(place, end, end + 1);
    *place = c;
}

bool grow_graph(ldpc_code& code, uint32_t seed) {
    Xorshift random{seed != 0 ? seed : 1};
    for (int32_t v = 0; v < code.n; ++v) {
        for (int32_t edge = 0; edge < code.column_weight; ++edge) {
            const int32_t c = choose_check(code, v, random);
            if (c == UNREACHED) return false;
            join(code, v, c);
        }
    }
    return true;
}

bool fill_generator(ldpc_code& code) {
    std::array<ldpc_bits, LDPC_MAX_N> rows{};
    for (int32_t c = 0; c < code.m; ++c) {
        for (int32_t e = 0; e < code.check_degree[c]; ++e) {
            set_bit(rows[static_cast<size_t>(c)], code.check_vars[c][e]);
        }
    }
    return gf2::solve_checks(std::span(rows).first(static_cast<size_t>(code.m)), code.n, code.generator, code.pivot);
}

}  // namespace

int ldpc_build(ldpc_code& code, int32_t n, int32_t k, int32_t column_weight, uint32_t seed) {
    if (n > LDPC_MAX_N || k < 0 || n <= k) return -1;
    if (column_weight < 1 || column_weight > LDPC_MAX_VAR_DEGREE || column_weight > n - k) return -1;

    uint32_t attempt_seed = seed * 2654435761U + 12345U;
    for (int32_t attempt = 0; attempt < 50; ++attempt, attempt_seed += 7919U) {
        code = {};
        code.n = n;
        code.k = k;
        code.m = n - k;
        code.column_weight = column_weight;
        if (!grow_graph(code, attempt_seed) || !fill_generator(code)) continue;
        code.girth = measure_girth(code);
        return 0;
    }
    return -1;
}

// Belief propagation

namespace {

constexpr size_t LANES = 4;  // checks side by side
constexpr size_t MAX_GROUPS = LDPC_MAX_N / LANES;
// Checks of neighbouring degrees share a group: at most the difference between the first and the last is filled up, and
// the last group.
constexpr size_t MAX_SLOTS = size_t{LDPC_MAX_N} * LDPC_MAX_VAR_DEGREE + 2 * LANES * LDPC_MAX_CHECK_DEGREE;

// Where the edges of a code's graph are: the first edges of the four checks of a group, then their second ones, and so
// on. What shorter checks leave free has no variable.
struct EdgeLayout {
    explicit EdgeLayout(const ldpc_code& code);

    size_t n_groups = 0;
    size_t n_slots = 0;
    std::array<size_t, MAX_GROUPS> degree;  // most edges of a check of the group
    std::array<uint16_t, MAX_SLOTS> variable;
    std::array<double, MAX_SLOTS> free;                                             // 1, or 0 for an edge
    std::array<std::array<uint16_t, LDPC_MAX_VAR_DEGREE>, LDPC_MAX_N> of_variable;  // in increasing check order
};

EdgeLayout::EdgeLayout(const ldpc_code& code) {
    std::array<uint8_t, LDPC_MAX_N> checks = gf2::ALL_COLUMNS;
    const auto degree_of = [&](uint8_t c) { return code.check_degree[c]; };
    std::ranges::sort(std::span(checks).first(static_cast<size_t>(code.m)), {}, degree_of);

    std::array<uint16_t, LDPC_MAX_N> first_slot;
    const auto m = static_cast<size_t>(code.m);
    for (size_t first = 0; first < m; first += LANES) {
        const size_t last = std::min(first + LANES, m) - 1;
        const auto most = static_cast<size_t>(code.check_degree[checks[last]]);
        std::fill_n(variable.begin() + static_cast<ptrdiff_t>(n_slots), LANES * most, uint16_t{0});
        std::fill_n(free.begin() + static_cast<ptrdiff_t>(n_slots), LANES * most, 1.0);
        for (size_t i = first; i <= last; ++i) {
            const uint8_t c = checks[i];
            first_slot[c] = static_cast<uint16_t>(n_slots + (i - first));
            for (int32_t e = 0; e < code.check_degree[c]; ++e) {
                const size_t slot = first_slot[c] + LANES * static_cast<size_t>(e);
                variable[slot] = static_cast<uint16_t>(code.check_vars[c][e]);
                free[slot] = 0.0;
            }
        }
        degree[n_groups++] = most;
        n_slots += LANES * most;
    }
    std::array<uint8_t, LDPC_MAX_N> count{};  // of a variable's edges
    for (int32_t c = 0; c < code.m; ++c) {
        for (int32_t e = 0; e < code.check_degree[c]; ++e) {
            const auto v = static_cast<size_t>(code.check_vars[c][e]);
            of_variable[v][count[v]++] =
                static_cast<uint16_t>(first_slot[static_cast<size_t>(c)] + LANES * static_cast<size_t>(e));
        }
    }
}

// Log-likelihood ratios, positive for a 0: the opposite of the metrics' sign. The message of a variable to a check is
// its posterior minus the check's message to it, so one message per edge is kept.
struct Beliefs {
    std::array<double, LDPC_MAX_N> channel;
    std::array<double, LDPC_MAX_N> posterior;
    std::array<double, MAX_SLOTS> from_check;
};

// NaN stays NaN.
inline void limit(Doubles4& x, const Doubles4& most) {
    const Doubles4 least = -most;
    x = x < least ? least : x;
    x = x > most ? most : x;
}

// New messages of all checks, from the posteriors of the last pass.
ORVEL_MULTIVERSION void update_checks(const EdgeLayout& edges, Beliefs& beliefs) {
    const Doubles4 one = Doubles4{} + 1.0;
    const Doubles4 zero = Doubles4{};
    const Doubles4 most_message = Doubles4{} + 30.0;
    const Doubles4 most_ratio = Doubles4{} + 0.999999;
    const Doubles4 least_factor = Doubles4{} + 1e-12;
    std::array<Doubles4, LDPC_MAX_CHECK_DEGREE> factors;
    size_t first = 0;
    for (size_t g = 0; g < edges.n_groups; ++g) {
        const size_t degree = edges.degree[g];
        Doubles4 product = one;
        for (size_t e = 0; e < degree; ++e) {
            const size_t slot = first + LANES * e;
            const uint16_t* const v = &edges.variable[slot];
            Doubles4 from_check;
            load(from_check, &beliefs.from_check[slot]);
            Doubles4 message{beliefs.posterior[v[0]], beliefs.posterior[v[1]], beliefs.posterior[v[2]],
                             beliefs.posterior[v[3]]};
            message -= from_check;
            limit(message, most_message);
            Doubles4 factor;
            vecmath::tanh_half(message, factor);
            // The floor keeps the product divisible, and its positive sign makes variables without information
            // converge to 0.
            Doubles4 size;
            vecmath::absolute(factor, size);
            factor = size < least_factor ? least_factor : factor;
            Doubles4 free;
            load(free, &edges.free[slot]);
            factor = free > zero ? one : factor;
            factors[e] = factor;
            product *= factor;
        }
        for (size_t e = 0; e < degree; ++e) {
            Doubles4 ratio = product / factors[e];
            limit(ratio, most_ratio);
            Doubles4 message;
            vecmath::two_atanh(ratio, message);
            store(message, &beliefs.from_check[first + LANES * e]);
        }
        first += LANES * degree;
    }
}

// Each variable adds up the messages of its checks, in increasing check order.
void update_posteriors(const ldpc_code& code, const EdgeLayout& edges, Beliefs& beliefs) {
    for (size_t v = 0; v < static_cast<size_t>(code.n); ++v) {
        double sum = beliefs.channel[v];
        for (size_t e = 0; e < static_cast<size_t>(code.var_degree[v]); ++e) {
            sum += beliefs.from_check[edges.of_variable[v][e]];
        }
        beliefs.posterior[v] = sum;
    }
}

bool is_codeword(const ldpc_code& code, const uint8_t* bits) {
    for (int32_t c = 0; c < code.m; ++c) {
        uint8_t parity = 0;
        for (int32_t e = 0; e < code.check_degree[c]; ++e) parity ^= bits[code.check_vars[c][e]];
        if (parity != 0) return false;
    }
    return true;
}

// Passes whose messages return to what they were some passes ago go round in a circle from then on, as they do in most
// fits of noise: whole rounds of what is left can be skipped.
class Circles {
  public:
    // The passes to go, of `left` behind the pass with these messages.
    int32_t shorten(int32_t pass, std::span<const double> messages, int32_t left) {
        const int32_t since = pass % SPACING;
        if (length_ == 0 && pass > 0 && std::memcmp(kept_.data(), messages.data(), messages.size_bytes()) == 0) {
            length_ = since == 0 ? SPACING : since;
            return left % length_;
        }
        if (since == 0) std::ranges::copy(messages, kept_.begin());
        return left;
    }

  private:
    static constexpr int32_t SPACING = 6;  // circles of one, two, three and six are found in it
    std::array<double, MAX_SLOTS> kept_;
    int32_t length_ = 0;
};

// True when the passes converged to a codeword.
bool propagate_beliefs(const ldpc_code& code, const float* metrics, int32_t max_iterations, uint8_t* codeword) {
    const EdgeLayout edges(code);
    Beliefs beliefs;
    beliefs.channel.fill(0.0);
    for (int32_t v = 0; v < code.n; ++v) beliefs.channel[static_cast<size_t>(v)] = -static_cast<double>(metrics[v]);
    beliefs.posterior = beliefs.channel;
    const auto messages = std::span(beliefs.from_check).first(edges.n_slots);
    std::ranges::fill(messages, 0.0);

    Circles circles;
    int32_t left = max_iterations;
    for (int32_t pass = 0; left > 0; ++pass) {
        update_checks(edges, beliefs);
        update_posteriors(code, edges, beliefs);
        for (int32_t v = 0; v < code.n; ++v) codeword[v] = beliefs.posterior[static_cast<size_t>(v)] < 0.0;
        if (is_codeword(code, codeword)) return true;
        left = circles.shorten(pass, messages, left - 1);
    }
    return false;
}

// Ordered statistics

constexpr double INF = std::numeric_limits<double>::infinity();

// The metrics split into signs and magnitudes.
struct HardDecisions {
    ldpc_bits bits{};                                // 1 where the metric is positive
    std::array<double, LDPC_MAX_N> reliability{};    // |metric|
    std::array<uint8_t, LDPC_MAX_N> by_reliability;  // variables, the most reliable first
};

// Order of two reliabilities, the larger first; NaN comes last.
int cmp_rel(double a, double b) {
    const double key_a = std::isnan(a) ? -1.0 : a;
    const double key_b = std::isnan(b) ? -1.0 : b;
    return (key_b > key_a) - (key_a > key_b);
}

HardDecisions decide(const ldpc_code& code, const float* metrics) {
    HardDecisions out;
    for (int32_t v = 0; v < code.n; ++v) {
        if (metrics[v] > 0) set_bit(out.bits, v);
        out.reliability[static_cast<size_t>(v)] = std::fabs(static_cast<double>(metrics[v]));
    }
    out.by_reliability = gf2::ALL_COLUMNS;
    // Equal variables keep their order; std::stable_sort would allocate.
    std::sort(out.by_reliability.begin(), out.by_reliability.begin() + code.n, [&](uint8_t a, uint8_t b) {
        const int order = cmp_rel(out.reliability[a], out.reliability[b]);
        return order != 0 ? order < 0 : a < b;
    });
    return out;
}

// Sum of the reliabilities where `differences` has a 1, in increasing order. Terms are never negative, so a sum that
// has passed `limit` is returned as it stands.
double cost_of(const ldpc_bits& differences, const std::array<double, LDPC_MAX_N>& reliability, double limit) {
    double cost = 0.0;
    for (size_t w = 0; w < differences.size(); ++w) {
        for (uint64_t rest = differences[w]; rest != 0; rest &= rest - 1) {
            cost += reliability[64 * w + static_cast<size_t>(std::countr_zero(rest))];
            if (cost > limit) return cost;
        }
    }
    return cost;
}

// Sums of reliabilities over all values of each byte of a codeword: a cost then takes one look-up per byte. In single
// precision, so that all of them stay in the fastest memory, and in another order than in cost_of: the result can only
// rule out what is clearly too expensive.
class CostTable {
  public:
    CostTable(const std::array<double, LDPC_MAX_N>& reliability, int32_t n)
        : n_words_((static_cast<size_t>(n) + 63) / 64) {
        for (size_t b = 0; b < BYTES * n_words_; ++b) {
            sums_[b][0] = 0.0f;
            for (size_t value = 1; value < N_VALUES; ++value) {
                const auto lowest = static_cast<size_t>(std::countr_zero(value));
                sums_[b][value] = sums_[b][value & (value - 1)] + static_cast<float>(reliability[BYTES * b + lowest]);
            }
        }
    }

    // False only when the cost is above the limit.
    bool may_reach(const ldpc_bits& differences, double limit) const {
        constexpr double ROUNDING = 1e-4;  // far more than precision and order of the terms can cause
        const double most = limit * (1 + ROUNDING);
        std::array<float, 2> cost{};  // two sums: neither waits for the other
        for (size_t w = 0; w < n_words_; ++w) {
            uint64_t rest = differences[w];
            for (size_t b = 0; b < BYTES; ++b, rest >>= 8) cost[b % 2] += sums_[BYTES * w + b][rest % N_VALUES];
            const auto sum = static_cast<double>(cost[0] + cost[1]);
            if (sum > most && std::isfinite(sum)) return false;
        }
        return true;
    }

  private:
    static constexpr size_t N_VALUES = 256;
    static constexpr size_t BYTES = 8;  // of a word
    size_t n_words_;
    std::array<std::array<float, N_VALUES>, LDPC_MAX_N / BYTES> sums_;
};

// The best candidate so far. Candidates are stored as their differences from the hard decisions.
struct Best {
    const HardDecisions& hard;
    ldpc_bits differences;
    double cost;

    // Of equal candidates the first stays; a NaN cost loses to any other.
    void offer(const ldpc_bits& candidate) {
        const double candidate_cost = cost_of(candidate, hard.reliability, cost);
        if (!(candidate_cost < cost)) return;
        cost = candidate_cost;
        differences = candidate;
    }
};

void search_ordered(const ldpc_code& code, const float* metrics, int32_t order, int32_t span, uint8_t* codeword) {
    const HardDecisions hard = decide(code, metrics);
    std::array<ldpc_bits, LDPC_MAX_N> storage;
    std::array<uint8_t, LDPC_MAX_N> basis;
    const size_t k = static_cast<size_t>(code.k);
    const auto rows = std::span(storage).first(k);
    std::copy_n(code.generator, k, rows.begin());
    const size_t rank =
        gf2::reduce_rows(rows, std::span(hard.by_reliability).first(static_cast<size_t>(code.n)), basis);

    // Order 0: the codeword that agrees with the hard decisions in every basis column.
    ldpc_bits start = hard.bits;
    for (size_t r = 0; r < rank; ++r) {
        if (get_bit(hard.bits, basis[r])) add_to(start, rows[r]);
    }
    const double start_cost = cost_of(start, hard.reliability, INF);
    Best best{hard, start, std::isnan(start_cost) ? INF : start_cost};

    if (order >= 1) {
        for (const ldpc_bits& row : rows) best.offer(sum_of(start, row));
    }
    if (order >= 2) {
        const CostTable table(hard.reliability, code.n);
        const size_t first = span >= 1 && span < code.k ? k - static_cast<size_t>(span) : 0;
        for (size_t j1 = first; j1 < k; ++j1) {
            const ldpc_bits flipped = sum_of(start, rows[j1]);
            for (size_t j2 = j1 + 1; j2 < k; ++j2) {
                const ldpc_bits candidate = sum_of(flipped, rows[j2]);
                if (table.may_reach(candidate, best.cost)) best.offer(candidate);
            }
        }
    }

    const ldpc_bits result = sum_of(best.differences, hard.bits);
    for (int32_t v = 0; v < code.n; ++v) codeword[v] = get_bit(result, v);
}

}  // namespace

int ldpc_decode(const ldpc_code& code, const float* metrics, int32_t max_iterations, int32_t order, int32_t span,
                uint8_t* codeword, uint8_t* message, double* cost, int32_t* status) {
    const bool converged = propagate_beliefs(code, metrics, max_iterations, codeword);
    if (!converged) {
        if (order < 0) return -1;
        search_ordered(code, metrics, order, span, codeword);
    }

    *status = converged ? 1 : 2;
    *cost = 0.0;
    for (int32_t v = 0; v < code.n; ++v) {
        if ((codeword[v] != 0) != (metrics[v] > 0)) *cost += std::fabs(static_cast<double>(metrics[v]));
    }
    for (int32_t i = 0; i < code.k; ++i) message[i] = codeword[code.pivot[i]];
    return 0;
}
