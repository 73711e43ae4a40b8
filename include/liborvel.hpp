/*
 * liborvel for C++20: owners, spans and exceptions over the C interface of liborvel.h, and nothing beyond it.
 *
 *     ovl::Decoder decoder;
 *     for (const ovl_result& result : decoder.decode(samples, 12000)) {
 *         std::printf("%7.2f s  %s\n", result.t_start, result.call);
 *     }
 *
 * liborvel.h is the manual: it says what each call means, its ranges and its messages, and its records and constants
 * are used as they are. This header says only what C++ adds.
 *
 * Errors. What the library refuses is thrown as ovl::Error with the library's message, and lack of memory as
 * std::bad_alloc. These are exceptions, not results to be unpacked, since constructors can fail too, and a refusal is a
 * mistake in the call or a missing device, never the ordinary "nothing found", which is an empty vector. Functions
 * marked noexcept throw nothing.
 *
 * Samples, steps and results. Spans are read or filled during the call only; results are the caller's. A span of more
 * than 2^31 - 1 elements is refused.
 *
 * Ownership. A Decoder, Transmitter or Audio owns its C object and ends it in its destructor. It moves and does not
 * copy; a moved-from object may be assigned to or destroyed, and any other call is refused or does nothing, as the C
 * call does for NULL. get() lends the C object.
 *
 * Threads. As in C: separate objects may work in separate threads at once; one object serves one thread at a time,
 * except where liborvel.h says "any thread". Moving or destroying an object must not overlap any other use of it.
 */
#ifndef LIBORVEL_HPP
#define LIBORVEL_HPP

#if __cplusplus < 202002L
#error "liborvel.hpp needs C++20: compile with -std=c++20, or link liborvel::liborvel in CMake, which asks for it."
#endif

#include <liborvel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ovl {

/* What the library, or a check of this header, refused; what() says why. */
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/* Not for use from outside. */
namespace detail {

[[noreturn]] inline void refuse(const char *message) {
    if (std::string_view(message) == "out of memory") throw std::bad_alloc();
    throw Error(message);
}

/* The length of a span as the C interface counts. */
inline int32_t count(std::size_t size) {
    if (size > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) throw Error("too many elements");
    return static_cast<int32_t>(size);
}

/* A text for the C interface, which would take one with a NUL in it for a shorter one. */
inline const char *text(const std::string &value) {
    if (value.find('\0') != std::string::npos) throw Error("text with a NUL in it");
    return value.c_str();
}

/* Copies a text into a field of a step, which must also hold a NUL. */
template <std::size_t Size>
void fill(char (&field)[Size], std::string_view value) {
    if (value.size() >= Size || value.find('\0') != std::string_view::npos) throw Error("text does not fit a step");
    std::copy(value.begin(), value.end(), field);
}

/* Owner of a C object. */
template <class Object, void (*destroy)(Object *)>
struct Destroy {
    void operator()(Object *object) const noexcept { destroy(object); }
};
template <class Object, void (*destroy)(Object *)>
using Owner = std::unique_ptr<Object, Destroy<Object, destroy>>;

template <class Object>
Object *made(Object *object) {
    if (object == nullptr) throw std::bad_alloc();
    return object;
}

}  // namespace detail

/* ---- Library ----------------------------------------------------------------------------------------------- */

/* Version of the interface and of the library. */
inline int32_t api_version() noexcept {
    return ovl_api_version();
}
inline std::string_view version() noexcept {
    return ovl_version();
}

/* ---- Protocols --------------------------------------------------------------------------------------------- */

/* Chips in one frame of a protocol; 0 for anything that is not exactly one protocol id. */
inline int32_t frame_chips(uint32_t proto) noexcept {
    return ovl_frame_chips(proto);
}

/* Name of a protocol; "" for anything else. */
inline std::string_view proto_name(uint32_t proto) noexcept {
    return ovl_proto_name(proto);
}

/* Length of a chip, s. */
inline double chip_seconds() noexcept {
    return ovl_chip_seconds();
}

/* The chips of one frame: 1 = carrier on, 0 = off. `loc` is for ORVEL L. Throws Error when a frame cannot carry it. */
inline std::vector<uint8_t> encode(uint32_t proto, const std::string &call, const std::string &loc = {}) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(ovl_frame_chips(proto)));
    if (ovl_encode(proto, detail::text(call), detail::text(loc), chips.data(), detail::count(chips.size())) < 0) {
        throw Error("cannot encode " + call + (loc.empty() ? "" : " ") + loc);
    }
    return chips;
}

/* ---- Decoder ----------------------------------------------------------------------------------------------- */

/* Frames that one block can yield at most. */
inline constexpr int32_t MAX_RESULTS = 64;

/* What to look for, with everything at its default. */
inline ovl_settings default_settings() noexcept {
    ovl_settings settings;
    ovl_settings_default(&settings);
    return settings;
}

/* How far the coherent search goes, with everything at its default. */
inline ovl_coherent default_coherent() noexcept {
    ovl_coherent settings;
    ovl_coherent_default(&settings);
    return settings;
}

