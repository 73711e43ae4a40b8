// SoapySDR's C interface by the names of its functions: nothing of it is needed to build, or to listen to anything
// else.
#include "sources/soapy.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "system/libraries.h"

namespace {

constexpr int RECEIVE = 1;
constexpr int HAS_TIME = 1 << 2;
constexpr int TIMEOUT = -1;
constexpr int LOST = -4;  // samples
constexpr int LOG_ERRORS = 3;
constexpr const char* FORMAT = "CF32";

constexpr long READ_US = 200000;
constexpr double STEP_S = 0.2;
constexpr double STREAM_CLOSE_S = 3;
constexpr double STILL_S = 10;       // without a sample: the receiver stands still
constexpr double MOST_PAUSE_S = 60;  // between attempts
constexpr double LEAST_GAP_S = 0.001;
constexpr std::size_t BLOCK = 1 << 16;  // pairs

}  // namespace

struct SoapyReceiver::Api {
    using Device = void;

    static const Api& instance() {
        static const Api api;
        return api;
    }

    const char* (*last_error)();
    void (*set_log_level)(int);
    Device* (*make)(const char*);
    int (*unmake)(Device*);
    int (*set_rate)(Device*, int, std::size_t, double);
    double (*rate)(Device*, int, std::size_t);
    int (*set_frequency)(Device*, int, std::size_t, double, const void*);
    int (*set_gain)(Device*, int, std::size_t, double);
    int (*set_gain_mode)(Device*, int, std::size_t, bool);
    int (*set_correction)(Device*, int, std::size_t, double);
    void* (*setup_stream)(Device*, int, const char*, const std::size_t*, std::size_t, const void*);
    int (*activate)(Device*, void*, int, long long, std::size_t);
    int (*read)(Device*, void*, void* const*, std::size_t, int*, long long*, long);
    int (*deactivate)(Device*, void*, int, long long);
    int (*close)(Device*, void*);

  private:
    Api() : library_(load_library({"libSoapySDR.so.0.8", "SoapySDR.dll"})) {
        if (library_ == nullptr) throw IoError("SoapySDR is not installed (libsoapysdr0.8)");
        take("SoapySDRDevice_lastError", last_error);
        take("SoapySDR_setLogLevel", set_log_level);
        take("SoapySDRDevice_makeStrArgs", make);
        take("SoapySDRDevice_unmake", unmake);
        take("SoapySDRDevice_setSampleRate", set_rate);
        take("SoapySDRDevice_getSampleRate", rate);
        take("SoapySDRDevice_setFrequency", set_frequency);
        take("SoapySDRDevice_setGain", set_gain);
        take("SoapySDRDevice_setGainMode", set_gain_mode);
        take("SoapySDRDevice_setFrequencyCorrection", set_correction);
        take("SoapySDRDevice_setupStream", setup_stream);
        take("SoapySDRDevice_activateStream", activate);
        take("SoapySDRDevice_readStream", read);
        take("SoapySDRDevice_deactivateStream", deactivate);
        take("SoapySDRDevice_closeStream", close);
        set_log_level(LOG_ERRORS);
    }

    template <class Function>
    void take(const char* name, Function& function) {
        function = reinterpret_cast<Function>(find_symbol(library_, name));
        if (function == nullptr) throw IoError(std::string("SoapySDR has no ") + name);
    }

    void* library_;
};

