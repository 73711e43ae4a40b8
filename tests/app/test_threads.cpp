// The command's own threads: calls that may never return, and blocks of a recording that are worked on side by side.
// Run under the thread sanitizer, this also finds data races.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <memory>
#include <mutex>
#include <numeric>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "base/background.h"
#include "base/blocks.h"
#include "base/interrupts.h"
#include "decoding/decimation.h"
#include "wideband/wide_decoder.h"

namespace {

// ---- Patience -------------------------------------------------------------------------------------------------------

double steady_now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

TEST(Background, ACallThatNeverReturnsBlocksNothingElse) {
    const auto release = std::make_shared<std::atomic<bool>>(false);
    {
        const double before = steady_now();
        const Background call([release] {
            while (!*release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
        EXPECT_FALSE(call.done());
        EXPECT_FALSE(call.wait(0.1));
        const double waited = steady_now() - before;
        EXPECT_GE(waited, 0.1);
        EXPECT_LT(waited, 2);
        EXPECT_FALSE(call.wait(0));
        *release = true;
        EXPECT_TRUE(call.wait(20));
        EXPECT_TRUE(call.done());
    }
    *release = false;
    const auto ended = std::make_shared<std::atomic<bool>>(false);
    const double before = steady_now();
    {
        const Background call([release, ended] {
            while (!*release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            *ended = true;
        });
    }
    EXPECT_LT(steady_now() - before, 2) << "its end waited for the call";
    EXPECT_FALSE(*ended);
    *release = true;
    while (!*ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(Background, IsDoneWhenItsCallHasReturned) {
    EXPECT_TRUE(Background().done());  // of nothing
    EXPECT_TRUE(Background().wait(0));
    const auto value = std::make_shared<std::atomic<int>>(0);
    const Background call([value] { *value = 7; });
    const Background copy = call;
    EXPECT_TRUE(call.wait(20));
    EXPECT_EQ(*value, 7);
    EXPECT_TRUE(call.done());
    EXPECT_TRUE(copy.done());
}

TEST(Sleep, TakesItsTime) {
    const double before = steady_now();
    sleep_seconds(0.05);
    nap(0.05);
    nap(0);
    nap(-1);
    const double slept = steady_now() - before;
    EXPECT_GE(slept, 0.1);
    EXPECT_LT(slept, 3);
    EXPECT_FALSE(interrupted());
}

// ---- Blocks ---------------------------------------------------------------------------------------------------------

TEST(Blocks, ARecordingNotMuchLongerThanABlockIsOne) {
    for (const double seconds : {0.0, 0.1, 59.0, 60.0, 74.9, 75.0}) {
        const auto blocks = cut_blocks(seconds, 60, 50);
        ASSERT_EQ(blocks.size(), 1U) << seconds;
        EXPECT_EQ(blocks[0].begin_s, 0);
        EXPECT_EQ(blocks[0].length_s, seconds);
    }
    EXPECT_EQ(cut_blocks(75.1, 60, 50).size(), 3U);
}

TEST(Blocks, CoverARecordingWithTheOverlapThatIsAskedFor) {
    for (const double block_s : {60.0, 90.0, 120.0, 299.7}) {
        for (const double overlap_s : {0.0, 10.0, 50.0}) {
            for (const double seconds : {400.0, 400.1, 470.0, 600.0, 1234.567, 86400.0}) {
                const auto blocks = cut_blocks(seconds, block_s, overlap_s);
                ASSERT_GE(blocks.size(), 2U);
                EXPECT_EQ(blocks.front().begin_s, 0);
                EXPECT_NEAR(blocks.back().begin_s + block_s, seconds, 1e-6);
                for (std::size_t k = 0; k < blocks.size(); k++) {
                    EXPECT_EQ(blocks[k].length_s, block_s) << "the last one, too, is as long as the others";
                    EXPECT_GE(blocks[k].begin_s, 0);
                    if (k == 0) continue;
                    EXPECT_GT(blocks[k].begin_s, blocks[k - 1].begin_s);
                    EXPECT_GE(blocks[k - 1].begin_s + block_s - blocks[k].begin_s, overlap_s - 1e-6);
                }
                const double fewest = std::ceil((seconds - block_s) / (block_s - overlap_s) - 1e-6) + 1;
                EXPECT_EQ(static_cast<double>(blocks.size()), fewest) << seconds << " " << block_s << " " << overlap_s;
            }
        }
    }
}

void pause_ms(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

TEST(WorkInOrder, IsUsedInOrderOnTheCallingThreadWhateverItTakes) {
    constexpr std::size_t COUNT = 24;
    for (const unsigned threads : {0U, 1U, 3U, 24U, 100U}) {
        std::vector<std::atomic<int>> worked(COUNT);
        std::vector<std::size_t> used;
        std::mutex lock;
        std::set<std::thread::id> workers;
        in_order(
            COUNT, threads,
            [&](std::size_t k) {
                pause_ms(static_cast<int>((COUNT - k) % 5));
                const std::lock_guard guard(lock);
                workers.insert(std::this_thread::get_id());
                ++worked[k];
            },
            [&, caller = std::this_thread::get_id()](std::size_t k) {
                EXPECT_EQ(std::this_thread::get_id(), caller);
                EXPECT_EQ(worked[k], 1) << "used before the work had ended";
                used.push_back(k);
                return true;
            });
        std::vector<std::size_t> expected(COUNT);
        std::iota(expected.begin(), expected.end(), 0U);
        EXPECT_EQ(used, expected) << threads;
        for (const auto& times : worked) EXPECT_EQ(times, 1);
        EXPECT_LE(workers.size(), std::max(threads, 1U));
    }
}

TEST(WorkInOrder, ThreadsWorkAtTheSameTime) {
    std::atomic<int> begun = 0;
    std::atomic<bool> met = true;
    in_order(
        3, 3,
        [&](std::size_t) {
            ++begun;
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (begun < 3 && std::chrono::steady_clock::now() < end) pause_ms(1);
            if (begun < 3) met = false;
        },
        [](std::size_t) { return true; });
    EXPECT_TRUE(met);
}

TEST(WorkInOrder, NothingToDoIsNoTrouble) {
    for (const unsigned threads : {0U, 1U, 8U}) {
        int calls = 0;
        in_order(
            0, threads, [&](std::size_t) { ++calls; },
            [&](std::size_t) {
                ++calls;
                return true;
            });
        EXPECT_EQ(calls, 0);
    }
}

TEST(WorkInOrder, EndsEarlyWhenItsUserHasEnough) {
    for (const unsigned threads : {1U, 4U}) {
        std::atomic<std::size_t> worked = 0;
        std::atomic<int> at_work = 0;
        std::size_t used = 0;
        in_order(
            100000, threads,
            [&](std::size_t) {
                ++at_work;
                pause_ms(1);
                ++worked;
                --at_work;
            },
            [&](std::size_t k) {
                used++;
                return k < 3;
            });
        EXPECT_EQ(used, 4U);
        EXPECT_EQ(at_work, 0) << "it is left with work under way";
        EXPECT_LT(worked, 50000U);
    }
}

TEST(WorkInOrder, WhatWorkThrowsIsThrown) {
    for (const unsigned threads : {1U, 4U}) {
        std::vector<std::size_t> used;
        std::atomic<std::size_t> worked = 0;
        const auto call = [&] {
            in_order(
                100000, threads,
                [&](std::size_t k) {
                    if (k == 5) throw std::runtime_error("no more");
                    pause_ms(1);
                    ++worked;
                },
                [&](std::size_t k) {
                    used.push_back(k);
                    return true;
                });
        };
        try {
            call();
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "no more");
        }
        EXPECT_LE(used.size(), 5U);
        for (std::size_t k = 0; k < used.size(); k++) EXPECT_EQ(used[k], k);
        EXPECT_LT(worked, 50000U);
    }
}

TEST(WorkInOrder, WhatItsUserThrowsIsThrown) {
    std::atomic<int> at_work = 0;
    const auto call = [&] {
        in_order(
            50, 4,
            [&](std::size_t) {
                ++at_work;
                pause_ms(1);
                --at_work;
            },
            [&](std::size_t k) {
                if (k == 2) throw std::out_of_range("full");
                return true;
            });
    };
    EXPECT_THROW(call(), std::out_of_range);
    EXPECT_EQ(at_work, 0);
}

// ---- Decimation -----------------------------------------------------------------------------------------------------

TEST(DecimationThreads, FindTheSameBesideEachOther) {
    std::vector<double> samples(48000);
    for (std::size_t n = 0; n < samples.size(); n++) samples[n] = std::sin(static_cast<double>(n * n % 4801));
    const Block block{samples, {}, 48000};
    std::vector<std::vector<std::complex<double>>> out(4);
    {
        std::vector<std::jthread> threads;
        for (auto& mine : out) {
            threads.emplace_back([&] {
                const auto left = decimate(block, {48000, 1500, 24, 250});
                mine.assign(left.get(), left.get() + 2000);
            });
        }
    }
    for (const auto& other : out) EXPECT_EQ(other, out.front());
    EXPECT_GT(std::abs(out.front()[1000]), 0);
}

// ---- Wide bands -----------------------------------------------------------------------------------------------------

TEST(WideThreads, DecodeWhileSamplesComeAndEndWithTheDecoder) {
    Search search;
    search.iq = true;
    search.wide = true;
    search.scan_z = 5;  // so that noise is decoded, too
    search.protocols = OVL_OPERA;
    testing::internal::CaptureStderr();  // where it says that slices were skipped
    for (const bool live : {false, true}) {
        for (const bool finished : {false, true}) {
            WideDecoder decoder(12000, search, {.jobs = 3, .live = live}, [](const Found&, Standing) {});
            uint32_t state = 1;
            for (int32_t second = 0; second < 110; second++) {
                std::vector<float> samples(24000);
                for (float& sample : samples) {
                    state = static_cast<uint32_t>(uint64_t{state} * 48271 % 2147483647);
                    sample = static_cast<float>(state) / 2147483647.0F - 0.5F;
                }
                decoder.push(samples);
            }
            if (finished) decoder.finish();
            EXPECT_EQ(decoder.problem(), "");
        }
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
