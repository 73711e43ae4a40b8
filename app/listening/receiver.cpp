#include "listening/receiver.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "spots/spot.h"

namespace {

constexpr double MOST_FILL_S = 10;  // a longer gap leaves too little of any frame
constexpr double FILL_STEP_S = 0.25;
constexpr double ROW_STEP_S = 0.1;

// What is searched, within the band of the samples.
Range band_of(const Search& search, int32_t rate) {
    const Range whole = whole_band(search.iq, rate);
    const double center = center_of(search);
    const Range asked =
        search.wide ? search.band.value_or(whole) : Range{center - search.search_hz, center + search.search_hz};
    return {std::max(asked.low, whole.low), std::min(asked.high, whole.high)};
}

}  // namespace

Receiver::Receiver(const ReceiverOptions& options, std::unique_ptr<Source> source, ReceiverTakers takers)
    : options_(options), source_(std::move(source)), takers_(std::move(takers)) {
    if (options_.record) {
        recorder_.emplace(*options_.record, [this](const std::string& text) { tell(options_.name, text); });
    }
    begin();
}

void Receiver::run() {
    attempt([this] { listen(); });
    attempt([this] {
        if (!halted_) end();
    });
    attempt([this] { source_->close(); });
    if (source_->failed() || decode_failed_) failed_ = true;
    if (recorder_) recorder_->close();
    if (options_.status_s > 0) tell_status();
}

// What goes wrong is told, and is no reason to leave out the rest.
void Receiver::attempt(const std::function<void()>& step) {
    std::string problem;
    try {
        step();
    } catch (const std::bad_alloc&) {
        problem = "memory is short";
    } catch (const std::exception& error) {
        problem = error.what();
    }
    if (problem.empty()) return;
    tell(options_.name, problem);
    failed_ = true;
}

Receiver::Level Receiver::level() const {
    const std::lock_guard guard(level_lock_);
    return level_;
}

void Receiver::listen() {
    status_at_ = monotonic_now() + options_.status_s;
    Piece piece;
    while (!interrupted() && !halted_) {
        const Source::State state = source_->read(piece);
        if (state == Source::State::ENDED) break;
        if (state == Source::State::BROKEN) end();
        if (state == Source::State::SAMPLES) take(piece);
        if (state == Source::State::NONE_YET) wait();
        tell_status_in_time();
    }
}

// The ear for what the source brings.
void Receiver::begin() {
    format_ = source_->format();
    options_.search.iq = format_.iq;
    tuning_ = options_.tuning.over(format_.tuning);
    ear_ = make_ear(
        format_, options_.search, options_.listener,
        [this](const Found& found, Standing standing) {
            if (standing == Standing::CONFIRMED) {
                spots_++;
                if (recorder_) recorder_->mark(spot_on_air(found));
            }
            takers_.spot(found, standing, tuning_);
        },
        [this](const std::string& text) { tell(options_.name, text); });
    fresh_ = true;
    clock_ = {};
    check_ = {};
    row_ = {};
    noise_ = {};
    row_at_s_ = options_.spectrum_s;
    if (options_.status_s > 0 || options_.spectrum_s > 0) {
        spectrum_.emplace(format_.rate, format_.iq, band_of(options_.search, format_.rate));
    }
}

Spot Receiver::spot_on_air(const Found& found) const {
    Spot spot = spot_of(found);
    if (tuning_) spot.rf_hz = tuning_->rf_hz(spot.freq_hz);
    return spot;
}

// Decodes what is left before a break.
void Receiver::end() {
    if (!ear_) return;
    ear_->finish([this](double captured_s) { return utc(captured_s); });
    decode_failed_ = ear_->last_decode_failed();
    captured_s_ += ear_->captured_s();
    decode_s_ += ear_->decode_seconds();
    ear_.reset();
}

void Receiver::take(const Piece& piece) {
    lost_s_ += piece.lost_s;
    if (piece.lost_s > MOST_FILL_S) {
        end();
        unheard_s_ += piece.lost_s;
    }
    if (!ear_) begin();
    if (piece.lost_s > 0 && piece.lost_s <= MOST_FILL_S) fill(piece.lost_s);
    ear_->push(piece.samples);
    taken_at_ = monotonic_now();
    const double now = utc_now();
    clock_.observe(ear_->captured_s(), now);
    const double lost_s = check_.observe(ear_->captured_s(), taken_at_);
    if (format_.iq && !options_.start) lost_s_ += lost_s;

    measure(piece);
    if (recorder_) record(piece);
    ear_->update([this](double captured_s) { return utc(captured_s); });
}

