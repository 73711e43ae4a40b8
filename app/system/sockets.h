// Connections by TCP.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct SocketAddress {
    int family, type, protocol;
    std::vector<uint8_t> bytes;  // as the system has it
};

// The addresses of a host and a port. Asks a name server, which may take long. Throws IoError.
std::vector<SocketAddress> resolve(const std::string& host, const std::string& port);

// Never waits but where it says so.
class Socket {
  public:
    // Begins to connect. Throws IoError, here and below, whose text is the reason.
    explicit Socket(const SocketAddress& address);
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();

    // Waits until there is something to receive, or an end; or until something can be sent: at first that the
    // connection stands, or does not come. False when the time is over, or a signal came.
    bool wait_to_receive(double seconds) const;
    bool wait_to_send(double seconds) const;

    // Throws IoError when the connection, once it could send, has been refused.
    void require_connected() const;

    // Bytes received: 0 when the other has closed the connection, nothing when none have come.
    std::optional<std::size_t> receive(std::span<uint8_t> room) const;

    // Returns how many bytes were sent.
    std::size_t send(std::span<const uint8_t> bytes) const;

  private:
    intptr_t socket_;
};
