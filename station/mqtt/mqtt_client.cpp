#include "mqtt/mqtt_client.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <mutex>
#include <span>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"

namespace {

constexpr double PORT = 1883;
constexpr double TLS_PORT = 8883;
constexpr int KEEP_ALIVE_S = 30;
constexpr int LOOP_MS = 100;
constexpr double CONNECT_S = 15;
constexpr int QOS = 1;
constexpr int REFUSED = 128;            // and above, of reason codes
constexpr uint32_t MOST_BYTES = 65536;  // of a packet; the broker keeps larger ones to itself

void require_library() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

// Properties of a packet.
class Properties {
  public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { mosquitto_property_free_all(&list_); }
    void add(int name, uint32_t value) { mosquitto_property_add_int32(&list_, name, value); }
    const mosquitto_property* get() const { return list_; }

  private:
    mosquitto_property* list_ = nullptr;
};

}  // namespace

MqttClient::MqttClient(const Values& broker, Options options, Take take)
    : broker_(broker),
      options_(std::move(options)),
      take_(std::move(take)),
      host_(broker.text("host")),
      port_(static_cast<int>(broker.number("port", broker.has("ca_file") ? TLS_PORT : PORT))) {
    require_library();
    handle_ = make_handle();
}

MqttClient::Handle MqttClient::make_handle() {
    Handle handle(mosquitto_new(options_.id.c_str(), options_.session_s == 0, this));
    if (!handle) throw UsageError("mqtt: a client cannot be made as '" + options_.id + "'");
    mosquitto_int_option(handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle.get(), MOSQ_OPT_RECEIVE_MAXIMUM, options_.most_unread);
    if (broker_.has("user")) {
        const std::string password = broker_.text("password");
        require(mosquitto_username_pw_set(handle.get(), broker_.text("user").c_str(), password.c_str()), "mqtt");
    }
    if (broker_.has("ca_file")) {
        require(mosquitto_tls_set(handle.get(), broker_.text("ca_file").c_str(), nullptr, nullptr, nullptr, nullptr),
                "mqtt: ca_file");
    }
    if (options_.will) {
        const auto& [topic, text] = *options_.will;
        mosquitto_will_set_v5(handle.get(), topic.c_str(), static_cast<int>(text.size()), text.data(), QOS, true,
                              nullptr);
    }
    mosquitto_connect_v5_callback_set(handle.get(),
                                      [](mosquitto*, void* self, int code, int, const mosquitto_property*) {
                                          static_cast<MqttClient*>(self)->answer_ = code;
                                      });
    mosquitto_disconnect_v5_callback_set(handle.get(), [](mosquitto*, void* self, int code, const mosquitto_property*) {
        static_cast<MqttClient*>(self)->connected_ = false;
        if (code >= REFUSED) static_cast<MqttClient*>(self)->farewell_ = code;
    });
    mosquitto_subscribe_v5_callback_set(
        handle.get(), [](mosquitto*, void* self, int, int count, const int* codes, const mosquitto_property*) {
            for (const int code : std::span(codes, static_cast<std::size_t>(count))) {
                if (code >= REFUSED) static_cast<MqttClient*>(self)->refuse("a subscription", code);
            }
        });
    mosquitto_message_v5_callback_set(
        handle.get(), [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*) {
            const std::string_view text(static_cast<const char*>(message->payload),
                                        static_cast<std::size_t>(message->payloadlen));
            static_cast<MqttClient*>(self)->take_(message->topic, text);
        });
    mosquitto_publish_v5_callback_set(handle.get(),
                                      [](mosquitto*, void* self, int message, int code, const mosquitto_property*) {
                                          auto& client = *static_cast<MqttClient*>(self);
                                          if (code >= REFUSED) return client.refuse("a message", code);
                                          client.unconfirmed_.erase(message);
                                      });
    return handle;
}

void MqttClient::require(int result, const std::string& what) const {
    if (result == MOSQ_ERR_SUCCESS) return;
    throw UsageError(what + ": " + mosquitto_strerror(result));
}

void MqttClient::fail(const std::string& reason) {
    connected_ = false;
    throw IoError("'" + host_ + "': " + reason);
}

void MqttClient::refuse(const char* what, int code) {
    refusal_ = "'" + host_ + "' refuses " + what + ": " + mosquitto_reason_string(code);
}

void MqttClient::check(int result) {
    if (result != MOSQ_ERR_SUCCESS) fail(mosquitto_strerror(result));
}

// With a new handle: the old one holds messages that its owner sends again.
void MqttClient::connect() {
    unconfirmed_.clear();
    handle_ = make_handle();
    answer_ = -1;
    farewell_ = 0;
    Properties properties;
    properties.add(MQTT_PROP_MAXIMUM_PACKET_SIZE, MOST_BYTES);
    if (options_.session_s > 0) properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, options_.session_s);
    int result =
        mosquitto_connect_bind_v5(handle_.get(), host_.c_str(), port_, KEEP_ALIVE_S, nullptr, properties.get());
    const double end = monotonic_now() + CONNECT_S;
    connected_ = result == MOSQ_ERR_SUCCESS;
    while (result == MOSQ_ERR_SUCCESS && answer_ < 0 && monotonic_now() < end) {
        result = mosquitto_loop(handle_.get(), LOOP_MS, 1);
    }
    check(result);
    if (answer_ < 0) fail("no answer");
    if (answer_ > 0) fail(mosquitto_reason_string(answer_));
}

void MqttClient::subscribe(const std::string& filter) {
    check(mosquitto_subscribe_v5(handle_.get(), nullptr, filter.c_str(), QOS, 0, nullptr));
}

void MqttClient::unsubscribe(const std::string& filter) {
    check(mosquitto_unsubscribe_v5(handle_.get(), nullptr, filter.c_str(), nullptr));
}

int MqttClient::publish(const std::string& topic, const std::string& text, bool retained) {
    int message = 0;
    check(mosquitto_publish_v5(handle_.get(), &message, topic.c_str(), static_cast<int>(text.size()), text.data(), QOS,
                               retained, nullptr));
    unconfirmed_.insert(message);
    return message;
}

void MqttClient::loop(int ms) {
    const int result = mosquitto_loop(handle_.get(), ms, 1);
    if (result == MOSQ_ERR_SUCCESS && connected_) return;
    fail(farewell_ != 0 ? mosquitto_reason_string(farewell_) : mosquitto_strerror(result));
}

bool MqttClient::settle(double seconds) {
    const double end = monotonic_now() + seconds;
    while (!all_confirmed() && monotonic_now() < end) loop(LOOP_MS);
    return all_confirmed();
}

void MqttClient::disconnect() {
    mosquitto_disconnect(handle_.get());
    mosquitto_loop(handle_.get(), LOOP_MS, 1);
    connected_ = false;
}

std::string topic_word(std::string text) {
    std::ranges::replace_if(
        text, [](char c) { return c == '/' || c == '+' || c == '#' || c == '\0'; }, '-');
    return text;
}
