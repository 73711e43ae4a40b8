// LDPC codes: tables, loading, encoding, construction, decoding.
#include "ldpc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ldpc_model.h"
#include "ldpc_tables.h"

namespace {

using ldpc_model::Bits;
using ldpc_model::index;
using ldpc_model::Matrix;

struct Tables {
    const char* name;
    int32_t n, k;
    std::span<const uint8_t> check_degree, check_vars;
    std::span<const uint64_t> generator;
    std::span<const uint8_t> pivot;
};

const Tables S_TABLES{"S", 119, 44, OVS_CHECK_DEG, OVS_CHECK_VAR, OVS_G, OVS_PIVOT};
const Tables L_TABLES{"L", 160, 69, OVL_CHECK_DEG, OVL_CHECK_VAR, OVL_G, OVL_PIVOT};

int load(ldpc_code& code, const Tables& tables) {
    return ldpc_load(code, tables.n, tables.k, tables.check_degree.data(), tables.check_vars.data(),
                     tables.generator.data(), tables.pivot.data());
}

const ldpc_code& loaded(const Tables& tables) {
    static const auto codes = [] {
        auto both = std::make_unique<std::array<ldpc_code, 2>>();
        if (load((*both)[0], S_TABLES) != 0 || load((*both)[1], L_TABLES) != 0) std::abort();
        return both;
    }();
    return (*codes)[&tables == &L_TABLES ? 1 : 0];
}

const ldpc_code& code_s() {
    return loaded(S_TABLES);
}
const ldpc_code& code_l() {
    return loaded(L_TABLES);
}

// Checks straight from the tables.
Matrix table_checks(const Tables& tables) {
    Matrix out;
    size_t next = 0;
    for (const uint8_t degree : tables.check_degree) {
        Bits row(index(tables.n), 0);
        for (uint8_t e = 0; e < degree; ++e) row.at(tables.check_vars[next++]) ^= 1;
        out.push_back(row);
    }
    EXPECT_EQ(next, tables.check_vars.size());
    return out;
}

uint64_t fnv1a(std::span<const uint8_t> bytes) {
    uint64_t hash = 0xcbf29ce484222325U;
    for (const uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001b3U;
    return hash;
}

// What one decode gave.
struct Decoded {
    int result;
    Bits codeword, message;
    double cost;
    int32_t status;
};

Decoded decode(const ldpc_code& code, const std::vector<float>& metrics, int32_t passes, int32_t order, int32_t span) {
    Decoded out{-2, Bits(index(code.n), 9), Bits(index(code.k), 9), -1.0, 0};
    out.result = ldpc_decode(code, metrics.data(), passes, order, span, out.codeword.data(), out.message.data(),
                             &out.cost, &out.status);
    return out;
}

using Rng = std::mt19937_64;

Bits random_message(const ldpc_code& code, Rng& rng) {
    Bits out(index(code.k));
    for (uint8_t& bit : out) bit = rng() & 1;
    return out;
}

Bits encode(const ldpc_code& code, const Bits& message) {
    Bits out(index(code.n), 9);
    ldpc_encode(code, message.data(), out.data());
    return out;
}

// Metrics of a codeword in white noise: log-likelihood ratios of ±1 with noise of the given sigma.
std::vector<float> noisy(const Bits& codeword, double sigma, Rng& rng) {
    std::normal_distribution<double> noise(0.0, sigma);
    std::vector<float> out;
    for (const uint8_t bit : codeword) {
        out.push_back(static_cast<float>(2.0 / (sigma * sigma) * ((bit ? 1.0 : -1.0) + noise(rng))));
    }
    return out;
}

std::vector<float> sure(const Bits& codeword, float size) {
    std::vector<float> out;
    for (const uint8_t bit : codeword) out.push_back(bit ? size : -size);
    return out;
}

// Metrics of few whole numbers: many equal reliabilities, equal costs and zeros.
std::vector<float> coarse(std::vector<float> metrics, float step) {
    for (float& metric : metrics) metric = std::round(metric / step);
    return metrics;
}

// Overconfident metrics: messages run into their limits.
std::vector<float> overconfident(std::vector<float> metrics) {
    for (float& metric : metrics) metric *= 15.0F;
    return metrics;
}

testing::AssertionResult same_as_model(const ldpc_code& code, const std::vector<float>& metrics, int32_t passes,
                                       int32_t order, int32_t span, int32_t& status) {
    const ldpc_model::Decoded expected = ldpc_model::decode(code, metrics, passes, order, span);
    const Decoded got = decode(code, metrics, passes, order, span);
    status = expected.status;
    const auto differs = [&] {
        return testing::AssertionFailure() << "passes " << passes << " order " << order << " span " << span << ": ";
    };
    if (got.result != expected.result) return differs() << "result " << got.result;
    if (expected.result != 0) return testing::AssertionSuccess();
    if (got.status != expected.status) return differs() << "status " << got.status;
    if (got.codeword != expected.codeword) return differs() << "another codeword";
    if (got.message != expected.message) return differs() << "another message";
    if (std::bit_cast<uint64_t>(got.cost) != std::bit_cast<uint64_t>(expected.cost)) {
        return differs() << "cost " << got.cost << " instead of " << expected.cost;
    }
    return testing::AssertionSuccess();
}

class BothCodes : public testing::TestWithParam<const Tables*> {
  protected:
    const Tables& tables() const { return *GetParam(); }
    const ldpc_code& code() const { return loaded(tables()); }
};

INSTANTIATE_TEST_SUITE_P(Ldpc, BothCodes, testing::Values(&S_TABLES, &L_TABLES),
                         [](const auto& param) { return std::string(param.param->name); });

// Tables

TEST(LdpcTables, CheckListsAreTheOnesOnTheAir) {
    EXPECT_EQ(fnv1a(OVS_CHECK_DEG), 0xf2874f97e6b23d34U);
    EXPECT_EQ(fnv1a(OVS_CHECK_VAR), 0x339e7f1b9d1af5caU);
    EXPECT_EQ(fnv1a(OVL_CHECK_DEG), 0x874644fddfef9eedU);
    EXPECT_EQ(fnv1a(OVL_CHECK_VAR), 0x32398c0f3c179407U);
}

TEST(LdpcTables, ChecksHaveTheDegreesOfTheDesign) {
    const auto count = [](std::span<const uint8_t> degrees, uint8_t degree) {
        return std::count(degrees.begin(), degrees.end(), degree);
    };
    EXPECT_EQ(count(OVS_CHECK_DEG, 5), 57);
    EXPECT_EQ(count(OVS_CHECK_DEG, 4), 18);
    EXPECT_EQ(OVS_CHECK_DEG.size(), 75U);
    EXPECT_EQ(count(OVL_CHECK_DEG, 5), 66);
    EXPECT_EQ(count(OVL_CHECK_DEG, 6), 25);
    EXPECT_EQ(OVL_CHECK_DEG.size(), 91U);
}

TEST(LdpcTables, MessageBitsSitAtTheEndOfTheCodeword) {
    std::vector<uint8_t> s = {49, 75, 76};
    for (uint8_t v = 78; v <= 118; ++v) s.push_back(v);
    EXPECT_EQ(std::vector<uint8_t>(OVS_PIVOT.begin(), OVS_PIVOT.end()), s);
    std::vector<uint8_t> l = {90, 91};
    for (uint8_t v = 93; v <= 159; ++v) l.push_back(v);
    EXPECT_EQ(std::vector<uint8_t>(OVL_PIVOT.begin(), OVL_PIVOT.end()), l);
}

TEST_P(BothCodes, EveryVariableIsInThreeChecks) {
    Bits degree(index(tables().n), 0);
    for (const uint8_t v : tables().check_vars) ++degree.at(v);
    EXPECT_EQ(degree, Bits(index(tables().n), 3));
}

TEST_P(BothCodes, NoCheckNamesAVariableTwice) {
    const Matrix checks = table_checks(tables());
    ASSERT_EQ(checks.size(), tables().check_degree.size());
    for (size_t c = 0; c < checks.size(); ++c) {
        EXPECT_EQ(std::count(checks[c].begin(), checks[c].end(), 1), tables().check_degree[c]) << "check " << c;
    }
}

TEST_P(BothCodes, GeneratorAndPivotsFollowFromTheCheckLists) {
    const size_t k = index(tables().k);
    const auto derived = ldpc_model::generator_of(table_checks(tables()), index(tables().n));
    ASSERT_TRUE(derived.has_value());
    ASSERT_EQ(derived->rows.size(), k);
    ASSERT_EQ(tables().generator.size(), 3 * k);
    ASSERT_EQ(tables().pivot.size(), k);
    for (size_t i = 0; i < k; ++i) {
        EXPECT_EQ(tables().pivot[i], derived->pivots[i]);
        uint64_t words[3] = {};
        for (size_t j = 0; j < derived->rows[i].size(); ++j) words[j / 64] |= uint64_t{derived->rows[i][j]} << (j % 64);
        for (size_t w = 0; w < 3; ++w) EXPECT_EQ(tables().generator[3 * i + w], words[w]) << "row " << i;
    }
}

TEST_P(BothCodes, EveryGeneratorRowSatisfiesEveryCheckAndOwnsItsPivot) {
    const Matrix checks = table_checks(tables());
    const Matrix rows = ldpc_model::generator_rows(code());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(ldpc_model::violated(checks, rows[i]), 0) << "row " << i;
        for (size_t j = 0; j < rows.size(); ++j) EXPECT_EQ(rows[i][tables().pivot[j]], i == j ? 1 : 0);
    }
}

// Loading

TEST_P(BothCodes, LoadingFillsEveryField) {
    auto code = std::make_unique<ldpc_code>();
    code->generator[index(tables().k)] = {1, 2, 3, 4};
    code->girth = 7;
    ASSERT_EQ(load(*code, tables()), 0);
    EXPECT_EQ(code->n, tables().n);
    EXPECT_EQ(code->k, tables().k);
    EXPECT_EQ(code->m, tables().n - tables().k);
    EXPECT_EQ(code->column_weight, 3);
    EXPECT_EQ(code->girth, 0);
    EXPECT_EQ(code->generator[tables().k], ldpc_bits{});

    std::vector<std::vector<int32_t>> checks_of_variable(index(tables().n));
    size_t next = 0;
    for (int32_t c = 0; c < code->m; ++c) {
        ASSERT_EQ(code->check_degree[c], tables().check_degree[index(c)]);
        for (int32_t e = 0; e < code->check_degree[c]; ++e) {
            EXPECT_EQ(code->check_vars[c][e], tables().check_vars[next]);
            checks_of_variable[tables().check_vars[next++]].push_back(c);
        }
    }
    for (int32_t v = 0; v < code->n; ++v) {
        EXPECT_EQ(std::vector<int32_t>(code->var_checks[v], code->var_checks[v] + code->var_degree[v]),
                  checks_of_variable[index(v)]);
    }
    for (int32_t i = 0; i < code->k; ++i) {
        for (size_t w = 0; w < 3; ++w) {
            EXPECT_EQ(code->generator[i][w], tables().generator[3 * index(i) + w]);
        }
        EXPECT_EQ(code->generator[i][3], 0U);
        EXPECT_EQ(code->pivot[i], tables().pivot[index(i)]);
    }
}

TEST(LdpcLoad, RefusesSizesOutOfRangeAndLeavesTheCodeAlone) {
    const std::pair<int32_t, int32_t> sizes[] = {
        {193, 192},    {193, 44}, {44, 44}, {44, 45}, {0, 0}, {INT32_MIN, INT32_MAX}, {INT32_MAX, INT32_MIN},
        {INT32_MAX, 1}};
    auto code = std::make_unique<ldpc_code>();
    code->n = 4711;
    for (const auto& [n, k] : sizes) {
        EXPECT_EQ(ldpc_load(*code, n, k, OVS_CHECK_DEG.data(), OVS_CHECK_VAR.data(), OVS_G.data(), OVS_PIVOT.data()),
                  -1)
            << n << ", " << k;
        EXPECT_EQ(code->n, 4711);
    }
}

// m checks that all name variable 0 alone.
int load_star(int32_t m) {
    auto code = std::make_unique<ldpc_code>();
    const std::vector<uint8_t> degree(index(m), 1);
    const std::vector<uint8_t> vars(index(m), 0);
    const uint64_t generator[3] = {};
    const uint8_t pivot[1] = {};
    return ldpc_load(*code, m + 1, 1, degree.data(), vars.data(), generator, pivot);
}

TEST(LdpcLoad, AVariableMayBeInEightChecksButNotInNine) {
    EXPECT_EQ(load_star(8), 0);
    EXPECT_EQ(load_star(9), -1);
}

TEST(LdpcLoad, TheLongestCodeHas192Bits) {
    auto code = std::make_unique<ldpc_code>();
    const uint8_t degree[1] = {2};
    const uint8_t vars[2] = {0, 191};
    const std::vector<uint64_t> generator(3 * 191, 0);
    const std::vector<uint8_t> pivot(191, 0);
    EXPECT_EQ(ldpc_load(*code, 192, 191, degree, vars, generator.data(), pivot.data()), 0);
    EXPECT_EQ(code->var_degree[191], 1);
}

TEST(LdpcLoad, ACodeMayCarryNothing) {
    auto code = std::make_unique<ldpc_code>();
    const uint8_t degree[2] = {1, 1};
    const uint8_t vars[2] = {0, 1};
    ASSERT_EQ(ldpc_load(*code, 2, 0, degree, vars, nullptr, nullptr), 0);
    EXPECT_EQ(code->m, 2);
    EXPECT_EQ(encode(*code, {}), (Bits{0, 0}));
}

// Encoding

TEST_P(BothCodes, NothingEncodesToNothing) {
    EXPECT_EQ(encode(code(), Bits(index(code().k), 0)), Bits(index(code().n), 0));
}

TEST_P(BothCodes, CodewordsSatisfyEveryCheckAndCarryTheMessageAtThePivots) {
    Rng rng(1);
    const Matrix checks = table_checks(tables());
    const Matrix rows = ldpc_model::generator_rows(code());
    for (int trial = 0; trial < 200; ++trial) {
        const Bits message = random_message(code(), rng);
        const Bits codeword = encode(code(), message);
        Bits expected(index(code().n), 0);
        for (size_t i = 0; i < rows.size(); ++i) {
            if (message[i] != 0) expected = ldpc_model::sum(expected, rows[i]);
            ASSERT_EQ(codeword[tables().pivot[i]], message[i]);
        }
        ASSERT_EQ(codeword, expected);
        ASSERT_EQ(ldpc_model::violated(checks, codeword), 0);
        ASSERT_EQ(ldpc_syndrome_weight(code(), codeword.data()), 0);
    }
}

TEST_P(BothCodes, SyndromeWeightCountsTheViolatedChecks) {
    Rng rng(2);
    const Matrix checks = table_checks(tables());
    for (int trial = 0; trial < 200; ++trial) {
        Bits bits(index(code().n));
        for (uint8_t& bit : bits) bit = rng() & 1;
        ASSERT_EQ(ldpc_syndrome_weight(code(), bits.data()), ldpc_model::violated(checks, bits));
    }
    Bits one_wrong = encode(code(), random_message(code(), rng));
    one_wrong[17] ^= 1;
    EXPECT_EQ(ldpc_syndrome_weight(code(), one_wrong.data()), 3);
}

// Construction

// Length of the shortest cycle: an edge closes a cycle with the shortest other way between its ends.
int32_t girth_by_deleting_edges(const Matrix& checks) {
    const size_t m = checks.size(), n = checks[0].size();
    int32_t girth = LDPC_NO_CYCLE;
    for (size_t c0 = 0; c0 < m; ++c0) {
        for (size_t v0 = 0; v0 < n; ++v0) {
            if (checks[c0][v0] == 0) continue;
            Matrix rest = checks;
            rest[c0][v0] = 0;
            std::set<size_t> front = {v0};  // variables at an even distance
            Bits seen_check(m, 0), seen_variable(n, 0);
            seen_variable[v0] = 1;
            for (int32_t distance = 0; !front.empty() && distance + 2 < girth; distance += 2) {
                std::set<size_t> next;
                for (size_t c = 0; c < m; ++c) {
                    const auto touches = [&](size_t v) { return rest[c][v] != 0; };
                    if (seen_check[c] != 0 || std::none_of(front.begin(), front.end(), touches)) continue;
                    seen_check[c] = 1;
                    if (c == c0) girth = std::min(girth, distance + 2);
                    for (size_t v = 0; v < n; ++v) {
                        if (rest[c][v] != 0 && seen_variable[v] == 0) {
                            seen_variable[v] = 1;
                            next.insert(v);
                        }
                    }
                }
                front = next;
            }
        }
    }
    return girth;
}

void expect_sound_code(const ldpc_code& code, int32_t n, int32_t k, int32_t weight) {
    ASSERT_EQ(code.n, n);
    ASSERT_EQ(code.k, k);
    ASSERT_EQ(code.m, n - k);
    ASSERT_EQ(code.column_weight, weight);

    std::vector<std::vector<int32_t>> checks_of_variable(index(n));
    for (int32_t c = 0; c < code.m; ++c) {
        ASSERT_LE(code.check_degree[c], 31);
        for (int32_t e = 0; e < code.check_degree[c]; ++e) {
            checks_of_variable.at(index(code.check_vars[c][e])).push_back(c);
        }
    }
    for (int32_t v = 0; v < n; ++v) {
        ASSERT_EQ(code.var_degree[v], weight);
        ASSERT_EQ(std::vector<int32_t>(code.var_checks[v], code.var_checks[v] + weight), checks_of_variable[index(v)]);
        ASSERT_EQ(std::set<int32_t>(code.var_checks[v], code.var_checks[v] + weight).size(), index(weight));
    }

    const Matrix checks = ldpc_model::checks_of(code);
    const Matrix rows = ldpc_model::generator_rows(code);
    const auto derived = ldpc_model::generator_of(checks, index(n));
    ASSERT_TRUE(derived.has_value());
    ASSERT_EQ(rows, derived->rows);
    for (int32_t i = 0; i < k; ++i) {
        ASSERT_EQ(index(code.pivot[i]), derived->pivots[index(i)]);
        ASSERT_EQ(ldpc_model::violated(checks, rows[index(i)]), 0);
        for (int32_t j = 0; j < k; ++j) ASSERT_EQ(rows[index(i)][index(code.pivot[j])], i == j ? 1 : 0);
    }
    ASSERT_EQ(code.girth, girth_by_deleting_edges(checks));
}

TEST_P(BothCodes, NewCodesOfThisSizeAreSound) {
    auto code = std::make_unique<ldpc_code>();
    std::set<Matrix> different;
    for (const uint32_t seed : {0U, 1U, 2U, 12345U, 0xffffffffU}) {
        SCOPED_TRACE(seed);
        ASSERT_EQ(ldpc_build(*code, tables().n, tables().k, 3, seed), 0);
        expect_sound_code(*code, tables().n, tables().k, 3);
        EXPECT_GE(code->girth, 6);
        different.insert(ldpc_model::checks_of(*code));
    }
    EXPECT_EQ(different.size(), 5U);
}

TEST(LdpcBuild, NewCodesOfOtherShapesAreSound) {
    struct Shape {
        int32_t n, k, weight;
    };
    auto code = std::make_unique<ldpc_code>();
    for (const Shape& shape :
         {Shape{256, 128, 3}, Shape{256, 100, 5}, Shape{60, 20, 7}, Shape{40, 0, 3}, Shape{10, 4, 1}, Shape{1, 0, 1},
          Shape{31, 30, 1}, Shape{12, 9, 3}, Shape{41, 37, 3}, Shape{52, 47, 3}}) {
        SCOPED_TRACE(testing::Message() << shape.n << " " << shape.k << " " << shape.weight);
        const auto expected = ldpc_model::construct(shape.n, shape.k, shape.weight, 3);
        ASSERT_EQ(ldpc_build(*code, shape.n, shape.k, shape.weight, 3), expected.has_value() ? 0 : -1);
        if (expected) expect_sound_code(*code, shape.n, shape.k, shape.weight);
    }
}

TEST(LdpcBuild, EveryEdgeGoesWhereTheConstructionSays) {
    auto code = std::make_unique<ldpc_code>();
    for (uint32_t seed = 0; seed < 2; ++seed) {
        ASSERT_EQ(ldpc_build(*code, 119, 44, 3, seed), 0);
        EXPECT_EQ(ldpc_model::checks_of(*code), ldpc_model::construct(119, 44, 3, seed)) << "seed " << seed;
    }
    for (uint32_t seed = 0; seed < 30; ++seed) {  // small and crowded: many equal choices
        const auto expected = ldpc_model::construct(20, 12, 3, seed);
        ASSERT_EQ(ldpc_build(*code, 20, 12, 3, seed), expected ? 0 : -1) << "seed " << seed;
        if (expected) {
            EXPECT_EQ(ldpc_model::checks_of(*code), *expected) << "seed " << seed;
        }
    }
}

TEST(LdpcBuild, FiftyAttemptsAreMade) {
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 12, 2, 5, 79), 0);  // the first 49 attempts of this seed give dependent checks
    EXPECT_EQ(ldpc_model::checks_of(*code), ldpc_model::construct(12, 2, 5, 79));
    EXPECT_EQ(ldpc_build(*code, 12, 2, 5, 379), -1);  // the first 50 of this one do, the next would not
}

