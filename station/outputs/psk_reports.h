// Reports as PSK Reporter takes them: IPFIX (RFC 7011), and the pace that it asks for.
//
// A callsign is reported once an hour and band, with the best SNR since its last report; a new one with the next
// datagram. Datagrams are five minutes apart, and somewhat more at random, counted from the start of the program, so
// that stations do not all report at once; one that is full does not wait.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "outputs/output.h"

class PskReports {
  public:
    // `now` is monotonic, like all times here; `domain` a number that no other program is likely to have.
    PskReports(Keeper keeper, double now, uint32_t domain);

    // Takes a spot. Those that cannot be reported are left out: other protocols than OPERA, which is the only one that
    // the other side knows, and those without radio frequency, SNR or a callsign of the usual form.
    void add(const StoredSpot& stored);

    // Whether there are callsigns that have not been reported within the hour.
    bool has_due(double now) const;

    // The datagrams whose time has come. `utc` becomes their time of export.
    std::vector<std::string> take(double now, double utc);

  private:
    struct Station {
        std::optional<double> reported_at;
        std::optional<Spot> best;  // since then
    };
    bool is_due(const Station& station, double now) const;
    std::string message(const std::vector<Spot>& spots, double now, double utc);

    Keeper keeper_;
    uint32_t domain_;
    std::minstd_rand random_;
    std::map<std::pair<std::string, std::string>, Station> stations_;  // by callsign and band
    double next_at_;
    uint32_t sent_ = 0;  // records
    int messages_ = 0;
    double templates_at_ = 0;
};
