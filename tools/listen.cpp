// Audio from either source goes through the library's capture ring, from which a Listener decodes it.
#include "subcommands.h"

#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "exit_status.h"
#include "listening/capture.h"
#include "listening/devices.h"
#include "listening/listener.h"
#include "listening/raw_input.h"
#include "listening/sample_clock.h"
#include "options.h"
#include "spots/spot_table.h"

namespace {

constexpr double POLL_S = 0.05;
constexpr int32_t MAX_CHANNELS = 16;
constexpr int32_t MIN_RATE = 8000;
constexpr int32_t MAX_RATE = 384000;
constexpr int32_t STDIN_RATE = 48000;
constexpr double DAY_S = 86400;

// The command line, as typed.
struct Options {
    SearchOptions search;
    ListenerOptions listener;
    std::string device;
    std::optional<int32_t> rate;
    bool from_stdin = false;
    std::string sample_format = "s16";
    int32_t channels = 1;
    std::string start;
    bool json = false;
    bool csv = false;
};

// What listening prints: spots on standard output, and the level on the status line.
class Output {
  public:
    explicit Output(const Options& options) : options_(options) {
        if (options.csv) print(spot_csv_names(complete({})));
        if (!options.json && !options.csv) print(spot_header(format("%22s", "UTC"), options.search.coherent));
    }

    void spot(const Found& found) {
        line_.clear();
        const Spot spot = complete(found);
        print(options_.json  ? spot_line(spot)
              : options_.csv ? spot_csv(spot)
                             : spot_row(utc_text(spot.start, 1), spot));
        flush_output();
        printed_++;
    }

    void level(const ovl_audio_stats& stats, double now) {
        line_.show(format("%s  level %.1f dB, peak %.1f dB, %lld spots", utc_text(now, 0).c_str(), stats.rms_db,
                          stats.peak_db, static_cast<long long>(printed_)));
    }

  private:
    Spot complete(const Found& found) const {
        Spot spot = spot_of(found);
        if (options_.search.coherent) spot.finding = finding_of(found);
        return spot;
    }

