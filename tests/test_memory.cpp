// When memory runs out: every call of the library, and every part inside it that asks for memory, with each of its
// requests refused in turn. What it then says is what it promises, nothing is left behind, nothing is thrown where
// nothing may be, and afterwards it works as if nothing had been.
#include <fftw3.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "chipmeter.h"
#include "failing_memory.h"
#include "ldpc.h"
#include "liborvel.h"
#include "liborvel.hpp"
#include "median.h"
#include "orvel.h"
#include "ovbb.h"
#include "ovcdec.h"
#include "ovcdeep.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "ovscan.h"
#include "ovsync.h"
#include "owners.h"
#include "siggen.h"

namespace {

// ---- The tool ------------------------------------------------------------------------------------------------------

// Kept from the optimizer, which may drop requests whose memory nobody looks at.
void* volatile block = nullptr;

TEST(FailingMemory, SeesEveryKindOfRequest) {
    const std::array<void (*)(), 8> kinds = {
        [] {
            block = std::malloc(10);
            std::free(block);
        },
        [] {
            block = std::calloc(2, 5);
            std::free(block);
        },
        [] {
            block = std::realloc(nullptr, 10);
            std::free(block);
        },
        [] {
            block = fftw_malloc(10);
            fftw_free(block);
        },
        [] {
            block = ::operator new(10, std::nothrow);
            ::operator delete(block, std::nothrow);
        },
        [] {
            block = ::operator new[](10, std::nothrow);
            ::operator delete[](block, std::nothrow);
        },
        [] {
            block = ::operator new (10, std::align_val_t{64}, std::nothrow);
            ::operator delete (block, std::align_val_t{64}, std::nothrow);
        },
        [] {
            block = ::operator new[](10, std::align_val_t{64}, std::nothrow);
            ::operator delete[](block, std::align_val_t{64}, std::nothrow);
        },
    };
    for (std::size_t k = 0; k < kinds.size(); k++) {
        SCOPED_TRACE(k);
        FailingMemory memory;
        memory.watch(kinds[k]);
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(memory.requests(), 1);
        EXPECT_EQ(memory.largest_request(), 10u);
        EXPECT_EQ(memory.peak_bytes(), 10u);
        EXPECT_EQ(memory.live_blocks(), 0);
        EXPECT_FALSE(memory.has_refused());

        FailingMemory none(1);
        none.watch(kinds[k]);
        EXPECT_EQ(block, nullptr);
        EXPECT_TRUE(none.has_refused());
        EXPECT_EQ(none.live_blocks(), 0);
    }
}

TEST(FailingMemory, ThrowsWhereNewThrows) {
    for (const auto ask : {+[] { block = ::operator new(10); }, +[] { block = ::operator new[](10); },
                           +[] { block = ::operator new (10, std::align_val_t{64}); },
                           +[] { block = ::operator new[](10, std::align_val_t{64}); }}) {
        FailingMemory memory(1);
        EXPECT_THROW(memory.watch(ask), std::bad_alloc);
        EXPECT_TRUE(memory.has_refused());
        FailingMemory plenty;
        plenty.watch([] {
            block = std::malloc(1);
            std::free(block);
        });
        EXPECT_EQ(plenty.requests(), 1);
    }
}

TEST(FailingMemory, RefusesTheOneOrAllFurther) {
    const auto three = [](FailingMemory& memory) {
        std::array<bool, 3> got{};
        memory.watch([&] {
            for (bool& g : got) {
                block = std::malloc(1);
                g = block != nullptr;
                std::free(block);
            }
        });
        return got;
    };
    FailingMemory one(2);
    EXPECT_EQ(three(one), (std::array{true, false, true}));
    FailingMemory all(2, Refuses::ALL_FURTHER);
    EXPECT_EQ(three(all), (std::array{true, false, false}));
    EXPECT_EQ(all.requests(), 3);
    FailingMemory later(4, Refuses::ALL_FURTHER);
    EXPECT_EQ(three(later), (std::array{true, true, true}));
    EXPECT_FALSE(later.has_refused());
    EXPECT_EQ(three(later), (std::array{false, false, false})) << "requests count on";
}

TEST(FailingMemory, TellsWhatIsLeftBehind) {
    FailingMemory memory;
    memory.watch([] { block = std::malloc(100); });
    EXPECT_EQ(memory.live_blocks(), 1);
    EXPECT_EQ(memory.live_bytes(), 100u);
    void* const old = memory.watch([&] {
        block = std::realloc(block, 300);
        return static_cast<void*>(block);
    });
    EXPECT_EQ(memory.live_blocks(), 1);
    EXPECT_EQ(memory.live_bytes(), 300u);
    FailingMemory refusing(1);
    EXPECT_EQ(refusing.watch([&] { return std::realloc(old, 500); }), nullptr);
    EXPECT_EQ(memory.live_bytes(), 300u) << "a block that cannot grow stays";
    std::thread([&] { std::free(old); }).join();
    EXPECT_EQ(memory.live_blocks(), 0);
    EXPECT_EQ(memory.live_bytes(), 0u);
    EXPECT_EQ(memory.peak_bytes(), 300u);
}

TEST(FailingMemory, LetsOtherThreadsBe) {
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    bool got = false;
    std::atomic<int> turn = 0;
    std::thread other([&] {  // itself asks for memory, so it is not started within the watch
        while (turn != 1) std::this_thread::yield();
        void* const mine = std::malloc(1);
        got = mine != nullptr;
        std::free(mine);
        turn = 2;
    });
    memory.watch([&] {
        turn = 1;
        while (turn != 2) std::this_thread::yield();
    });
    other.join();
    EXPECT_TRUE(got);
    EXPECT_EQ(memory.requests(), 0);
}

TEST(FailingMemory, TriesEveryRequestOfACall) {
    std::vector<std::array<bool, 3>> seen;
    const auto attempt = [&](FailingMemory& memory) {
        std::array<void*, 3> blocks{};
        memory.watch([&] {
            for (void*& b : blocks) b = std::malloc(1);
        });
        seen.push_back({blocks[0] != nullptr, blocks[1] != nullptr, blocks[2] != nullptr});
        for (void* b : blocks) std::free(b);
    };
    EXPECT_EQ(refuse_each_request(attempt), 3);
    const std::vector<std::array<bool, 3>> expected = {{false, true, true}, {true, false, true},   {true, true, false},
                                                       {true, true, true},  {false, false, false}, {true, false, false},
                                                       {true, true, false}, {true, true, true}};
    EXPECT_EQ(seen, expected);
}

TEST(FailingMemory, AnAttemptThatLeavesSomethingBehindFails) {
    static void* lost;
    const auto lose = [](FailingMemory& memory) {
        void* const got = memory.watch([] { return std::malloc(77); });
        if (lost == nullptr) {
            lost = got;
        } else {
            std::free(got);
        }
    };
    EXPECT_NONFATAL_FAILURE(refuse_each_request(lose), "77 bytes are left behind");
    std::free(lost);
}

// Whole decodes are slow under the sanitizers: there only some of their many requests are refused.
#ifdef ORVEL_SANITIZED
constexpr int64_t DECODE_STRIDE = 13;
#else
constexpr int64_t DECODE_STRIDE = 1;
#endif

// ---- Signals -------------------------------------------------------------------------------------------------------

// Small enough that hundreds of decodes take seconds.
constexpr int32_t RATE = 1000;
constexpr double CENTRE_HZ = 250;
constexpr double SEARCH_HZ = 20;
constexpr int32_t BASEBAND_RATE = 250;

Station station(uint32_t protocol, const char* call, double t, double freq_hz, double snr_db) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(protocol)));
    EXPECT_GT(ovl_encode(protocol, call, "JN18", chips.data(), static_cast<int32_t>(chips.size())), 0);
    return {chips, t, freq_hz, 0, snr_db, 0.3};
}

Scene scene_of(std::vector<Station> stations, double seconds = 27) {
    Scene scene;
    scene.rate = RATE;
    scene.seconds = seconds;
    scene.seed = 4;
    scene.stations = std::move(stations);
    return scene;
}

