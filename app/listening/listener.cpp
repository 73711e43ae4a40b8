#include "listening/listener.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/text.h"
#include "decoding/decode_block.h"
#include "spots/spot.h"

namespace {

constexpr double SHORTEST_S = 20;  // less than this cannot hold enough of a frame
constexpr double SPARE_S = 1;      // of the ring: a buffer may arrive while it is copied
constexpr int32_t MAX_TRIES = 3;
constexpr double COHERENT_SEARCHES = 4;  // of a frame before it is decided on, about: they cost more than the rest

// Every which decode has a coherent search.
int64_t coherent_every(const ListenerOptions& options) {
    const double decodes = 1 + options.hold_off_s / options.every_s;  // of a frame before it is decided on
    return std::max<int64_t>(1, static_cast<int64_t>(decodes / COHERENT_SEARCHES));
}

}  // namespace

Listener::Listener(const Search& search, const ListenerOptions& options, ovl_audio* audio, Taker take)
    : search_(search),
      every_s_(options.every_s),
      coherent_every_(coherent_every(options)),
      audio_(audio),
      take_(std::move(take)),
      confirmation_(options.every_s, options.hold_off_s),
      next_decode_s_(SHORTEST_S) {}

double Listener::ring_seconds(const ListenerOptions& options) {
    return Confirmation(options.every_s, options.hold_off_s).block_s() + SPARE_S;
}

void Listener::update(const ovl_audio_stats& stats, const Clock& utc) {
    if (stats.captured_s < next_decode_s_) return;
    next_decode_s_ = stats.captured_s + every_s_;
    decode(false);
    release(confirmation_.decided_s(stats.captured_s), utc);
}

void Listener::finish(const Clock& utc) {
    decode(true);
    release(HUGE_VAL, utc);
}

void Listener::restart() {
    log_ = SpotLog(SpotLog::Order::END);
    next_decode_s_ = SHORTEST_S;
    confirmation_.clear();
}

// Copies what the ring holds. Returns how many seconds had been captured with its last sample.
double Listener::copy_block() {
    ovl_audio_stats before;
    ovl_audio_stats after;
    int32_t tries = 0;
    do {
        ovl_audio_input_stats(audio_, &before);
        rate_ = before.rate;
        block_.resize(static_cast<std::size_t>(confirmation_.block_s() * rate_));
        const int32_t n = ovl_audio_last(audio_, block_.data(), static_cast<int32_t>(block_.size()));
        block_.resize(static_cast<std::size_t>(n));
        ovl_audio_input_stats(audio_, &after);
    } while (after.captured_s != before.captured_s && ++tries < MAX_TRIES);  // a buffer arrived meanwhile
    return after.captured_s;
}

double Listener::block_seconds() const {
    return static_cast<double>(block_.size()) / std::max(rate_, 1);
}

// Leaves out the beginning of the block.
void Listener::skip(double seconds) {
    const auto samples = static_cast<std::ptrdiff_t>(std::lround(seconds * rate_));
    block_.erase(block_.begin(), block_.begin() + std::min(samples, std::ssize(block_)));
}

void Listener::decode(bool last) {
    try {
        if (decode_ring(last)) {
            complaint_.clear();
        } else {
            complain("cannot decode: the search band does not fit the audio, or memory is short");
        }
    } catch (const std::bad_alloc&) {
        complain("cannot decode: memory is short");
    }
}

// The whole block is decoded, though few of its frames are wanted: a strong frame suppresses the phantoms of its own
// parts, and where the block does not hold all of it they pass for frames or hide a weaker one before or after it. For
// the same reason ovl_decode_recent() is not enough: it examines too few candidates to get past those of ten strong
// frames.
bool Listener::decode_ring(bool last) {
    const double captured_s = copy_block();
    const double copied_s = captured_s - block_seconds();
    skip(confirmation_.next_begin_s(copied_s) - copied_s);
    const double seconds = block_seconds();
    if (seconds < SHORTEST_S) return true;
    samples_.assign(block_.begin(), block_.end());
    auto spots = decode_block({samples_, {}, rate_}, next_search(last), last ? -1 : seconds);
    if (!spots) return false;

    const double earliest_end = confirmation_.add(captured_s);
    for (Found& spot : *spots) spot.t += captured_s - seconds;
    std::erase_if(*spots, [&](const ov_spot& spot) { return spot_end(spot) < earliest_end; });
    log_.add(*spots);
    return true;
}

// What the next decode looks for.
Search Listener::next_search(bool last) {
    Search search = search_;
    search.coherent = search_.coherent && (last || decodes_++ % coherent_every_ == 0);
    return search;
}

// Reports a problem once, until it is over.
void Listener::complain(const std::string& text) {
    if (std::exchange(complaint_, text) != text) print_error(text);
}

// Hands out the frames that ended by captured_s.
void Listener::release(double captured_s, const Clock& utc) {
    log_.release(captured_s, [&](Found spot, int32_t finds) {
        if (!confirmation_.confirm(spot_end(spot), finds)) return;
        spot.t = utc(spot.t);
        take_(spot);
    });
}

void require_served(const ovl_audio* audio, const Search& search) {
    ovl_audio_stats stats;
    ovl_audio_input_stats(audio, &stats);
    if (!ov_rate_served(static_cast<uint32_t>(stats.rate))) {
        throw IoError(format("audio captured at %d Hz cannot be decoded; another --rate may do", stats.rate));
    }
    require_within(format("audio captured at %d Hz", stats.rate), search, stats.rate);
}
