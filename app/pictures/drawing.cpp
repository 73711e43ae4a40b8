#include "pictures/drawing.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "base/text.h"
#include "liborvel.h"
#include "pictures/axis.h"
#include "pictures/colour_map.h"
#include "pictures/labels.h"
#include "spots/spot.h"

namespace {

constexpr double LEAST_AREA = 100;    // pixels each way
constexpr double FRAME_HALF_HZ = 10;  // of an outline; the keying is within 8 Hz of the carrier
constexpr double FRAME_HALF_PX = 5;   // at least
constexpr double RADIO_AXIS = 7.6;    // times the text size: its width

constexpr Colour INK = {0.13, 0.13, 0.13};
constexpr Colour SOFT_INK = {0.4, 0.4, 0.4};
constexpr Colour GRID = {0.88, 0.88, 0.88};
constexpr Colour WHITE = {1, 1, 1};
constexpr Colour SHADOW = {0, 0, 0, 0.5};
constexpr Colour LABEL_GROUND = {0, 0, 0, 0.7};

// From the colours that M. Okabe and K. Ito (2008) chose to be distinguishable to everyone.
constexpr Colour BLUE = {0, 0.447, 0.698};
constexpr Colour ORANGE = {0.902, 0.624, 0};
constexpr Colour VERMILION = {0.835, 0.369, 0};

using Align = TextStyle::Align;

// Cuts a text that is too wide, at a whole character, and marks the cut with an ellipsis.
std::string shortened(Canvas& canvas, std::string text, double size, bool bold, double room) {
    constexpr std::size_t MOST_BYTES = 500;  // far more than fits any picture
    const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
    if (text.size() > MOST_BYTES) {
        text.resize(MOST_BYTES);
    } else if (canvas.text_width(text, size, bold) <= room) {
        return text;
    }
    while (!text.empty() && canvas.text_width(text + "…", size, bold) > room) {
        while (text.size() > 1 && continues(text.back())) text.pop_back();
        text.pop_back();
    }
    return text.empty() ? text : text + "…";
}

// A number with a typographic minus sign.
std::string figure(double value, int decimals, bool show_sign = false) {
    std::string text = cell(value, decimals, show_sign);
    if (text.starts_with('-')) text.replace(0, 1, "\u2212");
    return text;
}

std::string snr_text(const ov_spot& spot) {
    const auto snr_db = spot_of(spot).snr_db;
    return snr_db ? figure(*snr_db, 1) + " dB" : "";
}

// Title on the left, note on the right of the line above an area.
void draw_heading(Canvas& canvas, const PictureLayout& layout, double left, double right, double base,
                  const std::string& title, const std::string& note) {
    const double size = layout.text_size;
    const double note_size = 0.9 * size;
    const std::string shown = shortened(canvas, note, note_size, false, 0.6 * (right - left));
    canvas.text({right, base}, shown, {note_size, SOFT_INK, Align::RIGHT});
    const double room = right - left - canvas.text_width(shown, note_size) - size;
    canvas.text({left, base}, shortened(canvas, title, 1.1 * size, true, room), {1.1 * size, INK, Align::LEFT, true});
}

// ---- Waterfall ------------------------------------------------------------------------------------------------------

struct Scale {
    View view;
    Box area;

