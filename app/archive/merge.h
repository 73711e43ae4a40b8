// The parts of an archive put together.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "archive/shard.h"
#include "archive/shard_lines.h"
#include "spots/spot.h"

// Takes the lines of shards in any order, some of them several times, and of several divisions of one list; what it
// then hands out is what one machine finds in the list. Memory grows with what was found.
class Merge {
  public:
    // Reads the lines of one or several shards. A line that makes no sense, and an end in the middle of a shard, are
    // told on standard error and passed over. Throws IoError, whose text begins with `name`, when there is no shard, it
    // is of another list, or says another thing than one before.
    void add(const std::string& name, std::istream& lines);

    // What was not there, as lines for the user. None when all was.
    std::vector<std::string> missing() const;

    // Hands out the spots of one recording after the other, each in order of time, and after them why not all of it
    // could be decoded, if so. Only when nothing is missing.
    void finish(const std::function<void(const Spot&)>& take, const std::function<void(const std::string&)>& fail);

  private:
    struct Recorded {
        RecordingHead head;
        std::map<std::size_t, DecodedBlock> blocks;
    };
    void take(const std::string& name, ShardHead head);
    void take(const std::string& name, RecordingHead head);
    void take(const std::string& name, BlockFinds finds);

    std::optional<ShardHead> head_;  // the first
    std::map<std::size_t, Recorded> recordings_;
    std::set<std::pair<int32_t, int32_t>> whole_;  // shards of which the end was there: count and number
};
