#include "recordings/decode_recording.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/blocks.h"
#include "base/error.h"
#include "base/text.h"
#include "decoding/decode_block.h"
#include "spots/spot_log.h"
#include "wideband/wide_decoder.h"

namespace {

constexpr double EDGE_S = 10;     // a frame may begin this long before its block, and a little more
constexpr double OVERLAP_S = 50;  // of blocks: the longest frame and a little more
constexpr double LEAST_BLOCK_S = 90;
constexpr double MOST_BLOCK_S = 300;
constexpr double BLOCK_SAMPLES = 1.8e7;
constexpr double WIDE_BAND_HZ = 24000;  // a wider search goes through the channeliser
constexpr double BYTES_A_SAMPLE = 60;   // that a wide decode of I/Q takes

// ---- Recording → blocks ---------------------------------------------------------------------------------------------

double block_seconds(const DecodingOptions& options, int32_t rate) {
    const double wanted = options.block_s.value_or(std::clamp(BLOCK_SAMPLES / rate, LEAST_BLOCK_S, MOST_BLOCK_S));
    return std::min(wanted, MOST_BLOCK_SAMPLES / rate);
}

std::vector<BlockSpan> cut(const Recording& recording, const DecodingOptions& options, double from_s, double to_s) {
    auto blocks = cut_blocks(to_s - from_s, block_seconds(options, recording.rate()), OVERLAP_S);
    for (BlockSpan& block : blocks) block.begin_s += from_s;
    return blocks;
}

// Blocks to work on at once: as many as asked for, or one for each core as long as half of the memory holds them.
unsigned jobs_for(const DecodingOptions& options, double block_samples) {
    if (options.search.verbose) return 1;  // so that the messages of each block stay together
    if (options.jobs > 0) return options.jobs;
    const double memory =
        0.5 * static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
    const double fit = std::clamp(memory / (BYTES_A_SAMPLE * std::max(block_samples, 1.0)), 1.0, 256.0);
    return std::min(std::max(1u, std::thread::hardware_concurrency()), static_cast<unsigned>(fit));
}

// ---- Blocks → samples → frames of a block ---------------------------------------------------------------------------

// The outcome of a block: its frames, a reason why there are none, or neither, past the end of the file.
struct BlockResult {
    std::optional<std::vector<Found>> spots;
    std::string problem;
};

class BlockDecoder {
  public:
    BlockDecoder(Recording& recording, const Search& search) : recording_(recording), search_(search) {}

    // Any thread.
    BlockResult decode(const BlockSpan& span) {
        if (ended_) return {};
        try {
            const Stretch stretch = recording_.read(span.begin_s, span.length_s);
            if (span.begin_s > 0 && stretch.x.empty()) {
                ended_ = true;
                return {};
            }
            return decode(stretch);
        } catch (const IoError& error) {
            return {std::nullopt, error.what()};
        }
    }

  private:
    BlockResult decode(const Stretch& stretch) const {
        const Block block{stretch.x, stretch.q, recording_.rate()};
        auto spots = decode_block(block, search_);
        if (!spots) return {std::nullopt, "cannot decode '" + recording_.path() + "': " + refusal(block)};
        for (Found& spot : *spots) spot.t += stretch.begin_s;
        return {std::move(spots), ""};
    }

    static std::string refusal(const Block& block) {
        if (block.seconds() >= ovl_chip_seconds()) {
            return "the search band does not fit the recording, or memory is short";
        }
        return format("it is too short (%.3f s, a chip is 0.128 s)", block.seconds());
    }

    Recording& recording_;
    const Search& search_;
    std::atomic<bool> ended_ = false;  // the file does before its header says
};

// ---- Frames of the blocks → each frame once -------------------------------------------------------------------------

class Merger {
  public:
    explicit Merger(const SpotTaker& taker) : taker_(taker) {}

    // Takes the outcome of the next block, and hands out the frames that start before final_s: the next block may find
    // later ones again, and better. False when the taker wants no more.
    bool add(BlockResult block, double final_s) {
        if (problem_.empty()) problem_ = std::move(block.problem);
        if (block.spots) {
            if (!std::exchange(begun_, true)) taker_.begin();
            log_.add(*block.spots);
        }
        log_.release(final_s, [&](const Found& spot, int32_t) {
            taker_.take(spot);
            taken_++;
        });
        return taker_.go_on();
    }

    std::size_t taken() const { return taken_; }
    const std::string& problem() const { return problem_; }  // the first, or ""

