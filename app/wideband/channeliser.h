// A wide band split into narrow ones, each as I/Q at a low rate, in one pass:
//     samples → overlapping blocks → one transform each → for each slice its bins, filtered and folded → back
//
// The filter of a slice is flat within 0.01 dB over ±0.45 of the slice rate, and what folds back into that part is
// damped by 80 dB or more. Sample k of every slice stands for the time k / slice_rate() after the first sample pushed.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "base/parse.h"

class Channeliser {
  public:
    struct Slice {
        double center_hz;  // 0 Hz of its samples, in the input
        Range own_hz;      // its part of the band, in the input; slices are flat 65 Hz further than that
    };

    // Takes the next samples of one slice. All slices advance together: calls come in order of slices, the same number
    // of samples for each.
    using Sink = std::function<void(std::size_t slice, std::span<const std::complex<float>> samples)>;

    // Splits a band into slices of some 3.4 kHz at a little over 4 kHz.
    //
    //   rate   of the input, 8 kHz to 3.2 MHz; one that does not divide is converted on the way
    //   iq     the input is I, Q in turn; real samples otherwise
    //   band   within what the input holds, as whole_band()
    // Throws UsageError for a rate out of range or an empty band, std::bad_alloc here and in push() and finish().
    Channeliser(int32_t rate, bool iq, const Range& band);

    // One slice alone, flat over center_hz ± half_hz and the 65 Hz beside: at 1 kHz, or as much more as that takes. Of
    // input from 1 kHz on.
    // Throws UsageError when the input does not hold it at its rate.
    static Channeliser narrow(int32_t rate, bool iq, double center_hz, double half_hz);

    // The baseband around a frequency of I/Q, at exactly that rate. Both rates have no prime factors above 7.
    // Throws UsageError when the input does not hold it.
    static Channeliser baseband(int32_t rate, double center_hz, int32_t baseband_rate);

    Channeliser(Channeliser&&) noexcept;
    Channeliser& operator=(Channeliser&&) noexcept;
    ~Channeliser();

    int32_t slice_rate() const;  // Hz, one that the decoder serves
    const std::vector<Slice>& slices() const;

    // Begins in the middle of the input, with what comes out from there on the same to the bit. Before the first push.
    //
    //   sample   of the slices: with this one, or some blocks before it
    // Returns where that is: the sample of the input to push first, and that of the slices which comes first.
    struct Place {
        int64_t input, slice;
    };
    Place begin_at(int64_t sample);

    // Samples of full scale 1, I and Q of a pair together; those that are not finite or beyond 2^31 count as silence.
    // The output does not depend on how the input is cut.
    void push(std::span<const float> samples, const Sink& sink);

    // Hands out what is left: as many samples of each slice as the input lasted. Nothing may be pushed afterwards.
    void finish(const Sink& sink);

  private:
    class Bank;
    class Converter;
    explicit Channeliser(std::unique_ptr<Bank> bank);
    Channeliser(int32_t rate, bool iq, int32_t least_slice_rate);

    std::unique_ptr<Converter> converter_;  // for rates that do not divide
    std::unique_ptr<Bank> bank_;
};
