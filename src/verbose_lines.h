// What a decode reports about its decisions on standard error while `on`, one call per line. Nothing else depends on
// it.
#pragma once

#include <cstdint>

#include "ovcdeep.h"
#include "ovpipe.h"

struct VerboseLines {
    bool on;

    // Candidates have numbers from 1. Frequencies and times are those of the records; `centre` makes offsets absolute.
    void block_refused(double op) const;
    void block(const ov_baseband& bb, const ov_specmap& map, double drift_range) const;
    void score_map(const char* label, double median, double sigma, int32_t candidates, double z_min) const;

    void crc_twin(int32_t number, const char* call, const char* twin, double margin) const;
    void ambiguous(int32_t number, const char* call, const char* other) const;
    void no_opera_frame(int32_t number, const ov_cand& cand, const ov_hyp& hyp, const ov_baseband& bb,
                        int32_t tried) const;
    void other_signal(int32_t number, const ov_spot& spot) const;
    void opera_frame(int32_t number, const ov_cand& cand, double centre, const ov_spot& spot, bool duplicate) const;

    void deep_search(int32_t n_known, double threshold, int32_t hits) const;
    void deep_hit_decoded(const char* call, const ovc_deep_hit& hit, double centre) const;
    void deep_frame(const ovc_deep_hit& hit, const ov_spot& spot) const;

    void no_orvel_frame(const char* label, int32_t number, const ov_cand& cand, double centre,
                        const char* reason) const;
    void orvel_frame(const char* label, int32_t number, const ov_spot& spot, int32_t frame_chips, bool duplicate) const;

    void wide_scan(int32_t tiles, double z_scan) const;
    void tile(int32_t number, int32_t tiles, const ov_hit& hit) const;
};