// One station that is decoded and one that only the search for known callsigns finds.
Scene opera_scene() {
    return scene_of({station(OVL_OPERA, "K1ABC", -1, 235, -14), station(OVL_OPERA, "OH2XYZ", -2, 265, -22)});
}
Scene opera_scene_with_end() {  // of the second frame
    Scene scene = opera_scene();
    scene.seconds = 29;
    return scene;
}
Scene orvel_s_scene() {
    return scene_of({station(OVL_ORVEL_S, "SM5XYZ", -1, 250, -14)});
}
Scene orvel_l_scene() {
    return scene_of({station(OVL_ORVEL_L, "PA3XYZ", -4, 250, -14)}, 34);
}
// Two protocols so close to each other that only one of the two frames found there can be true.
Scene crowded_scene() {
    return scene_of({station(OVL_OPERA, "K1ABC", -1, 250, -8), station(OVL_ORVEL_S, "SM5XYZ", -1.5, 270, -6)});
}

IqSamples render_centred_iq(Scene scene) {
    for (Station& s : scene.stations) s.freq_hz -= CENTRE_HZ;
    return render_iq(scene);
}

int32_t count_of(const auto& samples) {
    return static_cast<int32_t>(samples.size());
}

constexpr const char* KNOWN = "OH2XYZ DL1ABC K1ABC";
std::array<ovc_known, 3> known_callsigns() {
    std::array<ovc_known, 3> known;
    EXPECT_EQ(ovc_known_init("OH2XYZ", &known[0]), 0);
    EXPECT_EQ(ovc_known_init("DL1ABC", &known[1]), 0);
    EXPECT_EQ(ovc_known_init("K1ABC", &known[2]), 0);
    return known;
}

// A band as far as the search for frames, and what it finds there.
struct Received {
    BasebandOwner bb;
    MapOwner map;
    ov_specmap orvel_map;  // the same cells in the layout of ORVEL S
    std::array<ovc_known, 3> known = known_callsigns();
    ov_cand cand;
    ov_hyp hyp;
    ovc_deep_hit hit;

    explicit Received(int32_t rate = BASEBAND_RATE) {
        const std::vector<double> x = render_real(opera_scene());
        EXPECT_EQ(ov_baseband_real(x.data(), count_of(x), RATE, CENTRE_HZ, rate, bb), 0);
        EXPECT_EQ(ov_spectrogram(bb, CHIP_SECONDS, SEARCH_HZ, 0, map), 0);
        orvel_map = map;
        ov_spec_frame(orvel_map, ov_ncoded(0), 1);
        EXPECT_EQ(ov_find_candidates(map, -1e9, 1e9, SEARCH_HZ, 0.2, 7, 1, &cand, nullptr, nullptr), 1);
        EXPECT_EQ(ov_refine(bb, map, cand, 0.1, 0.2, hyp), 0);
        EXPECT_GT(ovc_deep_search(&map, known.data(), 3, -1e9, 1e9, SEARCH_HZ, 0.2, 1e-4, 1, &hit, nullptr), 0);
    }
};

ov_params params_with(const std::array<ovc_known, 3>& known) {
    ov_params params;
    ov_params_default(params);
    params.center_hz = CENTRE_HZ;
    params.search_hz = SEARCH_HZ;
    params.known = known.data();
    params.n_known = count_of(known);
    return params;
}

// ---- Decoders ------------------------------------------------------------------------------------------------------

using Decoder = std::unique_ptr<ovl_decoder, decltype(&ovl_destroy)>;
Decoder make_decoder() {
    Decoder decoder(ovl_create(), ovl_destroy);
    EXPECT_EQ(ovl_set_known(decoder.get(), KNOWN), 3);
    return decoder;
}

constexpr double UNWRITTEN = -77;
constexpr int32_t ROOM = 16;
using Results = std::array<ovl_result, ROOM>;
Results unwritten_results() {
    Results results{};
    for (ovl_result& result : results) result.freq_hz = UNWRITTEN;
    return results;
}

bool same(const ovl_result& a, const ovl_result& b) {
    return std::strcmp(a.call, b.call) == 0 && std::strcmp(a.locator, b.locator) == 0 && a.protocol == b.protocol &&
           a.deep == b.deep && a.t_start == b.t_start && a.t_end == b.t_end && a.freq_hz == b.freq_hz &&
           a.snr_db == b.snr_db && a.drift_hz_s == b.drift_hz_s;
}
bool same(const Results& a, const Results& b, int32_t count) {
    return std::equal(a.begin(), a.begin() + count, b.begin(),
                      [](const ovl_result& x, const ovl_result& y) { return same(x, y); });
}

// The same frame, be it measured from another candidate or its noise in another way.
bool same_frame(const ovl_result& a, const ovl_result& b) {
    return std::strcmp(a.call, b.call) == 0 && std::strcmp(a.locator, b.locator) == 0 && a.protocol == b.protocol &&
           std::fabs(a.t_start - b.t_start) < 0.1 && std::fabs(a.freq_hz - b.freq_hz) < 1;
}

ovl_settings settings_of(int32_t protocols) {
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.center_hz = CENTRE_HZ;
    settings.search_hz = SEARCH_HZ;
    settings.protocols = protocols;
    return settings;
}

// Refuses memory to decode(decoder, results), with a decoder that has not yet seen a block and with one that has.
template <class Decode>
void refuse_to_decode(int32_t expected, int32_t deep, Decode decode) {
    const Decoder used = make_decoder();
    Results reference = unwritten_results();
    const int32_t all = decode(used.get(), reference.data());
    ASSERT_EQ(all, expected);
    EXPECT_EQ(std::count_if(reference.begin(), reference.end(), [](const ovl_result& r) { return r.deep != 0; }), deep);

    const auto try_decoder = [&](ovl_decoder* decoder, FailingMemory& memory, bool is_new) {
        Results results = unwritten_results();
        const int32_t count = memory.watch([&] { return decode(decoder, results.data()); });
        const std::string error = ovl_last_error(decoder);
        const int32_t written = std::max(count, 0);
        for (const ovl_result& rest : std::span(results).subspan(static_cast<std::size_t>(written))) {
            EXPECT_EQ(rest.freq_hz, UNWRITTEN);
        }
        if (!memory.has_refused()) {
            EXPECT_EQ(count, all);
            EXPECT_EQ(error, "");
            EXPECT_TRUE(same(results, reference, all));
            return count;
        }
        if (count < 0) {
            EXPECT_EQ(count, -1);
            EXPECT_EQ(error,
                      is_new && memory.requests() == 1 ? "out of memory" : "block too short or invalid for decoding");
            return count;
        }
        // What there was no memory to look at is missing; what is told is true.
        EXPECT_LE(count, all);
        EXPECT_EQ(error, "");
        for (int32_t i = 0; i < count; i++) {
            const ovl_result& result = results[static_cast<std::size_t>(i)];
            EXPECT_TRUE(std::any_of(reference.begin(), reference.begin() + all,
                                    [&](const ovl_result& r) { return same_frame(r, result); }))
                << result.call << " at " << result.t_start << " s, " << result.freq_hz << " Hz";
            for (int32_t j = 0; j < i; j++) {
                EXPECT_FALSE(same_frame(results[static_cast<std::size_t>(j)], result)) << result.call << " twice";
            }
        }
        return count;
    };
    const auto expect_as_ever = [&](ovl_decoder* decoder) {
        Results results = unwritten_results();
        EXPECT_EQ(decode(decoder, results.data()), all);
        EXPECT_STREQ(ovl_last_error(decoder), "");
        EXPECT_TRUE(same(results, reference, all));
    };

    int64_t failed = 0;
    int64_t incomplete = 0;
    const int64_t refused = refuse_each_request(
        [&](FailingMemory& memory) {
            const int32_t count = try_decoder(used.get(), memory, false);
            failed += count < 0 ? 1 : 0;
            incomplete += count >= 0 && count < all ? 1 : 0;
        },
        DECODE_STRIDE);
    expect_as_ever(used.get());
    EXPECT_GT(refused, 50);
    EXPECT_GT(failed, 2 * 5);
    EXPECT_GT(incomplete, 5 / DECODE_STRIDE);

    for (const int64_t n : {1, 2, 3, 20}) {
        SCOPED_TRACE(n);
        const Decoder decoder = make_decoder();
        FailingMemory memory(n);
        try_decoder(decoder.get(), memory, true);
        EXPECT_TRUE(memory.has_refused());
        expect_as_ever(decoder.get());
    }
}

