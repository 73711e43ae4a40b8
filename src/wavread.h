// Reader for audio recordings: RIFF/WAVE with integer PCM of 8, 16, 24 or 32 bits, any number of channels.
#pragma once

#include <cstdint>
#include <string>

// A recording mixed down to one signal.
struct wav_audio {
    uint32_t rate;     // sample rate, Hz
    int32_t channels;  // channels in the file
    int32_t bits;      // bits per sample in the file
    double* samples;   // mean of the channels, full scale ±1; owned
    int32_t count;     // samples
};

// Reads a whole recording. Returns 0, or -1 with a message and no samples. A data chunk that claims more than the file
// holds is read as far as it goes, with a warning. Free the record with wav_free.
//
//   messages   errors and warnings are appended to it, one per line; null: they go to standard error
int wav_read(const char* path, wav_audio& out, std::string* messages = nullptr);
void wav_free(wav_audio& audio);
