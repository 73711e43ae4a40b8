/* A host in C: encodes a frame, renders it, decodes it, and prints what it has found. */
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include "liborvel.h"

static int decode(void) {
#ifdef LOAD_AT_RUN_TIME
    HMODULE library = LoadLibraryW(L"liborvel.dll");
    if (library == NULL) return 1;
    union {
        FARPROC found;
        const char* (*call)(void);
    } version = {GetProcAddress(library, "ovl_version")};
    if (version.found == NULL) return 2;
    printf("%s\n", version.call());
    return FreeLibrary(library) ? 0 : 3;
#else
    enum { RATE = 12000, SECONDS = 36 };
    float* samples = calloc(RATE * SECONDS, sizeof *samples);
    ovl_transmitter* tx = ovl_tx_create();
    ovl_decoder* decoder = ovl_create();
    ovl_tx_settings how;
    ovl_tx_settings_default(&how);
    how.sample_rate = RATE;
    ovl_tx_step step = {OVL_TX_FRAME, OVL_ORVEL_S, "K2QRX", "", 0, 0};
    ovl_settings settings;
    ovl_settings_default(&settings);
    ovl_result results[4];
    int32_t count = -1;
    if (samples != NULL && ovl_tx_start(tx, &how, &step, 1) == 0) {
        ovl_tx_render(tx, samples + 2 * RATE, RATE * (SECONDS - 2));
        count = ovl_decode(decoder, samples, RATE * SECONDS, RATE, &settings, results, 4);
    }
    for (int32_t k = 0; k < count; k++) printf("%s %.2f\n", results[k].call, results[k].freq_hz);
    ovl_destroy(decoder);
    ovl_tx_destroy(tx);
    free(samples);
    return count == 1 ? 0 : 1;
#endif
}

int main(void) {
    return decode();
}
