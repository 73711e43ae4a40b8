#include "outputs/telnet_server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/parse.h"
#include "base/text.h"

namespace {

constexpr const char* END = "\r\n";
constexpr int POLL_MS = 1000;
constexpr std::size_t LONGEST_LINE = 256;
constexpr std::size_t HISTORY = 100;
constexpr double SHOWN = 10;
constexpr unsigned char INTERPRET = 255, SUBNEGOTIATION = 250, WILL = 251;  // telnet's own bytes

// A server's socket, as its owner.
int listen_at(const std::string& address, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (error != 0) throw IoError("cannot find '" + address + "': " + gai_strerror(error));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    const int end = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    setsockopt(end, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (end < 0 || bind(end, found->ai_addr, found->ai_addrlen) != 0 || listen(end, 16) != 0) {
        const int reason = errno;
        if (end >= 0) close(end);
        throw IoError(format("cannot listen at %s port %d: %s", address.c_str(), port, std::strerror(reason)));
    }
    return end;
}

int port_of(int end) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getsockname(end, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

// A client may be silent for months; one whose machine is gone is noticed in a few minutes.
void watch_peer(int end) {
    const int yes = 1;
    const int idle_s = 60;
    const int between_s = 30;
    const int probes = 4;
    setsockopt(end, SOL_SOCKET, SO_KEEPALIVE, &yes, sizeof yes);
    setsockopt(end, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    setsockopt(end, IPPROTO_TCP, TCP_KEEPINTVL, &between_s, sizeof between_s);
    setsockopt(end, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

// What was typed, without the commands of the telnet protocol: three bytes from WILL on, else two; of a subnegotiation
// the rest passes for text, and for an unknown command.
std::string typed_text(const std::string& bytes) {
    std::string text;
    for (std::size_t k = 0; k < bytes.size(); k++) {
        const auto byte = static_cast<unsigned char>(bytes[k]);
        if (byte != INTERPRET) {
            if (byte >= ' ' && byte < 127) text += bytes[k];
            continue;
        }
        const auto command = k + 1 < bytes.size() ? static_cast<unsigned char>(bytes[k + 1]) : 0;
        k += command >= WILL || command == SUBNEGOTIATION ? 2 : 1;
    }
    return text;
}

}  // namespace

TelnetServer::TelnetServer(const std::string& address, int port, std::string greeting, const Limits& limits)
    : greeting_(std::move(greeting)), limits_(limits), listener_(listen_at(address, port)) {
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    port_ = port_of(listener_);
    thread_ = std::thread([this] { run(); });
}

TelnetServer::~TelnetServer() {
    {
        const std::lock_guard guard(lock_);
        ended_ = true;
    }
    eventfd_write(wake_, 1);
    thread_.join();
    for (const Client& client : clients_) close(client.socket);
    close(listener_);
    close(wake_);
}

void TelnetServer::publish(const std::string& line) {
    {
        const std::lock_guard guard(lock_);
        history_.push_back(line);
        if (history_.size() > HISTORY) history_.pop_front();
        for (Client& client : clients_) {
            if (client.is_known) client.waiting.append(line).append(END);
        }
    }
    eventfd_write(wake_, 1);
}

std::size_t TelnetServer::clients() const {
    const std::lock_guard guard(lock_);
    return clients_.size();
}

void TelnetServer::run() {
    std::unique_lock guard(lock_);
    while (!ended_) {
        std::vector<pollfd> ends = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
        ends.reserve(2 + clients_.size());
        for (const Client& client : clients_) {
            ends.push_back({client.socket, static_cast<short>(client.waiting.empty() ? POLLIN : POLLIN | POLLOUT), 0});
        }
        guard.unlock();
        poll(ends.data(), ends.size(), POLL_MS);
        eventfd_t count = 0;
        eventfd_read(wake_, &count);
        guard.lock();
        std::size_t k = 2;
        for (Client& client : clients_) {
            if ((ends[k++].revents & (POLLIN | POLLHUP | POLLERR)) != 0) read(client);
        }
        std::erase_if(clients_, [&](Client& client) {
            const bool over = is_over(client);
            if (over) close(client.socket);
            return over;
        });
        if (ends[1].revents != 0) accept_client();
    }
}

void TelnetServer::accept_client() {
    const int end = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (end < 0) return;
    Client client{.socket = end, .since = monotonic_now()};
    if (clients_.size() >= limits_.clients) {
        client.waiting = std::string("All places are taken; please come back later.") + END;
        write(client);
        close(end);
        return;
    }
    watch_peer(end);
    client.waiting = greeting_ + END + "Please enter your call: ";
    clients_.push_back(std::move(client));
}

// A client that has gone ends; the last of its lines does not matter.
void TelnetServer::read(Client& client) {
    std::array<char, 512> block{};
    const ssize_t got = recv(client.socket, block.data(), block.size(), 0);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        client.waiting.clear();
        client.ends = true;
    }
    if (got <= 0 || client.ends) return;
    client.typed.append(block.data(), static_cast<std::size_t>(got));
    for (std::size_t end = client.typed.find('\n'); end != std::string::npos; end = client.typed.find('\n')) {
        obey(client, typed_text(client.typed.substr(0, end)));
        client.typed.erase(0, end + 1);
    }
    if (client.typed.size() > LONGEST_LINE) client.ends = true;
}

void TelnetServer::obey(Client& client, std::string line) {
    line = lower_case(line);
    if (line == "bye" || line == "quit" || line == "exit" || line == "b") {
        client.waiting.append("73").append(END);
        client.ends = true;
    } else if (!client.is_known) {
        client.is_known = !line.empty();
        client.waiting.append(client.is_known ? "Hello " + upper_case(line) + END : "Please enter your call: ");
    } else if (line.starts_with("sh/dx") || line.starts_with("show/dx")) {
        show(client, line);
    } else if (!line.empty()) {
        client.waiting.append("Commands are sh/dx N and bye.").append(END);
    }
}

void TelnetServer::show(Client& client, const std::string& command) {
    const std::vector<std::string> words = split_list(command);
    const double wanted = words.size() > 1 ? parse_finite(words[1]).value_or(SHOWN) : SHOWN;
    const auto count = static_cast<std::size_t>(std::clamp(wanted, 0.0, static_cast<double>(history_.size())));
    for (std::size_t k = history_.size() - count; k < history_.size(); k++) {
        client.waiting.append(history_[k]).append(END);
    }
}

// Sends what the client takes.
bool TelnetServer::is_over(Client& client) const {
    const bool works = write(client);
    if (!works || client.waiting.size() > limits_.waiting_bytes) return true;
    if (client.ends) return client.waiting.empty() || monotonic_now() - client.since > limits_.login_s;
    return !client.is_known && monotonic_now() - client.since > limits_.login_s;
}

bool TelnetServer::write(Client& client) {
    while (!client.waiting.empty()) {
        const ssize_t got = send(client.socket, client.waiting.data(), client.waiting.size(), MSG_NOSIGNAL);
        if (got < 0) return errno == EAGAIN || errno == EINTR;
        client.waiting.erase(0, static_cast<std::size_t>(got));
    }
    return true;
}
