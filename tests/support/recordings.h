// The recordings in examples/recordings: what is on the air in each, and its samples. make_recordings writes them,
// tests compare them with what the decoder finds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "siggen.h"

// Who sends a station's frame, and how.
struct Sender {
    std::string call;
    uint32_t protocol;    // OVL_ id
    std::string locator;  // of an ORVEL L frame
};

struct ShippedRecording {
    std::string name;             // of the files, without ".wav" and ".jsonl"
    bool iq;                      // stereo I/Q; else mono audio
    int32_t bits;                 // 8 or 16
    Scene scene;                  // frequencies within the search band that `orvel decode` has by default
    std::vector<Sender> senders;  // of each station of the scene
};

std::vector<ShippedRecording> shipped_recordings();

// Samples of a recording at 16 bits, I/Q interleaved; those of an 8 bit recording are multiples of 256. The strongest
// moment is far below full scale.
std::vector<int16_t> quantised_samples(const ShippedRecording& recording);