TEST(LdpcBuild, AZeroRandomStateIsReplaced) {
    // 244002641 is the inverse of 2654435761 modulo 2^32: the first attempt of this seed starts from 0.
    const uint32_t seed = 0U - 12345U * 244002641U;
    ASSERT_EQ(seed * 2654435761U + 12345U, 0U);
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 24, 9, 3, seed), 0);
    EXPECT_EQ(ldpc_model::checks_of(*code), ldpc_model::construct(24, 9, 3, seed));
}

TEST(LdpcBuild, AGraphWithoutCyclesHasNoGirth) {
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 10, 4, 1, 1), 0);
    EXPECT_EQ(code->girth, LDPC_NO_CYCLE);
}

TEST(LdpcBuild, ACheckTakes32VariablesWhoseFirstItIsAnd31Others) {
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 32, 31, 1, 1), 0);
    EXPECT_EQ(code->check_degree[0], 32);
    EXPECT_EQ(code->check_vars[0][31], 31);
    EXPECT_EQ(ldpc_build(*code, 33, 32, 1, 1), -1);
    EXPECT_EQ(ldpc_build(*code, 256, 255, 1, 1), -1);

    // Three checks of all variables depend on each other, but before that they are full: at 31, and not at once.
    EXPECT_EQ(ldpc_build(*code, 31, 28, 3, 1), -1);
    EXPECT_EQ(ldpc_build(*code, 32, 29, 3, 1), -1);
    EXPECT_EQ(ldpc_build(*code, 256, 250, 3, 1), -1);
}

