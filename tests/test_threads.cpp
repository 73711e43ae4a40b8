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
    std::vector<ovl_result> results(64);
    const int32_t count = ovl_decode(decoder.get(), block.samples.data(), static_cast<int32_t>(block.samples.size()),
                                     block.rate, &settings, results.data(), 64);
    EXPECT_GT(count, 0) << ovl_last_error(decoder.get());
    results.resize(static_cast<std::size_t>(std::max(count, 0)));
    return results;
}

// In a process of its own, as ctest runs it, this is what loads the codes.
TEST(Threads, FirstUseOfTheCodesMayBeInSeveralAtOnce) {
    std::vector<std::vector<uint8_t>> frames(8, std::vector<uint8_t>(321));
    std::vector<std::thread> threads;
    for (std::vector<uint8_t>& frame : frames) {
        threads.emplace_back([&frame] { EXPECT_EQ(ovl_encode(OVL_ORVEL_L, "K1ABC", "FN42", frame.data(), 321), 321); });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::vector<uint8_t>& frame : frames) EXPECT_TRUE(frame == frames.front());
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
    for (int32_t i = 1; i <= 1000; ++i) {
        EXPECT_EQ(ovl_tx_set_level(tx.get(), i / 1000.0), 0);
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

TEST(Threads, DecodersAtWorkAtOnceFindWhatTheyFindAlone) {
    std::vector<Block> blocks;
    for (const ShippedRecording& recording : shipped_recordings()) {
        if (!recording.iq) blocks.push_back({to_float(render_real(recording.scene)), recording.scene.rate});
    }
    std::vector<std::vector<ovl_result>> alone;
    for (const Block& block : blocks) alone.push_back(decode(block));

    constexpr std::size_t ROUNDS = 2;
    std::vector<std::vector<ovl_result>> together(ROUNDS * blocks.size());
    std::vector<std::thread> threads;
    for (std::size_t k = 0; k < together.size(); ++k) {
        threads.emplace_back([&, k] { together[k] = decode(blocks[k % blocks.size()]); });
    }
    for (std::thread& thread : threads) thread.join();

    for (std::size_t k = 0; k < together.size(); ++k) {
        const auto& expected = alone[k % blocks.size()];
        ASSERT_EQ(together[k].size(), expected.size());
        // Results are zeroed before they are filled, so that equal ones are equal byte by byte.
        EXPECT_EQ(std::memcmp(together[k].data(), expected.data(), expected.size() * sizeof(ovl_result)), 0);
    }
}

}  // namespace
