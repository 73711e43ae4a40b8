#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "system/io_error.h"
#include "system/sockets.h"

namespace {

[[noreturn]] void refuse(int error) {
    throw IoError(std::strerror(error));
}

int number(intptr_t socket) {
    return static_cast<int>(socket);
}

bool wait(intptr_t socket, short event, double seconds) {
    pollfd descriptor{number(socket), event, 0};
    return poll(&descriptor, 1, static_cast<int>(1000 * seconds)) > 0;
}

}  // namespace

std::vector<SocketAddress> resolve(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
    if (error != 0) throw IoError(gai_strerror(error));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* one = list; one != nullptr; one = one->ai_next) {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(one->ai_addr);
        addresses.push_back({one->ai_family, one->ai_socktype, one->ai_protocol, {bytes, bytes + one->ai_addrlen}});
    }
    return addresses;
}

Socket::Socket(const SocketAddress& address)
    : socket_(::socket(address.family, address.type | SOCK_NONBLOCK | SOCK_CLOEXEC, address.protocol)) {
    if (socket_ < 0) refuse(errno);
    const auto* const bytes = reinterpret_cast<const sockaddr*>(address.bytes.data());
    if (connect(number(socket_), bytes, static_cast<socklen_t>(address.bytes.size())) == 0 || errno == EINPROGRESS) {
        return;
    }
    const int error = errno;
    close(number(socket_));
    refuse(error);
}

Socket::~Socket() {
    close(number(socket_));
}

bool Socket::wait_to_receive(double seconds) const {
    return wait(socket_, POLLIN, seconds);
}

bool Socket::wait_to_send(double seconds) const {
    return wait(socket_, POLLOUT, seconds);
}

void Socket::require_connected() const {
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(number(socket_), SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
    if (error != 0) refuse(error);
}

std::optional<std::size_t> Socket::receive(std::span<uint8_t> room) const {
    const ssize_t got = recv(number(socket_), room.data(), room.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    if (got < 0) refuse(errno);
    return static_cast<std::size_t>(got);
}

std::size_t Socket::send(std::span<const uint8_t> bytes) const {
    const ssize_t sent = ::send(number(socket_), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) refuse(errno);
    return static_cast<std::size_t>(sent);
}
