// Long recordings block by block: memory is bounded by the block, and blocks may be worked on by several threads.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

// A part of a recording, s.
struct BlockSpan {
    double begin_s, length_s;
};

// Cuts a recording into blocks of block_s that overlap by overlap_s, which is less. The last one is as long as the
// others, or a recording not much longer than a block is one block.
std::vector<BlockSpan> cut_blocks(double seconds, double block_s, double overlap_s);

// The same blocks one after another, for a recording whose length is known only at its end.
class BlockCutter {
  public:
    BlockCutter(double block_s, double overlap_s) : block_s_(block_s), overlap_s_(overlap_s) {}

    // The next block of a recording of which so many seconds are there, and no more will come when it has ended.
    // Nothing as long as the block depends on what comes, and after the last one.
    std::optional<BlockSpan> next(double seconds, bool ended);

  private:
    double block_s_, overlap_s_;
    std::size_t cut_ = 0;  // blocks so far
    bool done_ = false;
};

// Calls work(k) for k = 0 … count − 1 on that many threads, and use(k), in order and on the calling thread, when
// work(k) has ended. use returns false to end it early. What work throws is thrown here.
void in_order(std::size_t count, unsigned threads, const std::function<void(std::size_t)>& work,
              const std::function<bool(std::size_t)>& use);

// The same where work(k) gives a result, which use(result, k) takes.
template <class Work, class Use>
void results_in_order(std::size_t count, unsigned threads, const Work& work, const Use& use) {
    std::vector<std::optional<decltype(work(std::size_t{}))>> results(count);
    in_order(
        count, threads, [&](std::size_t k) { results[k].emplace(work(k)); },
        [&](std::size_t k) {
            auto result = std::move(*results[k]);
            results[k].reset();
            return use(std::move(result), k);
        });
}
