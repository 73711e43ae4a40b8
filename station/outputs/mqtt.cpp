// MQTT 5. A spot has arrived when the broker has acknowledged it (QoS 1) or, with confirm = "collector", when a
// collector has stored it.
//
//     PREFIX/STATION/RECEIVER/spot    each spot, not retained
//     PREFIX/STATION/status           "online"; "offline" is the last will; retained
//     PREFIX/STATION/RECEIVER/last    the last of them, retained
//     PREFIX/STATION/RECEIVER/state   how the receiver does, each minute; retained
//     PREFIX/STATION/last             the last spot of all receivers, retained
//     PREFIX/STATION/total            the number of the last spot, retained
//     PREFIX/STATION/stored           a collector's mark, retained
//     DISCOVERY/device/ID/config      what Home Assistant shows; again when it says in DISCOVERY/status that it is new
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/json.h"
#include "base/text.h"
#include "base/utc.h"
#include "mqtt/mqtt_client.h"
#include "network/messages.h"
#include "outputs/types.h"

namespace {

constexpr int LOOP_MS = 100;
constexpr double CONFIRM_S = 10;  // for what is on its way
constexpr double STORED_S = 5;    // for a mark to move
constexpr int EXPIRE_S = 180;     // a receiver's state

constexpr std::string_view BROKER = "broker";
constexpr std::string_view COLLECTOR = "collector";

class MqttOutput : public Output {
  public:
    MqttOutput(const Values& values, Keeper keeper)
        : base_(values.text("prefix", "orvel") + "/" + topic_word(keeper.callsign)),
          discovery_(values.text("discovery")),
          keeper_(std::move(keeper)),
          values_(values),
          waits_for_collector_(values.text("confirm") == COLLECTOR),
          client_(values,
                  {.id = values.text("client_id", "orvel-" + topic_word(keeper_.callsign)),
                   .will = MqttClient::Will{topic("status"), "offline"}},
                  [this](std::string_view from, std::string_view text) { take_message(from, text); }) {
        const std::string confirm = values.text("confirm", std::string(BROKER));
        if (confirm != BROKER && confirm != COLLECTOR) {
            throw UsageError("mqtt: confirm is \"broker\" or \"collector\"");
        }
    }
    MqttOutput(const MqttOutput&) = delete;
    MqttOutput& operator=(const MqttOutput&) = delete;
    ~MqttOutput() override {
        if (!client_.connected()) return;
        try {
            publish(topic("status"), "offline", true);
            client_.settle(1);
        } catch (const IoError&) {  // its last will says the same
        }
        client_.disconnect();
    }

    // Where the collector is. It may have less than before, when its database is an older one; and the store may be an
    // older one than it knows, whose numbers mean other spots.
    int64_t resume(Store& store, const std::string& output, int64_t position) override {
        if (!waits_for_collector_) return position;
        if (epoch_.empty()) epoch_ = store.epoch(output);
        if (mark_ && mark_->epoch != epoch_) mark_.reset();
        if (mark_ && (confirmed_ < 0 || mark_->number > position) && !store.may_hold(mark_->number, mark_->id)) {
            print_error(
                "output '" + output + "': the collector knows other spots under these numbers: all are sent again",
                Level::WARNING);
            epoch_ = store.renew_epoch(output);
            mark_.reset();
            return confirmed_ = 0;
        }
        const int64_t before = std::exchange(confirmed_, mark_ ? mark_->number : std::max(confirmed_, position));
        if (!mark_) return position;
        again_ = mark_->again;
        if (before < 0) return mark_->number;
        if (mark_->number >= before) return std::max(position, mark_->number);
        print_error(format("output '%s': the collector has spots up to number %lld only: those after it are sent again",
                           output.c_str(), static_cast<long long>(mark_->number)),
                    Level::NOTICE);
        return mark_->number;
    }

