#include "ovfft.h"

#include <mutex>

namespace {

std::mutex planner;

fftw_complex* raw(std::complex<double>* buffer) {
    return reinterpret_cast<fftw_complex*>(buffer);
}

}  // namespace

void FftwDestroy::operator()(fftw_plan plan) const noexcept {
    const std::lock_guard lock(planner);
    fftw_destroy_plan(plan);
}

FftwPlan plan_real_forward(int32_t n, double* in, std::complex<double>* out) noexcept {
    const std::lock_guard lock(planner);
    return FftwPlan(fftw_plan_dft_r2c_1d(n, in, raw(out), FFTW_ESTIMATE));
}

FftwPlan plan_complex(int32_t n, std::complex<double>* in, std::complex<double>* out, int sign) noexcept {
    const std::lock_guard lock(planner);
    return FftwPlan(fftw_plan_dft_1d(n, raw(in), raw(out), sign, FFTW_ESTIMATE));
}
