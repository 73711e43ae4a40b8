#include "sources/source.h"

#include <atomic>
#include <string_view>

#include "base/console.h"
#include "sources/rtl_tcp.h"
#include "sources/soapy.h"
#include "sources/sound_device.h"
#include "sources/standard_input.h"

namespace {

constexpr std::string_view DEVICE = "device:";
constexpr std::string_view RTL_TCP = "rtl_tcp://";
constexpr std::string_view SOAPY = "soapy:";

std::atomic<bool> one_hangs = false;

}  // namespace

std::unique_ptr<Source> open_source(const std::string& text, const SourceOptions& options) {
    if (text == "-") return std::make_unique<StandardInput>(options);
    if (text.starts_with(RTL_TCP)) {
        return std::make_unique<RtlTcp>(parse_rtl_tcp(text.substr(RTL_TCP.size())), options);
    }
    if (text.starts_with(SOAPY)) return std::make_unique<SoapyReceiver>(text.substr(SOAPY.size()), options);
    return std::make_unique<SoundDevice>(text.starts_with(DEVICE) ? text.substr(DEVICE.size()) : text, options);
}

bool is_sound_device(const std::string& text) {
    return text != "-" && !text.starts_with(RTL_TCP) && !text.starts_with(SOAPY);
}

bool is_live_source(const std::string& text) {
    return text.starts_with(DEVICE) || text.starts_with(RTL_TCP) || text.starts_with(SOAPY);
}

bool any_source_hangs() {
    return one_hangs;
}

void note_hang() {
    one_hangs = true;
}

void tell(const std::string& receiver, const std::string& text) {
    print_error(receiver.empty() ? text : receiver + ": " + text);
}
