// A receiver behind an rtl_tcp server as a source: unsigned 8-bit I/Q over TCP without end, frame or time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sources/source.h"
#include "sources/tuner.h"

// A server, and what it is asked for.
struct RtlTcpAddress {
    std::string host;
    std::string port = "1234";
    TunerSettings tuner;  // the frequency a whole number below 2^32

    std::string text() const;  // HOST:PORT
};

// "HOST[:PORT][?SETTINGS]", these as parse_tuner() has them. Throws UsageError.
RtlTcpAddress parse_rtl_tcp(const std::string& text);

// The commands that ask for it, 5 octets each.
std::vector<uint8_t> rtl_tcp_commands(const RtlTcpAddress& address);

// What a server sends, from its first octet on: a header of 12 octets, or none, and samples.
class RtlTcpStream {
  public:
    // Appends whole pairs of what came, however it was cut.
    void push(std::span<const uint8_t> bytes, std::vector<float>& samples);

    // The tuner that the header names; "" without one, or before it has come.
    std::string tuner() const;

  private:
    void push_samples(std::span<const uint8_t> bytes, std::vector<float>& samples);

    std::vector<uint8_t> head_;  // of the stream while it may be a header
    bool begun_ = false;         // the samples have
    std::optional<uint32_t> tuner_;
    std::optional<uint8_t> half_;  // I of a pair whose Q has not come
};

// How long a server is watched.
struct RtlTcpLimits {
    double still_s = 10;  // without a sample: it stands still
    double rate_s = 30;   // twice of samples tell their rate
};

// The usual rate that a measured one is, but for the inexactness of the measurement; `asked` is as good as any of them.
std::optional<int32_t> usual_rate(double measured, int32_t asked);

// Connects, and connects again after growing waits whenever the server is gone, refuses or stands still; what was lost
// meanwhile is known. A server that sends at another usual rate than it was asked for is followed there.
class RtlTcp final : public Source {
  public:
    RtlTcp(const RtlTcpAddress& address, const SourceOptions& options, const RtlTcpLimits& limits = {});
    ~RtlTcp() override;

    State read(Piece& piece) override;
    SourceFormat format() const override;

  private:
    class Link;
    State read_link(Piece& piece);
    void connect_in_time();
    void give_up_link(const std::string& reason);
    bool watch_rate(double now);

    RtlTcpAddress address_;
    RtlTcpLimits limits_;
    int32_t rate_;
    std::string name_;
    std::unique_ptr<Link> link_;  // while connected, or on the way
    RtlTcpStream stream_;
    std::string complaint_;  // told last
    double wait_s_ = 1;      // before the next attempt
    double retry_at_ = 0;
    double came_at_ = 0;       // the last samples, ever; 0 before the first
    double connected_at_ = 0;  // their first of this connection
    double counted_from_ = 0;
    int64_t pairs_ = 0;             // since then
    std::optional<int32_t> wrong_;  // rate counted last, when it is not the one that was to be; 0 = no usual one
    bool rate_told_ = false;
    std::vector<uint8_t> bytes_;
};
