#include "decode.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "console.h"
#include "json.h"
#include "liborvel.h"
#include "ovbb.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "recording.h"
#include "search.h"
#include "spots.h"

namespace {

constexpr double CANDIDATES_PER_MINUTE = 30;  // the library's default suits a block of a minute
constexpr double SPOTS_PER_MINUTE = 64;       // as the library reports from a block

// The command line, as typed.
struct Options {
    std::vector<std::string> files;
    bool iq = false;
    SearchOptions search;
    bool json = false;
    bool verbose = false;
};

ov_params decode_params(const Options& options, const std::vector<ovc_known>& known) {
    ov_params params;
    ov_params_default(params);
    params.center_hz = options.search.center_hz.value_or(options.iq ? 0.0 : params.center_hz);
    params.search_hz = options.search.search_hz;
    params.spread_hz = options.search.spread_hz;
    params.protocols = protocol_mask(options.search);
    params.known = known.empty() ? nullptr : known.data();
    params.n_known = static_cast<int32_t>(known.size());
    params.known_only = options.search.known_only ? 1 : 0;
    params.verbose = options.verbose ? 1 : 0;
    return params;
}

// ---- Output --------------------------------------------------------------------------------------------------------

void print_table(const std::vector<ov_spot>& spots) {
    print(spot_header(format("%9s", "time s")));
    for (const ov_spot& spot : spots) print(spot_row(format("%9s", cell(spot.t, 3).c_str()), spot));
}

void print_json(const std::string& file, const std::vector<ov_spot>& spots) {
    for (const ov_spot& spot : spots) {
        nlohmann::ordered_json object;
        object["file"] = file;
        object["t_start"] = spot.t;
        object["t_end"] = spot_end(spot);
        add_spot(object, spot);
        print(json_line(object));
    }
}

// ---- Decoding ------------------------------------------------------------------------------------------------------

// The samples of a recording: audio, or I/Q when q is not null.
struct Block {
    const double* x = nullptr;
    const double* q = nullptr;
    int32_t n = 0;
    uint32_t rate = 0;
};

// Baseband rates are 125 Hz times a power of two, so that the lowest tells whether an input rate fits any of them.
bool rate_served(uint32_t rate) {
    int32_t nfft = 0;
    int32_t nout = 0;
    return rate >= 1 && rate <= static_cast<uint32_t>(std::numeric_limits<int32_t>::max()) &&
           choose_sizes(1, static_cast<int32_t>(rate), 125, nfft, nout) == 0;
}

// Why the pipeline refused a block.
std::string refusal(const Block& block) {
    if (!rate_served(block.rate)) return format("its sample rate of %u Hz is not served", block.rate);
    const auto finite = [](double sample) { return std::isfinite(sample); };
    if (!std::all_of(block.x, block.x + block.n, finite) ||
        (block.q && !std::all_of(block.q, block.q + block.n, finite))) {
        return "it holds samples that are not finite numbers";
    }
    const double seconds = static_cast<double>(block.n) / block.rate;
    if (seconds < ovl_chip_seconds()) return format("it is too short (%.3f s, a chip is 0.128 s)", seconds);
    return "the search band does not fit the recording, or memory is short";
}

// Decodes a block. A long recording gets as many candidates a minute as a short one.
std::optional<std::vector<ov_spot>> decode_block(const Block& block, ov_params params) {
    if (!rate_served(block.rate)) return std::nullopt;
    const auto rate = static_cast<int32_t>(block.rate);
    const double minutes = std::max(1.0, std::ceil(static_cast<double>(block.n) / rate / 60));
    params.max_cands = static_cast<int32_t>(std::min(CANDIDATES_PER_MINUTE * minutes, 1e6));
    std::vector<ov_spot> spots(static_cast<std::size_t>(std::min(SPOTS_PER_MINUTE * minutes, 1e6)));
    const auto room = static_cast<int32_t>(spots.size());
    const int32_t count = block.q ? ov_decode_iq(block.x, block.q, block.n, rate, params, spots.data(), room)
                                  : ov_decode_real(block.x, block.n, rate, params, spots.data(), room);
    if (count < 0) return std::nullopt;
    spots.resize(static_cast<std::size_t>(count));
    return spots;
}

// Reads and decodes one file; nothing, with a line on standard error, when that fails.
std::optional<std::vector<ov_spot>> decode_file(const std::string& path, bool iq, const ov_params& params) {
    AudioPtr audio;
    IqPtr recording;
    Block block;
    if (iq) {
        recording = read_iq(path);
        if (!recording) return std::nullopt;
        block = {recording->i, recording->q, recording->count, recording->rate};
    } else {
        audio = read_audio(path);
        if (!audio) return std::nullopt;
        block = {audio->samples, nullptr, audio->count, audio->rate};
    }
    auto spots = decode_block(block, params);
    if (!spots) print_error("cannot decode '" + path + "': " + refusal(block));
    return spots;
}

int decode(const Options& options) {
    const std::vector<ovc_known> known = known_callsigns(options.search);
    const ov_params params = decode_params(options, known);

    int status = EXIT_DONE;
    bool first = true;
    for (const std::string& path : options.files) {
        if (options.verbose && options.files.size() > 1) print_error("'" + path + "'");
        const auto spots = decode_file(path, options.iq, params);
        if (!spots) {
            status = EXIT_FAILED;
            continue;
        }
        if (options.json) {
            print_json(path, *spots);
        } else {
            if (options.files.size() > 1) print((first ? "" : "\n") + path + ":\n");
            print_table(*spots);
        }
        first = false;
        if (!flush_output()) return EXIT_FAILED;
    }
    return status;
}

}  // namespace

void add_decode(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("decode", "Decode the beacons in recordings");
    const auto options = std::make_shared<Options>();
    sub->add_option("FILE", options->files, "WAV recordings: integer PCM of any number of channels")->required();
    sub->add_flag("--iq", options->iq, "The recordings are I/Q: two channels, integer or 32-bit float, RIFF or RF64");
    add_search_options(*sub, options->search, "1500; with --iq 0");
    sub->add_flag("--json", options->json, "Print one JSON object a line");
    sub->add_flag("-v,--verbose", options->verbose, "Print what the decoder did to standard error");
    sub->footer("Times are seconds from the start of the file, SNRs refer to the mean power of the frame in 2500 Hz.");
    sub->callback([options, &status] { status = decode(*options); });
}
