// MQTT 5. A spot has arrived when the broker has acknowledged it (QoS 1).
//
//     PREFIX/STATION/RECEIVER/spot    each spot, not retained
//     PREFIX/STATION/status           "online"; "offline" is the last will; retained
//     PREFIX/STATION/RECEIVER/last    the last of them, retained
//     PREFIX/STATION/RECEIVER/state   how the receiver does, each minute; retained
//     PREFIX/STATION/last             the last spot of all receivers, retained
//     PREFIX/STATION/total            the number of the last spot, retained
//     DISCOVERY/device/ID/config      what Home Assistant shows; again when it says in DISCOVERY/status that it is new
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/console.h"
#include "base/error.h"
#include "base/interrupts.h"
#include "base/json.h"
#include "base/utc.h"
#include "outputs/types.h"

namespace {

constexpr double PORT = 1883;
constexpr double TLS_PORT = 8883;
constexpr int KEEP_ALIVE_S = 30;
constexpr int LOOP_MS = 100;
constexpr double CONNECT_S = 15;
constexpr double CONFIRM_S = 10;  // for what is on its way
constexpr int EXPIRE_S = 180;     // a receiver's state
constexpr int QOS = 1;

void require_library() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

class MqttOutput : public Output {
  public:
    MqttOutput(const Values& values, Keeper keeper)
        : host_(values.text("host")),
          port_(static_cast<int>(values.number("port", values.has("ca_file") ? TLS_PORT : PORT))),
          base_(values.text("prefix", "orvel") + "/" + topic_word(keeper.callsign)),
          discovery_(values.text("discovery")),
          keeper_(std::move(keeper)),
          values_(values) {
        require_library();
        client_ = make_client(values_.text("client_id", "orvel-" + topic_word(keeper_.callsign)));
        const std::string offline = "offline";
        mosquitto_will_set_v5(client_.get(), topic("status").c_str(), static_cast<int>(offline.size()), offline.data(),
                              QOS, true, nullptr);
    }
    MqttOutput(const MqttOutput&) = delete;
    MqttOutput& operator=(const MqttOutput&) = delete;
    ~MqttOutput() override {
        if (!connected_) return;
        try {
            publish(topic("status"), "offline", true);
            const double end = monotonic_now() + 1;
            while (unconfirmed() && monotonic_now() < end) loop();
        } catch (const IoError&) {  // its last will says the same
        }
        mosquitto_disconnect(client_.get());
        mosquitto_loop(client_.get(), LOOP_MS, 1);
    }

    std::size_t send(std::span<const StoredSpot> spots) override {
        connect();
        confirmed_.clear();
        std::vector<int> messages;
        messages.reserve(spots.size());
        std::map<std::string, const StoredSpot*> last;
        for (const StoredSpot& stored : spots) {
            const std::string& receiver = stored.spot.receiver;
            messages.push_back(publish(topic(topic_word(receiver) + "/spot"), stored_line(stored, keeper_), false));
            last[receiver] = &stored;
        }
        for (const auto& [receiver, stored] : last) {
            show(receiver);
            publish(topic(topic_word(receiver) + "/last"), stored_line(*stored, keeper_), true);
        }
        if (!spots.empty()) {
            publish(topic("last"), stored_line(spots.back(), keeper_), true);
            publish(topic("total"), std::to_string(spots.back().number), true);
        }
        const double end = monotonic_now() + CONFIRM_S;
        while (unconfirmed() && monotonic_now() < end) loop();
        const auto missing = std::ranges::find_if(messages, [&](int message) { return !confirmed_[message]; });
        if (missing == messages.begin() && !messages.empty()) throw IoError("'" + host_ + "' does not confirm");
        return static_cast<std::size_t>(missing - messages.begin());
    }

    // Under another name: two clients of one name push each other out.
    void check() override {
        client_ = make_client("orvel-doctor-" + std::to_string(getpid()));
        reach();
        mosquitto_disconnect(client_.get());
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
        loop();
        if (std::exchange(is_asked_, false)) discover();
    }

  private:
    struct Destroy {
        void operator()(mosquitto* client) const noexcept { mosquitto_destroy(client); }
    };

    using Client = std::unique_ptr<mosquitto, Destroy>;

