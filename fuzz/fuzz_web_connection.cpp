// What arrives at the page's server: requests and, once a WebSocket is open, frames. Whatever comes, however it is cut,
// the server answers in HTTP and in frames that a client may read, ends the connection and takes the next.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <string>
#include <string_view>

#include "input.h"
#include "station_store.h"
#include "web/server.h"

namespace {

namespace http = boost::beast::http;

constexpr std::string_view UPGRADE =
    "GET /live HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
constexpr int PATIENCE_MS = 20'000;  // shorter than the timeout of a run

class Connection {
  public:
    explicit Connection(uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        expect(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        const linger at_once{1, 0};  // so that ports do not run out
        setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close(socket_);
    }

    // The server may have ended it.
    void send(std::string_view bytes) const {
        [[maybe_unused]] const auto sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void say_no_more() const { shutdown(socket_, SHUT_WR); }

    // What comes, until it is enough or the end. The end has to come.
    template <class Enough>
    std::string receive(const Enough& enough) const {
        std::string all;
        std::array<char, 65536> block{};
        while (!enough(all)) {
            pollfd wait{socket_, POLLIN, 0};
            expect(poll(&wait, 1, PATIENCE_MS) == 1);
            const ssize_t got = recv(socket_, block.data(), block.size(), 0);
            if (got <= 0) return all;
            all.append(block.data(), static_cast<std::size_t>(got));
        }
        return all;
    }
    std::string rest() const {
        return receive([](const std::string&) { return false; });
    }

  private:
    int socket_;
};

// Answers one after the other, of which the last may lack an end where the connection was broken off. Those to HEAD
// have no body.
void check_answers(std::string_view text) {
    while (!text.empty()) {
        http::response_parser<http::string_body> parser;
        parser.body_limit(1 << 24);
        parser.eager(true);
        boost::system::error_code error;
        const std::size_t used = parser.put(boost::asio::buffer(text.data(), text.size()), error);
        if (error == http::error::need_more || !parser.is_done()) return;
        expect(!error && parser.get().result_int() >= 101);
        expect(parser.get().count("Content-Security-Policy") == 1 || parser.get().result_int() == 101);
        if (parser.get().result_int() == 101) return;
        text.remove_prefix(used);
    }
}

// Texts of the station, pongs, and at the end a goodbye; never masked.
void check_frames(std::string_view text) {
    while (text.size() >= 2) {
        const auto octet = [&](std::size_t k) { return static_cast<uint8_t>(text[k]); };
        const unsigned opcode = octet(0) & 0x0FU;
        expect((octet(0) & 0xF0U) == 0x80 && (opcode == 1 || opcode == 8 || opcode == 9 || opcode == 10));
        expect(octet(1) < 126);  // nothing is told while this runs
        const std::size_t whole = 2 + std::size_t{octet(1)};
        if (text.size() < whole) return;
        text.remove_prefix(whole);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const SmallStore store;
    static Hub hub;
    static const WebServer server(WebConfig{.port = 0}, hub, store.path());
    Input input(data, size);
    const bool upgraded = input.flag();
    const std::size_t cut = input.raw<uint16_t>();
    const std::string bytes = input.rest();
    const std::string_view all = bytes;

    const Connection connection(server.port());
    if (upgraded) {
        connection.send(UPGRADE);
        const std::string answer =
            connection.receive([](const std::string& text) { return text.find("\r\n\r\n") != std::string::npos; });
        expect(answer.starts_with("HTTP/1.1 101 "));
    }
    connection.send(all.substr(0, std::min(cut, all.size())));
    connection.send(all.substr(std::min(cut, all.size())));
    connection.say_no_more();
    const std::string answers = connection.rest();
    if (upgraded) {
        check_frames(answers);
    } else if (bytes.find("HEAD") == std::string::npos && bytes.find("/live") == std::string::npos) {
        check_answers(answers);
    }
    return 0;
}
