// Decoding any block with any settings, twice in a row with one decoder, with the coherent search or without: a failure
// has a message and writes nothing, and every result and finding is as the header promises.
#include <memory>
#include <vector>

#include "decode_settings.h"
#include "scene.h"

namespace {

constexpr double FRAME_EDGE = 0.2;  // of a frame, which may extend past either end of the block
constexpr double SLACK_S = 1;       // refining moves a start by up to six chips
constexpr double SLACK_HZ = 25;     // and a frequency by its drift over half a frame
constexpr uint8_t UNTOUCHED = 0x5A;

struct Destroy {
    void operator()(ovl_decoder* decoder) const { ovl_destroy(decoder); }
};

bool is_untouched(const ovl_result& result) {
    std::array<uint8_t, sizeof result> bytes;
    std::memcpy(bytes.data(), &result, sizeof result);
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == UNTOUCHED; });
}

void expect_promises(const ovl_result& result, const ovl_settings& settings, bool coherent, double block_s) {
    expect((result.protocol & settings.protocols & 7) != 0);
    std::array<uint8_t, 321> chips;
    expect(std::memchr(result.call, 0, sizeof result.call) != nullptr);
    expect(std::memchr(result.locator, 0, sizeof result.locator) != nullptr);
    const int32_t n =
        ovl_encode(static_cast<uint32_t>(result.protocol), result.call, result.locator, chips.data(), 321);
    expect(n > 0);
    expect((result.locator[0] != '\0') == (result.protocol == OVL_ORVEL_L));
    expect(result.deep == OVL_STANDARD ||
           (coherent && (result.deep == OVL_COHERENT || result.deep == OVL_COHERENT_KNOWN)) ||
           (result.deep == OVL_DEEP && result.protocol == OVL_OPERA && settings.deep_search != 0));
    const double frame_s = n * ovl_chip_seconds();
    expect(std::fabs(result.t_end - result.t_start - frame_s) < 1e-6);
    expect(result.t_start > -FRAME_EDGE * frame_s - SLACK_S);
    expect(result.t_end < block_s + FRAME_EDGE * frame_s + SLACK_S);
    expect(!(result.t_end < settings.end_min - SLACK_S));
    expect(!(settings.end_max >= 0 && result.t_end > settings.end_max + SLACK_S));
    expect(std::fabs(result.freq_hz - settings.center_hz) <= settings.search_hz + SLACK_HZ);
    expect(std::isfinite(result.snr_db) && std::isfinite(result.drift_hz_s));
}

// Switches the coherent search, which takes its time, on for one input in eight. Returns whether it is on.
bool set_coherent(Input& input, ovl_decoder* decoder) {
    if (input.int32(0, 7) != 7) {
        expect(ovl_set_coherent(decoder, nullptr) == 0);
        return false;
    }
    const bool any = input.flag();
    const int32_t places = any ? input.raw<int32_t>() : input.int32(2, 8);
    const int32_t passes = any ? input.raw<int32_t>() : input.int32(1, 3);
    const ovl_coherent settings = {places, passes, input.int32(1, 2), input.int32(0, 1)};
    const bool in_range = places >= 2 && places <= 64 && passes >= 1 && passes <= 8;
    expect(ovl_set_coherent(decoder, nullptr) == 0);
    expect(ovl_set_coherent(decoder, &settings) == (in_range ? 0 : -1));
    return in_range;
}

void expect_findings(const ovl_decoder* decoder, const std::vector<ovl_result>& results) {
    const auto n = static_cast<int32_t>(results.size());
    std::vector<ovl_finding> findings(results.size());
    expect(ovl_findings(decoder, nullptr, 0) == n);
    expect(ovl_findings(decoder, findings.data(), n) == n);
    for (std::size_t k = 0; k < results.size(); k++) {
        expect(findings[k].method == results[k].deep);
        expect(findings[k].method < OVL_COHERENT ? std::isnan(findings[k].odds) : std::isfinite(findings[k].odds));
    }
}

void decode_once(Input& input, ovl_decoder* decoder, const std::vector<float>& samples, int32_t rate) {
    ovl_settings settings = draw_settings(input, rate);
    const int32_t n = static_cast<int32_t>(samples.size());
    const int32_t room = input.flag() ? 64 : input.int32(-1, 70);
    const bool recent = input.flag();
    const double recent_s = recent ? input.mostly(0, 60) : 0;
    const bool coherent = set_coherent(input, decoder);
    if (!is_quick(settings.search_hz, settings.spread_hz, n, rate)) return;

    std::vector<ovl_result> results(static_cast<std::size_t>(std::max(room, 0)));
    if (!results.empty())
        std::memset(static_cast<void*>(results.data()), UNTOUCHED, results.size() * sizeof results[0]);
    const int32_t count =
        recent ? ovl_decode_recent(decoder, samples.data(), n, rate, &settings, recent_s, results.data(), room)
               : ovl_decode(decoder, samples.data(), n, rate, &settings, results.data(), room);
    expect(count >= -1 && count <= std::min(std::max(room, 0), 64));
    expect((count == -1) == (ovl_last_error(decoder)[0] != '\0'));
    const auto written = static_cast<std::size_t>(std::max(count, 0));
    expect(std::all_of(results.begin() + static_cast<std::ptrdiff_t>(written), results.end(), is_untouched));
    results.resize(written);
    expect_findings(decoder, results);
    if (count == -1) return;

    expect(std::all_of(samples.begin(), samples.end(), [](float x) { return std::isfinite(x); }));
    const double block_s = static_cast<double>(n) / rate;
    if (recent) {
        settings.end_min = block_s - recent_s;
        settings.end_max = block_s;
    }
    for (std::size_t k = 0; k < results.size(); k++) {
        expect_promises(results[k], settings, coherent, block_s);
        expect(k == 0 || results[k - 1].t_start <= results[k].t_start);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int32_t rate = draw_rate(input);
    const std::string known = input.text(40);
    std::vector<double> block(static_cast<std::size_t>(input.int32(1, MAX_SAMPLES)));
    draw_samples(input, std::clamp(rate, 1, 192000), block, nullptr);
    const std::vector<float> samples = to_floats(block);

    const std::unique_ptr<ovl_decoder, Destroy> decoder(ovl_create());
    expect(decoder != nullptr);
    ovl_set_known(decoder.get(), known.c_str());
    decode_once(input, decoder.get(), samples, rate);
    if (input.left() > 0) decode_once(input, decoder.get(), samples, rate);
    return 0;
}
