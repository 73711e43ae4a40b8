#include "subcommands.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "base/blocks.h"
#include "base/console.h"
#include "base/error.h"
#include "base/json.h"
#include "base/progress.h"
#include "base/text.h"
#include "exit_status.h"
#include "liborvel.h"
#include "options.h"
#include "ovscan.h"
#include "recordings/open_recording.h"

namespace {

constexpr int32_t MAX_HITS = 1000;  // in a block

// The command line, as typed.
struct Options {
    std::vector<std::string> files;
    RecordingOptions recording;
    std::optional<std::string> band;
    double min_z = DEFAULT_SCAN_Z;
    double block_s = 60;
    bool json = false;
};

void print_hits(const Options& options, const std::string& file, const BlockSpan& block,
                const std::vector<ov_hit>& hits) {
    for (const ov_hit& hit : hits) {
        if (!options.json) {
            print(format("%9s  %9s  %12s  %7s\n", cell(block.begin_s, 1).c_str(),
                         cell(block.begin_s + block.length_s, 1).c_str(), cell(hit.freq_hz, 1).c_str(),
                         cell(hit.z, 1).c_str()));
            continue;
        }
        nlohmann::ordered_json object;
        object["file"] = file;
        object["t_from"] = block.begin_s;
        object["t_to"] = block.begin_s + block.length_s;
        object["freq_hz"] = hit.freq_hz;
        object["z"] = hit.z;
        print(json_line(object));
    }
}

// Throws IoError.
void scan_file(const std::string& path, const Options& options, const std::function<void()>& heading) {
    const auto recording = open_recording(path, options.recording);
    heading();
    Progress progress("'" + path + "'", recording->seconds(), std::nullopt);
    const int32_t rate = recording->rate();
    const Range band = options.band ? range_of("--band", *options.band) : whole_band(options.recording.iq, rate);
    for (const BlockSpan& block :
         cut_blocks(recording->seconds(), std::min(options.block_s, MOST_BLOCK_SAMPLES / rate), 0)) {
        const Stretch samples = recording->read(block.begin_s, block.length_s);
        if (block.begin_s > 0 && samples.x.empty()) return;  // the file ends before its header says
        std::vector<ov_hit> hits(MAX_HITS);
        const int32_t count = ov_scan_w(samples.x.data(), samples.q.empty() ? nullptr : samples.q.data(),
                                        static_cast<int32_t>(samples.x.size()), rate, ovl_chip_seconds(), band.low,
                                        band.high, options.min_z, OV_KEYED_SEPARATION_HZ, MAX_HITS, hits.data(),
                                        nullptr, OV_FRAME_RUN, OV_KEYED_VARIANCE, 0);
        if (count < 0) {
            throw IoError("cannot scan '" + path + "': it is too short, the band does not fit it, or memory is short");
        }
        hits.resize(static_cast<std::size_t>(count));
        progress.clear();
        print_hits(options, path, {samples.begin_s, static_cast<double>(samples.x.size()) / rate}, hits);
        if (!flush_output()) return;
        progress.show(block.begin_s + block.length_s, std::nullopt);
    }
}

int scan(const Options& options) {
    if (options.band) range_of("--band", *options.band);
    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        const auto heading = [&] {
            if (!options.json) {
                if (options.files.size() > 1) print((first ? "" : "\n") + printable(path) + ":\n");
                print(format("%9s  %9s  %12s  %7s\n", "from s", "to s", "frequency Hz", "z"));
            }
            first = false;
        };
        try {
            scan_file(path, options, heading);
        } catch (const IoError& error) {
            print_error(error.what());
            status = EXIT_FAILED;
        } catch (const std::bad_alloc&) {
            print_error("cannot scan '" + path + "': memory is short");
            status = EXIT_FAILED;
        }
        if (!flush_output()) return EXIT_FAILED;
    }
    return status;
}

}  // namespace

void add_scan(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("scan", "List the frequencies at which recordings hold something keyed");
    const auto options = std::make_shared<Options>();
    sub->add_option("FILE", options->files, "Recordings, as for decode")->required();
    add_recording_options(*sub, options->recording);
    sub->add_option("--band", options->band, "Band, as -20000:20000 [all that the sample rate holds]")
        ->type_name("LO:HI");
    sub->add_option("--min-z", options->min_z, "Least distance from the median of all frequencies [6]")
        ->type_name("SIGMA")
        ->check(finite_number());
    sub->add_option("--block", options->block_s, "Length of the blocks, 10 to 3600 [60]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(10.0, 3600.0));
    sub->add_flag("--json", options->json, "Print one JSON object per line");
    sub->callback([options, &status] { status = scan(*options); });
}
