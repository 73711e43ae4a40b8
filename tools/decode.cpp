#include "subcommands.h"

#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/progress.h"
#include "base/text.h"
#include "exit_status.h"
#include "options.h"
#include "recordings/decode_recording.h"
#include "recordings/open_recording.h"
#include "spots/spot_table.h"

namespace {

// The command line, as typed.
struct Options {
    std::vector<std::string> files;
    RecordingOptions recording;
    SearchOptions search;
    std::optional<double> block_s;
    unsigned jobs = 0;
    bool json = false;
    bool verbose = false;
};

DecodingOptions decoding_of(const Options& options) {
    DecodingOptions decoding{search_of(options.search, options.recording.iq), options.block_s, options.jobs};
    decoding.search.verbose = options.verbose;
    return decoding;
}

void print_spot(const Options& options, const std::string& file, const Found& found) {
    Spot spot = spot_of(found, file);
    if (options.search.coherent) spot.finding = finding_of(found);
    print(options.json ? spot_line(spot) : spot_row(format("%9s", cell(spot.start, 3).c_str()), spot));
}

// Decodes a file and prints its spots in order of time, after a heading as soon as something could be decoded. Throws
// IoError.
void decode_file(const std::string& path, const Options& options, const DecodingOptions& decoding,
                 const std::function<void()>& heading) {
    const auto recording = open_recording(path, options.recording);
    Progress progress("'" + path + "'", recording->seconds());
    SpotTaker taker;
    taker.begin = [&] {
        progress.clear();
        heading();
    };
    taker.take = [&](const Found& spot) {
        progress.clear();
        print_spot(options, path, spot);
    };
    taker.progress = [&](double done_s, std::size_t spots) { progress.show(done_s, spots); };
    taker.go_on = flush_output;
    decode_recording(*recording, decoding, 0, recording->seconds(), taker);
}

int decode(const Options& options) {
    const DecodingOptions decoding = decoding_of(options);
    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        if (options.verbose && options.files.size() > 1) print_error("'" + path + "'");
        const auto heading = [&] {
            if (options.json) return;
            if (options.files.size() > 1) print((first ? "" : "\n") + printable(path) + ":\n");
            print(spot_header(format("%9s", "time s"), options.search.coherent));
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

}  // namespace

void add_decode(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("decode", "Decode the beacons in recordings");
    const auto options = std::make_shared<Options>();
    sub->add_option("FILE", options->files, "Recordings: WAV, FLAC, Ogg, AIFF, W64 and whatever else libsndfile reads")
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
    sub->add_flag("--json", options->json, "Print one JSON object per line");
    sub->add_flag("-v,--verbose", options->verbose, "Print what the decoder did to standard error");
    sub->footer("Times are seconds from the start of the file, SNRs refer to the mean power of the frame in 2500 Hz.");
    sub->callback([options, &status] { status = decode(*options); });
}
