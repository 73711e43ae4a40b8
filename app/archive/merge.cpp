#include "archive/merge.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <variant>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"

namespace {

constexpr std::size_t MOST_LINES = 10;  // about what is missing

// "a" or "a to b", counted from 1.
std::string range_text(std::size_t first, std::size_t last) {
    return first == last ? format("%zu", first + 1) : format("%zu to %zu", first + 1, last + 1);
}

// What of a recording's blocks is missing: "2 to 5, 7".
std::string gaps(const std::map<std::size_t, DecodedBlock>& blocks, std::size_t count) {
    std::string text;
    std::size_t next = 0;
    const auto add = [&](std::size_t end) {
        if (next < end) text += (text.empty() ? "" : ", ") + range_text(next, end - 1);
    };
    for (const auto& [number, block] : blocks) {
        add(number);
        next = number + 1;
    }
    add(count);
    return text;
}

std::string text_of(const DecodedBlock& block) {
    return shard_line(BlockFinds{0, 0, block});
}

std::string text_of(const RecordingHead& head) {
    return shard_line(head);
}

}  // namespace

void Merge::take(const std::string& name, ShardHead head) {
    if (!head_) head_ = head;
    if (head.list == head_->list && head.recordings == head_->recordings) return;
    throw IoError("'" + name + "': shard " + name_of(head.shard) +
                  " is of another list, of other options, or of recordings that have changed meanwhile");
}

// A machine that could not read a recording knows nothing of it; one that could goes before it.
void Merge::take(const std::string& name, RecordingHead head) {
    const auto [known, is_new] = recordings_.try_emplace(head.recording);
    Recorded& recorded = known->second;
    if (is_new || (!recorded.head.problem.empty() && head.problem.empty())) {
        recorded.head = std::move(head);
    } else if (head.problem.empty() && text_of(head) != text_of(recorded.head)) {
        throw IoError("'" + name + "': '" + head.file + "' is not as it was for another shard");
    }
}

// A block that could not be read goes before none, and after one that could.
void Merge::take(const std::string& name, BlockFinds finds) {
    const auto known = recordings_.find(finds.recording);
    const bool belongs = known != recordings_.end() && finds.block < known->second.head.blocks;
    if (!belongs) throw IoError("'" + name + "': a block of a recording that it does not name");
    const auto [place, is_new] = known->second.blocks.try_emplace(finds.block);
    if (is_new || (!place->second.problem.empty() && finds.decoded.problem.empty())) {
        place->second = std::move(finds.decoded);
    } else if (finds.decoded.problem.empty() && text_of(finds.decoded) != text_of(place->second)) {
        throw IoError("'" + name + "': block " + range_text(finds.block, finds.block) + " of '" +
                      known->second.head.file + "' is not as another shard found it");
    }
}

void Merge::add(const std::string& name, std::istream& lines) {
    std::optional<Shard> open;  // whose end is to come
    bool any = false;
    const auto tell_open = [&] {
        if (open) print_error("'" + name + "': shard " + name_of(*open) + " is cut short");
    };
    std::size_t number = 0;
    for (std::string text; std::getline(lines, text);) {
        number++;
        auto line = parse_shard_line(text);
        if (!line) {
            print_error(format("'%s': line %zu is not one of a shard, or of another version", name.c_str(), number));
        } else if (const auto* const head = std::get_if<ShardHead>(&*line)) {
            tell_open();
            take(name, *head);
            open = head->shard;
            any = true;
        } else if (!open) {
            print_error(format("'%s': line %zu is of no shard", name.c_str(), number));
        } else if (std::holds_alternative<ShardEnd>(*line)) {
            whole_.emplace(open->count, open->number);
            open.reset();
        } else if (auto* const recording = std::get_if<RecordingHead>(&*line)) {
            take(name, std::move(*recording));
        } else {
            take(name, std::move(std::get<BlockFinds>(*line)));
        }
    }
    tell_open();
    if (!any) throw IoError("'" + name + "' holds no shard of this version of orvel");
}

std::vector<std::string> Merge::missing() const {
    std::vector<std::string> all;
    if (!head_) return all;
    std::size_t unknown = 0;  // recordings
    for (std::size_t k = 0; k < head_->recordings; k++) {
        const auto recorded = recordings_.find(k);
        if (recorded == recordings_.end()) {
            unknown++;
            continue;
        }
        const auto& [head, blocks] = recorded->second;
        const std::string missing = gaps(blocks, head.blocks);
        if (missing.empty()) continue;
        all.push_back(format("of '%s' block %s of %zu is missing", head.file.c_str(), missing.c_str(), head.blocks));
    }
    if (unknown > 0) all.push_back(format("nothing is there of %zu of %zu recordings", unknown, head_->recordings));
    if (all.empty()) return all;
    if (all.size() > MOST_LINES) {
        const std::size_t more = all.size() - MOST_LINES;
        all.resize(MOST_LINES);
        all.push_back(format("and of %zu more", more));
    }
    const int32_t count = head_->shard.count;
    for (int32_t shard = 1, told = 0; shard <= count && told < static_cast<int32_t>(MOST_LINES); shard++) {
        if (whole_.count({count, shard}) != 0) continue;
        all.push_back("shard " + name_of({shard, count}) + " is missing or cut short");
        told++;
    }
    return all;
}

void Merge::finish(const std::function<void(const Spot&)>& take, const std::function<void(const std::string&)>& fail) {
    for (auto& [number, recorded] : recordings_) {
        const RecordingHead& head = recorded.head;
        const auto give = [&](const Found& found) { take(recorded_spot(found, head.file, head.takes, head.coherent)); };
        const SpotTaker taker{
            .begin = [] {}, .take = give, .progress = [](double, std::size_t) {}, .go_on = [] { return true; }};
        BlockMerger merger(taker);
        for (auto& [place, block] : recorded.blocks) merger.add(std::move(block));
        const std::string& problem = head.problem.empty() ? merger.problem() : head.problem;
        if (!problem.empty()) fail(problem);
    }
}
