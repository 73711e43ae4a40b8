// A server on a free port of this machine's loopback, which serves one connection after the other as a test says.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>

class TcpServer {
  public:
    // One connection. Its calls end soon after the server does.
    class Connection {
      public:
        Connection(int socket, const std::atomic<bool>& ended) : socket_(socket), ended_(ended) {}
        bool send(std::span<const uint8_t> bytes);  // all of them; false when nobody takes them
        std::string receive(std::size_t count);     // that many, or those until the other side ends or a second passes
        bool pause(double seconds);                 // false when the server has ended
      private:
        int socket_;
        const std::atomic<bool>& ended_;
    };
    using Serve = std::function<void(Connection&, int32_t which)>;  // counted from 0; closes the connection at its end

    explicit TcpServer(Serve serve);
    ~TcpServer();
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    uint16_t port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  private:
    int socket_;
    uint16_t port_ = 0;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};
