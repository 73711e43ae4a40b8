// The check lists define the codes: sender and receiver need equal lists, or nothing decodes. Everything else in the
// tables is computed from them here.
#include "ldpc_tables.h"

#include <initializer_list>

namespace {

// Checks of the two codes: the variables of each.
using Check = std::initializer_list<uint8_t>;

constexpr Check S_CHECKS[] = {
    {23, 46, 53, 97, 100}, {20, 37, 61, 95},      {13, 43, 60, 85, 106}, {24, 28, 65, 96, 113}, {21, 40, 59, 83, 108},
    {16, 41, 51, 78},      {5, 36, 64, 81},       {2, 38, 73, 98, 110},  {6, 27, 50, 89},       {19, 35, 63, 93, 109},
    {8, 46, 65, 82},       {12, 42, 73, 76},      {13, 32, 67, 99, 117}, {2, 40, 51, 99, 104},  {17, 42, 69, 82, 116},
    {10, 45, 55, 87},      {9, 48, 63, 91, 111},  {7, 26, 72, 85, 115},  {24, 44, 61, 92},      {0, 47, 58, 95, 113},
    {3, 30, 76, 91, 102},  {10, 35, 61, 71, 112}, {21, 32, 52, 87, 105}, {17, 37, 53, 83, 118}, {23, 45, 68, 90, 117},
    {11, 34, 64, 97, 112}, {3, 29, 65, 85, 104},  {4, 29, 56, 98, 103},  {22, 43, 54, 80, 105}, {1, 48, 67, 70, 116},
    {0, 27, 66, 83, 112},  {15, 39, 74, 79, 106}, {22, 38, 57, 77},      {0, 33, 60, 77, 111},  {3, 31, 62, 84, 109},
    {6, 46, 63, 80, 110},  {4, 39, 54, 88, 115},  {6, 32, 69, 84},       {11, 43, 59, 92, 114}, {18, 39, 73, 93, 107},
    {15, 37, 62, 89, 117}, {4, 44, 58, 91},       {23, 25, 57, 81},      {22, 26, 71, 79, 113}, {21, 44, 72, 75},
    {8, 36, 55, 86},       {18, 33, 64, 89},      {2, 35, 60, 100, 116}, {8, 38, 75, 94, 118},  {16, 33, 56, 96, 105},
    {11, 31, 58, 78, 107}, {9, 26, 62, 66, 100},  {19, 47, 74, 90, 104}, {20, 30, 67, 86, 110}, {24, 49, 50, 99, 102},
    {18, 48, 75, 90, 103}, {1, 34, 50, 87, 101},  {13, 41, 53, 93, 101}, {15, 36, 52, 76},      {14, 47, 52, 88, 118},
    {12, 25, 59, 86, 115}, {17, 34, 72, 98, 109}, {20, 27, 57, 96, 107}, {7, 49, 55, 77, 114},  {1, 40, 68, 94},
    {7, 30, 51, 97, 103},  {10, 31, 70, 88},      {16, 45, 69, 79, 102}, {9, 25, 56, 95, 106},  {14, 42, 71, 78, 108},
    {19, 49, 54, 81, 82},  {14, 29, 68, 92, 111}, {5, 41, 66, 94, 114},  {5, 28, 70, 80, 108},  {12, 28, 74, 84, 101}};

constexpr Check L_CHECKS[] = {
    {2, 33, 76, 98, 134},        {24, 46, 64, 115, 133},      {24, 41, 73, 93, 129},       {15, 43, 65, 121, 127},
    {3, 37, 63, 107, 147},       {7, 44, 79, 94, 129},        {8, 43, 74, 92, 106},        {2, 46, 84, 92, 132},
    {2, 57, 63, 91, 127},        {21, 35, 69, 122, 137},      {6, 51, 87, 89, 149, 157},   {20, 45, 67, 100, 134},
    {21, 30, 76, 108, 136},      {25, 35, 72, 106, 130},      {29, 41, 81, 120, 128},      {28, 44, 64, 121, 141},
    {12, 38, 80, 105, 152},      {17, 59, 88, 97, 116},       {18, 55, 86, 112, 131},      {18, 38, 92, 111, 150},
    {9, 39, 85, 107, 145, 154},  {17, 43, 70, 118, 124, 153}, {12, 59, 76, 120, 148},      {13, 47, 89, 113, 141, 153},
    {26, 49, 85, 114, 136},      {13, 40, 91, 103, 139},      {22, 48, 66, 111, 153},      {16, 42, 65, 103, 148},
    {25, 32, 68, 105, 149},      {23, 59, 62, 94, 132},       {7, 40, 71, 99, 142},        {5, 53, 84, 96, 148, 159},
    {15, 33, 89, 122, 128, 158}, {27, 57, 78, 94, 140},       {12, 48, 71, 109, 151},      {6, 45, 80, 99, 130, 155},
    {4, 54, 61, 109, 127},       {1, 53, 82, 95, 123, 156},   {24, 54, 75, 95, 134, 154},  {1, 31, 70, 102, 142},
    {23, 37, 90, 112, 141},      {5, 39, 69, 109, 146, 149},  {17, 51, 85, 100, 123},      {19, 33, 61, 118, 126, 159},
    {9, 46, 83, 117, 139, 152},  {8, 47, 67, 93, 131, 152},   {26, 34, 66, 106, 133},      {21, 34, 86, 103, 138},
    {3, 53, 79, 104, 130},       {6, 44, 74, 110, 139, 159},  {27, 32, 83, 90, 143},       {22, 39, 74, 120, 142},
    {5, 40, 73, 98, 135},        {7, 56, 77, 108, 146},       {25, 60, 77, 102, 135},      {16, 30, 75, 110, 124},
    {28, 49, 78, 96, 138, 158},  {27, 51, 73, 111, 126},      {13, 50, 68, 101, 144},      {8, 54, 90, 114, 137},
    {1, 36, 64, 108, 145},       {9, 55, 77, 118, 144},       {15, 36, 60, 101, 150},      {16, 58, 82, 113, 143},
    {29, 50, 78, 99, 124},       {11, 42, 79, 105, 114},      {29, 37, 65, 119, 135, 156}, {23, 35, 87, 95, 125},
    {26, 60, 75, 97, 126, 151},  {19, 58, 71, 117, 147, 150}, {30, 31, 68, 107, 133, 158}, {14, 48, 84, 116, 145, 155},
    {0, 56, 63, 115, 131},       {20, 31, 62, 119, 151, 157}, {11, 57, 70, 117, 122, 155}, {19, 49, 62, 93, 146},
    {0, 38, 69, 113, 119},       {14, 42, 87, 115, 144},      {18, 50, 61, 116, 136, 157}, {22, 32, 88, 121, 147},
    {11, 47, 81, 110, 132},      {28, 52, 72, 98, 123},       {10, 58, 72, 112, 140, 154}, {20, 55, 91, 104, 137},
    {10, 41, 66, 104, 125},      {10, 45, 83, 101, 138, 156}, {14, 52, 86, 102, 128},      {3, 52, 67, 97, 143},
    {0, 36, 88, 96, 125},        {4, 56, 81, 100, 140},       {4, 34, 80, 82, 129}};

template <size_t M>
constexpr size_t count_edges(const Check (&checks)[M]) {
    return std::accumulate(checks, checks + M, size_t{0}, [](size_t sum, Check c) { return sum + c.size(); });
}

template <size_t M>
constexpr std::array<uint8_t, M> degrees(const Check (&checks)[M]) {
    std::array<uint8_t, M> out{};
    std::transform(checks, checks + M, out.begin(), [](Check c) { return static_cast<uint8_t>(c.size()); });
    return out;
}

template <size_t Edges, size_t M>
constexpr std::array<uint8_t, Edges> variables(const Check (&checks)[M]) {
    std::array<uint8_t, Edges> out{};
    auto end = out.begin();
    for (const Check& check : checks) end = std::copy(check.begin(), check.end(), end);
    return out;
}

template <size_t K>
struct Systematic {
    std::array<uint64_t, K * 3> generator{};
    std::array<uint8_t, K> pivot{};
};

template <size_t N, size_t M>
consteval Systematic<N - M> derive(const Check (&checks)[M]) {
    std::array<ldpc_bits, M> rows{};
    for (size_t c = 0; c < M; ++c) {
        for (const uint8_t v : checks[c]) gf2::set_bit(rows[c], v);
    }
    std::array<ldpc_bits, N - M> generator{};
    std::array<int32_t, N - M> pivot{};
    if (!gf2::solve_checks(rows, N, generator, pivot)) throw "the checks depend on each other";

    Systematic<N - M> out;
    for (size_t i = 0; i < N - M; ++i) {
        for (size_t w = 0; w < 3; ++w) out.generator[3 * i + w] = generator[i][w];
        out.pivot[i] = static_cast<uint8_t>(pivot[i]);
    }
    return out;
}

constexpr auto S_SYSTEMATIC = derive<119>(S_CHECKS);
constexpr auto L_SYSTEMATIC = derive<160>(L_CHECKS);

}  // namespace

constexpr std::array<uint8_t, 75> OVS_CHECK_DEG = degrees(S_CHECKS);
constexpr std::array<uint8_t, 357> OVS_CHECK_VAR = variables<count_edges(S_CHECKS)>(S_CHECKS);
constexpr std::array<uint64_t, 44 * 3> OVS_G = S_SYSTEMATIC.generator;
constexpr std::array<uint8_t, 44> OVS_PIVOT = S_SYSTEMATIC.pivot;
constexpr std::array<uint8_t, 91> OVL_CHECK_DEG = degrees(L_CHECKS);
constexpr std::array<uint8_t, 480> OVL_CHECK_VAR = variables<count_edges(L_CHECKS)>(L_CHECKS);
constexpr std::array<uint64_t, 69 * 3> OVL_G = L_SYSTEMATIC.generator;
constexpr std::array<uint8_t, 69> OVL_PIVOT = L_SYSTEMATIC.pivot;
