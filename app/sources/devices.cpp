#include "sources/devices.h"

#include <algorithm>
#include <charconv>
#include <new>
#include <optional>

#include "base/error.h"
#include "base/text.h"
#include "system/libraries.h"

namespace {

std::optional<int32_t> parse_number(const std::string& text) {
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

void ignore_alsa(const char*, int, const char*, int, const char*, ...) {}

// ALSA prints a line for every stream that is late. Gaps and losses are reported by those who stream, in their words.
void quiet_alsa() {
    using Handler = decltype(&ignore_alsa);
    void* const alsa = loaded_library("libasound.so.2");
    if (alsa == nullptr) return;
    const auto set_handler = reinterpret_cast<int (*)(Handler)>(find_symbol(alsa, "snd_lib_error_set_handler"));
    if (set_handler != nullptr) set_handler(ignore_alsa);
    release_library(alsa);
}

}  // namespace

AudioObject make_audio() {
    AudioObject audio(ovl_audio_create());
    if (!audio) throw std::bad_alloc();
    return audio;
}

std::vector<ovl_audio_device> list_devices() {
    std::vector<ovl_audio_device> devices;
    quiet_alsa();
    const int32_t count = ovl_audio_device_count();
    for (int32_t i = 0; i < count; i++) {
        ovl_audio_device device{};
        ovl_audio_device_info(i, &device);  // one that has no description has no channels
        devices.push_back(device);
    }
    return devices;
}

int32_t find_device(const std::string& text, Direction direction) {
    const std::vector<ovl_audio_device> devices = list_devices();
    const char* const kind = direction == Direction::INPUT ? "input" : "output";
    const auto usable = [&](const ovl_audio_device& device) {
        return (direction == Direction::INPUT ? device.input_channels : device.output_channels) > 0;
    };
    if (text.empty()) {
        const auto is_default = [&](const ovl_audio_device& device) {
            return (direction == Direction::INPUT ? device.is_default_input : device.is_default_output) != 0;
        };
        if (std::none_of(devices.begin(), devices.end(), is_default)) throw IoError(format("no such %s device", kind));
        return -1;
    }
    const auto number = parse_number(text);
    std::vector<int32_t> found;
    for (std::size_t i = 0; i < devices.size(); i++) {
        const bool named = number ? static_cast<int32_t>(i) == *number
                                  : lower_case(devices[i].name).find(lower_case(text)) != std::string::npos;
        if (named && usable(devices[i])) found.push_back(static_cast<int32_t>(i));
    }
    if (found.empty()) {
        throw UsageError(format("--device: no %s device '%s' (see orvel devices)", kind, text.c_str()));
    }
    if (found.size() > 1) {
        throw UsageError(
            format("--device: '%s' fits %zu %s devices (see orvel devices)", text.c_str(), found.size(), kind));
    }
    return found.front();
}
