// Live samples, wherever they come from.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/sample_format.h"
#include "base/tuning.h"

struct SourceFormat {
    bool iq = false;
    int32_t rate = 0;                   // Hz
    std::optional<Tuning> tuning = {};  // where the source knows it
    bool waits = false;                 // samples that are not read yet stay where they are
};

// Samples that follow one another.
struct Piece {
    std::vector<float> samples;  // of full scale 1 and finite; of I/Q in turn I and Q
    double lost_s = 0;           // what was lost right before them, as far as the source knows
};

// One thread at a time. What goes wrong is told as a line on standard error, and whatever may pass is waited for.
class Source {
  public:
    enum class State {
        SAMPLES,   // the piece holds some
        NONE_YET,  // ask again
        BROKEN,    // what comes next does not continue what came, and its format may be another
        ENDED
    };

    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    // Waits for samples, for a quarter of a second at most. Throws IoError when there will never be any more.
    virtual State read(Piece& piece) = 0;

    virtual SourceFormat format() const = 0;

    // Whether the end of the samples was a failure.
    virtual bool failed() const { return false; }

    // Ends it. Throws IoError when it cannot be ended.
    virtual void close() {}
};

struct SourceOptions {
    std::string name = {};  // of the receiver, which begins the lines about it; "" for the only one
    std::optional<int32_t> rate = {};
    double keep_s = 60;  // how long samples wait at least to be read
    // Of standard input:
    SampleFormat samples = {};
    bool iq = false;       // two channels, I and Q; of a sound device, too
    int32_t channels = 1;  // of which the mean is taken; with I/Q two
};

// Opens the source that a text names:
//   "", number or name           a sound device, as find_device() has it; also behind "device:"
//   "-"                          standard input, raw
//   rtl_tcp://HOST[:PORT]?…      a server, as rtl_tcp.h describes it
//   soapy:driver=NAME?…          a receiver that SoapySDR knows, as soapy.h describes it
// Throws UsageError or IoError. A server or receiver need not be there yet.
std::unique_ptr<Source> open_source(const std::string& text, const SourceOptions& options);

// Whether it stands for a sound device.
bool is_sound_device(const std::string& text);

// Whether it cannot be the name of a file: it begins as a live source does, with "device:" for a sound device.
bool is_live_source(const std::string& text);

// Whether a call into a device of this process hangs. Then only std::_Exit() ends it: at any other end the device is
// waited for.
bool any_source_hangs();
void note_hang();

// A line about a receiver on standard error.
void tell(const std::string& receiver, const std::string& text);
