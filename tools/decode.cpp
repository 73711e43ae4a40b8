#include "subcommands.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "archive/decode_shard.h"
#include "archive/shard.h"
#include "base/console.h"
#include "base/error.h"
#include "base/progress.h"
#include "base/text.h"
#include "base/utc.h"
#include "exit_status.h"
#include "options.h"
#include "recordings/decode_recording.h"
#include "recordings/open_recording.h"
#include "recordings/sigmf.h"
#include "sources/source.h"
#include "spots/spot_table.h"
#include "system/files.h"

namespace {

// The command line, as typed.
struct DecodeOptions {
    std::vector<std::string> files;
    RecordingOptions recording;
    SearchOptions search;
    std::optional<double> block_s;
    unsigned jobs = 0;
    std::string start;
    std::optional<std::string> shard;
    std::string found_by;  // the options that decide on what is found, as a text
    bool json = false;
    bool csv = false;
    std::string annotate;
    bool verbose = false;
};

DecodingOptions decoding_of(const DecodeOptions& options) {
    DecodingOptions decoding{search_of(options.search, options.recording.iq), options.block_s, options.jobs};
    decoding.search.verbose = options.verbose;
    return decoding;
}

constexpr const char* START_IN_NAME = "name";

// UTC of a file's first sample, where --start gives it. Throws UsageError, or IoError for a name without a time.
std::optional<double> start_of(const DecodeOptions& options, const std::string& file) {
    if (options.start.empty()) return std::nullopt;
    if (options.start == START_IN_NAME) {
        const auto utc = utc_in_name(file);
        if (!utc) throw IoError("'" + file + "': --start name finds no time like 20260301_120000 in the name");
        return utc;
    }
    const auto utc = parse_utc(options.start, utc_now() - DAY_S);
    if (!utc) throw UsageError("--start: '" + options.start + "' is not a UTC time, nor name");
    return utc;
}

// How the spots of a file are printed.
class Printer {
  public:
    Printer(const DecodeOptions& options, const Recording& recording) : options_(options), recording_(recording) {}

    std::string heading() const {
        if (options_.json) return "";
        if (options_.csv) return spot_csv_names(complete({}), columns());
        return spot_header(dated() ? format("%22s", "UTC") : format("%9s", "time s"), options_.search.coherent,
                           tuned());
    }

    std::string line(const Spot& spot) const {
        if (options_.json) return spot_line(spot);
        if (options_.csv) return spot_csv(spot, columns());
        const std::string seconds = format("%*s", dated() ? 22 : 9, cell(spot.start, 3).c_str());
        return spot_row(spot.file_utc ? utc_text(*spot.file_utc + spot.start, 1) : seconds, spot, tuned());
    }

    Spot complete(const Found& found) const {
        return recorded_spot(found, recording_.path(), recording_.takes(), options_.search.coherent);
    }

  private:
    // Whether anything is known of times and of frequencies on the air.
    bool dated() const { return recording_.utc_zero(recording_.seconds()).has_value(); }
    bool tuned() const { return recording_.tuning(recording_.seconds()).has_value(); }

    // The same for all files of a command.
    SpotColumns columns() const {
        const bool some_know = std::ranges::any_of(
            options_.files, [](const std::string& file) { return is_sigmf(file) || is_live_source(file); });
        return {some_know || !options_.start.empty(), some_know || options_.recording.tuning.dial_hz.has_value()};
    }

    const DecodeOptions& options_;
    const Recording& recording_;
};

// The spots of a recording on their way into a copy of its metadata.
class Annotations {
  public:
    // Throws UsageError or IoError when there is no such metadata, or the copy would replace it.
    Annotations(const std::string& path, std::string output) : output_(std::move(output)) {
        if (output_.empty()) return;
        if (!is_sigmf(path)) throw UsageError("--sigmf-annotate: '" + path + "' has no SigMF metadata");
        std::error_code error;
        if (std::filesystem::equivalent(native_path(sigmf_base(path) + ".sigmf-meta"), native_path(output_), error)) {
            throw UsageError("--sigmf-annotate: '" + output_ + "' is the recording's own metadata");
        }
        metadata_ = sigmf_metadata(path);
        offset_ = parse_sigmf(metadata_).offset;
    }

    void add(const Spot& spot, double rate) {
        if (!output_.empty()) all_.push_back(annotation_of(spot, rate, offset_));
    }

    void write() const {
        if (!output_.empty()) replace_file(output_, sigmf_annotated(metadata_, all_));
    }