// A receiver that runs. Throws IoError when it cannot be opened or set.
class SoapyReceiver::Stream {
  public:
    Stream(const Api& api, const std::string& arguments, const TunerSettings& tuner)
        : api_(api), device_(api.make(arguments.c_str())) {
        if (device_ == nullptr) throw IoError(api_.last_error());
        try {
            set(tuner);
            start();
        } catch (const IoError&) {
            end();
            throw;
        }
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { end(); }

    int32_t rate() const { return rate_; }

    // Pairs received; 0 when none come in time, or some were lost.
    std::size_t read(std::vector<std::complex<float>>& block, std::optional<int64_t>& time_ns, bool& lost) {
        void* const buffer = block.data();
        int flags = 0;
        long long time = 0;
        const int got = api_.read(device_, stream_, &buffer, block.size(), &flags, &time, READ_US);
        lost = got == LOST;
        if (got < 0 && got != TIMEOUT && !lost) throw IoError(::format("it fails to receive (%d)", got));
        if (got > 0 && (flags & HAS_TIME) != 0) time_ns = time;
        return static_cast<std::size_t>(std::max(got, 0));
    }

  private:
    void set(const TunerSettings& tuner) {
        require(api_.set_rate(device_, RECEIVE, 0, tuner.rate), "sample rate");
        rate_ = static_cast<int32_t>(std::lround(api_.rate(device_, RECEIVE, 0)));
        if (rate_ < 1) throw IoError("it does not say its sample rate");
        if (tuner.ppm != 0) require(api_.set_correction(device_, RECEIVE, 0, tuner.ppm), "correction");
        if (tuner.gain_db) {
            api_.set_gain_mode(device_, RECEIVE, 0, false);  // some have no automatic gain
            require(api_.set_gain(device_, RECEIVE, 0, *tuner.gain_db), "gain");
        }
        if (tuner.freq_hz) require(api_.set_frequency(device_, RECEIVE, 0, *tuner.freq_hz, nullptr), "frequency");
    }

    void start() {
        const std::size_t channel = 0;
        stream_ = api_.setup_stream(device_, RECEIVE, FORMAT, &channel, 1, nullptr);
        if (stream_ == nullptr) throw IoError(api_.last_error());
        require(api_.activate(device_, stream_, 0, 0, 0), "stream");
    }

    void require(int status, const char* what) const {
        if (status != 0) throw IoError(std::string("its ") + what + " cannot be set: " + api_.last_error());
    }

    void end() {
        if (stream_ != nullptr) {
            api_.deactivate(device_, stream_, 0, 0);
            api_.close(device_, stream_);
        }
        api_.unmake(device_);
        stream_ = nullptr;
    }

    const Api& api_;
    Api::Device* device_;
    void* stream_ = nullptr;
    int32_t rate_ = 0;
};

struct SoapyReceiver::Opening {
    std::shared_ptr<Stream> stream;
    std::string problem;
};

SoapyReceiver::SoapyReceiver(const std::string& text, const SourceOptions& options)
    : api_(Api::instance()),
      arguments_(text.substr(0, text.find('?'))),
      tuner_(parse_tuner("soapy:" + text, text.substr(std::min(arguments_.size() + 1, text.size())))),
      name_(options.name),
      rate_(tuner_.rate),
      block_(BLOCK) {
    if (!arguments_.starts_with("driver=")) throw UsageError("soapy:" + text + ": not soapy:driver=NAME");
    if (tuner_.direct != 0)
        throw UsageError("soapy:" + text + ": direct= is for rtl_tcp; drivers have settings of their own");
}

SoapyReceiver::~SoapyReceiver() {
    try {
        close();
    } catch (const IoError&) {  // it has been given up
    }
}

SourceFormat SoapyReceiver::format() const {
    SourceFormat format{.iq = true, .rate = rate_, .tuning = {}};
    if (tuner_.freq_hz) format.tuning = Tuning{.dial_hz = *tuner_.freq_hz};
    return format;
}

Source::State SoapyReceiver::read(Piece& piece) {
    piece = {};
    try {
        return stream_ ? read_stream(piece) : wait_for_stream();
    } catch (const IoError& error) {
        give_up_stream(error.what());
        return State::NONE_YET;
    }
}

// Drivers may take long to open a receiver, or never come back.
Source::State SoapyReceiver::wait_for_stream() {
    if (!opening_) {
        const double left_s = retry_at_ - monotonic_now();
        if (left_s > 0) {
            nap(std::min(STEP_S, left_s));
            return State::NONE_YET;
        }
        opening_ = std::make_shared<Opening>();
        opens_ = Background([opening = opening_, &api = api_, arguments = arguments_, tuner = tuner_] {
            try {
                opening->stream = std::make_shared<Stream>(api, arguments, tuner);
            } catch (const std::exception& error) {
                opening->problem = error.what();
            }
        });
    }
    if (!opens_.wait(STEP_S)) return State::NONE_YET;
    const auto opened = std::exchange(opening_, nullptr);
    if (!opened->stream) throw IoError(opened->problem);
    stream_ = opened->stream;
    fresh_ = true;
    expected_ns_.reset();
    return std::exchange(rate_, stream_->rate()) != stream_->rate() ? State::BROKEN : State::NONE_YET;
}

Source::State SoapyReceiver::read_stream(Piece& piece) {
    std::optional<int64_t> time_ns;
    bool lost = false;
    const std::size_t pairs = stream_->read(block_, time_ns, lost);
    const double now = monotonic_now();
    if (came_at_ == 0) came_at_ = now;
    if (pairs == 0) {
        if (now > came_at_ + STILL_S) throw IoError("no samples come");
        return State::NONE_YET;
    }
    if (std::exchange(fresh_, false) && !std::exchange(complaint_, "").empty()) {
        tell(name_, arguments_ + " is back");
        piece.lost_s = now - came_at_;
    }
    if (time_ns && expected_ns_) {
        const double gap_s = 1e-9 * static_cast<double>(*time_ns - *expected_ns_);
        if (gap_s > LEAST_GAP_S) piece.lost_s = gap_s;
    }
    if (time_ns) expected_ns_ = *time_ns + static_cast<int64_t>(1e9 * static_cast<double>(pairs) / rate_);
    came_at_ = now;
    wait_s_ = 1;
    piece.samples.reserve(2 * pairs);
    for (const std::complex<float>& sample : std::span(block_).first(pairs)) {
        const bool finite = std::isfinite(sample.real()) && std::isfinite(sample.imag());
        piece.samples.push_back(finite ? sample.real() : 0.0f);
        piece.samples.push_back(finite ? sample.imag() : 0.0f);
    }
    return State::SAMPLES;
}

void SoapyReceiver::give_up_stream(const std::string& reason) {
    stream_.reset();
    if (std::exchange(complaint_, reason) != reason) tell(name_, arguments_ + ": " + reason + "; trying again");
    retry_at_ = monotonic_now() + wait_s_;
    wait_s_ = std::min(2 * wait_s_, MOST_PAUSE_S);
}

void SoapyReceiver::close() {
    const bool opened = opens_.wait(STREAM_CLOSE_S);
    const bool closed = opened && Background([stream = std::exchange(stream_, nullptr)]() mutable {
                                      stream.reset();
                                  }).wait(STREAM_CLOSE_S);
    opening_.reset();
    if (closed) return;
    note_hang();
    throw IoError(arguments_ + " does not close");
}