TEST(DecoderMemory, WithoutItNoneIsMade) {
    EXPECT_EQ(refuse_each_request([](FailingMemory& memory) {
                  ovl_decoder* const decoder = memory.watch([] { return ovl_create(); });
                  EXPECT_EQ(decoder == nullptr, memory.has_refused());
                  if (decoder != nullptr) {
                      EXPECT_STREQ(ovl_last_error(decoder), "");
                  }
                  ovl_destroy(decoder);
              }),
              1);
}

void refuse_to_decode_scene(const Scene& scene, int32_t protocols, int32_t expected, int32_t deep) {
    const std::vector<float> samples = to_float(render_real(scene));
    const ovl_settings settings = settings_of(protocols);
    refuse_to_decode(expected, deep, [&](ovl_decoder* decoder, ovl_result* results) {
        return ovl_decode(decoder, samples.data(), count_of(samples), RATE, &settings, results, ROOM);
    });
}

TEST(DecoderMemory, ADecodeOfOperaTellsOrLeavesOutWhatItCannotHold) {
    refuse_to_decode_scene(opera_scene(), OVL_OPERA, 2, 1);
}

TEST(DecoderMemory, ADecodeOfOrvelSTellsOrLeavesOutWhatItCannotHold) {
    refuse_to_decode_scene(orvel_s_scene(), OVL_ORVEL_S, 1, 0);
}

TEST(DecoderMemory, ADecodeOfOrvelLTellsOrLeavesOutWhatItCannotHold) {
    refuse_to_decode_scene(orvel_l_scene(), OVL_ORVEL_L, 1, 0);
}

// A frame of each protocol is found at the same place, and one of them is a phantom of the other.
TEST(DecoderMemory, APhantomGoesWithoutItToo) {
    for (const int32_t protocol : {OVL_OPERA, OVL_ORVEL_S}) {
        const std::vector<float> samples = to_float(render_real(crowded_scene()));
        const ovl_settings settings = settings_of(protocol);
        Results results;
        EXPECT_EQ(
            ovl_decode(make_decoder().get(), samples.data(), count_of(samples), RATE, &settings, results.data(), ROOM),
            1);
    }
    const std::vector<float> samples = to_float(render_real(crowded_scene()));
    const ovl_settings settings = settings_of(OVL_OPERA | OVL_ORVEL_S);
    const Decoder decoder = make_decoder();
    Results results;
    const auto decode = [&] {
        return ovl_decode(decoder.get(), samples.data(), count_of(samples), RATE, &settings, results.data(), ROOM);
    };
    ASSERT_EQ(decode(), 1);
    ASSERT_STREQ(results[0].call, "SM5XYZ");
    int64_t decoded = 0;
    refuse_each_request(
        [&](FailingMemory& memory) {
            const int32_t count = memory.watch(decode);
            EXPECT_LE(count, 1);
            if (count != 1) return;
            decoded++;
            // The phantom alone is left when there was no memory to find what it is one of.
            const std::string call = results[0].call;
            EXPECT_TRUE(call == "SM5XYZ" || (call == "K1ABC" && memory.has_refused())) << call;
        },
        DECODE_STRIDE);
    EXPECT_GT(decoded, 20 / DECODE_STRIDE);
}

TEST(DecoderMemory, ADecodeOfRecentFramesTellsOrLeavesOutWhatItCannotHold) {
    const std::vector<float> samples = to_float(render_real(opera_scene_with_end()));
    const ovl_settings settings = settings_of(OVL_OPERA);
    refuse_to_decode(1, 1, [&](ovl_decoder* decoder, ovl_result* results) {
        return ovl_decode_recent(decoder, samples.data(), count_of(samples), RATE, &settings, 5, results, ROOM);
    });
}

TEST(DecoderMemory, AGrowingBlockThatDoesNotFitLeavesTheDecoderAsItWas) {
    const std::vector<float> samples = to_float(render_real(opera_scene()));
    const ovl_settings settings = settings_of(OVL_OPERA);
    const Decoder decoder = make_decoder();
    Results results = unwritten_results();
    const int32_t shorter = count_of(samples) - RATE;
    const auto decode = [&](int32_t n) {
        return ovl_decode(decoder.get(), samples.data(), n, RATE, &settings, results.data(), ROOM);
    };
    const int32_t first = decode(shorter);
    EXPECT_GT(first, 0);
    const Results reference = results;

    FailingMemory memory(1);
    EXPECT_EQ(memory.watch([&] { return decode(count_of(samples)); }), -1);
    EXPECT_STREQ(ovl_last_error(decoder.get()), "out of memory");
    EXPECT_EQ(memory.requests(), 1);
    results = unwritten_results();
    EXPECT_EQ(decode(shorter), first);
    EXPECT_TRUE(same(results, reference, first));
}

TEST(KeyedMemory, WithoutItNothingIsWritten) {
    const std::vector<float> samples = to_float([] {
        Scene scene;
        scene.rate = 4000;
        scene.seconds = 12;
        scene.stations = {station(OVL_OPERA, "K1ABC", -2, 1480, 0), station(OVL_OPERA, "DL1ABC", -1, 1530, 3)};
        return render_real(scene);
    }());
    ovl_settings settings;
    ovl_settings_default(&settings);
    using Hits = std::array<ov_hit, 8>;
    const auto look = [&](Hits& hits) {
        hits.fill({UNWRITTEN, UNWRITTEN});
        return ovl_keyed(samples.data(), count_of(samples), 4000, &settings, 10, 6, hits.data(), count_of(hits));
    };
    const auto same_hit = [](const ov_hit& a, const ov_hit& b) { return a.freq_hz == b.freq_hz && a.z == b.z; };
    Hits reference;
    const int32_t found = look(reference);
    ASSERT_GE(found, 2);
    int64_t failures = 0;
    refuse_each_request([&](FailingMemory& memory) {
        Hits hits;
        const int32_t count = memory.watch([&] { return look(hits); });
        if (count == -1 && memory.has_refused()) {
            failures++;
            EXPECT_EQ(hits[0].freq_hz, UNWRITTEN);
        } else {
            EXPECT_EQ(count, found);
            EXPECT_TRUE(std::equal(hits.begin(), hits.end(), reference.begin(), same_hit));
        }
    });
    EXPECT_GT(failures, 2 * 7);
}

// ---- Transmitters and captured audio -------------------------------------------------------------------------------

TEST(TransmitterMemory, WithoutItNoneIsMade) {
    EXPECT_EQ(refuse_each_request([](FailingMemory& memory) {
                  ovl_transmitter* const tx = memory.watch([] { return ovl_tx_create(); });
                  EXPECT_EQ(tx == nullptr, memory.has_refused());
                  ovl_tx_destroy(tx);
              }),
              1);
}

