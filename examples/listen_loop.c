/*
 * Decodes the input of a sound card, or raw audio from standard input: a sliding buffer, decoded every four seconds.
 *
 *     listen_loop [DEVICE]               until it is interrupted
 *     sox recording.wav -t s16 -c 1 - | listen_loop --stdin RATE
 *
 * A frame is printed once, at most some seconds after its end. Times are seconds since the start of the capture.
 */
#define _POSIX_C_SOURCE 200809L

#include <liborvel.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* The buffer holds the longest frame, what may be missed between two decodes, and room to spare. */
enum { BUFFER_S = 60, STEP_S = 4, RECENT_S = 10, MAX_RESULTS = 64, MAX_REPORTED = 256 };

static volatile sig_atomic_t interrupted;

static void interrupt(int signal_number) {
    (void)signal_number;
    interrupted = 1;
}

/* What was printed lately: the same frame is found in several decodes. */
struct reported {
    char call[8];
    int32_t protocol;
    double t_start;
};

struct listener {
    ovl_audio *audio;
    ovl_decoder *decoder;
    float *buffer;
    int32_t room;
    struct reported reported[MAX_REPORTED];
    int64_t n_reported;
};

/* Whether no such frame was printed that starts less than half a frame away. */
static int is_new(struct listener *l, const ovl_result *result, double t_start) {
    const double half_frame_s = (result->t_end - result->t_start) / 2;
    const int64_t kept = l->n_reported < MAX_REPORTED ? l->n_reported : MAX_REPORTED;
    struct reported *entry;
    for (int64_t k = 0; k < kept; k++) {
        entry = &l->reported[k];
        if (entry->protocol == result->protocol && strcmp(entry->call, result->call) == 0 &&
            fabs(entry->t_start - t_start) < half_frame_s) {
            return 0;
        }
    }
    entry = &l->reported[l->n_reported++ % MAX_REPORTED];
    memcpy(entry->call, result->call, sizeof entry->call);
    entry->protocol = result->protocol;
    entry->t_start = t_start;
    return 1;
}

/* Decodes what the ring holds. Returns 0, or -1 after a message. */
static int decode(struct listener *l) {
    ovl_settings settings;
    ovl_result results[MAX_RESULTS];
    ovl_audio_stats stats;
    int32_t n;
    int32_t count;
    double block_start;

    /* What comes in between the two calls shifts times by a buffer of the sound system at most. */
    ovl_audio_input_stats(l->audio, &stats);
    n = ovl_audio_last(l->audio, l->buffer, l->room);
    if (n < stats.rate) return 0; /* less than a second: nothing to find yet */
    block_start = stats.captured_s - (double)n / stats.rate;

    ovl_settings_default(&settings);
    count = ovl_decode_recent(l->decoder, l->buffer, n, stats.rate, &settings, RECENT_S, results, MAX_RESULTS);
    if (count < 0) {
        fprintf(stderr, "listen_loop: %s\n", ovl_last_error(l->decoder));
        return -1;
    }
    for (int32_t k = 0; k < count; k++) {
        const double t_start = block_start + results[k].t_start;
        if (!is_new(l, &results[k], t_start)) continue;
        printf("%8.2f s  %8.2f Hz  %+5.1f dB  %-8s  %s %s\n", t_start, results[k].freq_hz, results[k].snr_db,
               ovl_proto_name((uint32_t)results[k].protocol), results[k].call, results[k].locator);
        fflush(stdout);
    }
    return 0;
}

static int listen_to_device(struct listener *l) {
    const struct timespec step = {STEP_S, 0};
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = interrupt;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    while (!interrupted) {
        nanosleep(&step, NULL);
        if (decode(l) != 0) return -1;
    }
    return 0;
}

/* Decodes each time that four seconds have been pushed: as fast as the machine can. */
static int listen_to_stdin(struct listener *l, int32_t rate) {
    int16_t raw[4096];
    float samples[4096];
    int64_t pushed = 0;
    size_t got;
    while ((got = fread(raw, sizeof raw[0], 4096, stdin)) > 0) {
        const int64_t steps = pushed / (STEP_S * (int64_t)rate);
        for (size_t k = 0; k < got; k++) samples[k] = (float)raw[k] / 32768.0f;
        if (ovl_audio_push(l->audio, samples, (int32_t)got, 1) < 0) {
            fprintf(stderr, "listen_loop: %s\n", ovl_audio_last_error(l->audio));
            return -1;
        }
        pushed += (int64_t)got;
        if (pushed / (STEP_S * (int64_t)rate) != steps && decode(l) != 0) return -1;
    }
    return decode(l);
}

int main(int argc, char **argv) {
    const int from_stdin = argc == 3 && strcmp(argv[1], "--stdin") == 0;
    const int32_t rate = from_stdin ? (int32_t)strtol(argv[2], NULL, 10) : 48000;
    const int32_t device = from_stdin ? OVL_AUDIO_NONE : argc == 2 ? (int32_t)strtol(argv[1], NULL, 10) : -1;
    struct listener l;
    ovl_audio_stats stats;
    int status = 1;
    if (argc > 2 && !from_stdin) {
        fprintf(stderr, "usage: listen_loop [DEVICE]\n       listen_loop --stdin RATE <samples\n");
        return 2;
    }

    memset(&l, 0, sizeof l);
    l.audio = ovl_audio_create();
    l.decoder = ovl_create();
    if (ovl_audio_start_input(l.audio, device, rate, BUFFER_S) != 0) {
        fprintf(stderr, "listen_loop: %s\n", ovl_audio_last_error(l.audio));
    } else {
        ovl_audio_input_stats(l.audio, &stats);
        l.room = BUFFER_S * stats.rate;
        l.buffer = malloc((size_t)l.room * sizeof *l.buffer);
        if (l.buffer == NULL) {
            fprintf(stderr, "listen_loop: memory is short\n");
        } else {
            status = from_stdin ? listen_to_stdin(&l, rate) : listen_to_device(&l);
        }
    }
    free(l.buffer);
    ovl_destroy(l.decoder);
    ovl_audio_destroy(l.audio);
    return status == 0 ? 0 : 1;
}
