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

TEST(Threads, DecodersAtWorkAtOnceFindWhatTheyFindAlone) {
    std::vector<Block> blocks;
    for (const Recording& recording : shipped_recordings()) {
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
