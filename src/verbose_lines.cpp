// The wording of a decode's diagnostics, kept out of the searches.
#include "verbose_lines.h"

#include <cstdio>

namespace {

const char* duplicate_mark(bool duplicate) {
    return duplicate ? " [duplicate]" : "";
}

}  // namespace

void VerboseLines::block_refused(double op) const {
    if (!on) return;
    std::fprintf(stderr, "orveld: recording too short or invalid for Op%g\n", op);
}

void VerboseLines::block(const ov_baseband& bb, const ov_specmap& map, double drift_range) const {
    if (!on) return;
    std::fprintf(stderr,
                 "Baseband: %.0f Hz around %.2f Hz, chip %.3f s = %d samples, bins %.3f Hz, %ld positions x %d bins, "
                 "drift search +/-%.3f Hz/s\n",
                 bb.rate, bb.centre, map.chip_s, map.chip_len, map.bin_hz, static_cast<long>(map.npos), map.nbins,
                 drift_range);
    if (map.spread == 0) return;
    const int32_t bins = 2 * map.spread + 1;
    std::fprintf(stderr, "Spread mode: energy summed over %d bins = %.1f Hz, noise rescale %.2f\n", bins,
                 bins * map.bin_hz, map.noise_rescale);
}

void VerboseLines::score_map(const char* label, double median, double sigma, int32_t candidates, double z_min) const {
    if (!on) return;
    std::fprintf(stderr, "%s score map: median %.1f, sigma %.1f; %d candidate(s) above %.1f sigma\n", label, median,
                 sigma, candidates, z_min);
}

void VerboseLines::crc_twin(int32_t number, const char* call, const char* twin, double margin) const {
    if (!on) return;
    std::fprintf(stderr, "Candidate %d: %s rejected, CRC twin %s only %.1f behind\n", number, call, twin, margin);
}

void VerboseLines::ambiguous(int32_t number, const char* call, const char* other) const {
    if (!on) return;
    std::fprintf(stderr, "Candidate %d: ambiguous (%s / %s both valid), rejected\n", number, call, other);
}

void VerboseLines::no_opera_frame(int32_t number, const ov_cand& cand, const ov_hyp& hyp, const ov_baseband& bb,
                                  int32_t tried) const {
    if (!on) return;
    std::fprintf(stderr,
                 "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz score=%.1f : no valid frame "
                 "(%d tried)\n",
                 number, cand.z, cand.t, cand.f + bb.centre, hyp.start / bb.rate, hyp.f + bb.centre, hyp.metric, tried);
}

void VerboseLines::other_signal(int32_t number, const ov_spot& spot) const {
    if (!on) return;
    std::fprintf(
        stderr,
        "Candidate %d: %s rejected, OFF chips not empty (excess %.2f, contrast %.2f, SNR %.1f dB): another signal\n",
        number, spot.call, spot.off_excess, spot.contrast, spot.snr);
}

void VerboseLines::opera_frame(int32_t number, const ov_cand& cand, double centre, const ov_spot& spot,
                               bool duplicate) const {
    if (!on) return;
    std::fprintf(stderr,
                 "Candidate %d: z=%.1f t=%.3f s f=%.2f Hz -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s score=%.1f "
                 "chips=%d/%d : %s (rank %d, SNR %.1f dB, contrast %.2f, OFF excess %.2f)%s\n",
                 number, cand.z, cand.t, cand.f + centre, spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok,
                 OVC_CHIPS, spot.call, spot.rank, spot.snr, spot.contrast, spot.off_excess, duplicate_mark(duplicate));
}

void VerboseLines::deep_search(int32_t n_known, double threshold, int32_t hits) const {
    if (!on) return;
    std::fprintf(stderr, "Deep search: %d known callsign(s), threshold Z=%.2f, %d hit(s)\n", n_known, threshold, hits);
}

void VerboseLines::deep_hit_decoded(const char* call, const ovc_deep_hit& hit, double centre) const {
    if (!on) return;
    std::fprintf(stderr, "Deep hit %s Z=%.1f t=%.3f s f=%.2f Hz: already decoded there\n", call, hit.z, hit.t,
                 hit.f + centre);
}

void VerboseLines::deep_frame(const ovc_deep_hit& hit, const ov_spot& spot) const {
    if (!on) return;
    std::fprintf(
        stderr,
        "Deep hit %s: Z=%.1f (map) -> refined t=%.3f s f=%.2f Hz drift=%+.4f Hz/s Z=%.1f chips=%d/%d SNR %.1f dB\n",
        spot.call, hit.z, spot.t, spot.freq, spot.drift, spot.score, spot.chips_ok, OVC_CHIPS, spot.snr);
}

void VerboseLines::no_orvel_frame(const char* label, int32_t number, const ov_cand& cand, double centre,
                                  const char* reason) const {
    if (!on) return;
    std::fprintf(stderr, "%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz : %s\n", label, number, cand.z, cand.t,
                 cand.f + centre, reason);
}

void VerboseLines::orvel_frame(const char* label, int32_t number, const ov_spot& spot, int32_t frame_chips,
                               bool duplicate) const {
    if (!on) return;
    std::fprintf(stderr,
                 "%s candidate %d: z=%.1f t=%.3f s f=%.2f Hz drift=%+.4f Hz/s chips=%d/%d : %s %s (%s, SNR %.1f dB, "
                 "contrast %.2f, OFF excess %.2f)%s\n",
                 label, number, spot.z, spot.t, spot.freq, spot.drift, spot.chips_ok, frame_chips, spot.call,
                 spot.locator, spot.rank == 1 ? "BP" : "OSD", spot.snr, spot.contrast, spot.off_excess,
                 duplicate_mark(duplicate));
}

void VerboseLines::wide_scan(int32_t tiles, double z_scan) const {
    if (!on) return;
    std::fprintf(stderr, "Scan: %d frequenc%s above %.1f sigma\n", tiles, tiles == 1 ? "y" : "ies", z_scan);
}

void VerboseLines::tile(int32_t number, int32_t tiles, const ov_hit& hit) const {
    if (!on) return;
    std::fprintf(stderr, "--- tile %d/%d: %.1f Hz (scan z=%.1f)\n", number, tiles, hit.freq_hz, hit.z);
}
