#include "listening/line_queue.h"

#include <chrono>
#include <utility>

bool LineQueue::push(std::string line) {
    const std::lock_guard guard(lock_);
    if (lines_.size() >= room_) return false;
    lines_.push_back(std::move(line));
    came_.notify_one();
    return true;
}

std::optional<std::string> LineQueue::pop(double seconds) {
    std::unique_lock guard(lock_);
    if (!came_.wait_for(guard, std::chrono::duration<double>(seconds), [this] { return !lines_.empty(); })) return {};
    std::string line = std::move(lines_.front());
    lines_.pop_front();
    return line;
}
