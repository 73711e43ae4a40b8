// Looking for keyed frequencies in any block with any settings: hits are ranked, apart, and inside the band.
#include <memory>
#include <vector>

#include "decode_settings.h"
#include "scene.h"

namespace {

constexpr double MARGIN_HZ = 5;
constexpr double SEPARATION_HZ = 15;
constexpr int32_t MAX_KEYED_SAMPLES = 16000;  // three seconds and a little at the lowest rate are 9728

int32_t draw_keyed_rate(Input& input) {
    constexpr std::array RATES = {4000, 4000, 4000, 4001, 4410, 3999, 8000};
    const auto choice = static_cast<std::size_t>(input.int32(0, RATES.size()));
    return choice < RATES.size() ? RATES[choice] : input.raw<int32_t>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int32_t rate = draw_keyed_rate(input);
    std::vector<double> block(static_cast<std::size_t>(input.int32(1, MAX_KEYED_SAMPLES)));
    draw_samples(input, std::clamp(rate, 1, 192000), block, nullptr);
    const std::vector<float> samples = to_floats(block);
    ovl_settings settings = draw_settings(input, rate);
    const double seconds = input.mostly(2.5, 10);
    const double z_min = input.mostly(-2, 12);
    const int32_t room = input.int32(0, 70);

    std::vector<ov_hit> hits(static_cast<std::size_t>(room) + 1);
    const int32_t count = ovl_keyed(samples.data(), static_cast<int32_t>(samples.size()), rate, &settings, seconds,
                                    z_min, hits.data(), room);
    expect(count >= -1 && count <= room);
    if (room < 1 || rate < 4000 || !(seconds >= 3)) expect(count == -1);
    hits.resize(static_cast<std::size_t>(std::max(count, 0)));
    for (std::size_t k = 0; k < hits.size(); k++) {
        expect(std::isfinite(hits[k].freq_hz) && hits[k].freq_hz >= 0 && hits[k].freq_hz <= rate / 2.0);
        expect(std::fabs(hits[k].freq_hz - settings.center_hz) <= settings.search_hz + MARGIN_HZ);
        expect(!(hits[k].z < z_min) && !std::isnan(hits[k].z));
        expect(k == 0 || hits[k - 1].z >= hits[k].z);
        for (std::size_t earlier = 0; earlier < k; earlier++) {
            expect(std::fabs(hits[k].freq_hz - hits[earlier].freq_hz) >= SEPARATION_HZ - 1e-6);
        }
    }
    return 0;
}
