// The codecs of callsigns, locators and message vectors in both directions: each direction inverts the other.
#include "input.h"
#include "orvel.h"
#include "ovcdec.h"
#include "ovcenc.h"

namespace {

void callsign_text(Input& input) {
    const std::string text = input.text(255);
    std::array<char, 7> call;
    if (ov_normalize_call(text.c_str(), call.data()) != 0) return;
    uint32_t value = 0;
    expect(ov_pack_call(call.data(), &value) == 0 && value <= OVC_MAX_CALL);
    std::array<char, 7> back;
    expect(ov_unpack_call(value, back.data()) == 0 && back == call);
    std::array<char, 7> again;  // the normalised form is its own
    expect(ov_normalize_call(call.data(), again.data()) == 0 && again == call);
    ov_call_plausible(call.data());

    ovc_known known;
    expect(ovc_known_init(text.c_str(), &known) == 0);
    expect(std::string(known.call) == call.data());
    for (std::size_t pair = 0; pair < OVC_PAIRS; pair++) {
        expect(known.chips[2 * pair + 1] + known.chips[2 * pair + 2] == 1);
        expect(known.signs[pair] == (known.chips[2 * pair + 2] != 0 ? 1 : -1));
    }
}

void callsign_characters(Input& input) {
    const auto call = input.raw<std::array<char, 6>>();
    uint32_t value = 0;
    if (ov_pack_call(call.data(), &value) != 0) return;
    const bool gap = (call[3] == ' ' && call[4] != ' ') || (call[4] == ' ' && call[5] != ' ');
    std::array<char, 7> back;
    expect(value <= OVC_MAX_CALL && (ov_unpack_call(value, back.data()) == 0) == !gap);
    expect(std::equal(call.begin(), call.end(), back.begin()));
}

void callsign_value(Input& input) {
    const auto value = input.raw<uint32_t>();
    std::array<char, 7> call;
    if (ov_unpack_call(value, call.data()) != 0) return;
    uint32_t back = 0;
    expect(value <= OVC_MAX_CALL && ov_pack_call(call.data(), &back) == 0 && back == value);
}

void locator_text(Input& input) {
    const std::string text = input.text(255);
    uint32_t value = 0;
    if (ov_pack_loc(text.c_str(), &value) != 0) return;
    std::array<char, 7> back;
    expect(value <= OV_MAX_LOC && ov_unpack_loc(value, back.data()) == 0);
    uint32_t again = 0;
    expect(ov_pack_loc(back.data(), &again) == 0 && again == value);
}

void locator_value(Input& input) {
    const auto value = input.raw<uint32_t>();
    std::array<char, 7> text;
    expect((ov_unpack_loc(value, text.data()) == 0) == (value <= OV_MAX_LOC));
    uint32_t back = 0;
    if (value <= OV_MAX_LOC) expect(ov_pack_loc(text.data(), &back) == 0 && back == value);
}

// Vectors that are accepted are exactly those that are built; half of those tried are built ones with a few bits
// changed.
void message_vector(Input& input) {
    std::array<uint8_t, OVC_VECTOR_BITS> bits{};
    if (input.flag()) {
        ovc_build_vector(static_cast<uint32_t>(input.integer(0, OVC_MAX_CALL)), bits.data());
        for (int32_t changes = input.int32(0, 3); changes > 0; changes--) {
            bits[static_cast<std::size_t>(input.int32(0, OVC_VECTOR_BITS - 1))] ^= 1;
        }
    } else {
        for (uint8_t& bit : bits) bit = input.raw<uint8_t>() & 1;
    }
    uint32_t value = 0;
    if (ovc_check_vector(bits.data(), &value) != 0) return;
    std::array<uint8_t, OVC_VECTOR_BITS> built;
    ovc_build_vector(value, built.data());
    expect(built == bits);
}

// Message bits of ORVEL: an accepted message is one that can be encoded.
void message_bits(Input& input) {
    const int32_t mode = input.int32(0, 1);
    std::array<uint8_t, 69> bits{};
    for (uint8_t& bit : bits) bit = input.raw<uint8_t>() & 1;
    std::array<char, 7> call;
    std::array<char, 7> locator;
    if (ov_check(mode, bits.data(), call.data(), locator.data()) != 0) return;
    std::array<uint8_t, 321> chips;
    expect(ov_encode(mode, call.data(), locator.data(), chips.data()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    constexpr std::array CODECS = {callsign_text, callsign_characters, callsign_value, locator_text,
                                   locator_value, message_vector,      message_bits};
    CODECS[static_cast<std::size_t>(input.int32(0, CODECS.size() - 1))](input);
    return 0;
}
