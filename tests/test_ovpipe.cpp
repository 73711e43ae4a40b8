// The decode pipeline against a plain model of itself: every spot field by field, every diagnostic line to the
// character, on scenes that lead through each gate. The model uses the same measuring units; those have tests of their
// own. Most blocks are rendered at the baseband's rate, so that a decode costs little.
#include "ovpipe.h"

#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "liborvel.h"
#include "orvel.h"
#include "ovcdec.h"
#include "ovcdeep.h"
#include "ovpipe_search.h"
#include "owners.h"
#include "siggen.h"

namespace {

constexpr double CENTRE_HZ = 1500;
constexpr double FRAME_S = 239 * CHIP_SECONDS;    // OPERA and ORVEL S
constexpr double FRAME_L_S = 321 * CHIP_SECONDS;  // ORVEL L
constexpr double NO_LIMIT_S = 1e9;
constexpr double NO_SNR = -99;
constexpr double NAN_D = std::numeric_limits<double>::quiet_NaN();
constexpr double INF_D = std::numeric_limits<double>::infinity();

__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...) {
    std::array<char, 512> text;
    va_list values;
    va_start(values, pattern);
    std::vsnprintf(text.data(), text.size(), pattern, values);
    va_end(values);
    return text.data();
}

// Whether text holds something that an extended regular expression describes; \d is a digit.
bool holds_like(const std::string& text, std::string pattern) {
    for (std::size_t at = pattern.find("\\d"); at != std::string::npos; at = pattern.find("\\d", at)) {
        pattern.replace(at, 2, "[0-9]");
    }
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        ADD_FAILURE() << "no regular expression: " << pattern;
        return false;
    }
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

// Whether it describes all of the text.
bool is_like(const std::string& text, const std::string& pattern) {
    return holds_like(text, "^" + pattern + "$");
}

// ---- Scenes --------------------------------------------------------------------------------------------------------

// Frequencies are offsets from the centre.
Station opera(const std::string& call, double t, double offset_hz, double snr_db, double drift = 0) {
    return {opera_chips(call), t, offset_hz, drift, snr_db, 0.7};
}

Station orvel(int32_t mode, const std::string& call, const char* locator, double t, double offset_hz, double snr_db) {
    std::vector<uint8_t> chips(static_cast<std::size_t>(2 * ov_ncoded(mode) + 1));
    EXPECT_EQ(ov_encode(mode, call.c_str(), locator, chips.data()), 0) << call;
    return {chips, t, offset_hz, 0, snr_db, 0.3};
}
Station orvel_s(const std::string& call, double t, double offset_hz, double snr_db) {
    return orvel(0, call, nullptr, t, offset_hz, snr_db);
}
Station orvel_l(const std::string& call, const char* locator, double t, double offset_hz, double snr_db) {
    return orvel(1, call, locator, t, offset_hz, snr_db);
}

// A key-down carrier as long as a frame.
Station carrier(double t, double offset_hz, double snr_db) {
    return {std::vector<uint8_t>(239, 1), t, offset_hz, 0, snr_db, 2.0};
}

