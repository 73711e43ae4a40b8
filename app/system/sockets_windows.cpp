#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <limits>
#include <memory>

#include "system/io_error.h"
#include "system/reason_windows.h"
#include "system/sockets.h"
#include "windows_path.h"

namespace {

[[noreturn]] void refuse(int error) {
    throw IoError(windows_reason(static_cast<DWORD>(error)));
}

SOCKET number(intptr_t socket) {
    return static_cast<SOCKET>(socket);
}

int bytes_of(std::size_t size) {
    return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

void start_sockets() {
    static const int error = [] {
        WSADATA data{};
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    if (error != 0) refuse(error);
}

// A refused connection is an exception to select().
bool wait(intptr_t socket, bool to_send, double seconds) {
    fd_set one{};
    FD_SET(number(socket), &one);
    fd_set failed = one;
    const auto whole_s = static_cast<long>(seconds);
    timeval time{whole_s, static_cast<long>(1e6 * (seconds - static_cast<double>(whole_s)))};
    return select(0, to_send ? nullptr : &one, to_send ? &one : nullptr, &failed, &time) > 0;
}

}  // namespace

std::vector<SocketAddress> resolve(const std::string& host, const std::string& port) {
    start_sockets();
    ADDRINFOW hints{};
    hints.ai_socktype = SOCK_STREAM;
    ADDRINFOW* list = nullptr;
    const int error = GetAddrInfoW(wide_text(host).c_str(), wide_text(port).c_str(), &hints, &list);
    if (error != 0) refuse(error);
    const std::unique_ptr<ADDRINFOW, void (*)(ADDRINFOW*)> owner(list, [](ADDRINFOW* all) { FreeAddrInfoW(all); });
    std::vector<SocketAddress> addresses;
    for (const ADDRINFOW* one = list; one != nullptr; one = one->ai_next) {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(one->ai_addr);
        addresses.push_back({one->ai_family, one->ai_socktype, one->ai_protocol, {bytes, bytes + one->ai_addrlen}});
    }
    return addresses;
}

Socket::Socket(const SocketAddress& address)
    : socket_(static_cast<intptr_t>(::socket(address.family, address.type, address.protocol))) {
    if (number(socket_) == INVALID_SOCKET) refuse(WSAGetLastError());
    u_long at_once = 1;
    const auto* const bytes = reinterpret_cast<const sockaddr*>(address.bytes.data());
    if (ioctlsocket(number(socket_), static_cast<long>(FIONBIO), &at_once) == 0 &&
        (connect(number(socket_), bytes, bytes_of(address.bytes.size())) == 0 || WSAGetLastError() == WSAEWOULDBLOCK)) {
        return;
    }
    const int error = WSAGetLastError();
    closesocket(number(socket_));
    refuse(error);
}

Socket::~Socket() {
    closesocket(number(socket_));
}

bool Socket::wait_to_receive(double seconds) const {
    return wait(socket_, false, seconds);
}

bool Socket::wait_to_send(double seconds) const {
    return wait(socket_, true, seconds);
}

void Socket::require_connected() const {
    int error = 0;
    int size = sizeof error;
    if (getsockopt(number(socket_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0) {
        error = WSAGetLastError();
    }
    if (error != 0) refuse(error);
}

std::optional<std::size_t> Socket::receive(std::span<uint8_t> room) const {
    const int got = recv(number(socket_), reinterpret_cast<char*>(room.data()), bytes_of(room.size()), 0);
    if (got < 0 && WSAGetLastError() == WSAEWOULDBLOCK) return std::nullopt;
    if (got < 0) refuse(WSAGetLastError());
    return static_cast<std::size_t>(got);
}

std::size_t Socket::send(std::span<const uint8_t> bytes) const {
    const int sent = ::send(number(socket_), reinterpret_cast<const char*>(bytes.data()), bytes_of(bytes.size()), 0);
    if (sent < 0) refuse(WSAGetLastError());
    return static_cast<std::size_t>(sent);
}
