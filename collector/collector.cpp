#include "collector.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "base/utc.h"
#include "intake.h"
#include "mqtt/mqtt_client.h"
#include "shares.h"
#include "vault.h"

namespace {

constexpr int LOOP_MS = 20;
constexpr double NAP_S = 0.1;
constexpr double BATCH_S = 0.1;       // that the first spot of a batch waits for others
constexpr double DIVIDE_EVERY_S = 2;  // stations among collectors
constexpr double FIRST_RETRY_S = 1;   // it doubles
constexpr double LONGEST_RETRY_S = 5;
constexpr uint32_t SESSION_S = 86400;  // that the broker keeps messages for a collector that is gone
constexpr uint16_t MOST_UNREAD = 1000;
constexpr double CLOCK_S = 86400;  // by which a station's clock may be ahead
constexpr std::size_t MOST_STATIONS = 100'000;
constexpr std::size_t MOST_MESSAGES = 10'000;  // that wait for the database
constexpr std::size_t MOST_BYTES = 4096;       // of one
constexpr std::size_t SHOWN_BYTES = 200;
constexpr double TELL_EVERY_S = 10;  // of what is no spot

// Something that may be gone for a while: told of once, and tried again after growing pauses.
class Trouble {
  public:
    bool may_try(double now) const { return now >= next_; }

    void note(const std::string& problem, double now) {
        if (problem_ != problem) print_error(problem, Level::WARNING);
        problem_ = problem;
        next_ = now + pause_s_;
        pause_s_ = std::min(2 * pause_s_, LONGEST_RETRY_S);
    }

    void over(const char* what) {
        if (!std::exchange(problem_, "").empty()) print_error(std::string(what) + " works again", Level::NOTICE);
        pause_s_ = FIRST_RETRY_S;
    }

  private:
    std::string problem_;
    double next_ = 0;
    double pause_s_ = FIRST_RETRY_S;
};

// The broker first, then the database, without which nothing is a collector's; whatever fails begins again from there,
// and the stations send again what was on its way.
class Collector {
  public:
    explicit Collector(const CollectorConfig& config)
        : config_(config),
          prefix_(config.broker.text("prefix", "orvel") + "/"),
          client_(config.broker,
                  {.id = "orvel-" + config.collector.text("name", "collector"),
                   .session_s = SESSION_S,
                   .most_unread = MOST_UNREAD},
                  [this](std::string_view topic, std::string_view text) { take_message(topic, text); }) {}

    int run() {
        while (!interrupted()) turn();
        attempt(database_trouble_, [&] { store(); });
        attempt(broker_trouble_, [&] { client_.connected() && client_.settle(1); });
        client_.disconnect();
        return EXIT_SUCCESS;
    }

  private:
    void turn() {
        if (!client_.connected()) {
            vault_.reset();
            if (!broker_trouble_.may_try(monotonic_now())) return nap(NAP_S);
            attempt(broker_trouble_, [&] { reach_broker(); });
        }
        if (!client_.connected()) return;
        attempt(broker_trouble_, [&] { client_.loop(LOOP_MS); });
        if (!vault_ && database_trouble_.may_try(monotonic_now())) {
            attempt(database_trouble_, [&] { open_database(); });
        }
        if (vault_ && !attempt(database_trouble_, [&] { work(); })) vault_.reset();
        tell_of_refused();
        tell_of_rights();
    }

    // Does something that may fail, and is then tried again later.
    template <class Work>
    static bool attempt(Trouble& trouble, const Work& work) {
        try {
            work();
            return true;
        } catch (const IoError& error) {
            trouble.note(error.what(), monotonic_now());
            return false;
        }
    }

    void work() {
        if (monotonic_now() >= divide_at_) divide();
        own_stations();
        while (!messages_.empty()) {
            read(messages_.front());
            messages_.pop_front();
            if (intake_.is_full()) store();
        }
        if (monotonic_now() >= intake_.since() + BATCH_S) store();
    }

    // ---- The database -----------------------------------------------------------------------------------------------

    void open_database() {
        const Values& database = config_.database;
        std::optional<std::string> password;
        if (database.has("password")) password = database.text("password");
        const std::string network = client_.host() + " " + prefix_;
        vault_ = std::make_unique<PostgresVault>(database.text("connection"), password, network);
        database_trouble_.over("the database");
        intake_ = Intake(static_cast<int64_t>(1000 * utc_now()));
        shares_.clear();
        waiting_ = heard_;
        divide_at_ = 0;
    }

