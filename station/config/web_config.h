// How the web server is set up.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/values.h"

struct WebConfig {
    std::string address = "127.0.0.1";
    uint16_t port = 8137;                 // 0 = any that is free
    std::string token = {};               // "" = none is asked for
    std::vector<std::string> hosts = {};  // names under which it is reached, besides localhost and addresses
    bool operator==(const WebConfig&) const = default;
};

WebConfig web_config(const Values& values);

// Why a server cannot be set up like this; "" when it can. Whoever is not on this machine needs a token.
std::string web_problem(const WebConfig& config);

// Whether a text is an address, of IPv4 or IPv6.
bool is_address(const std::string& text);
