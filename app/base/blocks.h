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
