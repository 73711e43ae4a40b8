// Which part of an archive each of several machines decodes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "recordings/recording.h"

// One of so many parts, counted from 1.
struct Shard {
    int32_t number = 1, count = 1;

    bool operator==(const Shard&) const = default;
};

inline constexpr int32_t MOST_SHARDS = 1000000;

// "2/7". Nothing when it is no such text.
std::optional<Shard> parse_shard(std::string_view text);
std::string name_of(const Shard& shard);

// The names of recordings, with lists among them, which end in .list, replaced by what they hold: a name on each line,
// # before a comment. Throws IoError when a list cannot be read.
std::vector<std::string> expand_lists(const std::vector<std::string>& names);

// How a file is to be read. May throw IoError.
using Reading = std::function<RecordingOptions(const std::string& file)>;

// The size of a recording of an archive; none of one that cannot be read, as whoever decodes it says. Throws UsageError
// for what comes only once, live or through a pipe, and Unreachable where a server cannot be asked now.
RecordingSize size_in_archive(const std::string& path, const Reading& reading);

// What the bytes and a name of each recording and a text make a sum of: shards of one list have the same.
std::string fingerprint(std::span<const std::string> names, std::span<const uint64_t> bytes, std::string_view options);

// Blocks [first, end) of a recording.
struct BlockRange {
    std::size_t first = 0, end = 0;
};

// A list of recordings, laid end to end and divided into shards of the same weight. A block belongs to the shard that
// holds its middle, so that each is in one shard, and a shard reads one stretch of the archive.
class Division {
  public:
    Division(std::span<const uint64_t> weights, int32_t shards);

    // Whether a shard reaches into a recording.
    bool reaches(int32_t shard, std::size_t recording) const;

    // Which of a recording's `count` blocks are in a shard.
    BlockRange blocks(int32_t shard, std::size_t recording, std::size_t count) const;

  private:
    int32_t shard_at(std::size_t recording, double part) const;

    std::vector<double> begins_;  // of each recording, and the end of the last
    int32_t shards_;
};
