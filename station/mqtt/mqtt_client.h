// A client of an MQTT 5 broker, driven by the thread that calls it: nothing happens between calls.
#pragma once

#include <mosquitto.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "config/values.h"

class MqttClient {
  public:
    struct Will {
        std::string topic, text;
    };
    struct Options {
        std::string id;                 // two clients of one push each other out
        std::optional<Will> will = {};  // what the broker says when the connection is lost; retained
        uint32_t session_s = 0;         // that the broker keeps subscriptions and messages for; 0 = none
        uint16_t most_unread = 20;      // messages that the broker may send before they are acknowledged
    };
    using Take = std::function<void(std::string_view topic, std::string_view text)>;

    // `broker` holds host, port, user, password and ca_file; `take` gets what comes. Touches no network. Throws
    // UsageError.
    MqttClient(const Values& broker, Options options, Take take);
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;
    ~MqttClient() = default;

    // Each throws IoError, whose text begins with the host, and is then no longer connected. What was published and
    // not confirmed before is not sent again by connect(), which waits some seconds.
    void connect();
    void subscribe(const std::string& filter);
    void unsubscribe(const std::string& filter);
    int publish(const std::string& topic, const std::string& text, bool retained);  // QoS 1; the message's number
    void loop(int ms);  // reads and writes; waits that long for something to do

    // Loops until the broker has confirmed all or some seconds have passed; whether it has.
    bool settle(double seconds);
    bool is_confirmed(int message) const { return !unconfirmed_.contains(message); }
    bool all_confirmed() const { return unconfirmed_.empty(); }
    void forget() { unconfirmed_.clear(); }  // what has not been confirmed

    // What the broker did not allow since this was asked last, the latest; "" = nothing.
    std::string take_refusal() { return std::exchange(refusal_, ""); }

    bool connected() const { return connected_; }
    void disconnect();
    const std::string& host() const { return host_; }

  private:
    struct Destroy {
        void operator()(mosquitto* client) const noexcept { mosquitto_destroy(client); }
    };
    using Handle = std::unique_ptr<mosquitto, Destroy>;

    Handle make_handle();
    void refuse(const char* what, int code);
    void require(int result, const std::string& what) const;
    void check(int result);
    [[noreturn]] void fail(const std::string& reason);

    Values broker_;
    Options options_;
    Take take_;
    std::string host_;
    int port_;
    Handle handle_;
    bool connected_ = false;
    int answer_ = -1;   // to the connection
    int farewell_ = 0;  // why the broker ended it; 0 = it did not say
    std::string refusal_;
    std::set<int> unconfirmed_;
};

// Slashes and wildcards would make other topics.
std::string topic_word(std::string text);
