// Look-ups in the table of protocols, and frames of any of them by the protocol's own coder.
#include "protocol.h"

#include "orvel.h"
#include "ovcenc.h"

static_assert(ov_protocol_by_id(OVL_OPERA)->pairs == OVC_PAIRS);

std::string ov_protocol_options() {
    std::string options;
    for (const ov_protocol& protocol : OV_PROTOCOLS) {
        if (!options.empty()) options += ", ";
        options += protocol.option;
    }
    return options;
}

int32_t frame_chips(uint32_t proto) {
    const ov_protocol* const protocol = ov_protocol_by_id(proto);
    return protocol != nullptr ? protocol->chips() : 0;
}

int encode_frame(const ov_protocol& protocol, const char* call, const char* locator, uint8_t* chips) {
    if (protocol.mode == OV_NO_MODE) return ovc_encode(call, chips, nullptr);
    return ov_encode(protocol.mode, call, locator, chips);
}