    std::size_t send(std::span<const StoredSpot> spots) override {
        connect();
        client_.forget();
        // The broker keeps what it is sent for a collector that is away: one spot each time, and not all of them.
        if (is_silent_) spots = spots.first(1);
        const std::vector<int> messages = publish_spots(spots);
        publish_last(spots);
        return waits_for_collector_ ? stored_of(spots) : acknowledged_of(messages);
    }

    // Under another name: two clients of one name push each other out.
    void check() override {
        MqttClient doctor(values_, {.id = "orvel-doctor-" + std::to_string(getpid())}, {});
        doctor.connect();
        doctor.disconnect();
    }

    // A collector that comes back is soon heard.
    double longest_pause_s() const override {
        return waits_for_collector_ && client_.connected() ? 2 : Output::longest_pause_s();
    }

    bool wants_minutes() const override { return true; }

    void take(const ReceiverMinute& minute) override {
        connect();
        show(minute.receiver);
        nlohmann::ordered_json state;
        state["utc"] = utc_text(minute.end, 0);
        state["level_db"] = minute.level_db ? nlohmann::ordered_json(*minute.level_db) : nullptr;
        state["noise_db"] = minute.noise_db ? nlohmann::ordered_json(*minute.noise_db) : nullptr;
        state["captured_s"] = minute.captured_s;
        state["lost_s"] = minute.lost_s;
        state["decode_s"] = minute.decode_s;
        state["clipped"] = minute.clipped;
        publish(topic(topic_word(minute.receiver) + "/state"), json_line(state), true);
    }

    void tick() override {
        connect();
        client_.loop(waits_for_collector_ ? 0 : LOOP_MS);
        if (std::exchange(is_asked_, false)) discover();
    }

  private:
    std::string topic(const std::string& rest) const { return base_ + "/" + rest; }

    void take_message(std::string_view from, std::string_view text) {
        if (from == discovery_ + "/status") {
            is_asked_ = text == "online";
        } else if (const auto mark = read_mark(text); mark && (epoch_.empty() || mark->epoch == epoch_)) {
            mark_ = *mark;
        }
    }

    void connect() {
        if (client_.connected()) return;
        client_.connect();
        if (waits_for_collector_) client_.subscribe(topic("stored"));
        publish(topic("status"), "online", true);
        // Its confirmation comes after the mark that the broker keeps.
        if (waits_for_collector_) client_.settle(CONFIRM_S);
        if (discovery_.empty()) return;
        client_.subscribe(discovery_ + "/status");
        discover();
    }

    // The first of them that the collector does not have, and those after it.
    std::vector<int> publish_spots(std::span<const StoredSpot> spots) {
        std::vector<int> messages;
        messages.reserve(spots.size());
        int64_t after = confirmed_;
        for (const StoredSpot& stored : spots) {
            std::string line = stored_line(stored, keeper_);
            if (waits_for_collector_) line = placed_line(line, {epoch_, stored.number, after}, keeper_.locator);
            messages.push_back(publish(topic(topic_word(stored.spot.receiver) + "/spot"), std::move(line), false));
            after = stored.number;
        }
        return messages;
    }

    void publish_last(std::span<const StoredSpot> spots) {
        std::map<std::string, const StoredSpot*> last;
        for (const StoredSpot& stored : spots) last[stored.spot.receiver] = &stored;
        for (const auto& [receiver, stored] : last) {
            show(receiver);
            publish(topic(topic_word(receiver) + "/last"), stored_line(*stored, keeper_), true);
        }
        if (spots.empty()) return;
        publish(topic("last"), stored_line(spots.back(), keeper_), true);
        publish(topic("total"), std::to_string(spots.back().number), true);
    }

    std::size_t acknowledged_of(const std::vector<int>& messages) {
        client_.settle(CONFIRM_S);
        const auto missing =
            std::ranges::find_if(messages, [&](int message) { return !client_.is_confirmed(message); });
        if (missing == messages.begin() && !messages.empty())
            throw IoError("'" + client_.host() + "' does not confirm");
        return static_cast<std::size_t>(missing - messages.begin());
    }

