#include "options.h"

#include <cstdint>
#include <filesystem>

#include "base/error.h"
#include "base/text.h"
#include "base/utc.h"
#include "system/files.h"

CLI::Validator finite_number() {
    return {[](const std::string& text) {
                return parse_finite(text) ? std::string() : "'" + text + "' is not a finite number";
            },
            ""};
}

CLI::Validator width() {
    return {[](const std::string& text) {
                const auto value = parse_finite(text);
                return value && *value >= 0 ? std::string() : "'" + text + "' is not a finite number of 0 or more";
            },
            ""};
}

Range range_of(const std::string& option, const std::string& text) {
    const auto range = parse_range(text);
    if (!range) throw UsageError(option + ": '" + text + "' is not LO:HI with LO below HI");
    return *range;
}

bool is_s16(const std::string& text) {
    if (text != "s16" && text != "float") throw UsageError("--format: '" + text + "' is not one of s16, float");
    return text == "s16";
}

SoundWriter::Container container_of(const std::string& output, bool s16) {
    const std::string extension = lower_case(text_of(native_path(output).extension()));
    if (extension.empty() || extension == ".wav") return SoundWriter::Container::WAV;
    if (extension != ".flac") throw UsageError("--output: '" + output + "' does not end in .wav or .flac");
    if (!s16) throw UsageError("--format: FLAC has no floating-point samples");
    return SoundWriter::Container::FLAC;
}

void add_tuning_options(CLI::App& sub, SaidTuning& tuning) {
    sub.add_option("--dial", tuning.dial_hz,
                   "Frequency that the receiver was tuned to, of I/Q its centre: spots then show theirs on the air")
        ->type_name("HZ")
        ->check(finite_number());
    sub.add_option_function<std::string>(
           "--sideband",
           [&tuning](const std::string& text) {
               if (text != "usb" && text != "lsb") {
                   throw UsageError("--sideband: '" + text + "' is not one of usb, lsb");
               }
               tuning.sideband = text == "lsb" ? Sideband::LOWER : Sideband::UPPER;
           },
           "Side of the dial frequency on which the samples lie: usb, or lsb, where they count downward [usb]")
        ->type_name("SIDE");
}

void add_recording_options(CLI::App& sub, RecordingOptions& options) {
    sub.add_flag("--iq", options.iq, "The recordings are I/Q: two channels, I and Q");
    sub.add_option("--channel", options.channel,
                   "Channel to take, counted from 1; with --iq that of I, followed by Q [mean]")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
    sub.add_option_function<std::string>(
           "--raw",
           [&options](const std::string& text) {
               options.raw = parse_sample_format(text);
               if (!options.raw) {
                   throw UsageError(
                       "--raw: '" + text +
                       "' is not one of u8, s8, u16, s16, s24, u32, s32, f32, f64, or big endian with be behind it");
               }
           },
           "The recordings are bare samples: u8 s8 s16 s24 s32 f32 f64, big endian with be behind it [by name: .cu8 "
           ".cs16 .cf32 .cfile are I/Q, .u8 .s16 .f32 are not]")
        ->type_name("FORMAT");
    sub.add_option("--rate", options.raw_rate, "Sample rate of bare samples, or of a sound device")
        ->type_name("HZ")
        ->check(CLI::Range(uint32_t{1}, static_cast<uint32_t>(MOST_RAW_RATE)));
    sub.add_option_function<std::string>(
           "--for",
           [&options](const std::string& text) {
               options.most_s = parse_duration(text);
               if (!options.most_s) throw UsageError("--for: '" + text + "' is not a length of time");
           },
           "Of a live source or a pipe, how much to take [to its end, or Ctrl-C]")
        ->type_name("LENGTH");
    add_tuning_options(sub, options.tuning);
}

void add_search_options(CLI::App& sub, SearchOptions& options, const std::string& center) {
    sub.add_option("--center", options.center_hz, "Centre of the search [" + center + "]")
        ->type_name("HZ")
        ->check(finite_number());
    sub.add_option("--search", options.search_hz, "Half-width of the search [200]")->type_name("HZ")->check(width());
    sub.add_option("--spread", options.spread_hz, "Width over which the energy of a spread signal is summed [0]")
        ->type_name("HZ")
        ->check(width());
    sub.add_option("--protocols", options.protocols, "Comma-separated: opera, orvel-s, orvel-l, all [all]")
        ->type_name("LIST");
    sub.add_option("--known", options.known_list,
                   "Known callsigns, comma-separated: their OPERA frames are also found below the ordinary threshold")
        ->type_name("LIST");
    sub.add_option("--known-file", options.known_file, "File of known callsigns; # starts a comment")
        ->type_name("FILE");
    sub.add_flag("--known-only", options.known_only, "Accept known callsigns only");
    sub.add_flag("--coherent", options.coherent,
                 "Also look some 4 dB deeper, for carriers that keep their phase for seconds");
}

Search search_of(const SearchOptions& options, bool iq) {
    if (options.wide && options.center_hz) throw UsageError("--center: --wide has --band instead");
    Search search;
    search.iq = iq;
    search.center_hz = options.center_hz;
    search.search_hz = options.search_hz;
    search.spread_hz = options.spread_hz;
    search.wide = options.wide;
    if (options.band) search.band = range_of("--band", *options.band);
    search.scan_z = options.scan_z;
    add_known("--known", options.known_list, search.known);
    if (!options.known_file.empty()) add_known_file("--known-file", options.known_file, search.known);
    search.known_only = options.known_only;
    search.coherent = options.coherent;
    if (options.known_only && search.known.empty()) {
        throw UsageError("--known-only needs known callsigns (--known or --known-file)");
    }
    search.protocols = parse_protocols("--protocols", options.protocols);
    return search;
}

void add_transmission_options(CLI::App& sub, Transmission& transmission) {
    sub.add_option("STEP", transmission.steps, "What to send, one step after another")->required();
    sub.add_option("--rate", transmission.rate, "Sample rate, 8000 to 384000 [48000]")->type_name("HZ");
    sub.add_option("--tone", transmission.tone_hz, "Frequency of the carrier [1500]")
        ->type_name("HZ")
        ->check(finite_number());
    sub.add_option("--level", transmission.level, "Peak amplitude, above 0, at most 1 [0.5]")
        ->type_name("LEVEL")
        ->check(finite_number());
    sub.add_option("--ramp", transmission.ramp_s, "Length of a key transition, 0 to 0.05 [0.005]")
        ->type_name("SECONDS")
        ->check(finite_number());
}

std::string step_help() {
    return "Steps, up to 64 of them:\n"
           "  opera=CALL            an OPERA frame\n"
           "  orvel-s=CALL          an ORVEL S frame\n"
           "  orvel-l=CALL,LOCATOR  an ORVEL L frame\n"
           "  carrier=SECONDS       a steady carrier, 0.05 to 3600 s\n"
           "  pause=SECONDS         silence";
}
