#define ENABLE_SNDFILE_WINDOWS_PROTOTYPES 1
#include <windows.h>
// after it
#include "system/sound_files.h"
#include "windows_path.h"

SNDFILE* open_sound_file(const std::string& path, int mode, SF_INFO& info) {
    return sf_wchar_open(windows_path(path).c_str(), mode, &info);
}
