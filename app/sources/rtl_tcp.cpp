#include "sources/rtl_tcp.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>
#include <utility>

#include "base/background.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "system/sockets.h"

namespace {

constexpr double READ_S = 0.2;       // a read waits at most
constexpr double CONNECT_S = 10;     // a connection takes at most
constexpr double MOST_WAIT_S = 60;   // between attempts
constexpr double SETTLED_S = 10;     // of samples make a connection a good one
constexpr double RATE_ERROR = 0.01;  // what comes late or early may make of a rate

// What receivers are run at, by nature or by habit, Hz.
constexpr std::array USUAL_RATES = {48000,   96000,   192000,  250000,  256000,  300000,  900001,  960000,
                                    1000000, 1024000, 1200000, 1400000, 1536000, 1600000, 1800000, 1920000,
                                    2000000, 2048000, 2400000, 2560000, 2800000, 2880000, 3000000, 3200000};
constexpr std::size_t READ_BYTES = 1 << 18;

constexpr std::size_t HEADER_BYTES = 12;
constexpr std::string_view MAGIC = "RTL0";
constexpr std::array TUNERS = {"unknown", "E4000", "FC0012", "FC0013", "FC2580", "R820T", "R828D"};

enum Command : uint8_t { FREQUENCY = 1, RATE = 2, GAIN_MODE = 3, GAIN = 4, PPM = 5, DIRECT = 9 };

// ---- The network ----------------------------------------------------------------------------------------------------

// A name server may keep us waiting.
struct Lookup {
    explicit Lookup(const RtlTcpAddress& address) : answer(std::make_shared<Answer>()) {
        asking = Background([answer = answer, host = address.host, port = address.port] {
            try {
                answer->addresses = resolve(host, port);
            } catch (const IoError& error) {
                answer->problem = error.what();
            }
        });
    }

