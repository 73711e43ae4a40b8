#include "listening/level.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float FULL_SCALE = 0.99f;  // the largest code of 8 bits counts, the next one does not
constexpr double SILENCE_DB = -120;

double level_db(double amplitude) {
    return std::max(20 * std::log10(amplitude), SILENCE_DB);
}

}  // namespace

void LevelMeter::add(std::span<const float> samples) {
    for (const float sample : samples) {
        const float size = std::fabs(sample);
        squares_ += static_cast<double>(size) * size;
        peak_ = std::max(peak_, size);
        clipped_ += size >= FULL_SCALE ? 1 : 0;
    }
    count_ += std::ssize(samples);
}

double LevelMeter::rms_db() const {
    return count_ > 0 ? level_db(std::sqrt(squares_ / static_cast<double>(count_))) : SILENCE_DB;
}

double LevelMeter::peak_db() const {
    return level_db(static_cast<double>(peak_));
}
