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

// Connects, and connects again after growing waits whenever the server is gone, refuses or stands still; what was lost
// meanwhile is known.
class RtlTcp final : public Source {
  public:
    RtlTcp(const RtlTcpAddress& address, const SourceOptions& options);
    ~RtlTcp() override;

    State read(Piece& piece) override;
    SourceFormat format() const override;

  private:
    class Link;
    State read_link(Piece& piece);
    void connect_in_time();
    void give_up_link(const std::string& reason);
    void watch_rate(double now);

    RtlTcpAddress address_;
    std::string name_;
    std::unique_ptr<Link> link_;  // while connected, or on the way
    RtlTcpStream stream_;
    std::string complaint_;  // told last
    double wait_s_ = 1;      // before the next attempt
    double retry_at_ = 0;
    double came_at_ = 0;       // the last samples, ever; 0 before the first
    double connected_at_ = 0;  // their first of this connection
    int64_t pairs_ = 0;        // of this connection
    bool rate_told_ = false;
    std::vector<uint8_t> bytes_;
};
