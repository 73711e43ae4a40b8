// Each receiver decodes in a thread of its own; what they print meets in one queue, from which this thread writes.
#include "subcommands.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "exit_status.h"
#include "listening/line_queue.h"
#include "listening/listener.h"
#include "listening/receiver.h"
#include "listening/recorder.h"
#include "listening/spectrum.h"
#include "options.h"
#include "sources/source.h"
#include "spots/spot_table.h"
#include "spots/status.h"

namespace {

constexpr double POLL_S = 0.05;
constexpr int32_t MAX_CHANNELS = 16;
constexpr int32_t MIN_RATE = 8000;
constexpr int32_t MAX_RATE = 384000;
constexpr int32_t MAX_IQ_RATE = 3200000;
constexpr std::size_t MAX_LINES = 10000;  // that wait to be printed
constexpr double SPOT_FILE_S = 120;       // recordings of which only those with spots are kept

// The command line, as typed.
struct ListenOptions {
    SearchOptions search;
    ListenerOptions listener;
    SaidTuning tuning;
    std::string device;
    std::vector<std::string> receivers;
    std::optional<int32_t> rate;
    bool from_stdin = false;
    bool iq = false;
    std::optional<std::string> sample_format;
    std::optional<int32_t> channels;
    std::string start;
    std::string status;  // "" = none, else the interval
    std::string spectrum;
    std::string record;  // "" = nowhere
    std::string record_length, keep, around_spots;
    bool json = false;
    bool csv = false;

    // Whether lines of JSON say what they are, and spots who heard them.
    bool typed() const { return !status.empty() || !spectrum.empty() || listener.provisional || named(); }
    bool named() const { return !receivers.empty(); }
};

// What listening prints: lines on standard output, and the levels on the status line.
class Output {
  public:
    explicit Output(const ListenOptions& options) : options_(options) {}

    // From any thread. An output that stands still delays nobody.
    void spot(const Found& found, Standing standing, const std::string& receiver, const std::optional<Tuning>& tuning) {
        Spot spot = complete(found, standing, receiver);
        if (tuning) spot.rf_hz = tuning->rf_hz(spot.freq_hz);
        push(options_.json  ? (options_.typed() ? typed_spot_line(spot) : spot_line(spot))
             : options_.csv ? spot_csv(spot, {.rf = with_rf_})
                            : spot_row(first_column(utc_text(spot.start, 1), spot), spot, with_rf_));
    }
    void status(const Status& status) { push(status_line(status)); }
    void row(const SpectrumRow& row) { push(spectrum_line(row)); }

    // The rest from one thread, first this: before the others begin.
    void header(bool with_rf) {
        with_rf_ = with_rf;
        const Spot any = complete({}, Standing::CONFIRMED, "receiver");
        if (options_.csv) print(spot_csv_names(any, {.rf = with_rf_}));
        if (!options_.json && !options_.csv) {
            print(spot_header(first_column(format("%22s", "UTC"), any), options_.search.coherent, with_rf_));
        }
    }

    // Prints what comes within that time. False when it cannot be written.
    bool pass_on(double seconds) {
        for (auto line = queue_.pop(seconds); line; line = queue_.pop(0)) {
            line_.clear();
            print(*line);
            if (!flush_output()) return false;
        }
        return flush_output();
    }

    void levels(const std::vector<std::unique_ptr<Receiver>>& receivers) {
        std::string text;
        int64_t spots = 0;
        for (const auto& receiver : receivers) {
            const Receiver::Level level = receiver->level();
            if (level.utc == 0) continue;
            if (text.empty()) text = utc_text(level.utc, 0);
            text += format("  %slevel %.1f dB, peak %.1f dB,",
                           (receiver->name() + (options_.named() ? ": " : "")).c_str(), level.rms_db, level.peak_db);
            spots += receiver->spots();
        }
        if (!text.empty()) line_.show(text + format(" %lld spots", static_cast<long long>(spots)));
    }

