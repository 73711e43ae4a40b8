// The pictures of orvel plot, and what they are made of.
#include <cairo.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "liborvel.h"
#include "pictures/axis.h"
#include "pictures/canvas.h"
#include "pictures/chip_view.h"
#include "pictures/colour_map.h"
#include "pictures/drawing.h"
#include "pictures/history.h"
#include "pictures/labels.h"
#include "pictures/waterfall.h"
#include "recordings/open_recording.h"
#include "siggen.h"

namespace {

std::vector<std::string> labels_of(const std::vector<Tick>& ticks) {
    std::vector<std::string> labels;
    for (const Tick& tick : ticks) labels.push_back(tick.label);
    return labels;
}

using Labels = std::vector<std::string>;

TEST(Axis, TicksStandAtRoundNumbers) {
    EXPECT_EQ(labels_of(number_ticks(1280, 1720, 5)), (Labels{"1300", "1400", "1500", "1600", "1700"}));
    EXPECT_EQ(labels_of(number_ticks(-0.31, 0.22, 6)),
              (Labels{"\u22120.3", "\u22120.2", "\u22120.1", "0.0", "0.1", "0.2"}));
    EXPECT_EQ(labels_of(number_ticks(-1, 1, 2)), (Labels{"\u22121", "0", "1"}));
    EXPECT_TRUE(number_ticks(3, 3, 5).empty());
    for (const double span : {1e-6, 0.3, 7.0, 45.0, 86400.0, 4e7}) {
        for (int32_t most = 2; most < 30; most++) {
            const auto ticks = number_ticks(-span / 3, span, most);
            EXPECT_LE(ticks.size(), static_cast<std::size_t>(most + 1)) << span << " " << most;
            EXPECT_GE(ticks.size(), 1u) << span << " " << most;
        }
    }
}

TEST(Axis, DaysAreDates) {
    const double start = 86400.0 * 20000;  // 2024-10-04
    EXPECT_EQ(labels_of(date_ticks(start + 1, start + 4 * 86400, 5)),
              (Labels{"2024-10-05", "2024-10-06", "2024-10-07", "2024-10-08"}));
    EXPECT_EQ(labels_of(date_ticks(start, start + 3 * 3600, 4)), (Labels{"00:00", "01:00", "02:00", "03:00"}));
    for (const double days : {2.0, 3.5, 31.0, 366.0, 4000.0, 20000.0}) {
        for (int32_t most = 2; most < 30; most++) {
            const auto ticks = date_ticks(start, start + 86400 * days, most);
            EXPECT_LE(ticks.size(), static_cast<std::size_t>(most + 2)) << days << " " << most;
            EXPECT_GE(ticks.size(), 1u) << days << " " << most;
        }
    }
}

TEST(Canvas, OutlinesBeginWhereTheyBegin) {
    Canvas canvas(PictureFormat::SVG, 100, 100);
    canvas.text({5, 50}, "text", {10, {0, 0, 0}});
    canvas.outline({20, 30, 40, 50}, {1, 0, 0}, 1);
    const std::string drawn = canvas.finish();
    EXPECT_NE(drawn.find("M 20 30 L 60 30 L 60 80 L 20 80 Z"), std::string::npos) << drawn;
}

TEST(HistoryPicture, ShowsEachPointTwiceUnlessItsSnrIsUnknown) {
    PictureLayout layout;
    layout.format = PictureFormat::SVG;
    const auto marks_of = [&](const std::vector<HistoryPoint>& points) {
        const std::string drawn = draw_history(layout, points);
        std::size_t marks = 0;
        for (const char* const colour : {"rgb(0%,44.7%", "rgb(90.2%"}) {  // sure and deep
            for (std::size_t at = drawn.find(colour); at != std::string::npos; at = drawn.find(colour, at + 1)) marks++;
        }
        return marks;
    };
    EXPECT_EQ(marks_of({}), 0u);
    EXPECT_EQ(marks_of({{1.77e9, -20, 137501.2, false}}), 2u);
    EXPECT_EQ(marks_of({{1.77e9, -20, 137501.2, false}, {1.78e9, {}, 137501.9, true}}), 3u);
}

TEST(Axis, LongTimesAndTimesOfDayAreShownAsOnAClock) {
    EXPECT_EQ(labels_of(time_ticks(0, 45, 5, {})), (Labels{"0", "10", "20", "30", "40"}));
    EXPECT_EQ(labels_of(time_ticks(0, 300, 5, {})), (Labels{"0:00", "1:00", "2:00", "3:00", "4:00", "5:00"}));
    EXPECT_EQ(labels_of(time_ticks(0, 7300, 4, {})), (Labels{"0:00", "1:00", "2:00"}));
    const auto ticks = time_ticks(0, 100, 4, 86400.0 * 20000 + 23 * 3600 + 59 * 60 + 10);
    EXPECT_EQ(labels_of(ticks), (Labels{"23:59:30", "00:00:00", "00:00:30"}));
    EXPECT_NEAR(ticks[0].value, 20, 1e-6);
}

TEST(Colours, BrightenEvenlyAndTakeAnyNumber) {
    const auto luminance = [](uint32_t colour) {
        return 0.2126 * (colour >> 16) + 0.7152 * (colour >> 8 & 255) + 0.0722 * (colour & 255);
    };
    EXPECT_EQ(viridis(0), 0x440154u);
    EXPECT_EQ(viridis(1), 0xfde725u);
    EXPECT_EQ(viridis(-5), viridis(0));
    EXPECT_EQ(viridis(HUGE_VAL), viridis(0));
    EXPECT_EQ(viridis(NAN), viridis(0));
    for (int step = 1; step < 256; step++) {
        EXPECT_GT(luminance(viridis(step / 255.0)), luminance(viridis((step - 1) / 255.0)) - 0.5) << step;
    }
}

TEST(FrameLabels, CoverNeitherEachOtherNorFrames) {
    const Box area = {50, 20, 800, 500};
    Random random(5);
    int placed = 0;
    for (int round = 0; round < 100; round++) {
        std::vector<LabelWish> wishes;
        const int32_t count = random.integer(1, 40);
        for (int32_t k = 0; k < count; k++) {
            const Box frame = {random.uniform(-50, 900), random.uniform(0, 540), random.uniform(4, 500),
                               random.uniform(8, 30)};
            wishes.push_back({frame, 110, 17, 55});
        }
        const auto places = place_labels(area, wishes);
        ASSERT_EQ(places.size(), wishes.size());
        for (std::size_t k = 0; k < places.size(); k++) {
            if (!places[k].placed) continue;
            placed++;
            EXPECT_TRUE(area.holds(places[k].box));
            EXPECT_EQ(places[k].box.width, places[k].shortened ? 55 : 110);
            for (std::size_t other = 0; other < places.size(); other++) {
                EXPECT_FALSE(places[k].box.overlaps(wishes[other].frame));
                if (other == k || !places[other].placed) continue;
                EXPECT_FALSE(places[k].box.overlaps(places[other].box));
            }
        }
    }
    EXPECT_GT(placed, 500);
    const auto alone = place_labels(area, {{{100, 100, 300, 20}, 110, 17, 55}});
    EXPECT_TRUE(alone[0].placed);
    EXPECT_FALSE(alone[0].away || alone[0].shortened);
}

// ---- Recordings -----------------------------------------------------------------------------------------------------

void no_progress(double) {}

class Pictures : public TestWithFiles {
  protected:
    // One strong station and a weak one, 12000 Hz.
    std::string recording(double seconds = 36) const {
        const std::string file = path("x.wav");
        const auto made =
            orvel({"simulate", "-o", file, "--seconds", std::to_string(seconds), "opera=K2QRX,freq=1400,snr=0,start=2",
                   "opera=DL1QXA,freq=1600,snr=-14,start=4,drift=0.1"});
        EXPECT_EQ(made.status, 0) << made.err;
        return file;
    }
    std::string bytes_of(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(Pictures, PowerLiesWhereTheSignalIs) {
    for (const bool iq : {false, true}) {
        Arguments make = {"simulate", "-o", path("tone.wav"), "--seconds", "8", "--carrier", iq ? "-800,20" : "800,20"};
        if (iq) make.push_back("--iq");
        ASSERT_EQ(orvel(make).status, 0);
        RecordingOptions options;
        options.iq = iq;
        const auto file = open_recording(path("tone.wav"), options);
        const double centre = iq ? -800 : 800;
        const auto grid = measure_power(*file, {1, 7, centre - 100, centre + 100}, 60, 101, WINDOW_S, no_progress);
        for (int32_t column = 0; column < 60; column++) {
            for (int32_t row = 0; row < 101; row++) {
                if (std::abs(row - 50) <= 6) continue;
                EXPECT_LT(grid.at(column, row), grid.at(column, 50) - 15);
            }
            EXPECT_GT(grid.at(column, 50), grid.at(column, 49) - 0.5);
        }
        // A wide band in few rows does not lose the carrier.
        const auto wide = measure_power(*file, {1, 7, iq ? -6000.0 : 0.0, 6000}, 10, 50, WINDOW_S, no_progress);
        const int32_t row = iq ? 28 : 43;
        const auto range = robust_range(wide);
        EXPECT_GT(wide.at(5, row), range.median_db + 15);
        EXPECT_LT(range.low_db, range.median_db);
        EXPECT_GT(range.high_db, range.median_db);
    }
}

TEST_F(Pictures, LongColumnsAreMeansOfAllTheirSamples) {
    // Half a column of a tone has half the power of a whole one.
    std::string samples;
    for (int k = 0; k < 8000 * 60; k++) {
        const bool on = k < 8000 * 20 || (k >= 8000 * 40 && k < 8000 * 50);
        append(samples, static_cast<int16_t>(on ? 8000 * std::cos(0.7854 * k) : 1));
    }
    const auto file = open_recording(write("half.wav", wave_file(1, 1, 8000, 16, samples)), {});
    for (const double half_hz : {100, 40}) {  // the narrow one is decimated
        const auto grid = measure_power(*file, {0, 60, 1000 - half_hz, 1000 + half_hz}, 3, 41, WINDOW_S, no_progress);
        EXPECT_NEAR(grid.at(0, 20) - grid.at(2, 20), 3.01, 0.2);
        EXPECT_GT(grid.at(0, 20) - grid.at(1, 20), 30);
    }
}

TEST_F(Pictures, AHeaderThatLiesAboutTheRateCostsNoMemory) {
    std::string samples;
    for (int k = 0; k < 20000; k++) append(samples, static_cast<int16_t>(k % 7));
    const auto file = open_recording(write("fast.wav", wave_file(1, 1, 400'000'000, 16, samples)), {});
    const auto grid = measure_power(*file, {0, file->seconds(), 900, 1100}, 2, 3, WINDOW_S, no_progress);
    struct rusage usage {};
    ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 1'000'000) << "kB, of which a spectrum takes a tenth";
    EXPECT_TRUE(std::isfinite(grid.at(0, 0)));
}

TEST_F(Pictures, SilenceIsNoLevel) {
    const auto file = open_recording(write("silence.wav", wave_file(1, 1, 8000, 16, std::string(32000, '\0'))), {});
    const auto grid = measure_power(*file, {0, 2, 1000, 2000}, 20, 20, WINDOW_S, no_progress);
    EXPECT_TRUE(std::all_of(grid.db.begin(), grid.db.end(), [](float x) { return std::isnan(x); }));
    const auto range = robust_range(grid);
    EXPECT_LT(range.low_db, range.high_db);
    EXPECT_EQ(orvel({"plot", path("silence.wav"), "-o", path("silence.png")}).status, 0);
}

// ---- Files ----------------------------------------------------------------------------------------------------------

struct Picture {
    explicit Picture(const std::string& file) : surface(cairo_image_surface_create_from_png(file.c_str())) {}
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;
    ~Picture() { cairo_surface_destroy(surface); }

