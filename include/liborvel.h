/*
 * liborvel: encoder and decoder for slow, weak radio beacons.
 *
 * A station keys one audio tone on and off in chips of 0.128 s. A frame is a fixed number of chips that carries a
 * callsign (ORVEL L also a locator) protected by checksums and error-correcting codes. The library finds such frames in
 * a block of audio and says who sent them, when, where in the band and how strong.
 *
 *     ovl_decoder *decoder = ovl_create();
 *     ovl_settings settings;
 *     ovl_settings_default(&settings);
 *     ovl_result results[64];
 *     int32_t count = ovl_decode(decoder, samples, n, 12000, &settings, results, 64);
 *     if (count < 0) fprintf(stderr, "%s\n", ovl_last_error(decoder));
 *     for (int32_t i = 0; i < count; i++) printf("%7.2f s  %s\n", results[i].t_start, results[i].call);
 *     ovl_destroy(decoder);
 *
 * Results. A call returns 0 or a count on success and -1 on failure. A call that takes a decoder first clears the
 * decoder's error text and on failure leaves an English message there for ovl_last_error(). Nothing is printed and
 * no exception leaves the library.
 *
 * Threads. The library starts none. One decoder serves one thread at a time; separate decoders may work in separate
 * threads at once. Functions without a decoder keep no state.
 *
 * Ownership. The caller owns every record and array that it passes; the library keeps no pointer to them after a
 * call returns. Texts that the library returns are static or belong to the decoder.
 */
#ifndef LIBORVEL_H
#define LIBORVEL_H

#include <stdint.h>

#if defined(_WIN32) && !defined(OVL_BUILD) && !defined(OVL_STATIC)
#define OVL_API __declspec(dllimport)
#elif !defined(_WIN32) && defined(OVL_BUILD) && (defined(__GNUC__) || defined(__clang__))
#define OVL_API __attribute__((visibility("default")))
#else
#define OVL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Protocols --------------------------------------------------------------------------------------------- */

/* Protocol ids: single bits, so that a set of protocols is a mask. */
enum {
    OVL_OPERA = 1,   /* OPERA at its 0.128 s chip: a callsign in 239 chips, 30.6 s */
    OVL_ORVEL_S = 2, /* ORVEL S: a callsign in 239 chips, LDPC-coded */
    OVL_ORVEL_L = 4  /* ORVEL L: a callsign and a grid locator in 321 chips, LDPC-coded */
};

/* Chips in one frame of a protocol: 239, 239 and 321; 0 for anything that is not exactly one protocol id. */
OVL_API int32_t ovl_frame_chips(uint32_t proto);

/* Name of a protocol, "OPERA 05", "ORVEL S" or "ORVEL L"; "" for anything else. Static text. */
OVL_API const char *ovl_proto_name(uint32_t proto);

/* Length of a chip in seconds, 0.128 for every protocol. */
OVL_API double ovl_chip_seconds(void);

/*
 * Encodes one frame into chips, one byte each: 1 = carrier on, 0 = off, the first chip at out[0].
 *
 *   proto   one protocol id
 *   call    callsign, NUL-terminated, in either case: letters are those of ASCII, whatever the locale
 *   loc     grid locator of 4 or 6 characters for OVL_ORVEL_L; otherwise ignored, may be NULL
 *   out     room for cap bytes, at least ovl_frame_chips(proto)
 *
 * Returns the number of chips, or -1 with out untouched when the protocol, callsign or locator is refused or out is
 * too small.
 */
OVL_API int32_t ovl_encode(uint32_t proto, const char *call, const char *loc, uint8_t *out, int32_t cap);

/* ---- Transmitter ------------------------------------------------------------------------------------------- */

/* Kinds of steps. */
enum {
    OVL_TX_FRAME = 1,   /* one frame of a protocol */
    OVL_TX_CARRIER = 2, /* steady carrier */
    OVL_TX_PAUSE = 3    /* silence */
};

/* How a sequence sounds. Fill it with ovl_tx_settings_default() and change what differs. */
typedef struct ovl_tx_settings {
    int32_t sample_rate; /* Hz, 8000 to 384000; default 48000 */
    double tone_hz;      /* above 0, below 0.45 of the sample rate; default 1500 */
    double level;        /* peak amplitude, above 0, at most 1; default 0.5 */
    double ramp_s;       /* length of a key transition, s, 0 to 0.05; default 0.005 */
} ovl_tx_settings;

