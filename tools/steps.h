// Transmissions on the command line: steps like carrier=2 or opera=K2QRX, and how they sound.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "liborvel.h"

struct DestroyTransmitter {
    void operator()(ovl_transmitter* tx) const noexcept { ovl_tx_destroy(tx); }
};
using TransmitterPtr = std::unique_ptr<ovl_transmitter, DestroyTransmitter>;

// The options, as typed.
struct StepOptions {
    std::vector<std::string> steps;
    int32_t rate = 48000;
    double tone_hz = 1500;
    double level = 0.5;
    double ramp_s = 0.005;
};

// Adds the steps and options to a subcommand.
void add_step_options(CLI::App& sub, StepOptions& options);

// What the steps are; help for a subcommand's end.
std::string step_help();

// One step. Throws CLI::ValidationError when the text is none.
ovl_tx_step parse_step(const std::string& text);

// The same as prepared for a transmitter, which is started with it. Throws CLI::ValidationError when the library
// refuses it.
void start_transmitter(ovl_transmitter* tx, const StepOptions& options);

// A transmitter, never null.
TransmitterPtr make_transmitter();

// Duration of what a transmitter holds, s.
double total_seconds(const ovl_transmitter* tx);
