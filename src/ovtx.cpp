// All times are kept absolute: a segment starts at its own rounded sample, so rounding errors never accumulate. Every
// edge is a raised cosine that begins where the segment does; between equal neighbours it is flat.
#include "ovtx.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <numbers>

#include "protocol.h"

namespace {

constexpr double GLIDE_SECONDS = 0.01;  // time constant of level changes
constexpr std::size_t FIRST_SEGMENTS = 512;
constexpr double TWO_PI = 2 * std::numbers::pi;

int32_t fail(ovtx_state& tx, const char* pattern, const char* call = "", const char* locator = "") {
    std::snprintf(tx.error, sizeof tx.error, pattern, call, locator);
    return -1;
}

// The message for settings that cannot be used, or null.
const char* complaint(const ovl_tx_settings* settings, const ovl_tx_step* steps, int32_t n) {
    if (steps == nullptr || n < 1 || settings == nullptr) return "empty sequence%s%s";
    if (n > OVTX_MAX_STEPS) return "too many steps (max 64)%s%s";
    if (settings->sample_rate < 8000 || settings->sample_rate > 384000) {
        return "sample rate out of range (8000-384000 Hz)%s%s";
    }
    if (!(settings->tone_hz > 0) || !(settings->sample_rate * 0.45 > settings->tone_hz)) {
        return "tone frequency out of range%s%s";
    }
    if (!(settings->level > 0) || !(settings->level <= 1)) return "level out of range (0 < level <= 1)%s%s";
    if (!(settings->ramp_s >= 0) || !(settings->ramp_s <= 0.05)) return "ramp out of range (0-50 ms)%s%s";
    return nullptr;
}

double sample_at(const ovtx_state& tx, double time_s) {
    return std::floor(tx.settings.sample_rate * time_s + 0.5);
}

void add_seg(ovtx_state& tx, double time_s, bool on, int32_t step, int32_t chip) {
    tx.segments.push_back({static_cast<int32_t>(sample_at(tx, time_s)), on ? 1.0f : 0.0f, static_cast<int16_t>(step),
                           static_cast<int16_t>(chip)});
}

constexpr const char* DURATION_TEXT = "carrier or pause duration out of range (0.05-3600 s)%s%s";

// Positions are 32 bits wide; only long carriers and pauses can add up to more.
bool fits(const ovtx_state& tx, double end_s) {
    return sample_at(tx, end_s) + tx.ramp <= std::numeric_limits<int32_t>::max();
}

// Adds a frame at time_s and moves time_s to its end.
int32_t add_frame(ovtx_state& tx, int32_t step, double& time_s) {
    const ovl_tx_step& s = tx.steps[step];
    const ov_protocol* const protocol = ov_protocol_by_id(static_cast<uint32_t>(s.protocol));
    if (protocol == nullptr) return fail(tx, "unknown protocol in a frame step%s%s");
    std::array<uint8_t, OV_MAX_CHIPS> frame;
    if (encode_frame(*protocol, s.call, s.locator, frame.data()) != 0) {
        return fail(tx, "cannot encode %s %s", s.call, s.locator);
    }

    const int32_t chips = protocol->chips();
    if (!fits(tx, time_s + chips * OV_CHIP_SECONDS)) return fail(tx, DURATION_TEXT);
    tx.chips[step] = chips;
    for (int32_t j = 0; j < chips; j++) {
        add_seg(tx, time_s + j * OV_CHIP_SECONDS, frame[static_cast<std::size_t>(j)] != 0, step, j);
    }
    time_s += chips * OV_CHIP_SECONDS;
    return 0;
}

int32_t add_step(ovtx_state& tx, int32_t step, double& time_s) {
    const ovl_tx_step& s = tx.steps[step];
    switch (s.kind) {
        case OVL_TX_FRAME:
            return add_frame(tx, step, time_s);
        case OVL_TX_CARRIER:
        case OVL_TX_PAUSE:
            if (!(s.seconds >= 0.05) || !(s.seconds <= 3600) || !fits(tx, time_s + s.seconds)) {
                return fail(tx, DURATION_TEXT);
            }
            add_seg(tx, time_s, s.kind == OVL_TX_CARRIER, step, -1);
            time_s += s.seconds;
            return 0;
        default:
            return fail(tx, "unknown step kind%s%s");
    }
}

// Raised-cosine edge from 0 to 1 over 0 ≤ x < 1.
double edge(double x) {
    return x < 1 ? (1 - std::cos(std::numbers::pi * x)) / 2 : 1;
}

// Envelope of the sequence at sample p before its end.
double sequence_amplitude(ovtx_state& tx, int32_t p) {
    const double ramp = tx.ramp;
    if (p >= tx.length) return tx.segments.back().amplitude * (1 - edge((p - tx.length) / ramp));

    auto k = static_cast<std::size_t>(tx.segment.load(std::memory_order_relaxed));
    while (k + 1 < tx.segments.size() && tx.segments[k + 1].start <= p) k++;
    tx.segment.store(static_cast<int32_t>(k), std::memory_order_relaxed);
    const ovtx_seg& now = tx.segments[k];
    const double before = k > 0 ? tx.segments[k - 1].amplitude : 0;
    return before + (now.amplitude - before) * edge((p - now.start) / ramp);
}

// Envelope at sample p, stop ramp included; false when nothing is left to render.
bool next_amplitude(ovtx_state& tx, int32_t p, float& amplitude) {
    int32_t stop = tx.stop_position.load(std::memory_order_relaxed);
    if (stop < 0 && tx.stop_requested.load(std::memory_order_relaxed) != 0) {
        stop = p;
        tx.stop_position.store(stop, std::memory_order_relaxed);
        tx.stop_amplitude = tx.last_amplitude;
    }
    if (stop >= 0) {
        if (p - stop >= tx.ramp) return false;
        amplitude = static_cast<float>(tx.stop_amplitude * (1 - edge((p - stop) / static_cast<double>(tx.ramp))));
        return true;
    }
    if (p >= tx.end) return false;
    amplitude = static_cast<float>(sequence_amplitude(tx, p));
    return true;
}

}  // namespace