    // Equal parts for all collectors; who joins gets theirs as the others leave some.
    void divide() {
        divide_at_ = monotonic_now() + DIVIDE_EVERY_S;
        const auto [collectors, taken] = vault_->division();
        const auto most = static_cast<std::size_t>(most_shares(collectors));
        const std::size_t before = shares_.size();
        if (shares_.size() > most) store();
        while (shares_.size() > most) leave(*shares_.rbegin());
        for (int share = 0; share < SHARES && shares_.size() < most; share++) {
            if (taken.contains(share) || shares_.contains(share) || !vault_->take_share(share)) continue;
            shares_.insert(share);
            for (const std::string& station : heard_) {
                if (share_of(station) == share) waiting_.insert(station);
            }
        }
        if (shares_.size() == before) return;
        print_error(format("%zu of %d parts of the network are this collector's", shares_.size(), SHARES),
                    Level::NOTICE);
    }

    void leave(int share) {
        for (const std::string& station : heard_) {
            if (share_of(station) == share && intake_.owns(station)) disown(station);
        }
        vault_->leave_share(share);
        shares_.erase(share);
    }

    void disown(const std::string& station) {
        intake_.disown(station);
        with_broker([&] { client_.unsubscribe(spots_of(station)); });
    }

    // Stations that are new, or have become this collector's, are asked for all that is not stored.
    void own_stations() {
        for (const std::string& station : std::exchange(waiting_, {})) {
            if (!shares_.contains(share_of(station)) || intake_.owns(station)) continue;
            intake_.own(station, vault_->marks(station));
            with_broker([&] { client_.subscribe(spots_of(station)); });
            if (const auto mark = intake_.latest(station)) publish(station, *mark);
        }
    }

    void store() {
        if (!vault_ || intake_.is_empty()) return;
        const std::vector<StationMark> marks = intake_.touched();
        vault_->keep(intake_.spots(), marks);
        intake_.stored();
        for (const auto& [station, mark] : marks) publish(station, mark);
    }

    // ---- The broker -------------------------------------------------------------------------------------------------

    void reach_broker() {
        client_.connect();
        client_.subscribe(prefix_ + "+/status");
        broker_trouble_.over("the broker");
    }

    // When it fails, turn() begins again.
    template <class Work>
    void with_broker(const Work& work) {
        if (client_.connected()) attempt(broker_trouble_, work);
    }

    void publish(const std::string& station, const Mark& mark) {
        with_broker([&] { client_.publish(prefix_ + station + "/stored", mark_line(mark), true); });
    }

    std::string spots_of(const std::string& station) const { return prefix_ + station + "/+/spot"; }

    struct Message {
        std::string station, text;
    };

    // STATION/status or STATION/RECEIVER/spot, below the prefix. What there is no room for the station sends again.
    void take_message(std::string_view topic, std::string_view text) {
        if (!topic.starts_with(prefix_)) return;
        topic.remove_prefix(prefix_.size());
        std::string station(topic.substr(0, topic.find('/')));
        if (!is_name(station)) return;
        if (heard_.size() < MOST_STATIONS && heard_.insert(station).second) waiting_.insert(station);
        if (!topic.ends_with("/spot")) return;
        if (text.size() > MOST_BYTES) return refuse({std::move(station), std::string(text.substr(0, SHOWN_BYTES))});
        if (messages_.size() < MOST_MESSAGES) messages_.push_back({std::move(station), std::string(text)});
    }

    // The broker's session may be of a time when the station was this collector's.
    void read(const Message& message) {
        if (!intake_.owns(message.station)) return disown(message.station);
        if (intake_.take(message.station, read_spot_message(message.text, utc_now() + CLOCK_S), monotonic_now()))
            return;
        refuse(message);
    }

    void refuse(const Message& message) {
        refused_++;
        last_refused_ = "'" + message.station + "': " + message.text.substr(0, SHOWN_BYTES);
    }

    void tell_of_refused() {
        if (refused_ == 0 || monotonic_now() < tell_at_) return;
        tell_at_ = monotonic_now() + TELL_EVERY_S;
        print_error(
            format("%zu messages are no spots, such as that of %s", std::exchange(refused_, 0), last_refused_.c_str()),
            Level::WARNING);
    }

    // A broker that lets nothing be read looks like one without stations.
    void tell_of_rights() {
        std::string refusal = client_.take_refusal();
        if (refusal.empty()) return;
        client_.forget();
        if (refusal != refusal_) print_error(refusal, Level::WARNING);
        refusal_ = std::move(refusal);
    }

    CollectorConfig config_;
    std::string prefix_;
    MqttClient client_;  // calls take_message()
    std::unique_ptr<Vault> vault_;
    Trouble database_trouble_, broker_trouble_;
    std::deque<Message> messages_;
    Intake intake_{0};
    std::set<int> shares_;
    std::set<std::string> heard_;    // stations that the broker knows
    std::set<std::string> waiting_;  // those that may have become ours
    double divide_at_ = 0;
    std::size_t refused_ = 0;
    std::string last_refused_;
    std::string refusal_;  // of the broker, that was told of
    double tell_at_ = 0;
};

}  // namespace

int run_collector(const CollectorConfig& config) {
    watch_interrupts();
    return Collector(config).run();
}
