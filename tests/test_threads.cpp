// Several decoders at work at once. Run under the thread sanitizer, this also finds data races.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "liborvel.h"
#include "recordings.h"

namespace {

struct Block {
    std::vector<float> samples;
    int32_t rate;
};

std::vector<ovl_result> decode(const Block& block) {
    const std::unique_ptr<ovl_decoder, void (*)(ovl_decoder*)> decoder(ovl_create(), ovl_destroy);
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.protocols = OVL_OPERA;
    std::vector<ovl_result> results(64);
    const int32_t count = ovl_decode(decoder.get(), block.samples.data(), static_cast<int32_t>(block.samples.size()),
                                     block.rate, &settings, results.data(), 64);
    EXPECT_GT(count, 0) << ovl_last_error(decoder.get());
    results.resize(static_cast<std::size_t>(std::max(count, 0)));
    return results;
}

// In a separate process, as ctest runs it, this is what loads the codes.
TEST(Threads, FirstUseOfTheCodesMayBeInSeveralAtOnce) {
    std::vector<std::vector<uint8_t>> frames(8, std::vector<uint8_t>(321));
    std::vector<std::thread> threads;
    for (std::vector<uint8_t>& frame : frames) {
        threads.emplace_back([&frame] { EXPECT_EQ(ovl_encode(OVL_ORVEL_L, "K1ABC", "FN42", frame.data(), 321), 321); });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::vector<uint8_t>& frame : frames) EXPECT_TRUE(frame == frames.front());
}

// Also in a separate process: transforms are planned, codes loaded, notes written for the first time by eight at once.
TEST(Threads, FirstUseOfEverythingMayBeInSeveralAtOnce) {
    struct Outcome {
        std::vector<ovl_result> results;
        int32_t n_recent = 0;
        int32_t n_known = 0, n_chips = 0, n_hits = 0, rendered = 0, captured = 0;
    };
    const auto use_everything = [](const std::vector<float>& samples, Outcome& out) {
        const std::unique_ptr<ovl_decoder, void (*)(ovl_decoder*)> decoder(ovl_create(), ovl_destroy);
        ovl_settings settings;
        ovl_settings_default(&settings);
        settings.search_hz = 50;  // the thread sanitizer is slow
        out.n_known = ovl_set_known(decoder.get(), "K1ABC DL1QXA");
        out.results.resize(8);
        const auto n = static_cast<int32_t>(samples.size());
        const int32_t count = ovl_decode(decoder.get(), samples.data(), n, 8000, &settings, out.results.data(), 8);
        out.results.resize(static_cast<std::size_t>(std::max(count, 0)));
        ovl_result recent[8];
        out.n_recent = ovl_decode_recent(decoder.get(), samples.data(), n, 8000, &settings, 10, recent, 8);
        ov_hit hits[8];
        ovl_settings_default(&settings);
        out.n_hits = ovl_keyed(samples.data(), n, 8000, &settings, 30, 6, hits, 8);
        uint8_t chips[321];
        out.n_chips = ovl_encode(OVL_ORVEL_L, "K1ABC", "FN42", chips, 321);

        const std::unique_ptr<ovl_transmitter, void (*)(ovl_transmitter*)> tx(ovl_tx_create(), ovl_tx_destroy);
        ovl_tx_settings tone;
        ovl_tx_settings_default(&tone);
        ovl_tx_step step{};
        step.kind = OVL_TX_FRAME;
        step.protocol = OVL_ORVEL_S;
        std::strcpy(step.call, "K1ABC");
        ovl_tx_start(tx.get(), &tone, &step, 1);
        std::vector<float> buffer(4800);
        out.rendered = ovl_tx_render(tx.get(), buffer.data(), 4800);

        const std::unique_ptr<ovl_audio, void (*)(ovl_audio*)> audio(ovl_audio_create(), ovl_audio_destroy);
        ovl_audio_start_input(audio.get(), OVL_AUDIO_NONE, 48000, 1);
        ovl_audio_push(audio.get(), buffer.data(), 4800, 1);
        out.captured = ovl_audio_last(audio.get(), buffer.data(), 4800);
    };

    Scene scene;
    scene.rate = 8000;
    scene.seconds = 34;
    Station station;
    station.chips.resize(239);
    ASSERT_EQ(ovl_encode(OVL_OPERA, "K1ABC", nullptr, station.chips.data(), 239), 239);
    station.t_start = 2;
    station.freq_hz = 1480;
    station.snr_db = -10;
    scene.stations.push_back(station);
    const std::vector<float> samples = to_float(render_real(scene));

    std::vector<Outcome> outcomes(8);
    std::vector<std::thread> threads;
    for (Outcome& outcome : outcomes) threads.emplace_back([&] { use_everything(samples, outcome); });
    for (std::thread& thread : threads) thread.join();

    Outcome alone;
    use_everything(samples, alone);
    ASSERT_EQ(alone.results.size(), 1u);
    EXPECT_STREQ(alone.results.front().call, "K1ABC");
    EXPECT_EQ(alone.n_recent, 1);
    EXPECT_EQ(alone.n_known, 2);
    EXPECT_EQ(alone.n_chips, 321);
    EXPECT_EQ(alone.n_hits, 1);
    EXPECT_EQ(alone.rendered, 4800);
    EXPECT_EQ(alone.captured, 1200);
    for (const Outcome& outcome : outcomes) {
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_EQ(std::memcmp(outcome.results.data(), alone.results.data(), sizeof(ovl_result)), 0);
        EXPECT_EQ(outcome.n_recent, alone.n_recent);
        EXPECT_EQ(outcome.n_known, alone.n_known);
        EXPECT_EQ(outcome.n_chips, alone.n_chips);
        EXPECT_EQ(outcome.n_hits, alone.n_hits);
        EXPECT_EQ(outcome.rendered, alone.rendered);
        EXPECT_EQ(outcome.captured, alone.captured);
    }
}

TEST(Threads, ATransmissionIsControlledAndWatchedWhileItIsRendered) {
    const std::unique_ptr<ovl_transmitter, void (*)(ovl_transmitter*)> tx(ovl_tx_create(), ovl_tx_destroy);
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    ovl_tx_step step{};
    step.kind = OVL_TX_CARRIER;
    step.seconds = 3600;
    ASSERT_EQ(ovl_tx_start(tx.get(), &settings, &step, 1), 0);

    std::thread renderer([&] {
        std::vector<float> buffer(480);
        while (ovl_tx_render(tx.get(), buffer.data(), 480) == 480) {
        }
    });
    double elapsed = 0;
    for (int32_t i = 1; i <= 1000 || elapsed < 1; ++i) {
        EXPECT_EQ(ovl_tx_set_level(tx.get(), (1 + i % 1000) / 1000.0), 0);
        ovl_tx_progress progress;
        ovl_tx_status(tx.get(), &progress);
        EXPECT_GE(progress.elapsed_s, elapsed);
        elapsed = progress.elapsed_s;
    }
    ovl_tx_stop(tx.get());
    renderer.join();
    ovl_tx_progress progress;
    ovl_tx_status(tx.get(), &progress);
    EXPECT_EQ(progress.done, 1);
}

TEST(Threads, EightDecodersAtWorkAtOnceFindWhatTheyFindAlone) {
    // Eight different blocks: the scenes in as many noises as it takes.
    std::vector<Block> blocks;
    for (uint64_t noise = 0; blocks.size() < 8; noise++) {
        for (const ShippedRecording& recording : shipped_recordings()) {
            if (recording.iq || blocks.size() == 8) continue;
            Scene scene = recording.scene;
            scene.seed += noise;
            blocks.push_back({to_float(render_real(scene)), scene.rate});
        }
    }
    std::vector<std::vector<ovl_result>> alone;
    for (const Block& block : blocks) alone.push_back(decode(block));

    std::vector<std::vector<ovl_result>> together(blocks.size());
    std::vector<std::thread> threads;
    for (std::size_t k = 0; k < together.size(); ++k) {
        threads.emplace_back([&, k] { together[k] = decode(blocks[k]); });
    }
    for (std::thread& thread : threads) thread.join();

    for (std::size_t k = 0; k < together.size(); ++k) {
        const auto& expected = alone[k];
        ASSERT_EQ(together[k].size(), expected.size());
        // Results are zeroed before they are filled, so that equal ones are equal byte by byte.
        EXPECT_EQ(std::memcmp(together[k].data(), expected.data(), expected.size() * sizeof(ovl_result)), 0);
    }
}

}  // namespace