ovtx_state* ovtx_create() {
    std::unique_ptr<ovtx_state> tx(new (std::nothrow) ovtx_state{});
    if (tx) tx->finished = 1;
    return tx.release();
}

void ovtx_destroy(ovtx_state* tx) {
    delete tx;
}

int32_t ovtx_start(ovtx_state* tx, const ovl_tx_settings* settings, const ovl_tx_step* steps, int32_t n) {
    if (tx == nullptr) return -1;
    tx->error[0] = '\0';
    tx->prepared = 0;
    tx->finished = 1;
    tx->segments.clear();
    if (const char* text = complaint(settings, steps, n)) return fail(*tx, text);

    tx->settings = *settings;
    tx->ramp = std::max(static_cast<int32_t>(sample_at(*tx, settings->ramp_s)), 1);
    double time_s = 0;
    try {
        tx->segments.reserve(FIRST_SEGMENTS);
        for (int32_t i = 0; i < n; i++) {
            tx->steps[i] = steps[i];
            tx->steps[i].call[15] = '\0';
            tx->steps[i].locator[7] = '\0';
            tx->chips[i] = 0;
            if (add_step(*tx, i, time_s) != 0) return -1;
        }
    } catch (const std::bad_alloc&) {
        tx->segments.clear();
        return fail(*tx, "out of memory%s%s");
    }

    tx->n_steps = n;
    tx->length = static_cast<int32_t>(sample_at(*tx, time_s));
    tx->end = tx->length + tx->ramp;
    tx->position = 0;
    tx->segment = 0;
    tx->phase = 0;
    tx->increment = TWO_PI * settings->tone_hz / settings->sample_rate;
    tx->last_amplitude = 0;
    tx->stop_requested = 0;
    tx->stop_position = -1;
    tx->stop_amplitude = 0;
    tx->level = static_cast<float>(settings->level);
    tx->target_level = tx->level;
    tx->glide = static_cast<float>(1 - std::exp(-1 / (GLIDE_SECONDS * settings->sample_rate)));
    tx->prepared = 1;
    tx->finished = 0;
    return 0;
}

int32_t ovtx_render(ovtx_state* tx, float* out, int32_t n) {
    if (tx == nullptr || out == nullptr || n < 1) return 0;
    int32_t produced = 0;
    while (produced < n && tx->finished.load(std::memory_order_relaxed) == 0) {
        const int32_t p = tx->position.load(std::memory_order_relaxed);
        float amplitude = 0;
        if (!next_amplitude(*tx, p, amplitude)) {
            tx->finished.store(1, std::memory_order_relaxed);
            break;
        }
        tx->last_amplitude = amplitude;
        tx->level += (tx->target_level.load(std::memory_order_relaxed) - tx->level) * tx->glide;
        out[produced] = static_cast<float>(tx->level * amplitude * std::sin(tx->phase));
        tx->phase += tx->increment;
        if (tx->phase > TWO_PI) tx->phase -= TWO_PI;
        tx->position.store(p + 1, std::memory_order_relaxed);
        produced++;
    }
    std::fill(out + produced, out + n, 0.0f);
    return produced;
}

void ovtx_stop(ovtx_state* tx) {
    if (tx != nullptr) tx->stop_requested = 1;
}

int32_t ovtx_set_level(ovtx_state* tx, double level) {
    if (tx == nullptr || !(level > 0) || !(level <= 1)) return -1;
    tx->settings.level = level;
    tx->target_level = static_cast<float>(level);
    return 0;
}

void ovtx_status(const ovtx_state* tx, ovl_tx_progress* progress) {
    if (progress == nullptr) return;
    *progress = {.step = -1, .kind = 0, .chip = -1, .chips = 0, .elapsed_s = 0, .total_s = 0, .keyed = 0, .done = 1};
    if (tx == nullptr || tx->prepared == 0) return;

    const int32_t position = tx->position;
    progress->elapsed_s = static_cast<double>(position) / tx->settings.sample_rate;
    progress->total_s = static_cast<double>(tx->end) / tx->settings.sample_rate;
    progress->done = tx->finished;
    if (progress->done != 0) return;

    auto k = static_cast<std::size_t>(tx->segment.load());
    while (k + 1 < tx->segments.size() && tx->segments[k + 1].start <= position) k++;
    const ovtx_seg& segment = tx->segments[k];
    const ovl_tx_step& step = tx->steps[segment.step];
    progress->step = segment.step;
    progress->kind = step.kind;
    progress->chips = tx->chips[segment.step];
    progress->keyed = 1;
    if (position >= tx->length) return;  // the closing ramp
    progress->chip = segment.chip;
    const bool dropped = step.kind == OVL_TX_PAUSE && step.keep_keyed == 0;
    if (dropped) progress->keyed = tx->stop_position >= 0 ? 1 : 0;
}

const char* ovtx_error(const ovtx_state* tx) {
    return tx != nullptr ? tx->error : "no transmitter";
}

int32_t ovtx_rate(const ovtx_state* tx) {
    return tx != nullptr && tx->prepared != 0 ? tx->settings.sample_rate : 0;
}