/* One step of a sequence. Fields that its kind does not use are ignored. */
typedef struct ovl_tx_step {
    int32_t kind;       /* OVL_TX_ kind */
    int32_t protocol;   /* frame: OVL_OPERA, OVL_ORVEL_S or OVL_ORVEL_L */
    char call[16];      /* frame: callsign */
    char locator[8];    /* ORVEL L frame: grid locator */
    double seconds;     /* carrier or pause: 0.05 to 3600 */
    int32_t keep_keyed; /* pause: nonzero keeps `keyed` of the progress raised; no effect on the audio */
} ovl_tx_step;

/* Where a transmission stands. */
typedef struct ovl_tx_progress {
    int32_t step;     /* step being rendered, -1 when there is none */
    int32_t kind;     /* its kind, 0 when there is none */
    int32_t chip;     /* chip of a frame step; -1 in carriers, pauses and the closing ramp */
    int32_t chips;    /* chips of a frame step, else 0 */
    double elapsed_s; /* rendered so far */
    double total_s;   /* planned, closing ramp included; a stop in the closing ramp may take a little longer */
    int32_t keyed;    /* 1 while the station should be keyed */
    int32_t done;     /* 1 when a render has found nothing left, or nothing is prepared */
} ovl_tx_progress;

/* A transmitter: a prepared sequence and how far it has been rendered. Opaque. */
typedef struct ovtx_state ovl_transmitter;

/* Fills settings with the defaults. NULL is ignored. */
OVL_API void ovl_tx_settings_default(ovl_tx_settings *settings);

/* Makes a transmitter with nothing prepared, or returns NULL when memory is short. End it with ovl_tx_destroy(). */
OVL_API ovl_transmitter *ovl_tx_create(void);

/* Frees a transmitter. NULL is allowed. No other call may use it at the same time. */
OVL_API void ovl_tx_destroy(ovl_transmitter *tx);

/*
 * Prepares a sequence of 1 to 64 steps, which are copied; a sequence under way is dropped. Must not overlap a render.
 *
 * Returns 0, or -1 with the transmitter rendering silence. Errors: "empty sequence", "too many steps (max 64)",
 * "sample rate out of range (8000-384000 Hz)", "tone frequency out of range", "level out of range (0 < level <= 1)",
 * "ramp out of range (0-50 ms)", "unknown protocol in a frame step", "cannot encode CALL LOCATOR", "carrier or pause
 * duration out of range (0.05-3600 s)" (also when all steps are longer than 2^31 - 1 samples together), "unknown step
 * kind", "out of memory".
 */
OVL_API int32_t ovl_tx_start(ovl_transmitter *tx, const ovl_tx_settings *settings, const ovl_tx_step *steps, int32_t n);

/*
 * Renders the next n samples into out: mono, at the sample rate of the settings, silence after the end. Returns how
 * many of them belong to the transmission; fewer than n when it has ended.
 */
OVL_API int32_t ovl_tx_render(ovl_transmitter *tx, float *out, int32_t n);

/* Ends the transmission softly, with a ramp from the next rendered sample on. Any thread. NULL is ignored. */
OVL_API void ovl_tx_stop(ovl_transmitter *tx);

/* Moves the level smoothly to another value, above 0 and at most 1, within some 10 ms. Any thread. Returns 0 or -1. */
OVL_API int32_t ovl_tx_set_level(ovl_transmitter *tx, double level);

/* Reports the progress of a transmission. Any thread; during a render fields may be a sample apart. NULL is ignored. */
OVL_API void ovl_tx_status(const ovl_transmitter *tx, ovl_tx_progress *progress);

/* Message of the last ovl_tx_start(): "" after a success. "no transmitter" when tx is NULL. */
OVL_API const char *ovl_tx_last_error(const ovl_transmitter *tx);

/* ---- Audio devices ----------------------------------------------------------------------------------------- */

/* Device number for capture without a sound card; the host feeds samples with ovl_audio_push(). */
#define OVL_AUDIO_NONE (-2)

/* A sound device, as PortAudio describes it. */
typedef struct ovl_audio_device {
    char name[128];            /* "" when it has none */
    char host_api[32];         /* sound system that serves it, "ALSA" for one */
    int32_t input_channels;    /* at most; 0 = no input */
    int32_t output_channels;   /* at most; 0 = no output */
    double default_rate;       /* Hz */
    int32_t is_default_input;  /* 0 or 1 */
    int32_t is_default_output; /* 0 or 1 */
} ovl_audio_device;

/* How capture is doing. The levels are those of the last tenth of a second, in dB of full scale, not below -120. */
typedef struct ovl_audio_stats {
    double peak_db;    /* highest magnitude */
    double rms_db;     /* root of the mean square */
    double captured_s; /* seconds captured since the start */
    double latency_s;  /* delay of the input as the sound system states it */
    int32_t overflows; /* times that input was lost */
    int32_t rate;      /* Hz, of the captured samples; 0 = not capturing */
} ovl_audio_stats;

