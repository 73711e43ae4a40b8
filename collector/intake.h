// What has come from the stations and is not yet stored, and how far each of them is.
//
// A station's mark passes a number when everything before it has come; so what was lost on the way holds the mark back
// until the station sends it again.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "network/messages.h"
#include "vault.h"

class Intake {
  public:
    static constexpr std::size_t MOST_SPOTS = 500;  // of a batch
    static constexpr std::size_t MOST_EPOCHS = Vault::MOST_EPOCHS;
    static constexpr double AGAIN_EVERY_S = 2;  // that a station is asked for what is missing

    // `first_again` differs from any that a collector before this one has used: marks of this one ask for what
    // follows them.
    explicit Intake(int64_t first_again) : again_(first_again) {}

    // The stations whose messages count, with their marks, that which moved last at the end.
    void own(const std::string& station, const std::vector<Mark>& marks);
    void disown(const std::string& station);
    bool owns(const std::string& station) const { return stations_.contains(station); }
    std::size_t stations() const { return stations_.size(); }

    // A message on the topics of a station. False when it is not a spot of that station: it will not be stored, and is
    // not waited for.
    bool take(const std::string& station, SpotMessage message, double now);

    // The batch: what is to be stored, and what is to be told to the stations once that is done.
    bool is_empty() const { return spots_.empty() && touched_.empty(); }
    bool is_full() const { return spots_.size() >= MOST_SPOTS || touched_.size() >= MOST_SPOTS; }
    double since() const { return since_; }
    const std::vector<StationSpot>& spots() const { return spots_; }
    std::vector<StationMark> touched() const;
    void stored();  // the next batch begins

    // The mark of a station whose epoch was heard last. Nothing where none is known.
    std::optional<Mark> latest(const std::string& station) const;

  private:
    struct Epoch {
        Mark mark;
        double asked_at = -1e9;
    };
    Epoch& epoch_of(const std::string& station, const std::string& epoch);
    void move(const std::string& station, const Place& place, const std::string& id, double now);

    int64_t again_;
    std::map<std::string, std::vector<Epoch>> stations_;  // the epoch that was heard last at the end
    std::vector<StationSpot> spots_;
    std::set<std::pair<std::string, std::string>> touched_;  // station and epoch
    double since_ = 0;
};
