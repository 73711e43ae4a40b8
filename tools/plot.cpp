#include "plot.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "chipview.h"
#include "console.h"
#include "decoding.h"
#include "drawing.h"
#include "progress.h"
#include "recording.h"
#include "search.h"
#include "spots.h"
#include "utc.h"
#include "waterfall.h"

namespace {

constexpr double LONGEST_FRAME_S = 42;  // and a little more
constexpr double AROUND = 1.1;          // the search is shown with a little around it
constexpr double DAY_S = 86400;
constexpr double MOST_DB = 300;  // that levels can be apart

// The command line, as typed.
struct Options : DecodingOptions {
    std::string file;
    std::string output;
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
    std::optional<double> start_utc;
    std::optional<Band> band;      // that is shown
    std::optional<Band> range_db;  // over the median
    std::vector<ovc_known> known;
    ov_params params;
};

Plan make_plan(const Options& options) {
    Plan plan;
    const auto format = picture_format(options.output);
    if (!format) throw CLI::ValidationError("--output: '" + options.output + "' does not end in .png, .svg or .pdf");
    const std::string name = std::filesystem::path(options.file).filename().string();
    plan.layout = {*format, options.width, options.height, options.text_size,
                   options.title.empty() ? name : options.title};
    if (!waterfall_area(plan.layout)) throw CLI::ValidationError("the picture is too small for its texts");
    if (!options.start.empty()) {
        plan.start_utc = parse_utc(options.start, utc_now() - DAY_S);
        if (!plan.start_utc) throw CLI::ValidationError("--start: '" + options.start + "' is no UTC time");
    }
    if (options.wide && options.search.center_hz) throw CLI::ValidationError("--center: --wide has --band instead");
    if (options.band) plan.band = parse_band(*options.band);
    if (!options.range.empty()) {
        try {
            plan.range_db = parse_band(options.range);
        } catch (const CLI::ValidationError&) {
            throw CLI::ValidationError("--range: '" + options.range + "' is not LO:HI with LO below HI");
        }
        if (std::max(std::abs(plan.range_db->low_hz), std::abs(plan.range_db->high_hz)) > MOST_DB) {
            throw CLI::ValidationError("--range: LO and HI lie between -300 and 300");
        }
    }
    if (options.from_s && options.to_s && !(*options.from_s < *options.to_s)) {
        throw CLI::ValidationError("--to: it is not behind --from");
    }
    if (options.no_decode && !options.chips.empty()) throw CLI::ValidationError("--chips needs a decoded frame");
    plan.known = known_callsigns(options.search);
    plan.params = decode_params(options, plan.known);
    return plan;
}

bool fail(const std::string& message) {
    print_error(message);
    return false;
}

bool write_file(const std::string& path, const std::string& bytes) {
    errno = 0;
    struct Close {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "wb"));
    const bool written = file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
                         std::fclose(file.release()) == 0;
    return written || fail("cannot write '" + path + "': " + std::strerror(errno));
}

// The part of a recording that is shown. False, with a line on standard error, when there is none.
bool choose_view(const Options& options, const Plan& plan, const Recording& recording, View& view) {
    view.from_s = std::max(options.from_s.value_or(0), 0.0);
    view.to_s = std::min(options.to_s.value_or(recording.seconds()), recording.seconds());
    if (!(view.from_s < view.to_s)) {
        return fail(format("'%s' lasts %.3f s and has nothing there", options.file.c_str(), recording.seconds()));
    }
    const Band whole = whole_band(options, recording);
    const double half = AROUND * options.search.search_hz;
    const Band around = {plan.params.center_hz - half, plan.params.center_hz + half};
    const Band wanted = plan.band.value_or(options.wide ? whole : around);
    view.low_hz = std::max(wanted.low_hz, whole.low_hz);
    view.high_hz = std::min(wanted.high_hz, whole.high_hz);
    if (!(view.low_hz < view.high_hz)) {
        return fail(
            format("'%s' holds %g to %g Hz and has nothing there", options.file.c_str(), whole.low_hz, whole.high_hz));
    }
    return true;
}

// The frames that reach into a view's time.
std::optional<std::vector<ov_spot>> find_spots(const Options& options, const Plan& plan, Recording& recording,
                                               const View& view) {
    std::vector<ov_spot> spots;
    const double from_s = std::max(view.from_s - LONGEST_FRAME_S, 0.0);
    const double to_s = std::min(view.to_s + LONGEST_FRAME_S, recording.seconds());
    Progress progress("'" + options.file + "'", to_s - from_s);
    SpotTaker taker;
    taker.begin = [] {};
    taker.take = [&](const ov_spot& spot) {
        if (spot.t < view.to_s && spot_end(spot) > view.from_s) spots.push_back(spot);
    };
    taker.progress = [&](double done_s, std::size_t count) { progress.show(done_s - from_s, count); };
    taker.go_on = [] { return true; };
    if (!decode_recording(recording, options.file, options, plan.params, from_s, to_s, taker)) return std::nullopt;
    return spots;
}