class Decoder {
  public:
    Decoder() : decoder_(detail::made(ovl_create())) {}

    /* Replaces the list of known callsigns; "" empties it. Returns how many are known now. */
    int32_t set_known(const std::string &list) { return checked(ovl_set_known(get(), detail::text(list))); }

    /* Switches the coherent search on for the decodes that follow, and off. */
    void set_coherent(const ovl_coherent &settings = default_coherent()) {
        checked(ovl_set_coherent(get(), &settings));
    }
    void clear_coherent() { checked(ovl_set_coherent(get(), nullptr)); }

    /* All frames in a block of mono samples, in order of start time. */
    std::vector<ovl_result> decode(std::span<const float> samples, int32_t rate,
                                   const ovl_settings &settings = default_settings()) {
        std::vector<ovl_result> results(MAX_RESULTS);
        const int32_t n = detail::count(samples.size());
        const int32_t found =
            checked(ovl_decode(get(), samples.data(), n, rate, &settings, results.data(), MAX_RESULTS));
        results.resize(static_cast<std::size_t>(found));
        return results;
    }

    /* Only those that end within the last recent_s seconds of the block. */
    std::vector<ovl_result> decode_recent(std::span<const float> samples, int32_t rate, double recent_s,
                                          const ovl_settings &settings = default_settings()) {
        std::vector<ovl_result> results(MAX_RESULTS);
        const int32_t n = detail::count(samples.size());
        const int32_t found = checked(
            ovl_decode_recent(get(), samples.data(), n, rate, &settings, recent_s, results.data(), MAX_RESULTS));
        results.resize(static_cast<std::size_t>(found));
        return results;
    }

    /* How the results of the last decode were found, in their order. */
    std::vector<ovl_finding> findings() const {
        std::vector<ovl_finding> findings(MAX_RESULTS);
        findings.resize(static_cast<std::size_t>(checked(ovl_findings(get(), findings.data(), MAX_RESULTS))));
        return findings;
    }

    /* Message of the last call, "" after a success; valid until the next call. */
    std::string_view last_error() const noexcept { return ovl_last_error(get()); }

    ovl_decoder *get() const noexcept { return decoder_.get(); }

  private:
    int32_t checked(int32_t result) const {
        if (result < 0) detail::refuse(ovl_last_error(get()));
        return result;
    }

    detail::Owner<ovl_decoder, ovl_destroy> decoder_;
};

/*
 * Frequencies at which something is keyed in the newest seconds of a block, strongest first, at most max_hits of them.
 * Throws Error for a bad argument or lack of memory, which the C interface does not distinguish.
 */
inline std::vector<ov_hit> keyed(std::span<const float> samples, int32_t rate, const ovl_settings &settings,
                                 double seconds, double z_min, int32_t max_hits = MAX_RESULTS) {
    if (max_hits < 1) throw Error("room for no hits");
    const int32_t n = detail::count(samples.size());
    std::vector<ov_hit> hits(static_cast<std::size_t>(max_hits));
    const int32_t found = ovl_keyed(samples.data(), n, rate, &settings, seconds, z_min, hits.data(), max_hits);
    if (found < 0) throw Error("invalid argument, or out of memory");
    hits.resize(static_cast<std::size_t>(found));
    return hits;
}

/* ---- Transmitter ------------------------------------------------------------------------------------------- */

/* How a sequence sounds, with everything at its default. */
inline ovl_tx_settings default_tx_settings() noexcept {
    ovl_tx_settings settings;
    ovl_tx_settings_default(&settings);
    return settings;
}

/* Steps of a sequence. Texts too long for their fields throw Error; the rest is checked by Transmitter::start(). */
inline ovl_tx_step tx_frame(uint32_t proto, std::string_view call, std::string_view locator = {}) {
    ovl_tx_step step{};
    step.kind = OVL_TX_FRAME;
    step.protocol = static_cast<int32_t>(proto);
    detail::fill(step.call, call);
    detail::fill(step.locator, locator);
    return step;
}
inline ovl_tx_step tx_carrier(double seconds) noexcept {
    ovl_tx_step step{};
    step.kind = OVL_TX_CARRIER;
    step.seconds = seconds;
    return step;
}
inline ovl_tx_step tx_pause(double seconds, bool keep_keyed = false) noexcept {
    ovl_tx_step step{};
    step.kind = OVL_TX_PAUSE;
    step.seconds = seconds;
    step.keep_keyed = keep_keyed ? 1 : 0;
    return step;
}

class Transmitter {
  public:
    Transmitter() : tx_(detail::made(ovl_tx_create())) {}

    /* Prepares a sequence of 1 to 64 steps. When it throws, the transmitter renders silence. */
    void start(std::span<const ovl_tx_step> steps, const ovl_tx_settings &settings = default_tx_settings()) {
        if (ovl_tx_start(get(), &settings, steps.data(), detail::count(steps.size())) < 0) {
            detail::refuse(ovl_tx_last_error(get()));
        }
    }

