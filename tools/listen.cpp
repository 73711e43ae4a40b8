// Audio from either source goes through the library's capture ring; every few seconds what the ring holds is decoded,
// and the frames that have just ended are taken.
#include "listen.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audio.h"
#include "console.h"
#include "decoding.h"
#include "json.h"
#include "looks.h"
#include "patience.h"
#include "recording.h"
#include "sampleclock.h"
#include "search.h"
#include "spotlog.h"
#include "spots.h"
#include "utc.h"

namespace {

constexpr double SETTLE_S = 48;    // the longest frame, and a little more
constexpr double SHORTEST_S = 20;  // less cannot hold enough of a frame
constexpr double POLL_S = 0.05;
constexpr double STALL_S = 5;      // without a captured sample: the device stands still
constexpr double RETRY_S = 5;      // between attempts to open it again
constexpr double STUCK_S = 60;     // a device that takes longer to open never will
constexpr double CLOSE_S = 3;      // time that a device gets to close
constexpr double COMPLAIN_S = 60;  // between reports of lost input
constexpr double READ_S = 0.25;    // of standard input at a time
constexpr double SPARE_S = 1;      // of the ring: a buffer may come while it is copied
constexpr int32_t MAX_CHANNELS = 16;
constexpr int32_t MIN_RATE = 8000;
constexpr int32_t MAX_RATE = 384000;
constexpr double DAY_S = 86400;
constexpr int32_t MAX_SPOTS = 256;
constexpr int32_t MAX_TRIES = 3;
constexpr float MOST_SAMPLE = 0x1p31f;  // full scale of 32-bit samples, should nobody have scaled them

// The command line, as typed.
struct Options {
    SearchOptions search;
    std::string device;
    std::optional<int32_t> rate;
    bool from_stdin = false;
    std::string sample_format = "s16";
    int32_t channels = 1;
    std::string start;
    double every_s = 4;
    double settle_s = SETTLE_S;
    bool json = false;
};

double ring_seconds(const Options& options) {
    return Looks(options.every_s, options.settle_s).block_s() + SPARE_S;
}

// Decodes the ring again and again and prints the spots. All is reckoned in captured seconds until it is printed.
class Listener {
  public:
    Listener(const Options& options, const ov_params& params, ovl_audio* audio)
        : options_(options), audio_(audio), params_(params), looks_(options.every_s, options.settle_s) {
        if (!options.json) print(spot_header(format("%22s", "UTC")));
    }

    // Tells when the last of so many captured seconds was on the air.
    using Clock = std::function<double(double)>;

    // Looks at the ring if it is time.
    void look(const ovl_audio_stats& stats, const Clock& utc) {
        if (stats.captured_s < next_look_s_) return;
        next_look_s_ = stats.captured_s + options_.every_s;
        look_now(false);
        release(looks_.settled_s(stats.captured_s), utc);
    }

    // The same at the end of the audio: nothing settles any more, and frames may hang over it.
    void finish(const Clock& utc) {
        look_now(true);
        release(HUGE_VAL, utc);
    }

    // Capture has begun anew.
    void restart() {
        log_ = SpotLog(SpotLog::Order::END);
        next_look_s_ = SHORTEST_S;
        looks_.clear();
    }

    int64_t printed() const { return printed_; }
    bool last_look_failed() const { return !complaint_.empty(); }
    StatusLine& line() { return line_; }

  private:
    // Copies what the ring holds. Returns how many seconds had been captured with its last sample.
    double copy_block() {
        ovl_audio_stats before;
        ovl_audio_stats after;
        int32_t tries = 0;
        do {
            ovl_audio_input_stats(audio_, &before);
            rate_ = before.rate;
            block_.resize(static_cast<std::size_t>(looks_.block_s() * rate_));
            const int32_t n = ovl_audio_last(audio_, block_.data(), static_cast<int32_t>(block_.size()));
            block_.resize(static_cast<std::size_t>(n));
            ovl_audio_input_stats(audio_, &after);
        } while (after.captured_s != before.captured_s && ++tries < MAX_TRIES);  // a buffer came between
        return after.captured_s;
    }

    // A look that fails is told of; the next may do better.
    void look_now(bool last) {
        try {
            if (decode_ring(last)) {
                complaint_.clear();
            } else {
                complain("cannot decode: the search band does not fit the audio, or memory is short");
            }
        } catch (const std::bad_alloc&) {
            complain("cannot decode: memory is short");
        }
    }

