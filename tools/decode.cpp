#include "decode.h"

#include <functional>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "console.h"
#include "decoding.h"
#include "json.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "progress.h"
#include "recording.h"
#include "search.h"
#include "spots.h"

namespace {

// The command line, as typed.
struct Options : DecodingOptions {
    std::vector<std::string> files;
    bool json = false;
};

// ---- Output --------------------------------------------------------------------------------------------------------

void print_spot(const Options& options, const std::string& file, const ov_spot& spot) {
    if (!options.json) {
        print(spot_row(format("%9s", cell(spot.t, 3).c_str()), spot));
        return;
    }
    nlohmann::ordered_json object;
    object["file"] = file;
    object["t_start"] = spot.t;
    object["t_end"] = spot_end(spot);
    add_spot(object, spot);
    print(json_line(object));
}

// ---- Decoding ------------------------------------------------------------------------------------------------------

// Decodes one file and prints its spots in order of time, behind a heading as soon as something could be decoded.
// False, with a line on standard error, when some of it could not be, or the output not be written.
bool decode_file(Recording& recording, const std::string& path, const Options& options, const ov_params& params,
                 const std::function<void()>& heading) {
    Progress progress("'" + path + "'", recording.seconds());
    SpotTaker taker;
    taker.begin = [&] {
        progress.clear();
        heading();
    };
    taker.take = [&](const ov_spot& spot) {
        progress.clear();
        print_spot(options, path, spot);
    };
    taker.progress = [&](double done_s, std::size_t spots) { progress.show(done_s, spots); };
    taker.go_on = flush_output;
    return decode_recording(recording, path, options, params, 0, recording.seconds(), taker);
}

int decode(const Options& options) {
    if (options.wide && options.search.center_hz) throw CLI::ValidationError("--center: --wide has --band instead");
    if (options.band) parse_band(*options.band);
    const std::vector<ovc_known> known = known_callsigns(options.search);
    const ov_params params = decode_params(options, known);

    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        if (options.verbose && options.files.size() > 1) print_error("'" + path + "'");
        const auto recording = open_recording(path, options.recording);
        if (!recording) {
            status = EXIT_FAILED;
            continue;
        }
        const auto heading = [&] {
            if (options.json) return;
            if (options.files.size() > 1) print((first ? "" : "\n") + printable(path) + ":\n");
            print(spot_header(format("%9s", "time s")));
            first = false;
        };
        try {
            if (!decode_file(*recording, path, options, params, heading)) status = EXIT_FAILED;
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
    sub->add_option("FILE", options->files, "Recordings: WAV, FLAC, Ogg, AIFF, W64 and what else libsndfile reads")
        ->required();
    add_recording_options(*sub, options->recording);
    CLI::Option* wide = sub->add_flag("--wide", options->wide, "Search the whole band of the recording, or --band");
    sub->add_option("--band", options->band, "Band of a wide search, as -20000:20000 [all that the sample rate holds]")
        ->type_name("LO:HI")
        ->needs(wide);
    sub->add_option("--min-z", options->scan_z, "Keyed carriers of a wide search stand out so many sigma [6]")
        ->type_name("SIGMA")
        ->check(finite_number())
        ->needs(wide);
    add_search_options(*sub, options->search, "1500; with --iq 0");
    sub->add_option("--block", options->block_s,
                    "Work through longer recordings in overlapping blocks of so many seconds, 60 to 3600 [by rate]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(60.0, 3600.0));
    sub->add_option("--jobs", options->jobs, "Blocks to decode at once [one for each core]")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
    sub->add_flag("--json", options->json, "Print one JSON object a line");
    sub->add_flag("-v,--verbose", options->verbose, "Print what the decoder did to standard error");
    sub->footer("Times are seconds from the start of the file, SNRs refer to the mean power of the frame in 2500 Hz.");
    sub->callback([options, &status] { status = decode(*options); });
}
