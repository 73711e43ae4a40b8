#include "web/hub.h"

#include <algorithm>
#include <utility>

#include "web/lines.h"

void Hub::push(std::string line) {
    std::function<void()> wake;
    {
        const std::lock_guard guard(lock_);
        if (!wake_) return;
        if (news_.size() == MOST_NEWS) news_.pop_front();
        news_.push_back(std::make_shared<const std::string>(std::move(line)));
        if (news_.size() == 1) wake = wake_;
    }
    if (wake) wake();
}

void Hub::tell(std::span<const StoredSpot> spots) {
    if (spots.empty()) return;
    nlohmann::ordered_json line = {{"type", "spots"}, {"spots", nlohmann::ordered_json::array()}};
    for (const StoredSpot& stored : spots) line["spots"].push_back(spot_json(stored));
    push(json_text(line));
}

void Hub::tell(const SpectrumRow& row) {
    std::string line = spectrum_line(row);
    line.pop_back();
    {
        const std::lock_guard guard(lock_);
        auto& rows = rows_[row.receiver];
        if (rows.size() == MOST_ROWS) rows.pop_front();
        rows.push_back(std::make_shared<const std::string>(line));
    }
    push(std::move(line));
}

void Hub::tell(StationState state) {
    nlohmann::ordered_json line = {{"type", "status"},
                                   {"receivers", receivers_json(state)},
                                   {"outputs", outputs_json(state, 0)},
                                   {"store_problem", state.store_problem}};
    for (auto& output : line["outputs"]) output.erase("waiting");  // it changes with each spot
    std::string text = json_text(line);
    {
        const std::lock_guard guard(lock_);
        std::erase_if(rows_, [&](const auto& rows) {
            return std::ranges::find(state.receivers, rows.first, &ReceiverState::name) == state.receivers.end();
        });
        state_ = std::move(state);
        if (text == std::exchange(state_line_, text)) return;
    }
    push(std::move(text));
}

void Hub::on_news(std::function<void()> wake) {
    const std::lock_guard guard(lock_);
    wake_ = std::move(wake);
    if (!wake_) news_.clear();
}

std::vector<Hub::News> Hub::take() {
    const std::lock_guard guard(lock_);
    std::vector<News> all(news_.begin(), news_.end());
    news_.clear();
    return all;
}

StationState Hub::state() const {
    const std::lock_guard guard(lock_);
    return state_;
}

std::vector<Hub::News> Hub::rows(const std::string& receiver) const {
    const std::lock_guard guard(lock_);
    const auto found = rows_.find(receiver);
    if (found == rows_.end()) return {};
    return {found->second.begin(), found->second.end()};
}
