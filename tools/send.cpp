#include "subcommands.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/background.h"
#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "exit_status.h"
#include "options.h"
#include "ovaudio.h"
#include "sources/devices.h"
#include "transmission/keyer.h"

namespace {

constexpr double OPEN_AHEAD_S = 3;  // the device is opened this long before the start: on a busy machine it takes long
constexpr double LATE_S = 0.05;     // a transmission later than this is reported
constexpr double KEY_AHEAD_S = 1;   // a transmitter is keyed this long before the start: relays, and slow programs
constexpr double POLL_S = 0.1;
constexpr double STALL_S = 5;  // without a sample rendered: the device has stalled
constexpr double CLOSE_S = 3;  // time that a device gets to close

// The command line, as typed.
struct SendOptions {
    Transmission transmission;
    std::string device;
    std::string at;
    std::string every;
    std::string offset;
    int32_t times = 0;
    bool strict = false;
    std::optional<std::string> ptt_command;
    std::optional<std::string> ptt;
};

// When to send: once, or in slots.
struct Schedule {
    double start = 0;                // of the first transmission, UTC; 0 = at once
    std::optional<double> period_s;  // between slots
    double offset_s = 0;
    int32_t times = 1;  // 0 = no limit
};

Schedule make_schedule(const SendOptions& options, double total_s) {
    Schedule schedule;
    if (!options.at.empty()) {
        const auto start = parse_utc(options.at, utc_now());
        if (!start)
            throw UsageError("--at: '" + options.at + "' is not a UTC time like 12:00:00 or 2026-03-01T12:00:00Z");
        if (*start < utc_now()) throw UsageError("--at: " + utc_text(*start, 0) + " has passed");
        schedule.start = *start;
    }
    if (options.every.empty()) return schedule;

    schedule.period_s = parse_duration(options.every);
    if (!schedule.period_s) throw UsageError("--every: '" + options.every + "' is not a length like 600, 10m or 1h");
    if (*schedule.period_s < total_s + OPEN_AHEAD_S) {
        throw UsageError(format("--every: the transmission takes %.1f s, and there must be %.0f s between two of them",
                                total_s, OPEN_AHEAD_S));
    }
    if (!options.offset.empty()) {
        const auto offset = parse_duration(options.offset, true);
        if (!offset) throw UsageError("--offset: '" + options.offset + "' is not a length like 30 or 1m");
        schedule.offset_s = *offset;
    }
    schedule.times = options.times;
    return schedule;
}

// ---- The status line ------------------------------------------------------------------------------------------------

std::string step_text(const Transmission& transmission, const ovl_tx_progress& progress) {
    if (progress.step < 0) return "";
    std::string text = transmission.steps[static_cast<std::size_t>(progress.step)];
    if (progress.chip >= 0) text += format("  chip %d of %d", progress.chip + 1, progress.chips);
    return text;
}

// ---- Sending --------------------------------------------------------------------------------------------------------

enum class Outcome { SENT, WITH_GAPS, STOPPED, FAILED };

const char* name_of(Outcome outcome) {
    switch (outcome) {
        case Outcome::SENT:
        case Outcome::WITH_GAPS:
            return "sent";
        case Outcome::STOPPED:
            return "stopped";
        case Outcome::FAILED:
            return "failed";
    }
    return "";
}

std::unique_ptr<Ptt> ptt_of(const SendOptions& options) {
    if (options.ptt_command) return make_command_ptt(*options.ptt_command);
    return options.ptt ? make_ptt(*options.ptt) : nullptr;
}

// Keys the transmitter when it is time.
void key_in_time(Keyer& keyer, double start) {
    if (keyer.keyed() || !keyer.has_ptt() || utc_now() < start - KEY_AHEAD_S) return;
    keyer.key();
    const double late_s = utc_now() - start;
    if (start > 0 && late_s > 0) print_error(format("keyed the transmitter %.2f s late", late_s));
}

// Follows a transmission to its end; Ctrl-C ends it with a soft ramp. Throws IoError when it cannot be keyed.
Outcome follow(ovl_audio* audio, ovl_transmitter* tx, const Transmission& transmission, double start, Keyer& keyer) {
    StatusLine line;
    ovl_tx_progress progress{};
    double moved_at = monotonic_now();
    double elapsed_s = 0;
    bool done = false;
    bool stopping = false;
    while (ovl_audio_output_active(audio) != 0) {
        if (interrupted() && !stopping) {
            stopping = true;
            if (ovl_audio_output_started(audio) == 0) return Outcome::STOPPED;
            ovl_tx_stop(tx);
        }
        if (!stopping) key_in_time(keyer, start);
        ovl_tx_status(tx, &progress);
        const double now = monotonic_now();
        const bool waiting = ovl_audio_output_started(audio) == 0 && utc_now() < start;
        const bool ended = progress.done != 0 && !std::exchange(done, true);
        if (waiting || ended || progress.elapsed_s != elapsed_s) moved_at = now;
        elapsed_s = progress.elapsed_s;
        if (now - moved_at > STALL_S) {
            print_error("the output device has stalled");
            return Outcome::FAILED;
        }
        if (ovl_audio_output_started(audio) == 0) {
            line.show(format("waiting for %s", utc_text(start, 0).c_str()));
        } else {
            line.show(format("%s  %.1f s of %.1f s", stopping ? "stopping" : step_text(transmission, progress).c_str(),
                             progress.elapsed_s, progress.total_s));
        }
        if (stopping) {
            sleep_seconds(POLL_S);
        } else {
            nap(POLL_S);
        }
    }
    ovl_tx_status(tx, &progress);
    if (progress.done == 0) {
        print_error("the output device is gone");
        return Outcome::FAILED;
    }
    const int32_t gaps = ova_output_underflows(audio);
    if (gaps > 0) {
        const std::string count = gaps == 1 ? "a gap" : format("%d gaps", gaps);
        print_error("the transmission has " + count + ": the output ran out of samples");
    }
    return stopping ? Outcome::STOPPED : gaps > 0 ? Outcome::WITH_GAPS : Outcome::SENT;
}

// Sends once; start 0 = at once.
Outcome send_once(ovl_audio* audio, ovl_transmitter* tx, int32_t device, const Transmission& transmission, double start,
                  Keyer& keyer) {
    if (start > 0) {
        StatusLine line;
        line.show(format("waiting for %s", utc_text(start, 0).c_str()));
        while (!interrupted() && utc_now() < start - OPEN_AHEAD_S) {
            nap(std::min(start - OPEN_AHEAD_S - utc_now(), 1.0));  // in small steps: the wall clock may be stepped
        }
        if (interrupted()) return Outcome::STOPPED;
    }
    start_transmitter(tx, transmission);
    Outcome outcome = Outcome::FAILED;
    try {
        if (start == 0) key_in_time(keyer, start);
        if (ovl_audio_start_output_at(audio, device, tx, start) != 0) throw IoError(ovl_audio_last_error(audio));
        outcome = follow(audio, tx, transmission, start, keyer);
    } catch (const IoError& error) {
        print_error(error.what());
    }
    if (!keyer.release()) outcome = Outcome::FAILED;
    const double started = ovl_audio_output_started(audio);
    const Background closing([audio] { ovl_audio_stop_output(audio); });
    if (!closing.wait(CLOSE_S)) {
        print_error("the output device does not close");
        flush_output();
        std::_Exit(EXIT_FAILED);
    }
    if (start > 0 && started > start + LATE_S) print_error(format("started %.2f s late", started - start));
    if (started > 0) {
        print(format("%s  %s\n", utc_text(started, 3).c_str(), name_of(outcome)));
    }
    return outcome;
}

int send(const SendOptions& options) {
    const TransmitterPtr tx = make_transmitter();
    start_transmitter(tx.get(), options.transmission);  // what cannot be sent is refused before any waiting
    Schedule schedule = make_schedule(options, total_seconds(tx.get()));
    Keyer keyer(ptt_of(options));  // before there is any thread
    const int32_t device = find_device(options.device, Direction::OUTPUT);
    keyer.check();
    const AudioObject audio = make_audio();
    watch_interrupts();
    // Only now: looking for the devices takes time too.
    if (schedule.period_s) schedule.start = next_slot(utc_now() + OPEN_AHEAD_S, *schedule.period_s, schedule.offset_s);

    int status = EXIT_DONE;
    for (int32_t n = 0; schedule.times == 0 || n < schedule.times; n++) {
        const Outcome outcome = send_once(audio.get(), tx.get(), device, options.transmission, schedule.start, keyer);
        if (!flush_output()) return EXIT_FAILED;
        const bool good = outcome == Outcome::SENT || (outcome == Outcome::WITH_GAPS && !options.strict);
        if (!good) status = EXIT_FAILED;
        if (outcome == Outcome::STOPPED || interrupted()) break;
        if (!schedule.period_s) break;
        const double next = std::max(utc_now() + OPEN_AHEAD_S, schedule.start + *schedule.period_s / 2);
        schedule.start = next_slot(next, *schedule.period_s, schedule.offset_s);
    }
    return status;
}

}  // namespace

