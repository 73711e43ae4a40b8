// Owners for FFTW's buffers and plans.
//
// FFTW may execute plans in many threads but plan in one only: every plan here is made and destroyed under one
// process-wide lock, so separate decodes may run at once.
#pragma once

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "bigpages.h"

struct FftwFree {
    void operator()(void* buffer) const noexcept { fftw_free(buffer); }
};

// A buffer from fftw_malloc, uninitialised.
template <class T>
using FftwArray = std::unique_ptr<T[], FftwFree>;

// `count` values, or an empty owner when memory is short.
template <class T>
FftwArray<T> fftw_array(int64_t count) noexcept {
    if (count < 0 || static_cast<uint64_t>(count) > SIZE_MAX / sizeof(T)) return {};
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
    void* const buffer = fftw_malloc(bytes);
    prefer_big_pages(buffer, bytes);
    return FftwArray<T>(static_cast<T*>(buffer));
}

struct FftwDestroy {
    void operator()(fftw_plan plan) const noexcept;
};
using FftwPlan = std::unique_ptr<fftw_plan_s, FftwDestroy>;

// Plans of length n with FFTW_ESTIMATE (planning does not touch the buffers); an empty owner when FFTW makes none or
// memory is short.
// The complex one works in place when in == out.
FftwPlan plan_real_forward(int32_t n, double* in, std::complex<double>* out) noexcept;
FftwPlan plan_complex(int32_t n, std::complex<double>* in, std::complex<double>* out, int sign) noexcept;
