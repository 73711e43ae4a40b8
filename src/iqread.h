// Reader for I/Q recordings: RIFF or RF64 WAVE with two channels (left = I, right = Q), integer PCM of 8, 16, 24 or 32
// bits or 32-bit float.
#pragma once

#include <cstdint>
#include <string>

struct iq_recording {
    uint32_t rate;  // sample rate, Hz
    int32_t bits;   // bits per sample in the file
    double* i;      // left channel, full scale ±1; owned
    double* q;      // right channel; owned
    int32_t count;  // pairs
};

// Reads a whole recording. Returns 0, or -1 with a message and no samples. Free it with iq_free.
//
//   messages   errors and warnings are appended to it, one per line; null: they go to standard error
int iq_read(const char* path, iq_recording& out, std::string* messages = nullptr);
void iq_free(iq_recording& recording);

// One little-endian integer sample of 8 (unsigned), 16, 24 or 32 bits as a number from -1 to below 1.
double pcm_value(const uint8_t* bytes, int32_t bits);
