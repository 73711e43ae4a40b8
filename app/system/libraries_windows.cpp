#include <windows.h>

#include "system/libraries.h"
#include "windows_path.h"

// Beside the program, in Windows' own folders, or in PATH; not in the folder that the user happens to be in.
void* load_library(std::initializer_list<const char*> names) {
    SetDllDirectoryW(L"");
    for (const char* const name : names) {
        if (const HMODULE library = LoadLibraryW(wide_text(name).c_str())) return library;
    }
    return nullptr;
}

void* find_symbol(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void* loaded_library(const char* name) {
    HMODULE library = nullptr;
    GetModuleHandleExW(0, wide_text(name).c_str(), &library);
    return library;
}

void release_library(void* library) {
    FreeLibrary(static_cast<HMODULE>(library));
}
