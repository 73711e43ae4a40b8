// Receive front end: from a block of samples at the sound card's rate to a complex baseband at a low rate around a
// chosen frequency.
//
// The block is transformed once, zero-padded to a length at which the requested band is a whole number of bins; a
// rectangular cut of those bins around the centre, transformed back, is the baseband. Many bands can be cut from one
// spectrum. A real tone of amplitude A becomes a phasor of magnitude A/2, a complex one keeps its magnitude.
//
// Records are plain; the caller that has one filled owns its buffer (from fftw_malloc) and frees it with the _free
// function, which may be called again on a freed or failed record. Calls return 0, or -1 with the record zeroed: no
// transform size, no memory, a rate below 1 or a sample that is not finite.
#pragma once

#include <complex>
#include <cstdint>

// The unnormalised forward transform of one block.
struct ov_spectrum {
    std::complex<double>* bins;  // owned
    int32_t nfft;                // transform length
    int32_t nbins;               // bins held: nfft/2 + 1 of real samples (0 Hz upward), nfft of I/Q (FFTW's order)
    int32_t is_complex;          // 1 for I/Q
    int32_t rate;                // sample rate of the block, Hz
    int32_t out_rate;            // sample rate of the basebands cut from it, Hz
    int32_t nout;                // bins in one cut, nfft · out_rate / rate
    int32_t nsamp_out;           // baseband samples that stand for samples of the block, not for padding
};

// A complex baseband signal.
struct ov_baseband {
    std::complex<double>* samples;  // owned
    int32_t n;                      // valid samples
    double rate;                    // Hz
    double centre;                  // frequency of the block that lies at 0 Hz here, Hz
};

// Transform sizes for cutting a band out of one spectrum.
//
// Finds the shortest transform that holds n samples at `rate` and whose cut at `out_rate` is a whole number of bins,
// both lengths free of prime factors above 7:
//     nfft = k·a,  nout = k·b,  a/b = rate/out_rate in lowest terms,  k ≥ ceil(n/a).
//
//   n         samples in the block, any value (below 1 counts as 1)
//   rate      their sample rate, Hz
//   out_rate  wanted baseband rate, Hz
// Returns 0, or -1 with both outputs untouched when a rate is below 1, 100 000 multiples were tried without success, or
// the lengths outgrow 32 bits.
int choose_sizes(int32_t n, int32_t rate, int32_t out_rate, int32_t& nfft, int32_t& nout);

// The spectrum of n real samples, or of n I/Q pairs.
int ov_spectrum_real(const double* x, int32_t n, int32_t rate, int32_t out_rate, ov_spectrum& out);
int ov_spectrum_iq(const double* i, const double* q, int32_t n, int32_t rate, int32_t out_rate, ov_spectrum& out);
void ov_spectrum_free(ov_spectrum& spectrum);

// Cuts the baseband around centre_hz, which is snapped to the nearest bin. Where the band reaches past 0 Hz or past
// half the rate of real samples it is zero; in an I/Q spectrum it wraps round. The spectrum is only read.
int ov_baseband_extract(const ov_spectrum& spectrum, double centre_hz, ov_baseband& out);
void ov_baseband_free(ov_baseband& baseband);

// Spectrum and one cut in one step.
int ov_baseband_real(const double* x, int32_t n, int32_t rate, double centre_hz, int32_t out_rate, ov_baseband& out);
int ov_baseband_iq(const double* i, const double* q, int32_t n, int32_t rate, double centre_hz, int32_t out_rate,
                   ov_baseband& out);
