// Transmit sequencer: from a list of carriers, pauses and frames to the samples of one keyed tone.
//
//     steps → keyed segments (tone on or off) → raised-cosine envelope → phase-continuous sine
//
// A transmitter is made, started with a sequence any number of times, rendered to its end or stopped softly, and
// destroyed. One thread renders while others may call stop, set_level and status; start and destroy must not overlap a
// render. Functions accept null transmitters and report them by their result.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "liborvel.h"

inline constexpr int32_t OVTX_MAX_STEPS = 64;

// A stretch of the transmission with the tone on or off.
struct ovtx_seg {
    int32_t start;    // first sample
    float amplitude;  // 1 or 0
    int16_t step;     // step that made it
    int16_t chip;     // its chip in a frame, -1 in carriers and pauses
};

struct ovtx_state {
    // What is to be sent; written by start only.
    ovl_tx_settings settings;
    ovl_tx_step steps[OVTX_MAX_STEPS];
    int32_t n_steps;
    int32_t chips[OVTX_MAX_STEPS];   // chips of each frame step, else 0
    std::vector<ovtx_seg> segments;  // keeps its memory from one start to the next
    int32_t length;                  // samples of all steps
    int32_t ramp;                    // samples of a key transition, and of the closing ramp after the last step
    int32_t end;                     // length + ramp

    // Where rendering stands; written by render, read by status.
    std::atomic<int32_t> position;       // samples
    std::atomic<int32_t> segment;        // current segment
    double phase;                        // rad
    double increment;                    // rad per sample
    float last_amplitude;                // of the envelope
    float level;                         // gliding towards the target
    float glide;                         // share of the remaining way that it covers per sample
    std::atomic<int32_t> stop_position;  // -1: no stop under way
    float stop_amplitude;                // of the envelope where the stop began

    // Controls; written by any thread.
    std::atomic<int32_t> stop_requested;
    std::atomic<float> target_level;

    std::atomic<int32_t> prepared;
    std::atomic<int32_t> finished;
    char error[160];
};

// A transmitter with nothing prepared, or null when memory is short.
ovtx_state* ovtx_create();
void ovtx_destroy(ovtx_state* tx);

// Prepares a sequence of n steps. Returns 0, or -1 with the reason in ovtx_error; then the transmitter renders silence.
int32_t ovtx_start(ovtx_state* tx, const ovl_tx_settings* settings, const ovl_tx_step* steps, int32_t n);

// Renders n samples. Returns how many of them belong to the transmission; silence fills the rest.
int32_t ovtx_render(ovtx_state* tx, float* out, int32_t n);

// Ends the transmission with a ramp that begins at the next rendered sample.
void ovtx_stop(ovtx_state* tx);

// Lets the level glide to another value in (0, 1]; -1 for any other, or for a null transmitter.
int32_t ovtx_set_level(ovtx_state* tx, double level);

// Where the transmission stands.
void ovtx_status(const ovtx_state* tx, ovl_tx_progress* progress);

// Why the last start failed, "" when it did not.
const char* ovtx_error(const ovtx_state* tx);

// Sample rate of the prepared sequence, 0 when nothing is prepared.
int32_t ovtx_rate(const ovtx_state* tx);