TEST(LdpcBuild, FillsTheChecksAsTheConstructionSays) {
    auto code = std::make_unique<ldpc_code>();
    for (int32_t n = 58; n < 66; ++n) {  // 60 to 64 variables in checks of 31 and 32
        for (const int32_t weight : {1, 3}) {
            const int32_t m = 2 * weight;
            SCOPED_TRACE(testing::Message() << n << ", weight " << weight);
            const auto expected = ldpc_model::construct(n, n - m, weight, 1);
            ASSERT_EQ(ldpc_build(*code, n, n - m, weight, 1), expected ? 0 : -1);
            if (expected) {
                EXPECT_EQ(ldpc_model::checks_of(*code), *expected);
            }
        }
    }
}

TEST_P(BothCodes, AreWhatTheConstructionMakesOfTheFirstSeed) {
    auto code_built = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code_built, tables().n, tables().k, 3, 1), 0);
    const ldpc_code& stored = code();
    EXPECT_TRUE(std::ranges::equal(code_built->check_degree, stored.check_degree));
    for (int32_t c = 0; c < stored.m; ++c) {
        EXPECT_TRUE(std::ranges::equal(code_built->check_vars[c], stored.check_vars[c])) << "check " << c;
    }
    EXPECT_TRUE(std::ranges::equal(code_built->generator, stored.generator));
    EXPECT_TRUE(std::ranges::equal(code_built->pivot, stored.pivot));
}

