// The owner of a file that libsndfile has open.
#pragma once

#include <sndfile.h>

#include <memory>

struct CloseSound {
    void operator()(SNDFILE* file) const noexcept { sf_close(file); }
};
using SoundPtr = std::unique_ptr<SNDFILE, CloseSound>;