// A baseband as the front end makes it by default: 500 Hz around 1500 Hz.
class Block {
  public:
    Block(double seconds, uint64_t seed, const std::vector<Station>& stations) {
        Scene scene;
        scene.rate = 500;
        scene.seconds = seconds;
        scene.seed = seed;
        scene.stations = stations;
        const IqSamples iq = render_iq(scene);
        for (std::size_t k = 0; k < iq.i.size(); k++) samples_.emplace_back(iq.i[k], iq.q[k]);
        baseband_ = {samples_.data(), static_cast<int32_t>(samples_.size()), 500.0, CENTRE_HZ};
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    const ov_baseband& baseband() const { return baseband_; }

  private:
    std::vector<std::complex<double>> samples_;
    ov_baseband baseband_{};
};

// A strong frame of one protocol gives the others dozens of candidates to reject one by one: fewer than by default are
// examined where that is enough.
ov_params verbose_params(int32_t protocols, int32_t max_cands = 10) {
    ov_params params;
    ov_params_default(params);
    params.max_cands = max_cands;
    params.protocols = protocols;
    params.verbose = 1;
    return params;
}

std::vector<ovc_known> known_entries(const std::vector<std::string>& calls) {
    std::vector<ovc_known> entries(calls.size());
    for (std::size_t k = 0; k < calls.size(); k++) EXPECT_EQ(ovc_known_init(calls[k].c_str(), &entries[k]), 0);
    return entries;
}

void set_known(ov_params& params, const std::vector<ovc_known>& entries) {
    params.known = entries.data();
    params.n_known = static_cast<int32_t>(entries.size());
}

// ---- Plain model ---------------------------------------------------------------------------------------------------

std::string without_blanks_around(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

class Model {
  public:
    Model(const ov_baseband& bb, const ov_params& params, int32_t max_spots)
        : bb_(bb), p_(params), max_spots_(max_spots), chip_(0.256 * params.op), opera_s_(61.184 * params.op) {}

    int32_t run() {
        MapOwner map;
        if (ov_spectrogram(bb_, chip_, p_.search_hz, p_.spread_hz, map) != 0) {
            say(format("orveld: recording too short or invalid for Op%g\n", p_.op));
            return -1;
        }
        const double drift = p_.drift_max >= 0 ? p_.drift_max : 2 * map.bin_hz / opera_s_;
        say(format(
            "Baseband: %.0f Hz around %.2f Hz, chip %.3f s = %d samples, bins %.3f Hz, %ld positions x %d bins, "
            "drift search +/-%.3f Hz/s%s\n",
            bb_.rate, bb_.centre, chip_, map.chip_len, map.bin_hz, static_cast<long>(map.npos), map.nbins, drift, ""));
        if (map.spread > 0) {
            say(format("Spread mode: energy summed over %d bins = %.1f Hz, noise rescale %.2f\n", 2 * map.spread + 1,
                       (2 * map.spread + 1) * map.bin_hz, map.noise_rescale));
        }
        if ((p_.protocols & 1) != 0) opera(map, drift);
        if (p_.deep_search != 0 && p_.n_known > 0 && !full() && (p_.protocols & 1) != 0) deep(map, drift);
        if ((p_.protocols & 2) != 0 && !full()) orvel(map, 0, drift);
        if ((p_.protocols & 4) != 0 && !full()) orvel(map, 1, drift);
        drop_overlaps();
        std::stable_sort(spots.begin(), spots.end(), [](const ov_spot& a, const ov_spot& b) { return a.t < b.t; });
        return static_cast<int32_t>(spots.size());
    }

    std::string text;
    std::vector<ov_spot> spots;

  private:
    void say(const std::string& line) {
        if (p_.verbose != 0) text += line;
    }
    bool full() const { return static_cast<int64_t>(spots.size()) >= max_spots_; }
    double frame_s(int32_t protocol) const { return (protocol == 4 ? 321 : 239) * chip_; }
    bool near_hz(double f, double spot_freq) const { return std::fabs(f + bb_.centre - spot_freq) < 3.0 / chip_; }
    bool known(const std::string& call) const {
        for (int32_t k = 0; k < p_.n_known; k++) {
            if (call == p_.known[k].display) return true;
        }
        return false;
    }

    std::vector<ov_cand> candidates(const ov_specmap& map, const char* name, double length) {
        const double latest_end = p_.end_max < 0 ? NO_LIMIT_S : p_.end_max;
        const double latest_start = p_.start_max < 0 ? NO_LIMIT_S : p_.start_max;
        std::vector<ov_cand> list(static_cast<std::size_t>(std::max(1, p_.max_cands)) * 50);
        double median = 0;
        double sigma = 0;
        const int32_t n = ov_find_candidates(map, std::max(p_.end_min - length, p_.start_min),
                                             std::min(latest_end - length, latest_start), p_.search_hz, p_.chip_guard,
                                             p_.z_min, static_cast<int32_t>(list.size()), list.data(), &median, &sigma);
        list.resize(static_cast<std::size_t>(std::max(n, 0)));
        say(format("%s score map: median %.1f, sigma %.1f; %d candidate(s) above %.1f sigma\n", name, median, sigma,
                   std::max(n, 0), p_.z_min));
        return list;
    }

    bool shadowed(const std::vector<ov_cand>& examined, const ov_cand& c, double length) const {
        for (const ov_cand& e : examined) {
            if (std::fabs(c.f - e.f) < 3.0 / chip_ && std::fabs(c.t - e.t) < length && e.z * 0.75 > c.z) return true;
        }
        return false;
    }

    void fit_all(const ov_specmap& map, const ov_hyp& hyp, std::vector<ov_hyp>& fits, std::vector<int32_t>& shifts) {
        for (int32_t shift = -6; shift <= 6; shift += 2) {
            ov_hyp fit;
            if (ov_fit_shift(bb_, map, hyp, shift, p_.chip_guard, fit) != 0) continue;
            fits.push_back(fit);
            shifts.push_back(shift);
        }
    }

    static void consistency(const ov_hyp& hyp, const uint8_t* chips, ov_spot& spot) {
        std::array<double, 2> sum = {0, 0};
        std::array<int32_t, 2> count = {0, 0};
        for (int32_t c = 0; c < hyp.nchips; c++) {
            if (hyp.energy[c] < 0) continue;
            sum[chips[c]] += hyp.energy[c];
            count[chips[c]]++;
        }
        spot.contrast = spot.off_excess = 0;
        if (count[0] == 0 || count[1] == 0) return;
        const double noise = hyp.noise > 0 ? hyp.noise : 1e-30;
        spot.contrast = (sum[1] / count[1] - sum[0] / count[0]) / noise;
        spot.off_excess = sum[0] / count[0] / noise - 1;
    }

    void measure(const ov_specmap& map, const ov_hyp& hyp, const uint8_t* chips, double adjust, ov_spot& spot) const {
        spot.snr = ov_estimate_snr_bb(bb_, map, hyp, chips, chip_) + (p_.snr_adjust != 0 ? adjust : 0);
        consistency(hyp, chips, spot);
    }

    ov_spot spot_of(const ov_hyp& hyp, double z, int32_t protocol) const {
        ov_spot spot{};
        spot.t = hyp.start / bb_.rate;
        spot.freq = hyp.f + bb_.centre;
        spot.drift = hyp.drift;
        spot.z = z;
        spot.score = hyp.metric;
        spot.chips_ok = hyp.n_in;
        spot.protocol = protocol;
        return spot;
    }

    bool duplicate(const std::string& call, double t, double length) const {
        for (const ov_spot& s : spots) {
            if (call == s.call && std::fabs(t - s.t) < 0.5 * length) return true;
        }
        return false;
    }

    bool decoded_at(double t, double f) const {
        for (const ov_spot& s : spots) {
            if (near_hz(f, s.freq) && std::fabs(t - s.t) < 0.9 * opera_s_) return true;
        }
        return false;
    }

    void opera(const ov_specmap& map, double drift) {
        const std::vector<ov_cand> list = candidates(map, "Classic", opera_s_);
        std::vector<ov_cand> examined;
        for (std::size_t i = 0; i < list.size(); i++) {
            if (static_cast<int64_t>(examined.size()) >= p_.max_cands || full()) break;
            const ov_cand& c = list[i];
            if (decoded_at(c.t, c.f) || shadowed(examined, c, opera_s_)) continue;
            examined.push_back(c);
            opera_candidate(map, c, static_cast<int32_t>(i) + 1, drift);
        }
    }

    struct Pooled {
        ovc_frame frame;
        std::size_t fit;
    };

    void opera_candidate(const ov_specmap& map, const ov_cand& c, int32_t number, double drift) {
        ov_hyp hyp;
        if (ov_refine(bb_, map, c, drift, p_.chip_guard, hyp) != 0) return;
        std::vector<ov_hyp> fits;
        std::vector<int32_t> shifts;
        fit_all(map, hyp, fits, shifts);

        std::vector<Pooled> pool;
        for (std::size_t k = 0; k < fits.size(); k++) {
            std::vector<ovc_frame> frames(300);
            const int32_t n = ovc_list_frames(fits[k].soft, std::min(300, std::max(1, p_.max_frames)), frames.data());
            for (int32_t j = 0; j < n; j++) pool.push_back({frames[static_cast<std::size_t>(j)], k});
        }
        std::stable_sort(pool.begin(), pool.end(),
                         [](const Pooled& a, const Pooled& b) { return a.frame.metric > b.frame.metric; });
        const std::size_t tries = std::min(pool.size(), static_cast<std::size_t>(std::max(1, p_.max_frames)));

        std::optional<std::size_t> chosen;
        std::string call;
        bool rejected = false;
        std::size_t walked = 0;
        while (walked < tries && !rejected) {
            const Pooled& item = pool[walked++];
            std::array<char, 7> six{};
            uint32_t value = 0;
            if (ovc_check_frame(&item.frame, six.data(), &value) != 0) continue;
            if (p_.check_plausible != 0 && ov_call_plausible(six.data()) == 0) continue;
            if (p_.known_only != 0 && !known(without_blanks_around(six.data()))) continue;
            if (!chosen) {
                std::array<char, 7> twin{};
                const double margin =
                    ovc_twin_margin(fits[item.fit].soft, &item.frame, p_.check_plausible, twin.data());
                if (margin < p_.twin_min) {
                    say(format("Candidate %d: %s rejected, CRC twin %s only %.1f behind\n", number, six.data(),
                               twin.data(), margin));
                    rejected = true;
                } else {
                    chosen = walked - 1;
                    call = six.data();
                }
            } else if (call != six.data()) {
                say(format("Candidate %d: ambiguous (%s / %s both valid), rejected\n", number, call.c_str(),
                           six.data()));
                rejected = true;
            }
        }
        const double f = c.f + bb_.centre;
        if (rejected || !chosen) {
            say(
                format("Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz score=%.1f : no valid "
                       "frame (%d tried)\n",
                       number, c.z, c.t, f, hyp.start / bb_.rate, hyp.f + bb_.centre, hyp.metric,
                       static_cast<int32_t>(walked)));
            return;
        }
        const Pooled& item = pool[*chosen];
        ov_spot spot = spot_of(fits[item.fit], c.z, 1);
        std::strcpy(spot.call, without_blanks_around(call).c_str());
        spot.rank = static_cast<int32_t>(*chosen);
        spot.gap = pool[0].frame.metric - item.frame.metric;
        spot.shift = shifts[item.fit];
        measure(map, fits[item.fit], opera_chips(call).data(), 10 * std::log10(120.0 / 239.0), spot);
        if (p_.off_max > 0 && spot.off_excess > 0.05 * spot.contrast + p_.off_max) {
            say(
                format("Candidate %d: %s rejected, OFF chips not empty (excess %.2f, contrast %.2f, SNR %.1f dB): "
                       "another signal\n",
                       number, spot.call, spot.off_excess, spot.contrast, spot.snr));
            return;
        }
        const bool again = duplicate(spot.call, spot.t, opera_s_);
        say(
            format("Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s score=%.1f "
                   "chips=%d/239 : %s (rank %d, SNR %.1f dB, contrast %.2f, OFF excess %.2f)%s\n",
                   number, c.z, c.t, f, spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok, spot.call, spot.rank,
                   spot.snr, spot.contrast, spot.off_excess, again ? " [duplicate]" : ""));
        if (!again) spots.push_back(spot);
    }

    void deep(const ov_specmap& map, double drift) {
        std::array<ovc_deep_hit, 64> hits;
        double threshold = 0;
        const double latest_end = p_.end_max < 0 ? NO_LIMIT_S : p_.end_max;
        const double latest_start = p_.start_max < 0 ? NO_LIMIT_S : p_.start_max;
        const int32_t n = ovc_deep_search(&map, p_.known, p_.n_known, std::max(p_.end_min - opera_s_, p_.start_min),
                                          std::min(latest_end - opera_s_, latest_start), p_.search_hz, p_.chip_guard,
                                          p_.deep_pfa, 64, hits.data(), &threshold);
        say(format("Deep search: %d known callsign(s), threshold Z=%.2f, %d hit(s)\n", p_.n_known, threshold,
                   std::max(n, 0)));
        for (int32_t k = 0; k < n && !full(); k++) {
            const ovc_deep_hit& hit = hits[static_cast<std::size_t>(k)];
            const ovc_known& entry = p_.known[hit.known];
            if (decoded_at(hit.t, hit.f) || duplicate(entry.display, hit.t, opera_s_)) {
                say(format("Deep hit %s Z=%.1f t=%.3f s f=%.2f Hz: already decoded there\n", entry.display, hit.z,
                           hit.t, hit.f + bb_.centre));
                continue;
            }
            ov_hyp hyp;
            if (ovc_deep_refine(bb_, &map, &entry, &hit, drift, p_.chip_guard, hyp) != 0) continue;
            ov_spot spot = spot_of(hyp, hit.z, 1);
            std::strcpy(spot.call, entry.display);
            spot.rank = -1;
            spot.deep = 1;
            measure(map, hyp, entry.chips, 10 * std::log10(120.0 / 239.0), spot);
            say(
                format("Deep hit %s: Z=%.1f (map) -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s Z=%.1f chips=%d/239 "
                       "SNR %.1f dB\n",
                       spot.call, hit.z, spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok, spot.snr));
            spots.push_back(spot);
        }
    }

    void orvel(ov_specmap map, int32_t mode, double drift) {
        const char* name = mode == 0 ? "ORVEL-S" : "ORVEL-L";
        const int32_t protocol = mode == 0 ? 2 : 4;
        const int32_t bits = mode == 0 ? 119 : 160;
        ov_spec_frame(map, bits, 1);
        const double length = (2 * bits + 1) * chip_;
        if (drift > 0 && p_.drift_max < 0) drift = 2 * map.bin_hz / length;
        const std::vector<ov_cand> list = candidates(map, name, length);
        std::vector<ov_cand> examined;
        for (std::size_t i = 0; i < list.size(); i++) {
            if (static_cast<int64_t>(examined.size()) >= p_.max_cands || full()) break;
            const ov_cand& c = list[i];
            bool taken = false;
            for (const ov_spot& s : spots) {
                if (s.protocol != protocol || !near_hz(c.f, s.freq)) continue;
                if (std::min(s.t + length, c.t + length) - std::max(s.t, c.t) > 0.5 * length) taken = true;
            }
            if (taken || shadowed(examined, c, length)) continue;
            examined.push_back(c);
            orvel_candidate(map, mode, name, c, static_cast<int32_t>(i) + 1, drift, length);
        }
    }

    void orvel_candidate(const ov_specmap& map, int32_t mode, const char* name, const ov_cand& c, int32_t number,
                         double drift, double length) {
        ov_hyp hyp;
        if (ov_refine(bb_, map, c, drift, p_.chip_guard, hyp) != 0) return;
        std::vector<ov_hyp> fits;
        std::vector<int32_t> shifts;
        fit_all(map, hyp, fits, shifts);
        for (std::size_t a = 1; a < fits.size(); a++) {  // insertion: equal scores keep their order
            for (std::size_t b = a; b > 0 && fits[b].metric > fits[b - 1].metric; b--) {
                std::swap(fits[b], fits[b - 1]);
                std::swap(shifts[b], shifts[b - 1]);
            }
        }
        int32_t lowest = -1;
        for (std::size_t k = 0; k < fits.size(); k++) {
            ov_spot spot{};
            const int32_t code = orvel_fit(map, mode, fits[k], c.z, spot);
            if (code < 0) {
                lowest = std::min(lowest, code);
                continue;
            }
            spot.shift = shifts[k];
            const bool again = duplicate(spot.call, spot.t, length);
            say(
                format("%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz drift=%+.4f Hz/s chips=%d/%d : %s %s (%s, SNR %.1f "
                       "dB, contrast %.2f, OFF excess %.2f)%s\n",
                       name, number, c.z, spot.t, spot.freq, spot.drift, spot.chips_ok, mode == 0 ? 239 : 321,
                       spot.call, spot.locator, spot.rank == 1 ? "BP" : "OSD", spot.snr, spot.contrast, spot.off_excess,
                       again ? " [duplicate]" : ""));
            if (!again) spots.push_back(spot);
            return;
        }
        const char* reason = lowest == -3   ? "valid CRC but OFF chips not empty (another signal)"
                             : lowest == -2 ? "valid CRC but implausible callsign"
                                            : "no valid frame";
        say(format("%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz : %s\n", name, number, c.z, c.t, c.f + bb_.centre,
                   reason));
    }

    int32_t orvel_fit(const ov_specmap& map, int32_t mode, const ov_hyp& fit, double z, ov_spot& spot) {
        const int32_t n = mode == 0 ? 119 : 160;
        std::array<float, 160> first{};
        std::array<float, 160> second{};
        std::array<float, 160> llr{};
        for (std::size_t k = 0; k < static_cast<std::size_t>(n); k++) {
            first[k] = fit.energy[2 * k + 1];
            second[k] = fit.energy[2 * k + 2];
        }
        ov_llr(first.data(), second.data(), n, fit.noise, llr.data(), 0);
        std::array<uint8_t, 160> coded{};
        std::array<uint8_t, 160> message{};
        double cost = 0;
        int32_t stage = 0;
        if (ldpc_decode(ov_code(mode), llr.data(), 50, 2, 0, coded.data(), message.data(), &cost, &stage) != 0) {
            return -1;
        }
        std::array<char, 7> call{};
        std::array<char, 7> locator{};
        if (ov_check(mode, message.data(), call.data(), locator.data()) != 0) return -1;
        if (p_.check_plausible != 0) {
            std::array<char, 7> normal{};
            if (ov_normalize_call(call.data(), normal.data()) != 0) return -2;
            if (ov_call_plausible(normal.data()) == 0) return -2;
        }
        if (p_.known_only != 0 && !known(call.data())) return -2;
        std::vector<uint8_t> chips = {1};
        for (std::size_t k = 0; k < static_cast<std::size_t>(n); k++) {
            chips.push_back(coded[k] == 0 ? 1 : 0);
            chips.push_back(coded[k]);
        }
        spot = spot_of(fit, z, mode == 0 ? 2 : 4);
        measure(map, fit, chips.data(), 10 * std::log10((n + 1.0) / (2 * n + 1)), spot);
        if (p_.off_max > 0 && spot.off_excess > p_.off_max + 0.05 * spot.contrast) return -3;
        std::strcpy(spot.call, call.data());
        std::strcpy(spot.locator, locator.data());
        spot.rank = stage;
        return 0;
    }

    void drop_overlaps() {
        std::vector<bool> gone(spots.size());
        for (std::size_t i = 0; i < spots.size(); i++) {
            for (std::size_t j = i + 1; j < spots.size(); j++) {
                const ov_spot& a = spots[i];
                const ov_spot& b = spots[j];
                if (gone[i] || gone[j] || a.protocol == b.protocol || !(std::fabs(a.freq - b.freq) < 3.0 / chip_)) {
                    continue;
                }
                const double la = frame_s(a.protocol);
                const double lb = frame_s(b.protocol);
                if (!(std::min(a.t + la, b.t + lb) - std::max(a.t, b.t) > 0.5 * std::min(la, lb))) continue;
                gone[a.contrast < b.contrast ? i : j] = true;
            }
        }
        std::vector<ov_spot> kept;
        for (std::size_t i = 0; i < spots.size(); i++) {
            if (!gone[i]) kept.push_back(spots[i]);
        }
        spots = kept;
    }

    const ov_baseband& bb_;
    const ov_params& p_;
    int32_t max_spots_;
    double chip_;
    double opera_s_;
};

// ---- Decodes -------------------------------------------------------------------------------------------------------

struct Decoded {
    int32_t count = 0;
    std::vector<ov_spot> spots;
    std::string text;

    bool says(const std::string& part) const { return text.find(part) != std::string::npos; }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find('\n', at);
            out.push_back(text.substr(at, end - at));
            at = end == std::string::npos ? text.size() : end + 1;
        }
        return out;
    }
    std::string line_with(const std::string& part) const {
        for (const std::string& line : lines()) {
            if (line.find(part) != std::string::npos) return line;
        }
        return "";
    }
    std::size_t lines_with(const std::string& part) const {
        const auto all = lines();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
    }
    std::set<std::string> calls() const {
        std::set<std::string> out;
        for (const ov_spot& spot : spots) out.insert(spot.call);
        return out;
    }
    const ov_spot* find(const std::string& call) const {
        const auto it = std::find_if(spots.begin(), spots.end(), [&](const ov_spot& s) { return call == s.call; });
        return it == spots.end() ? nullptr : &*it;
    }
};
using Calls = std::set<std::string>;