TEST(LdpcBuild, EvenWeightsMakeDependentChecks) {
    auto code = std::make_unique<ldpc_code>();
    EXPECT_EQ(ldpc_build(*code, 30, 10, 2, 1), -1);
    EXPECT_EQ(ldpc_build(*code, 30, 10, 8, 1), -1);
}

TEST(LdpcBuild, RefusesArgumentsOutOfRangeAndLeavesTheCodeAlone) {
    struct Arguments {
        int32_t n, k, weight;
    };
    const Arguments refused[] = {{257, 100, 3},
                                 {INT32_MAX, 1, 3},
                                 {119, 119, 3},
                                 {119, 120, 3},
                                 {119, -1, 3},
                                 {119, INT32_MIN, 3},
                                 {-1, -2, 3},
                                 {INT32_MIN, 0, 3},
                                 {INT32_MIN, INT32_MIN, 3},
                                 {0, 0, 3},
                                 {119, 44, 0},
                                 {119, 44, -1},
                                 {119, 44, INT32_MIN},
                                 {119, 44, 9},
                                 {119, 44, INT32_MAX},
                                 {12, 10, 3}};
    auto code = std::make_unique<ldpc_code>();
    code->n = 4711;
    for (const auto& [n, k, weight] : refused) {
        EXPECT_EQ(ldpc_build(*code, n, k, weight, 1), -1) << n << ", " << k << ", " << weight;
        EXPECT_EQ(code->n, 4711);
    }
}

