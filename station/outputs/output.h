// Where spots go besides the store. The kinds of outputs are one table; a new kind is a file and a line there.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "config/config.h"
#include "store/store.h"

// What an output tells of its keeper.
struct Keeper {
    std::string callsign, locator, antenna;
};

// Each has a thread of its own, which makes all calls.
class Output {
  public:
    virtual ~Output() = default;

    // Sends spots, in the order of their numbers, and returns how many of the first have arrived: confirmed by the
    // other side or, where nobody confirms, handed to the system. Those that have not are sent again. May take some
    // seconds. Throws IoError when it does not work; it is tried again later.
    virtual std::size_t send(std::span<const StoredSpot> spots) = 0;

    // Called about once a second.
    virtual void tick() {}

    // Asked before spots are sent: the number after which they go on, where the other side keeps account of it; it may
    // have gone back. `output` is this one's name in the store. Throws IoError.
    virtual int64_t resume(Store&, const std::string& /*output*/, int64_t position) { return position; }

    // Whether it would work: throws IoError when not. Sends no spots; a station that runs with the same output must not
    // notice.
    virtual void check() { tick(); }

    // How a receiver does, each minute; only to those that want it. Throws IoError.
    virtual bool wants_minutes() const { return false; }
    virtual void take(const ReceiverMinute&) {}

    // Between attempts, after failures; the first pause is 1 s, and they double.
    virtual double longest_pause_s() const { return 60; }

    // Spots that one call of send() may get.
    virtual std::size_t most_at_once() const { return 200; }
};

struct OutputType {
    OutputKind kind;
    std::unique_ptr<Output> (*make)(const Values& values, const Keeper& keeper);  // throws UsageError
};

// All types, and what their tables may hold.
std::span<const OutputType> output_types();
std::vector<OutputKind> output_kinds();

// Throws UsageError.
std::unique_ptr<Output> make_output(const OutputConfig& config, const Keeper& keeper);

// Whether an output wants a spot: those that are not read from the air with certainty stay here unless it asks for them
// by `doubtful = true`.
bool is_wanted(const StoredSpot& stored, const Values& values);

// The spot as one line of JSON: "id", "station", and the fields of spot_line().
std::string stored_line(const StoredSpot& stored, const Keeper& keeper);
