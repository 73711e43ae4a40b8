// What frequencies in samples were on the air.
#pragma once

enum class Sideband { UPPER, LOWER };

// How a receiver was tuned while it took samples.
struct Tuning {
    double dial_hz = 0;                   // 0 Hz of the samples: the centre of I/Q, the suppressed carrier of audio
    Sideband sideband = Sideband::UPPER;  // LOWER: frequencies in the samples count downward from it

    double rf_hz(double freq_hz) const { return sideband == Sideband::LOWER ? dial_hz - freq_hz : dial_hz + freq_hz; }
};
