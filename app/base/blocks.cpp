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

std::vector<BlockSpan> cut_blocks(double seconds, double block_s, double overlap_s) {
    if (seconds <= STRETCH * block_s) return {{0, seconds}};
    std::vector<BlockSpan> blocks;
    const double step = block_s - overlap_s;
    while (true) {
        const double begin = static_cast<double>(blocks.size()) * step;
        if (begin + block_s >= seconds) {
            blocks.push_back({seconds - block_s, block_s});
            return blocks;
        }
        blocks.push_back({begin, block_s});
    }
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
