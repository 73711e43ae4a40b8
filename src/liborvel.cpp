// The exported functions: argument checks, error texts and conversion between the public records and the pipeline's.
#include "liborvel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "ascii.h"
#include "coherent/coherent.h"
#include "ovaudio.h"
#include "ovcenc.h"
#include "ovpipe.h"
#include "ovscan.h"
#include "ovtx.h"
#include "protocol.h"

namespace {

constexpr int32_t MAX_KNOWN = 256;
constexpr int32_t MAX_SPOTS = 64;      // reported from one block
constexpr std::size_t MAX_TOKEN = 15;  // characters of a known callsign that are read

// Limits of ovl_keyed().
constexpr int32_t MAX_KEYED = 64;
constexpr int32_t MIN_KEYED_RATE = 4000;  // Hz
constexpr double MIN_KEYED_SECONDS = 3;
constexpr double KEYED_EXTRA_S = 0.256;       // two chips beyond the requested seconds
constexpr double MIN_KEYED_HALF_WIDTH = 300;  // Hz: the median needs bins without a signal
constexpr double MIN_KEYED_HZ = 100;
constexpr double KEYED_MARGIN_HZ = 5;  // beyond the requested band

bool is_separator(char c) {
    return c == ',' || c == ';' || is_ascii_blank(c);
}

// Copies text into a zeroed field, cut to what fits before the NUL.
template <std::size_t Size>
void copy_text(const char* text, char (&field)[Size]) {
    std::copy_n(text, std::min(std::strlen(text), Size - 1), field);
}

ovl_result to_result(const ov_spot& spot, double op) {
    ovl_result result{};
    copy_text(spot.call, result.call);
    copy_text(spot.locator, result.locator);
    result.protocol = spot.protocol;
    result.deep = spot.deep;
    result.t_start = spot.t;
    result.t_end = spot.t + frame_chips(static_cast<uint32_t>(spot.protocol)) * OV_CHIP_PER_OP * op;
    result.freq_hz = spot.freq;
    result.snr_db = spot.snr;
    result.drift_hz_s = spot.drift;
    return result;
}

}  // namespace

struct ovl_decoder {
    std::array<ovc_known, MAX_KNOWN> known;
    int32_t n_known;
    std::unique_ptr<double[]> samples;  // the block in double precision; grows to the longest block seen
    int32_t capacity;
    std::optional<ov_coherent> coherent;  // the search, when it is on
    std::array<ovl_finding, MAX_SPOTS> findings;
    int32_t n_findings;
    char error[164];
};

namespace {

void set_error(ovl_decoder& decoder, const char* text) {
    std::snprintf(decoder.error, sizeof decoder.error, "%s", text);
}

int32_t fail(ovl_decoder& decoder, const char* text) {
    set_error(decoder, text);
    return -1;
}

bool reserve_samples(ovl_decoder& decoder, int32_t n) {
    if (decoder.capacity >= n) return true;
    std::unique_ptr<double[]> grown(new (std::nothrow) double[static_cast<std::size_t>(n)]);
    if (!grown) return false;
    decoder.samples = std::move(grown);
    decoder.capacity = n;
    return true;
}

ov_params to_params(const ovl_decoder& decoder, const ovl_settings& settings) {
    ov_params params;
    ov_params_default(params);
    params.protocols = settings.protocols & OV_ALL_PROTOCOLS;
    params.center_hz = settings.center_hz;
    params.search_hz = settings.search_hz;
    params.spread_hz = std::fmax(settings.spread_hz, 0.0);
    params.deep_search = settings.deep_search != 0 ? 1 : 0;
    params.known_only = settings.known_only != 0 ? 1 : 0;
    params.end_min = settings.end_min;
    params.end_max = settings.end_max;
    if (decoder.n_known > 0) {
        params.known = decoder.known.data();
        params.n_known = decoder.n_known;
    }
    return params;
}

}  // namespace

int32_t ovl_api_version(void) {
    return 5;
}

