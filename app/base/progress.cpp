#include "base/progress.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/text.h"
#include "base/utc.h"

namespace {

constexpr double LONG_S = 120;
constexpr int WIDTH = 20;

}  // namespace

Progress::Progress(std::string name, double seconds) : name_(std::move(name)), seconds_(seconds), begin_(utc_now()) {
    show(0, 0);
}

void Progress::show(double done_s, std::size_t spots) {
    if (seconds_ < LONG_S) return;
    line_.show(name_ + "  " + progress_text(done_s, seconds_, utc_now() - begin_, spots));
}

std::string progress_text(double done_s, double seconds, double elapsed_s, std::size_t spots) {
    const double share = seconds > 0 ? std::clamp(done_s / seconds, 0.0, 1.0) : 1.0;
    const auto filled = static_cast<std::size_t>(std::lround(share * WIDTH));
    std::string text = std::string(filled, '#') + std::string(WIDTH - filled, '.') + format("  %3.0f %%", 100 * share);
    if (done_s > 0 && elapsed_s > 0) {
        const auto left_s = static_cast<long>(std::ceil(elapsed_s * (1 - share) / share));
        text += format("  %5.1f x real time  %ld:%02ld left", done_s / elapsed_s, left_s / 60, left_s % 60);
    }
    return text + format("  %zu spot%s", spots, spots == 1 ? "" : "s");
}