template <class Call>
Decoded capture(int32_t max_spots, Call call) {
    Decoded out;
    out.spots.resize(static_cast<std::size_t>(std::max(0, max_spots)));
    testing::internal::CaptureStderr();
    out.count = call(out.spots.data());
    out.text = testing::internal::GetCapturedStderr();
    EXPECT_LE(out.count, std::max(0, max_spots));
    out.spots.resize(static_cast<std::size_t>(std::max(0, out.count)));
    return out;
}

void expect_equal(const ov_spot& spot, const ov_spot& expected) {
    SCOPED_TRACE(expected.call);
    EXPECT_STREQ(spot.call, expected.call);
    EXPECT_STREQ(spot.locator, expected.locator);
    EXPECT_EQ(spot.t, expected.t);
    EXPECT_EQ(spot.freq, expected.freq);
    EXPECT_NEAR(spot.snr, expected.snr, 1e-12);
    EXPECT_EQ(spot.drift, expected.drift);
    EXPECT_EQ(spot.z, expected.z);
    EXPECT_EQ(spot.score, expected.score);
    EXPECT_EQ(spot.rank, expected.rank);
    EXPECT_EQ(spot.gap, expected.gap);
    EXPECT_EQ(spot.shift, expected.shift);
    EXPECT_EQ(spot.chips_ok, expected.chips_ok);
    EXPECT_EQ(spot.deep, expected.deep);
    EXPECT_EQ(spot.contrast, expected.contrast);
    EXPECT_EQ(spot.protocol, expected.protocol);
    EXPECT_EQ(spot.off_excess, expected.off_excess);
}

// Runs the block and holds spots and text against the model.
Decoded decode(const Block& block, const ov_params& params, int32_t max_spots = 64) {
    Decoded out = capture(max_spots, [&](ov_spot* spots) { return run(block.baseband(), params, spots, max_spots); });
    Model model(block.baseband(), params, max_spots);
    EXPECT_EQ(out.count, model.run());
    EXPECT_EQ(out.text, model.text);
    EXPECT_EQ(out.spots.size(), model.spots.size());
    for (std::size_t k = 0; k < std::min(out.spots.size(), model.spots.size()); k++) {
        expect_equal(out.spots[k], model.spots[k]);
    }
    return out;
}

std::vector<float> soft_of(const std::vector<uint8_t>& chips) {
    std::vector<float> soft;
    for (std::size_t k = 0; k < OVC_PAIRS; k++) soft.push_back(chips[2 * k + 2] != 0 ? 1.0f : -1.0f);
    return soft;
}

// ---- Parameters and entry points -----------------------------------------------------------------------------------

TEST(Params, DefaultsAreTheDocumentedOnes) {
    ov_params p;
    std::memset(static_cast<void*>(&p), 0x5A, sizeof p);
    ov_params_default(p);
    EXPECT_EQ(p.op, 0.5);
    EXPECT_EQ(p.center_hz, 1500.0);
    EXPECT_EQ(p.search_hz, 200.0);
    EXPECT_EQ(p.start_min, -1e9);
    EXPECT_EQ(p.start_max, -1.0);
    EXPECT_EQ(p.end_min, -1e9);
    EXPECT_EQ(p.end_max, -1.0);
    EXPECT_EQ(p.drift_max, -1.0);
    EXPECT_EQ(p.spread_hz, 0.0);
    EXPECT_EQ(p.chip_guard, 0.2);
    EXPECT_EQ(p.z_min, 7.0);
    EXPECT_EQ(p.max_cands, 30);
    EXPECT_EQ(p.max_frames, 32);
    EXPECT_EQ(p.check_plausible, 1);
    EXPECT_EQ(p.twin_min, 10.0);
    EXPECT_EQ(p.off_max, 0.6);
    EXPECT_EQ(p.known, nullptr);
    EXPECT_EQ(p.n_known, 0);
    EXPECT_EQ(p.known_only, 0);
    EXPECT_EQ(p.deep_search, 1);
    EXPECT_EQ(p.deep_pfa, 0.0001);
    EXPECT_EQ(p.snr_adjust, 1);
    EXPECT_EQ(p.verbose, 0);
    EXPECT_EQ(p.protocols, 7);
}

struct RateCase {
    double op, search_hz, spread_hz;
    int32_t rate;
};

TEST(BasebandRate, IsTheLowestThatHoldsTheBandAndSixteenSamplesAChip) {
    const std::vector<double> noise = render_real({12000, 2, 3, 0.05, true, {}});
    const auto n = static_cast<int32_t>(noise.size());
    const std::vector<RateCase> cases = {
        {0.5, 200, 0, 500},      {0.5, 250, 0, 1000},      {0.03125, 0, 0, 2000},  // the band needs 790 Hz
        {0.5, 206.5625, 0, 500},                                                   // needs exactly 500 Hz
        {0.5, 206.563, 0, 1000}, {0.5, 196.5625, 20, 500}, {0.5, 196.57, 20, 1000}, {0.5, 10, 0, 125},
        {0.5, 20, 0, 250},       {0.25, 0, 0, 250},        {1, 40, 0, 250},         {1, 30, 0, 125},
    };
    for (const RateCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op << " search " << c.search_hz << " spread " << c.spread_hz);
        ov_params params = verbose_params(OVL_OPERA);
        params.op = c.op;
        params.search_hz = c.search_hz;
        params.spread_hz = c.spread_hz;
        for (const bool iq : {false, true}) {
            const Decoded out = capture(4, [&](ov_spot* spots) {
                return iq ? ov_decode_iq(noise.data(), noise.data(), n, 12000, params, spots, 4)
                          : ov_decode_real(noise.data(), n, 12000, params, spots, 4);
            });
            BasebandOwner bb;
            ASSERT_EQ(iq ? ov_baseband_iq(noise.data(), noise.data(), n, 12000, 1500, c.rate, bb)
                         : ov_baseband_real(noise.data(), n, 12000, 1500, c.rate, bb),
                      0);
            Model model(bb, params, 4);
            EXPECT_EQ(out.count, model.run());
            EXPECT_EQ(out.text, model.text);
            EXPECT_EQ(out.text.rfind(format("Baseband: %d Hz around", c.rate), 0), 0u) << out.text;
        }
    }
}

TEST(BasebandRate, AChipThatIsNotAWholeNumberOfSamplesIsReportedAndRefused) {
    const std::vector<double> noise = render_real({12000, 2, 3, 0.05, true, {}});
    ov_params params = verbose_params(7);
    params.op = 0.499;
    const auto decode_it = [&](ov_spot* spots) {
        return ov_decode_real(noise.data(), static_cast<int32_t>(noise.size()), 12000, params, spots, 4);
    };
    Decoded out = capture(4, decode_it);
    EXPECT_EQ(out.count, -1);
    EXPECT_EQ(out.text, "orveld: recording too short or invalid for Op0.499\n");
    params.verbose = 0;
    out = capture(4, decode_it);
    EXPECT_EQ(out.count, -1);
    EXPECT_EQ(out.text, "");
}

TEST(EntryPoints, ABlockWithoutBasebandIsRefusedWithoutAWord) {
    const std::vector<double> noise = render_real({11000, 2, 3, 0.05, true, {}});
    const ov_params params = verbose_params(7);
    const auto n = static_cast<int32_t>(noise.size());
    for (const int32_t rate : {11000, 0, -1, 13000}) {
        Decoded out = capture(4, [&](ov_spot* s) { return ov_decode_real(noise.data(), n, rate, params, s, 4); });
        EXPECT_EQ(out.count, -1) << rate;
        EXPECT_EQ(out.text, "");
        out = capture(4, [&](ov_spot* s) { return ov_decode_iq(noise.data(), noise.data(), n, rate, params, s, 4); });
        EXPECT_EQ(out.count, -1) << rate;
        EXPECT_EQ(out.text, "");
    }
}

TEST(EntryPoints, TheWidestSearchDoesNotDependOnTheLength) {
    struct Case {
        int32_t rate;
        double search_hz, spread_hz;
        std::optional<int32_t> baseband;
    };
    const Case cases[] = {
        {8000, 200, 0, 500},      {8000, 16000, 0, 64000},    {8000, 125000, 0, 256000}, {8000, 124000, 2000, 256000},
        {8000, 127000, 0, {}},    {8000, 124000, 6000, {}},   {8000, 1e9, 0, {}},        {12000, 20000, 0, 64000},
        {48000, 24000, 0, 64000}, {48000, 125000, 0, 256000}, {48000, 127000, 0, {}},    {192000, 384000, 0, 1024000},
        {192000, 386000, 0, {}},  {192000, 1e12, 0, {}},      {8000, 200, 1e9, {}},
    };
    for (const Case& c : cases) {
        ov_params params = verbose_params(7);
        params.search_hz = c.search_hz;
        params.spread_hz = c.spread_hz;
        for (const int32_t seconds : {35, 65, 66, 600, 3600}) {
            EXPECT_EQ(baseband_rate(params, seconds * c.rate, c.rate), c.baseband)
                << c.rate << ' ' << c.search_hz << ' ' << seconds;
        }
    }
    EXPECT_EQ(baseband_rate(verbose_params(7), 60 * 48000, 15), std::nullopt) << "a minute of audio at no audio's rate";
}

