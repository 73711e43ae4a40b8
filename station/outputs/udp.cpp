// Messages of WSJT-X's network interface, schema 2 (Qt 5.2): big-endian; a text is its length and its bytes.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "outputs/types.h"

namespace {

constexpr uint32_t MAGIC = 0xadbccbda;
constexpr uint32_t SCHEMA = 2;
constexpr double PORT = 2237;
constexpr double HEARTBEAT_S = 15;
constexpr double DAY_S = 86400;
constexpr double NO_SNR_DB = -99;  // there is no null

enum class Type : uint32_t { HEARTBEAT = 0, DECODE = 2, CLOSE = 6, REPLAY = 7 };

class Message {
  public:
    Message(Type type, const std::string& id) {
        add(MAGIC);
        add(SCHEMA);
        add(static_cast<uint32_t>(type));
        add(id);
    }
    void add(uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) bytes_ += static_cast<char>(value >> shift & 0xff);
    }
    void add(int32_t value) { add(static_cast<uint32_t>(value)); }
    void add(double value) {
        const auto bits = std::bit_cast<uint64_t>(value);
        add(static_cast<uint32_t>(bits >> 32));
        add(static_cast<uint32_t>(bits));
    }
    void add(bool value) { bytes_ += value ? '\1' : '\0'; }
    void add(std::string_view text) {
        add(static_cast<uint32_t>(text.size()));
        bytes_ += text;
    }
    void add(const std::string& text) { add(std::string_view(text)); }
    void add(const char* text) { add(std::string_view(text)); }
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

Message decode_message(const std::string& id, const Spot& spot, bool is_new) {
    Message message(Type::DECODE, id);
    message.add(is_new);
    message.add(static_cast<uint32_t>(std::lround(1000 * (spot.start - DAY_S * std::floor(spot.start / DAY_S)))));
    message.add(static_cast<int32_t>(std::lround(spot.snr_db.value_or(NO_SNR_DB))));
    message.add(0.0);  // the time is that of the frame's start
    message.add(static_cast<uint32_t>(std::lround(std::clamp(spot.freq_hz, 0.0, 4e9))));
    message.add(ovl_proto_name(spot.protocol));
    message.add("DE " + spot.call + (spot.locator.empty() ? "" : " " + spot.locator));
    message.add(spot.deep);  // low confidence
    message.add(false);      // off air
    return message;
}

class UdpOutput : public Output {
  public:
    UdpOutput(const Values& values, const Keeper&)
        : host_(values.text("host")),
          port_(static_cast<int>(values.number("port", PORT))),
          ttl_(static_cast<int>(values.number("ttl", 1))),
          id_(values.text("name", "orvel")) {}
    UdpOutput(const UdpOutput&) = delete;
    UdpOutput& operator=(const UdpOutput&) = delete;
    ~UdpOutput() override {
        if (socket_ < 0) return;
        transmit(Message(Type::CLOSE, id_));
        close(socket_);
    }

    // Datagrams that nobody listens for are gone: that is how they are.
    std::size_t send(std::span<const StoredSpot> spots) override {
        open_socket();
        for (const StoredSpot& stored : spots) transmit(decode_message(id_, stored.spot, true));
        return spots.size();
    }

    void tick() override {
        if (monotonic_now() < heartbeat_at_) return;
        heartbeat_at_ = monotonic_now() + HEARTBEAT_S;
        open_socket();
        Message message(Type::HEARTBEAT, id_);
        message.add(SCHEMA);
        message.add(ovl_version());
        message.add("");
        transmit(message);
    }

  private:
    void open_socket() {
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

    void transmit(const Message& message) const {
        const std::string& bytes = message.bytes();
        sendto(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address_),
               address_size_);
    }

    std::string host_;
    int port_, ttl_;
    std::string id_;
    int socket_ = -1;
    sockaddr_storage address_{};
    socklen_t address_size_ = 0;
    double heartbeat_at_ = 0;
};

}  // namespace

std::unique_ptr<Output> make_udp_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<UdpOutput>(values, keeper);
}
