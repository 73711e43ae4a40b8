// Transmissions as a user types them: steps like carrier=2 or opera=K2QRX, and how they sound.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "liborvel.h"

struct DestroyTransmitter {
    void operator()(ovl_transmitter* tx) const noexcept { ovl_tx_destroy(tx); }
};
using TransmitterPtr = std::unique_ptr<ovl_transmitter, DestroyTransmitter>;

struct Transmission {
    std::vector<std::string> steps;
    int32_t rate = 48000;
    double tone_hz = 1500;
    double level = 0.5;
    double ramp_s = 0.005;
};

// One step. Throws UsageError when the text is not a step.
ovl_tx_step parse_step(const std::string& text);

// Prepares a transmitter. Throws UsageError when a text is not a step, or the library refuses the transmission.
void start_transmitter(ovl_transmitter* tx, const Transmission& transmission);

// A transmitter, never null.
TransmitterPtr make_transmitter();

// Duration of what a transmitter holds, s.
double total_seconds(const ovl_transmitter* tx);
