// Messages of WSJT-X's network interface, schema 2 (Qt 5.2): big-endian; a text is its length and its bytes.
#include <algorithm>
#include <bit>
#include <cmath>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "base/interrupts.h"
#include "base/utc.h"
#include "outputs/datagrams.h"
#include "outputs/types.h"
#include "outputs/udp_request.h"

namespace {

constexpr uint32_t MAGIC = 0xadbccbda;
constexpr uint32_t SCHEMA = 2;
constexpr double DATAGRAM_PORT = 2237;
constexpr double HEARTBEAT_S = 15;
constexpr double NO_SNR_DB = -99;  // there is no null

constexpr uint32_t NONE = 0xffffffff;  // a number that does not apply
constexpr std::size_t REPEATED = 200;  // spots, when somebody asks
constexpr int MOST_REQUESTS = 20;      // at a time

enum class Type : uint32_t { HEARTBEAT = 0, STATUS = 1, DECODE = 2, CLOSE = 6, REPLAY = 7 };

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

// Of a receiver that has neither dial nor partner: most of it does not apply.
Message status_message(const std::string& id, const Keeper& keeper) {
    Message message(Type::STATUS, id);
    for (int k = 0; k < 2; k++) message.add(uint32_t{0});        // dial, 8 bytes
    for (int k = 0; k < 4; k++) message.add("");                 // mode, DX call, report, mode of transmission
    for (const bool is : {false, false, true}) message.add(is);  // may transmit, transmits, decodes
    for (int k = 0; k < 2; k++) message.add(uint32_t{0});        // audio frequencies
    message.add(keeper.callsign);
    message.add(keeper.locator);
    message.add("");     // DX locator
    message.add(false);  // watchdog of the transmitter
    message.add("");     // mode's variant
    message.add(false);  // fast
    message.add(false);  // special operation: 0, a byte
    message.add(NONE);   // tolerance
    message.add(NONE);   // period
    message.add("");     // configuration
    message.add("");     // message to send
    return message;
}

class UdpOutput : public Output {
  public:
    UdpOutput(const Values& values, Keeper keeper)
        : datagrams_(values.text("host"), static_cast<int>(values.number("port", DATAGRAM_PORT)),
                     static_cast<int>(values.number("ttl", 1))),
          id_(values.text("name", "orvel")),
          keeper_(std::move(keeper)) {}
    UdpOutput(const UdpOutput&) = delete;
    UdpOutput& operator=(const UdpOutput&) = delete;
    ~UdpOutput() override {
        if (datagrams_.is_open()) transmit(Message(Type::CLOSE, id_));
    }

    // Datagrams that nobody listens for are gone: that is how they are.
    std::size_t send(std::span<const StoredSpot> spots) override {
        datagrams_.open();
        for (const StoredSpot& stored : spots) {
            transmit(decode_message(id_, stored.spot, true));
            sent_.push_back(stored.spot);
            if (sent_.size() > REPEATED) sent_.pop_front();
        }
        return spots.size();
    }

    void tick() override {
        datagrams_.open();
        answer();
        if (monotonic_now() < heartbeat_at_) return;
        heartbeat_at_ = monotonic_now() + HEARTBEAT_S;
        Message message(Type::HEARTBEAT, id_);
        message.add(SCHEMA);
        message.add(ovl_version());
        message.add("");
        transmit(message);
    }

  private:
    // Once, however many ask.
    void answer() const {
        bool asked = false;
        for (int k = 0; k < MOST_REQUESTS; k++) {
            const auto request = datagrams_.receive();
            if (!request) break;
            asked = asked || asks_for_replay(*request, id_);
        }
        if (!asked) return;
        for (const Spot& spot : sent_) transmit(decode_message(id_, spot, false));
        transmit(status_message(id_, keeper_));
    }

    void transmit(const Message& message) const { datagrams_.send(message.bytes()); }

    Datagrams datagrams_;
    std::string id_;
    Keeper keeper_;
    std::deque<Spot> sent_;
    double heartbeat_at_ = 0;
};

uint32_t number_at(std::string_view bytes, std::size_t at) {
    uint32_t number = 0;
    for (std::size_t k = at; k < at + 4; k++) number = number << 8 | static_cast<unsigned char>(bytes[k]);
    return number;
}

}  // namespace

bool asks_for_replay(std::string_view bytes, std::string_view id) {
    constexpr std::size_t HEAD_BYTES = 16;  // magic, schema, type, length of the name
    if (bytes.size() < HEAD_BYTES || number_at(bytes, 0) != MAGIC) return false;
    return number_at(bytes, 8) == static_cast<uint32_t>(Type::REPLAY) && number_at(bytes, 12) == id.size() &&
           bytes.substr(HEAD_BYTES, id.size()) == id;
}

std::unique_ptr<Output> make_udp_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<UdpOutput>(values, keeper);
}