TEST(EntryPoints, ASearchOf125KilohertzRuns) {
    const std::vector<double> noise = render_real({8000, 0.5, 3, 0.05, true, {}});
    ov_params params = verbose_params(7);
    params.search_hz = 125000;
    const Decoded out = capture(4, [&](ov_spot* s) {
        return ov_decode_real(noise.data(), static_cast<int32_t>(noise.size()), 8000, params, s, 4);
    });
    EXPECT_EQ(out.count, 0);
    EXPECT_EQ(out.text.rfind("Baseband: 256000 Hz around", 0), 0u) << out.text;
}

// Of which every baseband of a search can be cut.
TEST(EntryPoints, TheRatesServedAreThoseOfWhichABasebandIsCut) {
    const double sample = 0;
    for (const uint32_t rate : {1U, 999U, 8000U, 11025U, 22050U, 44100U, 48000U, 250000U, 2400000U, 48017U, 1999993U}) {
        ov_spectrum spectrum{};
        EXPECT_EQ(ov_rate_served(rate), ov_spectrum_real(&sample, 1, static_cast<int32_t>(rate), 125, spectrum) == 0)
            << rate;
        ov_spectrum_free(spectrum);
    }
    EXPECT_TRUE(ov_rate_served(48000));
    for (const uint32_t rate : {0U, 48017U, 0x80000000U, 0xFFFFFFFFU}) EXPECT_FALSE(ov_rate_served(rate)) << rate;
}

TEST(EntryPoints, ABlockShorterThanAChipIsReportedAndRefused) {
    const std::vector<double> noise = render_real({12000, 0.127, 3, 0.05, true, {}});
    const ov_params params = verbose_params(7);
    const Decoded out = capture(4, [&](ov_spot* s) {
        return ov_decode_real(noise.data(), static_cast<int32_t>(noise.size()), 12000, params, s, 4);
    });
    EXPECT_EQ(out.count, -1);
    EXPECT_EQ(out.text, "orveld: recording too short or invalid for Op0.5\n");
}

TEST(EntryPoints, RealSamplesAreCutAtTheCentreAndRun) {
    Scene scene{8000, 40, 5, 0.05, true, {}};
    scene.stations = {opera("F5NQL", 3, 1042.5, -8)};
    const std::vector<double> x = render_real(scene);
    ov_params params = verbose_params(7);
    params.center_hz = 1000;
    params.search_hz = 80;
    const auto n = static_cast<int32_t>(x.size());
    const Decoded out = capture(8, [&](ov_spot* s) { return ov_decode_real(x.data(), n, 8000, params, s, 8); });
    BasebandOwner bb;
    ASSERT_EQ(ov_baseband_real(x.data(), n, 8000, 1000, 250, bb), 0);
    Model model(bb, params, 8);
    EXPECT_EQ(out.count, model.run());
    EXPECT_EQ(out.text, model.text);
    ASSERT_EQ(out.count, 1);
    EXPECT_STREQ(out.spots[0].call, "F5NQL");
    EXPECT_NEAR(out.spots[0].freq, 1042.5, 0.25);
}

// The analytic form of a real block is its own baseband at the full rate, cut around a quarter of the rate.
TEST(EntryPoints, RealAndAnalyticSamplesGiveTheSameSpotsUpToTheBandEdges) {
    struct Band {
        double centre_hz, search_hz;
        std::vector<Station> stations;
    };
    const std::vector<Band> bands = {
        {1500, 200, {opera("G4JNT", 4, 1303, -12), orvel_s("DK2XYZ", 6, 1500, -12), opera("OH1ABC", 3, 1697, -12)}},
        {100, 95, {opera("G4JNT", 4, 12, -10), orvel_s("DK2XYZ", 6, 150, -10)}},      // half of the cut lies below 0 Hz
        {3900, 95, {opera("G4JNT", 4, 3988, -10), orvel_s("DK2XYZ", 6, 3850, -10)}},  // and above half the rate
    };
    for (const Band& band : bands) {
        SCOPED_TRACE(band.centre_hz);
        Scene scene{8000, 40, 6, 0.05, true, band.stations};
        const std::vector<double> x = render_real(scene);
        const auto n = static_cast<int32_t>(x.size());
        BasebandOwner analytic;
        ASSERT_EQ(ov_baseband_real(x.data(), n, 8000, 2000, 8000, analytic), 0);
        ASSERT_EQ(analytic.n, n);
        std::vector<double> i;
        std::vector<double> q;
        for (int32_t k = 0; k < n; k++) {
            i.push_back(analytic.samples[k].real());
            q.push_back(analytic.samples[k].imag());
        }

        ov_params params = verbose_params(3, 16);
        params.verbose = 0;
        params.search_hz = band.search_hz;
        params.center_hz = band.centre_hz;
        const Decoded real = capture(16, [&](ov_spot* s) { return ov_decode_real(x.data(), n, 8000, params, s, 16); });
        params.center_hz = band.centre_hz - 2000;
        const Decoded iq =
            capture(16, [&](ov_spot* s) { return ov_decode_iq(i.data(), q.data(), n, 8000, params, s, 16); });
        EXPECT_EQ(real.text + iq.text, "");
        EXPECT_EQ(real.spots.size(), band.stations.size());
        ASSERT_EQ(iq.spots.size(), real.spots.size());
        for (std::size_t k = 0; k < iq.spots.size(); k++) {
            EXPECT_STREQ(iq.spots[k].call, real.spots[k].call);
            EXPECT_EQ(iq.spots[k].protocol, real.spots[k].protocol);
            EXPECT_NEAR(iq.spots[k].t, real.spots[k].t, 1e-9);
            EXPECT_NEAR(iq.spots[k].freq + 2000, real.spots[k].freq, 1e-6);
            EXPECT_NEAR(iq.spots[k].drift, real.spots[k].drift, 1e-9);
            EXPECT_NEAR(iq.spots[k].snr, real.spots[k].snr, 0.02);
            EXPECT_NEAR(iq.spots[k].score, real.spots[k].score, 1e-3 * real.spots[k].score);
        }
    }
}

// ---- Helpers of the run --------------------------------------------------------------------------------------------

TEST(TrimCall, TakesBlanksFromBothEnds) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"      ", ""},  {" AB1C ", "AB1C"}, {" G1ABC", "G1ABC"},  {"F5NQL ", "F5NQL"}, {"DK2XYZ", "DK2XYZ"},
        {"     A", "A"}, {"A     ", "A"},    {"A    B", "A    B"}, {" A B  ", "A B"},
    };
    for (const auto& [in, out] : cases) {
        std::array<char, 8> text;
        text.fill('#');
        trim_call(in.c_str(), text.data());
        EXPECT_STREQ(text.data(), out.c_str());
        EXPECT_EQ(text[out.size() + 1], '#');
    }
    std::array<char, 8> text;
    trim_call("ABCDEFGH", text.data());  // six characters are examined
    EXPECT_STREQ(text.data(), "ABCDEF");
}

ov_hyp hyp_with(const std::vector<float>& energies, double noise) {
    ov_hyp hyp{};
    hyp.nchips = static_cast<int32_t>(energies.size());
    hyp.noise = noise;
    std::copy(energies.begin(), energies.end(), hyp.energy);
    return hyp;
}

void expect_consistency(const ov_hyp& hyp, const std::vector<uint8_t>& chips, double contrast, double off_excess) {
    double c = 7;
    double o = 7;
    frame_consistency(hyp, chips.data(), c, o);
    EXPECT_DOUBLE_EQ(c, contrast);
    EXPECT_DOUBLE_EQ(o, off_excess);
}

TEST(FrameConsistency, ComparesMeanEnergiesInUnitsOfNoise) {
    expect_consistency(hyp_with({10, 2, 14, 4}, 2), {1, 0, 1, 0}, (12.0 - 3.0) / 2, 3.0 / 2 - 1);
    expect_consistency(hyp_with({10, 2, 14, 4, 6}, 4), {1, 0, 1, 0, 0}, (12.0 - 4.0) / 4, 0);
    expect_consistency(hyp_with({0, 8}, 4), {1, 0}, -2, 1);
}

TEST(FrameConsistency, NeedsOnAndOffChipsThatWereMeasured) {
    expect_consistency(hyp_with({10, 2, 14, 4}, 2), {1, 1, 1, 1}, 0, 0);
    expect_consistency(hyp_with({10, 2, 14, 4}, 2), {0, 0, 0, 0}, 0, 0);
    expect_consistency(hyp_with({-1, 2, -1, 4}, 2), {1, 0, 1, 0}, 0, 0);
    expect_consistency(hyp_with({-1, -1}, 2), {1, 0}, 0, 0);
    expect_consistency(hyp_with({}, 2), {}, 0, 0);
    expect_consistency(hyp_with({10, 2, -1, -1}, 2), {1, 0, 1, 0}, 4, 0);  // unmeasured chips do not count
    expect_consistency(hyp_with({0, 2, 4, 2}, 2), {1, 0, 1, 0}, 0, 0);     // an energy of 0 was measured
}

TEST(FrameConsistency, ANoiseThatIsNotPositiveCountsAsNextToNone) {
    for (const double noise : {0.0, -3.0, NAN_D}) {
        expect_consistency(hyp_with({3, 1}, noise), {1, 0}, 2 / 1e-30, 1 / 1e-30 - 1);
    }
}

// ---- The run -------------------------------------------------------------------------------------------------------

TEST(Run, DecodesAStationOfEachProtocolInOrderOfStart) {
    const Block block(58, 11,
                      {opera("OH1ABC", 9, -150, -8, 0.03), orvel_s("DK2XYZ", 5, 20, -8),
                       orvel_l("F5NQL", "JN18AB", 2, 140, -8), opera("G4JNT", 24, 80, -8)});
    const Decoded out = decode(block, verbose_params(7, 30));
    ASSERT_EQ(out.count, 4);
    const std::array<const char*, 4> calls = {"F5NQL", "DK2XYZ", "OH1ABC", "G4JNT"};
    const std::array<double, 4> starts = {2, 5, 9, 24};
    const std::array<double, 4> offsets = {140, 20, -150, 80};
    const std::array<int32_t, 4> protocols = {4, 2, 1, 1};
    for (std::size_t k = 0; k < 4; k++) {
        EXPECT_STREQ(out.spots[k].call, calls[k]);
        EXPECT_EQ(out.spots[k].protocol, protocols[k]);
        EXPECT_NEAR(out.spots[k].t, starts[k], 0.005);
        EXPECT_NEAR(out.spots[k].freq, CENTRE_HZ + offsets[k], 0.3);
        EXPECT_EQ(out.spots[k].deep, 0);
        EXPECT_STREQ(out.spots[k].locator, k == 0 ? "JN18AB" : "");
    }
    EXPECT_NEAR(out.spots[2].drift, 0.03, 0.02);
    EXPECT_EQ(out.spots[1].gap, 0);
    EXPECT_EQ(out.spots[0].rank, 1);
}