    // How many of the first the collector stores within some seconds; it may ask for them once more.
    std::size_t stored_of(std::span<const StoredSpot> spots) {
        std::size_t stored = 0;
        double end = monotonic_now() + STORED_S;
        while (stored < spots.size() && monotonic_now() < end) {
            client_.loop(LOOP_MS);
            if (!mark_) continue;
            // Of spots that it was not sent: resume() looks into it.
            if (mark_->number < confirmed_ || mark_->number > spots.back().number) return 0;
            const std::size_t before = stored;
            while (stored < spots.size() && spots[stored].number <= mark_->number) stored++;
            if (stored > before) end = monotonic_now() + STORED_S;
            confirmed_ = std::max(confirmed_, mark_->number);
            if (std::exchange(again_, mark_->again) != mark_->again) publish_spots(spots.subspan(stored));
        }
        is_silent_ = stored == 0;
        if (!is_silent_) return stored;
        // What the broker does not take would pile up.
        if (!client_.all_confirmed()) client_.disconnect();
        throw IoError("no collector confirms what '" + client_.host() + "' was sent");
    }

    // A receiver among what Home Assistant shows.
    void show(const std::string& receiver) {
        if (receivers_.insert(receiver).second) discover();
    }

    void discover() {
        if (discovery_.empty()) return;
        publish(discovery_ + "/device/orvel-" + topic_word(keeper_.callsign) + "/config", discovery(), true);
    }

    int publish(const std::string& to, std::string payload, bool retained) {
        if (payload.ends_with('\n')) payload.pop_back();
        return client_.publish(to, payload, retained);
    }

    // One device with few entities: the callsigns on the air are data, not devices.
    std::string discovery() const {
        const std::string id = "orvel-" + topic_word(keeper_.callsign);
        nlohmann::ordered_json config;
        config["dev"] = {{"ids", id}, {"name", "orvel " + keeper_.callsign}, {"sw", ovl_version()}};
        config["o"] = {{"name", "orvel"}, {"sw", ovl_version()}};
        config["avty_t"] = topic("status");
        const auto add = [&](const std::string& name, const std::string& label, const std::string& state,
                             nlohmann::ordered_json more) {
            nlohmann::ordered_json& part = config["cmps"][name];
            part = {{"p", "sensor"}, {"name", label}, {"uniq_id", id + "-" + name}, {"stat_t", topic(state)}};
            part.update(more);
        };
        add("last", "Last spot", "last", {{"val_tpl", "{{ value_json.call }}"}, {"json_attr_t", topic("last")}});
        add("total", "Spots", "total", {{"stat_cla", "total_increasing"}});
        for (const std::string& receiver : receivers_) {
            const std::string state = topic_word(receiver) + "/state";
            add("receiver-" + topic_word(receiver), receiver + " noise", state,
                {{"val_tpl", "{{ value_json.noise_db }}"},
                 {"unit_of_meas", "dB"},
                 {"stat_cla", "measurement"},
                 {"exp_aft", EXPIRE_S},
                 {"json_attr_t", topic(state)}});
        }
        return json_line(config);
    }

    std::string base_, discovery_;
    Keeper keeper_;
    Values values_;
    bool waits_for_collector_;
    std::set<std::string> receivers_;
    bool is_asked_ = false;     // for discovery
    std::string epoch_;         // of the numbers; "" until the store is known
    std::optional<Mark> mark_;  // that was heard last
    int64_t again_ = 0;         // of the mark, when spots were sent last
    int64_t confirmed_ = -1;    // number up to which the collector has all, as spots were sent last; -1 = unknown
    bool is_silent_ = false;    // the collector
    MqttClient client_;         // calls take_message()
};

}  // namespace

std::unique_ptr<Output> make_mqtt_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<MqttOutput>(values, keeper);
}