  private:
    Spot complete(const Found& found, Standing standing, const std::string& receiver) const {
        Spot spot = spot_of(found);
        if (options_.search.coherent) spot.finding = finding_of(found);
        if (options_.named()) spot.receiver = receiver;
        if (options_.listener.provisional) spot.standing = standing;
        return spot;
    }

    // The time, who heard it, and what is thought of it.
    static std::string first_column(std::string text, const Spot& spot) {
        if (!spot.receiver.empty()) text += format("  %-10s", printable(spot.receiver).c_str());
        if (spot.standing) text += format("  %-11s", standing_name(*spot.standing));
        return text;
    }

    void push(std::string line) {
        const bool dropped = !queue_.push(std::move(line));
        if (dropped_.exchange(dropped) != dropped) {
            print_error(dropped ? "the output stands still: lines are dropped" : "the output moves on");
        }
    }

    const ListenOptions& options_;
    bool with_rf_ = false;
    LineQueue queue_{MAX_LINES};
    std::atomic<bool> dropped_ = false;
    StatusLine line_;
};

std::optional<double> start_of(const ListenOptions& options) {
    if (options.start.empty()) return std::nullopt;
    const auto start = parse_utc(options.start, utc_now() - DAY_S);  // a time of day is the latest such one
    if (!start) throw UsageError("--start: '" + options.start + "' is not a UTC time");
    return start;
}

// What --format names.
SampleFormat sample_format_of(const std::string& name) {
    if (name == "float") return {.kind = SampleFormat::Kind::FLOAT, .bytes = 4};
    const auto format = parse_sample_format(name);
    if (!format) throw UsageError("--format: '" + name + "' is not one of s16, float, u8, s8, s24, s32, f32, f64");
    return *format;
}

// The interval between lines of a type that only JSON has; 0 = none.
double interval_of(const std::string& option, const std::string& text, bool json) {
    if (text.empty()) return 0;
    if (!json) throw UsageError(option + ": needs --json");
    const auto seconds = parse_duration(text);
    if (!seconds) throw UsageError(option + ": '" + text + "' is not a length of time");
    return *seconds;
}

// A length of time after an option, or what it is without.
double duration_of(const std::string& option, const std::string& text, double missing) {
    if (text.empty()) return missing;
    const auto seconds = parse_duration(text);
    if (!seconds) throw UsageError(option + ": '" + text + "' is not a length of time");
    return *seconds;
}

std::optional<RecorderOptions> recording_of(const ListenOptions& options) {
    if (options.record.empty()) return std::nullopt;
    RecorderOptions recording{.directory = options.record};
    if (!options.around_spots.empty()) {
        recording.around_spots_s = duration_of("--around-spots", options.around_spots, 0);
        recording.file_s = SPOT_FILE_S;
    }
    recording.keep_s = duration_of("--keep", options.keep, recording.keep_s);
    recording.file_s =
        duration_of("--record-length", options.record_length, std::min(recording.file_s, recording.keep_s / 2));
    if (recording.keep_s < recording.file_s + Recorder::OVERLAP_S) {
        throw UsageError(format("--keep: it must be more than one recording, %g s with its overlap",
                                recording.file_s + Recorder::OVERLAP_S));
    }
    return recording;
}

struct NamedSource {
    std::string name, source;
};

NamedSource split_receiver(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos) {
        throw UsageError("--receiver: '" + text + "' is not NAME=SOURCE");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

std::vector<NamedSource> sources_of(const ListenOptions& options) {
    if (!options.named()) return {{"", options.from_stdin ? "-" : options.device}};
    std::vector<NamedSource> sources;
    for (const std::string& text : options.receivers) {
        const NamedSource source = split_receiver(text);
        for (const NamedSource& other : sources) {
            if (other.name == source.name) throw UsageError("--receiver: two are named '" + source.name + "'");
            if (other.source == source.source) {
                throw UsageError("--receiver: '" + other.name + "' and '" + source.name + "' have the same source");
            }
        }
        sources.push_back(source);
    }
    return sources;
}

// Some options are about standard input alone, or besides about sound devices.
void require_what_options_are_about(const ListenOptions& options, const std::vector<NamedSource>& sources) {
    const auto any = [&](auto kind) { return std::ranges::any_of(sources, kind, &NamedSource::source); };
    if (options.iq && !any([](const std::string& source) { return source == "-" || is_sound_device(source); })) {
        throw UsageError("--iq: is for standard input and sound devices; the other sources are always I/Q");
    }
    if (any([](const std::string& source) { return source == "-"; })) return;
    const char* const vain = options.sample_format    ? "--format"
                             : options.channels       ? "--channels"
                             : !options.start.empty() ? "--start"
                                                      : nullptr;
    if (vain != nullptr) throw UsageError(std::string(vain) + ": is for standard input (--stdin)");
}

using Receivers = std::vector<std::unique_ptr<Receiver>>;

Receivers open_receivers(const ListenOptions& options, const Search& search, Output& output) {
    const std::vector<NamedSource> sources = sources_of(options);
    require_what_options_are_about(options, sources);
    const auto start = start_of(options);
    const double status_s = interval_of("--status", options.status, options.json);
    const double spectrum_s = interval_of("--spectrum", options.spectrum, options.json);
    const auto recording = recording_of(options);
    const SampleFormat samples = sample_format_of(options.sample_format.value_or("s16"));
    Receivers receivers;
    for (const NamedSource& named : sources) {
        const SourceOptions source = {.name = named.name,
                                      .rate = options.rate,
                                      .keep_s = Listener::history_seconds(options.listener),
                                      .samples = samples,
                                      .iq = options.iq,
                                      .channels = options.channels.value_or(1)};
        ReceiverOptions receiver = {.name = named.name,
                                    .search = search,
                                    .listener = options.listener,
                                    .tuning = options.tuning,
                                    .start = start,
                                    .status_s = status_s,
                                    .spectrum_s = spectrum_s,
                                    .record = {}};
        if (recording) {
            receiver.record = recording;
            receiver.record->name = named.name;
        }
        ReceiverTakers takers = {
            .spot = [&output, name = named.name](
                        const Found& found, Standing standing,
                        const std::optional<Tuning>& tuning) { output.spot(found, standing, name, tuning); },
            .status = [&output](const Status& status) { output.status(status); },
            .row = [&output](const SpectrumRow& row) { output.row(row); }};
        receivers.push_back(std::make_unique<Receiver>(receiver, open_source(named.source, source), std::move(takers)));
    }
    return receivers;
}

// False when the output could not be written.
bool run(const Receivers& receivers, Output& output) {
    std::atomic<std::size_t> running = receivers.size();
    std::vector<std::jthread> threads;
    try {
        const SignalsElsewhere elsewhere;  // they come to the thread that prints
        for (const auto& receiver : receivers) {
            threads.emplace_back([&running, &receiver] {
                receiver->run();
                --running;
            });
        }
    } catch (const std::system_error&) {
        for (const auto& receiver : receivers) receiver->halt();
        throw IoError("a thread cannot be started: memory is short, or there are too many");
    }
    bool written = true;
    while (running > 0 && written) {
        written = output.pass_on(POLL_S);
        output.levels(receivers);
    }
    if (!written) {
        for (const auto& receiver : receivers) receiver->halt();
    }
    threads.clear();  // joins them
    return written && output.pass_on(0);
}

int listen(const ListenOptions& options) {
    const int32_t max_rate = options.iq ? MAX_IQ_RATE : MAX_RATE;
    if (options.rate && (*options.rate < MIN_RATE || *options.rate > max_rate)) {
        throw UsageError(format("--rate: %d to %d Hz", MIN_RATE, max_rate));
    }
    const Search search = search_of(options.search, false);
    watch_interrupts();
    Output output(options);
    const Receivers receivers = open_receivers(options, search, output);
    output.header(std::ranges::any_of(receivers, [](const auto& receiver) { return receiver->tuning().has_value(); }));
    const bool written = run(receivers, output);
    const bool failed = std::ranges::any_of(receivers, [](const auto& receiver) { return receiver->failed(); });
    return written && !failed ? EXIT_DONE : EXIT_FAILED;
}

}  // namespace

void add_listen(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("listen", "Decode beacons as they come, from a sound device or standard input");
    const auto options = std::make_shared<ListenOptions>();
    CLI::Option* device =
        sub->add_option("--device", options->device,
                        "Number of the device or a part of its name, or another source [the default input]")
            ->type_name("DEVICE");
    sub->add_option("--rate", options->rate, "Sample rate [the device's; of standard input 48000]")->type_name("HZ");
    CLI::Option* raw =
        sub->add_flag("--stdin", options->from_stdin, "Take raw little-endian samples from standard input")
            ->excludes(device);
    sub->add_option("--receiver", options->receivers,
                    "One of several receivers: a name for it, and as its source a device as above, - for standard "
                    "input, or rtl_tcp://HOST:PORT?freq=HZ&rate=HZ; may be given again")
        ->type_name("NAME=SOURCE")
        ->allow_extra_args(false)
        ->excludes(device)
        ->excludes(raw);
    sub->add_flag("--iq", options->iq, "Standard input, or the sound device, is I/Q: two channels, I and Q");
    sub->add_option("--format,--raw", options->sample_format,
                    "Samples of standard input: s16 (16-bit) or float (32-bit), u8, s8, s24, s32, f64; with be behind "
                    "it the most significant byte first [s16]")
        ->type_name("FORMAT");
    sub->add_option("--channels", options->channels, "Channels of standard input, of which the mean is taken [1]")
        ->type_name("N")
        ->check(CLI::Range(1, MAX_CHANNELS));
    sub->add_option("--start", options->start,
                    "UTC time of the first sample of standard input: 12:00[:00] (the latest such) or "
                    "2026-03-01T12:00[:00]Z [as samples arrive]")
        ->type_name("TIME");
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
    add_search_options(*sub, options->search, "1500 of audio, 0 of I/Q");
    CLI::Option* wide =
        sub->add_flag("--wide", options->search.wide, "Search the whole band of each receiver, or --band");
    sub->add_option("--band", options->search.band,
                    "Band of a wide search, as -20000:20000 [all that the sample rate holds]")
        ->type_name("LO:HI")
        ->needs(wide);
    add_tuning_options(*sub, options->tuning);
    sub->add_flag("--provisional", options->listener.provisional,
                  "Print each spot when it is first decoded, too, and again when it is confirmed or withdrawn");
    sub->add_flag("--status{60}", options->status,
                  "Print how each receiver is doing: --status=SECONDS for another interval [60]")
        ->type_name("SECONDS");
    sub->add_option("--spectrum", options->spectrum,
                    "Print a row of a waterfall of what is searched as often, in base64")
        ->type_name("SECONDS");
    CLI::Option* record =
        sub->add_option("--record", options->record, "Also record what is heard, as SigMF into that directory")
            ->type_name("DIRECTORY");
    sub->add_option("--record-length", options->record_length, "Length of each recording [1h; with --around-spots 2m]")
        ->type_name("LENGTH")
        ->needs(record);
    sub->add_option("--keep", options->keep, "Remove recordings that began longer ago [24h]")
        ->type_name("LENGTH")
        ->needs(record);
    sub->add_option("--around-spots", options->around_spots,
                    "Keep only recordings with spots, or so long before or after one")
        ->type_name("LENGTH")
        ->needs(record);
    CLI::Option* json = sub->add_flag("--json", options->json, "Print one JSON object per line");
    sub->add_flag("--csv", options->csv, "Print comma-separated values, their names first")->excludes(json);
    sub->footer("Runs until Ctrl-C or the end of standard input. Times are UTC.");
    sub->callback([options, &status] { status = listen(*options); });
}
