/*
 * Decodes raw audio from standard input, as decode_raw does, with a library that is loaded at run time: for a host that
 * also has to run where there is none. Built without liborvel, but for its header; give it -ldl on old systems.
 *
 *     sox recording.wav -t s16 -c 1 - | decode_plugin RATE
 */
#include <dlfcn.h>
#include <liborvel.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { MAX_RESULTS = 64, MAX_SAMPLES = 192000 * 60 };

/* The functions of the library that are used here, typed as in its header. */
static struct {
    ovl_decoder *(*create)(void);
    void (*destroy)(ovl_decoder *);
    void (*settings_default)(ovl_settings *);
    int32_t (*decode)(ovl_decoder *, const float *, int32_t, int32_t, const ovl_settings *, ovl_result *, int32_t);
    const char *(*last_error)(const ovl_decoder *);
    const char *(*proto_name)(uint32_t);
    int32_t (*api_version)(void);
} ovl;

/* Sets a pointer to a function; POSIX promises that it is as wide as a pointer to data. */
static int find(void *library, const char *name, void *function) {
    void *symbol = dlsym(library, name);
    if (symbol == NULL) return 0;
    memcpy(function, &symbol, sizeof symbol);
    return 1;
}

static int load(void) {
    void *library = dlopen("liborvel.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) return 0;
    return find(library, "ovl_create", &ovl.create) && find(library, "ovl_destroy", &ovl.destroy) &&
           find(library, "ovl_settings_default", &ovl.settings_default) && find(library, "ovl_decode", &ovl.decode) &&
           find(library, "ovl_last_error", &ovl.last_error) && find(library, "ovl_proto_name", &ovl.proto_name) &&
           find(library, "ovl_api_version", &ovl.api_version) && ovl.api_version() >= 5;
}

int main(int argc, char **argv) {
    const int32_t rate = argc == 2 ? (int32_t)strtol(argv[1], NULL, 10) : 0;
    if (rate < 1) {
        fprintf(stderr, "usage: decode_plugin RATE <samples\n");
        return 2;
    }
    if (!load()) {
        const char *reason = dlerror();
        fprintf(stderr, "decode_plugin: %s\n", reason != NULL ? reason : "the library is too old");
        return 1;
    }

    int32_t n_samples = 0;
    int16_t sample;
    float *samples = malloc(MAX_SAMPLES * sizeof *samples);
    if (samples == NULL) return 1;
    while (n_samples < MAX_SAMPLES && fread(&sample, sizeof sample, 1, stdin) == 1) {
        samples[n_samples++] = (float)sample / 32768.0f;
    }

    ovl_decoder *decoder = ovl.create();
    ovl_settings settings;
    ovl.settings_default(&settings);
    ovl_result results[MAX_RESULTS];
    const int32_t count = ovl.decode(decoder, samples, n_samples, rate, &settings, results, MAX_RESULTS);
    if (count < 0) fprintf(stderr, "decode_plugin: %s\n", ovl.last_error(decoder));
    for (int32_t k = 0; k < count; k++) {
        printf("%7.2f s  %8.2f Hz  %+5.1f dB  %-8s  %s\n", results[k].t_start, results[k].freq_hz, results[k].snr_db,
               ovl.proto_name((uint32_t)results[k].protocol), results[k].call);
    }
    ovl.destroy(decoder);
    free(samples);
    return count < 0;
}
