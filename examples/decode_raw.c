/*
 * Decodes raw audio from standard input: 16-bit signed mono samples in the machine's byte order.
 *
 *     sox recording.wav -t s16 -c 1 - | decode_raw RATE
 */
#include <liborvel.h>
#include <stdio.h>
#include <stdlib.h>

enum { MAX_RESULTS = 64, MAX_SAMPLES = 192000 * 600 };

/* Reads everything; the caller frees the samples. Returns NULL when memory is short. */
static float *read_samples(FILE *file, int32_t *count) {
    float *samples = NULL;
    size_t room = 0;
    int16_t block[4096];
    size_t got;
    *count = 0;
    while (*count < MAX_SAMPLES && (got = fread(block, sizeof block[0], 4096, file)) > 0) {
        if ((size_t)*count + got > room) {
            float *more;
            room = 2 * room + 4096;
            more = realloc(samples, room * sizeof *samples);
            if (more == NULL) {
                free(samples);
                return NULL;
            }
            samples = more;
        }
        for (size_t k = 0; k < got; k++) samples[(size_t)*count + k] = (float)block[k] / 32768.0f;
        *count += (int32_t)got;
    }
    return samples;
}

int main(int argc, char **argv) {
    const int32_t rate = argc == 2 ? (int32_t)strtol(argv[1], NULL, 10) : 0;
    if (rate < 1) {
        fprintf(stderr, "usage: decode_raw RATE <samples\n");
        return 2;
    }

    int32_t n_samples;
    float *samples = read_samples(stdin, &n_samples);
    ovl_decoder *decoder = ovl_create();
    ovl_settings settings;
    ovl_settings_default(&settings);
    ovl_result results[MAX_RESULTS];
    const int32_t count = ovl_decode(decoder, samples, n_samples, rate, &settings, results, MAX_RESULTS);
    if (count < 0) fprintf(stderr, "decode_raw: %s\n", ovl_last_error(decoder));
    for (int32_t k = 0; k < count; k++) {
        printf("%7.2f s  %8.2f Hz  %+5.1f dB  %-8s  %s\n", results[k].t_start, results[k].freq_hz, results[k].snr_db,
               ovl_proto_name((uint32_t)results[k].protocol), results[k].call);
    }
    ovl_destroy(decoder);
    free(samples);
    return count < 0;
}
