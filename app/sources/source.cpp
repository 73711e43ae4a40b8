#include "sources/source.h"

#include <atomic>
#include <string_view>

#include "base/console.h"
#include "base/error.h"
#include "sources/rtl_tcp.h"
#include "sources/soapy.h"
#include "sources/sound_device.h"
#include "sources/standard_input.h"

namespace {

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
    if (options.iq) {
        throw UsageError(
            "--iq: a sound device is captured as one channel; let 'arecord' or 'sox' record both into --stdin");
    }
    return std::make_unique<SoundDevice>(text, options);
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
