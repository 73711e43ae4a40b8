#include "outputs/datagrams.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/error.h"
#include "base/text.h"

Datagrams::Datagrams(std::string host, int port, int ttl) : host_(std::move(host)), port_(port), ttl_(ttl) {}

Datagrams::~Datagrams() {
    if (socket_ >= 0) close(socket_);
}

void Datagrams::open() {
    if (socket_ >= 0) return;
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
    if (error != 0) throw IoError("cannot find '" + host_ + "': " + gai_strerror(error));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    socket_ = socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket_ < 0) throw IoError(format("cannot open a socket: %s", std::strerror(errno)));
    if (found->ai_family == AF_INET6) {
        setsockopt(socket_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl_, sizeof ttl_);
    } else {
        const auto ttl = static_cast<unsigned char>(ttl_);
        setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    }
    std::memcpy(&address_, found->ai_addr, found->ai_addrlen);
    address_size_ = found->ai_addrlen;
}

bool Datagrams::send(const std::string& bytes) const {
    return sendto(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address_),
                  address_size_) >= 0;
}

std::optional<std::string> Datagrams::receive() const {
    std::array<char, 2048> block{};
    const ssize_t got = recv(socket_, block.data(), block.size(), 0);
    if (got < 0) return std::nullopt;
    return std::string(block.data(), static_cast<std::size_t>(got));
}