TEST(Run, EqualsTheModelOnCrowdedScenes) {
    for (uint64_t seed = 1; seed <= 3; seed++) {
        SCOPED_TRACE(seed);
        Random random(seed);
        std::vector<Station> stations;
        for (int32_t k = 0; k < 9; k++) {
            const double t = random.uniform(-4, 30);
            const double offset = random.uniform(-190, 190);
            const double snr = random.uniform(-20, 2);
            const std::string call = random.callsign();
            switch (random.integer(0, 3)) {
                case 0:
                    stations.push_back(orvel_s(call, t, offset, snr));
                    break;
                case 1:
                    stations.push_back(orvel_l(call, "KP20", t, offset, snr));
                    break;
                default:
                    stations.push_back(opera(call, t, offset, snr, random.uniform(-0.05, 0.05)));
            }
        }
        const Block block(55, seed, stations);
        ov_params params = verbose_params(7);
        const std::vector<ovc_known> known = known_entries({"G1ABC", random.callsign(), "W1AW"});
        set_known(params, known);
        params.z_min = random.uniform(3.5, 7);
        params.max_cands = random.integer(3, 12);
        params.max_frames = random.integer(1, 40);
        params.snr_adjust = random.integer(0, 1);
        params.drift_max = random.integer(0, 1) != 0 ? -1 : random.uniform(0, 0.1);
        params.off_max = random.uniform(0, 0.8);
        params.twin_min = random.uniform(0, 40);
        params.chip_guard = random.uniform(0, 0.3);
        params.deep_pfa = 0.5;
        const Decoded out = decode(block, params, random.integer(3, 20));
        EXPECT_GT(out.count, 0);
        EXPECT_TRUE(out.says("no valid frame"));
    }
}

// Two stations in one place, four chips apart: two shifts of the hypothesis give a frame.
TEST(Run, OfTwoFramesAtOneHypothesisTheOneOfTheLargerMetricIsTaken) {
    for (uint64_t seed = 4; seed <= 6; seed++) {
        SCOPED_TRACE(seed);
        const Block block(42, seed, {orvel_s("DK2XYZ", 2, 20, -20.5), orvel_s("F5NQL", 2 + 4 * 0.128, 20, -20)});
        ov_params params = verbose_params(2);
        params.off_max = 5;  // each fills the other's OFF chips
        EXPECT_GT(decode(block, params).count, 0);
    }
}

TEST(Run, TwoLinesAndNoCandidateWithoutRoomForASpot) {
    const Block block(35, 2, {opera("G4JNT", 2, 0, 0)});
    for (const int32_t room : {0, -1, std::numeric_limits<int32_t>::min()}) {
        const Decoded out = decode(block, verbose_params(7), room);
        EXPECT_EQ(out.count, 0);
        const auto lines = out.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].rfind("Baseband: 500 Hz around 1500.00 Hz, chip 0.128 s = 64 samples, bins 1.953 Hz, ", 0),
                  0u);
        EXPECT_TRUE(is_like(lines[1],
                            "Classic score map: median \\d+\\.\\d, sigma \\d+\\.\\d; "
                            "[1-9]\\d* candidate\\(s\\) above 7\\.0 sigma"));
        ov_params quiet = verbose_params(7);
        quiet.verbose = 0;
        EXPECT_EQ(run(block.baseband(), quiet, nullptr, room), 0);
    }
}

TEST(Run, IsSilentUnlessVerbose) {
    const Block block(35, 2, {opera("G4JNT", 2, 0, 0), orvel_s("DK2XYZ", 3, 100, 0)});
    ov_params params = verbose_params(7);
    params.verbose = 0;
    const Decoded out = decode(block, params);
    EXPECT_EQ(out.calls(), (Calls{"DK2XYZ", "G4JNT"}));
    EXPECT_EQ(out.text, "");
}

TEST(Run, FillsNoMoreSpotsThanThereIsRoomFor) {
    const Block block(60, 3,
                      {opera("G4JNT", 2, -100, -1), opera("OH1ABC", 20, 0, 0), orvel_s("DK2XYZ", 4, 100, 0),
                       orvel_l("F5NQL", "JN18", 4, 170, 0)});
    EXPECT_EQ(decode(block, verbose_params(7, 30), 1).calls(), Calls{"OH1ABC"});  // the strongest that OPERA finds
    EXPECT_EQ(decode(block, verbose_params(7, 30), 2).calls(), (Calls{"G4JNT", "OH1ABC"}));
    EXPECT_FALSE(decode(block, verbose_params(7, 30), 2).says("ORVEL-S score map"));
    const Decoded three = decode(block, verbose_params(7, 30), 3);
    EXPECT_EQ(three.calls(), (Calls{"DK2XYZ", "G4JNT", "OH1ABC"}));
    EXPECT_TRUE(three.says("ORVEL-S score map"));
    EXPECT_FALSE(three.says("ORVEL-L score map"));
    EXPECT_EQ(decode(block, verbose_params(7, 30), 4).count, 4);
}

TEST(Run, ProtocolsInTurnGiveWhatEachGivesAloneUntilThatIsEnough) {
    const Block block(
        58, 4, {opera("OH1ABC", 9, -150, -5), orvel_s("DK2XYZ", 5, 0, -5), orvel_l("F5NQL", "JN18AB", 2, 140, -5)});
    constexpr int32_t TURNS[] = {OVL_ORVEL_L, OVL_OPERA, OVL_ORVEL_S};
    std::vector<ov_spot> alone;
    for (const int32_t protocol : TURNS) {
        const Decoded one = decode(block, verbose_params(protocol, 5));
        alone.insert(alone.end(), one.spots.begin(), one.spots.begin() + one.count);
    }
    ASSERT_EQ(alone.size(), 3u);
    for (const int32_t enough : {0, 1, 2, 3, 4}) {
        std::array<ov_spot, 8> spots{};
        int32_t asked = 0;
        const auto is_enough = [&](std::span<const ov_spot> found) {
            EXPECT_EQ(found.size(), 1u);
            return ++asked == enough;
        };
        ov_params params = verbose_params(7, 5);
        params.verbose = 0;
        const int32_t count = run_in_turn(block.baseband(), params, TURNS, is_enough, spots.data(), 8);
        ASSERT_EQ(count, enough == 0 ? 3 : std::min(enough, 3));
        for (std::size_t k = 0; k < static_cast<std::size_t>(count); k++) {
            expect_equal(spots.at(k), alone[k]);
        }
    }
}

TEST(Run, ProtocolsThatWereNotAskedForLeaveNoTrace) {
    const Block block(
        58, 4, {opera("OH1ABC", 9, -150, -5), orvel_s("DK2XYZ", 5, 0, -5), orvel_l("F5NQL", "JN18AB", 2, 140, -5)});
    const std::vector<ovc_known> known = known_entries({"W1AW"});
    for (int32_t mask = 0; mask < 9; mask++) {
        SCOPED_TRACE(mask);
        ov_params params = verbose_params(mask, 5);
        set_known(params, known);
        const Decoded out = decode(block, params);
        Calls expected;
        if ((mask & 1) != 0) expected.insert("OH1ABC");
        if ((mask & 2) != 0) expected.insert("DK2XYZ");
        if ((mask & 4) != 0) expected.insert("F5NQL");
        EXPECT_EQ(out.calls(), expected);
        EXPECT_EQ(out.lines_with("Baseband: "), 1u);
        EXPECT_EQ(out.lines_with("Classic score map: "), static_cast<std::size_t>(mask & 1));
        EXPECT_EQ(out.lines_with("Deep search: "), static_cast<std::size_t>(mask & 1));
        EXPECT_EQ(out.lines_with("ORVEL-S score map: "), static_cast<std::size_t>(mask >> 1 & 1));
        EXPECT_EQ(out.lines_with("ORVEL-L score map: "), static_cast<std::size_t>(mask >> 2 & 1));
        EXPECT_EQ(out.lines_with("Candidate ") > 0, (mask & 1) != 0);
        EXPECT_EQ(out.lines_with("ORVEL-S candidate ") > 0, (mask & 2) != 0);
        EXPECT_EQ(out.lines_with("ORVEL-L candidate ") > 0, (mask & 4) != 0);
    }
}

TEST(Run, NegativeSearchWidthGivesNoCandidatesAndZeroStatistics) {
    const Block block(35, 2, {opera("G4JNT", 2, 0, 0)});
    ov_params params = verbose_params(7);
    params.search_hz = -1;
    const Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    for (const char* name : {"Classic", "ORVEL-S", "ORVEL-L"}) {
        EXPECT_TRUE(
            out.says(std::string(name) + " score map: median 0.0, sigma 0.0; 0 candidate(s) above 7.0 sigma\n"));
    }
}

TEST(Run, ExaminesNoMoreCandidatesThanAllowed) {
    const Block block(40, 7, {opera("G4JNT", 4, 0, -8), orvel_s("DK2XYZ", 5, 100, -8)});
    ov_params params = verbose_params(7);
    params.z_min = 3;
    for (const int32_t most : {1, 2, 5}) {
        params.max_cands = most;
        const Decoded out = decode(block, params);
        for (const char* start : {"\nCandidate ", "\nORVEL-S candidate ", "\nORVEL-L candidate "}) {
            std::size_t lines = 0;
            for (std::size_t at = out.text.find(start); at != std::string::npos; at = out.text.find(start, at + 1)) {
                lines++;
            }
            EXPECT_EQ(lines, static_cast<std::size_t>(most)) << start;
        }
    }
    for (const int32_t none : {0, -1, std::numeric_limits<int32_t>::min()}) {
        params.max_cands = none;
        const Decoded out = decode(block, params);
        EXPECT_EQ(out.count, 0);
        EXPECT_EQ(out.lines().size(), 4u);  // baseband and three maps
        EXPECT_TRUE(holds_like(out.text, "Classic score map: [^\n]*; 50 candidate\\(s\\)"));
    }
    params.z_min = 7;
    params.max_cands = 5000;
    EXPECT_EQ(decode(block, params).calls(), (Calls{"DK2XYZ", "G4JNT"}));
}

TEST(Run, MoreCandidatesThanMemoryHoldsAreRefused) {
    const Block block(35, 7, {opera("G4JNT", 2, 0, -8)});
    ov_params params = verbose_params(7);
    params.max_cands = std::numeric_limits<int32_t>::max();
    const Decoded out = capture(4, [&](ov_spot* spots) { return run(block.baseband(), params, spots, 4); });
    EXPECT_EQ(out.count, -1);
    EXPECT_EQ(out.lines().size(), 1u);
    EXPECT_TRUE(out.says("Baseband: "));
}

TEST(Run, TriesNoMoreFramesThanAllowed) {
    const Block block(40, 8, {opera("QQ0XYZ", 4, 0, -8)});
    ov_params params = verbose_params(OVL_OPERA);
    for (const int32_t most : {1, 2, 32, 100}) {
        params.max_frames = most;
        EXPECT_TRUE(decode(block, params).says(format(" : no valid frame (%d tried)\n", most)));
    }
    for (const int32_t none : {0, -1, std::numeric_limits<int32_t>::min()}) {
        params.max_frames = none;
        EXPECT_TRUE(decode(block, params).says(" : no valid frame (1 tried)\n"));
    }
    params.max_frames = std::numeric_limits<int32_t>::max();  // as many as the lists of all shifts hold
    const Decoded out = decode(block, params);
    EXPECT_TRUE(holds_like(out.text, " : no valid frame \\(1\\d\\d\\d tried\\)\n"));
}

