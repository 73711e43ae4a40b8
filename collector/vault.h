// Where spots are kept for good, and how far each station's are.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "network/messages.h"
#include "postgres.h"

struct StationMark {
    std::string station;  // the word of its topics
    Mark mark;
    bool operator==(const StationMark&) const = default;
};

// Everything throws IoError, after which it is opened anew.
class Vault {
  public:
    static constexpr std::size_t MOST_EPOCHS = 8;  // of a station, that are remembered

    virtual ~Vault() = default;

    // Keeps spots that are not there yet, and moves marks on; all of it or, when it throws, nothing. On return it is on
    // the disk.
    virtual void keep(std::span<const StationSpot> spots, std::span<const StationMark> marks) = 0;

    // The marks of a station's latest epochs, that which moved last at the end.
    virtual std::vector<Mark> marks(const std::string& station) = 0;

    // Collectors divide stations by shares. A share has one collector, who loses it with its connection.
    struct Division {
        int collectors;       // that are at work, this one among them
        std::set<int> taken;  // shares that one of them has
    };
    virtual Division division() = 0;
    virtual bool take_share(int share) = 0;  // false when another has it
    virtual void leave_share(int share) = 0;
};

// Throws IoError where two clocks are so far apart that one takes spots of now for spots of the future, which are
// passed over.
void require_same_time(double own_utc, double database_utc);

// In PostgreSQL, in the schema "orvel".
class PostgresVault : public Vault {
  public:
    // Makes what is missing there. Collectors of one `network` divide its stations.
    PostgresVault(const std::string& where, const std::optional<std::string>& password, const std::string& network);

    void keep(std::span<const StationSpot> spots, std::span<const StationMark> marks) override;
    std::vector<Mark> marks(const std::string& station) override;
    Division division() override;
    bool take_share(int share) override;
    void leave_share(int share) override;

  private:
    void make_day(int64_t day);
    void make_days_ahead(double utc);

    Postgres database_;
    std::string network_;     // as a number
    std::set<int64_t> days_;  // since 1970-01-01, that have a partition
    double ahead_at_ = 0;     // UTC
};
