// What a shard finds, as lines of JSON: written by the machine that decodes it, read where all are merged.
//
//     {"type":"shard", …}                        which part of what
//     {"type":"recording", …}                    of each recording that it reaches into, before its blocks
//     {"type":"block", …}                        what was found in a block, to the last bit
//     {"type":"end"}                             nothing is missing
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "archive/shard.h"
#include "recordings/decode_recording.h"
#include "recordings/recording.h"

struct ShardHead {
    Shard shard;
    std::string list;  // fingerprint of the recordings and options
    std::size_t recordings = 0;
};

struct RecordingHead {
    std::size_t recording = 0;  // in the list, from 0
    std::string file = {};
    std::string problem = {};  // why it cannot be decoded at all, or "": what follows is then missing
    std::size_t blocks = 0;    // of all shards
    bool coherent = false;     // spots have findings
    std::vector<Take> takes = {};
};

struct BlockFinds {
    std::size_t recording = 0, block = 0;
    DecodedBlock decoded;
};

struct ShardEnd {};

using ShardLine = std::variant<ShardHead, RecordingHead, BlockFinds, ShardEnd>;

// One JSON object and a line feed.
std::string shard_line(const ShardLine& line);

// Nothing when it is no such line: it may come from anywhere. Of another version of the program it is none.
std::optional<ShardLine> parse_shard_line(std::string_view text);
