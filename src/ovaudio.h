// Audio input and output: sound cards through PortAudio, or samples that the host pushes.
//
//     sound card or ova_push → mono → low-pass, every D-th sample → ring → ova_last
//     transmitter → silence up to the start time → output buffers → sound card
//
// PortAudio's own threads write the ring and render the transmitter; the host copies the ring and reads levels and
// times at any moment, without a lock. Start, stop and destroy of one object must not overlap any other call for it.
// Functions accept null objects and report them by their result.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "liborvel.h"
#include "ovtx.h"

struct OvaCloseStream {
    void operator()(void* stream) const noexcept;  // stops it first
};
struct OvaFree {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

struct ova_state {
    // The capture chain; made by start, freed by stop.
    int32_t started;
    int32_t device_rate;                     // Hz
    int32_t decimation;                      // D
    int32_t capture_rate;                    // device_rate / D
    std::unique_ptr<float[], OvaFree> taps;  // low-pass of gain 1 at 0 Hz
    int32_t n_taps;
    std::unique_ptr<float[], OvaFree> delay;  // last n_taps samples, circular
    int32_t delay_index;                      // the oldest of them, overwritten next
    int32_t decimation_count;
    std::unique_ptr<float[], OvaFree> ring;  // its slots are read and written atomically
    int64_t ring_length;
    std::atomic<int64_t> total;  // samples ever written, published after them

    // Levels of the last tenth of a second.
    double block_peak;
    double block_squares;
    int32_t block_samples;
    int32_t block_length;
    std::atomic<double> peak_db;
    std::atomic<double> rms_db;

    std::atomic<int32_t> overflows;
    double input_latency;  // s
    int32_t input_channels;
    std::unique_ptr<void, OvaCloseStream> input;

    // Playback.
    ovtx_state* tx;  // not owned
    int32_t output_channels;
    double start_time;                    // wanted, s since 1970-01-01 UTC; at once unless above 0
    std::atomic<int32_t> output_started;  // the first sample has been placed
    double output_latency;                // s, as the stream reports it
    int64_t drain;                        // frames of silence still to play after the end
    std::atomic<double> actual_start;     // s since 1970-01-01 UTC, once started
    std::unique_ptr<void, OvaCloseStream> output;

    char error[200];

    std::atomic<int32_t> underflows;  // of the output, since it started
};

// 1: audio support is built in.
int32_t ova_available();

// Devices that PortAudio knows, 0 when it cannot be initialised. They are enumerated once per process.
int32_t ova_device_count();

// Describes a device. Returns 0, or -1 when no device has that index.
int32_t ova_device_info(int32_t index, ovl_audio_device* info);

ova_state* ova_create();
void ova_destroy(ova_state* a);

// Starts capture; ends a running one first.
//
//   device    index, -1 = the default input device, OVL_AUDIO_NONE = samples come through ova_push
//   rate      of the device, Hz; 0 or less = its default. 8000 … 384000 without a device
//   seconds   of audio kept, at least one second; 0 or less = 60. More than 2^31 − 1 samples count as too much memory
// Returns 0, or -1 with the reason in ova_error.
int32_t ova_start_input(ova_state* a, int32_t device, int32_t rate, double seconds);
void ova_stop_input(ova_state* a);

// Takes interleaved samples instead of a sound card, `channels` (1 … 16) of them per frame. Returns the frames, or -1.
int32_t ova_push(ova_state* a, const float* samples, int32_t frames, int32_t channels);

// Copies the newest n captured samples, or as many as there are, oldest first. Returns how many.
int32_t ova_last(ova_state* a, float* out, int32_t n);

void ova_input_stats(const ova_state* a, ovl_audio_stats* stats);

// Rate of the captured samples, 0 when capture is not started.
int32_t ova_input_rate(const ova_state* a);

// Plays a prepared transmitter on a device (-1 = the default output device) so that its first sample is heard at t0,
// seconds since 1970-01-01 UTC, or at once. The transmitter must live, and not be restarted, until output stops.
// Returns 0, or -1 with the reason in ova_error.
int32_t ova_start_output_at(ova_state* a, int32_t device, ovtx_state* tx, double t0);
int32_t ova_start_output(ova_state* a, int32_t device, ovtx_state* tx);

double ova_output_latency(const ova_state* a);  // s
double ova_output_started(const ova_state* a);  // actual start, s since 1970-01-01 UTC; 0 before it is placed
int32_t ova_output_active(const ova_state* a);  // 1 while the stream runs
void ova_stop_output(ova_state* a);

// How often the sound card ran out of samples during the transmission that was started last: each is a gap in it.
int32_t ova_output_underflows(const ova_state* a);

const char* ova_error(const ova_state* a);

// Places the start of the transmission in an output buffer of n frames, unless an earlier buffer held it.
//
//   dac_s      stream time at which the buffer's first frame is heard, 0 = not known
//   stream_s   stream time now, 0 = not known
//   now_s      wall-clock time now, s since 1970-01-01 UTC
// Returns the frame with which the transmission begins; n when that is in a later buffer.
int64_t ova_place_start(ova_state& a, int64_t n, double dac_s, double stream_s, double now_s);

// Fills an output buffer of n frames: silence before frame `first`, the transmission from there. False when nothing was
// left to render.
bool ova_fill_output(ova_state& a, float* out, int64_t n, int64_t first);
