// Sound devices by number and name, and the owner of the object that captures and plays on them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "liborvel.h"

struct DestroyAudio {
    void operator()(ovl_audio* audio) const noexcept { ovl_audio_destroy(audio); }
};
using AudioObject = std::unique_ptr<ovl_audio, DestroyAudio>;

// An audio object, never null.
AudioObject make_audio();

// All sound devices, by their number. What the sound systems print meanwhile, and ALSA from then on, is suppressed.
std::vector<ovl_audio_device> list_devices();

enum class Direction { INPUT, OUTPUT };

// Number of the device that a text names: its number, or a part of its name in either case ("" = the default device,
// -1). Throws UsageError when there is no such device with inputs or outputs, or more than one.
int32_t find_device(const std::string& text, Direction direction);
