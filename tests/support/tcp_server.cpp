#include "tcp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace {

bool ready(int socket, short event, int milliseconds) {
    pollfd descriptor{socket, event, 0};
    return poll(&descriptor, 1, milliseconds) > 0;
}

}  // namespace

bool TcpServer::Connection::send(std::span<const uint8_t> bytes) {
    while (!bytes.empty() && !ended_) {
        if (!ready(socket_, POLLOUT, 20)) continue;
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
    return bytes.empty();
}

std::string TcpServer::Connection::receive(std::size_t count) {
    std::string text;
    while (text.size() < count && ready(socket_, POLLIN, 1000)) {
        std::array<char, 256> block{};
        const ssize_t got = recv(socket_, block.data(), std::min(block.size(), count - text.size()), 0);
        if (got <= 0) break;
        text.append(block.data(), static_cast<std::size_t>(got));
    }
    return text;
}

bool TcpServer::Connection::pause(double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!ended_ && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return !ended_;
}

TcpServer::TcpServer(Serve serve) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (socket_ < 0 || bind(socket_, plain, size) != 0 || listen(socket_, 4) != 0 ||
        getsockname(socket_, plain, &size) != 0) {
        throw std::runtime_error("no server");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, serve = std::move(serve)] {
        for (int32_t which = 0; !ended_;) {
            if (!ready(socket_, POLLIN, 20)) continue;
            const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket < 0) continue;
            Connection connection(socket, ended_);
            serve(connection, which++);
            // What nobody has read would make a reset of the end, which overtakes what is still on its way.
            shutdown(socket, SHUT_WR);
            std::array<char, 256> block{};
            while (!ended_ && ready(socket, POLLIN, 1000) && recv(socket, block.data(), block.size(), 0) > 0) {
            }
            close(socket);
        }
    });
}

TcpServer::~TcpServer() {
    ended_ = true;
    thread_.join();
    close(socket_);
}
