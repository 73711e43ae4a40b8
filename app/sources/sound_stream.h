// What a sound device captures, as a stream that may be opened again and again.
#pragma once

#include <cstdint>
#include <memory>

#include "sources/source.h"

// Every call may hang in the sound system but those of stats() and take(). One call at a time.
class SoundStream {
  public:
    struct Stats {
        double captured_s = 0;  // since it was opened
        int32_t losses = 0;     // times that input was lost
        int32_t rate = 0;       // Hz
    };

    SoundStream() = default;
    SoundStream(const SoundStream&) = delete;
    SoundStream& operator=(const SoundStream&) = delete;
    virtual ~SoundStream() = default;

    // Begins anew. Throws IoError.
    virtual void open() = 0;
    virtual void close() = 0;

    virtual Stats stats() const = 0;

    // The samples since the last call or the opening, as far as they are still there.
    virtual void take(Piece& piece) = 0;
};

// As one channel, at the rate to which the library brings those of the device; `rate` is the device's, 0 = its usual
// one. What is not taken within keep_s is lost.
std::unique_ptr<SoundStream> make_audio_stream(int32_t device, int32_t rate, double keep_s);

// The first two channels as I and Q, at the device's rate.
std::unique_ptr<SoundStream> make_iq_stream(int32_t device, int32_t rate, double keep_s);
