// The libraries are looked up where PortAudio has loaded them, so that we need none that it does not.
#include "sound_systems.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstddef>

namespace {

constexpr const char* ALSA = "libasound.so.2";
constexpr const char* JACK = "libjack.so.0";

// Null when the library is not in the process; else one more use of it.
void* loaded(const char* library) {
    return dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
}

void unload(void* library) {
    if (library != nullptr) dlclose(library);
}

// A function, or with a pointer to a variable's type the variable; null when there is none.
template <class Symbol>
Symbol find(void* library, const char* name) {
    return library != nullptr ? reinterpret_cast<Symbol>(dlsym(library, name)) : nullptr;
}

// ---- Messages --------------------------------------------------------------------------------------------------

using AlsaHandler = void (*)(const char* file, int line, const char* function, int error, const char* format,
                             va_list arguments);
using SetAlsaHandler = AlsaHandler (*)(AlsaHandler);  // of this thread; returns the one before
using JackHandler = void (*)(const char* text);
using SetJackHandler = void (*)(JackHandler);

void ignore_alsa(const char*, int, const char*, int, const char*, va_list) {}
void ignore_jack(const char*) {}

void* set_alsa_handler(void* alsa, AlsaHandler handler) {
    const auto set = find<SetAlsaHandler>(alsa, "snd_lib_error_set_local");
    return set != nullptr ? reinterpret_cast<void*>(set(handler)) : nullptr;
}

// JACK has one handler for all threads, in a variable.
void* set_jack_handler(void* jack, const char* setter, const char* variable, JackHandler handler) {
    const auto set = find<SetJackHandler>(jack, setter);
    const auto current = find<JackHandler*>(jack, variable);
    if (set == nullptr || current == nullptr) return nullptr;
    const JackHandler before = *current;
    set(handler);
    return reinterpret_cast<void*>(before);
}

}  // namespace

QuietSoundSystems::QuietSoundSystems() : alsa_(loaded(ALSA)), jack_(loaded(JACK)) {
    alsa_handler_ = set_alsa_handler(alsa_, ignore_alsa);
    jack_error_ = set_jack_handler(jack_, "jack_set_error_function", "jack_error_callback", ignore_jack);
    jack_info_ = set_jack_handler(jack_, "jack_set_info_function", "jack_info_callback", ignore_jack);
}

QuietSoundSystems::~QuietSoundSystems() {
    const auto handler = [](void* before) { return reinterpret_cast<JackHandler>(before); };
    set_jack_handler(jack_, "jack_set_info_function", "jack_info_callback", handler(jack_info_));
    // PortAudio may have set its own.
    const auto current = find<JackHandler*>(jack_, "jack_error_callback");
    if (current != nullptr && *current == ignore_jack) {
        set_jack_handler(jack_, "jack_set_error_function", "jack_error_callback", handler(jack_error_));
    }
    set_alsa_handler(alsa_, reinterpret_cast<AlsaHandler>(alsa_handler_));
    unload(jack_);
    unload(alsa_);
}

// ---- Names -----------------------------------------------------------------------------------------------------

namespace {

// A name that PortAudio skips at first, as it does "default", which stays what it is where there is one; opening it
// fails, so that it is no device.
constexpr char NAME_OF_NO_DEVICE[] = "pcm.dmix.comment none\npcm.dmix.type none\n";

struct AlsaNames {
    explicit AlsaNames(void* alsa)
        : update(find<int (*)()>(alsa, "snd_config_update")),
          search(find<int (*)(void*, const char*, void**)>(alsa, "snd_config_search")),
          open_text(find<int (*)(void**, const char*, std::ptrdiff_t)>(alsa, "snd_input_buffer_open")),
          load(find<int (*)(void*, void*)>(alsa, "snd_config_load")),
          close_text(find<int (*)(void*)>(alsa, "snd_input_close")),
          top(find<void**>(alsa, "snd_config")) {}

    bool complete() const {
        return update != nullptr && search != nullptr && open_text != nullptr && load != nullptr &&
               close_text != nullptr && top != nullptr;
    }
    bool has(const char* name) const {
        void* found = nullptr;
        return search(*top, name, &found) == 0;
    }
    void add(const char* text, std::ptrdiff_t length) const {
        void* input = nullptr;
        if (open_text(&input, text, length) < 0) return;
        load(*top, input);
        close_text(input);
    }

    int (*update)();
    int (*search)(void*, const char*, void**);
    int (*open_text)(void**, const char*, std::ptrdiff_t);
    int (*load)(void*, void*);
    int (*close_text)(void*);
    void** top;
};

}  // namespace

bool prepare_alsa_names() {
    void* const library = loaded(ALSA);
    const AlsaNames alsa(library);
    const bool readable = !alsa.complete() || (alsa.update() >= 0 && *alsa.top != nullptr);
    if (alsa.complete() && readable && !alsa.has("pcm.default") && !alsa.has("pcm.dmix")) {
        alsa.add(NAME_OF_NO_DEVICE, sizeof NAME_OF_NO_DEVICE - 1);
    }
    unload(library);
    return readable;
}
