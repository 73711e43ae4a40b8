// Messages of WSJT-X's network interface, schema 2 (Qt 5.2): big-endian; a text is its length and its bytes.
#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <string_view>

#include "base/interrupts.h"
#include "outputs/datagrams.h"
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
        : datagrams_(values.text("host"), static_cast<int>(values.number("port", PORT)),
                     static_cast<int>(values.number("ttl", 1))),
          id_(values.text("name", "orvel")) {}
    UdpOutput(const UdpOutput&) = delete;
    UdpOutput& operator=(const UdpOutput&) = delete;
    ~UdpOutput() override {
        if (datagrams_.is_open()) transmit(Message(Type::CLOSE, id_));
    }

    // Datagrams that nobody listens for are gone: that is how they are.
    std::size_t send(std::span<const StoredSpot> spots) override {
        datagrams_.open();
        for (const StoredSpot& stored : spots) transmit(decode_message(id_, stored.spot, true));
        return spots.size();
    }

    void tick() override {
        if (monotonic_now() < heartbeat_at_) return;
        heartbeat_at_ = monotonic_now() + HEARTBEAT_S;
        datagrams_.open();
        Message message(Type::HEARTBEAT, id_);
        message.add(SCHEMA);
        message.add(ovl_version());
        message.add("");
        transmit(message);
    }

  private:
    void transmit(const Message& message) const { datagrams_.send(message.bytes()); }

    Datagrams datagrams_;
    std::string id_;
    double heartbeat_at_ = 0;
};

}  // namespace

std::unique_ptr<Output> make_udp_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<UdpOutput>(values, keeper);
}