// A weak frame is often not the best of the pool: then rank and gap show how far down it was.
TEST(Run, AFrameFurtherDownThePoolHasItsRankAndGap) {
    bool seen = false;
    for (uint64_t seed = 1; seed <= 30 && !seen; seed++) {
        const Block block(34, seed, {opera("G4JNT", 2, 0, -22.5)});
        ov_params params = verbose_params(OVL_OPERA);
        params.twin_min = 0;
        params.max_cands = 1;
        const Decoded out = decode(block, params);
        if (out.count != 1 || out.spots[0].rank < 1) continue;
        seen = true;
        EXPECT_GT(out.spots[0].gap, 0);
        EXPECT_TRUE(out.says(format("(rank %d, ", out.spots[0].rank)));
        params.max_frames = out.spots[0].rank;  // one short of the frame
        EXPECT_EQ(decode(block, params).count, 0);
        params.max_frames = out.spots[0].rank + 1;
        EXPECT_EQ(decode(block, params).count, 1);
    }
    EXPECT_TRUE(seen);
}

TEST(Run, TheSameFrameOnTwoFrequenciesIsOneSpotAndADuplicate) {
    const Block block(40, 9, {opera("G4JNT", 4, -60, -5), opera("G4JNT", 4.2, 60, -9)});
    const Decoded out = decode(block, verbose_params(OVL_OPERA));
    ASSERT_EQ(out.count, 1);
    EXPECT_NEAR(out.spots[0].freq, 1440, 0.5);
    EXPECT_EQ(out.lines_with(" [duplicate]"), 1u);
    const std::string line = out.line_with(" [duplicate]");
    EXPECT_TRUE(is_like(line,
                        "Candidate \\d+: z=\\d+\\.\\d t=-?\\d+\\.\\d{3} s f=\\d+\\.\\d\\d Hz -> refined "
                        "t=4\\.\\d{3} s f=15(59|60)\\.\\d\\d Hz drift=[+-]0\\.\\d{4} Hz/s score=\\d+\\.\\d "
                        "chips=239/239 : G4JNT \\(rank 0, SNR -\\d+\\.\\d dB, contrast \\d+\\.\\d\\d, OFF excess "
                        "-?\\d+\\.\\d\\d\\) \\[duplicate\\]"))
        << line;
}

TEST(Run, AFrameHalfAFrameLaterIsNoDuplicate) {
    const Block block(55, 9, {opera("G4JNT", 4, -60, -5), opera("G4JNT", 20.5, 60, -9)});
    EXPECT_EQ(decode(block, verbose_params(OVL_OPERA)).count, 2);
    const Block closer(55, 9, {opera("G4JNT", 4, -60, -5), opera("G4JNT", 18.5, 60, -9)});
    EXPECT_EQ(decode(closer, verbose_params(OVL_OPERA)).count, 1);
}

TEST(Run, AnOrvelFrameOfACallsignJustHeardIsADuplicateToo) {
    const Block block(40, 9, {opera("G4JNT", 4, -60, -5), orvel_s("G4JNT", 4.5, 60, -5)});
    const Decoded out = decode(block, verbose_params(7));
    ASSERT_EQ(out.count, 1);
    EXPECT_EQ(out.spots[0].protocol, OVL_OPERA);
    EXPECT_GE(out.lines_with(" [duplicate]"), 1u);
    EXPECT_TRUE(
        is_like(out.line_with(" [duplicate]"),
                "ORVEL-S candidate \\d+: z=\\d+\\.\\d t=4\\.\\d{3} s f=15\\d\\d\\.\\d\\d Hz drift=[+-]0\\.\\d{4} "
                "Hz/s chips=239/239 : G4JNT  \\(BP, SNR -\\d+\\.\\d dB, contrast \\d+\\.\\d\\d, OFF excess "
                "-?\\d+\\.\\d\\d\\) \\[duplicate\\]"))
        << out.text;
}

TEST(Run, AFrameCloseToItsCrcTwinIsRejected) {
    const Block block(35, 12, {opera("F5NQL", 2, 0, -8)});
    ov_params params = verbose_params(OVL_OPERA);
    params.twin_min = 1e29;
    const Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    const auto lines = out.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_TRUE(is_like(lines[2], "Candidate 1:  F5NQL rejected, CRC twin [ A-Z0-9]{6} only \\d+\\.\\d behind"))
        << lines[2];
    EXPECT_TRUE(is_like(lines[3],
                        "Candidate 1: z=\\d+\\.\\d t=\\d+\\.\\d{3} s f=\\d+\\.\\d\\d Hz -> refined t=\\d+\\.\\d{3} s "
                        "f=\\d+\\.\\d\\d Hz score=\\d+\\.\\d : no valid frame \\(1 tried\\)"))
        << lines[3];
    params.twin_min = NAN_D;  // a margin that is not known to be enough
    EXPECT_EQ(capture(4, [&](ov_spot* s) { return run(block.baseband(), params, s, 4); }).count, 0);
}

TEST(Run, TheTwinMarginItselfIsAccepted) {
    const Block block(35, 12, {opera("F5NQL", 2, 0, -8)});
    ov_params params = verbose_params(OVL_OPERA);
    const Decoded plain = decode(block, params);
    ASSERT_EQ(plain.count, 1);

    // The margin again, from the fit that gave the spot.
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(block.baseband(), 0.128, 200, 0, map), 0);
    std::array<ov_cand, 50> cands;
    ASSERT_GT(ov_find_candidates(map, -1e9, 1e9, 200, 0.2, 7, 50, cands.data(), nullptr, nullptr), 0);
    ov_hyp hyp;
    ov_hyp fit;
    ASSERT_EQ(ov_refine(block.baseband(), map, cands[0], 2 * map.bin_hz / FRAME_S, 0.2, hyp), 0);
    ASSERT_EQ(ov_fit_shift(block.baseband(), map, hyp, plain.spots[0].shift, 0.2, fit), 0);
    ovc_frame best;
    ASSERT_EQ(ovc_list_frames(fit.soft, 1, &best), 1);
    const double margin = ovc_twin_margin(fit.soft, &best, 1, nullptr);
    ASSERT_LT(margin, 1e29);

    params.twin_min = margin;
    EXPECT_EQ(decode(block, params).count, 1);
    params.twin_min = std::nextafter(margin, INF_D);
    EXPECT_EQ(decode(block, params).count, 0);
}

// Two stations whose frames differ in few groups, on top of each other: both callsigns are valid readings.
TEST(Run, TwoValidCallsignsInOneCandidateAreNoSpot) {
    std::string call;
    std::string twin;
    Random random(5);
    for (int32_t tries = 0; tries < 2000 && twin.empty(); tries++) {
        call = random.callsign();
        const std::vector<uint8_t> chips = opera_chips(call);
        const std::vector<float> soft = soft_of(chips);
        ovc_frame frame;
        ASSERT_EQ(ovc_list_frames(soft.data(), 1, &frame), 1);
        std::array<char, 7> text{};
        if (ovc_twin_margin(soft.data(), &frame, 1, text.data()) > 1e29) continue;
        const std::vector<uint8_t> other = opera_chips(text.data());
        std::set<std::size_t> groups;
        for (std::size_t k = 0; k < OVC_PAIRS; k++) {
            if (chips[2 * k + 2] != other[2 * k + 2]) groups.insert(k % OVC_GROUPS);
        }
        if (groups.size() <= 3) twin = without_blanks_around(text.data());
    }
    ASSERT_FALSE(twin.empty());

    const Block block(35, 13, {opera(call, 2, 10, 0), opera(twin, 2, 10, -0.5)});
    ov_params params = verbose_params(OVL_OPERA, 1);
    params.twin_min = -1e30;
    const Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    std::array<char, 7> six{};
    std::array<char, 7> twin_six{};
    ASSERT_EQ(ov_normalize_call(call.c_str(), six.data()), 0);
    ASSERT_EQ(ov_normalize_call(twin.c_str(), twin_six.data()), 0);
    const auto lines = out.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[2], format("Candidate 1: ambiguous (%s / %s both valid), rejected", six.data(), twin_six.data()));
    EXPECT_TRUE(is_like(lines[3], "Candidate 1: z=.* : no valid frame \\(\\d+ tried\\)"));

    // With one of the two known, only that one is valid.
    const std::vector<ovc_known> known = known_entries({call});
    set_known(params, known);
    params.known_only = 1;
    params.deep_search = 0;
    params.off_max = 0;
    EXPECT_EQ(decode(block, params).calls(), Calls{call});
}

TEST(Run, ImplausibleCallsignsDecodeOnlyUnchecked) {
    const Block block(
        50, 14, {opera("QQ0XYZ", 4, -100, -5), orvel_s("QQ1ABC", 5, 0, -5), orvel_l("QQ2ABC", "JN18", 2, 100, -5)});
    ov_params params = verbose_params(7);
    Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    for (const char* name : {"ORVEL-S", "ORVEL-L"}) {
        EXPECT_TRUE(holds_like(out.text, std::string(name) +
                                             " candidate \\d+: z=\\d+\\.\\d t=-?\\d+\\.\\d{3} s "
                                             "f=\\d+\\.\\d\\d Hz : valid CRC but implausible callsign\n"))
            << out.text;
    }
    params.check_plausible = 0;
    out = decode(block, params);
    EXPECT_EQ(out.calls(), (Calls{"QQ0XYZ", "QQ1ABC", "QQ2ABC"}));
    EXPECT_FALSE(out.says("implausible"));
}

TEST(Run, KnownOnlyAcceptsExactlyTheKnownCallsigns) {
    const Block block(50, 15,
                      {opera("F5NQL", 4, -130, -5), opera("OH1ABC", 4, -50, -5), orvel_s("DK2XYZ", 5, 40, -5),
                       orvel_l("G4JNT", "JN18", 2, 140, -5)});
    ov_params params = verbose_params(7);
    params.known_only = 1;
    Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    EXPECT_TRUE(out.says("valid CRC but implausible callsign"));

    const std::vector<ovc_known> some = known_entries({"W1AW", "F5NQL", "G4JNT"});
    set_known(params, some);
    out = decode(block, params);
    EXPECT_EQ(out.calls(), (Calls{"F5NQL", "G4JNT"}));
    EXPECT_EQ(out.find("F5NQL")->deep, 0);

    params.n_known = 1;  // only W1AW is examined
    EXPECT_EQ(decode(block, params).count, 0);

    std::vector<ovc_known> lower = known_entries({"F5NQL"});
    lower[0].display[0] = 'f';  // text is compared exactly
    set_known(params, lower);
    params.deep_search = 0;
    EXPECT_EQ(decode(block, params).count, 0);
}

