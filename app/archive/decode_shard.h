// One machine's part of an archive.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "archive/shard.h"
#include "recordings/decode_recording.h"
#include "recordings/recording.h"

struct ShardJob {
    Shard shard;
    std::vector<std::string> files;
    Reading reading;
    DecodingOptions decoding;
    std::string options;  // all that decides on what is found, as a text
};

// Decodes the shard and hands out its lines as soon as there are such; write() returns false to end it early. What
// cannot be read or decoded is told on standard error, too. False when there was such. Throws UsageError.
bool decode_shard(const ShardJob& job, const std::function<bool(const std::string& line)>& write);