const char* ovl_version(void) {
    return "1.6.1";
}

int32_t ovl_frame_chips(uint32_t proto) {
    return frame_chips(proto);
}

const char* ovl_proto_name(uint32_t proto) {
    const ov_protocol* const protocol = ov_protocol_by_id(proto);
    return protocol != nullptr ? protocol->name : "";
}

double ovl_chip_seconds(void) {
    return OV_CHIP_SECONDS;
}

int32_t ovl_encode(uint32_t proto, const char* call, const char* loc, uint8_t* out, int32_t cap) {
    const ov_protocol* const protocol = ov_protocol_by_id(proto);
    if (protocol == nullptr || call == nullptr || out == nullptr || protocol->chips() > cap) return -1;
    return encode_frame(*protocol, call, loc, out) == 0 ? protocol->chips() : -1;
}

ovl_decoder* ovl_create(void) {
    return new (std::nothrow) ovl_decoder{};
}

void ovl_destroy(ovl_decoder* decoder) {
    delete decoder;
}

const char* ovl_last_error(const ovl_decoder* decoder) {
    return decoder != nullptr ? decoder->error : "no decoder";
}

int32_t ovl_set_known(ovl_decoder* decoder, const char* list) {
    if (decoder == nullptr) return -1;
    decoder->n_known = 0;
    set_error(*decoder, "");
    if (list == nullptr) return 0;

    const char* next = list;
    while (*next != '\0') {
        if (is_separator(*next)) {
            next++;
            continue;
        }
        const char* const token = next;
        while (*next != '\0' && !is_separator(*next)) next++;
        if (decoder->n_known == MAX_KNOWN) return fail(*decoder, "too many known callsigns (max 256)");

        std::array<char, MAX_TOKEN + 1> call{};
        std::copy_n(token, std::min(static_cast<std::size_t>(next - token), MAX_TOKEN), call.begin());
        if (ovc_known_init(call.data(), &decoder->known[static_cast<std::size_t>(decoder->n_known)]) == 0) {
            decoder->n_known++;
        }
    }
    return decoder->n_known;
}

void ovl_settings_default(ovl_settings* settings) {
    if (settings == nullptr) return;
    ov_params params;
    ov_params_default(params);
    *settings = {
        .protocols = OV_ALL_PROTOCOLS,
        .center_hz = params.center_hz,
        .search_hz = params.search_hz,
        .spread_hz = 0.0,
        .deep_search = 1,
        .known_only = 0,
        .end_min = params.end_min,
        .end_max = params.end_max,
    };
}

int32_t ovl_decode(ovl_decoder* decoder, const float* samples, int32_t n, int32_t rate, const ovl_settings* settings,
                   ovl_result* results, int32_t max_results) {
    if (decoder == nullptr) return -1;
    set_error(*decoder, "");
    decoder->n_findings = 0;
    if (samples == nullptr || settings == nullptr || n <= 0 || rate <= 0 || max_results < 0 ||
        (max_results > 0 && results == nullptr)) {
        return fail(*decoder, "invalid argument");
    }
    if ((settings->protocols & OV_ALL_PROTOCOLS) == 0) return fail(*decoder, "no protocol selected");
    if (!reserve_samples(*decoder, n)) return fail(*decoder, "out of memory");
    std::copy_n(samples, n, decoder->samples.get());

    const ov_params params = to_params(*decoder, *settings);
    if (params.known_only != 0 && params.n_known == 0) {
        return fail(*decoder, "known_only needs a list of known callsigns (ovl_set_known)");
    }
    std::array<ov_spot, MAX_SPOTS> spots;
    int32_t found = ov_decode_real(decoder->samples.get(), n, rate, params, spots.data(), MAX_SPOTS);
    if (found < 0) return fail(*decoder, "block too short or invalid for decoding");

    std::array<double, MAX_SPOTS> odds;
    odds.fill(std::numeric_limits<double>::quiet_NaN());
    if (decoder->coherent) {
        // Never in the place of what the standard searches found.
        const auto room = static_cast<std::size_t>(std::clamp(max_results, found, MAX_SPOTS));
        found = ov_add_coherent({decoder->samples.get(), nullptr, n, rate}, params, *decoder->coherent,
                                std::span(spots).first(room), odds, found);
    }
    const int32_t written = std::min(found, max_results);
    for (std::size_t k = 0; k < static_cast<std::size_t>(written); k++) {
        results[k] = to_result(spots[k], params.op);
        decoder->findings[k] = {spots[k].deep, odds[k]};
    }
    decoder->n_findings = written;
    return written;
}

