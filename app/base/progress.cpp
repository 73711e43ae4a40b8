#include "base/progress.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/text.h"
#include "base/utc.h"

namespace {

constexpr double LONG_S = 120;
constexpr std::size_t WIDTH = 20, LEAST_WIDTH = 5;
constexpr double OFTEN_S = 0.1, SMALL_SHARE = 0.01;  // no line after less of both

double share_of(double done_s, double seconds) {
    return seconds > 0 ? std::clamp(done_s / seconds, 0.0, 1.0) : 1.0;
}

std::string bar(double share, std::size_t width) {
    const auto filled = static_cast<std::size_t>(std::lround(share * static_cast<double>(width)));
    return std::string(filled, '#') + std::string(width - filled, '.');
}

// "  0:12 left"; nothing while that is unknown.
std::string time_left(double share, double elapsed_s) {
    if (!(share > 0 && elapsed_s > 0)) return "";
    const auto left_s = static_cast<long>(std::ceil(elapsed_s * (1 - share) / share));
    return format("  %ld:%02ld left", left_s / 60, left_s % 60);
}

}  // namespace

Progress::Progress(std::string name, double seconds, std::optional<std::size_t> spots)
    : name_(std::move(name)), seconds_(seconds), begin_(utc_now()), shown_utc_(begin_ - OFTEN_S), shown_s_(0) {
    show(0, spots);
}

void Progress::show(double done_s, std::optional<std::size_t> spots) {
    if (seconds_ < LONG_S) return;
    const double now = utc_now();
    const bool soon = std::abs(now - shown_utc_) < OFTEN_S && done_s - shown_s_ < SMALL_SHARE * seconds_;
    if (soon && done_s < seconds_) return;
    line_.show(progress_line(name_, done_s, seconds_, now - begin_, spots, line_.columns()));
    shown_utc_ = now;
    shown_s_ = done_s;
}

std::string progress_text(double done_s, double seconds, double elapsed_s, std::optional<std::size_t> spots) {
    const double share = share_of(done_s, seconds);
    std::string text = bar(share, WIDTH) + format("  %3.0f %%", 100 * share);
    if (done_s > 0 && elapsed_s > 0) {
        text += format("  %5.1f x real time", done_s / elapsed_s) + time_left(share, elapsed_s);
    }
    if (spots) text += format("  %zu spot%s", *spots, *spots == 1 ? "" : "s");
    return text;
}

std::string progress_line(const std::string& name, double done_s, double seconds, double elapsed_s,
                          std::optional<std::size_t> spots, std::size_t columns) {
    std::string line = name + "  " + progress_text(done_s, seconds, elapsed_s, spots);
    if (columns_of(line) <= columns) return line;
    const double share = share_of(done_s, seconds);
    line = format("%3.0f %%", 100 * share) + time_left(share, elapsed_s);
    if (columns >= line.size() + 2 + LEAST_WIDTH) {
        line += "  " + bar(share, std::min(WIDTH, columns - line.size() - 2)) + "  " + name;
    }
    return first_columns(line, columns);
}