TEST(Run, EnergyInOffChipsIsAnotherSignal) {
    const Block block(
        36, 16, {opera("F5NQL", 3, -80, -2), carrier(3, -80, -9), orvel_s("DK2XYZ", 3, 80, -2), carrier(3, 80, -9)});
    ov_params params = verbose_params(3, 30);
    params.off_max = 0;
    const Decoded free = decode(block, params);
    ASSERT_EQ(free.calls(), (Calls{"DK2XYZ", "F5NQL"}));
    const ov_spot opera_spot = *free.find("F5NQL");
    ASSERT_GT(opera_spot.off_excess, 0.05 * opera_spot.contrast);

    params.off_max = 1e-9;
    Decoded out = decode(block, params);
    EXPECT_EQ(out.count, 0);
    EXPECT_TRUE(
        out.says(format("Candidate 1: F5NQL rejected, OFF chips not empty (excess %.2f, contrast %.2f, SNR "
                        "%.1f dB): another signal\n",
                        opera_spot.off_excess, opera_spot.contrast, opera_spot.snr)))
        << out.text;
    EXPECT_FALSE(holds_like(out.text, "\nCandidate 1: z=")) << "no second line for this rejection";
    EXPECT_TRUE(out.says(" : valid CRC but OFF chips not empty (another signal)\n"));

    // The limit grows by a twentieth of the contrast.
    const double excess = opera_spot.off_excess - 0.05 * opera_spot.contrast;
    params.off_max = excess * (1 + 1e-9);
    EXPECT_TRUE(decode(block, params).find("F5NQL") != nullptr);
    params.off_max = excess * (1 - 1e-9);
    EXPECT_TRUE(decode(block, params).find("F5NQL") == nullptr);
    params.off_max = -1;
    EXPECT_EQ(decode(block, params).count, 2);
}

TEST(Run, StartsAndEndsOutsideTheWindowAreNotAccepted) {
    const Block block(60, 17, {opera("F5NQL", 12, 0, -5)});
    struct Window {
        double start_min, start_max, end_min, end_max;
        bool found;
    };
    const double end = 12 + FRAME_S;
    const std::vector<Window> windows = {
        {-1e9, -1, -1e9, -1, true},           {8, -1, -1e9, -1, true},          {16, -1, -1e9, -1, false},
        {-1e9, 16, -1e9, -1, true},           {-1e9, 8, -1e9, -1, false},       {-1e9, 0, -1e9, -1, false},
        {-1e9, -0.5, -1e9, -1, true},         {-1e9, -1, end - 4, -1, true},    {-1e9, -1, end + 4, -1, false},
        {-1e9, -1, -1e9, end + 4, true},      {-1e9, -1, -1e9, end - 4, false}, {-1e9, -1, -1e9, 0, false},
        {-1e9, -1, -1e9, -7, true},           {8, 16, end - 4, end + 4, true},  {16, 8, -1e9, -1, false},
        {8, 16, -1e9, end - 4, false},        {8, 16, end + 4, -1, false},      {1e9, -1, -1e9, -1, false},
        {-1e300, 1e300, -1e300, 1e300, true},
    };
    for (const Window& w : windows) {
        ov_params params = verbose_params(OVL_OPERA);
        params.start_min = w.start_min;
        params.start_max = w.start_max;
        params.end_min = w.end_min;
        params.end_max = w.end_max;
        EXPECT_EQ(decode(block, params).calls(), w.found ? Calls{"F5NQL"} : Calls{})
            << w.start_min << ' ' << w.start_max << ' ' << w.end_min << ' ' << w.end_max;
    }
}

TEST(Run, TheEndOfAnOrvelLFrameCountsWithItsOwnLength) {
    const Block block(60, 17, {orvel_l("F5NQL", "JN18", 10, 0, -5)});
    const double end = 10 + FRAME_L_S;
    const double opera_end = 10 + FRAME_S;
    ov_params params = verbose_params(OVL_ORVEL_L);
    params.end_max = (end + opera_end) / 2;
    EXPECT_EQ(decode(block, params).count, 0);
    params.end_max = end + 4;
    EXPECT_EQ(decode(block, params).count, 1);
    params.end_max = -1;
    params.end_min = (end + opera_end) / 2;
    EXPECT_EQ(decode(block, params).count, 1);
    params.end_min = end + 4;
    EXPECT_EQ(decode(block, params).count, 0);
}

TEST(Run, FramesBeforeTheBlockHaveNegativeStartsThatALimitCanRefuse) {
    const Block block(40, 18, {opera("F5NQL", -4, 0, -5)});
    ov_params params = verbose_params(OVL_OPERA);
    const Decoded out = decode(block, params);
    ASSERT_EQ(out.count, 1);
    EXPECT_NEAR(out.spots[0].t, -4, 0.005);
    EXPECT_EQ(out.spots[0].chips_ok, 239 - 32);  // 31.25 chips lie before the block
    params.start_min = -1;
    EXPECT_EQ(decode(block, params).count, 0);
    params.start_min = -1e9;
    params.chip_guard = 0.1;
    EXPECT_EQ(decode(block, params).count, 0);
}

TEST(Run, SnrAdjustmentIsTheShareOfOnChips) {
    const Block block(50, 19,
                      {opera("F5NQL", 4, -130, -5), orvel_s("DK2XYZ", 5, 0, -5), orvel_l("G4JNT", "JN18", 2, 140, -5)});
    ov_params params = verbose_params(7);
    const Decoded mean = decode(block, params);
    params.snr_adjust = 0;
    const Decoded key_down = decode(block, params);
    ASSERT_EQ(mean.count, 3);
    ASSERT_EQ(key_down.count, 3);
    const auto step = [&](const char* call) { return mean.find(call)->snr - key_down.find(call)->snr; };
    EXPECT_NEAR(step("F5NQL"), 10 * std::log10(120.0 / 239.0), 1e-12);
    EXPECT_NEAR(step("DK2XYZ"), 10 * std::log10(120.0 / 239.0), 1e-12);
    EXPECT_NEAR(step("G4JNT"), 10 * std::log10(161.0 / 321.0), 1e-12);
}

TEST(Run, SpreadModeIsReportedAndDecodes) {
    const Block block(40, 20, {opera("F5NQL", 4, -60, -3), orvel_s("DK2XYZ", 5, 60, -3)});
    ov_params params = verbose_params(7);
    params.spread_hz = 20;
    params.search_hz = 100;
    params.max_cands = 4;
    const Decoded out = decode(block, params);
    EXPECT_EQ(out.calls(), (Calls{"DK2XYZ", "F5NQL"}));
    // Half of 20 Hz is 5.12 columns of 1.953 Hz.
    EXPECT_TRUE(out.says("\nSpread mode: energy summed over 11 bins = 21.5 Hz, noise rescale 1.00\n")) << out.text;
    params.spread_hz = 0;
    EXPECT_FALSE(decode(block, params).says("Spread mode"));
}

TEST(Run, DriftRangeIsTwoColumnsOverAFrameUnlessGiven) {
    const Block block(40, 21, {opera("F5NQL", 4, 0, -5, 0.12)});
    ov_params params = verbose_params(OVL_OPERA);
    EXPECT_TRUE(decode(block, params).says("drift search +/-0.128 Hz/s\n"));
    EXPECT_NEAR(decode(block, params).spots.at(0).drift, 0.12, 0.02);
    params.drift_max = 0;
    const Decoded out = decode(block, params);
    EXPECT_TRUE(out.says("drift search +/-0.000 Hz/s\n"));
    for (const ov_spot& spot : out.spots) EXPECT_EQ(spot.drift, 0);
    params.drift_max = 0.05;
    EXPECT_TRUE(decode(block, params).says("drift search +/-0.050 Hz/s\n"));
    for (const double range : {0.0, 0.01}) {  // a given range holds for ORVEL as well
        params.drift_max = range;
        params.protocols = 7;
        decode(block, params);
    }
}

// A callsign that is refused leaves all its candidates to be examined, but for those much weaker than an earlier one.
TEST(Run, CandidatesInTheShadowOfAStrongerOneAreSkipped) {
    const Block block(40, 33, {opera("QQ0XYZ", 4, 0, -8)});
    const Decoded out = decode(block, verbose_params(OVL_OPERA, 60));
    EXPECT_EQ(out.count, 0);
    EXPECT_GT(out.lines_with("Candidate "), 2u);
    EXPECT_LT(out.lines_with("Candidate "), 40u);
}

// 3 chip bandwidths are 23.4 Hz, 0.9 frames 27.5 s.
TEST(Run, CandidatesOnASpotAreSkipped) {
    const Block beside(40, 35, {opera("F5NQL", 4, -0.9, -6), opera("OH1ABC", 4.5, 21.48, -6.3)});
    const Decoded out = decode(beside, verbose_params(OVL_OPERA));
    EXPECT_TRUE(out.find("F5NQL") != nullptr);
    EXPECT_FALSE(out.says(" f=1521.48 Hz ->")) << "22.4 Hz from the spot";

    const Block behind(64, 36, {opera("F5NQL", 3, 0, -6), opera("OH1ABC", 3 + 0.85 * FRAME_S, 0, -6.2)});
    EXPECT_EQ(decode(behind, verbose_params(OVL_OPERA)).calls(), Calls{"F5NQL"});
    const Block later(64, 36, {opera("F5NQL", 3, 0, -6), opera("OH1ABC", 3 + 0.95 * FRAME_S, 0, -6.2)});
    EXPECT_EQ(decode(later, verbose_params(OVL_OPERA)).calls(), (Calls{"F5NQL", "OH1ABC"}));
}

TEST(Run, TheDriftRangeFollowsFromTheLengthOfTheFrame) {
    // A step is half a column over 239 chips. Two columns over a frame of 61.184 op are a rounding error more than four
    // steps, which makes five.
    const Block fast(40, 37, {opera("F5NQL", 4, 0, -3, 0.16)});
    ov_params params = verbose_params(OVL_OPERA, 1);
    EXPECT_NEAR(decode(fast, params).spots.at(0).drift, 5 * 0.5 * 500 / 256 / FRAME_S, 1e-6);
    const Block faster(40, 37, {opera("F5NQL", 4, 0, -3, 0.19)});
    for (const ov_spot& spot : decode(faster, params).spots) EXPECT_LT(spot.drift, 0.165);
    params.drift_max = 0.2;
    EXPECT_NEAR(decode(faster, params).spots.at(0).drift, 0.19, 0.03);

    Station station = orvel_l("F5NQL", "JN18", 2, 0, -3);
    station.drift_hz_s = 0.13;  // beyond two columns over the longer frame
    const Block block(46, 34, {station});
    params = verbose_params(OVL_ORVEL_L, 2);
    decode(block, params);
    params.drift_max = 0.2;
    const Decoded out = decode(block, params);
    ASSERT_EQ(out.count, 1);
    EXPECT_NEAR(out.spots[0].drift, 0.13, 0.03);
}

// ---- Known callsigns -----------------------------------------------------------------------------------------------