/*
 * Capture and playback: at most one of each at a time. Opaque.
 *
 * ovl_audio_last(), ovl_audio_input_stats() and the calls that ask about the output may come from any thread at any
 * moment. Starting, stopping and destroying must not overlap another call for the same object, nor starting or stopping
 * another one.
 */
typedef struct ova_state ovl_audio;

/* 1: the library has been built with audio support. */
OVL_API int32_t ovl_audio_available(void);

/*
 * Number of sound devices, 0 when there are none or the sound system cannot be initialised. The first call that needs
 * the devices looks for them; the list then holds until the process ends.
 */
OVL_API int32_t ovl_audio_device_count(void);

/* Describes device `index`, 0 to the count - 1. Returns 0, or -1 with info untouched when there is none. */
OVL_API int32_t ovl_audio_device_info(int32_t index, ovl_audio_device *info);

/* Makes an audio object that does nothing yet, or returns NULL when memory is short. */
OVL_API ovl_audio *ovl_audio_create(void);

/* Ends capture and playback and frees the object. NULL is allowed. */
OVL_API void ovl_audio_destroy(ovl_audio *audio);

/*
 * Starts capture, ending one under way. Audio is kept as one channel at rate / D, with D = rate / 11025 rounded down
 * (at least 1): 12000 Hz from 48000 Hz.
 *
 *   device    0 to the count - 1; -1 = the default input device; OVL_AUDIO_NONE
 *   rate      sample rate of the device, Hz; 0 or less = its default; 8000 to 384000 with OVL_AUDIO_NONE
 *   seconds   of audio kept, at least 1; 0 or less = 60; more than 2^31 - 1 samples are "out of memory"
 *
 * Returns 0, or -1. Errors: "rate out of range (8000-384000 Hz)", "PortAudio initialization failed", "no such input
 * device", "out of memory", "cannot open the input device: REASON".
 */
OVL_API int32_t ovl_audio_start_input(ovl_audio *audio, int32_t device, int32_t rate, double seconds);

/* Ends capture; what was captured is gone. NULL is ignored. */
OVL_API void ovl_audio_stop_input(ovl_audio *audio);

/*
 * Captures samples of the host, with OVL_AUDIO_NONE: `frames` times `channels` (1 to 16) interleaved samples, of which
 * the mean over the channels is kept. Returns frames, or -1; while a sound card is captured the error is "push needs
 * device OVL_AUDIO_NONE". One thread at a time.
 */
OVL_API int32_t ovl_audio_push(ovl_audio *audio, const float *samples, int32_t frames, int32_t channels);

/*
 * Copies the newest captured samples, at most n and at most what is kept, oldest first. Returns how many; 0 when not
 * capturing.
 */
OVL_API int32_t ovl_audio_last(ovl_audio *audio, float *out, int32_t n);

/* Reports how capture is doing. NULL is ignored. */
OVL_API void ovl_audio_input_stats(const ovl_audio *audio, ovl_audio_stats *stats);

/*
 * Plays a prepared transmitter on a device with outputs (-1 = the default output device). The transmitter must not be
 * restarted or destroyed before playback is stopped; stop, level and status are allowed.
 *
 *   start_time   when the first sample leaves the sound card, seconds since 1970-01-01 UTC; 0 or less = at once. When
 *                the time has passed the transmission is late, not cut short
 *
 * Returns 0, or -1. Errors: "no transmit sequence prepared", "PortAudio initialization failed", "no such output
 * device", "cannot open the output device: REASON".
 */
OVL_API int32_t ovl_audio_start_output_at(ovl_audio *audio, int32_t device, ovl_transmitter *tx, double start_time);

/* The same with start_time 0. */
OVL_API int32_t ovl_audio_start_output(ovl_audio *audio, int32_t device, ovl_transmitter *tx);

/* Delay of the output in seconds, as the sound system states it. 0 for NULL. */
OVL_API double ovl_audio_output_latency(const ovl_audio *audio);

/* When the first sample of the transmission left, or will leave, the sound card; 0 while that is not known yet. */
OVL_API double ovl_audio_output_started(const ovl_audio *audio);

/*
 * 1 while playback runs; 0 soon after the transmission has ended: with the next buffer, or with ALSA, which would drop
 * what is still queued, when all has been played.
 */
OVL_API int32_t ovl_audio_output_active(const ovl_audio *audio);

