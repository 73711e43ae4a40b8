// Datagrams to one place.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

class Datagrams {
  public:
    // `ttl` is how many routers a multicast may pass. Nothing is looked up yet.
    Datagrams(std::string host, int port, int ttl = 1);
    Datagrams(const Datagrams&) = delete;
    Datagrams& operator=(const Datagrams&) = delete;
    ~Datagrams();

    // Opens the socket, once: all datagrams come from one port. Throws IoError.
    void open();

    // Hands one to the system. False when it could not take it.
    bool send(const std::string& bytes) const;

    // One that came back; nothing when there is none.
    std::optional<std::string> receive() const;

    bool is_open() const { return socket_ >= 0; }

  private:
    std::string host_;
    int port_, ttl_;
    int socket_ = -1;
    sockaddr_storage address_{};
    socklen_t address_size_ = 0;
};