TEST(TransmitterMemory, AStartWithoutItLeavesSilence) {
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    settings.sample_rate = 8000;
    ovl_tx_step frame{};
    frame.kind = OVL_TX_FRAME;
    frame.protocol = OVL_ORVEL_L;
    std::strcpy(frame.call, "DL1ABC");
    std::strcpy(frame.locator, "JN18");
    const std::array<ovl_tx_step, 6> steps = {frame, frame, frame, frame, frame, frame};  // more than fit at first
    using Samples = std::array<float, 2000>;
    const auto expect_started = [&](ovl_transmitter* tx, int32_t n, const Samples& expected) {
        EXPECT_EQ(ovl_tx_start(tx, &settings, steps.data(), n), 0);
        EXPECT_STREQ(ovl_tx_last_error(tx), "");
        Samples samples;
        EXPECT_EQ(ovl_tx_render(tx, samples.data(), count_of(samples)), count_of(samples));
        EXPECT_EQ(samples, expected);
    };
    Samples reference;
    ovl_transmitter* const model = ovl_tx_create();
    EXPECT_EQ(ovl_tx_start(model, &settings, steps.data(), 6), 0);
    EXPECT_EQ(ovl_tx_render(model, reference.data(), count_of(reference)), count_of(reference));
    ovl_tx_destroy(model);
    EXPECT_GT(*std::max_element(reference.begin(), reference.end()), 0.4f);

    for (const bool is_used : {false, true}) {
        SCOPED_TRACE(is_used);
        const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
            ovl_transmitter* const tx = ovl_tx_create();
            if (is_used) expect_started(tx, 1, reference);
            const int32_t result = memory.watch([&] { return ovl_tx_start(tx, &settings, steps.data(), 6); });
            EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
            EXPECT_STREQ(ovl_tx_last_error(tx), memory.has_refused() ? "out of memory" : "");
            if (memory.has_refused()) {
                Samples samples;
                samples.fill(1);
                EXPECT_EQ(ovl_tx_render(tx, samples.data(), count_of(samples)), 0);
                EXPECT_EQ(samples, Samples{});
                ovl_tx_progress progress;
                ovl_tx_status(tx, &progress);
                EXPECT_EQ(progress.done, 1);
                EXPECT_EQ(progress.step, -1);
                EXPECT_EQ(progress.total_s, 0);
            }
            expect_started(tx, 6, reference);
            ovl_tx_destroy(tx);
        });
        EXPECT_GE(refused, is_used ? 2 : 3);
    }
}

TEST(CaptureMemory, WithoutItNoAudioObjectIsMade) {
    EXPECT_EQ(refuse_each_request([](FailingMemory& memory) {
                  ovl_audio* const audio = memory.watch([] { return ovl_audio_create(); });
                  EXPECT_EQ(audio == nullptr, memory.has_refused());
                  ovl_audio_destroy(audio);
              }),
              1);
}

TEST(CaptureMemory, AStartWithoutItEndsCapture) {
    std::array<float, 4800> samples;
    for (std::size_t i = 0; i < samples.size(); i++)
        samples[i] = static_cast<float>(std::sin(0.05 * static_cast<double>(i)));
    using Newest = std::array<float, 600>;
    const auto start_and_push = [&](ovl_audio* audio) {
        EXPECT_EQ(ovl_audio_start_input(audio, OVL_AUDIO_NONE, 48000, 2), 0);
        EXPECT_STREQ(ovl_audio_last_error(audio), "");
        EXPECT_EQ(ovl_audio_push(audio, samples.data(), count_of(samples), 1), count_of(samples));
        Newest newest{};
        EXPECT_EQ(ovl_audio_last(audio, newest.data(), count_of(newest)), count_of(newest));
        return newest;
    };
    ovl_audio* const audio = ovl_audio_create();
    const Newest reference = start_and_push(audio);
    EXPECT_GT(*std::max_element(reference.begin(), reference.end()), 0.9f);
    EXPECT_EQ(refuse_each_request([&](FailingMemory& memory) {
                  const int32_t result =
                      memory.watch([&] { return ovl_audio_start_input(audio, OVL_AUDIO_NONE, 48000, 2); });
                  EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                  EXPECT_STREQ(ovl_audio_last_error(audio), memory.has_refused() ? "out of memory" : "");
                  if (memory.has_refused()) {
                      EXPECT_EQ(memory.live_blocks(), 0);
                      ovl_audio_stats stats;
                      ovl_audio_input_stats(audio, &stats);
                      EXPECT_EQ(stats.rate, 0);
                      Newest newest{};
                      EXPECT_EQ(ovl_audio_last(audio, newest.data(), count_of(newest)), 0);
                      EXPECT_EQ(ovl_audio_push(audio, samples.data(), count_of(samples), 1), -1);
                  }
                  EXPECT_EQ(start_and_push(audio), reference);
                  ovl_audio_stop_input(audio);
              }),
              4);
    ovl_audio_destroy(audio);
}

// ---- Samples to candidates -----------------------------------------------------------------------------------------

bool same_bins(const std::complex<double>* a, const std::complex<double>* b, int32_t n) {
    return std::equal(a, a + n, b);
}

// make(spectrum) fails with an empty record or makes what it always does.
template <class Make>
void refuse_spectrum(Make make) {
    SpectrumOwner reference;
    ASSERT_EQ(make(reference), 0);
    EXPECT_EQ(refuse_each_request([&](FailingMemory& memory) {
                  ov_spectrum spectrum = reference;
                  const int result = memory.watch([&] { return make(spectrum); });
                  EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                  if (memory.has_refused()) {
                      EXPECT_EQ(spectrum.bins, nullptr);
                      EXPECT_EQ(spectrum.nfft, 0);
                      EXPECT_EQ(spectrum.nbins, 0);
                      EXPECT_EQ(spectrum.rate, 0);
                  } else {
                      EXPECT_EQ(spectrum.nbins, reference.nbins);
                      EXPECT_TRUE(same_bins(spectrum.bins, reference.bins, reference.nbins));
                  }
                  ov_spectrum_free(spectrum);
              }),
              2);  // the bins, and what FFTW will need
}

template <class Make>
void refuse_baseband(int64_t requests, Make make) {
    BasebandOwner reference;
    ASSERT_EQ(make(reference), 0);
    EXPECT_EQ(refuse_each_request([&](FailingMemory& memory) {
                  ov_baseband bb = reference;
                  const int result = memory.watch([&] { return make(bb); });
                  EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                  if (memory.has_refused()) {
                      EXPECT_EQ(bb.samples, nullptr);
                      EXPECT_EQ(bb.n, 0);
                      EXPECT_EQ(bb.rate, 0);
                  } else {
                      EXPECT_EQ(bb.n, reference.n);
                      EXPECT_TRUE(same_bins(bb.samples, reference.samples, reference.n));
                  }
                  ov_baseband_free(bb);
              }),
              requests);
}

TEST(FrontEndMemory, ASpectrumWithoutItIsEmpty) {
    const std::vector<double> x = render_real(opera_scene());
    const IqSamples iq = render_centred_iq(opera_scene());
    refuse_spectrum([&](ov_spectrum& out) { return ov_spectrum_real(x.data(), count_of(x), RATE, 250, out); });
    refuse_spectrum(
        [&](ov_spectrum& out) { return ov_spectrum_iq(iq.i.data(), iq.q.data(), count_of(iq.i), RATE, 250, out); });
}

TEST(FrontEndMemory, ABasebandWithoutItIsEmpty) {
    const std::vector<double> x = render_real(opera_scene());
    const IqSamples iq = render_centred_iq(opera_scene());
    SpectrumOwner spectrum;
    ASSERT_EQ(ov_spectrum_real(x.data(), count_of(x), RATE, 250, spectrum), 0);
    refuse_baseband(2, [&](ov_baseband& out) { return ov_baseband_extract(spectrum, CENTRE_HZ, out); });
    refuse_baseband(
        4, [&](ov_baseband& out) { return ov_baseband_real(x.data(), count_of(x), RATE, CENTRE_HZ, 250, out); });
    refuse_baseband(4, [&](ov_baseband& out) {
        return ov_baseband_iq(iq.i.data(), iq.q.data(), count_of(iq.i), RATE, 0, 250, out);
    });
}

TEST(SearchMemory, AScoreMapWithoutItIsEmpty) {
    const Received received;
    for (const double spread_hz : {0.0, 20.0}) {
        SCOPED_TRACE(spread_hz);
        MapOwner reference;
        ASSERT_EQ(ov_spectrogram(received.bb, CHIP_SECONDS, SEARCH_HZ, spread_hz, reference), 0);
        const auto n_cells = static_cast<std::ptrdiff_t>(reference.npos) * reference.nbins;
        EXPECT_GE(refuse_each_request([&](FailingMemory& memory) {
                      ov_specmap map = reference;
                      const int result = memory.watch(
                          [&] { return ov_spectrogram(received.bb, CHIP_SECONDS, SEARCH_HZ, spread_hz, map); });
                      EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                      if (memory.has_refused()) {
                          EXPECT_EQ(map.power, nullptr);
                          EXPECT_EQ(map.noise, nullptr);
                          EXPECT_EQ(map.npos, 0);
                          EXPECT_EQ(map.pairs, 0);
                      } else {
                          EXPECT_TRUE(std::equal(map.power, map.power + n_cells, reference.power));
                          EXPECT_TRUE(std::equal(map.noise, map.noise + map.nbins, reference.noise));
                      }
                      ov_spectrogram_free(map);
                  }),
                  6);
    }
}

