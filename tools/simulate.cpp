#include "subcommands.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/progress.h"
#include "base/text.h"
#include "base/tuning.h"
#include "base/utc.h"
#include "exit_status.h"
#include "options.h"
#include "recordings/sigmf_writer.h"
#include "recordings/sound_writer.h"
#include "simulation/scene.h"
#include "simulation/stations.h"
#include "system/files.h"

namespace {

constexpr double TAIL_S = 2;  // after the last frame
constexpr double MOST_SECONDS = 7 * 86400;
constexpr std::size_t MOST_STATIONS = 1000;

// The command line, as typed.
struct SimulateOptions {
    std::vector<std::string> stations;
    std::string stations_file;
    std::string output;
    std::string truth;
    std::optional<double> seconds;
    int32_t rate = 12000;
    bool iq = false;
    uint64_t seed = 1;
    double noise_db = -26;
    bool no_noise = false;
    std::vector<std::string> carriers;
    std::string impulses;
    std::string sample_format = "s16";
    SaidTuning tuning;
    std::string start;
};

std::string station_help() {
    return "A station is a frame, followed by what differs from the defaults:\n"
           "  opera=CALL            an OPERA frame\n"
           "  orvel-s=CALL          an ORVEL S frame\n"
           "  orvel-l=CALL,LOCATOR  an ORVEL L frame\n"
           "  ,freq=HZ              in the middle of the frame [1500; with --iq 0]\n"
           "  ,snr=DB               mean power of the frame in 2500 Hz, before fading [0]\n"
           "  ,start=SECONDS        of the frame; it may extend past either end [0]\n"
           "  ,drift=HZ/S           linear [0]\n"
           "  ,walk=RAD             random walk of its phase, rad in a second [0]\n"
           "  ,fading=NAME          Watterson channel: good (spread 0.1 Hz, delay 0.5 ms), moderate (0.5, 1), "
           "poor (1, 2)\n"
           "  ,spread=HZ            its Doppler spread, 0 = no fading [0]\n"
           "  ,delay=MS             of its second path [0]";
}

// The two numbers of "A,B".
std::pair<double, double> parse_pair(const std::string& option, const std::string& text, const char* names) {
    const std::size_t comma = text.find(',');
    const auto first = parse_finite(text.substr(0, comma));
    const auto second = comma == std::string::npos ? std::nullopt : parse_finite(text.substr(comma + 1));
    if (!first || !second) throw UsageError(option + ": '" + text + "' is not " + names);
    return {*first, *second};
}

void check_level(const std::string& option, double level_db) {
    if (std::abs(level_db) > 100) throw UsageError(option + ": DB is out of range (-100 to 100)");
}

// Whether all frequencies from low to high fit the band that the sample rate holds.
bool in_band(const SimulateOptions& options, double low_hz, double high_hz) {
    return low_hz > (options.iq ? -0.5 * options.rate : 0.0) && high_hz < 0.5 * options.rate;
}

std::vector<SimStation> all_stations(const SimulateOptions& options) {
    const double default_freq_hz = options.iq ? 0 : 1500;
    std::vector<SimStation> stations;
    if (!options.stations_file.empty()) stations = read_stations(options.stations_file, default_freq_hz);
    for (const std::string& text : options.stations) stations.push_back(parse_station(text, default_freq_hz));
    if (stations.size() > MOST_STATIONS) throw UsageError("too many stations (max 1000)");
    for (const SimStation& station : stations) {
        const double swing = std::abs(station.drift_hz_s) * station.length_s() / 2;
        if (!in_band(options, station.freq_hz - swing, station.freq_hz + swing)) {
            throw UsageError(format("%s at %g Hz does not fit the sample rate of %d Hz", station.call.c_str(),
                                    station.freq_hz, options.rate));
        }
    }
    return stations;
}

SimScene scene_of(const SimulateOptions& options) {
    SimScene scene;
    scene.rate = options.rate;
    scene.iq = options.iq;
    scene.seed = options.seed;
    scene.noise = !options.no_noise;
    scene.noise_rms = std::pow(10, options.noise_db / 20);
    scene.stations = all_stations(options);
    for (const std::string& text : options.carriers) {
        const auto [freq_hz, snr_db] = parse_pair("--carrier", text, "HZ,DB");
        check_level("--carrier", snr_db);
        if (!in_band(options, freq_hz, freq_hz)) {
            throw UsageError(format("--carrier: %g Hz does not fit the sample rate of %d Hz", freq_hz, options.rate));
        }
        scene.carriers.push_back({freq_hz, snr_db});
    }
    if (!options.impulses.empty()) {
        const auto [per_second, level_db] = parse_pair("--impulses", options.impulses, "RATE,DB");
        check_level("--impulses", level_db);
        if (!(per_second > 0 && per_second <= 10000)) {
            throw UsageError("--impulses: RATE is out of range (above 0, at most 10000)");
        }
        scene.impulses = SimImpulses{per_second, level_db};
    }

    double end_s = 0;
    for (const SimStation& station : scene.stations) end_s = std::max(end_s, station.t_start + station.length_s());
    if (!options.seconds && end_s <= 0) throw UsageError("no station gives the length: --seconds is needed");
    scene.seconds = options.seconds.value_or(end_s + TAIL_S);
    if (scene.seconds > MOST_SECONDS || scene.frames() < 1) {
        throw UsageError("--seconds: the recording is empty or longer than a week");
    }
    return scene;
}

void write_truth(const std::string& path, const SimScene& scene) {
    errno = 0;
    std::ofstream file(native_path(path), std::ios::binary | std::ios::trunc);
    for (const SimStation& station : scene.stations) file << truth_line(station);
    if (file.flush()) return;
    throw IoError("cannot write '" + path + "': " + (errno != 0 ? std::strerror(errno) : "it takes no more"));
}

// What SigMF says of the first sample.
Take take_of(const SimulateOptions& options) {
    Take take;
    take.tuning = options.tuning.over();
    if (options.start.empty()) return take;
    take.utc = parse_utc(options.start, utc_now() - DAY_S);  // a time of day is the latest such one
    if (!take.utc) throw UsageError("--start: '" + options.start + "' is not a UTC time");
    return take;
}

std::unique_ptr<SampleWriter> make_writer(const std::string& path, const SimScene& scene, bool s16, const Take& take) {
    if (!is_sigmf(path)) {
        if (take.utc) throw UsageError("--start: only SigMF (--output) tells times");
        if (take.tuning) throw UsageError("--dial: only SigMF (--output) tells frequencies");
        const SoundWriter::Format format = {container_of(path, s16), scene.rate, scene.iq ? 2 : 1, s16, scene.frames()};
        return std::make_unique<SoundWriter>(path, format);
    }
    const SigmfWriter::Format format = {scene.rate, scene.iq, s16, "Simulated stations"};
    if (!lower_case(path).ends_with(".sigmf")) return std::make_unique<SigmfWriter>(path, format, take);
    return std::make_unique<SigmfArchiveWriter>(path, format, take, scene.frames());
}

int simulate(const SimulateOptions& options) {
    const bool s16 = is_s16(options.sample_format);
    if (!is_sigmf(options.output)) container_of(options.output, s16);
    const SimScene scene = scene_of(options);
    const std::string truth =
        options.truth.empty() ? text_of(native_path(options.output).replace_extension(".jsonl")) : options.truth;

    const auto writer = make_writer(options.output, scene, s16, take_of(options));
    SampleWriter& file = *writer;
    SceneSource source(scene);
    Progress progress("'" + options.output + "'", scene.seconds, std::nullopt);
    double done_s = 0;
    while (true) {
        const auto samples = source.next();
        if (samples.empty() || !file.write(samples)) break;
        done_s += static_cast<double>(samples.size()) / (scene.iq ? 2 : 1) / scene.rate;
        progress.show(done_s, std::nullopt);
    }
    progress.clear();
    file.close();
    if (file.clipped() > 0) {
        print_error(format("'%s': %lld samples beyond full scale were clipped; a lower --noise leaves room",
                           options.output.c_str(), static_cast<long long>(file.clipped())));
    }
    write_truth(truth, scene);
    return EXIT_DONE;
}

}  // namespace

