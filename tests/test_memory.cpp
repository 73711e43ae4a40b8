// When memory runs out: every call of the library, and every part inside it that asks for memory, with each of its
// requests refused in turn. What it then says is what it promises, nothing is left behind, nothing is thrown where
// nothing may be, and afterwards it works as if nothing had been.
#include <fftw3.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "failing_memory.h"

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

}  // namespace