    bool decode_ring(bool last) {
        const double captured_s = copy_block();
        const double copied_s = captured_s - block_seconds();
        skip(looks_.next_begin_s(copied_s) - copied_s);
        const double seconds = block_seconds();
        if (seconds < SHORTEST_S) return true;
        auto spots = decode_block(seconds, last);
        if (!spots) return false;

        const double earliest_end = looks_.add(captured_s);
        for (ov_spot& spot : *spots) spot.t += captured_s - seconds;
        std::erase_if(*spots, [&](const ov_spot& spot) { return spot_end(spot) < earliest_end; });
        log_.add(*spots);
        return true;
    }

    double block_seconds() const { return static_cast<double>(block_.size()) / std::max(rate_, 1); }

    // Leaves out the beginning of the block.
    void skip(double seconds) {
        const auto samples = static_cast<std::ptrdiff_t>(std::lround(seconds * rate_));
        block_.erase(block_.begin(), block_.begin() + std::min(samples, std::ssize(block_)));
    }

    // The whole block is decoded, though few of its frames are wanted: a strong frame hides the phantoms that parts of
    // it would be, and where it is not seen from its beginning to its end they are taken for frames or hide a weaker
    // one before or behind it. For the same reason ovl_decode_recent() is not enough: it examines too few candidates to
    // get past those of ten strong frames.
    std::optional<std::vector<ov_spot>> decode_block(double seconds, bool last) {
        samples_.assign(block_.begin(), block_.end());
        ov_params params = params_;
        params.max_cands = candidates_to_examine(seconds);
        if (!last) params.end_max = seconds;
        std::vector<ov_spot> spots(MAX_SPOTS);
        const int32_t count = ov_decode_real(samples_.data(), static_cast<int32_t>(samples_.size()), rate_, params,
                                             spots.data(), MAX_SPOTS);
        if (count < 0) return std::nullopt;
        spots.resize(static_cast<std::size_t>(count));
        return spots;
    }

    // Says once what is wrong until it is right again.
    void complain(const std::string& text) {
        if (text == complaint_) return;
        complaint_ = text;
        print_error(text);
    }

    // Prints the frames that ended up to so many captured seconds.
    void release(double captured_s, const Clock& utc) {
        log_.release(captured_s, [&](ov_spot spot, int32_t finds) {
            if (!looks_.confirm(spot_end(spot), finds)) return;
            spot.t = utc(spot.t);
            print_spot(spot);
        });
    }

    void print_spot(const ov_spot& spot) {
        line_.clear();
        if (options_.json) {
            nlohmann::ordered_json object;
            object["utc_start"] = utc_text(spot.t, 2);
            object["utc_end"] = utc_text(spot_end(spot), 2);
            add_spot(object, spot);
            print(json_line(object));
        } else {
            print(spot_row(utc_text(spot.t, 1), spot));
        }
        flush_output();
        printed_++;
    }

    const Options& options_;
    ovl_audio* audio_;
    ov_params params_;
    Looks looks_;
    std::vector<float> block_;
    std::vector<double> samples_;  // of the block, as the decoder takes them
    int32_t rate_ = 0;
    SpotLog log_{SpotLog::Order::END};
    StatusLine line_;
    std::string complaint_;
    double next_look_s_ = SHORTEST_S;
    int64_t printed_ = 0;
};

void show_level(Listener& listener, const ovl_audio_stats& stats, double now) {
    listener.line().show(format("%s  level %.1f dB, peak %.1f dB, %lld spots", utc_text(now, 0).c_str(), stats.rms_db,
                                stats.peak_db, static_cast<long long>(listener.printed())));
}

// Whether the decoder can work with the rate of the captured samples.
bool check_rate(ovl_audio* audio) {
    ovl_audio_stats stats;
    ovl_audio_input_stats(audio, &stats);
    if (rate_served(static_cast<uint32_t>(stats.rate))) return true;
    print_error(format("audio captured at %d Hz cannot be decoded; another --rate may do", stats.rate));
    return false;
}

// ---- From a sound device --------------------------------------------------------------------------------------------

// Capture from a device. A device that stands still, as some do for good while they call themselves active, is closed
// and opened again, by a thread of its own: either call may hang.
class Capture {
  public:
    enum class State {
        RUNNING,
        RESTARTED,  // since the last call
        STALLED,    // to be opened again; the ring still holds what was captured
        OPENING
    };

    Capture(ovl_audio* audio, int32_t device, int32_t rate, double ring_s)
        : audio_(audio), device_(device), rate_(rate), ring_s_(ring_s) {}

    bool open() { return ovl_audio_start_input(audio_, device_, rate_, ring_s_) == 0; }

