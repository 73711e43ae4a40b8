#include "listening/listener.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <new>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "decoding/decode_block.h"
#include "spots/spot.h"

namespace {

constexpr double SHORTEST_S = 20;        // less than this cannot hold enough of a frame
constexpr double SPARE_S = 1;            // of the history
constexpr double COHERENT_SEARCHES = 4;  // of a frame before it is decided on, about: they cost more than the rest

// Every which decode has a coherent search.
int64_t coherent_every(const ListenerOptions& options) {
    const double decodes = 1 + options.hold_off_s / options.every_s;  // of a frame before it is decided on
    return std::max<int64_t>(1, static_cast<int64_t>(decodes / COHERENT_SEARCHES));
}

}  // namespace

Listener::Listener(const Search& search, const ListenerOptions& options, const History& history, Taker take,
                   Teller tell)
    : search_(search),
      every_s_(options.every_s),
      coherent_every_(coherent_every(options)),
      provisional_(options.provisional),
      history_(history),
      take_(std::move(take)),
      tell_(std::move(tell)),
      confirmation_(options.every_s, options.hold_off_s),
      next_decode_s_(SHORTEST_S) {}

double Listener::history_seconds(const ListenerOptions& options) {
    return Confirmation(options.every_s, options.hold_off_s).block_s() + SPARE_S;
}

void Listener::update(const Clock& utc) {
    const double captured_s = history_.captured_s();
    if (captured_s < next_decode_s_) return;
    next_decode_s_ = captured_s + every_s_;
    decode(false);
    if (provisional_) show_new(utc);
    release(confirmation_.decided_s(captured_s), utc);
}

void Listener::finish(const Clock& utc) {
    decode(true);
    if (provisional_) show_new(utc);
    release(HUGE_VAL, utc);
}

double Listener::block_seconds() const {
    return static_cast<double>(x_.size()) / std::max(history_.rate(), 1);
}

// Leaves out the beginning of the block.
void Listener::skip(double seconds) {
    const auto samples = static_cast<std::ptrdiff_t>(std::lround(seconds * history_.rate()));
    x_.erase(x_.begin(), x_.begin() + std::min(samples, std::ssize(x_)));
    q_.erase(q_.begin(), q_.begin() + std::min(samples, std::ssize(q_)));
}

void Listener::decode(bool last) {
    const double begin = monotonic_now();
    try {
        if (decode_history(last)) {
            complaint_.clear();
        } else {
            complain("cannot decode: the search band does not fit the audio, or memory is short");
        }
    } catch (const std::bad_alloc&) {
        complain("cannot decode: memory is short");
    }
    decode_s_ += monotonic_now() - begin;
}

// The whole block is decoded, though few of its frames are wanted: a strong frame suppresses the phantoms of its own
// parts, and where the block does not hold all of it they pass for frames or hide a weaker one before or after it. For
// the same reason ovl_decode_recent() is not enough: it examines too few candidates to get past those of ten strong
// frames.
bool Listener::decode_history(bool last) {
    const double captured_s = history_.captured_s();
    history_.newest(static_cast<std::size_t>(confirmation_.block_s() * history_.rate()), x_, q_);
    const double copied_s = captured_s - block_seconds();
    skip(confirmation_.next_begin_s(copied_s) - copied_s);
    const double seconds = block_seconds();
    if (seconds < SHORTEST_S) return true;
    auto spots = decode_block({x_, q_, history_.rate()}, next_search(last), last ? -1 : seconds);
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
    decodes_++;
    search.coherent = search_.coherent && (last || (decodes_ - 1) % coherent_every_ == 0);
    return search;
}

// Reports a problem once, until it is over.
void Listener::complain(const std::string& text) {
    if (std::exchange(complaint_, text) != text) tell_(text);
}

// Shows what was found for the first time.
void Listener::show_new(const Clock& utc) {
    log_.show_new([&](Found spot) {
        spot.t = utc(spot.t);
        take_(spot, Standing::PROVISIONAL);
    });
}

// Hands out the frames that ended by captured_s.
void Listener::release(double captured_s, const Clock& utc) {
    log_.release(captured_s, [&](Found spot, int32_t finds) {
        const bool confirmed = confirmation_.confirm(spot_end(spot), finds);
        if (!confirmed && !provisional_) return;
        spot.t = utc(spot.t);
        take_(spot, confirmed ? Standing::CONFIRMED : Standing::WITHDRAWN);
    });
}

void require_served(const std::string& what, const Search& search, int32_t rate) {
    const std::string samples = format("%s at %d Hz", what.c_str(), rate);
    if (!ov_rate_served(static_cast<uint32_t>(rate))) {
        throw IoError(samples + " cannot be decoded; another --rate may do");
    }
    require_within(samples, search, rate);
}