  private:
    std::string output_, metadata_;
    uint64_t offset_ = 0;
    std::vector<SigmfAnnotation> all_;
};

// Decodes a file and prints its spots in order of time, after a heading as soon as something could be decoded. Throws
// IoError.
void decode_file(const std::string& path, const DecodeOptions& options, DecodingOptions decoding,
                 const std::function<void(const std::string&)>& heading) {
    RecordingOptions how = options.recording;
    how.start_utc = start_of(options, path);
    std::unique_ptr<PipedRecording> pipe;
    if (is_pipe(path)) pipe = open_pipe(path, how);
    const std::unique_ptr<Recording> file = pipe ? nullptr : open_recording(path, how);
    Recording* const recording = pipe ? pipe.get() : file.get();
    decoding.search.iq = recording->iq();
    const Printer printer(options, *recording);
    Annotations annotations(path, options.annotate);
    Progress progress("'" + path + "'", recording->seconds());
    SpotTaker taker;
    taker.begin = [&] {
        progress.clear();
        heading(printer.heading());
    };
    taker.take = [&](const Found& found) {
        progress.clear();
        const Spot spot = printer.complete(found);
        annotations.add(spot, recording->file_rate());
        print(printer.line(spot));
    };
    taker.progress = [&](double done_s, std::size_t spots) { progress.show(done_s, spots); };
    taker.go_on = flush_output;
    if (pipe) {
        decode_piped(*pipe, decoding, taker);
    } else {
        decode_recording(*recording, decoding, 0, recording->seconds(), taker);
    }
    annotations.write();
}

int decode_shard(const DecodeOptions& options) {
    const auto shard = parse_shard(*options.shard);
    if (!shard) throw UsageError("--shard: '" + *options.shard + "' is not a part of several, as 2/7");
    ShardJob job{.shard = *shard,
                 .files = options.files,
                 .reading =
                     [&](const std::string& file) {
                         RecordingOptions how = options.recording;
                         how.start_utc = start_of(options, file);
                         return how;
                     },
                 .decoding = decoding_of(options),
                 .options = options.found_by};
    const auto write = [](const std::string& line) {
        print(line);
        return flush_output();
    };
    return decode_shard(job, write) ? EXIT_DONE : EXIT_FAILED;
}

int decode(const DecodeOptions& options) {
    if (options.start != START_IN_NAME) start_of(options, "");
    if (!options.annotate.empty() && options.files.size() > 1) throw UsageError("--sigmf-annotate takes one recording");
    if (options.shard) return decode_shard(options);
    const DecodingOptions decoding = decoding_of(options);
    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        if (options.verbose && options.files.size() > 1) print_error("'" + path + "'");
        const auto heading = [&](const std::string& names) {
            const bool table = !options.json && !options.csv;
            if (table && options.files.size() > 1) print((first ? "" : "\n") + printable(path) + ":\n");
            if (table || first) print(names);
            first = false;
        };
        try {
            decode_file(path, options, decoding, heading);
        } catch (const IoError& error) {
            print_error(error.what());
            status = EXIT_FAILED;
        } catch (const std::bad_alloc&) {
            print_error("cannot decode '" + path + "': memory is short");
            status = EXIT_FAILED;
        }
        if (!flush_output()) return EXIT_FAILED;
    }
    return status;
}

// The options that decide on what is found, as a text.
std::string found_by(const CLI::App& sub) {
    constexpr std::array WITHOUT = {"FILE", "shard", "jobs", "json", "verbose"};
    std::string text;
    for (const CLI::Option* option : sub.get_options()) {
        if (option->count() == 0 || std::ranges::find(WITHOUT, option->get_single_name()) != WITHOUT.end()) continue;
        text += option->get_name() + '\n';
        for (const std::string& value : option->results()) text += value + '\n';
    }
    return text;
}

}  // namespace

void add_decode(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("decode", "Decode the beacons in recordings");
    const auto options = std::make_shared<DecodeOptions>();
    sub->add_option(
           "FILE", options->files,
           "Recordings: WAV, FLAC, Ogg, AIFF, W64 and whatever else libsndfile reads, SigMF, bare samples, also as "
           "http:// or https://; - is standard input; or a live source: device:NAME, "
           "rtl_tcp://HOST:PORT?freq=HZ&rate=HZ, soapy:driver=NAME; a name that ends in .list is a list of them, one "
           "on a line")
        ->required();
    add_recording_options(*sub, options->recording);
    CLI::Option* wide =
        sub->add_flag("--wide", options->search.wide, "Search the whole band of the recording, or --band");
    sub->add_option("--band", options->search.band,
                    "Band of a wide search, as -20000:20000 [all that the sample rate holds]")
        ->type_name("LO:HI")
        ->needs(wide);
    sub->add_option("--min-z", options->search.scan_z,
                    "How far keyed carriers of a wide search stand out, in sigma [6]")
        ->type_name("SIGMA")
        ->check(finite_number())
        ->needs(wide);
    add_search_options(*sub, options->search, "1500; with --iq 0");
    sub->add_option("--block", options->block_s,
                    "Length of the overlapping blocks in which longer recordings are decoded, 60 to 3600 [by rate]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(60.0, 3600.0));
    sub->add_option("--jobs", options->jobs, "Blocks to decode at once [one for each core]")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
    sub->add_option("--start", options->start,
                    "UTC time of the first sample: 12:00[:00] (the latest such), 2026-03-01T12:00[:00]Z, or name: the "
                    "one in the file's name")
        ->type_name("TIME");
    CLI::Option* json = sub->add_flag("--json", options->json, "Print one JSON object per line");
    CLI::Option* csv =
        sub->add_flag("--csv", options->csv, "Print comma-separated values, their names first")->excludes(json);
    CLI::Option* annotate = sub->add_option("--sigmf-annotate", options->annotate,
                                            "Write a copy of the SigMF metadata with an annotation for each frame")
                                ->type_name("FILE");
    sub->add_option("--shard", options->shard,
                    "Decode only one of N equal parts of all recordings, the Ith, and print lines for 'orvel merge'")
        ->type_name("I/N")
        ->excludes(csv)
        ->excludes(annotate);
    sub->add_flag("-v,--verbose", options->verbose, "Print what the decoder did to standard error");
    sub->footer(
        "Times are seconds from the start of the file, or UTC with --start; SNRs refer to the mean power of the frame "
        "in 2500 Hz.");
    sub->callback([options, sub, &status] {
        options->files = expand_lists(options->files);
        if (options->files.empty()) throw UsageError("the lists hold no recordings");
        options->found_by = found_by(*sub);
        status = decode(*options);
    });
}
