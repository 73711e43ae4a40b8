// LDPC decodes per second, in white Gaussian noise of a given sigma on ±1 bits: easy frames, frames at the threshold,
// and noise only, where every decode runs through all passes and ordered statistics.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "ldpc.h"
#include "orvel.h"
#include "siggen.h"

namespace {

// Metrics of random frames; a sigma of 0 stands for noise without a frame.
std::vector<std::vector<float>> make_frames(const ldpc_code& code, double sigma) {
    Random random(11);
    std::vector<std::vector<float>> frames(64);
    for (std::vector<float>& metrics : frames) {
        std::vector<uint8_t> message(static_cast<std::size_t>(code.k));
        std::vector<uint8_t> codeword(static_cast<std::size_t>(code.n));
        for (uint8_t& bit : message) bit = static_cast<uint8_t>(random.next() & 1);
        ldpc_encode(code, message.data(), codeword.data());
        for (const uint8_t bit : codeword) {
            const double amplitude = sigma > 0 ? (bit != 0 ? 1 : -1) : 0;
            const double noise = sigma > 0 ? sigma : 1;
            metrics.push_back(static_cast<float>(2 * (amplitude + noise * random.normal()) / (noise * noise)));
        }
    }
    return frames;
}

void decode(benchmark::State& state) {
    const ldpc_code& code = ov_code(static_cast<int32_t>(state.range(0)));
    const auto frames = make_frames(code, static_cast<double>(state.range(1)) / 10);
    std::vector<uint8_t> codeword(static_cast<std::size_t>(code.n));
    std::vector<uint8_t> message(static_cast<std::size_t>(code.k));
    std::size_t next = 0;
    for (auto _ : state) {
        double cost = 0;
        int32_t status = 0;
        benchmark::DoNotOptimize(ldpc_decode(code, frames[next++ % frames.size()].data(), 50, 2, 0, codeword.data(),
                                             message.data(), &cost, &status));
    }
    state.SetItemsProcessed(state.iterations());
}

// Mode, ten times sigma.
BENCHMARK(decode)->ArgsProduct({{0, 1}, {7, 10, 0}})->ArgNames({"mode", "sigma_x10"});

}  // namespace

BENCHMARK_MAIN();
