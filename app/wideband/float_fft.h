// Owners for FFTW's plans and buffers of single precision. As in ovfft.h every plan is made and destroyed under one
// process-wide lock; plans may run in any thread.
#pragma once

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>

struct FloatFftFree {
    void operator()(void* buffer) const noexcept { fftwf_free(buffer); }
};

// A buffer as the transforms like it aligned.
template <class T>
using FloatFftArray = std::unique_ptr<T[], FloatFftFree>;

struct FloatFftDestroy {
    void operator()(fftwf_plan plan) const noexcept;
};
using FloatFftPlan = std::unique_ptr<fftwf_plan_s, FloatFftDestroy>;

// `count` zeros. Throws std::bad_alloc, here and below.
FloatFftArray<float> float_fft_reals(std::size_t count);
FloatFftArray<std::complex<float>> float_fft_complexes(std::size_t count);

// Plans of length n. Planning does not touch the buffers; the complex ones work in place when in == out.
FloatFftPlan plan_float_real(int32_t n, float* in, std::complex<float>* out);
FloatFftPlan plan_float_complex(int32_t n, std::complex<float>* in, std::complex<float>* out, int sign);
