#include <dlfcn.h>

#include "system/libraries.h"

void* load_library(std::initializer_list<const char*> names) {
    for (const char* const name : names) {
        if (void* const library = dlopen(name, RTLD_NOW)) return library;
    }
    return nullptr;
}

void* find_symbol(void* library, const char* name) {
    return dlsym(library, name);
}

void* loaded_library(const char* name) {
    return dlopen(name, RTLD_LAZY | RTLD_NOLOAD);
}

void release_library(void* library) {
    dlclose(library);
}