// Decoding

TEST_P(BothCodes, SureBitsDecodeInTheFirstPassAtNoCost) {
    Rng rng(3);
    for (const float size : {5.0F, 100.0F, 1e30F, std::numeric_limits<float>::infinity()}) {
        const Bits message = random_message(code(), rng);
        const Bits codeword = encode(code(), message);
        const Decoded got = decode(code(), sure(codeword, size), 1, -1, 0);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.cost, 0.0);
        EXPECT_EQ(got.codeword, codeword);
        EXPECT_EQ(got.message, message);
    }
}

TEST_P(BothCodes, KnowingNothingDecodesToZerosInTheFirstPass) {
    for (const float nothing : {0.0F, -0.0F}) {
        const Decoded got = decode(code(), std::vector<float>(index(code().n), nothing), 1, -1, 0);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.cost, 0.0);
        EXPECT_EQ(got.codeword, Bits(index(code().n), 0));
        EXPECT_EQ(got.message, Bits(index(code().k), 0));
    }
}

TEST(LdpcDecode, ABeliefOfExactlyZeroIsAZero) {
    // The product over 31 variables without information is too small for a double: the check answers exactly 0.
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 31, 30, 1, 1), 0);
    const Decoded got = decode(*code, std::vector<float>(31, -0.0F), 1, -1, 0);
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.codeword, Bits(31, 0));
}