    double x(double t) const { return area.left + (t - view.from_s) / (view.to_s - view.from_s) * area.width; }
    double y(double hz) const { return area.top + (view.high_hz - hz) / (view.high_hz - view.low_hz) * area.height; }
};

Raster coloured(const PowerGrid& grid, const LevelRange& levels) {
    Raster raster{grid.columns, grid.rows, {}};
    raster.pixels.reserve(grid.db.size());
    for (const float db : grid.db)
        raster.pixels.push_back(viridis((db - levels.low_db) / (levels.high_db - levels.low_db)));
    return raster;
}

void draw_time_axis(Canvas& canvas, const PictureLayout& layout, const Scale& scale, std::optional<double> start_utc) {
    const double size = layout.text_size;
    const double bottom = scale.area.bottom();
    const auto most = static_cast<int32_t>(scale.area.width / (6 * size));
    for (const Tick& tick : time_ticks(scale.view.from_s, scale.view.to_s, most, start_utc)) {
        const double x = std::round(scale.x(tick.value)) + 0.5;
        canvas.line({x, bottom}, {x, bottom + 0.4 * size}, INK, 1);
        canvas.text({x, bottom + 1.6 * size}, tick.label, {size, INK, Align::CENTRE});
    }
    canvas.text({scale.area.left + scale.area.width / 2, bottom + 3.1 * size},
                time_axis_name(scale.view.from_s, scale.view.to_s, start_utc), {size, SOFT_INK, Align::CENTRE});
}

// Frequencies in Hz, or of wide bands in kHz.
void draw_frequency_axis(Canvas& canvas, const PictureLayout& layout, const Scale& scale) {
    const double size = layout.text_size;
    const double left = scale.area.left;
    const double unit = std::max(std::abs(scale.view.low_hz), std::abs(scale.view.high_hz)) >= 20000 ? 1000 : 1;
    const auto most = static_cast<int32_t>(scale.area.height / (3 * size));
    for (const Tick& tick : number_ticks(scale.view.low_hz / unit, scale.view.high_hz / unit, most)) {
        const double y = std::round(scale.y(unit * tick.value)) + 0.5;
        canvas.line({left - 0.4 * size, y}, {left, y}, INK, 1);
        canvas.text({left - 0.6 * size, y + 0.36 * size}, tick.label, {size, INK, Align::RIGHT});
    }
    canvas.text({1.3 * size, scale.area.top + scale.area.height / 2}, unit > 1 ? "frequency, kHz" : "frequency, Hz",
                {size, SOFT_INK, Align::CENTRE, false, true});
}

// Frequencies on the air in kHz, to the right of the area.
void draw_radio_axis(Canvas& canvas, const PictureLayout& layout, const Scale& scale, const Tuning& tuning) {
    const double size = layout.text_size;
    const double right = scale.area.right();
    const double sign = tuning.sideband == Sideband::LOWER ? -1 : 1;
    const auto [low, high] = std::minmax({tuning.rf_hz(scale.view.low_hz), tuning.rf_hz(scale.view.high_hz)});
    const auto most = static_cast<int32_t>(scale.area.height / (3 * size));
    for (const Tick& tick : number_ticks(low / 1000, high / 1000, most)) {
        const double y = std::round(scale.y(sign * (1000 * tick.value - tuning.dial_hz))) + 0.5;
        canvas.line({right, y}, {right + 0.4 * size, y}, INK, 1);
        canvas.text({right + 0.6 * size, y + 0.36 * size}, tick.label, {size, INK});
    }
    canvas.text({right + (RADIO_AXIS - 0.2) * size, scale.area.top + scale.area.height / 2}, "radio frequency, kHz",
                {size, SOFT_INK, Align::CENTRE, false, true});
}

void draw_colour_bar(Canvas& canvas, const PictureLayout& layout, const Box& area, double left,
                     const LevelRange& levels) {
    const double size = layout.text_size;
    const Box bar = {std::round(left + 1.2 * size), area.top, std::round(1.1 * size), area.height};
    constexpr int32_t STEPS = 256;
    Raster raster{1, STEPS, {}};
    for (int32_t step = 0; step < STEPS; step++) raster.pixels.push_back(viridis(1 - (step + 0.5) / STEPS));
    canvas.image(bar, raster);
    const double low = levels.low_db - levels.median_db;
    const double high = levels.high_db - levels.median_db;
    for (const Tick& tick : number_ticks(low, high, static_cast<int32_t>(bar.height / (3 * size)))) {
        const double y = std::round(bar.bottom() - (tick.value - low) / (high - low) * bar.height);
        canvas.line({bar.right(), y}, {bar.right() + 0.3 * size, y}, INK, 1);
        canvas.text({bar.right() + 0.5 * size, y + 0.36 * size}, tick.label, {size, INK});
    }
    canvas.text({layout.width - 0.7 * size, area.top + area.height / 2}, "dB above the median",
                {size, SOFT_INK, Align::CENTRE, false, true});
}

// A label's parts, set apart so that both can be read at a glance.
std::string label_text(const ov_spot& spot) {
    const std::string snr = snr_text(spot);
    return std::string(spot.call) + (snr.empty() ? "" : "  " + snr);
}

Box bounds(const std::vector<Point>& corners) {
    double left = corners[0].x;
    double right = left;
    double top = corners[0].y;
    double bottom = top;
    for (const Point& corner : corners) {
        left = std::min(left, corner.x);
        right = std::max(right, corner.x);
        top = std::min(top, corner.y);
        bottom = std::max(bottom, corner.y);
    }
    return {left, top, right - left, bottom - top};
}

// Draws outlines and labels. Returns how many labels found no place.
int32_t draw_frames(Canvas& canvas, const PictureLayout& layout, const Scale& scale, std::vector<ov_spot> spots) {
    std::erase_if(spots,
                  [&](const ov_spot& spot) { return spot.freq < scale.view.low_hz || spot.freq > scale.view.high_hz; });
    std::stable_sort(spots.begin(), spots.end(), [](const ov_spot& a, const ov_spot& b) { return a.snr > b.snr; });
    const double size = 0.92 * layout.text_size;
    std::vector<LabelWish> wishes;
    canvas.clip(scale.area);
    for (const ov_spot& spot : spots) {
        const std::vector<Point> corners = frame_outline(spot, scale.view, scale.area);
        canvas.polygon(corners, SHADOW, 3.5);
        canvas.polygon(corners, WHITE, 1.5);
        wishes.push_back({bounds(corners), canvas.text_width(label_text(spot), size) + 0.8 * size, 1.45 * size,
                          canvas.text_width(spot.call, size) + 0.8 * size});
    }
    canvas.unclip();

    const std::vector<LabelPlace> places = place_labels(scale.area, wishes);
    int32_t left_out = 0;
    for (std::size_t k = 0; k < spots.size(); k++) {
        const Box& box = places[k].box;
        if (!places[k].placed) {
            left_out++;
            continue;
        }
        if (places[k].away) {
            const bool above = box.bottom() <= wishes[k].frame.top;
            const double x = std::clamp(box.left + box.width / 2, std::max(wishes[k].frame.left, scale.area.left),
                                        std::min(wishes[k].frame.right(), scale.area.right()));
            canvas.line({x, above ? box.bottom() : box.top},
                        {x, above ? wishes[k].frame.top : wishes[k].frame.bottom()}, WHITE, 1);
        }
        canvas.fill(box, LABEL_GROUND);
        canvas.text({box.left + 0.4 * size, box.top + 1.08 * size},
                    places[k].shortened ? spots[k].call : label_text(spots[k]), {size, WHITE});
    }
    return left_out;
}

}  // namespace

