#include "archive/shard.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "base/error.h"
#include "base/text.h"
#include "recordings/open_recording.h"
#include "recordings/piped_recording.h"
#include "sources/source.h"
#include "sources/url_file.h"
#include "system/files.h"

namespace {

constexpr std::string_view LIST = ".list";
constexpr std::string_view BLANK = " \t\r";

// Takes a number from the front of a text.
std::optional<int32_t> take_number(std::string_view& text) {
    int32_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
    return value;
}

void add_names(const std::string& list, std::vector<std::string>& names) {
    errno = 0;
    std::ifstream file(native_path(list), std::ios::binary);
    if (!file || std::filesystem::is_directory(native_path(list))) {
        throw IoError("cannot read '" + list + "': " + std::strerror(errno != 0 ? errno : EISDIR));
    }
    for (std::string line; std::getline(file, line);) {
        const std::size_t begin = line.find_first_not_of(BLANK);
        if (begin == std::string::npos || line[begin] == '#') continue;
        names.push_back(line.substr(begin, line.find_last_not_of(BLANK) + 1 - begin));
    }
    if (file.bad()) throw IoError("cannot read '" + list + "': " + std::strerror(errno));
}

// Two polynomials over the bytes, each modulo a prime below 2^31.
class Sum {
  public:
    void add(std::string_view text) {
        for (const char c : text) step(static_cast<uint8_t>(c) + uint64_t{1});
        step(0);
    }
    std::string text() const {
        return format("%08llx%08llx", static_cast<unsigned long long>(a_), static_cast<unsigned long long>(b_));
    }

  private:
    void step(uint64_t value) {
        constexpr uint64_t PRIME = 2147483647;
        a_ = (a_ * 1000003 + value) % PRIME;
        b_ = (b_ * 998244353 + value) % PRIME;
    }

    uint64_t a_ = 1, b_ = 1;
};

}  // namespace

std::optional<Shard> parse_shard(std::string_view text) {
    const auto number = take_number(text);
    if (!number || !text.starts_with('/')) return std::nullopt;
    text.remove_prefix(1);
    const auto count = take_number(text);
    if (!count || !text.empty() || *number < 1 || *number > *count || *count > MOST_SHARDS) return std::nullopt;
    return Shard{*number, *count};
}

std::string name_of(const Shard& shard) {
    return format("%d/%d", shard.number, shard.count);
}

std::vector<std::string> expand_lists(const std::vector<std::string>& names) {
    std::vector<std::string> all;
    for (const std::string& name : names) {
        if (lower_case(name).ends_with(LIST)) {
            add_names(name, all);
        } else {
            all.push_back(name);
        }
    }
    return all;
}

RecordingSize size_in_archive(const std::string& path, const Reading& reading) {
    if (is_live_source(path) || is_pipe(path)) {
        throw UsageError("--shard: '" + path + "' comes only once, and is not a recording that several can read");
    }
    try {
        return size_of_recording(path, reading(path));
    } catch (const Unreachable&) {
        throw;  // others may know it
    } catch (const IoError&) {
        return {};
    }
}

std::string fingerprint(std::span<const std::string> names, std::span<const uint64_t> bytes, std::string_view options) {
    Sum sum;
    sum.add(options);
    for (std::size_t k = 0; k < names.size(); k++) {
        sum.add(names[k]);
        sum.add(std::to_string(bytes[k]));
    }
    return sum.text();
}

Division::Division(std::span<const uint64_t> weights, int32_t shards) : begins_{0}, shards_(shards) {
    begins_.reserve(weights.size() + 1);
    for (const uint64_t weight : weights) begins_.push_back(begins_.back() + static_cast<double>(weight));
}

int32_t Division::shard_at(std::size_t recording, double part) const {
    const double place = begins_[recording] + part * (begins_[recording + 1] - begins_[recording]);
    return std::min(shards_, 1 + static_cast<int32_t>(place / begins_.back() * shards_));
}

bool Division::reaches(int32_t shard, std::size_t recording) const {
    return shard_at(recording, 0) <= shard && shard <= shard_at(recording, 1);
}

BlockRange Division::blocks(int32_t shard, std::size_t recording, std::size_t count) const {
    const auto shard_of = [&](std::size_t block) {
        return shard_at(recording, (static_cast<double>(block) + 0.5) / static_cast<double>(count));
    };
    BlockRange range;
    while (range.first < count && shard_of(range.first) < shard) range.first++;
    range.end = range.first;
    while (range.end < count && shard_of(range.end) == shard) range.end++;
    return range;
}