TEST(SearchMemory, CandidatesAreAllFoundOrTheSearchFails) {
    const Received received;
    for (const ov_specmap* map : std::array<const ov_specmap*, 2>{&received.map, &received.orvel_map}) {
        using Candidates = std::array<ov_cand, 50>;
        const auto find = [&](Candidates& candidates) {
            return ov_find_candidates(*map, -1e9, 1e9, SEARCH_HZ, 0.2, 3, count_of(candidates), candidates.data(),
                                      nullptr, nullptr);
        };
        Candidates reference{};
        const int32_t found = find(reference);
        ASSERT_GT(found, 3);
        int64_t failures = 0;
        const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
            Candidates candidates{};
            const int32_t count = memory.watch([&] { return find(candidates); });
            failures += count < 0 ? 1 : 0;
            if (count < 0 && memory.has_refused()) {
                EXPECT_EQ(count, -1);
                return;
            }
            ASSERT_EQ(count, found);  // sorting can do without
            EXPECT_TRUE(std::equal(candidates.begin(), candidates.begin() + found, reference.begin(),
                                   [](const ov_cand& a, const ov_cand& b) {
                                       return a.pos == b.pos && a.bin == b.bin && a.score == b.score && a.z == b.z;
                                   }));
        });
        EXPECT_GT(refused, 5);
        EXPECT_GT(failures, 2 * 3);
    }
}

TEST(SearchMemory, RowsOfGroupsAreMadeOrThrow) {
    const Received received;
    ov_grid grid;
    ASSERT_TRUE(ov_search_grid(received.map, OVC_CHIPS, -1e9, 1e9, SEARCH_HZ, 0.2, grid));
    for (const auto keep : {ov_group_rows::Keep::BEST, ov_group_rows::Keep::WORDS}) {
        EXPECT_GE(refuse_each_request([&](FailingMemory& memory) {
                      bool thrown = false;
                      memory.watch([&] {
                          try {
                              ov_group_rows rows(received.map, grid, keep);
                              rows.advance(grid.first_row);
                          } catch (const std::bad_alloc&) {
                              thrown = true;
                          }
                      });
                      EXPECT_EQ(thrown, memory.has_refused());
                  }),
                  2);
    }
}

TEST(SearchMemory, ADeepSearchFindsAllOrFails) {
    const Received received;
    using Hits = std::array<ovc_deep_hit, 8>;
    const auto search = [&](Hits& hits) {
        return ovc_deep_search(&received.map, received.known.data(), 3, -1e9, 1e9, SEARCH_HZ, 0.2, 0.01, count_of(hits),
                               hits.data(), nullptr);
    };
    Hits reference{};
    const int32_t found = search(reference);
    ASSERT_GE(found, 2);
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  Hits hits{};
                  const int32_t count = memory.watch([&] { return search(hits); });
                  EXPECT_EQ(count, memory.has_refused() ? -1 : found);
                  if (memory.has_refused()) return;
                  EXPECT_TRUE(std::equal(
                      hits.begin(), hits.end(), reference.begin(), [](const ovc_deep_hit& a, const ovc_deep_hit& b) {
                          return a.known == b.known && a.pos == b.pos && a.column == b.column && a.z == b.z;
                      }));
              }),
              8);
}

// ---- Candidates to frames ------------------------------------------------------------------------------------------

bool same_hypothesis(const ov_hyp& a, const ov_hyp& b) {
    return a.start == b.start && a.f == b.f && a.drift == b.drift && a.metric == b.metric && a.n_in == b.n_in &&
           std::equal(std::begin(a.energy), std::end(a.energy), b.energy) &&
           std::equal(std::begin(a.soft), std::end(a.soft), b.soft);
}

// refine(hyp) fails with hyp untouched or makes what it always does.
template <class Refine>
void refuse_refinement(Refine refine) {
    ov_hyp reference{};
    ASSERT_EQ(refine(reference), 0);
    ov_hyp untouched{};
    untouched.metric = UNWRITTEN;
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  ov_hyp hyp = untouched;
                  const int result = memory.watch([&] { return refine(hyp); });
                  EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                  EXPECT_TRUE(same_hypothesis(hyp, memory.has_refused() ? untouched : reference));
              }),
              5);
}

TEST(RefinementMemory, ACandidateIsRefinedOrLeft) {
    const Received received;
    ov_specmap map = received.map;
    for (const int32_t spread : {0, 5}) {
        map.spread = spread;
        refuse_refinement([&](ov_hyp& hyp) { return ov_refine(received.bb, map, received.cand, 0.1, 0.2, hyp); });
    }
}

TEST(RefinementMemory, AFrameMovedByChipsIsMeasuredWithoutIt) {
    const Received received;
    ov_specmap map = received.map;
    map.spread = 5;
    ov_hyp reference{};
    ASSERT_EQ(ov_fit_shift(received.bb, map, received.hyp, 2, 0.2, reference), 0);
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  ov_hyp hyp{};
                  const int result =
                      memory.watch([&] { return ov_fit_shift(received.bb, map, received.hyp, 2, 0.2, hyp); });
                  EXPECT_EQ(result, 0);
                  EXPECT_TRUE(same_hypothesis(hyp, reference));
              }),
              5);
}

TEST(RefinementMemory, ADeepHitIsRefinedOrLeft) {
    const Received received;
    refuse_refinement([&](ov_hyp& hyp) {
        return ovc_deep_refine(received.bb, &received.map,
                               &received.known[static_cast<std::size_t>(received.hit.known)], &received.hit, 0.1, 0.2,
                               hyp);
    });
}

TEST(RefinementMemory, ASearchAroundAPlaceFailsWithoutIt) {
    const Received received;
    ov_hyp best{};
    int64_t judged = 0;
    const std::function<void(const ov_measured&)> judge = [&](const ov_measured& measured) {
        judged++;
        if (!(measured.energy[0] > best.metric)) return;
        best.metric = measured.energy[0];
        best.start = measured.start;
        best.f = measured.f;
        best.drift = measured.drift;
    };
    const auto search = [&] {
        best = {};
        best.metric = -1e300;
        judged = 0;
        return ov_search_around(received.bb, received.map, received.hyp.start, received.hyp.f, 0.1, best, judge);
    };
    ASSERT_EQ(search(), 0);
    const int64_t all = judged;
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  const int result = memory.watch(search);
                  EXPECT_EQ(result, memory.has_refused() ? -1 : 0);
                  EXPECT_TRUE(memory.has_refused() || judged == all);
              }),
              5);
}

// Whether a call of C++ succeeds; it may throw when memory was refused.
template <class Call>
bool succeeds(FailingMemory& memory, Call call) {
    try {
        memory.watch(call);
        return true;
    } catch (const std::bad_alloc&) {
        EXPECT_TRUE(memory.has_refused());
    } catch (const ovl::Error&) {  // of a block that could not be decoded without
        EXPECT_TRUE(memory.has_refused());
    }
    return false;
}

TEST(RefinementMemory, AMeterThrowsAndMeasuresAllTheSameAfterwards) {
    const Received received;
    const StartGrid starts{received.hyp.start, 3, 1};
    const std::array freqs = {received.hyp.f, received.hyp.f + 0.5};
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  const bool measured = succeeds(memory, [&] {
                      ChipMeter meter(received.bb, received.map.chip_len, OVC_CHIPS);
                      meter.measure(starts, freqs, 0.02);
                  });
                  EXPECT_NE(measured, memory.has_refused());
              }),
              5);
    const auto total = [&](const ChipMeter& meter) {
        double sum = 0;
        for (int32_t s = 0; s < starts.count; s++) {
            for (std::size_t f = 0; f < freqs.size(); f++) {
                sum = std::accumulate(meter.energies(s, f), meter.energies(s, f) + OVC_CHIPS, sum);
            }
        }
        return sum;
    };
    ChipMeter model(received.bb, received.map.chip_len, OVC_CHIPS);
    model.measure(starts, freqs, 0.02);
    const double reference = total(model);
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  ChipMeter meter(received.bb, received.map.chip_len, OVC_CHIPS);
                  bool thrown = false;
                  memory.watch([&] {
                      try {
                          meter.measure(starts, freqs, 0.02);
                      } catch (const std::bad_alloc&) {
                          thrown = true;
                      }
                  });
                  EXPECT_EQ(thrown, memory.has_refused());
                  meter.measure(starts, freqs, 0.02);
                  EXPECT_EQ(total(meter), reference);
              }),
              5);
}