    const Options& options_;
    StatusLine line_;
    int64_t printed_ = 0;
};

int status_of(const Listener& listener, bool input_failed) {
    return flush_output() && !input_failed && !listener.last_decode_failed() ? EXIT_DONE : EXIT_FAILED;
}

int listen_to_device(const Options& options, const Search& search, ovl_audio* audio) {
    const int32_t device = find_device(options.device, Direction::INPUT);
    Capture capture(audio, device, options.rate.value_or(0), Listener::ring_seconds(options.listener));
    capture.open();
    try {
        require_served(audio, search);
    } catch (const IoError&) {
        capture.close();
        throw;
    }
    Output output(options);
    Listener listener(search, options.listener, audio, [&](const Found& spot) { output.spot(spot); });
    SampleClock clock;
    const auto utc = [&](double captured_s) { return clock.utc(captured_s); };
    OverflowReport overflows;
    while (!interrupted()) {
        nap(POLL_S);
        ovl_audio_stats stats;
        const Capture::State state = capture.watch(stats);
        if (state == Capture::State::STALLED) {
            listener.finish(utc);
            capture.reopen();
        }
        if (state == Capture::State::STALLED || state == Capture::State::OPENING) continue;
        if (state == Capture::State::RESTARTED) {
            listener.restart();
            clock = {};
        }
        const double now = utc_now();
        clock.observe(stats.captured_s, now);
        listener.update(stats, utc);
        overflows.see(stats, now);
        output.level(stats, now);
        if (!flush_output()) break;
    }
    if (!capture.reopening()) listener.finish(utc);
    flush_output();
    capture.close();
    return status_of(listener, false);
}

std::optional<double> start_of(const Options& options) {
    if (options.start.empty()) return std::nullopt;
    const auto start = parse_utc(options.start, utc_now() - DAY_S);  // a time of day is the latest such one
    if (!start) throw UsageError("--start: '" + options.start + "' is not a UTC time");
    return start;
}

int listen_to_stdin(const Options& options, const Search& search, ovl_audio* audio) {
    const std::optional<double> start = start_of(options);
    const int32_t rate = options.rate.value_or(STDIN_RATE);
    if (ovl_audio_start_input(audio, OVL_AUDIO_NONE, rate, Listener::ring_seconds(options.listener)) != 0) {
        throw IoError(ovl_audio_last_error(audio));
    }
    require_served(audio, search);
    Output output(options);
    Listener listener(search, options.listener, audio, [&](const Found& spot) { output.spot(spot); });
    RawInput input({options.sample_format == "float", options.channels, rate});
    SampleClock clock;
    ovl_audio_stats stats{};
    const auto utc = [&](double captured_s) { return start ? *start + captured_s : clock.utc(captured_s); };
    std::vector<float> samples;
    while (input.read(samples)) {
        ovl_audio_push(audio, samples.data(), static_cast<int32_t>(samples.size()) / options.channels,
                       options.channels);
        ovl_audio_input_stats(audio, &stats);
        const double now = utc_now();
        clock.observe(stats.captured_s, now);
        listener.update(stats, utc);
        output.level(stats, stats.captured_s > 0 ? utc(stats.captured_s) : now);
        if (!flush_output()) return EXIT_FAILED;
    }
    listener.finish(utc);
    return status_of(listener, input.failed());
}

int listen(const Options& options) {
    is_s16(options.sample_format);
    if (options.rate && (*options.rate < MIN_RATE || *options.rate > MAX_RATE)) {
        throw UsageError("--rate: 8000 to 384000 Hz");
    }
    const Search search = search_of(options.search, false);
    const AudioObject audio = make_audio();
    watch_interrupts();
    return options.from_stdin ? listen_to_stdin(options, search, audio.get())
                              : listen_to_device(options, search, audio.get());
}

}  // namespace

void add_listen(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("listen", "Decode beacons as they come, from a sound device or standard input");
    const auto options = std::make_shared<Options>();
    CLI::Option* device =
        sub->add_option("--device", options->device, "Number of the device or a part of its name [the default input]")
            ->type_name("DEVICE");
    sub->add_option("--rate", options->rate, "Sample rate [the device's; of standard input 48000]")->type_name("HZ");
    CLI::Option* raw =
        sub->add_flag("--stdin", options->from_stdin, "Take raw little-endian samples from standard input")
            ->excludes(device);
    sub->add_option("--format", options->sample_format, "Samples of standard input: s16 (16-bit) or float [s16]")
        ->type_name("FORMAT")
        ->needs(raw);
    sub->add_option("--channels", options->channels, "Channels of standard input, of which the mean is taken [1]")
        ->type_name("N")
        ->check(CLI::Range(1, MAX_CHANNELS))
        ->needs(raw);
    sub->add_option("--start", options->start,
                    "UTC time of the first sample of standard input: 12:00[:00] (the latest such) or "
                    "2026-03-01T12:00[:00]Z [as samples arrive]")
        ->type_name("TIME")
        ->needs(raw);
    sub->add_option("--every", options->listener.every_s,
                    "Interval between decodes; a spot comes one to two intervals after its hold-off [4]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(1.0, 15.0));
    sub->add_option(
           "--hold-off,--settle", options->listener.hold_off_s,
           "How long a frame is held back after its end, as a later one may hide it, or pass for another while it is "
           "incomplete [48]; 0 prints spots sooner")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(0.0, 60.0));
    add_search_options(*sub, options->search, "1500");
    CLI::Option* json = sub->add_flag("--json", options->json, "Print one JSON object per line");
    sub->add_flag("--csv", options->csv, "Print comma-separated values, their names first")->excludes(json);
    sub->footer("Runs until Ctrl-C or the end of standard input. Times are UTC.");
    sub->callback([options, &status] { status = listen(*options); });
}
