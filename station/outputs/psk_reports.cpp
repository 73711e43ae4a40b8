#include "outputs/psk_reports.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "liborvel.h"
#include "store/adif.h"

namespace {

constexpr double EVERY_S = 300;
constexpr double SPREAD_S = 30;
constexpr double AGAIN_S = 3600;  // a callsign, and the templates
constexpr int FIRST_WITH_TEMPLATES = 3;
constexpr std::size_t FULL_BYTES = 1200;  // of records in a datagram

constexpr uint16_t VERSION = 10;
constexpr uint16_t TEMPLATE_SET = 2, OPTIONS_SET = 3;
constexpr uint16_t RECEIVER = 0x9992, SENDER = 0x9993;
constexpr uint32_t ENTERPRISE = 30351;
constexpr uint16_t VARIABLE = 0xffff;
constexpr uint16_t FLOW_START_SECONDS = 150;
constexpr std::size_t LONGEST_TEXT = 254;
constexpr char AUTOMATIC = 1;

struct Field {
    uint16_t number, length;
    bool ours = true;  // the enterprise's
};
constexpr std::array RECEIVER_FIELDS = {Field{2, VARIABLE}, Field{4, VARIABLE}, Field{8, VARIABLE}, Field{9, VARIABLE}};
constexpr std::array SENDER_FIELDS = {Field{1, VARIABLE},
                                      Field{5, 5},
                                      Field{6, 1},
                                      Field{10, VARIABLE},
                                      Field{3, VARIABLE},
                                      Field{11, 1},
                                      Field{FLOW_START_SECONDS, 4, false}};

class Bytes {
  public:
    Bytes& add(uint64_t value, int bytes) {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) text_ += static_cast<char>(value >> shift & 0xff);
        return *this;
    }
    // A longer one is cut, at the end of a character.
    Bytes& add(std::string_view text) {
        std::size_t size = std::min(text.size(), LONGEST_TEXT);
        while (size < text.size() && size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) size--;
        text_ += static_cast<char>(size);
        text_ += text.substr(0, size);
        return *this;
    }
    Bytes& append(const std::string& bytes) {
        text_ += bytes;
        return *this;
    }
    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

// With its head, and filled up to a multiple of four bytes.
std::string set_of(uint16_t id, const std::string& content) {
    const std::string padding((4 - content.size() % 4) % 4, '\0');
    return Bytes().add(id, 2).add(4 + content.size() + padding.size(), 2).append(content + padding).text();
}

void add_fields(Bytes& bytes, std::span<const Field> fields) {
    for (const Field& field : fields) {
        bytes.add(field.ours ? 0x8000U | field.number : field.number, 2).add(field.length, 2);
        if (field.ours) bytes.add(ENTERPRISE, 4);
    }
}

std::string templates() {
    Bytes receiver;
    receiver.add(RECEIVER, 2).add(RECEIVER_FIELDS.size(), 2).add(1, 2);  // one of them is the scope
    add_fields(receiver, RECEIVER_FIELDS);
    Bytes sender;
    sender.add(SENDER, 2).add(SENDER_FIELDS.size(), 2);
    add_fields(sender, SENDER_FIELDS);
    return set_of(OPTIONS_SET, receiver.text()) + set_of(TEMPLATE_SET, sender.text());
}

std::string sender_record(const Spot& spot) {
    const auto snr = static_cast<int>(std::lround(std::clamp(*spot.snr_db, -128.0, 127.0)));
    Bytes record;
    record.add(spot.call).add(static_cast<uint64_t>(std::llround(*spot.rf_hz)), 5);
    record.add(static_cast<uint8_t>(snr), 1).add("OPERA");
    record.add(spot.locator == "RR73" ? "" : spot.locator);  // a locator, but refused as the end of a contact
    record.add(AUTOMATIC, 1).add(static_cast<uint64_t>(std::llround(spot.start)), 4);
    return record.text();
}

// One that somebody might have been given: letters and digits, some of each, with at most slashes among them.
bool is_usual(const std::string& call) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    const auto is_letter = [](char c) { return c >= 'A' && c <= 'Z'; };
    return call.size() >= 3 && call.size() <= 12 && std::ranges::any_of(call, is_digit) &&
           std::ranges::any_of(call, is_letter) &&
           std::ranges::all_of(call, [&](char c) { return is_digit(c) || is_letter(c) || c == '/'; });
}

}  // namespace