TEST(RefinementMemory, AMeterOfDriftsThrowsAndMeasuresAllTheSameAfterwards) {
    const Received received;
    const DriftGrid grid{received.hyp.f, 0.1, 2, 0.01, 3};
    DriftMeter used(received.bb, received.map.chip_len, OVC_CHIPS);
    ASSERT_TRUE(used.measure(received.hyp.start, grid));
    const std::vector<float> reference(used.energies(2, -3), used.energies(2, -3) + OVC_CHIPS);
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  std::optional<DriftMeter> meter;
                  const bool measured = succeeds(memory, [&] {
                      meter.emplace(received.bb, received.map.chip_len, OVC_CHIPS);
                      meter->measure(received.hyp.start, grid);
                  });
                  EXPECT_NE(measured, memory.has_refused());
                  if (!meter) return;
                  EXPECT_TRUE(meter->measure(received.hyp.start, grid));
                  EXPECT_TRUE(std::equal(reference.begin(), reference.end(), meter->energies(2, -3)));
              }),
              5);
}

TEST(FrameMemory, SnrFallsBackToWhatNeedsNone) {
    const Received received(4 * BASEBAND_RATE);
    std::array<uint8_t, OVC_CHIPS> chips;
    ASSERT_EQ(ovc_encode("K1ABC", chips.data(), nullptr), 0);
    const double plain = ov_estimate_snr(received.hyp, chips.data(), CHIP_SECONDS);
    const auto estimate = [&] {
        return ov_estimate_snr_bb(received.bb, received.map, received.hyp, chips.data(), CHIP_SECONDS);
    };
    const double reference = estimate();
    ASSERT_NE(reference, plain);
    EXPECT_GT(refuse_each_request([&](FailingMemory& memory) {
                  const double snr_db = memory.watch(estimate);
                  EXPECT_EQ(snr_db, memory.has_refused() ? plain : reference);
              }),
              2);
}

TEST(FrameMemory, FramesAreListedWithoutIt) {
    const Received received;
    using Frames = std::array<ovc_frame, 100>;
    const auto list = [&](Frames& frames) {
        return ovc_list_frames(received.hyp.soft, count_of(frames), frames.data());
    };
    Frames reference{};
    const int32_t listed = list(reference);
    ASSERT_EQ(listed, 100);
    const int64_t refused = refuse_each_request([&](FailingMemory& memory) {
        Frames frames{};
        EXPECT_EQ(memory.watch([&] { return list(frames); }), listed);
        EXPECT_TRUE(
            std::equal(frames.begin(), frames.end(), reference.begin(), [](const ovc_frame& a, const ovc_frame& b) {
                return a.metric == b.metric && std::equal(std::begin(a.rows), std::end(a.rows), b.rows);
            }));
    });
    EXPECT_GE(refused, 1);
}

TEST(FrameMemory, ASoftDecisionSucceedsOrLeavesItsReportAlone) {
    const Received received;
    int64_t failures = 0;
    refuse_each_request([&](FailingMemory& memory) {
        std::array<char, 7> call{};
        uint32_t value = 0;
        ovc_soft_info info{-77, -77, 0, 0};
        const int result =
            memory.watch([&] { return ovc_decode_soft(received.hyp.soft, 32, call.data(), &value, &info); });
        if (result == -1 && memory.has_refused()) {
            failures++;
            EXPECT_EQ(info.tried, -77);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_STREQ(call.data(), " K1ABC");
            EXPECT_EQ(info.index, 0);
        }
    });
    EXPECT_GE(failures, 2);
}

// ---- The pipeline --------------------------------------------------------------------------------------------------

constexpr int32_t SPOTS = 16;
using Spots = std::array<ov_spot, SPOTS>;

bool same_spot(const ov_spot& a, const ov_spot& b) {
    return std::strcmp(a.call, b.call) == 0 && a.t == b.t && a.freq == b.freq && a.snr == b.snr && a.drift == b.drift &&
           a.z == b.z && a.rank == b.rank && a.deep == b.deep && a.protocol == b.protocol &&
           std::strcmp(a.locator, b.locator) == 0;
}

// decode(spots) finds some of what it always finds, or fails if it may.
template <class Decode>
void refuse_pipeline(int32_t expected, bool may_fail, Decode decode) {
    Spots reference{};
    const int32_t all = decode(reference.data());
    ASSERT_EQ(all, expected);
    int64_t failures = 0;
    int64_t incomplete = 0;
    refuse_each_request(
        [&](FailingMemory& memory) {
            Spots spots{};
            const int32_t count = memory.watch([&] { return decode(spots.data()); });
            if (!memory.has_refused()) {
                ASSERT_EQ(count, all);
                EXPECT_TRUE(std::equal(spots.begin(), spots.begin() + all, reference.begin(), same_spot));
                return;
            }
            failures += count < 0 ? 1 : 0;
            incomplete += count >= 0 && count < all ? 1 : 0;
            EXPECT_GE(count, may_fail ? -1 : 0);
            ASSERT_LE(count, all);
            for (int32_t i = 0; i < count; i++) {
                const ov_spot& spot = spots[static_cast<std::size_t>(i)];
                EXPECT_TRUE(std::any_of(reference.begin(), reference.begin() + all, [&](const ov_spot& r) {
                    return std::strcmp(r.call, spot.call) == 0 && r.protocol == spot.protocol &&
                           std::fabs(r.t - spot.t) < 0.1 && std::fabs(r.freq - spot.freq) < 1;
                })) << spot.call;
            }
        },
        DECODE_STRIDE);
    EXPECT_EQ(failures > 0, may_fail);
    EXPECT_GT(incomplete, 5 / DECODE_STRIDE);
}

TEST(PipelineMemory, ARunFindsSomeOrFails) {
    const Received received;
    ov_params params = params_with(received.known);
    params.protocols = OVL_OPERA;
    refuse_pipeline(2, true, [&](ov_spot* spots) { return run(received.bb, params, spots, SPOTS); });
}

TEST(PipelineMemory, AnOrvelRunAddsSomeOrNone) {
    const std::vector<double> x = render_real(orvel_s_scene());
    BasebandOwner bb;
    MapOwner map;
    ASSERT_EQ(ov_baseband_real(x.data(), count_of(x), RATE, CENTRE_HZ, BASEBAND_RATE, bb), 0);
    ASSERT_EQ(ov_spectrogram(bb, CHIP_SECONDS, SEARCH_HZ, 0, map), 0);
    const std::array<ovc_known, 3> known = known_callsigns();
    const ov_params params = params_with(known);
    refuse_pipeline(1, false, [&](ov_spot* spots) { return run_orvel(bb, map, params, 0, 0.1, spots, 0, SPOTS); });
}

TEST(PipelineMemory, BlocksOfEitherKindAreDecodedOrFail) {
    const std::array<ovc_known, 3> known = known_callsigns();
    ov_params params = params_with(known);
    params.protocols = OVL_ORVEL_S;
    const std::vector<double> x = render_real(orvel_s_scene());
    refuse_pipeline(1, true,
                    [&](ov_spot* spots) { return ov_decode_real(x.data(), count_of(x), RATE, params, spots, SPOTS); });
    const IqSamples iq = render_centred_iq(orvel_s_scene());
    params.center_hz = 0;
    refuse_pipeline(1, true, [&](ov_spot* spots) {
        return ov_decode_iq(iq.i.data(), iq.q.data(), count_of(iq.i), RATE, params, spots, SPOTS);
    });
}

