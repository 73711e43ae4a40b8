// Those of Windows print nothing.
#include "sound_systems.h"

QuietSoundSystems::QuietSoundSystems() : alsa_(nullptr), jack_(nullptr) {}
QuietSoundSystems::~QuietSoundSystems() = default;

bool prepare_alsa_names() {
    return true;
}
