// Memory that runs out on demand: counts what a call asks for, refuses a chosen request, and reports what was not
// freed.
//
//     FailingMemory memory(3);  // the third request fails
//     ovl_decoder* decoder = memory.watch([] { return ovl_create(); });
//     ovl_destroy(decoder);
//     EXPECT_EQ(memory.live_blocks(), 0);
//
// Requests are those through operator new in all its forms, malloc, calloc, realloc and fftw_malloc. Those of a shared
// library through the C functions are its own and are neither counted nor refused: what FFTW takes while it plans, for
// one, without which it ends the process. A request for nothing counts like any other.
//
// Under the sanitizers everything works as without; the memory still is theirs.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

// Which requests a FailingMemory refuses.
enum class Refuses {
    ONE,         // the n-th
    ALL_FURTHER  // the n-th and all after it
};

// Watches calls: the requests that their thread makes until they return. Blocks may be freed at any later time and by
// any thread.
class FailingMemory {
  public:
    // Requests count from 1 over all watched calls; with n = 0 none is refused.
    explicit FailingMemory(int64_t n = 0, Refuses refuses = Refuses::ONE) : refused_(n), refuses_(refuses) {}
    ~FailingMemory();
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    // Returns what the call returns; an exception passes. Not within another watched call.
    template <class Call>
    auto watch(Call call) {
        const Watch watch(*this);
        return call();
    }

    // Refused ones included; the largest in bytes.
    int64_t requests() const { return requests_; }
    std::size_t largest_request() const { return largest_; }
    bool has_refused() const { return has_refused_; }

    // What was asked for while watching and is not freed yet, and the most there was of it at any time.
    int64_t live_blocks() const { return live_blocks_; }
    std::size_t live_bytes() const { return live_bytes_; }
    std::size_t peak_bytes() const { return peak_bytes_; }

  private:
    friend class MemoryBooks;

    class Watch {
      public:
        explicit Watch(FailingMemory& memory);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;
    };

    const int64_t refused_;
    const Refuses refuses_;
    int64_t requests_ = 0;
    bool has_refused_ = false;
    std::size_t largest_ = 0;
    int64_t live_blocks_ = 0;
    std::size_t live_bytes_ = 0;
    std::size_t peak_bytes_ = 0;
};

// Makes an attempt fail in every way there is: with its first, second, … request refused, alone and then with all that
// follow, until it makes no more. attempt(memory) makes a call that the memory watches, checks the result, and frees
// it; when nothing was refused, it must be the usual result. Whatever the attempt leaks is a failure. Returns the last
// request that was refused.
//
//   stride   of the requests after the first 20, only every stride-th is refused: for what would take too long
template <class Attempt>
int64_t refuse_each_request(Attempt attempt, int64_t stride = 1) {
    constexpr int64_t ALWAYS = 20;
    constexpr int64_t TOO_MANY = 100000;
    int64_t most = 0;
    for (const Refuses refuses : {Refuses::ONE, Refuses::ALL_FURTHER}) {
        bool refused = true;
        for (int64_t n = 1; refused && n < TOO_MANY; n += n < ALWAYS ? 1 : stride) {
            SCOPED_TRACE(testing::Message() << "request " << n << (refuses == Refuses::ONE ? "" : " and all further"));
            FailingMemory memory(n, refuses);
            attempt(memory);
            EXPECT_EQ(memory.live_blocks(), 0) << memory.live_bytes() << " bytes are leaked";
            refused = memory.has_refused();
            if (refused) most = n > most ? n : most;
            if (testing::Test::HasFailure()) return most;  // the same again and again is no news
        }
        EXPECT_FALSE(refused);
    }
    return most;
}
