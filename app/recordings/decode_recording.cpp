#include "recordings/decode_recording.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/blocks.h"
#include "base/error.h"
#include "base/text.h"
#include "decoding/decode_block.h"
#include "system/machine.h"
#include "wideband/wide_decoder.h"

namespace {

constexpr double EDGE_S = 10;     // a frame may begin this long before its block, and a little more
constexpr double OVERLAP_S = 50;  // of blocks: the longest frame and a little more
constexpr double LEAST_BLOCK_S = 90;
constexpr double MOST_BLOCK_S = 300;
constexpr double BLOCK_SAMPLES = 1.8e7;
constexpr double WIDE_BAND_HZ = 24000;  // a wider search goes through the channeliser
constexpr double BYTES_A_SAMPLE = 60;   // that a wide decode of I/Q takes

// Work for a second of a recording, s, as it was measured with some stations on the air (scripts/archive-cost).
constexpr double BLOCK_WORK_S = 3.9e-3;          // of a search by blocks,
constexpr double SAMPLE_WORK_S = 9.2e-8;         // more for each sample,
constexpr double BAND_WORK_S = 3.9e-7;           // and for each Hz of a band
constexpr double CHANNELS_WORK_S = 1.1e-3;       // of a search in slices,
constexpr double CHANNELS_BAND_WORK_S = 8.3e-8;  // and more for each Hz
constexpr uint32_t USUAL_RATE = 12000;           // where headers do not tell, with 16 bits each

// ---- Recording → blocks ---------------------------------------------------------------------------------------------

double block_seconds(const DecodingOptions& options, int32_t rate) {
    const double wanted = options.block_s.value_or(std::clamp(BLOCK_SAMPLES / rate, LEAST_BLOCK_S, MOST_BLOCK_S));
    return std::min(wanted, MOST_BLOCK_SAMPLES / rate);
}

// Blocks of very fast samples are shorter.
double overlap_of(double block_s) {
    return std::min(OVERLAP_S, block_s * 5 / 6);
}

std::vector<BlockSpan> cut(const Recording& recording, const DecodingOptions& options, double from_s, double to_s) {
    const double block_s = block_seconds(options, recording.rate());
    auto blocks = cut_blocks(to_s - from_s, block_s, overlap_of(block_s));
    for (BlockSpan& block : blocks) block.begin_s += from_s;
    return blocks;
}

// Blocks to work on at once: as many as asked for, or one for each core as long as half of the memory holds them.
unsigned jobs_for(const DecodingOptions& options, double block_samples) {
    if (options.search.verbose) return 1;  // so that the messages of each block stay together
    if (options.jobs > 0) return options.jobs;
    const double fit = std::clamp(0.5 * memory_bytes() / (BYTES_A_SAMPLE * std::max(block_samples, 1.0)), 1.0, 256.0);
    return std::min(std::max(1u, std::thread::hardware_concurrency()), static_cast<unsigned>(fit));
}

// ---- Blocks → samples → frames of a block ---------------------------------------------------------------------------

class BlockDecoder {
  public:
    BlockDecoder(Recording& recording, const Search& search) : recording_(recording), search_(search) {}

    // Any thread.
    DecodedBlock decode(const BlockSpan& span) {
        if (ended_) return {};
        try {
            Stretch stretch = recording_.read(span.begin_s, span.length_s, take_used());
            if (span.begin_s > 0 && stretch.x.empty()) {
                ended_ = true;
                return {};
            }
            DecodedBlock block = decode(stretch);
            const std::lock_guard guard(lock_);
            used_.push_back(std::move(stretch));
            return block;
        } catch (const IoError& error) {
            return {.spots = std::nullopt, .problem = error.what()};
        }
    }

  private:
    DecodedBlock decode(const Stretch& stretch) const {
        const Block block{stretch.x, stretch.q, recording_.rate()};
        auto spots = decode_block(block, search_);
        if (!spots) {
            return {.spots = std::nullopt, .problem = "cannot decode '" + recording_.path() + "': " + refusal(block)};
        }
        for (Found& spot : *spots) spot.t += stretch.begin_s;
        return {.spots = std::move(spots), .problem = ""};
    }

