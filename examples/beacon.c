/*
 * A beacon: sends an ORVEL L frame in every tenth minute, two seconds into it, until it is interrupted.
 *
 *     beacon CALLSIGN LOCATOR [DEVICE]
 *     beacon --dry-run CALLSIGN LOCATOR >FILE    one transmission as raw audio: 16-bit mono at 48000 Hz
 */
#define _POSIX_C_SOURCE 200809L

#include <liborvel.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { PERIOD_S = 600, OFFSET_S = 2, OPEN_AHEAD_S = 3 };

static volatile sig_atomic_t interrupted;

static void interrupt(int signal_number) {
    (void)signal_number;
    interrupted = 1;
}

static double utc_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

/* The first slot that leaves time to open the device. */
static double next_slot(double now) {
    return ceil((now + OPEN_AHEAD_S - OFFSET_S) / PERIOD_S) * PERIOD_S + OFFSET_S;
}

static void nap(void) {
    const struct timespec tenth = {0, 100000000};
    nanosleep(&tenth, NULL);
}

/* Prepares a second of carrier and the frame. Returns 0, or -1 after a message. */
static int prepare(ovl_transmitter *tx, const char *call, const char *locator) {
    ovl_tx_settings settings;
    ovl_tx_step steps[2];
    ovl_tx_settings_default(&settings);
    memset(steps, 0, sizeof steps);
    steps[0].kind = OVL_TX_CARRIER;
    steps[0].seconds = 1;
    steps[1].kind = OVL_TX_FRAME;
    steps[1].protocol = OVL_ORVEL_L;
    snprintf(steps[1].call, sizeof steps[1].call, "%s", call);
    snprintf(steps[1].locator, sizeof steps[1].locator, "%s", locator);
    if (ovl_tx_start(tx, &settings, steps, 2) == 0) return 0;
    fprintf(stderr, "beacon: %s\n", ovl_tx_last_error(tx));
    return -1;
}

/* Writes one transmission to standard output. */
static int dry_run(ovl_transmitter *tx) {
    float samples[4096];
    int16_t raw[4096];
    int32_t n;
    do {
        n = ovl_tx_render(tx, samples, 4096);
        for (int32_t k = 0; k < n; k++) raw[k] = (int16_t)lrintf(samples[k] * 32767.0f);
        if (fwrite(raw, sizeof raw[0], (size_t)n, stdout) != (size_t)n) return -1;
    } while (n == 4096);
    return fflush(stdout) == 0 ? 0 : -1;
}

/* Sends at a UTC time. An interrupt ends the transmission with a soft ramp. */
static int send_at(ovl_audio *audio, ovl_transmitter *tx, int32_t device, double start) {
    while (!interrupted && utc_now() < start - OPEN_AHEAD_S) nap();
    if (interrupted) return 0;
    if (ovl_audio_start_output_at(audio, device, tx, start) != 0) {
        fprintf(stderr, "beacon: %s\n", ovl_audio_last_error(audio));
        return -1;
    }
    while (ovl_audio_output_active(audio)) {
        if (interrupted) {
            if (ovl_audio_output_started(audio) == 0) break; /* nothing is on the air yet */
            ovl_tx_stop(tx);
        }
        nap();
    }
    ovl_audio_stop_output(audio);
    return 0;
}

static int run_beacon(ovl_transmitter *tx, const char *call, const char *locator, int32_t device) {
    struct sigaction action;
    ovl_audio *audio = ovl_audio_create();
    int status = 0;
    memset(&action, 0, sizeof action);
    action.sa_handler = interrupt;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    while (status == 0 && !interrupted) {
        status = prepare(tx, call, locator); /* a transmission that was played has to be prepared again */
        if (status == 0) status = send_at(audio, tx, device, next_slot(utc_now()));
    }
    ovl_audio_destroy(audio); /* before the transmitter that it plays */
    return status;
}

int main(int argc, char **argv) {
    const int dry = argc == 4 && strcmp(argv[1], "--dry-run") == 0;
    const int32_t device = argc == 4 && !dry ? (int32_t)strtol(argv[3], NULL, 10) : -1;
    char **const args = argv + (dry ? 2 : 1);
    ovl_transmitter *tx;
    int status;
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: beacon CALLSIGN LOCATOR [DEVICE]\n       beacon --dry-run CALLSIGN LOCATOR >FILE\n");
        return 2;
    }
    tx = ovl_tx_create();
    status = prepare(tx, args[0], args[1]);
    if (status == 0) status = dry ? dry_run(tx) : run_beacon(tx, args[0], args[1], device);
    ovl_tx_destroy(tx);
    return status == 0 ? 0 : 1;
}