    // How capture is doing. `stats` are filled in while it runs.
    State watch(ovl_audio_stats& stats) {
        const double now = monotonic_now();
        State state = State::RUNNING;
        if (reopening_) {
            if (!reopening_->done()) {
                if (now > retry_at_ + STUCK_S) end("the input device does not answer");
                return State::OPENING;
            }
            if (!*opened_) {
                const std::string reason = ovl_audio_last_error(audio_);
                if (std::exchange(reason_, reason) != reason) print_error(reason);
                if (now >= retry_at_) reopen();
                return State::OPENING;
            }
            reason_.clear();
            reopening_.reset();
            state = State::RESTARTED;
            progress_at_ = now;
            seen_s_ = 0;
        }
        ovl_audio_input_stats(audio_, &stats);
        if (stats.captured_s != seen_s_) {
            seen_s_ = stats.captured_s;
            progress_at_ = now;
            if (std::exchange(stalled_, false)) print_error("audio again");
        }
        if (now - progress_at_ > STALL_S) {
            if (!std::exchange(stalled_, true)) {
                print_error(format("no audio for %.0f s, opening the device again", STALL_S));
            }
            return State::STALLED;
        }
        return state;
    }

    // Begins to open the device again.
    void reopen() {
        retry_at_ = monotonic_now() + RETRY_S;
        opened_ = std::make_shared<std::atomic<bool>>(false);
        reopening_ = Background([audio = audio_, device = device_, rate = rate_, ring_s = ring_s_, opened = opened_] {
            *opened = ovl_audio_start_input(audio, device, rate, ring_s) == 0;
        });
    }

    // Ends capture; the process when even that hangs.
    void close() {
        const bool idle = !reopening_ || reopening_->wait(CLOSE_S);
        if (idle && Background([audio = audio_] { ovl_audio_stop_input(audio); }).wait(CLOSE_S)) return;
        end("the input device does not close");
    }

    bool reopening() const { return reopening_.has_value(); }

  private:
    // Ends the process, in which a call into the sound system hangs.
    [[noreturn]] static void end(const std::string& reason) {
        print_error(reason);
        flush_output();
        std::_Exit(EXIT_FAILED);
    }

    ovl_audio* audio_;
    int32_t device_;
    int32_t rate_;
    double ring_s_;
    double seen_s_ = 0;
    double progress_at_ = monotonic_now();
    double retry_at_ = 0;
    bool stalled_ = false;  // and said so
    std::string reason_;    // why the device did not open
    std::optional<Background> reopening_;
    std::shared_ptr<std::atomic<bool>> opened_;
};

// Reports lost input, now and then.
class OverflowReport {
  public:
    void see(const ovl_audio_stats& stats, double now) {
        if (stats.overflows < reported_) reported_ = 0;  // capture has begun anew
        if (stats.overflows == reported_ || now - reported_at_ < COMPLAIN_S) return;
        print_error(format("input was lost (%d times more)", stats.overflows - reported_));
        reported_ = stats.overflows;
        reported_at_ = now;
    }

  private:
    int32_t reported_ = 0;
    double reported_at_ = 0;
};

int listen_to_device(const Options& options, const ov_params& params, ovl_audio* audio) {
    const int32_t device = find_device(options.device, Direction::INPUT);
    Capture capture(audio, device, options.rate.value_or(0), ring_seconds(options));
    if (!capture.open()) {
        print_error(ovl_audio_last_error(audio));
        return EXIT_FAILED;
    }
    if (!check_rate(audio)) {
        capture.close();
        return EXIT_FAILED;
    }
    Listener listener(options, params, audio);
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
        listener.look(stats, utc);
        overflows.see(stats, now);
        show_level(listener, stats, now);
        if (!flush_output()) break;
    }
    if (!capture.reopening()) listener.finish(utc);
    flush_output();
    capture.close();
    return flush_output() && !listener.last_look_failed() ? EXIT_DONE : EXIT_FAILED;
}

// ---- From standard input --------------------------------------------------------------------------------------------

// Samples of standard input, as they come.
class RawInput {
  public:
    explicit RawInput(const Options& options)
        : is_float_(options.sample_format == "float"),
          frame_bytes_((is_float_ ? sizeof(float) : sizeof(int16_t)) * static_cast<std::size_t>(options.channels)),
          bytes_(frame_bytes_ * static_cast<std::size_t>(READ_S * *options.rate)) {}

