// What decodes the samples of a receiver as they come, whatever they are.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "decoding/search.h"
#include "listening/listener.h"
#include "sources/source.h"

class Ear {
  public:
    Ear() = default;
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;
    virtual ~Ear() = default;

    virtual void push(std::span<const float> samples) = 0;  // as in Piece
    virtual double captured_s() const = 0;                  // pushed so far

    virtual void update(const Listener::Clock& utc) = 0;  // decodes if it is time, gives what was found
    virtual void finish(const Listener::Clock& utc) = 0;  // the same at the end

    virtual bool last_decode_failed() const = 0;
    virtual double decode_seconds() const = 0;  // that decodes took so far; NaN where that is not measured
};

// The one for samples of that format; the search, which must outlive it, counts frequencies as they do. Throws IoError
// when it cannot decode them.
std::unique_ptr<Ear> make_ear(const SourceFormat& format, const Search& search, const ListenerOptions& options,
                              Listener::Taker take, Listener::Teller tell);