TEST_P(BothCodes, WithoutPassesOrderedStatisticsDecide) {
    Rng rng(4);
    const Bits codeword = encode(code(), random_message(code(), rng));
    for (const int32_t passes : {0, -1, INT32_MIN}) {
        const Decoded got = decode(code(), sure(codeword, 1.0F), passes, 0, 0);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.status, 2);
        EXPECT_EQ(got.codeword, codeword);
        EXPECT_EQ(got.cost, 0.0);
        EXPECT_EQ(decode(code(), sure(codeword, 1.0F), passes, -1, 0).result, -1);
    }
}

TEST_P(BothCodes, CostSumsTheMetricsThatWereOverruled) {
    Rng rng(5);
    const Bits codeword = encode(code(), random_message(code(), rng));
    std::vector<float> metrics = sure(codeword, 4.0F);
    metrics[3] *= -0.25F;
    metrics[70] *= -0.5F;
    for (const int32_t passes : {50, 0}) {
        const Decoded got = decode(code(), metrics, passes, 0, 0);
        EXPECT_EQ(got.codeword, codeword);
        EXPECT_EQ(got.cost, 3.0);
        EXPECT_EQ(got.status, passes > 0 ? 1 : 2);
    }
}

// Metrics whose `flips` errors all sit where the reduced generator has its own columns: position r of the basis,
// counted from the most reliable. Only ordered statistics that flip just those rows return the codeword.
std::vector<float> wrong_in_the_basis(const ldpc_code& code, const Bits& codeword,
                                      const std::vector<size_t>& positions) {
    std::vector<float> metrics;
    for (size_t v = 0; v < codeword.size(); ++v) {
        metrics.push_back((codeword[v] ? 1.0F : -1.0F) * (10.0F - 0.01F * static_cast<float>(v)));
    }
    std::vector<size_t> columns(codeword.size());
    std::iota(columns.begin(), columns.end(), size_t{0});
    Matrix rows = ldpc_model::generator_rows(code);
    const std::vector<size_t> basis = ldpc_model::eliminate(rows, columns);
    for (const size_t position : positions) metrics[basis[position]] *= -1.0F;
    return metrics;
}

TEST_P(BothCodes, EachOrderCorrectsOneErrorMoreInTheBasis) {
    Rng rng(6);
    const size_t k = index(code().k);
    const Bits codeword = encode(code(), random_message(code(), rng));
    const auto one = wrong_in_the_basis(code(), codeword, {k - 3});
    const auto two = wrong_in_the_basis(code(), codeword, {k - 4, k - 2});
    EXPECT_NE(decode(code(), one, 0, 0, 0).codeword, codeword);
    EXPECT_EQ(decode(code(), one, 0, 1, 0).codeword, codeword);
    EXPECT_NE(decode(code(), two, 0, 1, 0).codeword, codeword);
    EXPECT_EQ(decode(code(), two, 0, 2, 0).codeword, codeword);
    EXPECT_EQ(decode(code(), two, 0, INT32_MAX, 0).codeword, codeword);
}