    // Waits for samples. False at the end of the input, after an interrupt, or when it cannot be read.
    bool read(std::vector<float>& samples) {
        samples.clear();
        while (samples.empty() && !interrupted()) {
            pollfd ready{STDIN_FILENO, POLLIN, 0};
            if (poll(&ready, 1, 100) <= 0) continue;
            const ssize_t got = ::read(STDIN_FILENO, bytes_.data() + held_, bytes_.size() - held_);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                print_error(std::string("cannot read standard input: ") + std::strerror(errno));
                failed_ = true;
            }
            if (got <= 0) return false;
            held_ += static_cast<std::size_t>(got);
            convert(samples);
        }
        return !samples.empty();
    }
    bool failed() const { return failed_; }

  private:
    // Takes the whole frames that are held. What is not a number, or beyond any scale, becomes silence: it would hide
    // everything else for as long as it is in the ring.
    void convert(std::vector<float>& samples) {
        const std::size_t used = held_ - held_ % frame_bytes_;
        for (std::size_t at = 0; at < used; at += is_float_ ? sizeof(float) : sizeof(int16_t)) {
            float value = 0;
            if (is_float_) {
                value = std::bit_cast<float>(little_endian<uint32_t>(at));
            } else {
                value = static_cast<float>(static_cast<int16_t>(little_endian<uint16_t>(at))) / 32768.0f;
            }
            samples.push_back(std::abs(value) <= MOST_SAMPLE ? value : 0.0f);
        }
        std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(used),
                  bytes_.begin() + static_cast<std::ptrdiff_t>(held_), bytes_.begin());
        held_ -= used;
    }

    template <class Integer>
    Integer little_endian(std::size_t at) const {
        Integer value = 0;
        for (std::size_t i = sizeof(Integer); i > 0; i--) {
            value = static_cast<Integer>((value << 8) | bytes_[at + i - 1]);
        }
        return value;
    }

    bool is_float_;
    std::size_t frame_bytes_;
    std::vector<uint8_t> bytes_;
    std::size_t held_ = 0;
    bool failed_ = false;
};

int listen_to_stdin(const Options& options, const ov_params& params, ovl_audio* audio) {
    std::optional<double> start;
    if (!options.start.empty()) {
        start = parse_utc(options.start, utc_now() - DAY_S);  // a time of day is the last such one
        if (!start) throw CLI::ValidationError("--start: '" + options.start + "' is no UTC time");
    }
    if (ovl_audio_start_input(audio, OVL_AUDIO_NONE, *options.rate, ring_seconds(options)) != 0) {
        print_error(ovl_audio_last_error(audio));
        return EXIT_FAILED;
    }
    if (!check_rate(audio)) return EXIT_FAILED;
    Listener listener(options, params, audio);
    RawInput input(options);
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
        listener.look(stats, utc);
        show_level(listener, stats, stats.captured_s > 0 ? utc(stats.captured_s) : now);
        if (!flush_output()) return EXIT_FAILED;
    }
    listener.finish(utc);
    return flush_output() && !input.failed() && !listener.last_look_failed() ? EXIT_DONE : EXIT_FAILED;
}

int listen(Options& options) {
    if (options.sample_format != "s16" && options.sample_format != "float") {
        throw CLI::ValidationError("--format: '" + options.sample_format + "' is not one of s16, float");
    }
    if (options.from_stdin && !options.rate) options.rate = 48000;
    if (options.rate && (*options.rate < MIN_RATE || *options.rate > MAX_RATE)) {
        throw CLI::ValidationError("--rate: 8000 to 384000 Hz");
    }
    DecodingOptions decoding;
    decoding.search = options.search;
    const std::vector<ovc_known> known = known_callsigns(options.search);
    const ov_params params = decode_params(decoding, known);
    const AudioObject audio = make_audio();
    watch_interrupts();
    return options.from_stdin ? listen_to_stdin(options, params, audio.get())
                              : listen_to_device(options, params, audio.get());
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
                    "UTC time of the first sample of standard input: 12:00[:00] (the last such) or "
                    "2026-03-01T12:00[:00]Z [as it comes]")
        ->type_name("TIME")
        ->needs(raw);
    sub->add_option("--every", options->every_s,
                    "Decode so often; a spot comes one to two such lengths after it has settled [4]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(1.0, 15.0));
    sub->add_option("--settle", options->settle_s,
                    "Wait so long after the end of a frame, as another that has begun may hide it, or be taken for one "
                    "while it is not whole [48]; 0 prints spots sooner")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(0.0, 60.0));
    add_search_options(*sub, options->search, "1500");
    sub->add_flag("--json", options->json, "Print one JSON object a line");
    sub->footer("Runs until Ctrl-C or the end of standard input. Times are UTC.");
    sub->callback([options, &status] { status = listen(*options); });
}