// The frame that --chips names by number or callsign. Nothing, with a line on standard error, when there is none.
std::optional<ov_spot> choose_spot(const Options& options, const std::vector<ov_spot>& spots) {
    if (spots.empty()) {
        fail("no frame found in '" + options.file + "'");
        return std::nullopt;
    }
    std::size_t number = 0;
    const char* const end = options.chips.data() + options.chips.size();
    const auto [stop, error] = std::from_chars(options.chips.data(), end, number);
    if (error == std::errc() && stop == end) {
        if (number >= 1 && number <= spots.size()) return spots[number - 1];
        fail(format("'%s' holds %zu frame%s, none of number %s", options.file.c_str(), spots.size(),
                    spots.size() == 1 ? "" : "s", options.chips.c_str()));
        return std::nullopt;
    }
    std::string call = options.chips;
    std::transform(call.begin(), call.end(), call.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const auto found = std::find_if(spots.begin(), spots.end(), [&](const ov_spot& spot) { return call == spot.call; });
    if (found != spots.end()) return *found;
    fail("no frame of '" + options.chips + "' found in '" + options.file + "'");
    return std::nullopt;
}

bool plot_chips(const Options& options, const Plan& plan, Recording& recording, const std::vector<ov_spot>& spots) {
    const auto spot = choose_spot(options, spots);
    if (!spot) return false;
    const auto view = measure_chips(recording, *spot);
    if (!view) return fail("cannot measure the chips of " + std::string(spot->call));
    return write_file(options.output, draw_chips(plan.layout, *view));
}

bool plot_waterfall(const Options& options, const Plan& plan, Recording& recording, const View& view,
                    const std::vector<ov_spot>& spots) {
    const Box area = waterfall_area(plan.layout).value();
    Progress progress("'" + options.file + "'", view.to_s - view.from_s);
    const auto grid = measure_power(recording, options.recording.iq, view, static_cast<int32_t>(area.width),
                                    static_cast<int32_t>(area.height), options.window_s,
                                    [&](double done_s) { progress.show(done_s, spots.size()); });
    if (!grid) return false;
    LevelRange levels = robust_range(*grid);
    if (plan.range_db) {
        levels.low_db = levels.median_db + plan.range_db->low_hz;
        levels.high_db = levels.median_db + plan.range_db->high_hz;
    }
    std::string note = format("%d Hz%s", recording.rate(), options.recording.iq ? " I/Q" : "");
    if (!options.no_decode) note += format(", %zu frame%s", spots.size(), spots.size() == 1 ? "" : "s");
    return write_file(options.output, draw_waterfall(plan.layout, {view, *grid, levels, spots, plan.start_utc, note}));
}

int plot(const Options& options) {
    const Plan plan = make_plan(options);
    const auto recording = open_recording(options.file, options.recording);
    View view{};
    if (!recording || !choose_view(options, plan, *recording, view)) return EXIT_FAILED;
    try {
        const auto spots = options.no_decode ? std::vector<ov_spot>() : find_spots(options, plan, *recording, view);
        if (!spots) return EXIT_FAILED;
        const bool drawn = options.chips.empty() ? plot_waterfall(options, plan, *recording, view, *spots)
                                                 : plot_chips(options, plan, *recording, *spots);
        return drawn ? EXIT_DONE : EXIT_FAILED;
    } catch (const std::bad_alloc&) {
        print_error("cannot plot '" + options.file + "': memory is short");
        return EXIT_FAILED;
    }
}

}  // namespace

void add_plot(CLI::App& app, int& status) {
    CLI::App* sub = app.add_subcommand("plot", "Draw a recording and the frames in it");
    const auto options = std::make_shared<Options>();
    sub->add_option("FILE", options->file, "Recording, as of decode")->required();
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
    CLI::Option* wide = sub->add_flag("--wide", options->wide, "Search the whole band of the recording, or --band");
    sub->add_option("--band", options->band,
                    "Band to show, with --wide also to search [the search; with --wide all that the rate holds]")
        ->type_name("LO:HI");
    sub->add_option("--min-z", options->scan_z, "Keyed carriers of a wide search stand out so many sigma [6]")
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
    sub->add_option("--width", options->width, "Of the picture, 300 to 4000 [1200]")
        ->type_name("PIXELS")
        ->check(CLI::Range(300, 4000));
    sub->add_option("--height", options->height, "Of the picture, 200 to 4000 [700]")
        ->type_name("PIXELS")
        ->check(CLI::Range(200, 4000));
    sub->add_option("--text", options->text_size, "Size of the texts, 6 to 60 [13]")
        ->type_name("PIXELS")
        ->check(finite_number())
        ->check(CLI::Range(6.0, 60.0));
    sub->add_option("--title", options->title, "Above the picture [the name of the file]")->type_name("TEXT");
    sub->footer("Times are seconds from the start of the file; levels are dB over the median of the picture.");
    sub->callback([options, &status] { status = plot(*options); });
}