    Client make_client(const std::string& id) {
        Client client(mosquitto_new(id.c_str(), true, this));
        if (!client) throw UsageError("mqtt: a client cannot be made as '" + id + "'");
        mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        if (values_.has("user")) {
            const std::string password = values_.text("password");
            require(mosquitto_username_pw_set(client.get(), values_.text("user").c_str(), password.c_str()), "mqtt");
        }
        if (values_.has("ca_file")) {
            require(
                mosquitto_tls_set(client.get(), values_.text("ca_file").c_str(), nullptr, nullptr, nullptr, nullptr),
                "mqtt: ca_file");
        }
        mosquitto_connect_v5_callback_set(client.get(),
                                          [](mosquitto*, void* self, int code, int, const mosquitto_property*) {
                                              static_cast<MqttOutput*>(self)->answer_ = code;
                                          });
        mosquitto_disconnect_v5_callback_set(client.get(), [](mosquitto*, void* self, int, const mosquitto_property*) {
            static_cast<MqttOutput*>(self)->connected_ = false;
        });
        mosquitto_message_v5_callback_set(
            client.get(), [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*) {
                const std::string_view text(static_cast<const char*>(message->payload),
                                            static_cast<std::size_t>(message->payloadlen));
                static_cast<MqttOutput*>(self)->is_asked_ = text == "online";
            });
        mosquitto_publish_v5_callback_set(client.get(),
                                          [](mosquitto*, void* self, int message, int code, const mosquitto_property*) {
                                              auto& confirmed = static_cast<MqttOutput*>(self)->confirmed_;
                                              if (const auto found = confirmed.find(message); found != confirmed.end())
                                                  found->second = code < 128;
                                          });
        return client;
    }

    // Slashes and wildcards would make other topics.
    static std::string topic_word(std::string text) {
        std::ranges::replace_if(
            text, [](char c) { return c == '/' || c == '+' || c == '#' || c == '\0'; }, '-');
        return text;
    }
    std::string topic(const std::string& rest) const { return base_ + "/" + rest; }

    void require(int result, const std::string& what) const {
        if (result == MOSQ_ERR_SUCCESS) return;
        throw UsageError(what + ": " + mosquitto_strerror(result));
    }

    [[noreturn]] void fail(const std::string& reason) {
        connected_ = false;
        throw IoError("'" + host_ + "': " + reason);
    }

    void reach() {
        answer_ = -1;
        int result = mosquitto_connect_bind_v5(client_.get(), host_.c_str(), port_, KEEP_ALIVE_S, nullptr, nullptr);
        const double end = monotonic_now() + CONNECT_S;
        while (result == MOSQ_ERR_SUCCESS && answer_ < 0 && monotonic_now() < end) {
            result = mosquitto_loop(client_.get(), LOOP_MS, 1);
        }
        if (result != MOSQ_ERR_SUCCESS) fail(mosquitto_strerror(result));
        if (answer_ < 0) fail("no answer");
        if (answer_ > 0) fail(mosquitto_reason_string(answer_));
    }

    void connect() {
        if (connected_) return;
        reach();
        connected_ = true;
        publish(topic("status"), "online", true);
        if (discovery_.empty()) return;
        mosquitto_subscribe_v5(client_.get(), nullptr, (discovery_ + "/status").c_str(), QOS, 0, nullptr);
        discover();
    }

    // A receiver among what Home Assistant shows.
    void show(const std::string& receiver) {
        if (receivers_.insert(receiver).second) discover();
    }

    void discover() {
        if (discovery_.empty()) return;
        publish(discovery_ + "/device/orvel-" + topic_word(keeper_.callsign) + "/config", discovery(), true);
    }

    void loop() {
        const int result = mosquitto_loop(client_.get(), LOOP_MS, 1);
        if (result != MOSQ_ERR_SUCCESS || !connected_) fail(mosquitto_strerror(result));
    }

    int publish(const std::string& topic, std::string payload, bool retained) {
        if (payload.ends_with('\n')) payload.pop_back();
        int message = 0;
        const int result =
            mosquitto_publish_v5(client_.get(), &message, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), QOS, retained, nullptr);
        if (result != MOSQ_ERR_SUCCESS) fail(mosquitto_strerror(result));
        confirmed_[message] = false;
        return message;
    }

    bool unconfirmed() const {
        return std::ranges::any_of(confirmed_, [](const auto& message) { return !message.second; });
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

    std::string host_;
    int port_;
    std::string base_, discovery_;
    Keeper keeper_;
    Values values_;
    Client client_;
    std::set<std::string> receivers_;
    bool connected_ = false;
    bool is_asked_ = false;          // for discovery
    int answer_ = -1;                // to the connection
    std::map<int, bool> confirmed_;  // of what was published
};

}  // namespace

std::unique_ptr<Output> make_mqtt_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<MqttOutput>(values, keeper);
}