    /*
     * Fills `out` with the next samples, silence after the end. Returns how many belong to the transmission; fewer than
     * out.size() when it has ended. A moved-from transmitter leaves `out` alone and returns 0.
     */
    std::size_t render(std::span<float> out) {
        return static_cast<std::size_t>(ovl_tx_render(get(), out.data(), detail::count(out.size())));
    }

    /* Ends the transmission softly. Any thread. */
    void stop() noexcept { ovl_tx_stop(get()); }

    /* Moves the level smoothly to another value. Any thread. */
    void set_level(double level) {
        if (ovl_tx_set_level(get(), level) < 0) throw Error("level out of range (0 < level <= 1)");
    }

    /* The progress of the transmission. Any thread. */
    ovl_tx_progress status() const noexcept {
        ovl_tx_progress progress{};
        ovl_tx_status(get(), &progress);
        return progress;
    }

    /* Message of the last start(), "" after a success. */
    std::string_view last_error() const noexcept { return ovl_tx_last_error(get()); }

    ovl_transmitter *get() const noexcept { return tx_.get(); }

  private:
    detail::Owner<ovl_transmitter, ovl_tx_destroy> tx_;
};

/* ---- Audio devices ----------------------------------------------------------------------------------------- */

/* Number of the default device, for input and for output. */
inline constexpr int32_t DEFAULT_DEVICE = -1;

/* Whether the library has been built with audio support. */
inline bool audio_available() noexcept {
    return ovl_audio_available() != 0;
}

/* Number of sound devices. */
inline int32_t audio_device_count() noexcept {
    return ovl_audio_device_count();
}

/* One sound device. Throws Error when there is none with that number. */
inline ovl_audio_device audio_device_info(int32_t index) {
    ovl_audio_device device{};
    if (ovl_audio_device_info(index, &device) < 0) throw Error("no such device");
    return device;
}

/*
 * Capture and playback.
 *
 * A Transmitter that is being played stays the caller's: it must not be moved, restarted or destroyed before
 * stop_output() or the end of this object. So declare it before the Audio that plays it. (A move of either object
 * leaves its C object where it is, but nobody else may be using it at that moment.)
 */
class Audio {
  public:
    Audio() : audio_(detail::made(ovl_audio_create())) {}

    /* Starts capture: rate 0 = the device's, seconds 0 = keep a minute. */
    void start_input(int32_t device = DEFAULT_DEVICE, int32_t rate = 0, double seconds = 0) {
        checked(ovl_audio_start_input(get(), device, rate, seconds));
    }

    /* Ends capture; what was captured is gone. */
    void stop_input() noexcept { ovl_audio_stop_input(get()); }

    /* Captures interleaved samples of the host, a whole number of frames, with device OVL_AUDIO_NONE. */
    void push(std::span<const float> samples, int32_t channels = 1) {
        if (channels < 1 || samples.size() % static_cast<std::size_t>(channels) != 0) {
            throw Error("samples are no whole number of frames");
        }
        const int32_t frames = detail::count(samples.size() / static_cast<std::size_t>(channels));
        if (ovl_audio_push(get(), samples.data(), frames, channels) < 0) {
            const char *reason = ovl_audio_last_error(get());
            detail::refuse(*reason != '\0' ? reason : "not capturing, or samples or channels out of range");
        }
    }

    /* Copies the newest captured samples into the front of `out`, oldest first. Returns how many. Any thread. */
    std::size_t last(std::span<float> out) const {
        return static_cast<std::size_t>(ovl_audio_last(get(), out.data(), detail::count(out.size())));
    }

    /* How capture is doing. Any thread. */
    ovl_audio_stats input_stats() const noexcept {
        ovl_audio_stats stats{};
        ovl_audio_input_stats(get(), &stats);
        return stats;
    }

    /* Plays a prepared transmitter at once, or from a time on: seconds since 1970-01-01 UTC. */
    void start_output(int32_t device, Transmitter &tx) { checked(ovl_audio_start_output(get(), device, tx.get())); }
    void start_output_at(int32_t device, Transmitter &tx, double start_time) {
        checked(ovl_audio_start_output_at(get(), device, tx.get(), start_time));
    }

    /* Delay of the output, s; when its first sample leaves the sound card, 0 while unknown; whether it runs. */
    double output_latency() const noexcept { return ovl_audio_output_latency(get()); }
    double output_started() const noexcept { return ovl_audio_output_started(get()); }
    bool output_active() const noexcept { return ovl_audio_output_active(get()) != 0; }

    /* Ends playback. */
    void stop_output() noexcept { ovl_audio_stop_output(get()); }

    /* Message of the last start, "" after a success, or of a push that was refused since. */
    std::string_view last_error() const noexcept { return ovl_audio_last_error(get()); }

    ovl_audio *get() const noexcept { return audio_.get(); }

  private:
    void checked(int32_t result) const {
        if (result < 0) detail::refuse(ovl_audio_last_error(get()));
    }

    detail::Owner<ovl_audio, ovl_audio_destroy> audio_;
};

}  // namespace ovl

#endif
