// From chip energies and soft bits to OPERA frames, on any numbers: the list of frames is a ranked one, and an accepted
// frame is one that can be encoded.
#include <cmath>
#include <vector>

#include "input.h"
#include "orvel.h"
#include "ovcdec.h"
#include "ovcenc.h"

namespace {

using SoftBits = std::array<float, OVC_PAIRS>;

float any_float(Input& input) {
    return static_cast<float>(std::clamp(input.any_double(), -3e38, 3e38));
}

// Bytes, the frame of a callsign with bytes added, or likelihoods of energies; then a few of them become arbitrary.
SoftBits draw_soft_bits(Input& input) {
    SoftBits soft{};
    const int32_t kind = input.int32(0, 2);
    if (kind == 2) {
        SoftBits first{};
        SoftBits second{};
        for (std::size_t i = 0; i < soft.size(); i++) {
            first[i] = static_cast<float>(input.raw<int8_t>()) / 8;
            second[i] = static_cast<float>(input.raw<int8_t>()) / 8;
        }
        if (input.flag()) first[static_cast<std::size_t>(input.int32(0, OVC_PAIRS - 1))] = input.raw<float>();
        const double amplitude =
            ov_llr(first.data(), second.data(), OVC_PAIRS, input.mostly(0.01, 10), soft.data(), input.int32(0, 1));
        expect(amplitude >= 0 || std::isnan(amplitude));
        return soft;
    }
    ovc_known known{};
    if (kind == 1) ovc_known_init(input.text(15).c_str(), &known);
    for (std::size_t i = 0; i < soft.size(); i++) {
        soft[i] = static_cast<float>(known.signs[i]) * 2 + static_cast<float>(input.raw<int8_t>()) / 32;
    }
    for (int32_t n = input.int32(0, 15); n > 0; n--) {
        soft[static_cast<std::size_t>(input.int32(0, OVC_PAIRS - 1))] = any_float(input);
    }
    if (input.int32(0, 15) == 15) soft[0] = std::numeric_limits<float>::quiet_NaN();
    if (input.int32(0, 15) == 15) soft[0] = std::numeric_limits<float>::infinity();
    return soft;
}

void expect_ranked(const SoftBits& soft, const std::vector<ovc_frame>& frames) {
    for (std::size_t k = 0; k < frames.size(); k++) {
        expect(frames[k].deficit >= 0 && (k == 0 || frames[k].deficit >= frames[k - 1].deficit));
        for (int32_t group = 0; group < OVC_GROUPS; group++) {
            const ovc_row_range allowed = ovc_allowed_rows(group);
            expect(frames[k].rows[group] >= allowed.first && frames[k].rows[group] <= allowed.last);
        }
        for (std::size_t earlier = 0; earlier < k; earlier++) {
            expect(!std::equal(std::begin(frames[k].rows), std::end(frames[k].rows), frames[earlier].rows));
        }
    }
    if (!frames.empty()) expect(frames[0].metric == ovc_frame_metric(soft.data()));
}

void expect_encodable(const char* call, uint32_t value) {
    uint32_t packed = 0;
    expect(ov_pack_call(call, &packed) == 0 && packed == value);
    std::array<uint8_t, OVC_CHIPS> chips;
    expect(ovc_encode(call, chips.data(), nullptr) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int32_t most = input.int32(-1, OVC_MAX_LISTED + 10);
    const SoftBits soft = draw_soft_bits(input);
    const bool finite = std::all_of(soft.begin(), soft.end(), [](float x) { return std::isfinite(x); });

    std::vector<ovc_frame> frames(static_cast<std::size_t>(std::max(most, 1)));
    const int32_t listed = ovc_list_frames(soft.data(), most, frames.data());
    expect(listed >= 0 && listed <= std::min(std::max(most, 1), OVC_MAX_LISTED));
    if (!finite) expect(listed == 0);
    frames.resize(static_cast<std::size_t>(listed));
    expect_ranked(soft, frames);
    for (const ovc_frame& frame : frames) {
        std::array<char, 7> call;
        uint32_t value = 0;
        if (ovc_check_frame(&frame, call.data(), &value) != 0) continue;
        expect_encodable(call.data(), value);
        std::array<char, 7> twin;
        const double margin = ovc_twin_margin(soft.data(), &frame, input.flag() ? 1 : 0, twin.data());
        expect(!std::isnan(margin) && (margin == 1e30) == (twin[0] == '\0'));
        if (twin[0] != '\0') expect(std::string(twin.data()) != call.data());
    }

    std::array<char, 7> call;
    uint32_t value = 0;
    ovc_soft_info info;
    if (ovc_decode_soft(soft.data(), most, call.data(), &value, &info) == 0) {
        expect(info.index >= 0 && info.index < info.tried && info.tried <= std::max(most, 1));
        expect_encodable(call.data(), value);
    } else {
        expect(info.index == -1);
    }
    return 0;
}