void add_send(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("send", "Play a transmission on a sound device");
    const auto options = std::make_shared<SendOptions>();
    add_transmission_options(*sub, options->transmission);
    sub->add_option("--device", options->device, "Number of the device or a part of its name [the default output]")
        ->type_name("DEVICE");
    CLI::Option* at =
        sub->add_option("--at", options->at, "Start at a UTC time: 12:00[:00] or 2026-03-01T12:00[:00]Z [now]")
            ->type_name("TIME");
    CLI::Option* every = sub->add_option("--every", options->every,
                                         "Start again and again, at whole multiples of PERIOD in UTC (10m: at 00:00, "
                                         "00:10, …)")
                             ->type_name("PERIOD")
                             ->excludes(at);
    sub->add_option("--offset", options->offset, "Start this much later in each period [0]")
        ->type_name("LENGTH")
        ->needs(every);
    sub->add_option("--times", options->times, "Number of transmissions [no limit]")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->needs(every);
    CLI::Option* command =
        sub->add_option("--ptt-command", options->ptt_command,
                        "Key the transmitter by a program, run as PROGRAM on before and PROGRAM off after")
            ->type_name("PROGRAM");
    sub->add_option("--ptt", options->ptt,
                    "Key the transmitter: serial:PORT:rts or serial:PORT:dtr, a line of a serial port, or "
                    "rigctld:HOST:PORT")
        ->type_name("HOW")
        ->excludes(command);
    sub->add_flag("--strict", options->strict, "Exit with 1 when a transmission had gaps, too");
    sub->footer(step_help() +
                "\n\nCtrl-C ends a transmission with a soft ramp. Lengths are in seconds, or end in s, m or h.");
    sub->callback([options, &status] { status = send(*options); });
}