TEST(DeepSearch, FindsKnownCallsignsBelowTheThreshold) {
    const Block block(40, 22, {opera("F5NQL", 4, -60, -19), opera("OH1ABC", 5, 80, -17)});
    ov_params params = verbose_params(OVL_OPERA);
    params.z_min = 1e9;  // nothing is found in the ordinary way
    const std::vector<ovc_known> known = known_entries({"W1AW", "F5NQL", "OH1ABC"});
    set_known(params, known);
    const Decoded out = decode(block, params);
    ASSERT_EQ(out.count, 2);
    for (const ov_spot& spot : out.spots) {
        EXPECT_EQ(spot.deep, 1);
        EXPECT_EQ(spot.rank, -1);
        EXPECT_EQ(spot.gap, 0);
        EXPECT_EQ(spot.shift, 0);
        EXPECT_EQ(spot.protocol, OVL_OPERA);
        EXPECT_STREQ(spot.locator, "");
        EXPECT_EQ(spot.chips_ok, 239);
        EXPECT_EQ(spot.contrast, 0);
        EXPECT_EQ(spot.off_excess, 0);
        EXPECT_NEAR(spot.snr, NO_SNR + 10 * std::log10(120.0 / 239.0), 1e-12);
    }
    EXPECT_STREQ(out.spots[0].call, "F5NQL");
    EXPECT_NEAR(out.spots[0].t, 4, 0.02);
    EXPECT_NEAR(out.spots[0].freq, 1440, 0.5);
    EXPECT_TRUE(
        holds_like(out.text, "\nDeep search: 3 known callsign\\(s\\), threshold Z=\\d\\.\\d\\d, [2-9] hit\\(s\\)\n"));
    EXPECT_TRUE(
        holds_like(out.text,
                   "\nDeep hit OH1ABC: Z=\\d+\\.\\d \\(map\\) -> refined t=\\d+\\.\\d{3} s f=15[78]\\d\\.\\d\\d "
                   "Hz drift=[+-]0\\.\\d{4} Hz/s Z=\\d+\\.\\d chips=239/239 SNR -102\\.0 dB\n"))
        << out.text;

    params.snr_adjust = 0;
    EXPECT_EQ(decode(block, params).spots.at(0).snr, NO_SNR);
    const Decoded one = decode(block, params, 1);
    EXPECT_EQ(one.calls(), Calls{"OH1ABC"});  // the stronger hit comes first
    params.deep_search = 0;
    EXPECT_EQ(decode(block, params).count, 0);
    EXPECT_FALSE(decode(block, params).says("Deep search"));
    params.deep_search = 1;
    params.protocols = 6;
    EXPECT_FALSE(decode(block, params).says("Deep search"));
    params.protocols = 1;
    params.n_known = 0;
    EXPECT_FALSE(decode(block, params).says("Deep search"));
}

TEST(DeepSearch, WhatIsDecodedAlreadyIsReportedAndLeftAlone) {
    // The second frame of the callsign stands apart in frequency, the third callsign on another's frame.
    const Block block(40, 23, {opera("F5NQL", 4, -60, -5), opera("F5NQL", 5, 100, -16)});
    ov_params params = verbose_params(OVL_OPERA);
    const std::vector<ovc_known> known = known_entries({"F5NQL"});
    set_known(params, known);
    const Decoded out = decode(block, params);
    ASSERT_EQ(out.count, 1);
    EXPECT_EQ(out.spots[0].deep, 0);
    EXPECT_GE(out.lines_with(": already decoded there"), 2u) << out.text;
    EXPECT_TRUE(holds_like(out.text,
                           "\nDeep hit F5NQL Z=\\d+\\.\\d t=[34]\\.\\d{3} s f=14(3|4)\\d\\.\\d\\d Hz: already decoded "
                           "there\n"))
        << out.text;
    EXPECT_TRUE(
        holds_like(out.text,
                   "\nDeep hit F5NQL Z=\\d+\\.\\d t=[45]\\.\\d{3} s f=(1599|160\\d)\\.\\d\\d Hz: already decoded "
                   "there\n"))
        << out.text;
    EXPECT_EQ(decode(block, params, 1).lines_with("Deep search"), 0u);  // no room left, no search

    // Deep spots count for later hits as well: its own second frame is one of them.
    params.z_min = 1e9;
    const Decoded deep = decode(block, params);
    EXPECT_EQ(deep.count, 1);
    EXPECT_GE(deep.lines_with(": already decoded there"), 1u);
}

TEST(DeepSearch, TakesAtMostSixtyFourHits) {
    // A fresh callsign in each half frame and frequency: every entry of a long list is on the air at once.
    std::vector<std::string> calls;
    std::vector<Station> stations;
    Random random(3);
    while (calls.size() < 72) {
        const std::string call = random.callsign();
        if (std::find(calls.begin(), calls.end(), call) != calls.end()) continue;
        const auto k = static_cast<double>(calls.size());
        stations.push_back(opera(call, 1 + 34 * std::floor(k / 12), -180 + 32 * std::fmod(k, 12), 0));
        calls.push_back(call);
    }
    const Block block(206, 24, stations);
    ov_params params = verbose_params(OVL_OPERA);
    params.z_min = 1e9;
    const std::vector<ovc_known> known = known_entries(calls);
    set_known(params, known);
    const Decoded out = decode(block, params, 100);
    EXPECT_TRUE(out.says(", 64 hit(s)\n"));
    EXPECT_GT(out.count, 50);
    EXPECT_LE(out.count, 64);
}

// ---- ORVEL ---------------------------------------------------------------------------------------------------------

TEST(Orvel, TheStageThatReadTheFrameIsItsRank) {
    std::set<int32_t> stages;
    for (uint64_t seed = 1; seed <= 40 && stages.size() < 2; seed++) {
        const Block block(34, seed, {orvel_s("DK2XYZ", 2, 0, seed == 1 ? -5 : -23.5)});
        const Decoded out = decode(block, verbose_params(OVL_ORVEL_S));
        if (out.count != 1) continue;
        stages.insert(out.spots[0].rank);
        EXPECT_TRUE(out.says(out.spots[0].rank == 1 ? " : DK2XYZ  (BP, SNR " : " : DK2XYZ  (OSD, SNR "));
    }
    EXPECT_EQ(stages, (std::set<int32_t>{1, 2}));
}

TEST(Orvel, OtherSignalsAreNoValidFrame) {
    const Block block(45, 25, {opera("F5NQL", 3, 0, -5)});
    const Decoded out = decode(block, verbose_params(6));
    EXPECT_EQ(out.count, 0);
    for (const char* name : {"ORVEL-S", "ORVEL-L"}) {
        EXPECT_TRUE(holds_like(out.text, std::string(name) +
                                             " candidate 1: z=\\d+\\.\\d t=-?\\d+\\.\\d{3} s f=\\d+\\.\\d\\d Hz "
                                             ": no valid frame\n"));
    }
}

TEST(Orvel, AppendsToTheSpotsOfTheRun) {
    const Block block(45, 26, {orvel_s("DK2XYZ", 4, 20, -5)});
    const ov_params params = verbose_params(OVL_ORVEL_S);
    MapOwner map;
    ASSERT_EQ(ov_spectrogram(block.baseband(), 0.128, 200, 0, map), 0);
    std::array<ov_spot, 4> spots{};
    std::strcpy(spots[0].call, "F5NQL");
    spots[0].t = 4;
    spots[0].freq = 1520;
    spots[0].protocol = OVL_OPERA;
    const Decoded first =
        capture(4, [&](ov_spot*) { return run_orvel(block.baseband(), map, params, 0, 0.1, spots.data(), 1, 4); });
    EXPECT_EQ(first.count, 2);  // a spot of another protocol does not stand in the way
    EXPECT_STREQ(spots[0].call, "F5NQL");
    EXPECT_STREQ(spots[1].call, "DK2XYZ");
    EXPECT_EQ(map.pair_mode, 0) << "the run's own map keeps its layout";

    const Decoded second =
        capture(4, [&](ov_spot*) { return run_orvel(block.baseband(), map, params, 0, 0.1, spots.data(), 2, 4); });
    EXPECT_EQ(second.count, 2);
    EXPECT_FALSE(second.says("DK2XYZ")) << "the candidate lies on the spot of its own protocol";

    const Decoded full =
        capture(2, [&](ov_spot*) { return run_orvel(block.baseband(), map, params, 0, 0.1, spots.data(), 2, 2); });
    EXPECT_EQ(full.count, 2);
    EXPECT_EQ(full.lines().size(), 1u);  // the map is reported, no candidate examined
    EXPECT_TRUE(full.says("ORVEL-S score map: "));
}

TEST(Orvel, ALocatorOfFourCharactersStaysOne) {
    const Block block(45, 27, {orvel_l("F5NQL", "JN18", 2, -20, -5)});
    const Decoded out = decode(block, verbose_params(OVL_ORVEL_L));
    ASSERT_EQ(out.count, 1);
    EXPECT_STREQ(out.spots[0].locator, "JN18");
    EXPECT_EQ(out.spots[0].chips_ok, 321);
    EXPECT_TRUE(out.says("chips=321/321 : F5NQL JN18 (BP, SNR "));
}

// ---- Two protocols in one place ------------------------------------------------------------------------------------

// An OPERA and an ORVEL S station; both decode when searched for alone.
Decoded decode_pair(double opera_offset, double orvel_offset, double opera_t, double orvel_t, double opera_db,
                    double orvel_db) {
    const Block block(
        66, 31, {opera("F5NQL", opera_t, opera_offset, opera_db), orvel_s("DK2XYZ", orvel_t, orvel_offset, orvel_db)});
    EXPECT_EQ(decode(block, verbose_params(1)).calls(), Calls{"F5NQL"});
    EXPECT_EQ(decode(block, verbose_params(2, 30)).calls(), Calls{"DK2XYZ"});
    return decode(block, verbose_params(3, 30));
}

TEST(Overlaps, OfTwoProtocolsInOnePlaceTheLargerContrastRemains) {
    EXPECT_EQ(decode_pair(0, 20, 3, 3.05, -4, -4.7).calls(), Calls{"F5NQL"});
    EXPECT_EQ(decode_pair(0, 20, 3, 3.05, -4.7, -4).calls(), Calls{"DK2XYZ"});
    EXPECT_EQ(decode_pair(20, 0, 3, 12, -4, -4.7).calls(), Calls{"F5NQL"});
}

TEST(Overlaps, ApartInFrequencyOrTimeBothRemain) {
    const Calls both = {"DK2XYZ", "F5NQL"};
    EXPECT_EQ(decode_pair(0, 26, 3, 3.05, -4, -4.7).calls(), both);            // 3 chip bandwidths are 23.4 Hz
    EXPECT_EQ(decode_pair(0, 20, 3, 18.6, -4, -4.7).calls(), both);            // overlap just below half a frame
    EXPECT_EQ(decode_pair(0, 20, 3, 18.0, -4, -4.7).calls(), Calls{"F5NQL"});  // just above
    EXPECT_EQ(decode_pair(0, 0, 2, 33.5, -4, -4.7).calls(), both);             // one after the other on one frequency
}

// What is dropped already drops nothing and is dropped once.
TEST(Overlaps, APhantomBetweenTwoStationsGoesAndBothRemain) {
    const auto decoded = [](const std::vector<Station>& stations) {
        return decode(Block(40, 33, stations), verbose_params(3, 45));
    };
    const Decoded orvel_between =
        decoded({opera("F5NQL", 3, -22, -3), opera("OH1ABC", 3.03, 22, -3), orvel_s("DK2XYZ", 3.2, 0, -3.7)});
    EXPECT_TRUE(orvel_between.says("DK2XYZ"));
    EXPECT_EQ(orvel_between.calls(), (Calls{"F5NQL", "OH1ABC"}));
    const Decoded opera_between =
        decoded({opera("F5NQL", 3, 0, -4.7), orvel_s("DK2XYZ", 3.1, -20, -3), orvel_s("K1ABC", 3.2, 20, -3)});
    EXPECT_TRUE(opera_between.says("F5NQL"));
    EXPECT_EQ(opera_between.calls(), (Calls{"DK2XYZ", "K1ABC"}));
}

TEST(Overlaps, OneProtocolKeepsBothStations) {
    const Block block(40, 32, {opera("F5NQL", 3, 0, -5), opera("OH1ABC", 3.3, 20, -6)});
    EXPECT_EQ(decode(block, verbose_params(7)).calls(), (Calls{"F5NQL", "OH1ABC"}));
}

}  // namespace