    struct Answer {
        std::vector<SocketAddress> addresses;
        std::string problem;
    };
    std::shared_ptr<Answer> answer;
    Background asking;
};

void append_command(std::vector<uint8_t>& bytes, Command command, uint32_t value) {
    bytes.push_back(command);
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

}  // namespace

std::string RtlTcpAddress::text() const {
    return host.find(':') == std::string::npos ? host + ":" + port : "[" + host + "]:" + port;
}

RtlTcpAddress parse_rtl_tcp(const std::string& text) {
    RtlTcpAddress address;
    const std::size_t question = std::min(text.find('?'), text.size());
    const std::string where = text.substr(0, question);
    const std::size_t bracket = where.starts_with('[') ? where.find(']') : std::string::npos;
    const std::size_t colon = where.find(':', bracket == std::string::npos ? 0 : bracket);
    address.host = bracket == std::string::npos ? where.substr(0, colon) : where.substr(1, bracket - 1);
    if (colon != std::string::npos) address.port = where.substr(colon + 1);
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (address.host.empty() || address.port.empty() || !std::ranges::all_of(address.port, is_digit)) {
        throw UsageError("rtl_tcp://" + text + ": not rtl_tcp://HOST[:PORT][?SETTING=VALUE&...]");
    }
    address.tuner =
        parse_tuner("rtl_tcp://" + text, std::string_view(text).substr(std::min(question + 1, text.size())));
    const double freq_hz = address.tuner.freq_hz.value_or(0);
    if (freq_hz != std::floor(freq_hz) || freq_hz > std::numeric_limits<uint32_t>::max()) {
        throw UsageError("rtl_tcp://" + text + ": the frequency is not a whole number below 2^32");
    }
    return address;
}

std::vector<uint8_t> rtl_tcp_commands(const RtlTcpAddress& address) {
    const TunerSettings& tuner = address.tuner;
    std::vector<uint8_t> bytes;
    append_command(bytes, RATE, static_cast<uint32_t>(tuner.rate));
    append_command(bytes, GAIN_MODE, tuner.gain_db ? 1 : 0);
    if (tuner.gain_db) append_command(bytes, GAIN, static_cast<uint32_t>(std::lround(10 * *tuner.gain_db)));
    if (tuner.ppm != 0) append_command(bytes, PPM, static_cast<uint32_t>(tuner.ppm));
    if (tuner.direct != 0) append_command(bytes, DIRECT, static_cast<uint32_t>(tuner.direct));
    if (tuner.freq_hz) append_command(bytes, FREQUENCY, static_cast<uint32_t>(*tuner.freq_hz));
    return bytes;
}

// ---- What a server sends --------------------------------------------------------------------------------------------

void RtlTcpStream::push(std::span<const uint8_t> bytes, std::vector<float>& samples) {
    while (!begun_ && !bytes.empty()) {
        head_.push_back(bytes.front());
        bytes = bytes.subspan(1);
        const std::size_t known = std::min(head_.size(), MAGIC.size());
        const bool fits = std::equal(head_.begin(), head_.begin() + static_cast<std::ptrdiff_t>(known), MAGIC.begin());
        if (!fits) {
            begun_ = true;
            push_samples(head_, samples);
        } else if (head_.size() == HEADER_BYTES) {
            begun_ = true;
            tuner_ = 0;
            for (const uint8_t byte : std::span(head_).subspan(4, 4)) tuner_ = *tuner_ << 8 | byte;
        }
    }
    push_samples(bytes, samples);
}

void RtlTcpStream::push_samples(std::span<const uint8_t> bytes, std::vector<float>& samples) {
    constexpr SampleFormat U8 = {.kind = SampleFormat::Kind::UNSIGNED, .bytes = 1};
    if (bytes.empty()) return;
    std::vector<uint8_t> pairs;
    pairs.reserve(bytes.size() + 1);
    if (half_) pairs.push_back(*half_);
    half_.reset();
    pairs.insert(pairs.end(), bytes.begin(), bytes.end());
    if (pairs.size() % 2 != 0) {
        half_ = pairs.back();
        pairs.pop_back();
    }
    const std::size_t before = samples.size();
    samples.resize(before + pairs.size());
    convert_samples(U8, pairs, std::span(samples).subspan(before));
}

std::string RtlTcpStream::tuner() const {
    return tuner_ ? TUNERS.at(*tuner_ < TUNERS.size() ? *tuner_ : 0) : "";
}

// ---- The connection -------------------------------------------------------------------------------------------------

// A connection on its way and once it stands.
class RtlTcp::Link {
  public:
    explicit Link(const RtlTcpAddress& address)
        : lookup_(address), commands_(rtl_tcp_commands(address)), since_(monotonic_now()) {}
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    double since() const { return since_; }

    // Receives what comes within READ_S; 0 when nothing does. Throws IoError when the link is no more.
    std::size_t receive(std::span<uint8_t> bytes) {
        if (!connected_) {
            if (!connect_further()) return 0;
            send_commands();
        }
        if (!socket_->wait_to_receive(READ_S)) return 0;
        const auto got = socket_->receive(bytes);
        if (got && *got == 0) throw IoError("it closed the connection");
        return got.value_or(0);
    }

  private:
    // One step towards a connection, to the next address when one refuses.
    bool connect_further() {
        if (monotonic_now() > since_ + CONNECT_S) throw IoError("no connection in time");
        if (!lookup_.asking.wait(READ_S)) return false;
        if (!lookup_.answer->problem.empty()) throw IoError(lookup_.answer->problem);
        try {
            if (!socket_) socket_.emplace(lookup_.answer->addresses.at(next_));
            if (!socket_->wait_to_send(READ_S)) return false;
            socket_->require_connected();
        } catch (const IoError&) {
            socket_.reset();
            if (++next_ >= lookup_.answer->addresses.size()) throw;
            return false;
        }
        return connected_ = true;
    }

    void send_commands() const {
        if (socket_->send(commands_) != commands_.size()) throw IoError("it takes no commands");
    }