/* Ends playback. To end without a click, stop the transmitter first and wait for it. NULL is ignored. */
OVL_API void ovl_audio_stop_output(ovl_audio *audio);

/*
 * Message of the last ovl_audio_start_ call: "" after a success; or of a push that was refused since. "no audio" for
 * NULL.
 */
OVL_API const char *ovl_audio_last_error(const ovl_audio *audio);

/* ---- Library ----------------------------------------------------------------------------------------------- */

/* Version of the interface that this header describes: 5. */
OVL_API int32_t ovl_api_version(void);

/* Version of the library, "1.6.1". Static text. */
OVL_API const char *ovl_version(void);

/* ---- Decoder ----------------------------------------------------------------------------------------------- */

/* A decoder: the list of known callsigns, the last error and working memory. Opaque. */
typedef struct ovl_decoder ovl_decoder;

/* Makes a decoder, or returns NULL when memory is short. End it with ovl_destroy(). */
OVL_API ovl_decoder *ovl_create(void);

/* Frees a decoder and all it owns. NULL is allowed. */
OVL_API void ovl_destroy(ovl_decoder *decoder);

/*
 * Message of the last call that used this decoder: "" after a success. The text belongs to the decoder and holds
 * until its next call. "no decoder" when decoder is NULL.
 */
OVL_API const char *ovl_last_error(const ovl_decoder *decoder);

/*
 * Replaces the decoder's list of known callsigns.
 *
 *   list   callsigns separated by ASCII blanks, commas or semicolons; NULL or "" empties the list
 *
 * Returns the number of callsigns now known. Tokens that are not a callsign of the protocols are silently left out.
 * Fails with "too many known callsigns (max 256)" at the 257th token; the first 256 then stay in use.
 */
OVL_API int32_t ovl_set_known(ovl_decoder *decoder, const char *list);

/* What to look for in a block. Fill it with ovl_settings_default() and change what differs. */
typedef struct ovl_settings {
    int32_t protocols;   /* mask of protocol ids, default all; only the low three bits count */
    double center_hz;    /* centre of the frequency search in the block, Hz; default 1500 */
    double search_hz;    /* half-width of the frequency search, Hz; default 200 */
    double spread_hz;    /* width over which the energy of a spread signal is summed, Hz; default 0 = off */
    int32_t deep_search; /* nonzero: also search below the ordinary threshold for known callsigns; default 1 */
    int32_t known_only;  /* nonzero: accept only known callsigns; default 0 */
    double end_min;      /* earliest end of an accepted frame, seconds from the first sample; default -1e9 */
    double end_max;      /* latest end of an accepted frame, seconds; negative = no limit; default -1 */
} ovl_settings;

/* Fills settings with the defaults. NULL is ignored. */
OVL_API void ovl_settings_default(ovl_settings *settings);

/* One decoded frame. Times are seconds from the first sample of the block. */
typedef struct ovl_result {
    char call[8];      /* callsign, NUL-terminated */
    char locator[8];   /* grid locator of an ORVEL L frame, otherwise "" */
    int32_t protocol;  /* OVL_OPERA, OVL_ORVEL_S or OVL_ORVEL_L */
    int32_t deep;      /* OVL_ method: 0; 1 = only the search for known callsigns found it; 2, 3 = coherent */
    double t_start;    /* start of the frame; negative when it began before the block */
    double t_end;      /* end of the frame */
    double freq_hz;    /* carrier frequency in the middle of the frame, Hz */
    double snr_db;     /* mean power over the frame against noise in 2500 Hz, dB; -99 or less: not measured */
    double drift_hz_s; /* frequency drift, Hz/s */
} ovl_result;

/*
 * Finds and decodes all frames in a block of audio.
 *
 *   samples       n mono samples, all finite; full scale is usually 1, but anything from 1e-12 to 1e12 will do
 *   n             number of samples, at least 1; a frame may extend past either end of the block by a fifth
 *   rate          sample rate, Hz; 8000, 12000, 16000, 24000, 32000, 48000, 96000 and 192000 are all served, as is
 *                 every rate whose quotient with 125 Hz times a power of two has no prime factor above 7
 *   settings      what to look for. search_hz may be up to 125 kHz, or twice the sample rate where that is more; a
 *                 decode takes about 0.6 kB of memory per Hz of it and second of the block. The SNR compares a frame
 * with the median noise of the band searched and some 50 Hz beyond: where a receiver's filter, or 0 Hz or half the
 * rate, cuts off much of that, it comes out too high, by tens of dB; search no wider than the passband results room for
 * max_results records, filled in order of start time; may be NULL when max_results is 0 max_results   0 or more; at
 * most 64 frames are reported from one block
 *
 * Returns the number of records written, or -1 with no record written. Errors: "invalid argument", "no protocol
 * selected", "out of memory", "known_only needs a list of known callsigns (ovl_set_known)", "block too short or
 * invalid for decoding", which is also the answer to a wider search_hz and to one that needs more memory than there is.
 * When memory runs short later than that, the frames that could not be examined are missing.
 */