TEST_P(BothCodes, SpanPairsOnlyTheLeastReliableRows) {
    Rng rng(7);
    const size_t k = index(code().k);
    const Bits codeword = encode(code(), random_message(code(), rng));
    int pairs_of_five = 0;
    for (size_t j1 = k - 7; j1 < k; ++j1) {
        for (size_t j2 = j1 + 1; j2 < k; ++j2) {
            const auto metrics = wrong_in_the_basis(code(), codeword, {j1, j2});
            const bool found = decode(code(), metrics, 0, 2, 5).codeword == codeword;
            EXPECT_EQ(found, j1 >= k - 5) << j1 << ", " << j2;
            pairs_of_five += found ? 1 : 0;
        }
    }
    EXPECT_EQ(pairs_of_five, 10);
    const auto first_pair = wrong_in_the_basis(code(), codeword, {0, 1});
    for (const int32_t all : {0, -1, INT32_MIN, code().k, code().k + 1, INT32_MAX}) {
        EXPECT_EQ(decode(code(), first_pair, 0, 2, all).codeword, codeword) << "span " << all;
    }
    EXPECT_NE(decode(code(), first_pair, 0, 2, code().k - 1).codeword, codeword);
}

TEST_P(BothCodes, OneUselessBitLeavesNothingToPair) {
    Rng rng(8);
    const Bits codeword = encode(code(), random_message(code(), rng));
    const auto metrics = noisy(codeword, 1.2, rng);
    EXPECT_EQ(decode(code(), metrics, 0, 2, 1).codeword, decode(code(), metrics, 0, 1, 0).codeword);
}

TEST_P(BothCodes, FramesOutOfReachFailWithoutOrderedStatistics) {
    Rng rng(9);
    int failed = 0;
    for (int trial = 0; trial < 50; ++trial) {
        const auto metrics = noisy(encode(code(), random_message(code(), rng)), 2.0, rng);
        failed += decode(code(), metrics, 20, -1, 0).result == -1 ? 1 : 0;
    }
    EXPECT_GT(failed, 40);
}

// The settings of one comparison with the model.
struct Setting {
    int32_t passes, order, span;
    int frames;
};

class ModelComparison : public testing::TestWithParam<Setting> {};

INSTANTIATE_TEST_SUITE_P(Ldpc, ModelComparison,
                         testing::Values(Setting{50, -1, 0, 250}, Setting{8, -1, 0, 400}, Setting{4, 0, 0, 400},
                                         Setting{0, 0, 0, 300}, Setting{50, 1, 0, 250}, Setting{0, 1, 0, 300},
                                         Setting{50, 2, 0, 150}, Setting{0, 2, 0, 100}, Setting{0, 3, 5, 200},
                                         Setting{5, 2, 20, 200}, Setting{0, 2, 1, 100}, Setting{4, 2, 43, 60},
                                         Setting{4, 2, 69, 40}, Setting{5, 2, -7, 40}),
                         [](const auto& param) {
                             const Setting& s = param.param;
                             const auto text = [](int32_t value) {
                                 return value < 0 ? "minus" + std::to_string(-value) : std::to_string(value);
                             };
                             return "Passes" + text(s.passes) + "Order" + text(s.order) + "Span" + text(s.span);
                         });

TEST_P(ModelComparison, NoisyFramesDecodeAsDefined) {
    const Setting& setting = GetParam();
    int with_status[3] = {};
    for (const ldpc_code* code : {&code_s(), &code_l()}) {
        Rng rng(100 + static_cast<uint64_t>(setting.frames));
        for (int frame = 0; frame < setting.frames; ++frame) {
            const double sigma = 0.8 + 0.1 * (frame % 5);
            std::vector<float> metrics = noisy(encode(*code, random_message(*code, rng)), sigma, rng);
            if (frame % 8 == 3) metrics = coarse(metrics, 2.0F);
            if (frame % 8 == 5) metrics = coarse(metrics, 10.0F);
            if (frame % 4 == 2) metrics = overconfident(metrics);
            int32_t status = 0;
            ASSERT_TRUE(same_as_model(*code, metrics, setting.passes, setting.order, setting.span, status))
                << "n " << code->n << " frame " << frame;
            ++with_status[status];
        }
    }
    // Around the threshold both ways out of the decoder are taken often.
    const int fewest = setting.frames / 10;
    EXPECT_TRUE(setting.passes <= 0 ? with_status[1] == 0 : with_status[1] > fewest) << with_status[1];
    EXPECT_GT(with_status[setting.order < 0 ? 0 : 2], fewest);
}

// The message of a check to one of several erased bits is tiny, and its sign decides.
TEST_P(BothCodes, FramesWithErasedBitsDecodeAsDefined) {
    Rng rng(12);
    int with_status[3] = {};
    for (int frame = 0; frame < 400; ++frame) {
        const Bits codeword = encode(code(), random_message(code(), rng));
        const float magnitude = std::array{0.5F, 3.0F, 5.0F, 20.0F}[index(frame % 4)];
        std::vector<float> metrics;
        for (const uint8_t bit : codeword) metrics.push_back(bit != 0 ? magnitude : -magnitude);
        const auto erased = static_cast<std::ptrdiff_t>(rng() % metrics.size() * 3 / 4);
        std::fill(metrics.begin(), metrics.begin() + erased, 0.0F);
        if (frame % 8 >= 4) std::shuffle(metrics.begin(), metrics.end(), rng);  // no codeword at all
        int32_t status = 0;
        ASSERT_TRUE(same_as_model(code(), metrics, 2 + frame % 40, -1, 0, status)) << "frame " << frame;
        ++with_status[status];
    }
    EXPECT_GT(with_status[0], 100);
    EXPECT_GT(with_status[1], 100);
}

