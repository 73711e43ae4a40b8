#include "wideband/float_fft.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

namespace {

std::mutex planner;

fftwf_complex* raw(std::complex<float>* buffer) {
    return reinterpret_cast<fftwf_complex*>(buffer);
}

// FFTW ends the process when it gets no memory, so it is called only when there is enough.
void require_memory(int32_t n) {
    constexpr std::size_t BYTES = 512 << 10;
    constexpr std::size_t BYTES_PER_POINT = 16;
    const auto probe = std::make_unique_for_overwrite<char[]>(BYTES + BYTES_PER_POINT * static_cast<std::size_t>(n));
}

FloatFftPlan owned(fftwf_plan plan) {
    if (plan == nullptr) throw std::bad_alloc();
    return FloatFftPlan(plan);
}

template <class T>
FloatFftArray<T> zeros(std::size_t count) {
    FloatFftArray<T> array(static_cast<T*>(fftwf_malloc(count * sizeof(T))));
    if (!array) throw std::bad_alloc();
    std::fill_n(array.get(), count, T{});
    return array;
}

}  // namespace

void FloatFftDestroy::operator()(fftwf_plan plan) const noexcept {
    const std::lock_guard lock(planner);
    fftwf_destroy_plan(plan);
}

FloatFftArray<float> float_fft_reals(std::size_t count) {
    return zeros<float>(count);
}

FloatFftArray<std::complex<float>> float_fft_complexes(std::size_t count) {
    return zeros<std::complex<float>>(count);
}

FloatFftPlan plan_float_real(int32_t n, float* in, std::complex<float>* out) {
    const std::lock_guard lock(planner);
    require_memory(n);
    return owned(fftwf_plan_dft_r2c_1d(n, in, raw(out), FFTW_ESTIMATE));
}

FloatFftPlan plan_float_complex(int32_t n, std::complex<float>* in, std::complex<float>* out, int sign) {
    const std::lock_guard lock(planner);
    require_memory(n);
    return owned(fftwf_plan_dft_1d(n, raw(in), raw(out), sign, FFTW_ESTIMATE));
}
