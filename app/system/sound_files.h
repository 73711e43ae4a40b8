// Files of libsndfile, by names as files.h has them.
#pragma once

#include <sndfile.h>

#include <string>

// As sf_open().
SNDFILE* open_sound_file(const std::string& path, int mode, SF_INFO& info);