int32_t ovl_decode_recent(ovl_decoder* decoder, const float* samples, int32_t n, int32_t rate,
                          const ovl_settings* settings, double recent_s, ovl_result* results, int32_t max_results) {
    if (decoder == nullptr) return -1;
    decoder->n_findings = 0;
    if (settings == nullptr || rate < 1 || recent_s <= 0) return fail(*decoder, "invalid argument");
    const double duration = static_cast<double>(n) / rate;
    ovl_settings recent = *settings;
    recent.end_min = duration - recent_s;
    recent.end_max = duration;
    return ovl_decode(decoder, samples, n, rate, &recent, results, max_results);
}

void ovl_coherent_default(ovl_coherent* settings) {
    if (settings == nullptr) return;
    ov_coherent defaults;
    ov_coherent_default(defaults);
    *settings = {
        .places = defaults.places, .passes = defaults.passes, .threads = defaults.threads, .known = defaults.known};
}

int32_t ovl_set_coherent(ovl_decoder* decoder, const ovl_coherent* settings) {
    if (decoder == nullptr) return -1;
    set_error(*decoder, "");
    if (settings == nullptr) {
        decoder->coherent.reset();
        return 0;
    }
    const auto within = [](int32_t value, int32_t least, int32_t most) { return value >= least && value <= most; };
    if (!within(settings->places, 2, 64) || !within(settings->passes, 1, 8) || !within(settings->threads, 1, 2)) {
        return fail(*decoder, "invalid argument");
    }
    decoder->coherent = ov_coherent{.places = settings->places,
                                    .passes = settings->passes,
                                    .threads = settings->threads,
                                    .known = settings->known != 0 ? 1 : 0};
    return 0;
}

int32_t ovl_findings(const ovl_decoder* decoder, ovl_finding* findings, int32_t max) {
    if (decoder == nullptr || max < 0 || (max > 0 && findings == nullptr)) return -1;
    std::copy_n(decoder->findings.begin(), std::min(decoder->n_findings, max), findings);
    return decoder->n_findings;
}

int32_t ovl_keyed(const float* samples, int32_t n, int32_t rate, const ovl_settings* settings, double seconds,
                  double z_min, ov_hit* out, int32_t max_out) {
    if (samples == nullptr || settings == nullptr || out == nullptr || max_out < 1 || rate < MIN_KEYED_RATE ||
        !(seconds >= MIN_KEYED_SECONDS)) {
        return -1;
    }
    const auto newest = static_cast<int32_t>(std::fmin(std::floor((KEYED_EXTRA_S + seconds) * rate), std::max(n, 0)));
    const auto chips =
        static_cast<int32_t>(std::fmin(std::floor(seconds / OV_CHIP_SECONDS), std::numeric_limits<int32_t>::max() - 8));
    const int32_t least_chips = chips / 2 + 8;
    if (std::floor(least_chips * OV_CHIP_SECONDS * rate) > newest) return 0;

    const std::unique_ptr<double[]> block(new (std::nothrow) double[static_cast<std::size_t>(newest)]);
    if (!block) return -1;
    std::copy_n(samples + (n - newest), newest, block.get());

    const double half = std::fmax(settings->search_hz, MIN_KEYED_HALF_WIDTH);
    const double f_lo = std::fmax(settings->center_hz - half, MIN_KEYED_HZ);
    std::array<ov_hit, MAX_KEYED> hits;
    const int32_t count =
        ov_scan_w(block.get(), nullptr, newest, rate, OV_CHIP_SECONDS, f_lo, settings->center_hz + half, z_min,
                  OV_KEYED_SEPARATION_HZ, MAX_KEYED, hits.data(), nullptr, chips, OV_KEYED_VARIANCE, 0);
    if (count < 0) return -1;
    int32_t written = 0;
    for (int32_t i = 0; i < count && written < max_out; i++) {
        const ov_hit& hit = hits[static_cast<std::size_t>(i)];
        if (std::fabs(hit.freq_hz - settings->center_hz) <= KEYED_MARGIN_HZ + settings->search_hz) out[written++] = hit;
    }
    return written;
}

