#include "subcommands.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/progress.h"
#include "base/text.h"
#include "base/utc.h"
#include "exit_status.h"
#include "options.h"
#include "pictures/drawing.h"
#include "recordings/decode_recording.h"
#include "recordings/open_recording.h"
#include "spots/spot.h"
#include "system/files.h"

namespace {

constexpr double LONGEST_FRAME_S = 42;  // and a little more
constexpr double AROUND = 1.1;          // the search is shown with a margin
constexpr double MOST_DB = 300;         // that levels can be apart

// The command line, as typed.
struct PlotOptions {
    std::string file;
    std::string output;
    RecordingOptions recording;
    SearchOptions search;
    std::optional<double> from_s, to_s;
    std::string start;
    bool no_decode = false;
    double window_s = WINDOW_S;
    std::string range;
    int32_t width = 1200, height = 700;
    double text_size = 13;
    std::string title;
    std::string chips;  // "" = a waterfall
};

// What the options stand for, checked before any work.
struct Plan {
    PictureLayout layout;
    RecordingOptions recording;
    std::optional<Range> range_db;  // over the median
    DecodingOptions decoding;
};

PictureLayout layout_of(const PlotOptions& options) {
    const auto format = picture_format(options.output);
    if (!format) throw UsageError("--output: '" + options.output + "' does not end in .png, .svg or .pdf");
    const std::string name = text_of(native_path(options.file).filename());
    PictureLayout layout = {*format, options.width, options.height, options.text_size,
                            options.title.empty() ? name : options.title};
    if (!waterfall_area(layout)) throw UsageError("the picture is too small for its texts");
    return layout;
}

std::optional<double> start_of(const PlotOptions& options) {
    if (options.start.empty()) return std::nullopt;
    const auto start = parse_utc(options.start, utc_now() - DAY_S);
    if (!start) throw UsageError("--start: '" + options.start + "' is not a UTC time");
    return start;
}

std::optional<Range> levels_of(const PlotOptions& options) {
    if (options.range.empty()) return std::nullopt;
    const Range levels = range_of("--range", options.range);
    if (std::max(std::abs(levels.low), std::abs(levels.high)) > MOST_DB) {
        throw UsageError("--range: LO and HI must be between -300 and 300");
    }
    return levels;
}

Plan make_plan(const PlotOptions& options) {
    Plan plan;
    plan.layout = layout_of(options);
    plan.recording = options.recording;
    plan.recording.start_utc = start_of(options);
    plan.range_db = levels_of(options);
    if (options.from_s && options.to_s && !(*options.from_s < *options.to_s)) {
        throw UsageError("--to: it must be after --from");
    }
    if (options.no_decode && !options.chips.empty()) throw UsageError("--chips needs a decoded frame");
    plan.decoding.search = search_of(options.search, options.recording.iq);
    return plan;
}

void write_file(const std::string& path, const std::string& bytes) {
    errno = 0;
    struct Close {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file(open_file(path, "wb"));
    const bool written = file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
                         std::fclose(file.release()) == 0;
    if (!written) throw IoError("cannot write '" + path + "': " + std::strerror(errno));
}

// The band that is shown: the one asked for, or the search with a margin.
Range shown_band(const Search& search, int32_t rate) {
    if (search.band) return *search.band;
    if (search.wide) return whole_band(search.iq, rate);
    const double center = center_of(search);
    return {center - AROUND * search.search_hz, center + AROUND * search.search_hz};
}

// The part of a recording that is shown.
View choose_view(const PlotOptions& options, const Search& search, const Recording& recording) {
    View view{};
    view.from_s = std::max(options.from_s.value_or(0), 0.0);
    view.to_s = std::min(options.to_s.value_or(recording.seconds()), recording.seconds());
    if (!(view.from_s < view.to_s)) {
        throw IoError(format("'%s' lasts %.3f s and has nothing there", options.file.c_str(), recording.seconds()));
    }
    const Range whole = whole_band(search.iq, recording.rate());
    const Range wanted = shown_band(search, recording.rate());
    view.low_hz = std::max(wanted.low, whole.low);
    view.high_hz = std::min(wanted.high, whole.high);
    if (!(view.low_hz < view.high_hz)) {
        throw IoError(
            format("'%s' holds %g to %g Hz and has nothing there", options.file.c_str(), whole.low, whole.high));
    }
    return view;
}

struct TimeSpan {
    double from_s, to_s;

    double length_s() const { return to_s - from_s; }
};

// What is decoded for a view: frames that begin before it or end after it show in it.
TimeSpan decoded_span(const Recording& recording, const View& view) {
    return {std::max(view.from_s - LONGEST_FRAME_S, 0.0), std::min(view.to_s + LONGEST_FRAME_S, recording.seconds())};
}

// The frames that reach into a view's time.
std::vector<ov_spot> find_spots(const Plan& plan, Recording& recording, const View& view, const TimeSpan& span,
                                Progress& progress) {
    std::vector<ov_spot> spots;
    SpotTaker taker;
    taker.begin = [] {};
    taker.take = [&](const ov_spot& spot) {
        if (spot.t < view.to_s && spot_end(spot) > view.from_s) spots.push_back(spot);
    };
    taker.progress = [&](double done_s, std::size_t count) { progress.show(done_s - span.from_s, count); };
    taker.go_on = [] { return true; };
    decode_recording(recording, plan.decoding, span.from_s, span.to_s, taker);
    return spots;
}

// The frame that --chips names by number or callsign.
const ov_spot& choose_spot(const PlotOptions& options, const std::vector<ov_spot>& spots) {
    if (spots.empty()) throw IoError("no frame found in '" + options.file + "'");
    std::size_t number = 0;
    const char* const end = options.chips.data() + options.chips.size();
    const auto [stop, error] = std::from_chars(options.chips.data(), end, number);
    if (error == std::errc() && stop == end) {
        if (number >= 1 && number <= spots.size()) return spots[number - 1];
        throw IoError(format("'%s' holds %zu frame%s, none of number %s", options.file.c_str(), spots.size(),
                             spots.size() == 1 ? "" : "s", options.chips.c_str()));
    }
    const std::string call = upper_case(options.chips);
    const auto found = std::find_if(spots.begin(), spots.end(), [&](const ov_spot& spot) { return call == spot.call; });
    if (found == spots.end()) throw IoError("no frame of '" + options.chips + "' found in '" + options.file + "'");
    return *found;
}

std::string draw_chips_of(const PlotOptions& options, const Plan& plan, Recording& recording,
                          const std::vector<ov_spot>& spots) {
    const ov_spot& spot = choose_spot(options, spots);
    const auto view = measure_chips(recording, spot);
    if (!view) throw IoError("cannot measure the chips of " + std::string(spot.call));
    return draw_chips(plan.layout, *view, recording.tuning(0.5 * (spot.t + spot_end(spot))));
}

std::string draw_waterfall_of(const PlotOptions& options, const Plan& plan, Recording& recording, const View& view,
                              const std::vector<ov_spot>& spots, const std::function<void(double)>& progress) {
    const auto tuning = recording.tuning(view.from_s);
    const auto room = waterfall_area(plan.layout, tuning.has_value());
    if (!room) throw UsageError("the picture is too small for its texts");
    const Box& area = *room;
    const PowerGrid grid = measure_power(recording, view, static_cast<int32_t>(area.width),
                                         static_cast<int32_t>(area.height), options.window_s, progress);
    LevelRange levels = robust_range(grid);
    if (plan.range_db) {
        levels.low_db = levels.median_db + plan.range_db->low;
        levels.high_db = levels.median_db + plan.range_db->high;
    }
    std::string note = format("%d Hz%s", recording.rate(), recording.iq() ? " I/Q" : "");
    if (!options.no_decode) note += format(", %zu frame%s", spots.size(), spots.size() == 1 ? "" : "s");
    return draw_waterfall(plan.layout, {view, grid, levels, spots, recording.utc_zero(view.from_s), tuning, note});
}

// Decodes, then draws: to the user one job, of the seconds of recording that either reads.
std::string draw(const PlotOptions& options, const Plan& plan, Recording& recording) {
    const View view = choose_view(options, plan.decoding.search, recording);
    const TimeSpan decoded = options.no_decode ? TimeSpan{view.from_s, view.from_s} : decoded_span(recording, view);
    const double drawn_s = options.chips.empty() ? view.to_s - view.from_s : 0;
    const auto found = [&](std::size_t count) { return options.no_decode ? std::nullopt : std::optional(count); };
    Progress progress("'" + recording.path() + "'", decoded.length_s() + drawn_s, found(0));
    std::vector<ov_spot> spots;
    if (!options.no_decode) spots = find_spots(plan, recording, view, decoded, progress);
    if (!options.chips.empty()) return draw_chips_of(options, plan, recording, spots);
    return draw_waterfall_of(options, plan, recording, view, spots,
                             [&](double done_s) { progress.show(decoded.length_s() + done_s, found(spots.size())); });
}

int plot(const PlotOptions& options) {
    Plan plan = make_plan(options);
    try {
        const auto recording = open_recording(options.file, plan.recording);
        plan.decoding.search.iq = recording->iq();
        write_file(options.output, draw(options, plan, *recording));
        return EXIT_DONE;
    } catch (const std::bad_alloc&) {
        throw IoError("cannot plot '" + options.file + "': memory is short");
    }
}

}  // namespace

void add_plot(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("plot", "Draw a recording and the frames in it");
    const auto options = std::make_shared<PlotOptions>();
    sub->add_option("FILE", options->file, "Recording, as for decode")->required();
    sub->add_option("-o,--output", options->output, "Picture to write: .png, .svg or .pdf")
        ->required()
        ->type_name("FILE");
    sub->add_flag("--chips{1}", options->chips,
                  "Draw the chips of one frame: --chips=K2QRX, or --chips=2 for the second that decode lists [1]")
        ->type_name("FRAME");
    add_recording_options(*sub, options->recording);
    sub->add_option("--from", options->from_s, "First second to show [0]")
        ->type_name("SECONDS")
        ->check(finite_number());
    sub->add_option("--to", options->to_s, "Last second to show [the end]")
        ->type_name("SECONDS")
        ->check(finite_number());
    sub->add_option("--start", options->start,
                    "UTC time of the first sample, for the axis: 12:00[:00] or 2026-03-01T12:00[:00]Z")
        ->type_name("TIME");
    CLI::Option* wide =
        sub->add_flag("--wide", options->search.wide, "Search the whole band of the recording, or --band");
    sub->add_option("--band", options->search.band,
                    "Band to show, with --wide also to search [the search; with --wide all that the rate holds]")
        ->type_name("LO:HI");
    sub->add_option("--min-z", options->search.scan_z,
                    "How far keyed carriers of a wide search stand out, in sigma [6]")
        ->type_name("SIGMA")
        ->check(finite_number())
        ->needs(wide);
    add_search_options(*sub, options->search, "1500; with --iq 0");
    sub->add_flag("--no-decode", options->no_decode, "Draw the waterfall alone");
    sub->add_option("--window", options->window_s, "Length of a spectrum, 0.01 to 10 [0.256]")
        ->type_name("SECONDS")
        ->check(finite_number())
        ->check(CLI::Range(0.01, 10.0));
    sub->add_option("--range", options->range, "Levels of the darkest and the brightest colour [by content]")
        ->type_name("LO:HI");
    sub->add_option("--width", options->width, "Width of the picture, 300 to 4000 [1200]")
        ->type_name("PIXELS")
        ->check(CLI::Range(300, 4000));
    sub->add_option("--height", options->height, "Height of the picture, 200 to 4000 [700]")
        ->type_name("PIXELS")
        ->check(CLI::Range(200, 4000));
    sub->add_option("--text", options->text_size, "Size of the texts, 6 to 60 [13]")
        ->type_name("PIXELS")
        ->check(finite_number())
        ->check(CLI::Range(6.0, 60.0));
    sub->add_option("--title", options->title, "Text above the picture [the name of the file]")->type_name("TEXT");
    sub->footer("Times are seconds from the start of the file; levels are dB over the median of the picture.");
    sub->callback([options, &status] { status = plot(*options); });
}
