#include "base/blocks.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace {

constexpr double STRETCH = 1.25;  // a recording up to this many blocks long is one

// Ends and joins its threads, whatever happens.
class Crew {
  public:
    explicit Crew(std::atomic<bool>& end) : end_(end) {}
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;
    ~Crew() {
        end_ = true;
        for (std::thread& thread : threads_) thread.join();
    }
    template <class Call>
    void add(const Call& call) {
        threads_.emplace_back(call);
    }

  private:
    std::atomic<bool>& end_;
    std::vector<std::thread> threads_;
};

}  // namespace

std::optional<BlockSpan> BlockCutter::next(double seconds, bool ended) {
    if (done_) return std::nullopt;
    const bool short_one = cut_ == 0 && seconds <= STRETCH * block_s_;
    const double begin = static_cast<double>(cut_) * (block_s_ - overlap_s_);
    if (!short_one && begin + block_s_ < seconds) {
        cut_++;
        return BlockSpan{begin, block_s_};
    }
    if (!ended) return std::nullopt;
    done_ = true;
    return short_one ? BlockSpan{0, seconds} : BlockSpan{seconds - block_s_, block_s_};
}

std::vector<BlockSpan> cut_blocks(double seconds, double block_s, double overlap_s) {
    BlockCutter cutter(block_s, overlap_s);
    std::vector<BlockSpan> blocks;
    while (const auto block = cutter.next(seconds, true)) blocks.push_back(*block);
    return blocks;
}

void in_order(std::size_t count, unsigned threads, const std::function<void(std::size_t)>& work,
              const std::function<bool(std::size_t)>& use) {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<char> done(count, 0);
    std::exception_ptr failure;
    std::atomic<std::size_t> next = 0;
    std::atomic<bool> end = false;
    const auto labour = [&] {
        for (std::size_t k = next++; k < count && !end; k = next++) {
            std::exception_ptr problem;
            try {
                work(k);
            } catch (...) {
                problem = std::current_exception();
            }
            const std::lock_guard guard(lock);
            if (problem) failure = problem;
            done[k] = 1;
            changed.notify_one();
        }
    };

    {
        Crew crew(end);
        const std::size_t size = std::min<std::size_t>(std::max(threads, 1u), count);
        for (std::size_t i = 0; i < size; i++) crew.add(labour);
        for (std::size_t k = 0; k < count; k++) {
            std::unique_lock guard(lock);
            changed.wait(guard, [&] { return done[k] != 0 || failure; });
            if (failure) break;
            guard.unlock();
            if (!use(k)) break;
        }
    }
    if (failure) std::rethrow_exception(failure);
}
