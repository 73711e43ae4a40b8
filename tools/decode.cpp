#include "decode.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "console.h"
#include "liborvel.h"
#include "ovbb.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "protocols.h"
#include "recording.h"

namespace {

constexpr std::size_t MAX_KNOWN = 256;        // as the library's own list
constexpr double CANDIDATES_PER_MINUTE = 30;  // the library's default suits a block of a minute
constexpr double SPOTS_PER_MINUTE = 64;       // as the library reports from a block
constexpr double UNKNOWN_SNR = -99;           // the pipeline's mark for an SNR that could not be measured

constexpr int32_t ALL_PROTOCOLS = OVL_OPERA | OVL_ORVEL_S | OVL_ORVEL_L;

// The command line, as typed.
struct Options {
    std::vector<std::string> files;
    bool iq = false;
    std::optional<double> center_hz;  // 1500 for audio and 0 for I/Q when not given
    double search_hz = 200;
    double spread_hz = 0;
    std::string protocols = "all";
    std::string known_list;
    std::string known_file;
    bool known_only = false;
    bool json = false;
    bool verbose = false;
};

// ---- Values of options; each throws CLI::ValidationError, which ends the command as wrong usage -------------------

int32_t parse_protocols(const std::string& list) {
    int32_t mask = 0;
    for (const std::string& name : split_list(list)) {
        if (name == "all") {
            mask |= ALL_PROTOCOLS;
            continue;
        }
        const Protocol* found = find_protocol(name);
        if (found == nullptr) {
            throw CLI::ValidationError("--protocols: '" + name + "' is not one of " + protocol_names() + ", all");
        }
        mask |= found->id;
    }
    if (mask == 0) throw CLI::ValidationError("--protocols: the list is empty");
    return mask;
}

void add_known(const std::string& option, std::string_view list, std::vector<ovc_known>& known) {
    for (const std::string& call : split_list(list)) {
        if (known.size() == MAX_KNOWN) throw CLI::ValidationError("too many known callsigns (max 256)");
        if (ovc_known_init(call.c_str(), known.emplace_back()) != 0) {
            throw CLI::ValidationError(
                format("%s: '%s' is not a callsign that a frame can carry", option.c_str(), call.c_str()));
        }
    }
}

// A known-callsign file holds callsigns between blanks, commas and line ends; "#" starts a comment.
void add_known_file(const std::string& path, std::vector<ovc_known>& known) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) add_known("--known-file", line.substr(0, line.find('#')), known);
    if (!file.eof()) throw CLI::ValidationError("--known-file: cannot read '" + path + "'");
}

std::vector<ovc_known> known_callsigns(const Options& options) {
    std::vector<ovc_known> known;
    add_known("--known", options.known_list, known);
    if (!options.known_file.empty()) add_known_file(options.known_file, known);
    if (options.known_only && known.empty()) {
        throw CLI::ValidationError("--known-only needs known callsigns (--known or --known-file)");
    }
    return known;
}

ov_params decode_params(const Options& options, const std::vector<ovc_known>& known) {
    ov_params params;
    ov_params_default(params);
    params.center_hz = options.center_hz.value_or(options.iq ? 0.0 : params.center_hz);
    params.search_hz = options.search_hz;
    params.spread_hz = options.spread_hz;
    params.protocols = parse_protocols(options.protocols);
    params.known = known.empty() ? nullptr : known.data();
    params.n_known = static_cast<int32_t>(known.size());
    params.known_only = options.known_only ? 1 : 0;
    params.verbose = options.verbose ? 1 : 0;
    return params;
}

// ---- Output --------------------------------------------------------------------------------------------------------

bool snr_known(const ov_spot& spot) {
    return std::isfinite(spot.snr) && spot.snr > UNKNOWN_SNR;
}

// A number for the table; "-" when it is none. A value that rounds to zero has no sign.
std::string cell(double value, int decimals, bool show_sign = false) {
    if (!std::isfinite(value)) return "-";
    if (std::abs(value) < 0.5 * std::pow(10.0, -decimals)) value = 0;
    return show_sign ? format("%+.*f", decimals, value) : format("%.*f", decimals, value);
}

void print_row(const char* time, const char* freq, const char* drift, const char* snr, const char* protocol,
               const char* call, const char* locator) {
    std::string row = format("%9s  %12s  %10s  %6s  %-8s  %-8s  %s", time, freq, drift, snr, protocol, call, locator);
    row.erase(row.find_last_not_of(' ') + 1);
    print(row + "\n");
}

void print_table(const std::vector<ov_spot>& spots) {
    print_row("time s", "frequency Hz", "drift Hz/s", "SNR dB", "protocol", "callsign", "locator");
    for (const ov_spot& spot : spots) {
        print_row(cell(spot.t, 3).c_str(), cell(spot.freq, 2).c_str(), cell(spot.drift, 3, true).c_str(),
                  (snr_known(spot) ? cell(spot.snr, 1, true) : "-").c_str(),
                  ovl_proto_name(static_cast<uint32_t>(spot.protocol)), spot.call,
                  spot.locator[0] != '\0' ? spot.locator : "-");
    }
}

// JSON has no infinities; nlohmann's library writes them, and NaN, as null.
void print_json(const std::string& file, const std::vector<ov_spot>& spots) {
    for (const ov_spot& spot : spots) {
        nlohmann::ordered_json object;
        object["file"] = file;
        object["t_start"] = spot.t;
        object["t_end"] = spot.t + ovl_chip_seconds() * ovl_frame_chips(static_cast<uint32_t>(spot.protocol));
        object["freq_hz"] = spot.freq;
        object["drift_hz_s"] = spot.drift;
        object["snr_db"] = snr_known(spot) ? nlohmann::ordered_json(spot.snr) : nlohmann::ordered_json();
        object["protocol"] = ovl_proto_name(static_cast<uint32_t>(spot.protocol));
        object["call"] = spot.call;
        object["locator"] = spot.locator;
        object["deep"] = spot.deep != 0;
        // A file name need not be UTF-8: what is not becomes the replacement character.
        print(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
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
    const std::vector<ovc_known> known = known_callsigns(options);
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
    sub->add_option("--center", options->center_hz, "Centre of the search [1500; with --iq 0]")
        ->type_name("HZ")
        ->check(finite_number());
    sub->add_option("--search", options->search_hz, "Half-width of the search [200]")->type_name("HZ")->check(width());
    sub->add_option("--spread", options->spread_hz, "Width over which the energy of a spread signal is summed [0]")
        ->type_name("HZ")
        ->check(width());
    sub->add_option("--protocols", options->protocols, "Comma-separated: opera, orvel-s, orvel-l, all [all]")
        ->type_name("LIST");
    sub->add_option("--known", options->known_list,
                    "Known callsigns, comma-separated: their OPERA frames are also found below the ordinary threshold")
        ->type_name("LIST");
    sub->add_option("--known-file", options->known_file, "File of known callsigns; # starts a comment")
        ->type_name("FILE");
    sub->add_flag("--known-only", options->known_only, "Accept known callsigns only");
    sub->add_flag("--json", options->json, "Print one JSON object a line");
    sub->add_flag("-v,--verbose", options->verbose, "Print what the decoder did to standard error");
    sub->footer("Times are seconds from the start of the file, SNRs refer to the mean power of the frame in 2500 Hz.");
    sub->callback([options, &status] { status = decode(*options); });
}
