// The list of known callsigns: any text is accepted, and only tokens that OPERA frames can carry count.
#include <memory>
#include <string_view>

#include "input.h"
#include "liborvel.h"

namespace {

constexpr int32_t MAX_KNOWN = 256;
constexpr std::size_t MAX_TOKEN = 15;  // characters of a token that are read

bool is_callsign(std::string_view token) {
    std::array<uint8_t, 239> chips;
    return ovl_encode(OVL_OPERA, std::string(token.substr(0, MAX_TOKEN)).c_str(), nullptr, chips.data(),
                      static_cast<int32_t>(chips.size())) > 0;
}

// What the header promises of a list: the callsigns in it, or -1 at a token for which there is no room.
int32_t expected_count(std::string_view list) {
    constexpr std::string_view SEPARATORS = ",; \t\r\n\v\f";
    int32_t count = 0;
    for (std::size_t begin = list.find_first_not_of(SEPARATORS); begin != std::string_view::npos;) {
        const std::size_t end = std::min(list.find_first_of(SEPARATORS, begin), list.size());
        if (count == MAX_KNOWN) return -1;
        if (is_callsign(list.substr(begin, end - begin))) count++;
        begin = list.find_first_not_of(SEPARATORS, end);
    }
    return count;
}

struct Destroy {
    void operator()(ovl_decoder* decoder) const { ovl_destroy(decoder); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::unique_ptr<ovl_decoder, Destroy> decoder(ovl_create());
    expect(decoder != nullptr);
    const std::string bytes = Input(data, size).rest();
    const std::string list = bytes.substr(0, bytes.find('\0'));

    const int32_t count = ovl_set_known(decoder.get(), list.c_str());
    expect(count == expected_count(list));
    const std::string error = ovl_last_error(decoder.get());
    expect(count >= 0 ? error.empty() : error == "too many known callsigns (max 256)");

    // A decoder without known callsigns reports that before it examines the block.
    ovl_settings settings;
    ovl_settings_default(&settings);
    settings.known_only = 1;
    const float sample = 0;
    expect(ovl_decode(decoder.get(), &sample, 1, 12000, &settings, nullptr, 0) == -1);
    const bool knows_nobody = std::string_view(ovl_last_error(decoder.get())).starts_with("known_only");
    expect(knows_nobody == (count == 0));

    expect(ovl_set_known(decoder.get(), nullptr) == 0);
    return 0;
}