std::optional<Box> waterfall_area(const PictureLayout& layout, bool with_radio_axis) {
    const double size = layout.text_size;
    const double left = std::ceil(5.6 * size);
    const double top = std::ceil(2.4 * size);
    const double right = (with_radio_axis ? 7.6 + RADIO_AXIS : 7.6) * size;
    const Box area = {left, top, std::floor(layout.width - left - right), std::floor(layout.height - top - 3.9 * size)};
    if (area.width < LEAST_AREA || area.height < LEAST_AREA) return std::nullopt;
    return area;
}

std::vector<Point> frame_outline(const ov_spot& spot, const View& view, const Box& area) {
    const Scale scale{view, area};
    const double end = spot_end(spot);
    const double swing = spot.drift * (end - spot.t) / 2;
    const double half = std::max(FRAME_HALF_PX, FRAME_HALF_HZ / (view.high_hz - view.low_hz) * area.height);
    const double first = scale.y(spot.freq - swing);
    const double last = scale.y(spot.freq + swing);
    return {{scale.x(spot.t), first + half},
            {scale.x(spot.t), first - half},
            {scale.x(end), last - half},
            {scale.x(end), last + half}};
}

std::string draw_waterfall(const PictureLayout& layout, const WaterfallPicture& picture) {
    const Box area = waterfall_area(layout, picture.tuning.has_value()).value();
    const Scale scale{picture.view, area};
    Canvas canvas(layout.format, layout.width, layout.height);
    canvas.image(area, coloured(picture.grid, picture.levels));
    canvas.outline({area.left - 0.5, area.top - 0.5, area.width + 1, area.height + 1}, INK, 1);
    draw_time_axis(canvas, layout, scale, picture.start_utc);
    draw_frequency_axis(canvas, layout, scale);
    if (picture.tuning) draw_radio_axis(canvas, layout, scale, *picture.tuning);
    const double bar_left = area.right() + (picture.tuning ? RADIO_AXIS * layout.text_size : 0);
    draw_colour_bar(canvas, layout, area, bar_left, picture.levels);
    const int32_t left_out = draw_frames(canvas, layout, scale, picture.spots);
    std::string note = picture.note;
    if (left_out > 0) note += ", " + std::to_string(left_out) + (left_out == 1 ? " label" : " labels") + " left out";
    draw_heading(canvas, layout, area.left, area.right(), 1.6 * layout.text_size, layout.title, note);
    return canvas.finish();
}