TEST(PipelineMemory, AWideBandIsDecodedInPartOrFails) {
    const std::array<ovc_known, 3> known = known_callsigns();
    ov_params params = params_with(known);
    params.protocols = OVL_OPERA;
    params.search_hz = 150;
    const Scene scene =
        scene_of({station(OVL_OPERA, "K1ABC", -1, 180, -10), station(OVL_OPERA, "DL1ABC", -2, 330, -6)});
    const std::vector<double> x = render_real(scene);
    refuse_pipeline(1, true, [&](ov_spot* spots) {
        return ov_decode_wide(x.data(), nullptr, count_of(x), RATE, params, 8, 1, spots, SPOTS);
    });
    const IqSamples iq = render_centred_iq(scene);
    params.center_hz = 0;
    refuse_pipeline(1, true, [&](ov_spot* spots) {
        return ov_decode_wide(iq.i.data(), iq.q.data(), count_of(iq.i), RATE, params, 8, 1, spots, SPOTS);
    });
}

TEST(PipelineMemory, AScanFindsAllOrFails) {
    const std::vector<double> x = render_real(opera_scene());
    using Hits = std::array<ov_hit, 8>;
    const auto scan = [&](Hits& hits) {
        return ov_scan(x.data(), nullptr, count_of(x), RATE, CHIP_SECONDS, 100, 400, 2, 15, count_of(hits), hits.data(),
                       nullptr, 0);
    };
    Hits reference{};
    const int32_t found = scan(reference);
    ASSERT_GE(found, 1);
    int64_t failures = 0;
    refuse_each_request([&](FailingMemory& memory) {
        Hits hits{};
        const int32_t count = memory.watch([&] { return scan(hits); });
        if (count == -1 && memory.has_refused()) {
            failures++;
            return;
        }
        EXPECT_EQ(count, found);
        EXPECT_TRUE(std::equal(hits.begin(), hits.end(), reference.begin(),
                               [](const ov_hit& a, const ov_hit& b) { return a.freq_hz == b.freq_hz && a.z == b.z; }));
    });
    EXPECT_GT(failures, 2 * 5);
}

// ---- The C++ header ------------------------------------------------------------------------------------------------

TEST(HeaderMemory, AnObjectIsMadeWholeOrNotAtAll) {
    EXPECT_EQ(refuse_each_request([](FailingMemory& memory) {
                  const bool made = succeeds(memory, [] { const ovl::Decoder decoder; });
                  EXPECT_NE(made, memory.has_refused());
              }),
              1);
    EXPECT_GE(refuse_each_request([](FailingMemory& memory) {
                  const bool made = succeeds(memory, [] { const ovl::Transmitter tx; });
                  EXPECT_NE(made, memory.has_refused());
              }),
              1);
    EXPECT_GE(refuse_each_request([](FailingMemory& memory) {
                  const bool made = succeeds(memory, [] { const ovl::Audio audio; });
                  EXPECT_NE(made, memory.has_refused());
              }),
              1);
}

TEST(HeaderMemory, CallsThrowAndWorkAfterwards) {
    const auto chips = ovl::encode(OVL_OPERA, "K1ABC");
    EXPECT_GE(refuse_each_request([&](FailingMemory& memory) {
                  std::vector<uint8_t> encoded;
                  const bool made = succeeds(memory, [&] { encoded = ovl::encode(OVL_OPERA, "K1ABC"); });
                  EXPECT_NE(made, memory.has_refused());
                  EXPECT_TRUE(!made || encoded == chips);
              }),
              1);

    const std::vector<float> samples = to_float(render_real(opera_scene()));
    const ovl_settings settings = settings_of(OVL_OPERA);
    const std::string known = KNOWN;
    ovl::Decoder decoder;
    EXPECT_EQ(decoder.set_known(known), 3);
    EXPECT_EQ(decoder.decode(samples, RATE, settings).size(), 2U);
    int64_t failures = 0;
    refuse_each_request(
        [&](FailingMemory& memory) {
            std::vector<ovl_result> results;
            if (!succeeds(memory, [&] { results = decoder.decode(samples, RATE, settings); })) {
                failures++;
                EXPECT_TRUE(results.empty());
            } else if (!memory.has_refused()) {
                EXPECT_EQ(results.size(), 2U);
            }
        },
        DECODE_STRIDE);
    EXPECT_GT(failures, 2 * 5);
    EXPECT_EQ(decoder.decode(samples, RATE, settings).size(), 2U);

    const std::array steps = {ovl::tx_carrier(0.5)};
    EXPECT_GE(refuse_each_request([&](FailingMemory& memory) {
                  ovl::Transmitter tx;
                  const bool started = succeeds(memory, [&] { tx.start(steps); });
                  EXPECT_NE(started, memory.has_refused());
                  tx.start(steps);
                  EXPECT_GT(tx.status().total_s, 0.5);
              }),
              1);
    EXPECT_GE(refuse_each_request([&](FailingMemory& memory) {
                  ovl::Audio audio;
                  const bool started = succeeds(memory, [&] { audio.start_input(OVL_AUDIO_NONE, 48000, 1); });
                  EXPECT_NE(started, memory.has_refused());
                  audio.start_input(OVL_AUDIO_NONE, 48000, 1);
                  EXPECT_EQ(audio.input_stats().rate, 12000);
              }),
              1);
}

// ---- What needs no memory ------------------------------------------------------------------------------------------

// Runs a call that is to ask for no memory, where there is none.
template <class Call>
auto without_memory(Call call) {
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    auto result = memory.watch(call);
    EXPECT_EQ(memory.requests(), 0);
    return result;
}

TEST(NoMemory, IsNeededForTablesAndFrames) {
    std::array<uint8_t, OV_MAX_CHIPS> chips{};
    for (const uint32_t protocol : {OVL_OPERA, OVL_ORVEL_S, OVL_ORVEL_L}) {
        EXPECT_GT(without_memory([&] { return ovl_frame_chips(protocol); }), 200);
        EXPECT_STRNE(without_memory([&] { return ovl_proto_name(protocol); }), "");
        EXPECT_EQ(without_memory([&] { return ovl_encode(protocol, "dl1abc", "JN18ab", chips.data(), 321); }),
                  ovl_frame_chips(protocol));
    }
    EXPECT_STRNE(without_memory([] { return ovl_version(); }), "");
    EXPECT_EQ(without_memory([] { return ovl_chip_seconds(); }), 0.128);

    std::array<uint8_t, OV_MAX_PAIRS> message{};
    std::array<uint8_t, OV_MAX_PAIRS> codeword{};
    std::array<float, OV_MAX_PAIRS> metrics{};
    double cost = 0;
    int32_t status = 0;
    const Received received;
    for (const int32_t mode : {0, 1}) {
        const ldpc_code& code = ov_code(mode);
        EXPECT_EQ(without_memory([&] {
                      ldpc_encode(code, message.data(), codeword.data());
                      return ldpc_syndrome_weight(code, codeword.data());
                  }),
                  0);
        for (std::size_t i = 0; i < metrics.size(); i++) metrics[i] = codeword[i] != 0 ? 2.0f : -2.0f;
        for (std::size_t i = 0; i < 12; i++) metrics[9 * i] = 0.1f;
        for (const int32_t passes : {0, 50}) {
            EXPECT_EQ(without_memory([&] {
                          return ldpc_decode(code, metrics.data(), passes, 2, 0, codeword.data(), message.data(), &cost,
                                             &status);
                      }),
                      0);
        }
        std::array<char, 7> call;
        std::array<char, 7> locator;
        without_memory([&] { return ov_check(mode, message.data(), call.data(), locator.data()); });
        EXPECT_GT(without_memory([&] {
                      return ov_llr(received.hyp.energy, received.hyp.energy + 1, ov_ncoded(mode), 1, metrics.data(),
                                    0);
                  }),
                  0);
    }
    static ldpc_code built;
    EXPECT_EQ(without_memory([] { return ldpc_build(built, 60, 30, 3, 1); }), 0);
}