void add_simulate(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("simulate", "Write a recording of simulated stations, and the truth about it");
    const auto options = std::make_shared<SimulateOptions>();
    sub->add_option("STATION", options->stations, "Stations, as opera=K2QRX,freq=1450,snr=-18,start=3.5");
    sub->add_option("--stations", options->stations_file,
                    "File of stations: one JSON object per line, or an array, with the fields of a truth file")
        ->type_name("FILE");
    sub->add_option("-o,--output", options->output, "Recording to write: .wav, .flac, .sigmf or .sigmf-data")
        ->required()
        ->type_name("FILE");
    sub->add_option("--truth", options->truth, "Truth to write: one JSON object per station [FILE with .jsonl]")
        ->type_name("FILE");
    sub->add_option("--seconds", options->seconds, "Length of the recording [2 s more than the last frame]")
        ->type_name("SECONDS")
        ->check(finite_number());
    sub->add_option("--rate", options->rate, "Sample rate, 1000 to 384000 [12000]")
        ->type_name("HZ")
        ->check(CLI::Range(1000, 384000));
    sub->add_flag("--iq", options->iq, "Write I/Q: two channels; frequencies count from the centre of the band");
    sub->add_option("--format", options->sample_format, "Samples of the file: s16 (16-bit) or float [s16]")
        ->type_name("FORMAT");
    sub->add_option("--start", options->start,
                    "UTC time of the first sample, for SigMF: 12:00[:00] (the latest such) or 2026-03-01T12:00[:00]Z")
        ->type_name("TIME");
    add_tuning_options(*sub, options->tuning);
    sub->add_option("--seed", options->seed, "Seed of the random numbers: equal seeds give equal files [1]")
        ->type_name("N");
    sub->add_option("--noise", options->noise_db, "Rms of the noise in dB of full scale, -120 to 0 [-26]")
        ->type_name("DB")
        ->check(finite_number())
        ->check(CLI::Range(-120.0, 0.0));
    sub->add_flag("--no-noise", options->no_noise, "Leave the noise out; everything else stays as strong as it is");
    sub->add_option("--carrier", options->carriers,
                    "Steady carrier at HZ, DB over the noise in 2500 Hz; may be repeated")
        ->type_name("HZ,DB")
        ->expected(1)
        ->take_all();
    sub->add_option("--impulses", options->impulses,
                    "RATE clicks per second on average, which begin DB over the rms of the noise")
        ->type_name("RATE,DB");
    sub->footer(station_help());
    sub->callback([options, &status] { status = simulate(*options); });
}
