#include "pictures/history.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

#include "base/text.h"
#include "base/utc.h"

namespace {

constexpr double LEAST_S = 60, LEAST_DB = 6, LEAST_HZ = 2;  // that an axis shows
constexpr double MARGIN = 0.05;                             // of it, beyond the points
constexpr double LEAST_AREA = 40;                           // pixels each way
constexpr double MARK = 4;                                  // pixels

constexpr Colour INK = {0.13, 0.13, 0.13};
constexpr Colour SOFT_INK = {0.4, 0.4, 0.4};
constexpr Colour GRID = {0.88, 0.88, 0.88};
constexpr Colour BLUE = {0, 0.447, 0.698};
constexpr Colour ORANGE = {0.902, 0.624, 0};

using Align = TextStyle::Align;

struct Span {
    double low, high;
};

// What an axis shows of some values: no less than `least`.
Span span_of(const std::vector<double>& values, double least) {
    if (values.empty()) return {0, least};
    const auto [low, high] = std::ranges::minmax(values);
    const double middle = (low + high) / 2;
    const double half = (0.5 + MARGIN) * std::max(high - low, least);
    return {middle - half, middle + half};
}

class Panel {
  public:
    Panel(Canvas& canvas, const PictureLayout& layout, const Box& area, Span times, Span values)
        : canvas_(canvas), size_(layout.text_size), area_(area), times_(times), values_(values) {}

    void draw_axes(const std::string& name, bool with_times) const {
        canvas_.fill(area_, {1, 1, 1});
        for (const Tick& tick : number_ticks(values_.low, values_.high, most(area_.height, 2.5))) {
            const double at = std::round(y(tick.value)) + 0.5;
            canvas_.line({area_.left, at}, {area_.right(), at}, GRID, 1);
            canvas_.text({area_.left - 0.6 * size_, at + 0.36 * size_}, tick.label, {size_, INK, Align::RIGHT});
        }
        for (const Tick& tick : date_ticks(times_.low, times_.high, most(area_.width, 8))) {
            const double at = std::round(x(tick.value)) + 0.5;
            canvas_.line({at, area_.top}, {at, area_.bottom()}, GRID, 1);
            if (with_times) {
                canvas_.text({at, area_.bottom() + 1.6 * size_}, tick.label, {size_, INK, Align::CENTRE});
            }
        }
        canvas_.outline(area_, SOFT_INK, 1);
        canvas_.text({1.3 * size_, area_.top + area_.height / 2}, name, {size_, SOFT_INK, Align::CENTRE, false, true});
    }

    void draw_mark(double time, double value, bool deep) const {
        const Box mark = {x(time) - MARK / 2, y(value) - MARK / 2, MARK, MARK};
        canvas_.fill(mark, deep ? ORANGE : BLUE);
    }

  private:
    double x(double time) const { return area_.left + (time - times_.low) / (times_.high - times_.low) * area_.width; }
    double y(double value) const {
        return area_.top + (values_.high - value) / (values_.high - values_.low) * area_.height;
    }
    int32_t most(double pixels, double texts) const {
        return std::max(2, static_cast<int32_t>(pixels / (texts * size_)));
    }

    Canvas& canvas_;
    double size_;
    Box area_;
    Span times_, values_;
};

}  // namespace

std::vector<Tick> date_ticks(double from_utc, double to_utc, int32_t most) {
    if (to_utc - from_utc < 2 * DAY_S) {
        // Those of a recording that begins at the midnight before.
        const double midnight = DAY_S * std::floor(from_utc / DAY_S);
        std::vector<Tick> ticks = time_ticks(from_utc - midnight, to_utc - midnight, most, midnight);
        for (Tick& tick : ticks) tick.value += midnight;
        return ticks;
    }
    constexpr std::array STEPS = {1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000};
    const auto fits = [&](int days) { return (to_utc - from_utc) / (DAY_S * days) <= most; };
    const auto* const step = std::ranges::find_if(STEPS, fits);
    const double step_s = DAY_S * (step == STEPS.end() ? STEPS.back() : *step);
    std::vector<Tick> ticks;
    for (auto k = static_cast<int64_t>(std::ceil(from_utc / step_s)); static_cast<double>(k) * step_s <= to_utc; k++) {
        const double time = static_cast<double>(k) * step_s;
        ticks.push_back({time, utc_text(time, 0).substr(0, 10)});
    }
    return ticks;
}

std::string draw_history(const PictureLayout& layout, const std::vector<HistoryPoint>& points) {
    const double size = layout.text_size;
    Canvas canvas(layout.format, layout.width, layout.height);
    canvas.text({5.5 * size, 1.7 * size}, layout.title, {1.1 * size, INK, Align::LEFT, true});
    const double width = layout.width - 7.5 * size;
    const double height = (layout.height - 7.5 * size) / 2;
    if (points.empty() || width < LEAST_AREA || height < LEAST_AREA) return canvas.finish();

    std::vector<double> times;
    std::vector<double> snrs;
    std::vector<double> frequencies;
    times.reserve(points.size());
    frequencies.reserve(points.size());
    const double origin =
        std::floor(std::ranges::min_element(points, {}, [](const HistoryPoint& point) { return point.hz; })->hz);
    for (const HistoryPoint& point : points) {
        times.push_back(point.utc);
        frequencies.push_back(point.hz - origin);
        if (point.snr_db) snrs.push_back(*point.snr_db);
    }
    const Span when = span_of(times, LEAST_S);
    const Panel upper(canvas, layout, {5.5 * size, 2.5 * size, width, height}, when, span_of(snrs, LEAST_DB));
    const Panel lower(canvas, layout, {5.5 * size, 3.5 * size + height, width, height}, when,
                      span_of(frequencies, LEAST_HZ));
    upper.draw_axes("SNR, dB", false);
    lower.draw_axes(format("Hz above %.0f", origin), true);
    for (const HistoryPoint& point : points) {
        if (point.snr_db) upper.draw_mark(point.utc, *point.snr_db, point.deep);
        lower.draw_mark(point.utc, point.hz - origin, point.deep);
    }
    canvas.text({5.5 * size + width / 2, layout.height - 0.6 * size}, "UTC", {size, SOFT_INK, Align::CENTRE});
    return canvas.finish();
}