TEST(NoMemory, IsNeededToSetUpADecoder) {
    const Decoder decoder = make_decoder();
    EXPECT_EQ(without_memory([&] { return ovl_set_known(decoder.get(), "DL1ABC, K1ABC; nonsense"); }), 2);
    EXPECT_STREQ(without_memory([&] { return ovl_last_error(decoder.get()); }), "");
    EXPECT_EQ(without_memory([&] { return ovl_set_known(nullptr, KNOWN); }), -1);
    EXPECT_STREQ(without_memory([] { return ovl_last_error(nullptr); }), "no decoder");
    ovl_settings settings;
    EXPECT_EQ(without_memory([&] {
                  ovl_settings_default(&settings);
                  return settings.protocols;
              }),
              7);
    EXPECT_EQ(without_memory([&] { return ovl_decode(decoder.get(), nullptr, 0, 0, &settings, nullptr, 0); }), -1);
    EXPECT_STREQ(ovl_last_error(decoder.get()), "invalid argument");
}

TEST(NoMemory, IsNeededWhileSoundRuns) {
    ovl_transmitter* const tx = ovl_tx_create();
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    ovl_tx_step step{};
    step.kind = OVL_TX_CARRIER;
    step.seconds = 1;
    ASSERT_EQ(ovl_tx_start(tx, &settings, &step, 1), 0);
    std::array<float, 2000> samples{};
    EXPECT_EQ(without_memory([&] { return ovl_tx_render(tx, samples.data(), 2000); }), 2000);
    EXPECT_EQ(without_memory([&] { return ovl_tx_set_level(tx, 0.1); }), 0);
    ovl_tx_progress progress;
    EXPECT_EQ(without_memory([&] {
                  ovl_tx_status(tx, &progress);
                  ovl_tx_stop(tx);
                  return progress.keyed;
              }),
              1);
    EXPECT_LT(without_memory([&] { return ovl_tx_render(tx, samples.data(), 2000); }), 2000);
    // The next one finds the memory of the first.
    EXPECT_EQ(without_memory([&] { return ovl_tx_start(tx, &settings, &step, 1); }), 0);

    ovl_audio* const audio = ovl_audio_create();
    ASSERT_EQ(ovl_audio_start_input(audio, OVL_AUDIO_NONE, 48000, 2), 0);
    EXPECT_EQ(without_memory([&] { return ovl_audio_push(audio, samples.data(), 1000, 2); }), 1000);
    EXPECT_EQ(without_memory([&] { return ovl_audio_last(audio, samples.data(), 100); }), 100);
    ovl_audio_stats stats;
    EXPECT_EQ(without_memory([&] {
                  ovl_audio_input_stats(audio, &stats);
                  ovl_audio_stop_input(audio);
                  ovl_audio_stop_output(audio);
                  return stats.rate;
              }),
              12000);
    ovl_transmitter* const silent = ovl_tx_create();
    EXPECT_EQ(without_memory([&] { return ovl_audio_start_output(audio, -1, silent); }), -1);
    EXPECT_STREQ(ovl_audio_last_error(audio), "no transmit sequence prepared");
    EXPECT_EQ(without_memory([&] {
                  return ovl_audio_output_latency(audio) + ovl_audio_output_started(audio) +
                         ovl_audio_output_active(audio);
              }),
              0);
    ovl_tx_destroy(silent);
    ovl_audio_destroy(audio);
    ovl_tx_destroy(tx);
}

TEST(NoMemory, IsNeededToMeasureAndJudgeAFrame) {
    const Received received;
    std::array<float, OV_MAX_CHIPS> energies;
    const ov_hyp& best = received.hyp;
    EXPECT_GT(without_memory([&] {
                  return ov_chip_energies_sp(received.bb, received.map, best.start, best.f, best.drift,
                                             energies.data());
              }),
              200);
    ov_hyp hyp{};
    hyp.metric = -1e300;
    EXPECT_EQ(without_memory([&] {
                  try_hyp(received.bb, received.map, best.start, best.f, best.drift, 1, hyp);
                  return hyp.metric;
              }),
              best.metric);
    EXPECT_EQ(without_memory([&] { return ov_fit_shift(received.bb, received.map, best, 0, 0.2, hyp); }), 0);
    hyp.metric = -1e300;
    EXPECT_GT(without_memory([&] {
                  try_deep(received.bb, received.map, received.known[2], best.start, best.f, best.drift, 1, hyp);
                  return hyp.metric;
              }),
              0);
    ovc_frame frame;
    EXPECT_EQ(ovc_list_frames(best.soft, 1, &frame), 1);
    std::array<char, 7> call{};
    uint32_t value = 0;
    EXPECT_EQ(without_memory([&] { return ovc_check_frame(&frame, call.data(), &value); }), 0);
    EXPECT_EQ(without_memory([&] { return ov_call_plausible(call.data()); }), 1);
    EXPECT_GT(without_memory([&] { return ovc_twin_margin(best.soft, &frame, 1, call.data()); }), 0);
    EXPECT_GT(without_memory([&] { return ovc_frame_metric(best.soft); }), 0);
    EXPECT_GT(without_memory([&] { return median_value(energies); }), 0);
    std::array<uint8_t, OVC_CHIPS> chips;
    EXPECT_EQ(without_memory([&] { return ovc_encode("K1ABC", chips.data(), nullptr); }), 0);
    EXPECT_GT(without_memory([&] { return ov_estimate_snr(best, chips.data(), CHIP_SECONDS); }), -20);
    double contrast = 0;
    double off_excess = 0;
    EXPECT_GT(without_memory([&] {
                  frame_consistency(best, chips.data(), contrast, off_excess);
                  return contrast;
              }),
              0);
    EXPECT_GT(without_memory([] { return ovc_deep_threshold(1e6, 1e-4); }), 5);
}

// ---- First use -----------------------------------------------------------------------------------------------------

// Each in a process of its own, which has used nothing of the library before.
class FirstUse : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void encode_first() {
    std::array<uint8_t, OV_MAX_CHIPS> chips{};
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    const int32_t n = memory.watch([&] { return ovl_encode(OVL_ORVEL_S, "DL1ABC", nullptr, chips.data(), 239); });
    std::_Exit(n == 239 && memory.requests() == 0 ? 42 : 1);
}

TEST_F(FirstUse, LoadsTheCodesWithoutMemory) {
    EXPECT_EXIT(encode_first(), testing::ExitedWithCode(42), "");
}

[[noreturn]] void load_broken_tables() {
    static std::array<ldpc_code, 2> codes;
    const ov_code_tables none{};
    FailingMemory memory(1, Refuses::ALL_FURTHER);
    memory.watch([&] { ov_load_codes(none, none, codes); });
    std::_Exit(1);
}

TEST_F(FirstUse, OfABrokenBuildEndsTheProcessWithoutMemoryToo) {
    EXPECT_EXIT(load_broken_tables(), testing::ExitedWithCode(3), "orvel: invalid LDPC tables");
}

// The first block that a process sees, where one request fails: what is missing then is there the next time.
[[noreturn]] void decode_first(int64_t n) {
    FailingMemory memory(n);
    Results results;
    ovl_decoder* const decoder = memory.watch([] { return ovl_create(); });
    if (decoder == nullptr) std::_Exit(n == 1 ? 42 : 1);
    std::vector<uint8_t> chips(239);
    const Scene scene = scene_of({{chips, -1, CENTRE_HZ, 0, -14, 0.3}});  // not encoded here: that loads the code
    const std::vector<float> noise = to_float(render_real(scene));
    const ovl_settings settings = settings_of(OVL_ORVEL_S);
    const auto decode = [&](const std::vector<float>& samples) {
        return ovl_decode(decoder, samples.data(), count_of(samples), RATE, &settings, results.data(), ROOM);
    };
    memory.watch([&] { return decode(noise); });
    if (!memory.has_refused()) std::_Exit(2);
    const std::vector<float> samples = to_float(render_real(orvel_s_scene()));
    std::_Exit(decode(samples) == 1 && std::strcmp(results[0].call, "SM5XYZ") == 0 ? 42 : 3);
}

TEST_F(FirstUse, OfADecoderMayFailAndTheSecondDoesNot) {
    for (const int64_t n : {1, 2, 3, 6}) {
        SCOPED_TRACE(n);
        EXPECT_EXIT(decode_first(n), testing::ExitedWithCode(42), "");
    }
}

}  // namespace
