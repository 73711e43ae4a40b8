#include "system/sound_files.h"

SNDFILE* open_sound_file(const std::string& path, int mode, SF_INFO& info) {
    return sf_open(path.c_str(), mode, &info);
}
