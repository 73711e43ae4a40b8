// The coherent search when memory runs out: what it cannot examine is missing, what the standard search found is there.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "band.h"
#include "coherent/coherent.h"
#include "coherent/search.h"
#include "failing_memory.h"
#include "liborvel.h"
#include "siggen.h"

namespace {

constexpr int32_t RATE = 1000;
constexpr double CENTRE_HZ = 250;
constexpr double SEARCH_HZ = 20;

// Some thousand requests, many of them for one and the same thing.
#ifdef ORVEL_SANITIZED
constexpr int64_t STRIDE = 199;
#else
constexpr int64_t STRIDE = 97;
#endif

Station station(const char* call, double freq_hz, double snr_db) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(OVL_ORVEL_S)));
    EXPECT_GT(ovl_encode(OVL_ORVEL_S, call, nullptr, chips.data(), static_cast<int32_t>(chips.size())), 0);
    return {chips, 1, freq_hz, 0, snr_db, 0.3};
}

// One frame for each of the two searches.
std::vector<double> block() {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = 33;
    scene.seed = 3;
    scene.stations = {station("K1ABC", 240, -12), station("OH2XYZ", 259, -25)};
    return render_real(scene);
}

ovl_coherent little() {
    ovl_coherent settings;
    ovl_coherent_default(&settings);
    settings.places = 2;
    settings.passes = 1;
    return settings;
}

bool same(const ovl_result& a, const ovl_result& b) {
    return std::strcmp(a.call, b.call) == 0 && a.protocol == b.protocol && a.deep == b.deep && a.t_start == b.t_start &&
           a.freq_hz == b.freq_hz && a.snr_db == b.snr_db && a.drift_hz_s == b.drift_hz_s;
}

TEST(CoherentMemory, ADecodeLeavesOutWhatItCannotExamine) {
    const std::vector<float> samples = to_float(block());
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.center_hz = CENTRE_HZ;
    settings.search_hz = SEARCH_HZ;
    settings.protocols = OVL_ORVEL_S;
    const std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)> decoder(ovl_create(), ovl_destroy);
    using Results = std::array<ovl_result, 8>;
    const auto decode = [&](Results& results) {
        return ovl_decode(decoder.get(), samples.data(), static_cast<int32_t>(samples.size()), RATE, &settings,
                          results.data(), static_cast<int32_t>(results.size()));
    };
    Results standard;
    ASSERT_EQ(decode(standard), 1);
    FailingMemory plain;
    Results results;
    plain.watch([&] { return decode(results); });
    const ovl_coherent coherent = little();
    ASSERT_EQ(ovl_set_coherent(decoder.get(), &coherent), 0);
    Results reference;
    ASSERT_EQ(decode(reference), 2);
    ASSERT_STREQ(reference[0].call, "K1ABC");
    ASSERT_TRUE(same(reference[0], standard[0]));

    int64_t lost = 0;
    const int64_t last = refuse_each_request(
        [&](FailingMemory& memory) {
            const int32_t count = memory.watch([&] { return decode(results); });
            std::array<ovl_finding, 8> findings;
            EXPECT_EQ(ovl_findings(decoder.get(), findings.data(), 8), std::max(count, 0));
            ASSERT_LE(count, 2);
            if (!memory.has_refused()) {
                ASSERT_EQ(count, 2);
                EXPECT_TRUE(same(results[0], reference[0]) && same(results[1], reference[1]));
            }
            for (int32_t k = 0; k < count; k++) {
                const auto at = static_cast<std::size_t>(k);
                const char* const call = results[at].deep == OVL_STANDARD ? "K1ABC" : "OH2XYZ";
                // The stronger one is for the coherent search to find where the standard search had no memory for it.
                EXPECT_TRUE(std::strcmp(results[at].call, call) == 0 || std::strcmp(results[at].call, "K1ABC") == 0);
                EXPECT_EQ(findings[at].method, results[at].deep);
            }
            lost += count < 2 ? 1 : 0;
        },
        STRIDE);
    EXPECT_GT(last + STRIDE, 4 * plain.requests()) << "too few requests for the coherent search";
    EXPECT_GT(lost, 20);
}

// In one thread every request is one of those refused, of two only those of the thread that starts them.
TEST(CoherentMemory, TheSearchItselfFindsFewer) {
    const std::vector<double> samples = block();
    ov_params params;
    ov_params_default(params);
    params.center_hz = CENTRE_HZ;
    params.search_hz = SEARCH_HZ;
    for (const int32_t threads : {1, 2}) {
        SCOPED_TRACE(threads);
        params.protocols = threads == 1 ? OVL_ORVEL_S : OVL_ORVEL_S | OVL_ORVEL_L;
        const ov_coherent settings = {.places = 2, .passes = 2, .threads = threads, .known = 0};
        const auto search = [&](std::span<ov_spot> spots) {
            std::array<double, 8> odds{};
            return ov_add_coherent({samples.data(), nullptr, static_cast<int32_t>(samples.size()), RATE}, params,
                                   settings, spots, odds, 0);
        };
        std::array<ov_spot, 8> spots;
        const int32_t all = search(spots);
        ASSERT_EQ(all, 2);
        int64_t lost = 0;
        refuse_each_request(
            [&](FailingMemory& memory) {
                std::array<ov_spot, 8> found;
                const int32_t count = memory.watch([&] { return search(found); });
                ASSERT_GE(count, 0);
                ASSERT_LE(count, all);
                EXPECT_TRUE(memory.has_refused() || count == all);
                for (int32_t k = 0; k < count; k++) {
                    const auto* const call = found[static_cast<std::size_t>(k)].call;
                    EXPECT_TRUE(std::strcmp(call, "K1ABC") == 0 || std::strcmp(call, "OH2XYZ") == 0) << call;
                }
                lost += count < all ? 1 : 0;
            },
            STRIDE);
        EXPECT_GT(lost, 20);
    }
}

TEST(CoherentMemory, AMapIsThereOrNot) {
    Random random(7);
    const coherent::Whitened white = band::as_white(band::noise(random, 5));
    int64_t none = 0;
    refuse_each_request([&](FailingMemory& memory) {
        const bool there = memory.watch([&] {
            try {
                return coherent::segment_map(white, 8, 10).has_value();
            } catch (const std::bad_alloc&) {
                return false;
            }
        });
        EXPECT_TRUE(there || memory.has_refused());
        none += there ? 0 : 1;
    });
    EXPECT_GT(none, 5);
}

TEST(CoherentMemory, WhatIsNoBandHasNothing) {
    const std::vector<double> samples = block();
    ov_params params;
    ov_params_default(params);
    params.center_hz = CENTRE_HZ;
    ov_coherent settings;
    ov_coherent_default(settings);
    const auto found = [&](double search_hz, int32_t n) {
        params.search_hz = search_hz;
        return ov_decode_coherent({samples.data(), nullptr, n, RATE}, params, settings, {}).size();
    };
    const auto all = static_cast<int32_t>(samples.size());
    for (const double search_hz : {0.0, -1.0, std::nan(""), static_cast<double>(INFINITY)})
        EXPECT_EQ(found(search_hz, all), 0u);
    EXPECT_EQ(found(SEARCH_HZ, 100), 0u);
}

}  // namespace