PskReports::PskReports(Keeper keeper, double now, uint32_t domain)
    : keeper_(std::move(keeper)), domain_(domain), random_(domain) {
    next_at_ = now + EVERY_S + std::uniform_real_distribution<double>(0, SPREAD_S)(random_);
}

void PskReports::add(const StoredSpot& stored) {
    const Spot& spot = stored.spot;
    if (spot.protocol != OVL_OPERA || !spot.rf_hz || *spot.rf_hz < 1 || !spot.snr_db || !is_usual(spot.call)) return;
    std::optional<Spot>& best = stations_[{spot.call, amateur_band(*spot.rf_hz)}].best;
    if (!best || *spot.snr_db > *best->snr_db) best = spot;
}

bool PskReports::is_due(const Station& station, double now) const {
    return station.best && (!station.reported_at || now - *station.reported_at >= AGAIN_S);
}

bool PskReports::has_due(double now) const {
    return std::ranges::any_of(stations_, [&](const auto& one) { return is_due(one.second, now); });
}

std::vector<std::string> PskReports::take(double now, double utc) {
    std::size_t bytes = 0;
    for (const auto& [key, station] : stations_) {
        if (is_due(station, now)) bytes += sender_record(*station.best).size();
    }
    if (bytes == 0 || (now < next_at_ && bytes < FULL_BYTES)) return {};
    next_at_ = now + EVERY_S + std::uniform_real_distribution<double>(0, SPREAD_S)(random_);

    std::vector<std::string> messages;
    std::vector<Spot> spots;
    bytes = 0;
    const auto finish = [&] {
        messages.push_back(message(spots, now, utc));
        spots.clear();
        bytes = 0;
    };
    for (auto& [key, station] : stations_) {
        if (!is_due(station, now)) continue;
        bytes += sender_record(*station.best).size();
        if (bytes > FULL_BYTES && !spots.empty()) finish();
        spots.push_back(*std::exchange(station.best, std::nullopt));
        station.reported_at = now;
    }
    finish();
    // Who was not heard for an hour is as good as new.
    std::erase_if(stations_, [&](const auto& one) {
        return !one.second.best && one.second.reported_at && now - *one.second.reported_at >= AGAIN_S;
    });
    return messages;
}

std::string PskReports::message(const std::vector<Spot>& spots, double now, double utc) {
    Bytes sets;
    if (messages_ < FIRST_WITH_TEMPLATES || now - templates_at_ >= AGAIN_S) {
        sets.append(templates());
        templates_at_ = now;
    }
    messages_++;
    const std::string program = std::string("orvel ") + ovl_version();
    Bytes receiver;
    receiver.add(keeper_.callsign).add(keeper_.locator).add(program).add(keeper_.antenna);
    sets.append(set_of(RECEIVER, receiver.text()));
    std::string records;
    for (const Spot& spot : spots) records += sender_record(spot);
    sets.append(set_of(SENDER, records));

    constexpr std::size_t HEADER_BYTES = 16;
    Bytes header;
    header.add(VERSION, 2).add(HEADER_BYTES + sets.text().size(), 2).add(static_cast<uint64_t>(std::llround(utc)), 4);
    header.add(sent_, 4).add(domain_, 4);
    sent_ = static_cast<uint32_t>((sent_ + uint64_t{spots.size()}) & 0xffffffffU);
    return header.text() + sets.text();
}