    static std::string refusal(const Block& block) {
        if (block.seconds() >= ovl_chip_seconds()) {
            return "the search band does not fit the recording, or memory is short";
        }
        return format("it is too short (%.3f s, a chip is 0.128 s)", block.seconds());
    }

    Stretch take_used() {
        const std::lock_guard guard(lock_);
        if (used_.empty()) return {};
        Stretch stretch = std::move(used_.back());
        used_.pop_back();
        return stretch;
    }

    Recording& recording_;
    const Search& search_;
    std::atomic<bool> ended_ = false;  // the file does before its header says
    std::mutex lock_;
    std::vector<Stretch> used_;  // one for each thread at most
};

// Decodes blocks [first, end) of all.
void decode_some(Recording& recording, const DecodingOptions& options, std::span<const BlockSpan> blocks,
                 std::size_t first, std::size_t end, const std::function<bool(DecodedBlock, std::size_t)>& use) {
    BlockDecoder decoder(recording, options.search);
    results_in_order(
        end - first, jobs_for(options, blocks.front().length_s * recording.rate()),
        [&](std::size_t k) { return decoder.decode(blocks[first + k]); },
        [&](DecodedBlock block, std::size_t k) {
            const std::size_t next = first + k + 1;
            if (next < blocks.size()) block.until_s = blocks[next].begin_s - EDGE_S;
            return use(std::move(block), first + k);
        });
}

// ---- Wide bands -----------------------------------------------------------------------------------------------------

double wide_hz(const Search& search, int32_t rate) {
    const Range whole = whole_band(search.iq, rate);
    const Range band = search.band.value_or(whole);
    return std::min(band.high, whole.high) - std::max(band.low, whole.low);
}

bool needs_channels(const Search& search, int32_t rate, double seconds) {
    return search.wide && seconds >= ovl_chip_seconds() && rate <= MOST_WIDE_RATE &&
           wide_hz(search, rate) > WIDE_BAND_HZ;
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

unsigned jobs_of_channels(const DecodingOptions& options) {
    if (options.search.verbose) return 1;
    return options.jobs > 0 ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
}

std::string problem_of_channels(const Recording& recording, const WideDecoder& decoder) {
    if (decoder.problem().empty()) return "";
    return "cannot decode all of '" + recording.path() + "': " + decoder.problem();
}

// Once through the recording: `next` gives some more samples, false at the end. What came before it throws is decoded.
template <class Next>
void decode_channels(const Recording& recording, const DecodingOptions& options, double from_s, Next next,
                     const SpotTaker& taker) {
    std::size_t taken = 0;
    WideDecoder decoder(recording.rate(), options.search, {.jobs = jobs_of_channels(options)},
                        [&](Found spot, Standing) {
                            spot.t += from_s;
                            taker.take(spot);
                            taken++;
                        });
    taker.begin();
    double read_s = from_s;
    std::exception_ptr failure;
    try {
        for (Stretch stretch; next(stretch);) {
            decoder.push(interleaved(stretch));
            read_s += static_cast<double>(stretch.x.size()) / recording.rate();
            taker.progress(from_s + decoder.done_s(), taken);
            if (!taker.go_on()) return;
        }
    } catch (const IoError&) {
        failure = std::current_exception();
    }
    decoder.finish();
    taker.progress(read_s, taken);
    if (failure) std::rethrow_exception(failure);
    if (const std::string problem = problem_of_channels(recording, decoder); !problem.empty()) throw IoError(problem);
}

// Some samples from one on.
Stretch read_frames(Recording& recording, int64_t first, int64_t count) {
    const double rate = recording.file_rate();
    return recording.read((static_cast<double>(first) + 0.5) / rate, (static_cast<double>(count) - 0.5) / rate);
}

// The samples of a recording from a frame on, piece by piece. What is converted is so piece by piece, each of a second,
// which becomes a whole number of samples, as through a pipe.
class Pieces {
  public:
    Pieces(Recording& recording, int64_t first, int64_t end)
        : recording_(recording),
          converted_(static_cast<uint32_t>(recording.rate()) != recording.file_rate()),
          frames_(converted_ ? recording.file_rate() : recording.file_rate() / 4 + 1),
          at_(first),
          end_(end) {}

    // Samples of a piece.
    int64_t length() const { return converted_ ? recording_.rate() : frames_; }

    void pass_over(int64_t pieces) { at_ += pieces * frames_; }

    // False at the end.
    bool next(Stretch& piece) {
        if (at_ >= end_) return false;
        piece = read_frames(recording_, at_, std::min<int64_t>(frames_, end_ - at_));
        at_ += frames_;
        return !piece.x.empty();  // it may end before its header says
    }

  private:
    Recording& recording_;
    bool converted_;
    int64_t frames_;  // of a piece
    int64_t at_, end_;
};

// One pass over all of a recording between two times.
void decode_at_once(Recording& recording, const DecodingOptions& options, double from_s, double to_s,
                    const SpotTaker& taker) {
    const double rate = recording.file_rate();
    const auto first = static_cast<int64_t>(std::floor(from_s * rate));
    const auto end = static_cast<int64_t>(std::ceil(to_s * rate));
    const auto next = [pieces = Pieces(recording, first, end)](Stretch& piece) mutable { return pieces.next(piece); };
    decode_channels(recording, options, static_cast<double>(first) / rate, next, taker);
}

// Decodes steps [first, end) of all. Those past the end of the file hold nothing.
void decode_steps(Recording& recording, const DecodingOptions& options, std::size_t first, std::size_t end,
                  std::size_t count, const std::function<bool(DecodedBlock, std::size_t)>& use) {
    std::size_t next = first;
    bool wanted = true;
    const auto hand_out = [&](DecodedBlock step) {
        const std::size_t k = next++;
        if (next < count) step.until_s = WideDecoder::decided_s(static_cast<int64_t>(next));
        wanted = wanted && use(std::move(step), k);
    };
    std::string problem;
    try {
        std::optional<WideDecoder> decoder;
        const auto take = [&](std::vector<Found> found) {
            hand_out({.spots = std::move(found), .problem = problem_of_channels(recording, *decoder)});
        };
        decoder.emplace(recording.rate(), options.search, WideOptions{.jobs = jobs_of_channels(options)},
                        WidePart{static_cast<int64_t>(first), static_cast<int64_t>(end), take});
        Pieces pieces(recording, 0, static_cast<int64_t>(std::ceil(recording.seconds() * recording.file_rate())));
        pieces.pass_over(decoder->first_sample() / pieces.length());
        auto left_out = static_cast<std::size_t>(decoder->first_sample() % pieces.length());
        for (Stretch piece; wanted && decoder->takes_more() && pieces.next(piece);) {
            const std::vector<float> samples = interleaved(piece);
            const std::size_t before = std::exchange(left_out, 0) * samples.size() / piece.x.size();
            decoder->push(std::span(samples).subspan(std::min(before, samples.size())));
        }
        if (wanted) decoder->finish();
    } catch (const IoError& error) {
        problem = error.what();
    }
    while (wanted && next < end) hand_out({.spots = std::nullopt, .problem = problem});
}

}  // namespace

Spot recorded_spot(const Found& found, const std::string& path, std::span<const Take> takes, bool coherent) {
    Spot spot = spot_of(found, path);
    const Take& take = take_at(takes, 0.5 * (spot.start + spot.end));
    spot.file_utc = take.utc_zero();
    if (take.tuning) spot.rf_hz = take.tuning->rf_hz(spot.freq_hz);
    if (coherent) spot.finding = finding_of(found);
    return spot;
}

bool BlockMerger::add(DecodedBlock block) {
    if (problem_.empty()) problem_ = std::move(block.problem);
    if (block.spots) {
        if (!std::exchange(begun_, true)) taker_.begin();
        log_.add(*block.spots);
    }
    log_.release(block.until_s, [&](const Found& spot, int32_t) {
        taker_.take(spot);
        taken_++;
    });
    return taker_.go_on();
}

void decode_recording(Recording& recording, const DecodingOptions& options, double from_s, double to_s,
                      const SpotTaker& taker) {
    require_within("'" + recording.path() + "'", options.search, recording.rate());
    if (needs_channels(options.search, recording.rate(), to_s - from_s)) {
        return decode_at_once(recording, options, from_s, to_s, taker);
    }
    const std::vector<BlockSpan> blocks = cut(recording, options, from_s, to_s);
    BlockMerger merger(taker);
    decode_some(recording, options, blocks, 0, blocks.size(), [&](DecodedBlock block, std::size_t k) {
        if (!merger.add(std::move(block))) return false;
        taker.progress(blocks[k].begin_s + blocks[k].length_s, merger.taken());
        return true;
    });
    if (!merger.problem().empty()) throw IoError(merger.problem());
}

double expected_work_s(const RecordingSize& size, const DecodingOptions& options) {
    if (size.rate == 0) {
        const double seconds = static_cast<double>(size.bytes) / (2 * USUAL_RATE);
        return expected_work_s({.bytes = size.bytes, .rate = USUAL_RATE, .seconds = seconds, .iq = size.iq}, options);
    }
    Search search = options.search;
    search.iq = size.iq;
    const auto rate = static_cast<int32_t>(std::min(size.rate, uint32_t{INT32_MAX}));
    const double band_hz = search.wide ? std::max(wide_hz(search, rate), 0.0) : 0;
    if (needs_channels(search, rate, size.seconds)) {
        return size.seconds * (CHANNELS_WORK_S + CHANNELS_BAND_WORK_S * band_hz);
    }
    const double block_s = block_seconds(options, rate);
    const double times = size.seconds > block_s ? block_s / (block_s - overlap_of(block_s)) : 1;
    return times * size.seconds * (BLOCK_WORK_S + SAMPLE_WORK_S * rate + BAND_WORK_S * band_hz);
}

std::size_t count_blocks(const Recording& recording, const DecodingOptions& options) {
    require_within("'" + recording.path() + "'", options.search, recording.rate());
    const double seconds = recording.seconds();
    if (!needs_channels(options.search, recording.rate(), seconds)) return cut(recording, options, 0, seconds).size();
    return static_cast<std::size_t>(WideDecoder::steps_in(seconds));
}

void decode_blocks(Recording& recording, const DecodingOptions& options, std::size_t first, std::size_t end,
                   const std::function<bool(DecodedBlock block, std::size_t k)>& use) {
    if (needs_channels(options.search, recording.rate(), recording.seconds())) {
        return decode_steps(recording, options, first, end, count_blocks(recording, options), use);
    }
    decode_some(recording, options, cut(recording, options, 0, recording.seconds()), first, end, use);
}

void decode_piped(PipedRecording& recording, const DecodingOptions& options, const SpotTaker& taker) {
    require_within("'" + recording.path() + "'", options.search, recording.rate());
    while (recording.seconds() < ovl_chip_seconds() && recording.read_on()) {
    }
    if (needs_channels(options.search, recording.rate(), recording.seconds())) {
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
    const double block_s = block_seconds(options, recording.rate());
    BlockCutter cutter(block_s, overlap_of(block_s));
    const auto next = [&] {
        auto block = cutter.next(recording.seconds(), recording.ended());
        while (!block && !recording.ended()) {
            recording.read_on();
            block = cutter.next(recording.seconds(), recording.ended());
        }
        return block;
    };
    BlockDecoder decoder(recording, options.search);
    BlockMerger merger(taker);
    for (auto block = next(); block;) {
        recording.forget(block->begin_s);
        DecodedBlock result = decoder.decode(*block);
        block = next();  // may begin earlier than this one's length lets expect: it may be the last
        if (block) result.until_s = block->begin_s - EDGE_S;
        if (!merger.add(std::move(result))) return;
    }
    if (!merger.problem().empty()) throw IoError(merger.problem());
}
