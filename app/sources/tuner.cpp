#include "sources/tuner.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/error.h"
#include "base/parse.h"

namespace {

constexpr double MIN_RATE = 8000;
constexpr double MAX_RATE = 3200000;
constexpr double MAX_FREQ_HZ = 1e12;
constexpr double MAX_GAIN_DB = 100;
constexpr double MAX_PPM = 1000;

// "137500", "137.5k", "0.1375M".
std::optional<double> parse_hz(std::string_view text) {
    const char unit = text.empty() ? ' ' : text.back();
    const double factor = unit == 'k' ? 1e3 : unit == 'M' ? 1e6 : unit == 'G' ? 1e9 : 1;
    if (factor > 1) text.remove_suffix(1);
    const auto value = parse_finite(text);
    return value ? std::optional(*value * factor) : std::nullopt;
}

// A whole number within bounds.
bool take_whole(const std::optional<double>& value, double low, double high, int32_t& out) {
    if (!value || !(*value >= low && *value <= high) || *value != std::floor(*value)) return false;
    out = static_cast<int32_t>(*value);
    return true;
}

bool take_setting(std::string_view key, std::string_view value, TunerSettings& tuner) {
    if (key == "freq") {
        tuner.freq_hz = parse_hz(value);
        return tuner.freq_hz && *tuner.freq_hz >= 0 && *tuner.freq_hz <= MAX_FREQ_HZ;
    }
    if (key == "rate") return take_whole(parse_hz(value), MIN_RATE, MAX_RATE, tuner.rate);
    if (key == "ppm") return take_whole(parse_finite(value), -MAX_PPM, MAX_PPM, tuner.ppm);
    if (key == "direct") return take_whole(parse_finite(value), 0, 2, tuner.direct);
    if (key != "gain") return false;
    if (value == "auto") return true;
    tuner.gain_db = parse_finite(value);
    return tuner.gain_db && std::fabs(*tuner.gain_db) <= MAX_GAIN_DB;
}

}  // namespace

TunerSettings parse_tuner(std::string_view where, std::string_view settings) {
    TunerSettings tuner;
    while (!settings.empty()) {
        const std::string_view setting = settings.substr(0, settings.find('&'));
        settings.remove_prefix(std::min(setting.size() + 1, settings.size()));
        const std::size_t equals = std::min(setting.find('='), setting.size());
        const std::string_view value = setting.substr(std::min(equals + 1, setting.size()));
        if (!take_setting(setting.substr(0, equals), value, tuner)) {
            throw UsageError(std::string(where) + ": '" + std::string(setting) +
                             "' is not one of freq=HZ, rate=HZ (8k to 3.2M), gain=DB or auto, ppm=N, direct=0, 1 or 2");
        }
    }
    return tuner;
}