// A source that is silent for long has lost what would have continued its samples.
void Receiver::wait() {
    if (!ear_) return;
    if (!format_.waits && monotonic_now() - taken_at_ > options_.silent_s) {
        end();
    } else {
        ear_->update([this](double captured_s) { return utc(captured_s); });
    }
}

// The levels and spectra of what has just been taken.
void Receiver::measure(const Piece& piece) {
    LevelMeter meter;
    meter.add(piece.samples);
    meter_.add(piece.samples);
    const double at = utc(ear_->captured_s());
    {
        const std::lock_guard guard(level_lock_);
        level_ = {meter.rms_db(), meter.peak_db(), std::isnan(at) ? utc_now() : at};
    }
    if (!spectrum_) return;
    // What comes after a long decode is more than a row.
    const std::size_t width = format_.iq ? 2 : 1;
    const auto step = width * static_cast<std::size_t>(std::max(1.0, ROW_STEP_S * format_.rate));
    for (std::span<const float> rest = piece.samples; !rest.empty();) {
        const auto some = rest.first(std::min(step, rest.size()));
        rest = rest.subspan(some.size());
        spectrum_->push(some, [this](std::span<const float> power) {
            row_.add(power);
            noise_.add(power);
        });
        give_row(ear_->captured_s() - static_cast<double>(rest.size()) / static_cast<double>(width) / format_.rate);
    }
}

// The row that ends there, if it is time.
void Receiver::give_row(double captured_s) {
    if (options_.spectrum_s <= 0 || captured_s < row_at_s_ || row_.empty()) return;
    row_at_s_ += options_.spectrum_s * std::ceil((captured_s - row_at_s_ + 1e-9) / options_.spectrum_s);
    takers_.row(
        {.receiver = options_.name, .utc = utc(captured_s), .band = spectrum_->band(), .levels_db = row_.take_db()});
}

void Receiver::record(const Piece& piece) {
    const double seconds = static_cast<double>(piece.samples.size()) / (format_.iq ? 2 : 1) / format_.rate;
    const bool broken = std::exchange(fresh_, false) || piece.lost_s > 0;
    recorder_->take(piece.samples, utc(ear_->captured_s() - seconds), format_, tuning_, broken);
}

// Silence in place of what was lost keeps the rest of a frame where it belongs.
void Receiver::fill(double seconds) {
    const std::size_t width = format_.iq ? 2 : 1;
    const auto step = static_cast<std::size_t>(FILL_STEP_S * format_.rate);
    const std::vector<float> silence(width * step);
    for (auto left = static_cast<std::size_t>(std::llround(seconds * format_.rate)); left > 0;) {
        const std::size_t count = std::min(left, step);
        ear_->push(std::span(silence).first(width * count));
        left -= count;
    }
}

double Receiver::utc(double captured_s) const {
    return options_.start ? *options_.start + unheard_s_ + captured_s_ + captured_s : clock_.utc(captured_s);
}

void Receiver::tell_status_in_time() {
    if (options_.status_s <= 0 || monotonic_now() < status_at_) return;
    status_at_ += options_.status_s;
    tell_status();
}

void Receiver::tell_status() {
    const double decode_s = decode_s_ + (ear_ ? ear_->decode_seconds() : 0);
    takers_.status({.receiver = options_.name,
                    .utc = utc_now(),
                    .rate = format_.rate,
                    .level_db = meter_.rms_db(),
                    .peak_db = meter_.peak_db(),
                    .noise_db = noise_.empty() ? std::nullopt : std::optional(median_db(noise_.take_db())),
                    .clipped = meter_.clipped(),
                    .captured_s = captured_s_ + (ear_ ? ear_->captured_s() : 0),
                    .lost_s = lost_s_,
                    .clock_error_ppm = check_.error_ppm(),
                    .decode_s = decode_s - std::exchange(told_decode_s_, decode_s),
                    .spots = spots_});
    meter_ = {};
}