OVL_API int32_t ovl_decode(ovl_decoder *decoder, const float *samples, int32_t n, int32_t rate,
                           const ovl_settings *settings, ovl_result *results, int32_t max_results);

/*
 * Decodes only frames that end within the last recent_s seconds of the block: for a host that decodes a sliding
 * buffer again and again. It overrides end_min and end_max of the settings; otherwise as ovl_decode().
 */
OVL_API int32_t ovl_decode_recent(ovl_decoder *decoder, const float *samples, int32_t n, int32_t rate,
                                  const ovl_settings *settings, double recent_s, ovl_result *results,
                                  int32_t max_results);

/* ---- Coherent search ------------------------------------------------------------------------------------------ */

/*
 * A search some 4 dB deeper, for carriers that keep their phase for seconds, which most do. It is off unless a host
 * asks for it, and then looks beside what the other searches of a decode have found, whose results stay as they are. A
 * host that loads the library at run time finds it by its symbols: the version of the interface says nothing of it.
 */

/* How a result was found. */
enum {
    OVL_STANDARD = 0,      /* by the standard search, which needs no phase */
    OVL_DEEP = 1,          /* by the standard search for known callsigns */
    OVL_COHERENT = 2,      /* by the coherent search */
    OVL_COHERENT_KNOWN = 3 /* by the coherent search for known callsigns: as known, never as certain as the others */
};

/* How far the coherent search goes. Fill it with ovl_coherent_default() and change what differs. */
typedef struct ovl_coherent {
    int32_t places;  /* limit on effort: places examined for each length of frames and pass, 2 to 64; default 16 */
    int32_t passes;  /* over the block, each without the frames found before: 1 to 8; default 4 */
    int32_t threads; /* 1 or 2; default 1. A second thread ends before the decode returns */
    int32_t known;   /* nonzero: also look for the known callsigns further down; default 1 */
} ovl_coherent;

/* How sure a result is. The odds are NaN where they are not measured, with OVL_STANDARD and OVL_DEEP. */
typedef struct ovl_finding {
    int32_t method; /* OVL_ method, the result's `deep` */
    double odds;    /* natural logarithm of the odds that it was sent as it was read */
} ovl_finding;

/* Fills settings with the defaults. NULL is ignored. */
OVL_API void ovl_coherent_default(ovl_coherent *settings);

/*
 * Switches the coherent search on for the decodes of a decoder; NULL switches it off. Returns 0, or -1 with nothing
 * changed; error: "invalid argument" for a number out of its range.
 */
OVL_API int32_t ovl_set_coherent(ovl_decoder *decoder, const ovl_coherent *settings);

/*
 * How the results of the last decode were found, in the order of the results: writes at most max records and returns
 * how many results there are, 0 after a decode that failed. -1 when decoder is NULL, max is negative, or findings is
 * NULL and max is not 0.
 */
OVL_API int32_t ovl_findings(const ovl_decoder *decoder, ovl_finding *findings, int32_t max);

/* ---- Keying --------------------------------------------------------------------------------------------------- */

/* A frequency at which something is keyed. */
typedef struct ov_hit {
    double freq_hz; /* Hz */
    double z;       /* distance from the median of all frequencies, sigma */
} ov_hit;

/*
 * Reports whether and where in the band something is being keyed at the chip rate, in the newest seconds of a block:
 * much cheaper than decoding it. A steady carrier does not count, but the leakage of a very strong one may.
 *
 *   samples, n, rate   as for ovl_decode(); at least 4000 Hz
 *   settings           center_hz and search_hz say where; hits lie within search_hz + 5 Hz of the centre
 *   seconds            how much of the block's end to examine, at least 3
 *   z_min              least z of a hit; noise alone seldom reaches 6
 *   out                room for max_out (at least 1) hits, strongest first, at least 15 Hz apart
 *
 * Returns the number of hits, 0 also when the block is shorter than about half of `seconds`; -1 for a bad argument or
 * when memory is short. Any thread.
 */
OVL_API int32_t ovl_keyed(const float *samples, int32_t n, int32_t rate, const ovl_settings *settings, double seconds,
                          double z_min, ov_hit *out, int32_t max_out);

#ifdef __cplusplus
}
#endif

#endif