    int width() const { return cairo_image_surface_get_width(surface); }
    int height() const { return cairo_image_surface_get_height(surface); }
    uint32_t at(int x, int y) const {
        const unsigned char* row = cairo_image_surface_get_data(surface) + y * cairo_image_surface_get_stride(surface);
        uint32_t pixel = 0;
        std::memcpy(&pixel, row + 4 * x, 4);
        return pixel & 0xFFFFFF;
    }
    double luminance(int x, int y) const {
        const uint32_t pixel = at(x, y);
        return (0.2126 * (pixel >> 16) + 0.7152 * (pixel >> 8 & 255) + 0.0722 * (pixel & 255)) / 255;
    }

    cairo_surface_t* surface;
};

ov_spot spot_of(double t, double freq, double drift) {
    ov_spot spot{};
    spot.t = t;
    spot.freq = freq;
    spot.drift = drift;
    spot.protocol = OVL_OPERA;
    return spot;
}

// Share of bright points along a line.
double brightness_along(const Picture& picture, Point from, Point to) {
    constexpr int COUNT = 200;
    int bright = 0;
    for (int k = 0; k < COUNT; k++) {
        const double share = (k + 0.5) / COUNT;
        const auto x = static_cast<int>(std::lerp(from.x, to.x, share));
        const auto y = static_cast<int>(std::lerp(from.y, to.y, share));
        const double best =
            std::max({picture.luminance(x, y - 1), picture.luminance(x, y), picture.luminance(x, y + 1)});
        bright += best > 0.55 ? 1 : 0;
    }
    return static_cast<double>(bright) / COUNT;
}

TEST_F(Pictures, FramesAreOutlinedWhereTheStationsAre) {
    const std::string file = recording();
    const auto result =
        orvel({"plot", file, "-o", path("x.png"), "--width", "1000", "--height", "600", "--range", "-1:40"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out + result.err, "");
    const Picture picture(path("x.png"));
    ASSERT_EQ(cairo_surface_status(picture.surface), CAIRO_STATUS_SUCCESS);
    EXPECT_EQ(picture.width(), 1000);
    EXPECT_EQ(picture.height(), 600);

    PictureLayout layout;
    layout.width = 1000;
    layout.height = 600;
    const Box area = waterfall_area(layout).value();
    const View view = {0, 36, 1280, 1720};
    for (const ov_spot& spot : {spot_of(2, 1400, 0), spot_of(4, 1600, 0.1)}) {
        const auto corners = frame_outline(spot, view, area);
        for (const auto& [from, to] : {std::pair{0, 3}, std::pair{1, 2}}) {
            EXPECT_GT(brightness_along(picture, corners[static_cast<std::size_t>(from)],
                                       corners[static_cast<std::size_t>(to)]),
                      0.9)
                << spot.freq;
        }
    }
    EXPECT_LT(brightness_along(picture, {area.left + 5, area.top + 200}, {area.right() - 5, area.top + 200}), 0.3);

    // Within the frame of the strong station the waterfall is bright, outside it dark.
    const auto corners = frame_outline(spot_of(2, 1400, 0), view, area);
    const int middle = static_cast<int>((corners[0].y + corners[1].y) / 2);
    double inside = 0;
    double outside = 0;
    for (int x = static_cast<int>(corners[0].x) + 5; x < static_cast<int>(corners[2].x) - 5; x++) {
        inside += picture.luminance(x, middle);
        outside += picture.luminance(x, middle + 60);
    }
    EXPECT_GT(inside, 2 * outside);
    EXPECT_EQ(picture.at(2, 2), 0xFFFFFFu) << "the margin is white";
}

TEST_F(Pictures, WithoutDecodingNothingIsOutlined) {
    const std::string file = recording();
    const Arguments plain = {"plot", file, "--from", "10", "--to", "20", "--width", "600", "--height", "400", "-o"};
    const auto plot = [&](const std::string& name, const Arguments& more) {
        Arguments arguments = plain;
        arguments.push_back(path(name));
        arguments.insert(arguments.end(), more.begin(), more.end());
        EXPECT_EQ(orvel(arguments).status, 0);
    };
    plot("with.svg", {});
    plot("without.svg", {"--no-decode"});
    const std::string with = bytes_of("with.svg");
    const std::string without = bytes_of("without.svg");
    EXPECT_NE(with.find(">K2QRX  "), std::string::npos) << "the frame reaches over both ends of what is shown";
    EXPECT_NE(with.find(">DL1QXA  "), std::string::npos);
    EXPECT_EQ(without.find("K2QRX"), std::string::npos);
    EXPECT_NE(without.find(">12</text>"), std::string::npos) << "a tick of the time axis";
    EXPECT_NE(without.find("frequency, Hz</text>"), std::string::npos);
    EXPECT_NE(without.find("dB above the median</text>"), std::string::npos);
    EXPECT_TRUE(without.ends_with("</svg>\n"));
}

TEST_F(Pictures, EveryFormatIsWhatItsNameSays) {
    const std::string file = recording();
    for (const std::string name : {"x.PDF", "x.png", "x.svg", "chips.pdf", "chips.png", "chips.svg"}) {
        Arguments arguments = {"plot",         file,      "-o",  path(name), "--title",
                               "a < b & \xff", "--width", "500", "--height", "300"};
        if (name[0] == 'c') arguments.push_back("--chips=dl1qxa");
        const auto result = orvel(arguments);
        ASSERT_EQ(result.status, 0) << result.err;
        const std::string bytes = bytes_of(name);
        const std::string start = name.ends_with("g") ? (name.ends_with("svg") ? "<?xml" : "\x89PNG") : "%PDF";
        EXPECT_TRUE(bytes.starts_with(start)) << name;
        if (name.ends_with("svg")) {
            EXPECT_NE(bytes.find("a &lt; b &amp; \xEF\xBF\xBD"), std::string::npos);
            EXPECT_NE(bytes.find("DL1QXA"), std::string::npos);
        }
    }
}

TEST_F(Pictures, RecordingsOfIqAndWideBandsAreDrawn) {
    ASSERT_EQ(orvel({"simulate", "-o", path("iq.wav"), "--iq", "--rate", "48000", "--noise", "-30",
                     "opera=K2QRX,freq=-15000,snr=0", "opera=DL1QXA,freq=21000,snr=-3"})
                  .status,
              0);
    const auto wide = orvel({"plot", "--iq", "--wide", path("iq.wav"), "-o", path("wide.svg"), "--start", "11:59:50"});
    ASSERT_EQ(wide.status, 0) << wide.err;
    const std::string svg = bytes_of("wide.svg");
    for (const std::string text : {">K2QRX  ", ">DL1QXA  ", "frequency, kHz<", ">UTC<", ">12:00:00<"}) {
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    }
    const auto part =
        orvel({"plot", "--iq", "--wide", "--band", "20000:22000", path("iq.wav"), "-o", path("part.svg")});
    ASSERT_EQ(part.status, 0) << part.err;
    EXPECT_EQ(bytes_of("part.svg").find("K2QRX"), std::string::npos);
    EXPECT_NE(bytes_of("part.svg").find("DL1QXA"), std::string::npos);
}

TEST_F(Pictures, BesideFrequenciesInSamplesStandThoseOnTheAir) {
    const std::string file = recording();
    const Arguments part = {"plot", file, "--from", "10", "--to", "12", "--no-decode", "--search", "100", "-o"};
    for (const auto& [side, first, last] :
         {std::tuple{"usb", ">137.46<", ">137.54<"}, std::tuple{"lsb", ">134.54<", ">134.46<"}}) {
        Arguments arguments = part;
        arguments.insert(arguments.end(), {path("x.svg"), "--dial", "136000", "--sideband", side});
        const auto result = orvel(arguments);
        ASSERT_EQ(result.status, 0) << result.err;
        const std::string svg = bytes_of("x.svg");
        EXPECT_NE(svg.find("radio frequency, kHz<"), std::string::npos);
        EXPECT_NE(svg.find(">1540<"), std::string::npos);
        EXPECT_NE(svg.find(first), std::string::npos) << first;
        EXPECT_NE(svg.find(last), std::string::npos) << last;
    }
    const auto chips = orvel({"plot", file, "--chips=K2QRX", "-o", path("x.svg"), "--dial", "136000"});
    ASSERT_EQ(chips.status, 0) << chips.err;
    EXPECT_NE(bytes_of("x.svg").find("on the air 137.4"), std::string::npos);
}

// ---- Chips ----------------------------------------------------------------------------------------------------------

TEST_F(Pictures, MeasuredChipsAreThoseSent) {
    const auto file = open_recording(recording(), {});
    ov_spot spot = spot_of(2, 1400, 0);
    std::string("K2QRX").copy(spot.call, sizeof spot.call);
    const auto view = measure_chips(*file, spot);
    ASSERT_TRUE(view);
    EXPECT_EQ(view->chips, opera_chips("K2QRX"));
    EXPECT_EQ(view->measured_count(), 239);
    EXPECT_EQ(view->wrong_count(), 0);
    // Key down is 3 dB more than the mean over the frame, and a chip is 320 times as narrow as 2500 Hz.
    double on = 0;
    double off = 0;
    for (std::size_t chip = 0; chip < 239; chip++) (view->chips[chip] != 0 ? on : off) += view->energy[chip];
    EXPECT_NEAR(10 * std::log10(on / 120), 10 * std::log10(320 * 239 / 120.0), 1.5);
    EXPECT_LT(off / 119, 5);

    // Away from the station there is noise alone: about half of all chips lie on the wrong side.
    spot.freq = 1480;
    const auto beside = measure_chips(*file, spot);
    ASSERT_TRUE(beside);
    EXPECT_NEAR(std::accumulate(beside->energy.begin(), beside->energy.end(), 0.0) / 239, 1, 0.25);
    EXPECT_GT(beside->wrong_count(), 60);

    // What lies outside the recording is not measured.
    spot.freq = 1400;
    spot.t = 10;
    const auto cut = measure_chips(*file, spot);
    ASSERT_TRUE(cut);
    EXPECT_NEAR(cut->measured_count(), 26 / 0.128, 2);
}

TEST_F(Pictures, ChipsOfTheFrameAskedForAreDrawn) {
    const std::string file = recording();
    const auto title = [&](const std::string& chips) {
        const auto result = orvel({"plot", file, chips, "-o", path("c.svg")});
        EXPECT_EQ(result.status, 0) << result.err;
        const std::string svg = bytes_of("c.svg");
        return svg.find(">K2QRX  OPERA 05<") != std::string::npos    ? "K2QRX"
               : svg.find(">DL1QXA  OPERA 05<") != std::string::npos ? "DL1QXA"
                                                                     : "?";
    };
    EXPECT_STREQ(title("--chips"), "K2QRX");
    EXPECT_STREQ(title("--chips=2"), "DL1QXA");
    EXPECT_STREQ(title("--chips=k2qrx"), "K2QRX");
    EXPECT_NE(bytes_of("c.svg").find("239 of 239 chips measured, 0 otherwise than decided"), std::string::npos);
}

TEST_F(Pictures, WhatCannotBeDrawnIsSaidInOneLine) {
    const std::string file = recording();
    const auto failed = [&](const Arguments& more, const Arguments& texts) {
        Arguments arguments = {"plot"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto result = orvel(arguments);
        EXPECT_EQ(result.status, 1) << result.err;
        return one_line_with(result, texts);
    };
    const std::string out = path("x.png");
    EXPECT_TRUE(failed({file, "-o", path("no/x.png")}, {"cannot write", "no/x.png"}));
    EXPECT_TRUE(failed({path("none"), "-o", out}, {"none"}));
    EXPECT_TRUE(failed({file, "-o", out, "--chips=3"}, {"2 frames", "3"}));
    EXPECT_TRUE(failed({file, "-o", out, "--chips=0"}, {"2 frames", "0"}));
    EXPECT_TRUE(failed({file, "-o", out, "--chips=G4QZB"}, {"G4QZB"}));
    EXPECT_TRUE(failed({file, "-o", out, "--chips", "--center", "3000"}, {"no frame found"}));
    EXPECT_TRUE(failed({file, "-o", out, "--from", "40"}, {"36.000 s"}));
    EXPECT_TRUE(failed({file, "-o", out, "--no-decode", "--band", "7000:8000"}, {"0 to 6000 Hz"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", path("x.gif")}, {"x.gif", ".png, .svg or .pdf"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", out, "--from", "5", "--to", "5"}, {"--to"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", out, "--range", "5:5"}, {"--range"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", out, "--start", "noon"}, {"noon"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", out, "--no-decode", "--chips"}, {"--chips"}));
    EXPECT_TRUE(usage_error_with({"plot", file, "-o", out, "--width", "300", "--text", "60"}, {"too small"}));
    EXPECT_TRUE(usage_error_with({"plot", file}, {"--output"}));
    EXPECT_FALSE(std::filesystem::exists(out));
}

}  // namespace
