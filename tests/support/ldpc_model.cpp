#include "ldpc_model.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

namespace ldpc_model {

Bits sum(Bits a, const Bits& b) {
    for (size_t i = 0; i < a.size(); ++i) a[i] ^= b[i];
    return a;
}

std::vector<size_t> eliminate(Matrix& rows, const std::vector<size_t>& columns) {
    std::vector<size_t> basis;
    for (const size_t column : columns) {
        const size_t current = basis.size();
        if (current == rows.size()) break;
        size_t found = current;
        while (found < rows.size() && rows[found][column] == 0) ++found;
        if (found == rows.size()) continue;
        std::swap(rows[current], rows[found]);
        for (size_t r = 0; r < rows.size(); ++r) {
            if (r != current && rows[r][column] != 0) rows[r] = sum(rows[r], rows[current]);
        }
        basis.push_back(column);
    }
    return basis;
}

std::optional<Generator> generator_of(Matrix checks, size_t n) {
    std::vector<size_t> columns(n);
    std::iota(columns.begin(), columns.end(), size_t{0});
    const std::vector<size_t> basis = eliminate(checks, columns);
    if (basis.size() < checks.size()) return std::nullopt;

    Generator out;
    for (size_t column = 0; column < n; ++column) {
        if (std::find(basis.begin(), basis.end(), column) != basis.end()) continue;
        Bits row(n, 0);
        row[column] = 1;
        for (size_t r = 0; r < checks.size(); ++r) {
            if (checks[r][column] != 0) row[basis[r]] = 1;
        }
        out.rows.push_back(row);
        out.pivots.push_back(column);
    }
    return out;
}

Matrix checks_of(const ldpc_code& code) {
    Matrix out(index(code.m), Bits(index(code.n), 0));
    for (int32_t c = 0; c < code.m; ++c) {
        for (int32_t e = 0; e < code.check_degree[c]; ++e) out[index(c)][index(code.check_vars[c][e])] = 1;
    }
    return out;
}

Matrix generator_rows(const ldpc_code& code) {
    Matrix out(index(code.k), Bits(index(code.n), 0));
    for (int32_t i = 0; i < code.k; ++i) {
        for (int32_t j = 0; j < code.n; ++j) {
            out[index(i)][index(j)] = (code.generator[i][index(j / 64)] >> (j % 64)) & 1;
        }
    }
    return out;
}

int32_t violated(const Matrix& checks, const Bits& bits) {
    int32_t odd = 0;
    for (const Bits& check : checks) {
        int32_t ones = 0;
        for (size_t j = 0; j < bits.size(); ++j) ones += check[j] * bits[j];
        odd += ones % 2;
    }
    return odd;
}

double cost_of(const Bits& codeword, const std::vector<float>& metrics) {
    double cost = 0;
    for (size_t i = 0; i < codeword.size(); ++i) {
        const uint8_t hard = metrics[i] > 0 ? 1 : 0;
        if (codeword[i] != hard) cost += std::fabs(static_cast<double>(metrics[i]));
    }
    return cost;
}

namespace {

double clamp(double value, double low, double high) {
    if (value < low) return low;
    if (value > high) return high;
    return value;
}

// Belief propagation; the codeword, or nothing when the passes did not reach one.
std::optional<Bits> propagate(const ldpc_code& code, const std::vector<float>& metrics, int32_t passes) {
    const size_t n = index(code.n), m = index(code.m);
    std::vector<std::vector<size_t>> vars(m), checks(n);  // of each check, of each variable
    for (size_t c = 0; c < m; ++c) vars[c].assign(code.check_vars[c], code.check_vars[c] + code.check_degree[c]);
    for (size_t v = 0; v < n; ++v) checks[v].assign(code.var_checks[v], code.var_checks[v] + code.var_degree[v]);

    std::vector<std::vector<double>> to_check(m, std::vector<double>(n, 0.0));     // [check][variable]
    std::vector<std::vector<double>> to_variable(m, std::vector<double>(n, 0.0));  // [check][variable]
    for (size_t c = 0; c < m; ++c) {
        for (const size_t v : vars[c]) to_check[c][v] = -static_cast<double>(metrics[v]);
    }

    std::vector<double> t(n), posterior(n);
    Bits bits(n);
    for (int32_t pass = 0; pass < passes; ++pass) {
        for (size_t c = 0; c < m; ++c) {
            double product = 1.0;
            for (const size_t v : vars[c]) {
                t[v] = std::tanh(0.5 * clamp(to_check[c][v], -30.0, 30.0));
                if (std::fabs(t[v]) < 1e-12) t[v] = 1e-12;
                product *= t[v];
            }
            for (const size_t v : vars[c]) {
                to_variable[c][v] = 2.0 * std::atanh(clamp(product / t[v], -0.999999, 0.999999));
            }
        }
        for (size_t v = 0; v < n; ++v) {
            posterior[v] = -static_cast<double>(metrics[v]);
            for (const size_t c : checks[v]) posterior[v] += to_variable[c][v];
            bits[v] = posterior[v] < 0 ? 1 : 0;
        }
        const auto odd = [&](const std::vector<size_t>& check) {
            int32_t ones = 0;
            for (const size_t v : check) ones += bits[v];
            return ones % 2 == 1;
        };
        if (std::none_of(vars.begin(), vars.end(), odd)) return bits;
        for (size_t c = 0; c < m; ++c) {
            for (const size_t v : vars[c]) to_check[c][v] = posterior[v] - to_variable[c][v];
        }
    }
    return std::nullopt;
}

// Ordered statistics: the best of all candidates, each with its full cost. A cost that is not a number is worse than
// any number.
Bits search(const ldpc_code& code, const std::vector<float>& metrics, int32_t order, int32_t span) {
    const size_t n = index(code.n), k = index(code.k);
    const auto reliability = [&](size_t v) { return std::isnan(metrics[v]) ? -1.0F : std::fabs(metrics[v]); };
    std::vector<size_t> by_reliability(n);
    std::iota(by_reliability.begin(), by_reliability.end(), size_t{0});
    std::stable_sort(by_reliability.begin(), by_reliability.end(),
                     [&](size_t a, size_t b) { return reliability(a) > reliability(b); });

    Matrix rows = generator_rows(code);
    const std::vector<size_t> basis = eliminate(rows, by_reliability);
    Bits start(n, 0);
    for (size_t r = 0; r < basis.size(); ++r) {
        if (metrics[basis[r]] > 0) start = sum(start, rows[r]);
    }

    std::vector<Bits> candidates = {start};
    if (order >= 1) {
        for (const Bits& row : rows) candidates.push_back(sum(start, row));
    }
    if (order >= 2) {
        const size_t first = span >= 1 && span < code.k ? k - index(span) : 0;
        for (size_t j1 = first; j1 < k; ++j1) {
            for (size_t j2 = j1 + 1; j2 < k; ++j2) candidates.push_back(sum(sum(start, rows[j1]), rows[j2]));
        }
    }
    std::vector<double> costs;
    for (const Bits& candidate : candidates) {
        const double cost = cost_of(candidate, metrics);
        costs.push_back(std::isnan(cost) ? std::numeric_limits<double>::infinity() : cost);
    }
    return candidates[index(static_cast<int32_t>(std::min_element(costs.begin(), costs.end()) - costs.begin()))];
}

}  // namespace

Decoded decode(const ldpc_code& code, const std::vector<float>& metrics, int32_t passes, int32_t order, int32_t span) {
    Decoded out;
    if (const auto propagated = propagate(code, metrics, passes)) {
        out.codeword = *propagated;
        out.status = 1;
    } else if (order >= 0) {
        out.codeword = search(code, metrics, order, span);
        out.status = 2;
    } else {
        return out;
    }
    out.result = 0;
    out.cost = cost_of(out.codeword, metrics);
    for (int32_t i = 0; i < code.k; ++i) out.message.push_back(out.codeword[index(code.pivot[i])]);
    return out;
}

std::optional<Matrix> construct(int32_t n, int32_t k, int32_t weight, uint32_t seed) {
    const size_t variables = index(n), checks = index(n - k);
    for (uint32_t attempt = 0; attempt < 50; ++attempt) {
        uint32_t x = seed * 2654435761U + 12345U + attempt * 7919U;
        if (x == 0) x = 1;
        Matrix graph(checks, Bits(variables, 0));
        std::vector<int32_t> degree(checks, 0);
        bool stuck = false;
        for (size_t v = 0; v < variables && !stuck; ++v) {
            for (int32_t edge = 0; edge < weight && !stuck; ++edge) {
                constexpr int32_t FAR = 1000000;
                std::vector<int32_t> to_check(checks, FAR), to_variable(variables, FAR);
                to_variable[v] = 0;
                for (bool changed = true; changed;) {
                    changed = false;
                    for (size_t c = 0; c < checks; ++c) {
                        for (size_t u = 0; u < variables; ++u) {
                            if (graph[c][u] == 0) continue;
                            if (to_variable[u] + 1 < to_check[c]) to_check[c] = to_variable[u] + 1, changed = true;
                            if (to_check[c] + 1 < to_variable[u]) to_variable[u] = to_check[c] + 1, changed = true;
                        }
                    }
                }
                // Checks of the smallest degree among those that `allowed` lets through, if it is below the limit.
                const auto candidates = [&](int32_t limit, auto allowed) {
                    int32_t smallest = limit;
                    for (size_t c = 0; c < checks; ++c) {
                        if (allowed(c)) smallest = std::min(smallest, degree[c]);
                    }
                    std::vector<size_t> out;
                    for (size_t c = 0; c < checks; ++c) {
                        if (allowed(c) && degree[c] == smallest && smallest < limit) out.push_back(c);
                    }
                    return out;
                };
                const int32_t farthest = *std::max_element(to_check.begin(), to_check.end());
                std::vector<size_t> choice = edge == 0
                                                 ? candidates(32, [](size_t) { return true; })
                                                 : candidates(31, [&](size_t c) { return to_check[c] == farthest; });
                if (choice.empty()) choice = candidates(31, [&](size_t c) { return graph[c][v] == 0; });
                if (choice.empty()) {
                    stuck = true;
                    break;
                }
                x ^= x << 13;
                x ^= x >> 17;
                x ^= x << 5;
                const size_t c = choice[x % choice.size()];
                graph[c][v] = 1;
                ++degree[c];
            }
        }
        if (!stuck && generator_of(graph, variables)) return graph;
    }
    return std::nullopt;
}

}  // namespace ldpc_model