  private:
    const SpotTaker& taker_;
    SpotLog log_{SpotLog::Order::START};
    std::string problem_;
    std::size_t taken_ = 0;
    bool begun_ = false;
};

// ---- Wide bands -----------------------------------------------------------------------------------------------------

bool needs_channels(const Recording& recording, const Search& search) {
    const Range whole = whole_band(search.iq, recording.rate());
    const Range band = search.band.value_or(whole);
    return search.wide && recording.rate() <= MOST_WIDE_RATE &&
           std::min(band.high, whole.high) - std::max(band.low, whole.low) > WIDE_BAND_HZ;
}

std::vector<float> interleaved(const Stretch& stretch) {
    const std::size_t width = stretch.q.empty() ? 1 : 2;
    std::vector<float> samples(width * stretch.x.size());
    for (std::size_t k = 0; k < stretch.x.size(); k++) {
        samples[width * k] = static_cast<float>(stretch.x[k]);
        if (width == 2) samples[2 * k + 1] = static_cast<float>(stretch.q[k]);
    }
    return samples;
}

// Once through the recording: `next` gives some more samples, false at the end.
template <class Next>
void decode_channels(const Recording& recording, const DecodingOptions& options, double from_s, Next next,
                     const SpotTaker& taker) {
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const unsigned jobs = options.search.verbose ? 1 : options.jobs > 0 ? options.jobs : cores;
    std::size_t taken = 0;
    WideDecoder decoder(recording.rate(), options.search, {.jobs = jobs, .live = false}, [&](Found spot, Standing) {
        spot.t += from_s;
        taker.take(spot);
        taken++;
    });
    taker.begin();
    double read_s = from_s;
    for (Stretch stretch; next(stretch);) {
        decoder.push(interleaved(stretch));
        read_s += static_cast<double>(stretch.x.size()) / recording.rate();
        taker.progress(from_s + decoder.done_s(), taken);
        if (!taker.go_on()) return;
    }
    decoder.finish();
    taker.progress(read_s, taken);
    if (!decoder.problem().empty()) {
        throw IoError("cannot decode all of '" + recording.path() + "': " + decoder.problem());
    }
}

// Some samples from one on.
Stretch read_frames(Recording& recording, int64_t first, int64_t count) {
    const double rate = recording.file_rate();
    return recording.read((static_cast<double>(first) + 0.5) / rate, (static_cast<double>(count) - 0.5) / rate);
}

}  // namespace

void decode_recording(Recording& recording, const DecodingOptions& options, double from_s, double to_s,
                      const SpotTaker& taker) {
    require_within("'" + recording.path() + "'", options.search, recording.rate());
    if (to_s - from_s >= ovl_chip_seconds() && needs_channels(recording, options.search)) {
        const double rate = recording.file_rate();
        const auto first = static_cast<int64_t>(std::floor(from_s * rate));
        const auto end = static_cast<int64_t>(std::ceil(to_s * rate));
        const int64_t count = recording.file_rate() / 4 + 1;
        const auto next = [&, at = first](Stretch& piece) mutable {
            if (at >= end) return false;
            piece = read_frames(recording, at, std::min<int64_t>(count, end - at));
            at += count;
            return !piece.x.empty();  // it may end before its header says
        };
        return decode_channels(recording, options, static_cast<double>(first) / rate, next, taker);
    }
    const std::vector<BlockSpan> blocks = cut(recording, options, from_s, to_s);
    BlockDecoder decoder(recording, options.search);
    Merger merger(taker);
    results_in_order(
        blocks.size(), jobs_for(options, blocks.front().length_s * recording.rate()),
        [&](std::size_t k) { return decoder.decode(blocks[k]); },
        [&](BlockResult block, std::size_t k) {
            const bool last = k + 1 == blocks.size();
            if (!merger.add(std::move(block), last ? HUGE_VAL : blocks[k + 1].begin_s - EDGE_S)) return false;
            taker.progress(blocks[k].begin_s + blocks[k].length_s, merger.taken());
            return true;
        });
    if (!merger.problem().empty()) throw IoError(merger.problem());
}

void decode_piped(PipedRecording& recording, const DecodingOptions& options, const SpotTaker& taker) {
    require_within("'" + recording.path() + "'", options.search, recording.rate());
    while (recording.seconds() < ovl_chip_seconds() && recording.read_on()) {
    }
    if (recording.seconds() >= ovl_chip_seconds() && needs_channels(recording, options.search)) {
        const auto next = [&, at = int64_t{0}](Stretch& second) mutable {
            const int64_t end = at + recording.file_rate();
            const double end_s = static_cast<double>(end) / recording.file_rate();
            while (recording.seconds() < end_s && recording.read_on()) {
            }
            second = read_frames(recording, at, end - at);
            at = end;
            recording.forget(end_s);
            return !second.x.empty();
        };
        return decode_channels(recording, options, 0, next, taker);
    }
    BlockCutter cutter(block_seconds(options, recording.rate()), OVERLAP_S);
    const auto next = [&] {
        auto block = cutter.next(recording.seconds(), recording.ended());
        while (!block && !recording.ended()) {
            recording.read_on();
            block = cutter.next(recording.seconds(), recording.ended());
        }
        return block;
    };
    BlockDecoder decoder(recording, options.search);
    Merger merger(taker);
    for (auto block = next(); block;) {
        recording.forget(block->begin_s);
        BlockResult result = decoder.decode(*block);
        const auto following = next();  // may begin earlier than this one's length lets expect: it may be the last
        if (!merger.add(std::move(result), following ? following->begin_s - EDGE_S : HUGE_VAL)) return;
        block = following;
    }
    if (!merger.problem().empty()) throw IoError(merger.problem());
}