// ---- Chips ----------------------------------------------------------------------------------------------------------

namespace {

constexpr double LEAST_BAR = 0.8;  // times the text size: a chip's share of a row
constexpr double LEAST_ROW = 7;    // times the text size: a row's height
constexpr double ROW_FOOT = 3.4;   // times the text size: decided chips and their numbers

// Energies as bars: their height is the amplitude, so that weak and strong chips can both be seen.
struct ChipRow {
    Box area;
    double most;  // amplitude at the top
    std::size_t first, count, room;

    double x(double chip) const {
        return area.left + (chip - static_cast<double>(first)) / static_cast<double>(room) * area.width;
    }
    double y(double energy) const { return area.bottom() - std::min(std::sqrt(energy) / most, 1.0) * area.height; }
};

void draw_energy_axis(Canvas& canvas, double size, const ChipRow& row) {
    double last_y = HUGE_VAL;
    double decade = 1;
    const auto tick = [&](double energy, const std::string& label) {
        const double y = std::round(row.y(energy)) + 0.5;
        if (y < row.area.top || last_y - y < 1.3 * size) return;
        last_y = y;
        if (energy > 0) canvas.line({row.area.left, y}, {row.area.right(), y}, GRID, 1);
        canvas.text({row.area.left - 0.5 * size, y + 0.33 * size}, label, {0.9 * size, INK, Align::RIGHT});
    };
    tick(0, "0");
    for (int step = 0; step < 12; step++) {
        for (const double factor : {1.0, 2.0, 5.0}) {
            if (std::sqrt(factor * decade) < row.most) tick(factor * decade, cell(factor * decade, 0));
        }
        decade *= 10;
    }
}

void draw_cross(Canvas& canvas, Point centre, double half) {
    for (const double side : {-1.0, 1.0}) {
        canvas.line({centre.x - half, centre.y - side * half}, {centre.x + half, centre.y + side * half}, VERMILION, 2);
    }
}

void draw_chip_row(Canvas& canvas, double size, const ChipView& view, const ChipRow& row) {
    draw_energy_axis(canvas, size, row);
    const double width = row.area.width / static_cast<double>(row.room);
    const double gap = std::max(1.0, 0.15 * width);
    const double strip = row.area.bottom() + 0.5 * size;
    const double high = 0.8 * size;
    for (std::size_t chip = row.first; chip < row.first + row.count; chip++) {
        const double left = row.x(static_cast<double>(chip)) + gap / 2;
        const bool on = view.chips[chip] != 0;
        if (view.measured(chip)) {
            const double top = row.y(view.energy[chip]);
            canvas.fill({left, top, width - gap, row.area.bottom() - top}, on ? BLUE : ORANGE);
            if (view.wrong(chip)) {
                const double half = std::min(0.3 * size, 0.4 * width);
                draw_cross(canvas, {left + (width - gap) / 2, std::max(top - 0.5 * size, row.area.top + half)}, half);
            }
        } else {
            canvas.fill({left, row.area.top, width - gap, row.area.height}, GRID);
        }
        const Box decided = {left, strip, width - gap, high};
        if (on) {
            canvas.fill(decided, INK);
        } else {
            canvas.outline({left + 0.5, strip + 0.5, width - gap - 1, high - 1}, SOFT_INK, 0.8);
        }
        if (chip % 10 == 0) {
            canvas.text({left + (width - gap) / 2, strip + high + 1.1 * size}, std::to_string(chip),
                        {0.9 * size, INK, Align::CENTRE});
        }
    }
    canvas.line({row.area.left, row.y(view.threshold)},
                {row.x(static_cast<double>(row.first + row.count)), row.y(view.threshold)}, SOFT_INK, 1.2);
    canvas.line({row.area.left, row.area.bottom() + 0.5}, {row.area.right(), row.area.bottom() + 0.5}, INK, 1);
}

void draw_legend(Canvas& canvas, double size, double left, double base) {
    const double side = 0.8 * size;
    const auto entry = [&](const std::string& text) {
        left += 1.3 * size;
        canvas.text({left, base}, text, {0.92 * size, INK});
        left += canvas.text_width(text, 0.92 * size) + 1.6 * size;
    };
    canvas.fill({left, base - side, side, side}, BLUE);
    entry("decided on");
    canvas.fill({left, base - side, side, side}, ORANGE);
    entry("decided off");
    draw_cross(canvas, {left + side / 2, base - side / 2}, 0.35 * size);
    entry("measured otherwise");
    canvas.line({left, base - side / 2}, {left + size, base - side / 2}, SOFT_INK, 1.2);
    entry("threshold");
}

}  // namespace

