// Recordings as the subcommands take them from the command line.
#pragma once

#include <memory>
#include <string>

#include "iqread.h"
#include "wavread.h"

struct FreeAudio {
    void operator()(wav_audio* audio) const noexcept;
};
struct FreeIq {
    void operator()(iq_recording* recording) const noexcept;
};
using AudioPtr = std::unique_ptr<wav_audio, FreeAudio>;
using IqPtr = std::unique_ptr<iq_recording, FreeIq>;

// Read a recording. An empty owner, with one line on standard error that names the file and the reason, when it cannot
// be read. What a reader merely warns of comes as a line of its own.
AudioPtr read_audio(const std::string& path);
IqPtr read_iq(const std::string& path);
