#include "decoding.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <thread>
#include <utility>

#include "blocks.h"
#include "console.h"
#include "liborvel.h"
#include "spotlog.h"

namespace {

constexpr double EDGE_S = 10;  // a frame may begin so long before its block, and a little more
constexpr double CANDIDATES_PER_MINUTE = 120;
constexpr double SPOTS_PER_MINUTE = 64;  // as the library reports from a block
constexpr int32_t MAX_TILES = 1000;      // in a block
constexpr double OVERLAP_S = 50;         // of blocks: the longest frame and a little more
constexpr double LEAST_BLOCK_S = 90;
constexpr double MOST_BLOCK_S = 300;
constexpr double BLOCK_SAMPLES = 1.8e7;
constexpr double MOST_SAMPLES = 1.5e9;  // a block may be a quarter longer, and its samples count in 32 bits
constexpr double BYTES_A_SAMPLE = 60;   // that a wide decode of I/Q takes

// The whole of a wide decode's band as centre and half-width: what --band says, or all that the sample rate holds.
void set_band(const DecodingOptions& options, const Recording& recording, ov_params& params) {
    const Band band = options.band ? parse_band(*options.band) : whole_band(options, recording);
    params.center_hz = 0.5 * (band.low_hz + band.high_hz);
    params.search_hz = 0.5 * (band.high_hz - band.low_hz);
}

// Why the pipeline refused a block.
std::string refusal(const Stretch& block, int32_t rate) {
    const double seconds = static_cast<double>(block.x.size()) / rate;
    if (seconds < ovl_chip_seconds()) return format("it is too short (%.3f s, a chip is 0.128 s)", seconds);
    return "the search band does not fit the recording, or memory is short";
}

double started_minutes(double seconds) {
    return std::max(1.0, std::ceil(seconds / 60));
}

// Decodes a block; nothing when the pipeline refuses it.
std::optional<std::vector<ov_spot>> decode_block(const Stretch& block, int32_t rate, const DecodingOptions& options,
                                                 ov_params params) {
    const double seconds = static_cast<double>(block.x.size()) / rate;
    params.max_cands = candidates_to_examine(seconds);
    std::vector<ov_spot> spots(static_cast<std::size_t>(
        std::min(SPOTS_PER_MINUTE * started_minutes(seconds) + (options.wide ? MAX_TILES : 0), 1e6)));
    const auto room = static_cast<int32_t>(spots.size());
    const auto n = static_cast<int32_t>(block.x.size());
    const double* const x = block.x.data();
    const double* const q = block.q.empty() ? nullptr : block.q.data();
    int32_t count = 0;
    if (options.wide) {
        count = ov_decode_wide(x, q, n, rate, params, options.scan_z, MAX_TILES, spots.data(), room);
    } else if (q != nullptr) {
        count = ov_decode_iq(x, q, n, rate, params, spots.data(), room);
    } else {
        count = ov_decode_real(x, n, rate, params, spots.data(), room);
    }
    if (count < 0) return std::nullopt;
    spots.resize(static_cast<std::size_t>(count));
    for (ov_spot& spot : spots) spot.t += block.begin_s;
    return spots;
}

double block_seconds(const DecodingOptions& options, int32_t rate) {
    const double wanted = options.block_s.value_or(std::clamp(BLOCK_SAMPLES / rate, LEAST_BLOCK_S, MOST_BLOCK_S));
    return std::min(wanted, MOST_SAMPLES / rate);
}

// Blocks to work on at once: as many as asked for, or one for each core as long as half of the memory holds them.
unsigned jobs_for(const DecodingOptions& options, double block_samples) {
    if (options.verbose) return 1;  // what each block says stays together
    if (options.jobs > 0) return options.jobs;
    const double memory =
        0.5 * static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
    const double fit = std::clamp(memory / (BYTES_A_SAMPLE * std::max(block_samples, 1.0)), 1.0, 256.0);
    return std::min(std::max(1u, std::thread::hardware_concurrency()), static_cast<unsigned>(fit));
}

}  // namespace

ov_params decode_params(const DecodingOptions& options, const std::vector<ovc_known>& known) {
    ov_params params;
    ov_params_default(params);
    params.center_hz = options.search.center_hz.value_or(options.recording.iq ? 0.0 : params.center_hz);
    params.search_hz = options.search.search_hz;
    params.spread_hz = options.search.spread_hz;
    params.protocols = protocol_mask(options.search);
    params.known = known.empty() ? nullptr : known.data();
    params.n_known = static_cast<int32_t>(known.size());
    params.known_only = options.search.known_only ? 1 : 0;
    params.verbose = options.verbose ? 1 : 0;
    return params;
}

int32_t candidates_to_examine(double seconds) {
    return static_cast<int32_t>(std::min(CANDIDATES_PER_MINUTE * started_minutes(seconds), 1e6));
}

Band whole_band(const DecodingOptions& options, const Recording& recording) {
    return {options.recording.iq ? -0.5 * recording.rate() : 0.0, 0.5 * recording.rate()};
}

bool decode_recording(Recording& recording, const std::string& path, const DecodingOptions& options, ov_params params,
                      double from_s, double to_s, const SpotTaker& taker) {
    if (options.wide) set_band(options, recording, params);
    auto blocks = cut_blocks(to_s - from_s, block_seconds(options, recording.rate()), OVERLAP_S);
    for (BlockSpan& block : blocks) block.begin_s += from_s;
    std::vector<std::vector<ov_spot>> found(blocks.size());
    std::vector<std::string> problems(blocks.size());
    std::vector<char> decoded(blocks.size(), 0);
    std::atomic<bool> ended = false;  // the file does before its header says
    const auto work = [&](std::size_t k) {
        if (ended) return;
        const auto block = recording.read(blocks[k].begin_s, blocks[k].length_s);
        if (!block) {
            problems[k] = "it cannot be read";
            return;
        }
        if (k > 0 && block->x.empty()) {
            ended = true;
            return;
        }
        auto spots = decode_block(*block, recording.rate(), options, params);
        decoded[k] = spots ? 1 : 0;
        if (spots) {
            found[k] = std::move(*spots);
        } else {
            problems[k] = refusal(*block, recording.rate());
        }
    };

    SpotLog log(SpotLog::Order::START);
    std::size_t taken = 0;
    std::string problem;
    bool begun = false;
    const auto take_until = [&](double time_s) {
        log.release(time_s, [&](const ov_spot& spot, int32_t) {
            taker.take(spot);
            taken++;
        });
        return taker.go_on();
    };
    const auto use = [&](std::size_t k) {
        if (problem.empty()) problem = problems[k];
        if (decoded[k] != 0 && !std::exchange(begun, true)) taker.begin();
        log.add(found[k]);
        found[k] = {};
        // What starts later may come again, and better, from the next block.
        const bool last = k + 1 == blocks.size();
        if (!take_until(last ? HUGE_VAL : blocks[k + 1].begin_s - EDGE_S)) return false;
        taker.progress(blocks[k].begin_s + blocks[k].length_s, taken);
        return true;
    };
    in_order(blocks.size(), jobs_for(options, blocks.front().length_s * recording.rate()), work, use);
    if (!problem.empty()) print_error("cannot decode '" + path + "': " + problem);
    return problem.empty();
}