std::string draw_chips(const PictureLayout& layout, const ChipView& view, const std::optional<Tuning>& tuning) {
    const double size = layout.text_size;
    const Box all = {4.8 * size, 4.2 * size, layout.width - 6 * size, layout.height - 6.4 * size};
    const std::size_t chips = view.chips.size();
    const double wanted = std::ceil(static_cast<double>(chips) * LEAST_BAR * size / all.width);
    const auto rows =
        static_cast<std::size_t>(std::clamp(std::floor(all.height / (LEAST_ROW * size)), 1.0, std::max(wanted, 1.0)));
    const std::size_t room = (chips + rows - 1) / rows;
    const double strongest = *std::max_element(view.energy.begin(), view.energy.end());
    const double most = 1.12 * std::sqrt(std::max({strongest, 2 * view.threshold, 1.0}));

    Canvas canvas(layout.format, layout.width, layout.height);
    const ov_spot& spot = view.spot;
    const std::string title = std::string(spot.call) +
                              (spot.locator[0] != '\0' ? std::string(" ") + spot.locator : "") + "  " +
                              ovl_proto_name(static_cast<uint32_t>(spot.protocol));
    std::string place =
        figure(spot.t, 2) + " s,  " + figure(spot.freq, 1) + " Hz,  " + figure(spot.drift, 3, true) + " Hz/s";
    if (tuning) place += ",  on the air " + figure(tuning->rf_hz(spot.freq) / 1000, 4) + " kHz";
    if (!snr_text(spot).empty()) place += ",  " + snr_text(spot);
    draw_heading(canvas, layout, all.left, all.left + all.width, 1.6 * size, title, layout.title);
    const std::string counts = std::to_string(view.measured_count()) + " of " + std::to_string(chips) +
                               " chips measured, " + std::to_string(view.wrong_count()) + " otherwise than decided";
    canvas.text({all.left, 3.2 * size}, shortened(canvas, place + "   \u2013   " + counts, size, false, all.width),
                {size, SOFT_INK});

    const double height = all.height / static_cast<double>(rows);
    for (std::size_t row = 0; row < rows && row * room < chips; row++) {
        const Box area = {all.left, std::round(all.top + static_cast<double>(row) * height), all.width,
                          std::floor(height - ROW_FOOT * size)};
        draw_chip_row(canvas, size, view, {area, most, row * room, std::min(room, chips - row * room), room});
    }
    canvas.text({1.3 * size, all.top + all.height / 2}, "energy of a chip, noise = 1",
                {size, SOFT_INK, Align::CENTRE, false, true});
    draw_legend(canvas, size, all.left, layout.height - 0.9 * size);
    return canvas.finish();
}
