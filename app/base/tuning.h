// What frequencies in samples were on the air.
#pragma once

#include <optional>

enum class Sideband { UPPER, LOWER };

// How a receiver was tuned while it took samples.
struct Tuning {
    double dial_hz = 0;                   // 0 Hz of the samples: the centre of I/Q, the suppressed carrier of audio
    Sideband sideband = Sideband::UPPER;  // LOWER: frequencies in the samples count downward from it

    double rf_hz(double freq_hz) const { return sideband == Sideband::LOWER ? dial_hz - freq_hz : dial_hz + freq_hz; }
};

// What a user says of it, which goes before what is known otherwise.
struct SaidTuning {
    std::optional<double> dial_hz;
    std::optional<Sideband> sideband;

    std::optional<Tuning> over(const std::optional<Tuning>& known = std::nullopt) const {
        if (!dial_hz && !known) return std::nullopt;
        const Tuning tuning = known.value_or(Tuning{});
        return Tuning{dial_hz.value_or(tuning.dial_hz), sideband.value_or(tuning.sideband)};
    }
};