    Lookup lookup_;
    std::vector<uint8_t> commands_;
    double since_;
    std::size_t next_ = 0;  // of the addresses
    std::optional<Socket> socket_;
    bool connected_ = false;
};

std::optional<int32_t> usual_rate(double measured, int32_t asked) {
    const auto error = [measured](int32_t rate) { return std::fabs(measured / rate - 1); };
    if (error(asked) < RATE_ERROR) return asked;
    const int32_t nearest = *std::ranges::min_element(USUAL_RATES, {}, error);
    return error(nearest) < RATE_ERROR ? std::optional(nearest) : std::nullopt;
}

RtlTcp::RtlTcp(const RtlTcpAddress& address, const SourceOptions& options, const RtlTcpLimits& limits)
    : address_(address), limits_(limits), rate_(address.tuner.rate), name_(options.name), bytes_(READ_BYTES) {}

RtlTcp::~RtlTcp() = default;

SourceFormat RtlTcp::format() const {
    SourceFormat format{.iq = true, .rate = rate_, .tuning = {}};
    if (address_.tuner.freq_hz) format.tuning = Tuning{.dial_hz = *address_.tuner.freq_hz};
    return format;
}

Source::State RtlTcp::read(Piece& piece) {
    piece = {};
    try {
        if (!link_) connect_in_time();
        return link_ ? read_link(piece) : State::NONE_YET;
    } catch (const IoError& error) {
        give_up_link(error.what());
        return State::NONE_YET;
    }
}

void RtlTcp::connect_in_time() {
    if (monotonic_now() < retry_at_) {
        nap(std::min(READ_S, retry_at_ - monotonic_now()));
        return;
    }
    link_ = std::make_unique<Link>(address_);
    stream_ = {};
    connected_at_ = 0;
    wrong_.reset();
    rate_told_ = false;
}

Source::State RtlTcp::read_link(Piece& piece) {
    const std::size_t got = link_->receive(bytes_);
    const double now = monotonic_now();
    stream_.push(std::span(bytes_).first(got), piece.samples);
    if (piece.samples.empty()) {
        if (now > std::max(connected_at_ > 0 ? came_at_ : 0, link_->since()) + limits_.still_s) {
            throw IoError("no samples come");
        }
        return State::NONE_YET;
    }
    if (connected_at_ == 0) {
        connected_at_ = now;
        counted_from_ = now;
        pairs_ = -std::ssize(piece.samples) / 2;  // they may have waited
        if (!std::exchange(complaint_, "").empty()) tell(name_, address_.text() + " is back");
        if (came_at_ > 0) piece.lost_s = now - came_at_;
    }
    came_at_ = now;
    pairs_ += std::ssize(piece.samples) / 2;
    if (now > connected_at_ + SETTLED_S) wait_s_ = 1;
    if (!watch_rate(now)) return State::SAMPLES;
    piece = {};
    return State::BROKEN;
}

void RtlTcp::give_up_link(const std::string& reason) {
    link_.reset();
    if (std::exchange(complaint_, reason) != reason) {
        tell(name_, address_.text() + ": " + reason + "; trying again");
    }
    retry_at_ = monotonic_now() + wait_s_;
    wait_s_ = std::min(2 * wait_s_, MOST_WAIT_S);
}

// A server that cannot do the rate that it was asked for sends another without a word. True when it is another from now
// on: one that was counted twice, lest a loss pass for one.
bool RtlTcp::watch_rate(double now) {
    const double seconds = now - counted_from_;
    if (seconds < limits_.rate_s) return false;
    const double measured = static_cast<double>(pairs_) / seconds;
    counted_from_ = now;
    pairs_ = 0;
    const int32_t rate = usual_rate(measured, address_.tuner.rate).value_or(0);
    const auto before = std::exchange(wrong_, rate != rate_ ? std::optional(rate) : std::nullopt);
    if (!wrong_ || wrong_ != before || (rate == 0 && std::exchange(rate_told_, true))) return false;
    const std::string verdict = rate != 0 ? ::format("taken for %d", rate) : "nothing will be decoded";
    tell(name_, ::format("%s sends %.0f samples a second, not %d: %s", address_.text().c_str(), measured, rate_,
                         verdict.c_str()));
    if (rate == 0) return false;
    rate_ = rate;
    wrong_.reset();
    return true;
}
