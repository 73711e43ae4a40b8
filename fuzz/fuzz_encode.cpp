// Encoding any texts: a frame that comes out is one of its protocol and carries what went in.
#include <cctype>
#include <vector>

#include "input.h"
#include "ldpc.h"
#include "liborvel.h"
#include "orvel.h"
#include "ovcdec.h"
#include "ovcenc.h"

namespace {

constexpr uint8_t UNTOUCHED = 0x5A;

// The callsign as results show it.
std::string displayed(const std::string& call) {
    std::array<char, 7> normalised;
    expect(ov_normalize_call(call.c_str(), normalised.data()) == 0);
    std::string text(normalised.data());
    std::erase(text, ' ');
    return text;
}

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// The coded bits, one per pair.
std::vector<uint8_t> coded_bits(const std::vector<uint8_t>& chips) {
    expect(chips[0] == 1);
    std::vector<uint8_t> bits;
    for (std::size_t i = 1; i < chips.size(); i += 2) {
        expect(chips[i] + chips[i + 1] == 1);
        bits.push_back(chips[i + 1]);
    }
    return bits;
}

void expect_opera_frame(const std::vector<uint8_t>& chips, const std::string& call) {
    std::array<float, OVC_PAIRS> soft;
    const std::vector<uint8_t> bits = coded_bits(chips);
    std::transform(bits.begin(), bits.end(), soft.begin(), [](uint8_t bit) { return bit != 0 ? 1.0f : -1.0f; });
    std::array<char, 7> decoded;
    uint32_t value = 0;
    ovc_soft_info info;
    expect(ovc_decode_soft(soft.data(), 1, decoded.data(), &value, &info) == 0);
    expect(info.index == 0 && info.metric == OVC_PAIRS);
    std::string text(decoded.data());
    std::erase(text, ' ');
    expect(text == displayed(call));
}

void expect_orvel_frame(int32_t mode, const std::vector<uint8_t>& chips, const std::string& call,
                        const std::string& locator) {
    const ldpc_code& code = ov_code(mode);
    const std::vector<uint8_t> bits = coded_bits(chips);
    expect(ldpc_syndrome_weight(code, bits.data()) == 0);
    std::vector<uint8_t> message;
    for (int32_t i = 0; i < code.k; i++) message.push_back(bits[static_cast<std::size_t>(code.pivot[i])]);
    std::array<char, 7> read_call;
    std::array<char, 7> read_locator;
    expect(ov_check(mode, message.data(), read_call.data(), read_locator.data()) == 0);
    expect(read_call.data() == displayed(call));
    expect(read_locator.data() == (mode == 1 ? upper(locator) : ""));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const uint32_t protocol = input.flag() ? input.raw<uint32_t>() : 1u << input.int32(0, 2);
    const int32_t chips_of_frame = ovl_frame_chips(protocol);
    const int32_t room = input.int32(0, 7) == 7 ? input.int32(-2, 400) : chips_of_frame;
    const std::string call = input.text(24);
    const std::string locator = input.text(12);

    std::vector<uint8_t> chips(static_cast<std::size_t>(std::max(room, 0)), UNTOUCHED);
    const int32_t n = ovl_encode(protocol, call.c_str(), locator.c_str(), chips.data(), room);
    if (n == -1) {
        expect(std::all_of(chips.begin(), chips.end(), [](uint8_t chip) { return chip == UNTOUCHED; }));
        return 0;
    }
    expect(n == chips_of_frame && n > 0 && n <= room);
    expect(std::all_of(chips.begin() + n, chips.end(), [](uint8_t chip) { return chip == UNTOUCHED; }));
    chips.resize(static_cast<std::size_t>(n));
    if (protocol == OVL_OPERA) {
        expect_opera_frame(chips, call);
    } else {
        expect_orvel_frame(protocol == OVL_ORVEL_L ? 1 : 0, chips, call, locator);
    }
    return 0;
}
