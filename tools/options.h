// Options that several subcommands have.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "base/tuning.h"
#include "decoding/search.h"
#include "recordings/recording.h"
#include "recordings/sound_writer.h"
#include "transmission/steps.h"

// Checks for option values: the whole text must be a finite number (not below 0).
CLI::Validator finite_number();
CLI::Validator width();

// "LO:HI" after an option. Throws UsageError.
Range range_of(const std::string& option, const std::string& text);

// "s16" or "float" after --format; true for s16. Throws UsageError.
bool is_s16(const std::string& text);

// What the name of a file to write says: WAV, also without an extension, or FLAC. Throws UsageError for any other, and
// for FLAC without s16.
SoundWriter::Container container_of(const std::string& output, bool s16);

// How a receiver was tuned: --dial and --sideband.
void add_tuning_options(CLI::App& sub, SaidTuning& tuning);

// And what of a recording to take, as it lies in its file.
void add_recording_options(CLI::App& sub, RecordingOptions& options);

// What to search for, as typed.
struct SearchOptions {
    std::optional<double> center_hz;
    double search_hz = 200;
    double spread_hz = 0;
    std::string protocols = "all";
    std::string known_list;
    std::string known_file;
    bool known_only = false;
    bool coherent = false;
    // Of a wide search; the subcommands that have one add these themselves.
    bool wide = false;
    std::optional<std::string> band;
    double scan_z = DEFAULT_SCAN_Z;
};

// `center` is the default centre of the search, for the help.
void add_search_options(CLI::App& sub, SearchOptions& options, const std::string& center);

// The search that they describe. Throws UsageError.
Search search_of(const SearchOptions& options, bool iq);

// The steps of a transmission and how they sound; and the steps explained, for the end of a subcommand's help.
void add_transmission_options(CLI::App& sub, Transmission& transmission);
std::string step_help();
