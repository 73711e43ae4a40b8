#include "subcommands.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
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
struct ScanOptions {
    std::vector<std::string> files;
    RecordingOptions recording;
    std::optional<std::string> band;
    double min_z = DEFAULT_SCAN_Z;
    double block_s = 60;
    bool json = false;
};

std::string row(const std::string& from, const std::string& to, const std::string& freq,
                const std::optional<std::string>& rf, const std::string& z) {
    std::string line = format("%9s  %9s  %12s", from.c_str(), to.c_str(), freq.c_str());
    if (rf) line += format("  %13s", rf->c_str());
    return line + format("  %7s\n", z.c_str());
}

void print_hits(const ScanOptions& options, const Recording& recording, const BlockSpan& block,
                const std::vector<ov_hit>& hits) {
    const auto tuning = recording.tuning(block.begin_s + 0.5 * block.length_s);
    for (const ov_hit& hit : hits) {
        const double end_s = block.begin_s + block.length_s;
        if (!options.json) {
            const auto rf = tuning ? std::optional(cell(tuning->rf_hz(hit.freq_hz), 1)) : std::nullopt;
            print(row(cell(block.begin_s, 1), cell(end_s, 1), cell(hit.freq_hz, 1), rf, cell(hit.z, 1)));
            continue;
        }
        nlohmann::ordered_json object;
        object["file"] = recording.path();
        object["t_from"] = block.begin_s;
        object["t_to"] = end_s;
        object["freq_hz"] = hit.freq_hz;
        if (tuning) object["rf_hz"] = tuning->rf_hz(hit.freq_hz);
        object["z"] = hit.z;
        print(json_line(object));
    }
}

// Throws IoError.
void scan_file(const std::string& path, const ScanOptions& options, const std::function<void(bool with_rf)>& heading) {
    const auto recording = open_recording(path, options.recording);
    heading(recording->tuning(recording->seconds()).has_value());
    Progress progress("'" + path + "'", recording->seconds(), std::nullopt);
    const int32_t rate = recording->rate();
    const Range band = options.band ? range_of("--band", *options.band) : whole_band(recording->iq(), rate);
    Stretch samples;
    for (const BlockSpan& block :
         cut_blocks(recording->seconds(), std::min(options.block_s, MOST_BLOCK_SAMPLES / rate), 0)) {
        samples = recording->read(block.begin_s, block.length_s, std::move(samples));
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
        print_hits(options, *recording, {samples.begin_s, static_cast<double>(samples.x.size()) / rate}, hits);
        if (!flush_output()) return;
        progress.show(block.begin_s + block.length_s, std::nullopt);
    }
}

int scan(const ScanOptions& options) {
    if (options.band) range_of("--band", *options.band);
    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        const auto heading = [&](bool with_rf) {
            if (!options.json) {
                if (options.files.size() > 1) print((first ? "" : "\n") + printable(path) + ":\n");
                print(row("from s", "to s", "frequency Hz", with_rf ? std::optional("radio Hz") : std::nullopt, "z"));
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
    const auto options = std::make_shared<ScanOptions>();
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