void ovl_tx_settings_default(ovl_tx_settings* settings) {
    if (settings != nullptr) *settings = {.sample_rate = 48000, .tone_hz = 1500.0, .level = 0.5, .ramp_s = 0.005};
}

ovl_transmitter* ovl_tx_create(void) {
    return ovtx_create();
}

void ovl_tx_destroy(ovl_transmitter* tx) {
    ovtx_destroy(tx);
}

int32_t ovl_tx_start(ovl_transmitter* tx, const ovl_tx_settings* settings, const ovl_tx_step* steps, int32_t n) {
    return ovtx_start(tx, settings, steps, n);
}

int32_t ovl_tx_render(ovl_transmitter* tx, float* out, int32_t n) {
    return ovtx_render(tx, out, n);
}

void ovl_tx_stop(ovl_transmitter* tx) {
    ovtx_stop(tx);
}

int32_t ovl_tx_set_level(ovl_transmitter* tx, double level) {
    return ovtx_set_level(tx, level);
}

void ovl_tx_status(const ovl_transmitter* tx, ovl_tx_progress* progress) {
    ovtx_status(tx, progress);
}

const char* ovl_tx_last_error(const ovl_transmitter* tx) {
    return ovtx_error(tx);
}

int32_t ovl_audio_available(void) {
    return ova_available();
}

int32_t ovl_audio_device_count(void) {
    return ova_device_count();
}

int32_t ovl_audio_device_info(int32_t index, ovl_audio_device* info) {
    return ova_device_info(index, info);
}

ovl_audio* ovl_audio_create(void) {
    return ova_create();
}

void ovl_audio_destroy(ovl_audio* audio) {
    ova_destroy(audio);
}

int32_t ovl_audio_start_input(ovl_audio* audio, int32_t device, int32_t rate, double seconds) {
    return ova_start_input(audio, device, rate, seconds);
}

void ovl_audio_stop_input(ovl_audio* audio) {
    ova_stop_input(audio);
}

int32_t ovl_audio_push(ovl_audio* audio, const float* samples, int32_t frames, int32_t channels) {
    return ova_push(audio, samples, frames, channels);
}

int32_t ovl_audio_last(ovl_audio* audio, float* out, int32_t n) {
    return ova_last(audio, out, n);
}

void ovl_audio_input_stats(const ovl_audio* audio, ovl_audio_stats* stats) {
    ova_input_stats(audio, stats);
}

int32_t ovl_audio_start_output_at(ovl_audio* audio, int32_t device, ovl_transmitter* tx, double start_time) {
    return ova_start_output_at(audio, device, tx, start_time);
}

int32_t ovl_audio_start_output(ovl_audio* audio, int32_t device, ovl_transmitter* tx) {
    return ova_start_output(audio, device, tx);
}

double ovl_audio_output_latency(const ovl_audio* audio) {
    return ova_output_latency(audio);
}

double ovl_audio_output_started(const ovl_audio* audio) {
    return ova_output_started(audio);
}

int32_t ovl_audio_output_active(const ovl_audio* audio) {
    return ova_output_active(audio);
}

void ovl_audio_stop_output(ovl_audio* audio) {
    ova_stop_output(audio);
}

const char* ovl_audio_last_error(const ovl_audio* audio) {
    return ova_error(audio);
}
