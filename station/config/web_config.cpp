#include "config/web_config.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "base/text.h"

namespace {

constexpr std::size_t LEAST_TOKEN = 16;
constexpr std::size_t MOST_TOKEN = 128;
constexpr std::string_view TOKEN_CHARACTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~";
constexpr uint32_t LOOPBACK_NET = 127;

bool is_loopback(const std::string& address) {
    in_addr four{};
    in6_addr six{};
    if (inet_pton(AF_INET, address.c_str(), &four) == 1) return ntohl(four.s_addr) >> 24 == LOOPBACK_NET;
    return inet_pton(AF_INET6, address.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

std::string token_problem(const std::string& token) {
    if (token.size() < LEAST_TOKEN || token.size() > MOST_TOKEN) {
        return format("a token has %zu to %zu characters", LEAST_TOKEN, MOST_TOKEN);
    }
    if (token.find_first_not_of(TOKEN_CHARACTERS) != std::string::npos) {
        return "a token is of letters, digits and -._~";
    }
    return "";
}

}  // namespace

WebConfig web_config(const Values& values) {
    WebConfig config;
    config.address = values.text("address", config.address);
    config.port = static_cast<uint16_t>(values.number("port", config.port));
    config.token = values.text("token");
    config.hosts = values.texts("hosts");
    return config;
}

std::string web_problem(const WebConfig& config) {
    if (!is_address(config.address)) return "'" + config.address + "' is no address like 127.0.0.1";
    if (!config.token.empty()) return token_problem(config.token);
    return is_loopback(config.address) ? "" : "whoever is not on this machine needs a token";
}

bool is_address(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 || inet_pton(AF_INET6, text.c_str(), &address) == 1;
}
