// Spots as lines of a cluster:
//
//     DX de DL1QXA-#:    137.5  K2QRX        OPERA 05 -21 dB 137501.2 Hz    1200Z
//     0         1         2         3         4         5         6         7
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/text.h"
#include "base/utc.h"
#include "outputs/cluster_line.h"
#include "outputs/telnet_server.h"
#include "outputs/types.h"

namespace {

constexpr double CLUSTER_PORT = 7300;
constexpr int FREQUENCY_END = 24;
constexpr std::size_t COMMENT = 30;

class TelnetOutput : public Output {
  public:
    TelnetOutput(const Values& values, const Keeper& keeper)
        : address_(values.text("address", "127.0.0.1")),
          port_(static_cast<int>(values.number("port", CLUSTER_PORT))),
          spotter_(values.text("spotter", keeper.callsign + "-#")),
          greeting_("Spots of " + keeper.callsign),
          limits_({.clients = static_cast<std::size_t>(values.number("most_clients", 50))}) {}

    // To whoever is there now. Where the radio frequency is not known there is no line.
    std::size_t send(std::span<const StoredSpot> spots) override {
        tick();
        for (const StoredSpot& stored : spots) {
            if (stored.spot.rf_hz) server_->publish(cluster_line(stored.spot, spotter_));
        }
        return spots.size();
    }

    void tick() override {
        if (!server_) server_.emplace(address_, port_, greeting_, limits_);
    }

  private:
    std::string address_;
    int port_;
    std::string spotter_, greeting_;
    TelnetServer::Limits limits_;
    std::optional<TelnetServer> server_;
};

}  // namespace

std::string cluster_line(const Spot& spot, const std::string& spotter) {
    std::string line = "DX de " + spotter + ": ";
    const std::string frequency = format("%.1f", *spot.rf_hz / 1e3);
    const auto width = static_cast<int>(FREQUENCY_END - static_cast<int>(line.size()));
    line += format("%*s", width, frequency.c_str());

    std::string comment = ovl_proto_name(spot.protocol);
    const auto add = [&](const std::string& part) {
        if (comment.size() + 1 + part.size() <= COMMENT) comment += " " + part;
    };
    if (spot.snr_db) add(format("%.0f dB", *spot.snr_db));
    if (!spot.locator.empty()) add(spot.locator);
    add(format("%.1f Hz", *spot.rf_hz));
    const std::string time = utc_text(spot.start, 0);  // 2026-03-01T12:00:02Z
    return line + format("  %-12s %-30s ", spot.call.c_str(), comment.c_str()) + time.substr(11, 2) +
           time.substr(14, 2) + "Z";
}

std::unique_ptr<Output> make_telnet_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<TelnetOutput>(values, keeper);
}