TEST(LdpcDecode, OneCheckOverThreeErasedBitsDecides) {
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 4, 3, 1, 1), 0);
    ASSERT_EQ(code->check_degree[0], 4);
    // The three agree on what makes the check even: each gets a message of some -1e-24 that says so.
    const Decoded got = decode(*code, {0.0F, 0.0F, 0.0F, 5.0F}, 1, -1, 0);
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.cost, 0.0);
    EXPECT_EQ(got.codeword, (Bits{1, 1, 1, 1}));
}

TEST(LdpcDecode, NewCodesDecodeAsDefinedToo) {
    auto code = std::make_unique<ldpc_code>();
    ASSERT_EQ(ldpc_build(*code, 256, 100, 3, 1), 0);
    Rng rng(10);
    for (int frame = 0; frame < 40; ++frame) {
        const auto metrics = noisy(encode(*code, random_message(*code, rng)), 0.95, rng);
        int32_t status = 0;
        ASSERT_TRUE(same_as_model(*code, metrics, 20, 2, 30, status)) << "frame " << frame;
    }
}

TEST(LdpcDecode, MetricsOutOfAnyRangeDecodeAsDefined) {
    const float odd[] = {std::numeric_limits<float>::quiet_NaN(),
                         -std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity(),
                         std::numeric_limits<float>::max(),
                         std::numeric_limits<float>::lowest(),
                         std::numeric_limits<float>::denorm_min(),
                         0.0F,
                         -0.0F};
    Rng rng(11);
    int not_a_number = 0;
    for (const ldpc_code* code : {&code_s(), &code_l()}) {
        for (int frame = 0; frame < 300; ++frame) {
            std::vector<float> metrics = noisy(encode(*code, random_message(*code, rng)), 0.9, rng);
            const uint64_t changes = 1 + rng() % (frame % 10 == 0 ? 200 : 6);
            for (uint64_t i = 0; i < changes; ++i) {
                metrics[static_cast<std::size_t>(rng() % metrics.size())] = odd[rng() % std::size(odd)];
            }
            const int32_t order = frame % 3;
            const int32_t passes = frame % 2 == 0 ? 0 : 10;
            const ldpc_model::Decoded expected = ldpc_model::decode(*code, metrics, passes, order, 12);
            const Decoded got = decode(*code, metrics, passes, order, 12);
            ASSERT_EQ(got.result, 0);
            ASSERT_EQ(got.status, expected.status);
            ASSERT_EQ(got.codeword, expected.codeword) << "frame " << frame;
            ASSERT_EQ(got.message, expected.message);
            ASSERT_TRUE(got.cost == expected.cost || (std::isnan(got.cost) && std::isnan(expected.cost)));
            not_a_number += std::isnan(got.cost) ? 1 : 0;
        }
    }
    EXPECT_GT(not_a_number, 0);
}

TEST_P(BothCodes, AFrameOfNothingButNonsenseStillEnds) {
    for (const float value : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity()}) {
        const Decoded got = decode(code(), std::vector<float>(index(code().n), value), 50, 2, 0);
        EXPECT_EQ(got.result, 0);
        for (int32_t i = 0; i < code().k; ++i) {
            EXPECT_EQ(got.message[index(i)], got.codeword[index(code().pivot[i])]);
        }
    }
}

TEST_P(BothCodes, OrderedStatisticsAlwaysReturnACodewordWithItsMessage) {
    Rng rng(12);
    for (int trial = 0; trial < 100; ++trial) {
        std::vector<float> metrics(index(code().n));
        std::normal_distribution<float> noise;
        for (float& metric : metrics) metric = noise(rng);
        const Decoded got = decode(code(), metrics, 3, trial % 3, 10);
        ASSERT_EQ(got.result, 0);
        ASSERT_EQ(ldpc_syndrome_weight(code(), got.codeword.data()), 0);
        ASSERT_EQ(encode(code(), got.message), got.codeword);
    }
}

TEST(LdpcDecode, ThreadsDoNotDisturbEachOther) {
    constexpr int FRAMES = 100;
    struct Work {
        const ldpc_code* code;
        std::vector<std::vector<float>> frames;
        std::vector<Decoded> alone, together;
    };
    std::vector<Work> work = {{&code_s(), {}, {}, {}}, {&code_l(), {}, {}, {}}, {&code_l(), {}, {}, {}}};
    Rng rng(13);
    for (Work& w : work) {
        for (int frame = 0; frame < FRAMES; ++frame) {
            w.frames.push_back(noisy(encode(*w.code, random_message(*w.code, rng)), 1.1, rng));
            w.alone.push_back(decode(*w.code, w.frames.back(), 20, 2, 30));
        }
    }
    std::vector<std::thread> threads;
    for (Work& w : work) {
        threads.emplace_back([&w] {
            for (const auto& frame : w.frames) w.together.push_back(decode(*w.code, frame, 20, 2, 30));
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Work& w : work) {
        for (size_t frame = 0; frame < FRAMES; ++frame) {
            EXPECT_EQ(w.together[frame].codeword, w.alone[frame].codeword);
            EXPECT_EQ(w.together[frame].cost, w.alone[frame].cost);
            EXPECT_EQ(w.together[frame].status, w.alone[frame].status);
        }
    }
}

}  // namespace
